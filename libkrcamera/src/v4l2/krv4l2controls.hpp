#pragma once

#include "camera/krcontrols.hpp"

#include <map>
#include <mutex>
#include <string>

namespace KR {

/// The controls of a V4L2 device: numbers, switches and menus that can be written and read.
///
/// They are reached through a descriptor of their own, beside the one that streams. What has been set is set again
/// when a device that was unplugged is back; the device keeps it when the camera closes.
class KRV4l2Controls : public KRControls {
public:
    explicit KRV4l2Controls(std::string device) : device_(std::move(device)) {}

    std::vector<KRCameraControl> list() override;
    /// A value within the range may take effect as another one that the driver prefers: list() tells.
    Answer set(int id, int value) override;
    void reset() override;
    /// Sets again what has been set: the device is back. Errors are ignored: its capture reports them.
    void restore() noexcept;
    void cameraClosed() noexcept override;

private:
    const std::string device_;
    std::mutex mutex_;
    std::map<int, int> values_; ///< guarded by mutex_: what has been set since the camera was opened
};

} // namespace KR
