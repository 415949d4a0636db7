#pragma once

#include "camera/krimagesource.hpp"
#include "recording/krrecording.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace KR {

/// Plays a recording at its own rate, again and again.
///
/// An image is played 33 ms after the one before if its time stamp is not later, or later by more than ten seconds:
/// one wrong time stamp does not stall the camera. The first ones are logged.
class KRRecordingPlayer : public KRImageSource {
public:
    /// \throws std::runtime_error  as KRRecording
    KRRecordingPlayer(const std::string& path, int stream);

    std::optional<KRCapture> pull() override;

private:
    void readNext();
    std::chrono::microseconds getStep(std::int64_t from_usec, std::int64_t to_usec);
    void logWrongTime(std::uint64_t gap_usec, const char* direction);

    const std::string path_;
    KRRecording recording_;
    std::uint64_t next_ = 0;
    KRCapture capture_; ///< image number next_, already read
    std::chrono::steady_clock::time_point due_;
    int wrongTimes_ = 0;
};

} // namespace KR
