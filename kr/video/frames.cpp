#include "video/frames.hpp"

#include "video/timeline.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

KRImage makeImage(const KROxvFile& recording, std::size_t stream) {
    recording.requireFrames();
    const std::vector<KROxvStream>& streams = recording.getStreams();
    if (stream >= streams.size()) {
        throw std::runtime_error(recording.getPath() + ": there is no stream " + std::to_string(stream) +
                                 "; the last one is " + std::to_string(streams.size() - 1));
    }
    return recording.makeImage(stream);
}

} // namespace

Frames::Frames(KROxvFile& recording, std::size_t stream)
    : recording_(recording), stream_(stream), image_(makeImage(recording, stream)) {}

const KRImage& Frames::read(std::uint64_t frame) {
    if (frame >= count()) {
        throw std::runtime_error(recording_.getPath() + ": there is no frame " + std::to_string(frame) +
                                 "; there are " + std::to_string(count()));
    }
    recording_.readImage(image_, frame, stream_);
    return image_;
}

std::int64_t FrameClock::next(std::int64_t timeStamp) {
    if (isStarted_) {
        std::int64_t interval = 0;
        const bool isUsable = !__builtin_sub_overflow(timeStamp, previous_, &interval) && interval > 0 &&
                              interval <= oxv::kLongestGap_usec;
        time_usec_ += isUsable ? interval : interval_usec_;
    }
    isStarted_ = true;
    previous_ = timeStamp;
    return time_usec_;
}

std::int64_t estimateInterval(KROxvFile& recording, std::size_t stream, std::uint64_t first) {
    constexpr std::uint64_t kEnough = 300;
    constexpr std::int64_t kDefault = 1000000 / 30;
    constexpr std::int64_t kMinute = 60000000;
    std::vector<std::int64_t> timeStamps;
    const std::uint64_t end = std::min(recording.countCompleteFrames(), first + kEnough);
    for (std::uint64_t frame = first; frame < end; ++frame) {
        timeStamps.push_back(recording.readChunkHeader(frame, stream).timeStamp);
    }
    const std::int64_t usual = makeTimeline(timeStamps).usualInterval;
    return usual > 0 && usual <= kMinute ? usual : kDefault;
}

} // namespace KR::tool
