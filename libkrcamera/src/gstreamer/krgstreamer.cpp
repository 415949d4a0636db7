#include "gstreamer/krgstreamer.hpp"

#include <stdexcept>
#include <string>

namespace KR {

namespace {

std::string tryInit() {
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error)) {
        return {};
    }
    const GstHandle<GError> owned(error);
    return owned ? owned->message : "unknown reason";
}

} // namespace

void initGStreamer() {
    static const std::string failure = tryInit();
    if (!failure.empty()) {
        throw std::runtime_error("GStreamer cannot be used: " + failure);
    }
}

} // namespace KR
