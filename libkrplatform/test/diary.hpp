#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace KR::test {

/// Records events in order. Thread-safe.
class Diary {
public:
    void note(const std::string& what) {
        const std::lock_guard lock(mutex_);
        entries_.push_back(what);
    }
    std::vector<std::string> read() const {
        const std::lock_guard lock(mutex_);
        return entries_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> entries_;
};

} // namespace KR::test
