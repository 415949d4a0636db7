#pragma once

#include <krvision/krimage.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace KR::tool {

/// Destination of the frames of a conversion.
class FrameSink {
public:
    virtual ~FrameSink() = default;
    FrameSink() = default;
    FrameSink(const FrameSink&) = delete;
    FrameSink& operator=(const FrameSink&) = delete;

    /// \param number     of the frame in its recording
    /// \param time_usec  presentation time since the first frame
    /// \throws std::runtime_error it cannot be written
    virtual void write(const KRImage& image, std::uint64_t number, std::int64_t time_usec) = 0;
    /// After the last frame. \throws std::runtime_error as above
    virtual void finish() {}
};

/// Writes a picture per frame, with its number in the name: instead of "%d" or "%06d", or before the extension.
std::unique_ptr<FrameSink> makePictureSink(const std::string& path);
/// The file name of a frame's picture.
std::string numberPath(const std::string& path, std::uint64_t number);

/// YUV4MPEG2: 4:2:2, or luma alone, at a constant rate.
std::unique_ptr<FrameSink> makeY4mSink(const std::string& path, std::int64_t interval_usec);

} // namespace KR::tool
