#pragma once

#include <optional>
#include <string>

namespace KR::tool {

/// \name Colour spaces whose meaning is known, beside kLumaColorSpace and kYUV422ColorSpace
/// They are those of the camera service.
///@{
inline constexpr int kRgbColorSpace = 11;
inline constexpr int kBgrColorSpace = 13;
inline constexpr int kBgrxColorSpace = 18; ///< the fourth byte means nothing
///@}

/// "YUV422 (9)", or "12" for a code whose meaning is not known.
std::string describeColorSpace(long long code);

/// The code that goes by this name: luma, yuv422, rgb, bgr or bgrx, in whatever case.
std::optional<int> findColorSpace(const std::string& name);

/// "luma, yuv422, rgb, bgr, bgrx"
std::string listColorSpaces();

} // namespace KR::tool
