#include "video/timeline.hpp"

#include <algorithm>

namespace KR::tool {

namespace {

// Saturates: files may hold any numbers.
std::int64_t subtract(std::int64_t from, std::int64_t what) {
    std::int64_t difference = 0;
    if (__builtin_sub_overflow(from, what, &difference)) {
        return from > what ? INT64_MAX : INT64_MIN + 1;
    }
    return difference;
}

} // namespace

std::int64_t Timeline::getDuration() const noexcept {
    return frames > 0 && last > first ? subtract(last, first) : 0;
}

double Timeline::getRate() const noexcept {
    const std::int64_t duration = getDuration();
    return duration > 0 ? static_cast<double>(frames - 1) * 1e6 / static_cast<double>(duration) : 0.0;
}

Timeline makeTimeline(const std::vector<std::int64_t>& timeStamps) {
    Timeline timeline;
    timeline.frames = timeStamps.size();
    if (timeStamps.empty()) {
        return timeline;
    }
    timeline.first = timeStamps.front();
    timeline.last = timeStamps.back();

    std::vector<std::int64_t> intervals;
    for (std::size_t i = 1; i < timeStamps.size(); ++i) {
        const std::int64_t interval = subtract(timeStamps[i], timeStamps[i - 1]);
        if (interval > 0) {
            intervals.push_back(interval);
        } else if (interval < 0) {
            timeline.jumps.push_back({i, -interval});
        }
    }
    if (intervals.empty()) {
        return timeline;
    }
    const auto middle = intervals.begin() + static_cast<std::ptrdiff_t>((intervals.size() - 1) / 2);
    std::nth_element(intervals.begin(), middle, intervals.end());
    timeline.usualInterval = *middle;

    for (std::size_t i = 1; i < timeStamps.size(); ++i) {
        const std::int64_t interval = subtract(timeStamps[i], timeStamps[i - 1]);
        if (interval / 3 > timeline.usualInterval / 2) {
            const std::int64_t fitting = (interval - timeline.usualInterval / 2) / timeline.usualInterval;
            timeline.gaps.push_back(
                {i, interval, static_cast<std::uint64_t>(std::max<std::int64_t>(fitting, 1))});
        }
    }
    return timeline;
}

} // namespace KR::tool
