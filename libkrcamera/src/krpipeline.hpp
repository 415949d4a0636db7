#pragma once

#include "krgstreamer.hpp"
#include "krsource.hpp"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace KR {

/// One image as the source delivered it.
struct KRCapture {
    GstHandle<GstBuffer> buffer;
    GstVideoInfo info;
    std::int64_t captureTime_usec; ///< since the Unix epoch
};

/// A running source. Thread-bound: made, used and destroyed on one thread.
class KRPipeline {
public:
    /// Builds and starts it. \throws std::runtime_error it cannot; the text is GStreamer's
    explicit KRPipeline(const KRSource& source);
    /// Stops it. Buffers that were pulled stay valid.
    ~KRPipeline();
    KRPipeline(const KRPipeline&) = delete;
    KRPipeline& operator=(const KRPipeline&) = delete;

    /// The newest image not pulled yet, or nothing if none came within 50 ms. Capture times strictly
    /// increase. A looped source starts again at its end. \throws std::runtime_error  the source has failed
    /// or ended and everything it delivered has been pulled
    std::optional<KRCapture> pull();

    /// Sets the picture's parameters: a value per id that getParameters() lists for the source.
    void setParameters(const std::map<int, int>& values);

private:
    void build();
    void start();
    void stop() noexcept;
    void readBus(GstClockTime timeout);
    void readError(GstMessage* message);
    void readWarning(GstMessage* message);
    void rewind();
    void applyParameters();
    KRCapture capture(GstHandle<GstSample> sample);
    std::int64_t getCaptureTime(GstSample* sample);

    const KRSource& source_;
    GstHandle<GstElement> pipeline_;
    GstHandle<GstElement> sink_;
    GstHandle<GstElement> balance_; ///< null, like flip_, in a source without software parameters
    GstHandle<GstElement> flip_;
    GstHandle<GstBus> bus_;
    std::map<int, int> parameters_;
    std::optional<std::string> failure_;
    std::string missing_; ///< what GStreamer said it lacks, as the end of a sentence; or empty
    bool ended_ = false;
    int capturesInPass_ = 0; ///< since the start or the last rewinding
    std::chrono::steady_clock::time_point passStart_;
    std::int64_t lastCaptureTime_usec_ = 0;
};

} // namespace KR
