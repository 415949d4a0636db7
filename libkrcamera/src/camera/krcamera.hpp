#pragma once

#include "camera/krframe.hpp"
#include "camera/krsize.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace KR {

/// One camera, from its first subscriber to its last. Thread-safe but where it says otherwise.
class KRCamera {
public:
    struct Status {
        std::string state; ///< as in KRCameraInfo, but never "closed"
        std::string failure;
        int width = 0; ///< of the newest frame; 0 if there is none
        int height = 0;
    };

    KRCamera() = default;
    virtual ~KRCamera() = default;
    KRCamera(const KRCamera&) = delete;
    KRCamera& operator=(const KRCamera&) = delete;

    /// Starts the camera, at the first call, and waits until it delivers, at most ten seconds. If it has failed,
    /// has it try again at once.
    /// \throws std::runtime_error  it failed, delivered nothing in time, or close() came in between
    virtual void open() = 0;

    /// Says that pictures of this size are asked for. A camera that has several sizes delivers one that serves the
    /// largest picture asked for since it was made.
    virtual void want(const KRSize& /*size*/) {}

    /// Stops the camera for good, and wakes everyone who waits. Not beside another close().
    virtual void close() = 0;

    /// Waits for a frame with a number greater than `after`.
    /// \return null if there is none by the deadline, and as soon as the camera is stopping
    /// \throws std::runtime_error  the camera has failed or ended, and nothing is left to hand out
    virtual std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                                  std::chrono::steady_clock::time_point deadline) = 0;

    virtual Status getStatus() const = 0;
};

} // namespace KR
