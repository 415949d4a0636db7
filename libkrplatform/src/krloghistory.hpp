#pragma once

#include "krplatform/krlogformat.hpp"
#include "krplatform/krmutex.hpp"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace KR {

/// The newest records of a process, for queries by others. Thread-safe.
class KRLogHistory {
public:
    static constexpr std::size_t kMaxBytes = 256 << 10;
    /// Longest message that is kept, in bytes.
    static constexpr std::size_t kMaxMessage = 8192;

    KRLogHistory();

    void add(const KRLogRecord& record) KR_EXCLUDES(mutex_);
    /// As getLogRecords().
    KRLogExcerpt read(const std::string& since) const KR_EXCLUDES(mutex_);

private:
    static std::size_t getSize(const KRLogRecord& record) noexcept;

    const std::string process_; ///< prefix of `now`, unique to this process

    mutable KRMutex mutex_;
    std::deque<KRLogRecord> records_ KR_GUARDED_BY(mutex_);
    std::size_t bytes_ KR_GUARDED_BY(mutex_) = 0;
    std::uint64_t added_ KR_GUARDED_BY(mutex_) = 0; // records so far
};

} // namespace KR
