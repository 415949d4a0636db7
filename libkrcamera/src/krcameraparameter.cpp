#include "krcameraparameter.hpp"

#include <algorithm>
#include <cstdio>

namespace KR {

std::span<const KRCameraParameter> getSoftwareParameters() noexcept {
    static constexpr KRCameraParameter parameters[] = {
        {ParameterId::Brightness, "brightness", -100, 100, 0},
        {ParameterId::Contrast, "contrast", 0, 200, 100},
        {ParameterId::Saturation, "saturation", 0, 200, 100},
        {ParameterId::Hue, "hue", -180, 180, 0},
        {ParameterId::HorizontalFlip, "horizontal flip", 0, 1, 0},
        {ParameterId::VerticalFlip, "vertical flip", 0, 1, 0},
    };
    return parameters;
}

const KRCameraParameter* findParameter(std::span<const KRCameraParameter> parameters, int id) noexcept {
    const auto found = std::ranges::find(parameters, id, &KRCameraParameter::id);
    return found == parameters.end() ? nullptr : &*found;
}

std::string listParameters(std::span<const KRCameraParameter> parameters) {
    std::string list;
    for (const KRCameraParameter& parameter : parameters) {
        char number[16];
        std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(parameter.id));
        list += (list.empty() ? "" : ", ") + std::string(number) + " (" + parameter.name + ", " +
                std::to_string(parameter.minimum) + " to " + std::to_string(parameter.maximum) + ")";
    }
    return list.empty() ? "none" : list;
}

} // namespace KR
