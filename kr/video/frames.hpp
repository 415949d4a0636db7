#pragma once

#include <krvision/krimage.hpp>
#include <krvision/kroxvfile.hpp>

#include <cstdint>

namespace KR::tool {

/// Reads the frames of one stream. Uses memory for one.
class Frames {
public:
    /// \throws std::runtime_error the frames cannot be located; there is no such stream; its depth is not 8
    Frames(KROxvFile& recording, std::size_t stream);

    std::uint64_t count() const { return recording_.countCompleteFrames(); }
    const KROxvStream& getStream() const { return recording_.getStreams()[stream_]; }

    /// Reads a frame. The first 25 bytes of its pixels, which are not in the file, are copied from the row below.
    /// \return valid until the next call
    /// \throws std::runtime_error there is no such frame; the file cannot be read
    const KRImage& read(std::uint64_t frame);

private:
    KROxvFile& recording_;
    const std::size_t stream_;
    KRImage image_;
};

/// Presentation times of frames: by their time stamps, but strictly increasing.
class FrameClock {
public:
    /// \param interval_usec  step where the time stamps do not rise, because none are set for instance, or jump forward
    explicit FrameClock(std::int64_t interval_usec) : interval_usec_(interval_usec) {}

    /// \param timeStamp  of the next frame, microseconds
    /// \return microseconds since the first frame
    std::int64_t next(std::int64_t timeStamp);

private:
    std::int64_t interval_usec_;
    bool isStarted_ = false;
    std::int64_t previous_ = 0; // time stamp
    std::int64_t time_usec_ = 0;
};

/// The usual interval of the frames from `first` on, by a few hundred of them; 1/30 s if they do not say.
std::int64_t estimateInterval(KROxvFile& recording, std::size_t stream, std::uint64_t first);

} // namespace KR::tool
