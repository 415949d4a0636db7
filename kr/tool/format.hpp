#pragma once

#include <string>

namespace KR::tool {

/// std::printf into a string.
[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

} // namespace KR::tool
