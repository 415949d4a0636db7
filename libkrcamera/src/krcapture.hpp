#pragma once

#include "krgstreamer.hpp"
#include "krsize.hpp"

#include <gst/video/video.h>

#include <chrono>
#include <cstdint>
#include <optional>

namespace KR {

/// Field of view, radians. The default is that of a camera that does not tell its own.
struct KRAngles {
    float left = 0.4169222F;
    float top = 0.3209778F;
    float right = -0.4169222F;
    float bottom = -0.3209778F;
};

/// One image as a source delivered it.
struct KRCapture {
    GstHandle<GstBuffer> buffer;
    GstVideoInfo info;
    std::int64_t captureTime_usec = 0;           ///< since the Unix epoch
    std::chrono::steady_clock::time_point taken; ///< when it was captured, or shown if that was another day
    KRAngles angles;
};

/// A source that runs. Thread-bound: made, used and destroyed on one thread.
class KRImageSource {
public:
    KRImageSource() = default;
    virtual ~KRImageSource() = default;
    KRImageSource(const KRImageSource&) = delete;
    KRImageSource& operator=(const KRImageSource&) = delete;

    /// The newest image not pulled yet, or nothing if none came within 50 ms.
    /// \throws std::runtime_error  the source has failed or ended and everything it delivered has been pulled
    virtual std::optional<KRCapture> pull() = 0;

    /// Whether it would deliver the same images if it were opened for pictures of this size.
    virtual bool suits(const KRSize& /*wanted*/) const { return true; }
};

} // namespace KR
