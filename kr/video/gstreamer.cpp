#include "video/gstreamer.hpp"

#include <gst/video/gstvideosink.h>

#include <stdexcept>

namespace KR::tool {

namespace {

void init() {
    GError* error = nullptr;
    if (!gst_init_check(nullptr, nullptr, &error)) {
        const GstHandle<GError> owned(error);
        throw std::runtime_error(std::string("GStreamer cannot be used: ") +
                                 (error != nullptr ? error->message : "unknown reason"));
    }
}

[[noreturn]] void fail(GstMessage* message) {
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    const GstHandle<GError> ownedError(error);
    const GstHandle<gchar> ownedDebug(debug);
    if (g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NOT_FOUND) &&
        GST_IS_VIDEO_SINK(GST_MESSAGE_SRC(message))) {
        throw WindowClosed(error->message);
    }
    // The debug text begins with a place in GStreamer's sources; only its last line says more.
    const std::string place = debug != nullptr ? debug : "";
    const std::size_t lastLine = place.rfind('\n');
    std::string text = error->message;
    if (lastLine != std::string::npos && lastLine + 1 < place.size()) {
        text += " (" + place.substr(lastLine + 1) + ")";
    }
    throw std::runtime_error(text);
}

} // namespace

GstLine::GstLine(const std::string& description) {
    init();
    GError* error = nullptr;
    pipeline_.reset(gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    const GstHandle<GError> owned(error);
    if (error != nullptr || !pipeline_) {
        throw std::runtime_error(error != nullptr ? error->message : "the pipeline cannot be built");
    }
    gst_object_ref_sink(pipeline_.get());
    bus_.reset(gst_element_get_bus(pipeline_.get()));
}

GstLine::~GstLine() {
    if (pipeline_) {
        gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    }
}

GstHandle<GstElement> GstLine::find(const char* name) const {
    return GstHandle<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
}

void GstLine::start() {
    if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        waitForEnd(0); // throws the reason
        throw std::runtime_error("the pipeline does not start");
    }
}

bool GstLine::waitForEnd(GstClockTime timeout) {
    constexpr auto kWanted = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS);
    const GstHandle<GstMessage> message(gst_bus_timed_pop_filtered(bus_.get(), timeout, kWanted));
    if (message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        fail(message.get());
    }
    return message != nullptr;
}

} // namespace KR::tool
