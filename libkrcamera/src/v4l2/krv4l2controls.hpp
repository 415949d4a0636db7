#pragma once

#include "camera/krcontrols.hpp"

#include <krplatform/krmutex.hpp>

#include <map>
#include <string>

namespace KR {

/// The controls of a V4L2 device: numbers, switches and menus that can be written and read.
///
/// They are accessed through a descriptor separate from the one that streams. Values are restored when an unplugged device
/// comes back; the device keeps them when the camera closes.
class KRV4l2Controls : public KRControls {
public:
    explicit KRV4l2Controls(std::string device) : device_(std::move(device)) {}

    std::vector<KRCameraControl> list() override;
    /// The driver may round a value within the range: list() returns the effective one.
    Answer set(int id, int value) override;
    void reset() override;
    /// Restores the values set, after the device has come back. Ignores errors, which its capture reports.
    void restore() noexcept;
    void cameraClosed() noexcept override;

private:
    const std::string device_;
    KRMutex mutex_;
    std::map<int, int> values_ KR_GUARDED_BY(mutex_); ///< set since the camera was opened, by id
};

} // namespace KR
