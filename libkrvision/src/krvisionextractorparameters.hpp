#pragma once

namespace KR {

// Names of the parameters of a vision extractor.
inline constexpr const char* kCameraParameter = "camera";
inline constexpr const char* kResolutionParameter = "resolution";
inline constexpr const char* kColorSpaceParameter = "colorSpace";
inline constexpr const char* kFrameRateParameter = "frameRate";
inline constexpr const char* kPauseParameter = "pause";

} // namespace KR
