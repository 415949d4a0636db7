#pragma once

#include "camera/krsize.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace KR {

class KRFrame;

/// One camera, from its first subscriber to its last. Thread-safe except where noted.
class KRCamera {
public:
    struct Status {
        std::string state;   ///< as in KRCameraInfo, but never "closed"
        std::string failure; ///< empty unless the state is "failed"
        int width = 0;       ///< of the newest frame; 0 if there is none
        int height = 0;
    };

    KRCamera() = default;
    virtual ~KRCamera() = default;
    KRCamera(const KRCamera&) = delete;
    KRCamera& operator=(const KRCamera&) = delete;

    /// The first call starts the camera. Waits until the camera delivers images, about ten seconds at most. A camera
    /// that has failed tries again at once.
    /// \throws std::exception  the camera failed or delivered nothing in time, or close() was called meanwhile
    virtual void open() = 0;

    /// Requests pictures of this size. A camera with several sizes delivers one that suits the largest picture requested
    /// since the camera was created.
    virtual void want(const KRSize& /*size*/) {}

    /// Stops the camera for good and wakes all waiting threads. One call at a time.
    virtual void close() = 0;

    /// Waits for a frame with a number greater than `after`.
    /// \return null if there is none by the deadline, or if the camera is stopping
    /// \throws std::runtime_error  the camera has failed or ended, and no such frame is left
    virtual std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                                  std::chrono::steady_clock::time_point deadline) = 0;

    /// Whether the frame of this number, which waitForFrame() has returned, is the last one.
    virtual bool isLast(std::uint64_t /*number*/) const { return false; }

    virtual Status getStatus() const = 0;
};

} // namespace KR
