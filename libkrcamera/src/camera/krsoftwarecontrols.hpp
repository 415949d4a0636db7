#pragma once

#include "camera/krcontrols.hpp"

#include <krplatform/krmutex.hpp>

#include <atomic>
#include <cstdint>
#include <vector>

namespace KR {

/// Controls of a camera whose picture GStreamer adjusts: values that the pipeline polls. They are reset to their defaults
/// when the camera closes.
class KRSoftwareControls : public KRControls {
public:
    /// Without controls.
    KRSoftwareControls() = default;
    explicit KRSoftwareControls(std::vector<KRCameraControl> controls) : controls_(std::move(controls)) {}

    std::vector<KRCameraControl> list() override;
    Answer set(int id, int value) override;
    void reset() override;
    void cameraClosed() noexcept override { reset(); }

    /// The value of one of the controls.
    int getValue(int id) const;
    /// Increases with every change.
    std::uint64_t getVersion() const noexcept { return version_; }

private:
    mutable KRMutex mutex_;
    std::vector<KRCameraControl> controls_ KR_GUARDED_BY(mutex_);
    std::atomic<std::uint64_t> version_{0};
};

/// Brightness, contrast, saturation, hue, gain and the two flips.
std::vector<KRCameraControl> getPictureControls();

} // namespace KR
