#include "camera/krsoftwarecontrols.hpp"

#include <algorithm>
#include <cassert>

namespace KR {

std::vector<KRCameraControl> KRSoftwareControls::list() {
    const KRLock lock(mutex_);
    return controls_;
}

KRControls::Answer KRSoftwareControls::set(int id, int value) {
    const KRLock lock(mutex_);
    const auto control = std::ranges::find(controls_, id, &KRCameraControl::id);
    if (control == controls_.end()) {
        return Answer::Unknown;
    }
    if (value < control->minimum || value > control->maximum) {
        return Answer::Refused;
    }
    control->value = value;
    ++version_;
    return Answer::Done;
}

void KRSoftwareControls::reset() {
    const KRLock lock(mutex_);
    for (KRCameraControl& control : controls_) {
        control.value = control.defaultValue;
    }
    ++version_;
}

int KRSoftwareControls::getValue(int id) const {
    const KRLock lock(mutex_);
    const auto control = std::ranges::find(controls_, id, &KRCameraControl::id);
    assert(control != controls_.end());
    return control->value;
}

std::vector<KRCameraControl> getPictureControls() {
    return {
        {ControlId::Brightness, "brightness", -100, 100, 1, 0, 0},
        {ControlId::Contrast, "contrast", 0, 200, 1, 100, 100},
        {ControlId::Saturation, "saturation", 0, 200, 1, 100, 100},
        {ControlId::Hue, "hue", -180, 180, 1, 0, 0},
        {ControlId::Gain, "gain", 0, 200, 1, 100, 100},
        {ControlId::HorizontalFlip, "horizontal flip", 0, 1, 1, 0, 0},
        {ControlId::VerticalFlip, "vertical flip", 0, 1, 1, 0, 0},
    };
}

} // namespace KR
