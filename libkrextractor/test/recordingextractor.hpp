#pragma once

#include "krextractor/krextractor.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krlog.hpp"
#include "krplatform/krmodulehandle.hpp"
#include "krplatform/krproxy.hpp"

#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace KR::test {

/// An extractor that records the calls of its hooks.
class RecordingExtractor : public KRExtractor {
public:
    using KRExtractor::declareEvent;
    using KRExtractor::declareMemoryKey;
    using KRExtractor::KRExtractor;
    using KRExtractor::xUpdateParameters;

    void xStartDetection(int period, float precision) override { record("start", period, precision); }
    void xUpdateParameters(int period, float precision) override { record("update", period, precision); }
    void xStopDetection() override {
        {
            const std::lock_guard lock(mutex_);
            hooks_.emplace_back("stop");
        }
        if (onHook) {
            onHook("stop");
        }
    }
    int getMinimumPeriod() override { return minimum; }
    int getMaximumPeriod() override { return maximum; }

    std::vector<std::string> takeHooks() {
        const std::lock_guard lock(mutex_);
        return std::exchange(hooks_, {});
    }

    int minimum = 1;
    int maximum = -1;
    std::function<void(const std::string& hook)> onHook; // called after the hook was recorded

private:
    void record(const std::string& hook, int period, float precision) {
        {
            std::ostringstream text;
            text << hook << " " << period << " " << precision;
            const std::lock_guard lock(mutex_);
            hooks_.push_back(text.str());
        }
        if (onHook) {
            onHook(hook);
        }
    }

    std::mutex mutex_;
    std::vector<std::string> hooks_; // guarded by mutex_
};

/// Keeps the log of one category.
class RecordedLog {
public:
    explicit RecordedLog(std::string category)
        : category_(std::move(category)), listener_([this](const KRLogRecord& record) {
              if (record.category == category_) {
                  const std::lock_guard lock(mutex_);
                  records_.push_back(record);
              }
          }) {}

    std::vector<KRLogRecord> take() {
        flushLog();
        const std::lock_guard lock(mutex_);
        return std::exchange(records_, {});
    }

private:
    const std::string category_;
    std::mutex mutex_;
    std::vector<KRLogRecord> records_; // guarded by mutex_
    KRLogListener listener_;
};

} // namespace KR::test
