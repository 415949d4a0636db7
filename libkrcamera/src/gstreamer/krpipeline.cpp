#include "gstreamer/krpipeline.hpp"

#include "gstreamer/krsharedallocator.hpp"
#include "gstreamer/krsourcebin.hpp"

#include <krplatform/krthread.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace KR {

namespace {

const std::string noVideo = "there is no video in it";
constexpr GstClockTime pullTimeout = 50 * GST_MSECOND;
// A still image played as a film would otherwise be decoded again and again without a pause.
constexpr std::chrono::milliseconds shortestPass(33);

// By default, the demultiplexer waits for further streams before it announces the first.
void expectOneStream(GstBin*, GstBin*, GstElement* element, gpointer) {
    const GstElementFactory* factory = gst_element_get_factory(element);
    if (factory != nullptr && g_str_equal(GST_OBJECT_NAME(factory), "multipartdemux")) {
        g_object_set(element, "single-stream", TRUE, nullptr);
    }
}

} // namespace

KRPipeline::KRPipeline(KRPipelineDescription description, const KRSoftwareControls* controls)
    : description_(std::move(description)), controls_(controls) {
    initGStreamer();
    try {
        build();
        start();
    } catch (...) {
        stop();
        throw;
    }
}

KRPipeline::~KRPipeline() {
    stop();
}

void KRPipeline::build() {
    pipeline_.reset(gst_pipeline_new(nullptr));
    gst_object_ref_sink(pipeline_.get());
    bus_.reset(gst_element_get_bus(pipeline_.get()));
    // The system clock: one that a source provides may be lost while the pipeline runs.
    const GstHandle<GstClock> clock(gst_system_clock_obtain());
    gst_pipeline_use_clock(GST_PIPELINE(pipeline_.get()), clock.get());

    if (description_.hasOneStream) {
        g_signal_connect(pipeline_.get(), "deep-element-added", G_CALLBACK(expectOneStream), nullptr);
    }
    const GstHandle<GstElement> bin = makeSourceBin(description_);
    sink_.reset(gst_bin_get_by_name(GST_BIN(bin.get()), imageSinkName));
    offerSharedMemory(sink_.get());
    gst_bin_add(GST_BIN(pipeline_.get()), bin.get()); // keeps a reference
    if (controls_ != nullptr) {
        gain_.reset(gst_bin_get_by_name(GST_BIN(bin.get()), "gain"));
        balance_.reset(gst_bin_get_by_name(GST_BIN(bin.get()), "balance"));
        flip_.reset(gst_bin_get_by_name(GST_BIN(bin.get()), "flip"));
        applyControls();
    }
}

void KRPipeline::start() {
    passStart_ = std::chrono::steady_clock::now();
    capturesInPass_ = 0;
    GstStateChangeReturn result = gst_element_set_state(pipeline_.get(), GST_STATE_PAUSED);
    if (result != GST_STATE_CHANGE_FAILURE) {
        // Live images are handed out at once, the others when their time stamps are due.
        g_object_set(sink_.get(), "sync", result != GST_STATE_CHANGE_NO_PREROLL, nullptr);
        result = gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
    }
    if (result == GST_STATE_CHANGE_FAILURE) {
        readBus(0);
        throw std::runtime_error(failure_.value_or("the pipeline does not start"));
    }
}

void KRPipeline::stop() noexcept {
    if (pipeline_) {
        gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    }
}

std::optional<KRCapture> KRPipeline::pull() {
    if (controls_ != nullptr && controls_->getVersion() != appliedVersion_) {
        applyControls();
    }
    GstAppSink* sink = GST_APP_SINK(sink_.get());
    GstHandle<GstSample> sample(gst_app_sink_try_pull_sample(sink, pullTimeout));
    // A sink at its end no longer waits; the end is posted on the bus once the last image is due.
    readBus(!sample && gst_app_sink_is_eos(sink) ? pullTimeout : 0);
    if (sample) {
        ++capturesInPass_;
        return capture(std::move(sample));
    }
    if (failure_) {
        throw std::runtime_error(*failure_);
    }
    if (ended_) {
        if (description_.atEnd == KRPipelineDescription::AtEnd::Fail) {
            throw std::runtime_error("the source has ended");
        }
        rewind();
    }
    return std::nullopt;
}

// Pops all messages, so that ignored ones do not accumulate.
void KRPipeline::readBus(GstClockTime timeout) {
    constexpr auto wanted = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING |
                                                        GST_MESSAGE_EOS | GST_MESSAGE_ELEMENT);
    while (const GstHandle<GstMessage> message{gst_bus_timed_pop_filtered(bus_.get(), timeout, wanted)}) {
        timeout = 0;
        switch (GST_MESSAGE_TYPE(message.get())) {
        case GST_MESSAGE_ERROR:
            readError(message.get());
            break;
        case GST_MESSAGE_WARNING:
            readWarning(message.get());
            break;
        case GST_MESSAGE_EOS:
            ended_ = true;
            break;
        default:
            if (const GstStructure* details = gst_message_get_structure(message.get());
                details != nullptr && gst_structure_has_name(details, "missing-plugin")) {
                const char* name = gst_structure_get_string(details, "name");
                missing_ = std::string(" (missing: ") + (name != nullptr ? name : "a plug-in") + ")";
            }
        }
    }
}

