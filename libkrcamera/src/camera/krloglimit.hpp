#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace KR {

/// Rate limit for a repeated log message: admits the first one, then one a minute, and gradually fewer, down to one an
/// hour. Reentrant.
class KRLogLimit {
public:
    using Clock = std::chrono::steady_clock;

    /// \return nullopt if the message is not to be logged; otherwise the number of messages that were refused since
    /// the last one admitted
    std::optional<int> admit(Clock::time_point now) noexcept {
        if (next_ && now < *next_) {
            ++refused_;
            return std::nullopt;
        }
        interval_ = next_ ? std::min<Clock::duration>(2 * interval_, longest) : shortest;
        next_ = now + interval_;
        const int refused = refused_;
        refused_ = 0;
        return refused;
    }

private:
    static constexpr Clock::duration shortest = std::chrono::minutes(1);
    static constexpr Clock::duration longest = std::chrono::hours(1);

    Clock::duration interval_{};
    std::optional<Clock::time_point> next_; ///< when a message is admitted again
    int refused_ = 0;
};

} // namespace KR
