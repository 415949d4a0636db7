#pragma once

#include <span>
#include <string>

namespace KR {

/// A property of the picture that can be set while a camera runs.
struct KRCameraParameter {
    int id; ///< number of the V4L2 control of the same meaning
    const char* name;
    int minimum;
    int maximum;
    int defaultValue;
};

namespace ParameterId {
constexpr int Brightness = 0x00980900;
constexpr int Contrast = 0x00980901;
constexpr int Saturation = 0x00980902;
constexpr int Hue = 0x00980903;
constexpr int HorizontalFlip = 0x00980914;
constexpr int VerticalFlip = 0x00980915;
} // namespace ParameterId

/// The parameters of a camera whose picture is adjusted in software.
std::span<const KRCameraParameter> getSoftwareParameters() noexcept;

/// The one with this id, or null.
const KRCameraParameter* findParameter(std::span<const KRCameraParameter> parameters, int id) noexcept;

/// "0x00980900 (brightness, -100 to 100), ..." or "none".
std::string listParameters(std::span<const KRCameraParameter> parameters);

} // namespace KR
