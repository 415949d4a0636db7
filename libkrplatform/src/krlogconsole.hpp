#pragma once

#include "krplatform/krlogformat.hpp"

#include "krlogline.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>

namespace KR {

/// Formats records as lines and writes them to standard error without ever blocking.
///
/// A line that repeats a recent one is only counted; the counts are written at growing intervals. Reentrant.
class KRLogConsole {
public:
    using Clock = std::chrono::steady_clock;

    /// Maximum bytes queued for standard error; further lines are dropped, counted and reported.
    static constexpr std::size_t kMaxPending = 1 << 20;
    /// Maximum number of lines whose repetitions are counted.
    static constexpr std::size_t kMaxRecent = 256;
    /// Longest text of a record on standard error, in bytes.
    static constexpr std::size_t kMaxText = kMaxLogText;
    static constexpr Clock::duration kFirstInterval = std::chrono::seconds(1);
    static constexpr Clock::duration kLongestInterval = std::chrono::minutes(10);

    KRLogConsole();

    /// Form of the lines from now on.
    void setFormat(KRLogFormat format) noexcept { format_ = format; }
    void add(const KRLogRecord& record);
    /// Reports the repetitions whose interval is over, or all of them.
    void addRepetitions(bool all);
    /// When addRepetitions() has to be called next; nullopt if no repetition is being counted.
    std::optional<Clock::time_point> getNextReport() const;

    bool hasPending() const noexcept { return written_ < pending_.size(); }
    /// Writes as much as possible without blocking. \return whether everything is written
    bool write() noexcept;

private:
    using Key = std::tuple<KRLogLevel, std::string, std::string>; // level, category, text
    struct Recent {
        std::uint64_t repetitions = 0; // not reported yet
        Clock::duration interval = kFirstInterval;
        Clock::time_point report; // end of the interval
    };

    void addLine(const Key& key, std::chrono::system_clock::time_point time, std::uint64_t repetitions);
    void append(const std::string& line);
    void forgetOldest();
    void dropPending() noexcept;

    const bool colored_;
    KRLogFormat format_ = KRLogFormat::Text;
    std::map<Key, Recent> recent_;
    std::string pending_;
    std::size_t written_ = 0; // bytes of pending_ that are out already
    std::uint64_t lost_ = 0;  // lines, since the last report
};

} // namespace KR
