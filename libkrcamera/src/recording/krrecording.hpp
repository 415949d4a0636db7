#pragma once

#include "camera/krcapture.hpp"

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <string>

namespace KR {

/// One stream of an oxv recording, image by image. Reentrant.
///
/// The images have the recording's time stamps and angles. A recording does not store their first 25 bytes: they are
/// copied from the row below. A recording that was never closed is read up to its last complete image.
class KRRecording {
public:
    /// \throws std::runtime_error  the file cannot be read, does not have the stream or has no complete image, or the
    /// camera service does not support its colour space
    KRRecording(const std::string& path, int stream);

    std::uint64_t getFrameCount() const noexcept { return frameCount_; }
    /// \throws std::runtime_error  the image cannot be read
    KRCapture read(std::uint64_t frame) const;

private:
    const KROxvFile file_;
    const std::size_t stream_;
    GstVideoInfo info_{};
    std::uint64_t frameCount_ = 0;
};

} // namespace KR
