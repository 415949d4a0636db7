#pragma once

#include <string>

namespace KR {

/// Connects to the server of an http: or https: URI and disconnects again: some elements of GStreamer do not report why
/// a server is unreachable. Blocks for some seconds at most. Reentrant.
/// \return the reason, for instance that the certificate is not trusted; empty if the connection was made
std::string explainConnection(const std::string& uri);

} // namespace KR
