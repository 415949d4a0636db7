#pragma once

#include "pipelinesink.hpp"

#include <gst/gst.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace KR::tool {

/// Gives one reference on an object of GStreamer or GLib back.
struct GstRelease {
    void operator()(GstElement* element) const noexcept { gst_object_unref(element); }
    void operator()(GstBus* bus) const noexcept { gst_object_unref(bus); }
    void operator()(GstSample* sample) const noexcept { gst_sample_unref(sample); }
    void operator()(GstCaps* caps) const noexcept { gst_caps_unref(caps); }
    void operator()(GstMessage* message) const noexcept { gst_message_unref(message); }
    void operator()(GError* error) const noexcept { g_error_free(error); }
    void operator()(gchar* text) const noexcept { g_free(text); }
};

/// Owns one reference.
template <class T>
using GstHandle = std::unique_ptr<T, GstRelease>;

/// A pipeline that stops with the object.
class GstLine {
public:
    /// \param description  in the syntax of gst-launch
    /// \throws std::runtime_error GStreamer cannot be used, or an element is missing
    explicit GstLine(const std::string& description);
    ~GstLine();
    GstLine(const GstLine&) = delete;
    GstLine& operator=(const GstLine&) = delete;

    /// An element by the name that the description gives it.
    GstHandle<GstElement> find(const char* name) const;
    /// \throws std::runtime_error it does not start
    void start();
    /// Waits until all has come to its end, for so long.
    /// \return whether it has
    /// \throws WindowClosed
    /// \throws std::runtime_error what went wrong in the pipeline meanwhile
    bool waitForEnd(GstClockTime timeout);
    GstElement* get() const noexcept { return pipeline_.get(); }

private:
    GstHandle<GstElement> pipeline_;
    GstHandle<GstBus> bus_;
};

} // namespace KR::tool
