#pragma once

#include <cstdint>
#include <vector>

namespace KR::tool {

/// Statistics of the time stamps of a stream.
struct Timeline {
    /// An interval longer than one and a half usual ones.
    struct Gap {
        std::uint64_t frame;         ///< the first one after it
        std::int64_t length;         ///< from the frame before to this one, microseconds
        std::uint64_t missingFrames; ///< by the usual interval
    };
    /// A time stamp that is earlier than that of the previous frame.
    struct Jump {
        std::uint64_t frame;
        std::int64_t length; ///< microseconds back
    };

    std::uint64_t frames = 0;
    std::int64_t first = -1;        ///< microseconds; -1: there are no frames
    std::int64_t last = -1;         ///< microseconds; -1: there are no frames
    std::int64_t usualInterval = 0; ///< the median, microseconds; 0: unknown
    std::vector<Gap> gaps;
    std::vector<Jump> jumps;

    /// From the first frame to the last, microseconds; 0 if they are not in this order.
    std::int64_t getDuration() const noexcept;
    /// Frames a second over the whole duration; 0: unknown.
    double getRate() const noexcept;
};

/// \param timeStamps  of all frames in their order, microseconds
Timeline makeTimeline(const std::vector<std::int64_t>& timeStamps);

} // namespace KR::tool
