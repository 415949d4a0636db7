#pragma once

#include "krvision/krimage.hpp"
#include "krvision/krvisionextractor.hpp"

#include "krplatform/krvideodeviceproxy.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace KR {

/// The acquisition loop and the settings of a vision extractor. Thread-safe.
///
/// Locks, in the order in which they are taken: subscriptionMutex; resolutionLock, colorSpaceLock,
/// frameRateLock, cameraLock; then one of the three small ones (idMutex, parametersMutex, runMutex), which are
/// held for a few instructions only. No lock is held while the owner processes an image.
class KRVisionExtractorPrivate {
public:
    KRVisionExtractorPrivate(const boost::shared_ptr<KRBroker>& broker, int initialResolution,
                             int initialColorSpace, int frameRate, int camera, KRVisionExtractor* module);
    ~KRVisionExtractorPrivate();
    KRVisionExtractorPrivate(const KRVisionExtractorPrivate&) = delete;
    KRVisionExtractorPrivate& operator=(const KRVisionExtractorPrivate&) = delete;

    /// Images per second for a period in milliseconds, the highest rate for a period of 0.
    static int toFrameRate(int period) noexcept;

    /// Says that a thread is about to call run(). \return the ticket for waitUntilReady()
    std::uint64_t expectRun();
    /// It will not, after all.
    void cancelRun();
    /// The acquisition: returns when stopped, or at once, with a warning, if one runs already.
    void run();
    /// Blocks until the run has completed its first iteration, or a run has ended since the ticket was drawn, or,
    /// as a last resort, kReadyTimeout has passed.
    void waitUntilReady(std::uint64_t ticket);
    /// Ends a run, also one that is just starting, and the camera subscription.
    /// \throws KRError called on the acquisition thread; the run then ends after the current iteration
    void stop();
    /// From now on run() returns at once.
    void refuseRuns();

    void pause(bool pausing);
    bool isPaused();
    bool isProcessing();

    bool setColorSpace(int newColorSpace);
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
    int getMinimumPeriod() const noexcept;
    boost::shared_ptr<KRVideoDeviceProxy> getVideoDeviceProxy() const { return videoDeviceProxy; }

private:
    static constexpr const char* kLogCategory = "KRVisionExtractor";
    static constexpr std::chrono::seconds kReadyTimeout{5};

    void loop();
    void xSubscribe();
    void xUnsubscribe();
    KRImage* xGetImage();
    void xSetSubscriptionParameters();

    std::string getSubscriberId();
    void setSubscriberId(const std::string& id);
    std::string getUnsubscribedId() const;
    bool hasSubscriber(const std::string& subscriber);
    void updatePeriodOf(const std::string& subscriber, int frameRate);
    void updatePeriodIfSubscribed(const std::string& subscriber, int frameRate);
    void logProblem(const std::string& message);

    // Constant after construction.
    const boost::shared_ptr<KRVideoDeviceProxy> videoDeviceProxy;
    KRVisionExtractor* const owner;
    int defaultPeriod;

    // Of the camera subscription.
    std::mutex subscriptionMutex; // held while subscribing and unsubscribing
    std::mutex idMutex;
    std::string subscriberId; // guarded by idMutex
    std::atomic<bool> subscribed = false;
    std::mutex parametersMutex;
    std::vector<std::pair<int, int>> cameraParameters; // guarded by parametersMutex: ids and values

    // Settings, each with the lock that is also held while the camera service is asked to change it.
    std::shared_mutex resolutionLock;
    int resolution;
    std::shared_mutex colorSpaceLock;
    int colorSpace;
    std::shared_mutex frameRateLock; // of the camera's frame rate, which the camera service keeps
    std::shared_mutex cameraLock;
    std::atomic<int> activeCamera; // written under cameraLock, also read without

    // Of the acquisition: all guarded by runMutex, and runChanged tells of every change.
    std::mutex runMutex;
    std::condition_variable runChanged;
    bool running = false; // a thread has claimed the run
    std::thread::id runThread;
    int runsExpected = 0; // announced, not yet begun
    int stopsWaiting = 0; // calls of stop() that wait for the run to end
    bool runsRefused = false;
    bool processing = false; // stays set when an exception has left the loop, until stop()
    bool paused = false;
    bool stopRequested = false;
    bool ready = false;          // the first iteration is complete
    std::uint64_t runsEnded = 0; // counted, so that nobody misses an end
};

} // namespace KR
