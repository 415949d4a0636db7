#pragma once

#include "video/pipelinesink.hpp"

#include "gstreamer/krgstreamer.hpp" // of the camera service

#include <gst/gst.h>

#include <stdexcept>
#include <string>

namespace KR::tool {

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
    /// Waits until the pipeline has reached its end. \return whether it has within the timeout
    /// \throws WindowClosed
    /// \throws std::runtime_error what went wrong in the pipeline meanwhile
    bool waitForEnd(GstClockTime timeout);
    GstElement* get() const noexcept { return pipeline_.get(); }

private:
    GstHandle<GstElement> pipeline_;
    GstHandle<GstBus> bus_;
};

} // namespace KR::tool
