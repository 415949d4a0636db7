#pragma once

#include <krplatform/krlog.hpp>
#include <krplatform/krmutex.hpp>

#include <chrono>
#include <cstdint>
#include <string>

namespace KR {

/// A rate-limited log for messages that other processes can cause: a few lines a minute, and a count of the rest.
/// Thread-safe.
class KRLimitedLog {
public:
    static constexpr std::uint64_t kLines = 5; ///< per interval

    /// \param subject  for the count: "12 more lines about <subject> were left out"
    KRLimitedLog(const char* category, std::string subject,
                 std::chrono::milliseconds interval = std::chrono::minutes(1))
        : category_(category), subject_(std::move(subject)), interval_(interval) {}

    void write(KRLogLevel level, const std::string& message);
    /// Logs how many lines were left out, once their interval is over. Call it periodically.
    void flush();

private:
    /// Starts a new interval if the last one is over. \return number of lines that one left out
    std::uint64_t beginInterval() KR_REQUIRES(mutex_);
    void logOmitted(std::uint64_t count) const;

    const char* const category_;
    const std::string subject_;
    const std::chrono::milliseconds interval_;
    KRMutex mutex_; // not held while logging
    std::chrono::steady_clock::time_point began_ KR_GUARDED_BY(mutex_);
    std::uint64_t lines_ KR_GUARDED_BY(mutex_) = 0;
    std::uint64_t omitted_ KR_GUARDED_BY(mutex_) = 0;
};

} // namespace KR
