#pragma once

#include "camera/krimagesource.hpp"

#include <krvision/krvideo.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace KR {

/// One stream of an oxv recording, image by image. Reentrant.
///
/// The images bear the recording's time stamps and angles. Their first 25 bytes, which a recording has no room for,
/// are those of the row below. A recording that was never closed is read as far as it goes.
class KRRecording {
public:
    /// \throws std::runtime_error  the file cannot be read, has no such stream or no whole image, or its
    /// images are in a colour space that the camera service does not know
    KRRecording(const std::string& path, int stream);

    std::uint32_t getFrameCount() const noexcept { return frameCount_; }
    /// \throws std::runtime_error no memory for it
    KRCapture read(std::uint32_t frame);

private:
    KRVideo video_;
    unsigned stream_ = 0;
    GstVideoInfo info_{};
    int resolution_ = 0;
    int colorSpace_ = 0;
    std::uint32_t frameCount_ = 0;
};

/// Plays a recording at its own rate, again and again. A time stamp that is not later than the one before counts as
/// one 33 ms later.
class KRRecordingPlayer : public KRImageSource {
public:
    /// \throws std::runtime_error as KRRecording
    KRRecordingPlayer(const std::string& path, int stream);

    std::optional<KRCapture> pull() override;

private:
    void readNext();

    KRRecording recording_;
    std::uint32_t next_ = 0;
    KRCapture capture_; ///< the next image to show
    std::int64_t lastTime_usec_ = 0;
    std::chrono::steady_clock::time_point due_;
};

} // namespace KR
