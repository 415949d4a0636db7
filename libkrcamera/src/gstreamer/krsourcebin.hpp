#pragma once

#include "gstreamer/krgstreamer.hpp"
#include "gstreamer/krpipelinedescription.hpp"

namespace KR {

constexpr const char* imageSinkName = "kr-images";
/// Width and height of the largest picture that a source may deliver. GStreamer refuses a larger one before it asks for
/// the memory: GLib ends a process that cannot get memory.
constexpr int largestSide = 8192;

/// Builds the elements of a source: a bin that ends in the appsink named `imageSinkName`, for raw video in system
/// memory.
/// \throws std::runtime_error  an element is missing; the description is not a pipeline
GstHandle<GstElement> makeSourceBin(const KRPipelineDescription& description);

} // namespace KR
