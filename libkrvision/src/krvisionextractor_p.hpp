#pragma once

#include "krvision/krimage.hpp"
#include "krvision/krvisionextractor.hpp"

#include "krplatform/krerror.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krsharedmutex.hpp"
#include "krplatform/krvideodeviceproxy.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace KR {

/// The acquisition loop and the settings of a vision extractor. Thread-safe.
///
/// Lock order: subscriptionMutex; resolutionLock, colorSpaceLock, frameRateLock, cameraLock; then one of idMutex,
/// parametersMutex and runMutex, which are held for a few instructions only. No lock is held while the owner processes
/// an image.
class KRVisionExtractorPrivate {
public:
    KRVisionExtractorPrivate(const boost::shared_ptr<KRBroker>& broker, int initialResolution,
                             int initialColorSpace, int frameRate, int camera, KRVisionExtractor* module);
    ~KRVisionExtractorPrivate();
    KRVisionExtractorPrivate(const KRVisionExtractorPrivate&) = delete;
    KRVisionExtractorPrivate& operator=(const KRVisionExtractorPrivate&) = delete;

    /// Images per second for a period in milliseconds, the highest rate for a period of 0.
    static int toFrameRate(int period) noexcept;

    /// Announces that a thread is about to call run(). \return the ticket for waitUntilReady()
    std::uint64_t expectRun();
    /// Withdraws the announcement.
    void cancelRun();
    /// The acquisition: returns when stopped, or at once, with a warning, if one is already running. An exception that
    /// ends it is reported as the module's failure and passes to the caller.
    void run();
    /// Blocks until the run has completed its first iteration, or a run has ended since the ticket was drawn, or, as a
    /// last resort, kSubscriptionTimeout has passed without a camera subscription or kReadyTimeout with one.
    void waitUntilReady(std::uint64_t ticket);
    /// Ends a run, even one that is just starting, and the camera subscription.
    /// \throws KRError called on the acquisition thread; the run then ends after the current iteration
    void stop();
    /// Makes run() return at once from now on.
    void refuseRuns();

    /// Records that a detection starts.
    void noteStart();
    /// Records that a detection stops. \return whether to notify the owner: always, except after refuseRuns()
    /// if none has started since the last stop
    bool noteStop();

    void pause(bool pausing);
    bool isPaused();
    bool isProcessing();

    bool setColorSpace(int newColorSpace);
    /// Without a camera subscription: stores it for the next one without asking the camera service.
    bool setOrPresetColorSpace(int newColorSpace);
    bool setResolution(int newResolution);
    bool setActiveCamera(int camera);
    bool setFrameRate(int frameRate);
    bool setFrameRate(const std::string& subscriber, int frameRate);
    void setVideoDeviceFrameRate(int frameRate);
    void setParameter(const std::string& name, const KRValue& value);
    void setSubscriptionParameters(const std::vector<std::pair<int, int>>& parameters);
    int getResolution();
    int getColorSpace();
    int getActiveCamera();
    int getFrameRate();
    int getDefaultPeriod() const noexcept { return defaultPeriod; }

    /// Whether there is a camera subscription.
    bool isSubscribed() const noexcept { return subscribed; }
    /// Blocks while a camera subscription begins or ends. \return how often that has happened, to tell
    /// whether an error is due to it
    int countSubscriptionChanges();
    /// Stores it for the next subscription without asking the camera service.
    /// \return false, and does nothing, if there is a subscription
    bool presetCamera(int camera);
    /// \param frameRate  1 to 30; for a first subscriber that gives no period
    void presetFrameRate(int frameRate) noexcept { defaultPeriod = 1000 / frameRate; }
    int getMinimumPeriod() const noexcept;
    boost::shared_ptr<KRVideoDeviceProxy> getVideoDeviceProxy() const { return videoDeviceProxy; }

private:
    static constexpr const char* kLogCategory = "KRVisionExtractor";
    static constexpr const char* kOwnLogCategory = "krvision.acquisition"; // for lines of our own
    static constexpr std::chrono::seconds kSubscriptionTimeout{
        15}; // longer than the wait for the camera service
    static constexpr std::chrono::seconds kReadyTimeout{5};

    void acquire();
    void loop();
    void xSubscribe();
    void xUnsubscribe();
    KRImage* xGetImage();
    void xSetSubscriptionParameters();
    bool xSetColorSpace(int newColorSpace) KR_REQUIRES(colorSpaceLock);
    /// Both: nullopt if the subscription began or ended meanwhile.
    std::optional<bool> changeCamera(int camera);
    std::optional<bool> presetExistingCamera(int camera);

    std::string getSubscriberId();
    void setSubscriberId(const std::string& id);
    std::string getUnsubscribedId() const;
    bool hasSubscriber(const std::string& subscriber);
    void updatePeriodOf(const std::string& subscriber, int frameRate);
    void updatePeriodIfSubscribed(const std::string& subscriber, int frameRate);
    void logProblem(const std::string& message);
    void exitBecause(const std::string& failure);

    // Constant after construction.
    const boost::shared_ptr<KRVideoDeviceProxy> videoDeviceProxy;
    KRVisionExtractor* const owner;

    std::atomic<int> defaultPeriod; // milliseconds

    // The camera subscription.
    KRMutex subscriptionMutex; // held while subscribing and unsubscribing
    KRMutex idMutex;
    std::string subscriberId KR_GUARDED_BY(idMutex);
    std::atomic<bool> subscribed = false; // written under subscriptionMutex and shared locks of the settings
    int subscriptionChanges KR_GUARDED_BY(subscriptionMutex) = 0;
    KRMutex parametersMutex;
    std::vector<std::pair<int, int>> cameraParameters KR_GUARDED_BY(parametersMutex); // ids and values

    // Settings, each with its lock, which is also held while the camera service changes the setting, and shared while a
    // subscription begins or, but for the frame rate's, ends.
    KRSharedMutex resolutionLock;
    int resolution KR_GUARDED_BY(resolutionLock);
    KRSharedMutex colorSpaceLock;
    int colorSpace KR_GUARDED_BY(colorSpaceLock);
    KRSharedMutex frameRateLock; // for the camera's frame rate, which the camera service keeps
    KRSharedMutex cameraLock;
    std::atomic<int> activeCamera; // written under cameraLock, read with and without it

    // The acquisition; runChanged is notified of every change.
    KRMutex runMutex;
    KRCondition runChanged;
    bool running KR_GUARDED_BY(runMutex) = false; // a thread has claimed the run
    std::thread::id runThread KR_GUARDED_BY(runMutex);
    int runsExpected KR_GUARDED_BY(runMutex) = 0; // announced, not yet begun
    int stopsWaiting KR_GUARDED_BY(runMutex) = 0; // calls of stop() that wait for the run to end
    bool runsRefused KR_GUARDED_BY(runMutex) = false;
    bool processing KR_GUARDED_BY(runMutex) =
        false; // stays set after an exception has ended the loop, until stop()
    bool paused KR_GUARDED_BY(runMutex) = false;
    bool detecting KR_GUARDED_BY(runMutex) = false; // between noteStart() and noteStop()
    bool stopRequested KR_GUARDED_BY(runMutex) = false;
    bool ready KR_GUARDED_BY(runMutex) = false;          // the first iteration is complete
    std::uint64_t runsEnded KR_GUARDED_BY(runMutex) = 0; // a counter, so that no waiter misses an end
};

} // namespace KR
