#include "v4l2/krv4l2controls.hpp"

#include "v4l2/krv4l2device.hpp"

#include <cerrno>
#include <cstring>
#include <linux/videodev2.h>
#include <stdexcept>
#include <system_error>

namespace KR {

namespace {

bool setControl(const KRV4l2Device& device, int id, int value) {
    v4l2_control setting{static_cast<__u32>(id), value};
    return device.control(VIDIOC_S_CTRL, setting);
}

bool getControl(const KRV4l2Device& device, int id, int& value) {
    v4l2_control setting{static_cast<__u32>(id), 0};
    const bool got = device.control(VIDIOC_G_CTRL, setting);
    value = setting.value;
    return got;
}

bool isUsable(const v4l2_queryctrl& query) noexcept {
    constexpr __u32 useless = V4L2_CTRL_FLAG_DISABLED | V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;
    return (query.flags & useless) == 0 &&
           (query.type == V4L2_CTRL_TYPE_INTEGER || query.type == V4L2_CTRL_TYPE_BOOLEAN ||
            query.type == V4L2_CTRL_TYPE_MENU || query.type == V4L2_CTRL_TYPE_INTEGER_MENU);
}

std::vector<KRCameraControl> listOf(const KRV4l2Device& device) {
    std::vector<KRCameraControl> controls;
    v4l2_queryctrl query{};
    query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    while (device.control(VIDIOC_QUERYCTRL, query)) {
        int value = 0;
        if (isUsable(query) && getControl(device, static_cast<int>(query.id), value)) {
            const auto* text = reinterpret_cast<const char*>(query.name);
            controls.push_back({static_cast<int>(query.id),
                                {text, strnlen(text, sizeof query.name)},
                                query.minimum,
                                query.maximum,
                                query.step,
                                query.default_value,
                                value});
        }
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    return controls;
}

} // namespace

std::vector<KRCameraControl> KRV4l2Controls::list() {
    return listOf(KRV4l2Device(device_));
}

KRControls::Answer KRV4l2Controls::set(int id, int value) {
    const KRV4l2Device device(device_);
    v4l2_queryctrl query{};
    query.id = static_cast<__u32>(id);
    if ((query.id & (V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND)) != 0 ||
        !device.control(VIDIOC_QUERYCTRL, query) || !isUsable(query)) {
        return Answer::Unknown;
    }
    // Drivers clamp values that are out of range and report success.
    if (value < query.minimum || value > query.maximum) {
        return Answer::Refused;
    }
    if (!setControl(device, id, value)) {
        if (errno == EINVAL || errno == ERANGE || errno == EBUSY || errno == EACCES) {
            return Answer::Refused;
        }
        throw std::runtime_error("the control \"" + std::string(reinterpret_cast<const char*>(query.name)) +
                                 "\" cannot be set: " + std::generic_category().message(errno));
    }
    int effective = value;
    getControl(device, id, effective);
    // A control that another one overrides, such as gain by automatic gain, accepts values without effect.
    if (effective != value && (query.flags & V4L2_CTRL_FLAG_INACTIVE) != 0) {
        return Answer::Refused;
    }
    const KRLock lock(mutex_);
    values_[id] = effective;
    return Answer::Done;
}

void KRV4l2Controls::reset() {
    const KRV4l2Device device(device_);
    {
        const KRLock lock(mutex_);
        values_.clear();
    }
    for (const KRCameraControl& control : listOf(device)) {
        if (control.value != control.defaultValue) {
            setControl(device, control.id, control.defaultValue); // locked ones keep their values
        }
    }
}

void KRV4l2Controls::restore() noexcept {
    try {
        const KRLock lock(mutex_);
        if (values_.empty()) {
            return;
        }
        const KRV4l2Device device(device_);
        for (const auto& [id, value] : values_) {
            setControl(device, id, value);
        }
    } catch (const std::exception&) {
        // The device is gone again; its capture reports that.
    }
}

void KRV4l2Controls::cameraClosed() noexcept {
    const KRLock lock(mutex_);
    values_.clear();
}

} // namespace KR
