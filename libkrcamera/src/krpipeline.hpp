#pragma once

#include "krcapture.hpp"
#include "krgstreamer.hpp"
#include "krsoftwarecontrols.hpp"
#include "krsource.hpp"
#include "krv4l2mode.hpp"

#include <gst/app/gstappsink.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// A source that GStreamer runs. Its capture times strictly increase. A looped one starts again at its end.
class KRPipeline : public KRImageSource {
public:
    /// Builds and starts it. Both arguments must outlive it.
    /// \param controls  looked up at every pull; those of getPictureControls() if the source has them
    /// \param wanted    the size of the pictures that it is to serve, if it has several
    /// \throws std::runtime_error it cannot; the text is GStreamer's
    KRPipeline(const KRSource& source, const KRSoftwareControls& controls, const KRSize& wanted);
    /// Stops it. Buffers that were pulled stay valid.
    ~KRPipeline() override;

    std::optional<KRCapture> pull() override;
    bool suits(const KRSize& wanted) const override;

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

    const KRSource& source_;
    const KRSoftwareControls& controls_;
    std::uint64_t appliedVersion_ = 0; ///< of the controls
    // Of a V4L2 device:
    std::vector<KRV4l2Mode> modes_;
    std::string v4l2Caps_;
    GstHandle<GstElement> pipeline_;
    GstHandle<GstElement> sink_;
    // Null in a source without picture controls:
    GstHandle<GstElement> gain_;
    GstHandle<GstElement> balance_;
    GstHandle<GstElement> flip_;
    GstHandle<GstBus> bus_;
    std::optional<std::string> failure_;
    std::string missing_; ///< what GStreamer said it lacks, as the end of a sentence; or empty
    bool ended_ = false;
    int capturesInPass_ = 0; ///< since the start or the last rewinding
    std::chrono::steady_clock::time_point passStart_;
    std::int64_t lastCaptureTime_usec_ = 0;
};

} // namespace KR
