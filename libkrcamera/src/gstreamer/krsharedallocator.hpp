#pragma once

#include <gst/gst.h>

namespace KR {

/// Proposes allocateShared() as allocator to the elements before a sink: if they accept, clients in other processes map the
/// camera's own memory. Without such memory, they use their usual allocator.
void offerSharedMemory(GstElement* sink);

} // namespace KR
