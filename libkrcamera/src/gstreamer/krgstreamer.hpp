#pragma once

#include <gst/gst.h>

#include <memory>

namespace KR {

/// Drops one reference to an object of GStreamer or GLib.
struct GstRelease {
    void operator()(GstElement* element) const noexcept { gst_object_unref(element); }
    void operator()(GstBus* bus) const noexcept { gst_object_unref(bus); }
    void operator()(GstClock* clock) const noexcept { gst_object_unref(clock); }
    void operator()(GstBuffer* buffer) const noexcept { gst_buffer_unref(buffer); }
    void operator()(GstSample* sample) const noexcept { gst_sample_unref(sample); }
    void operator()(GstCaps* caps) const noexcept { gst_caps_unref(caps); }
    void operator()(GstMessage* message) const noexcept { gst_message_unref(message); }
    void operator()(GError* error) const noexcept { g_error_free(error); }
    void operator()(gchar* text) const noexcept { g_free(text); }
};

/// Owns one reference.
template <class T>
using GstHandle = std::unique_ptr<T, GstRelease>;

/// Initialises GStreamer at the first call. Thread-safe.
/// \throws std::runtime_error  GStreamer cannot be used; the text says why
void initGStreamer();

} // namespace KR
