#pragma once

#include "krconverter.hpp"
#include "krframe.hpp"
#include "krsource.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace KR {

/// One camera, from opening to closing: a capture thread of its own that runs the source, and the newest
/// frame.
class KRCamera {
public:
    KRCamera(int index, KRSource source);
    /// Closes it.
    ~KRCamera();
    KRCamera(const KRCamera&) = delete;
    KRCamera& operator=(const KRCamera&) = delete;

    /// Starts the source and waits for its first frame, at most ten seconds. Once only.
    /// \throws std::runtime_error  it failed, delivered nothing in time, or requestStop() came in between
    void open();

    /// Asks the capture thread to end and wakes everyone who waits for a frame. Returns at once. Thread-safe.
    void requestStop();

    /// Stops the source and waits for the capture thread. Not beside open() or another close().
    void close();

    /// Waits for a frame with a number greater than `after` and returns the newest.
    /// \return null if there is none by the deadline, and as soon as none can come any more: the camera has
    /// failed or is stopping. Thread-safe.
    std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                          std::chrono::steady_clock::time_point deadline);

    /// Why no more frames come, if the source has failed or ended. Thread-safe.
    std::optional<std::string> getFailure() const;
    /// requestStop() has been called. Thread-safe.
    bool isStopping() const;

    /// Sets one of the source's parameters from one of the next frames on. Thread-safe.
    void setParameter(int id, int value);
    /// Thread-safe.
    void setAllParametersToDefault();

private:
    void run();
    void captureFrames();
    bool isOver() const { return stopping_ || failure_.has_value(); }

    const int index_;
    const KRSource source_;
    const std::shared_ptr<KRConverter> converter_;
    std::thread thread_; ///< touched by open() and close() only

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_:
    std::shared_ptr<KRFrame> newest_;
    std::optional<std::string> failure_;
    bool stopping_ = false;
    std::map<int, int> parameters_;
    bool parametersChanged_ = false;
};

} // namespace KR
