#pragma once

#include <krplatform/krerror.hpp>

#include <chrono>
#include <functional>

namespace KR::tool {

class Interruption;

/// Decides how long a verb waits for a camera that delivers nothing, because of a late image or a restart of its service.
/// Ignores most of the time in which this program was stopped. Thread-bound.
class Silence {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kPatience{10};

    explicit Silence(std::function<Clock::time_point()> now = Clock::now);

    /// Call it before each fetch.
    void beginFetch() { fetchStart_ = now_(); }
    /// Call it after a fetch that succeeded.
    void end() { length_ = Clock::duration::zero(); }
    /// Call it after a fetch that failed. Prints the first error of a silence, then pauses before the next fetch.
    /// \return false once the silence is longer than kPatience: give up
    bool goOn(const KRError& error, Interruption& interruption);

private:
    const std::function<Clock::time_point()> now_;
    Clock::time_point fetchStart_;
    Clock::duration length_ = Clock::duration::zero(); // 0: the last fetch succeeded
};

} // namespace KR::tool
