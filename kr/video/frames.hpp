#pragma once

#include <krvision/krimage.hpp>
#include <krvision/kroxvfile.hpp>

#include <cstdint>

namespace KR::tool {

/// The frames of one stream as pictures are made of them. Needs memory for one.
class Frames {
public:
    /// \throws std::runtime_error there are no frames to speak of, no such stream, or a depth that is not 8
    Frames(KROxvFile& recording, std::size_t stream);

    std::uint64_t count() const { return recording_.countCompleteFrames(); }
    const KROxvStream& getStream() const { return recording_.getStreams()[stream_]; }

    /// Reads a frame. The first 25 bytes of its pixels, which are not in the file, are those of the row below.
    /// \return valid until the next call
    /// \throws std::runtime_error there is no such frame; the file cannot be read
    const KRImage& read(std::uint64_t frame);

private:
    KROxvFile& recording_;
    const std::size_t stream_;
    KRImage image_;
};

/// When to show frames: as their time stamps say, with every frame later than the one before.
class FrameClock {
public:
    /// \param interval_usec  from a frame to the next where the time stamps do not rise, such as where none are set
    explicit FrameClock(std::int64_t interval_usec) : interval_usec_(interval_usec) {}

    /// \param timeStamp  of the next frame, microseconds
    /// \return microseconds since the first frame
    std::int64_t next(std::int64_t timeStamp);

private:
    const std::int64_t interval_usec_;
    bool isStarted_ = false;
    std::int64_t previous_ = 0; // time stamp
    std::int64_t time_usec_ = 0;
};

/// The usual interval of the frames from `first` on, of which a few hundred are looked at; 1/30 s if it cannot be told.
std::int64_t estimateInterval(KROxvFile& recording, std::size_t stream, std::uint64_t first);

} // namespace KR::tool
