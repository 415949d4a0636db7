#pragma once

#include <optional>
#include <string>

namespace KR::tool {

/// "YUV422 (9)", or "12" for a code whose meaning is not known.
std::string describeColorSpace(long long code);

/// The code that goes by this name: luma, yuv422, rgb, bgr or bgrx, in whatever case.
std::optional<int> findColorSpace(const std::string& name);

/// "luma, yuv422, rgb, bgr, bgrx"
std::string listColorSpaces();

} // namespace KR::tool
