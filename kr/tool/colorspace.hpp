#pragma once

#include <string>

namespace KR::tool {

/// "YUV422 (9)", or "12" for a code that cannot be converted.
std::string describeColorSpace(long long code);

/// The code of a name: luma, yuv422, rgb, bgr or bgrx, in any case. \throws UsageError another name
int parseColorSpace(const std::string& name);

/// "luma, yuv422, rgb, bgr, bgrx"
std::string listColorSpaces();

} // namespace KR::tool
