#pragma once

#include <string>

namespace KR::tool {

/// kr video info of an MCAP file.
/// \throws std::runtime_error with the path: it cannot be read
void printMcapInfo(const std::string& path, bool asJson);

} // namespace KR::tool
