#pragma once

#include "camera/krimagesource.hpp"
#include "camera/krsoftwarecontrols.hpp"
#include "gstreamer/krgstreamer.hpp"
#include "gstreamer/krpipelinedescription.hpp"

#include <gst/app/gstappsink.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace KR {

/// A source that GStreamer runs. Its capture times strictly increase.
class KRPipeline : public KRImageSource {
public:
    /// Builds and starts the pipeline.
    /// \param controls  those of getPictureControls(), which are read at every pull and must outlive the pipeline; null
    /// if it has none
    /// \throws std::runtime_error  the pipeline does not start; the text is GStreamer's
    KRPipeline(KRPipelineDescription description, const KRSoftwareControls* controls);
    /// Stops it. Buffers that were pulled stay valid.
    ~KRPipeline() override;

    std::optional<KRCapture> pull() override;

private:
    void build();
    void start();
    void stop() noexcept;
    void readBus(GstClockTime timeout);
    void readError(GstMessage* message);
    void readWarning(GstMessage* message);
    std::string explain(const GError* error) const;
    void rewind();
    void applyControls();
    KRCapture capture(GstHandle<GstSample> sample);
    std::chrono::nanoseconds getAge(GstSample* sample) const;

    const KRPipelineDescription description_;
    const KRSoftwareControls* const controls_; ///< null if there are none
    std::uint64_t appliedVersion_ = 0;         ///< of the controls
    GstHandle<GstElement> pipeline_;
    GstHandle<GstElement> sink_;
    // Null without controls:
    GstHandle<GstElement> gain_;
    GstHandle<GstElement> balance_;
    GstHandle<GstElement> flip_;
    GstHandle<GstBus> bus_;
    std::optional<std::string> failure_;
    std::string missing_; ///< " (missing: H.264 decoder)", or empty
    bool ended_ = false;
    int capturesInPass_ = 0; ///< since the start or the last rewinding
    std::chrono::steady_clock::time_point passStart_;
    std::int64_t lastCaptureTime_usec_ = 0;
};

} // namespace KR
