#pragma once

#include "patience.hpp"

#include "krplatform/krlog.hpp"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace KR::test {

/// Keeps every record that is logged while it exists. Thread-safe.
class RecordedLog {
public:
    /// The records of this level whose message contains the text.
    std::vector<KRLogRecord> find(KRLogLevel level, const std::string& text) const {
        flushLog();
        const std::lock_guard lock(mutex_);
        return findLocked(level, text);
    }
    /// Waits for the first such record. \return nullopt if it did not come in time
    std::optional<KRLogRecord> waitFor(KRLogLevel level, const std::string& text) const {
        std::unique_lock lock(mutex_);
        if (!grown_.wait_for(lock, kPatience, [&] { return !findLocked(level, text).empty(); })) {
            return std::nullopt;
        }
        return findLocked(level, text).front();
    }

private:
    std::vector<KRLogRecord> findLocked(KRLogLevel level, const std::string& text) const {
        std::vector<KRLogRecord> found;
        for (const KRLogRecord& record : records_) {
            if (record.level == level && record.message.find(text) != std::string::npos) {
                found.push_back(record);
            }
        }
        return found;
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable grown_;
    std::vector<KRLogRecord> records_; // guarded by mutex_
    KRLogListener listener_{[this](const KRLogRecord& record) {
        const std::lock_guard lock(mutex_);
        records_.push_back(record);
        grown_.notify_all();
    }};
};

} // namespace KR::test
