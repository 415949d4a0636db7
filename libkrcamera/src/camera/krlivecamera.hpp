#pragma once

#include "camera/krcamera.hpp"
#include "camera/krimagesource.hpp"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace KR {

/// A camera that runs by itself: a capture thread of its own, and the newest frame.
///
/// When its source fails or ends, the thread opens it again, after 250 ms at first and ever more slowly up to once in
/// 5 s, until images come.
class KRLiveCamera : public KRCamera {
public:
    using OpenSource = std::function<std::unique_ptr<KRImageSource>(const KRSize& wanted)>;

    /// \param title   for the log
    /// \param open    starts the source for pictures of a size; called on the capture thread.
    ///                \throws std::runtime_error it cannot
    /// \param steady  no image for ten seconds is a failure, also after the first
    KRLiveCamera(int index, std::string title, OpenSource open, bool steady);
    /// Closes it.
    ~KRLiveCamera() override;

    void open() override;
    void want(const KRSize& size) override;
    void close() override;
    std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                          std::chrono::steady_clock::time_point deadline) override;
    Status getStatus() const override;

private:
    void run();
    /// Runs the source. \return false when the camera is to stop, true when the source is to be opened anew for
    /// larger pictures \throws std::exception the source has failed
    bool captureFrames();
    void show(KRCapture capture);
    void noteFailure(const std::string& reason);
    /// \return false if the camera is to stop
    bool pause(std::chrono::steady_clock::duration delay);

    const int index_;
    const std::string title_;
    const OpenSource openSource_;
    const bool steady_;
    const std::shared_ptr<KRConverter> converter_;
    // Touched by the capture thread only:
    std::uint64_t framesCaptured_ = 0;
    bool delivers_ = false; ///< since the source was opened the last time

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_:
    std::thread thread_;
    bool started_ = false;
    bool stopping_ = false;
    bool tryNow_ = false;
    KRSize wanted_;
    std::shared_ptr<KRFrame> newest_;
    std::optional<std::string> failure_; ///< from a failure to the next frame
    int timesOpened_ = 0;
    int timesFailed_ = 0;
};

} // namespace KR