// A stream that does not fit the sink is only a warning; an error may or may not follow.
void KRPipeline::readWarning(GstMessage* message) {
    GError* error = nullptr;
    gst_message_parse_warning(message, &error, nullptr);
    const GstHandle<GError> owned(error);
    if (!description_.isUserDefined && !failure_ &&
        g_error_matches(error, GST_PARSE_ERROR, GST_PARSE_ERROR_DELAYED_LINK)) {
        failure_ = noVideo + missing_;
    }
}

// The first error is the cause; later ones are consequences.
void KRPipeline::readError(GstMessage* message) {
    if (failure_) {
        return;
    }
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    const GstHandle<GError> ownedError(error);
    const GstHandle<gchar> ownedDebug(debug);
    failure_ = error->message;
    if (!missing_.empty()) {
        *failure_ += missing_;
        return;
    }
    // The debug text begins with a location in GStreamer's sources; its last line holds the details.
    const std::string place = debug != nullptr ? debug : "";
    const std::size_t lastLine = place.rfind('\n');
    if (place.find("not-linked") != std::string::npos) {
        failure_ = noVideo;
    } else if (place.find("not-negotiated") != std::string::npos) {
        *failure_ += " Its pictures are larger than " + std::to_string(largestSide) + "x" +
                     std::to_string(largestSide) + ", or of a kind that cannot be converted";
    } else if (const std::string reason = explain(error); !reason.empty()) {
        failure_ = reason;
    } else if (lastLine != std::string::npos && lastLine + 1 < place.size()) {
        *failure_ += " (" + place.substr(lastLine + 1) + ")";
    }
    failure_ = description_.hideSecrets(*failure_);
}

// Some elements report that a server cannot be reached, but not why.
std::string KRPipeline::explain(const GError* error) const {
    const bool vague = g_error_matches(error, GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED) ||
                       g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_READ);
    return vague ? description_.explain() : "";
}

void KRPipeline::rewind() {
    if (capturesInPass_ == 0) {
        throw std::runtime_error(noVideo);
    }
    sleepUntil(passStart_ + shortestPass);
    ended_ = false;
    passStart_ = std::chrono::steady_clock::now();
    capturesInPass_ = 0;
    constexpr auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT);
    if (description_.atEnd != KRPipelineDescription::AtEnd::Rewind ||
        !gst_element_seek_simple(pipeline_.get(), GST_FORMAT_TIME, flags, 0)) {
        // Some formats and servers cannot seek: start a new pipeline.
        stop();
        build();
        start();
    }
}

void KRPipeline::applyControls() {
    appliedVersion_ = controls_->getVersion(); // before the values: a change in between is applied again
    const auto value = [this](int id) { return controls_->getValue(id); };
    const double gain = value(ControlId::Gain) / 100.0;
    g_object_set(gain_.get(), "contrast", gain, "saturation", gain, nullptr);
    g_object_set(balance_.get(), "brightness", value(ControlId::Brightness) / 100.0, "contrast",
                 value(ControlId::Contrast) / 100.0, "saturation", value(ControlId::Saturation) / 100.0,
                 "hue", value(ControlId::Hue) / 180.0, nullptr);
    const bool horizontal = value(ControlId::HorizontalFlip) != 0;
    const bool vertical = value(ControlId::VerticalFlip) != 0;
    const GstVideoOrientationMethod direction = horizontal && vertical ? GST_VIDEO_ORIENTATION_180
                                                : horizontal           ? GST_VIDEO_ORIENTATION_HORIZ
                                                : vertical             ? GST_VIDEO_ORIENTATION_VERT
                                                                       : GST_VIDEO_ORIENTATION_IDENTITY;
    g_object_set(flip_.get(), "video-direction", direction, nullptr);
}

KRCapture KRPipeline::capture(GstHandle<GstSample> sample) {
    KRCapture result;
    GstCaps* caps = gst_sample_get_caps(sample.get());
    GstBuffer* buffer = gst_sample_get_buffer(sample.get());
    if (caps == nullptr || buffer == nullptr || !gst_video_info_from_caps(&result.info, caps)) {
        throw std::runtime_error("the source delivers data that is not an image");
    }
    const std::chrono::nanoseconds age = getAge(sample.get());
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(now - age);
    lastCaptureTime_usec_ = std::max<std::int64_t>(time.count(), lastCaptureTime_usec_ + 1);
    result.captureTime_usec = lastCaptureTime_usec_;
    result.taken = std::chrono::steady_clock::now() - age;
    result.buffer.reset(gst_buffer_ref(buffer));
    return result;
}

// Time since the image was captured.
std::chrono::nanoseconds KRPipeline::getAge(GstSample* sample) const {
    const GstSegment* segment = gst_sample_get_segment(sample);
    const GstClockTime pts = GST_BUFFER_PTS(gst_sample_get_buffer(sample));
    guint64 running = 0;
    if (!GST_CLOCK_TIME_IS_VALID(pts) || segment->format != GST_FORMAT_TIME) {
        return {};
    }
    const int sign = gst_segment_to_running_time_full(segment, GST_FORMAT_TIME, pts, &running);
    if (sign == 0) {
        return {};
    }
    const GstHandle<GstClock> clock(gst_pipeline_get_clock(GST_PIPELINE(pipeline_.get())));
    const auto now = static_cast<std::int64_t>(gst_clock_get_time(clock.get()));
    const std::int64_t taken = static_cast<std::int64_t>(gst_element_get_base_time(pipeline_.get())) +
                               sign * static_cast<std::int64_t>(running);
    // A driver's time stamp may be in the future; the image is not.
    return std::chrono::nanoseconds(std::max<std::int64_t>(0, now - taken));
}

} // namespace KR
