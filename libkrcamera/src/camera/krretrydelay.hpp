#pragma once

#include <algorithm>
#include <chrono>

namespace KR {

/// The pauses between attempts to open a source. Reentrant.
class KRRetryDelay {
public:
    using Duration = std::chrono::steady_clock::duration;

    static constexpr Duration shortest = std::chrono::milliseconds(250);
    static constexpr Duration longest = std::chrono::seconds(5);

    /// The pause after a failure: twice the one before, within the limits; the shortest one again if the source
    /// delivered images for longer than twice the pause before.
    /// \param delivered  for how long the source delivered images; 0 if it delivered none
    Duration next(Duration delivered) noexcept {
        last_ = delivered > 2 * last_ ? shortest : std::clamp(2 * last_, shortest, longest);
        return last_;
    }

private:
    Duration last_{};
};

} // namespace KR
