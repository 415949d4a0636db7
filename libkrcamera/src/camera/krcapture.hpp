#pragma once

#include "gstreamer/krgstreamer.hpp"

#include <krvision/krdefaultangles.hpp>

#include <gst/video/video.h>

#include <chrono>
#include <cstdint>

namespace KR {

/// Field of view, radians. The default is for cameras that do not report theirs.
struct KRAngles {
    float left = kDefaultAngles[0];
    float top = kDefaultAngles[1];
    float right = kDefaultAngles[2];
    float bottom = kDefaultAngles[3];
};

/// One image from a source.
struct KRCapture {
    GstHandle<GstBuffer> buffer;
    GstVideoInfo info;
    std::int64_t captureTime_usec = 0;           ///< since the Unix epoch
    std::chrono::steady_clock::time_point taken; ///< capture time; for recordings, playback time
    KRAngles angles;
};

} // namespace KR
