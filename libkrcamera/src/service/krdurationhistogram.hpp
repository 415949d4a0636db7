#pragma once

#include <krplatform/krcamerainfo.hpp>

#include <array>
#include <chrono>
#include <cstdint>

namespace KR {

/// A histogram of durations in classes that are 3 % wide; its memory does not grow. Reentrant.
class KRDurationHistogram {
public:
    /// Negative durations count as 0, those over a day as a day.
    void add(std::chrono::steady_clock::duration duration) noexcept;
    /// Median and 99th percentile are the upper ends of their classes.
    KRDurations summarize() const noexcept;

private:
    float getQuantile(double part) const noexcept;

    // Microseconds: one class each up to 63, then 32 classes for each power of two up to 2^37.
    std::array<std::uint32_t, 1056> counts_{};
    std::uint64_t count_ = 0;
    std::int64_t max_usec_ = 0;
};

} // namespace KR
