#pragma once

#include <gst/gst.h>

namespace KR {

/// Has the elements before a sink take memory for their images from allocateShared(), as far as they let others choose:
/// clients in other processes are then given the camera's own memory. Without such memory they take their usual one.
void offerSharedMemory(GstElement* sink);

} // namespace KR
