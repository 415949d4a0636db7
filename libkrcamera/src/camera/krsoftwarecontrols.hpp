#pragma once

#include "camera/krcontrols.hpp"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace KR {

/// Controls of a camera whose picture is adjusted here: values that whoever adjusts it looks up.
/// They go back to their defaults when the camera closes.
class KRSoftwareControls : public KRControls {
public:
    /// Without controls.
    KRSoftwareControls() = default;
    explicit KRSoftwareControls(std::vector<KRCameraControl> controls) : controls_(std::move(controls)) {}

    std::vector<KRCameraControl> list() override;
    Answer set(int id, int value) override;
    void reset() override;
    void cameraClosed() noexcept override { reset(); }

    /// Of a control that is there.
    int getValue(int id) const;
    /// Grows with every change.
    std::uint64_t getVersion() const noexcept { return version_; }

private:
    mutable std::mutex mutex_;
    std::vector<KRCameraControl> controls_; ///< the values are guarded by mutex_
    std::atomic<std::uint64_t> version_{0};
};

/// Brightness, contrast, saturation, hue, gain and the two flips.
std::vector<KRCameraControl> getPictureControls();

} // namespace KR
