#pragma once

#include <cstdint>
#include <vector>

namespace KR::tool {

/// What the time stamps of a stream tell.
struct Timeline {
    /// A pause that is longer than one and a half usual intervals.
    struct Gap {
        std::uint64_t frame;         ///< the first one behind it
        std::int64_t length;         ///< from the frame before to this one, microseconds
        std::uint64_t missingFrames; ///< how many usual intervals would have fitted in
    };
    /// A time stamp before that of the frame before.
    struct Jump {
        std::uint64_t frame;
        std::int64_t length; ///< how far back, microseconds
    };

    std::uint64_t frames = 0;
    std::int64_t first = -1;        ///< microseconds; -1: there is none
    std::int64_t last = -1;         ///< microseconds; -1: there is none
    std::int64_t usualInterval = 0; ///< the median, microseconds; 0: not known
    std::vector<Gap> gaps;
    std::vector<Jump> jumps;

    /// From the first frame to the last, microseconds; 0 if they are not in this order.
    std::int64_t getDuration() const noexcept;
    /// Frames a second over the whole duration; 0: not known.
    double getRate() const noexcept;
};

/// \param timeStamps  of all frames in their order, microseconds
Timeline makeTimeline(const std::vector<std::int64_t>& timeStamps);

} // namespace KR::tool
