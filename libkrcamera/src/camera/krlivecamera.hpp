#pragma once

#include "camera/krcamera.hpp"
#include "camera/krimagesource.hpp"
#include "camera/krloglimit.hpp"

#include <krplatform/krmutex.hpp>

#include <functional>
#include <map>
#include <optional>
#include <thread>

namespace KR {

class KRConverter;

/// A free-running camera: it has a capture thread and keeps the newest frame.
///
/// When its source fails or ends, the thread opens it again, with pauses as in KRRetryDelay, until images come.
class KRLiveCamera : public KRCamera {
public:
    using OpenSource = std::function<std::unique_ptr<KRImageSource>(const KRSize& wanted)>;

    /// What silence of a source means. Before its first image, it is a failure.
    struct Silence {
        bool isFailure = false; ///< also after the first image; otherwise silence is logged as a warning
        std::string hint{};     ///< appended to the message: "the file may be damaged"
        std::chrono::milliseconds limit = std::chrono::seconds(10);
    };

    /// \param title  for the log
    /// \param open   starts the source for pictures of a size; called on the capture thread. Its exception is the
    /// reason for a failure.
    KRLiveCamera(int index, std::string title, OpenSource open, Silence silence);
    /// Closes it.
    ~KRLiveCamera() override;

    void open() override;
    void want(const KRSize& size) override;
    void close() override;
    std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                          std::chrono::steady_clock::time_point deadline) override;
    Status getStatus() const override;

private:
    using Clock = std::chrono::steady_clock;

    void run() noexcept;
    /// Opens the source and captures its frames.
    /// \return false if the camera is to stop, true if the source is to be opened again for larger pictures
    /// \throws anything  the source has failed
    bool captureFrames();
    void setNewest(KRCapture capture);
    void noteSilence(Clock::time_point since);
    /// Handles the current exception, which has ended the source.
    void noteFailure(Clock::duration delivered) noexcept;
    void logFailure(const std::string& reason, Clock::duration delivered);
    std::string describeSilence() const;
    /// \return false if the camera is to stop
    bool pause(Clock::duration delay);

    const int index_;
    const std::string title_;
    const OpenSource openSource_;
    const Silence silence_;
    const std::shared_ptr<KRConverter> converter_;
    // Used by the capture thread only:
    std::uint64_t framesCaptured_ = 0;
    bool delivers_ = false; ///< since the source was opened the last time
    bool logsOpening_ = true;
    std::map<std::string, KRLogLimit> logLimits_; ///< by reason, for the first few reasons
    KRLogLimit otherLimit_;                       ///< for all other reasons
    KRLogLimit silenceLimit_;

    mutable KRMutex mutex_;
    KRCondition changed_;
    std::thread thread_ KR_GUARDED_BY(mutex_);
    bool started_ KR_GUARDED_BY(mutex_) = false;
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
    bool tryNow_ KR_GUARDED_BY(mutex_) = false;
    KRSize wanted_ KR_GUARDED_BY(mutex_);
    std::shared_ptr<KRFrame> newest_ KR_GUARDED_BY(mutex_);
    std::optional<std::string> failure_ KR_GUARDED_BY(mutex_); ///< from a failure to the next frame
    int timesOpened_ KR_GUARDED_BY(mutex_) = 0;
    int timesFailed_ KR_GUARDED_BY(mutex_) = 0;
};

} // namespace KR
