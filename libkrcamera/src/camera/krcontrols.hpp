#pragma once

#include <krplatform/krcamerainfo.hpp>

#include <string>
#include <vector>

namespace KR {

namespace ControlId {
constexpr int Brightness = 0x00980900;
constexpr int Contrast = 0x00980901;
constexpr int Saturation = 0x00980902;
constexpr int Hue = 0x00980903;
constexpr int Gain = 0x00980913;
constexpr int HorizontalFlip = 0x00980914;
constexpr int VerticalFlip = 0x00980915;
} // namespace ControlId

/// The controls of one camera's picture, whether the camera is open or closed. Thread-safe.
///
/// Operations that must reach the camera throw std::runtime_error if they cannot; the text says why.
class KRControls {
public:
    enum class Answer { Done, Refused, Unknown };

    KRControls() = default;
    virtual ~KRControls() = default;
    KRControls(const KRControls&) = delete;
    KRControls& operator=(const KRControls&) = delete;

    /// All controls with their current values.
    virtual std::vector<KRCameraControl> list() = 0;
    /// \return Refused for a value that the camera does not accept, which changes nothing; Unknown for an id that the
    /// camera does not have
    virtual Answer set(int id, int value) = 0;
    /// Sets every control to its default value.
    virtual void reset() = 0;

    /// Called when the last subscriber has left.
    virtual void cameraClosed() noexcept {}
};

/// "0x00980900 (brightness, -100 to 100), ..." or "none".
std::string listControls(const std::vector<KRCameraControl>& controls);

} // namespace KR
