#pragma once

#include <string>

namespace KR {

/// Tries whether the server of an http: or https: URI can be spoken to, for there are elements of GStreamer that do not
/// tell why it cannot. Asks it for nothing. Blocks for some seconds at most.
/// \return why it cannot, for instance that its certificate is not trusted; empty if it can
std::string explainConnection(const std::string& uri);

} // namespace KR
