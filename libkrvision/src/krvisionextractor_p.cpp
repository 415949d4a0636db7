#include "krvisionextractor_p.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krclock.hpp"
#include "krplatform/krlog.hpp"
#include "krplatform/krthread.hpp"
#include "krvision/krsubscribername.hpp"

#include <boost/smart_ptr/make_shared.hpp>

#include <chrono>
#include <memory>
#include <utility>

namespace KR {

namespace {

constexpr int kMinimumFrameRate = 1;
constexpr int kMaximumFrameRate = 30;

class ThreadNameScope {
public:
    explicit ThreadNameScope(const std::string& name) : before_(getThreadName()) { setThreadName(name); }
    ~ThreadNameScope() { setThreadName(before_); }
    ThreadNameScope(const ThreadNameScope&) = delete;
    ThreadNameScope& operator=(const ThreadNameScope&) = delete;

private:
    const std::string before_;
};

} // namespace

KRVisionExtractorPrivate::KRVisionExtractorPrivate(const boost::shared_ptr<KRBroker>& broker,
                                                   int initialResolution, int initialColorSpace,
                                                   int frameRate, int camera, KRVisionExtractor* module)
    : videoDeviceProxy(boost::make_shared<KRVideoDeviceProxy>(broker)), owner(module),
      defaultPeriod(1000 / kMaximumFrameRate), subscriberId(getUnsubscribedId()),
      resolution(initialResolution), colorSpace(initialColorSpace), activeCamera(camera) {
    if (frameRate >= kMinimumFrameRate && frameRate <= kMaximumFrameRate) {
        defaultPeriod = 1000 / frameRate;
    } else {
        logProblem("The framerate must be between 1 and 30 FPS");
        exitBecause("the frame rate " + std::to_string(frameRate) + " is not between 1 and 30 FPS");
    }
}

KRVisionExtractorPrivate::~KRVisionExtractorPrivate() {
    try {
        stop();
    } catch (const std::exception& error) {
        logError(kOwnLogCategory, owner->getName() + ": " + error.what());
    }
}

int KRVisionExtractorPrivate::toFrameRate(int period) noexcept {
    return period == 0 ? kMaximumFrameRate : 1000 / period;
}

void KRVisionExtractorPrivate::logProblem(const std::string& message) {
    logError(kLogCategory, owner->getName() + ": " + message);
}

// Reports the reason to other modules too, not only to the log.
void KRVisionExtractorPrivate::exitBecause(const std::string& failure) {
    owner->reportFailure(failure);
    owner->exit();
}

std::uint64_t KRVisionExtractorPrivate::expectRun() {
    const KRLock lock(runMutex);
    ++runsExpected;
    return runsEnded;
}

void KRVisionExtractorPrivate::cancelRun() {
    const KRLock lock(runMutex);
    if (runsExpected > 0) { // otherwise a direct call of run() has used it up
        --runsExpected;
    }
    runChanged.notifyAll();
}

void KRVisionExtractorPrivate::refuseRuns() {
    const KRLock lock(runMutex);
    runsRefused = true;
}

void KRVisionExtractorPrivate::noteStart() {
    const KRLock lock(runMutex);
    detecting = true;
}

bool KRVisionExtractorPrivate::noteStop() {
    const KRLock lock(runMutex);
    const bool wasDetecting = std::exchange(detecting, false);
    return wasDetecting || !runsRefused;
}

void KRVisionExtractorPrivate::run() {
    const ThreadNameScope threadName(owner->getName());
    bool claimed = false;
    {
        const KRLock lock(runMutex);
        if (runsExpected > 0) {
            --runsExpected;
        }
        claimed = !running && !processing && !runsRefused;
        if (claimed) {
            running = true;
            runThread = std::this_thread::get_id();
            stopRequested = stopsWaiting > 0;
        } else if (!running) {
            ++runsEnded; // this run ended before it began
        }
        runChanged.notifyAll();
        if (runsRefused) {
            return;
        }
    }
    if (!claimed) {
        logWarning(kLogCategory, owner->getName() + ": Extractor is already running");
        return;
    }
    const struct Claim {
        KRVisionExtractorPrivate& p;
        ~Claim() {
            const KRLock lock(p.runMutex);
            p.running = false;
            p.runThread = {};
            ++p.runsEnded;
            p.runChanged.notifyAll();
        }
    } claim{*this};
    try {
        acquire();
    } catch (const std::exception& error) {
        owner->reportFailure(std::string("the acquisition ended with an exception: ") + error.what());
        throw;
    } catch (...) {
        owner->reportFailure("the acquisition ended with an exception of unknown type");
        throw;
    }
}

void KRVisionExtractorPrivate::acquire() {
    xSubscribe();
    {
        const KRLock lock(runMutex);
        processing = true;
        paused = false;
        runChanged.notifyAll();
    }
    loop();
    const KRLock lock(runMutex);
    paused = false;
    processing = false;
    ready = false;
}

void KRVisionExtractorPrivate::loop() {
    const boost::shared_ptr<KRBroker> broker = owner->getParentBroker();
    KRClock& clock = broker->getClock();
    for (;;) {
        {
            KRLock lock(runMutex);
            // A stop request ends the wait whatever pause() says, so that a later pause cannot block the stop.
            runChanged.wait(lock, [this] {
                runMutex.assertHeld();
                return !paused || stopRequested;
            });
        }
        const auto start = clock.now();
        std::unique_ptr<KRImage> image(xGetImage());
        if (image) {
            owner->xProcessImage(image.get());
        }
        try {
            videoDeviceProxy->releaseImage(getSubscriberId());
        } catch (const KRError& error) {
            logProblem(std::string("Call to release image failed:") + error.what());
            logError(kLogCategory, "Stopping the extractor."); // without the module's name: deliberate
            (void)image.release();                             // not deleted on this path: deliberate
            if (!owner->isExiting()) {                         // otherwise the cause has been reported
                owner->reportFailure(
                    std::string(
                        "the acquisition has ended: the camera service refuses to release an image: ") +
                    error.getDescription());
            }
            const KRLock lock(runMutex);
            stopRequested = true;
            return;
        }
        image.reset();
        clock.pace(start + std::chrono::milliseconds(owner->getCurrentPeriod()));
        KRLock lock(runMutex);
        if (!ready) {
            lock.unlock();
            if (!owner->isExiting()) {
                owner->reportFailure(""); // a good start clears it
            }
            lock.lock();
            ready = true;
            runChanged.notifyAll();
        }
        // Checked at the end, so that a run has at least one iteration: deliberate.
        if (stopRequested || clock.hasEnded()) {
            return;
        }
    }
}

void KRVisionExtractorPrivate::waitUntilReady(std::uint64_t ticket) {
    KRLock lock(runMutex);
    const auto isDone = [&] {
        runMutex.assertHeld();
        return ready || runsEnded != ticket;
    };
    if (owner->getParentBroker()->getClock().isRecording()) {
        runChanged.wait(lock, isDone); // the recording's time stands still meanwhile
    }
    runChanged.waitFor(lock, kSubscriptionTimeout, [&] {
        runMutex.assertHeld();
        return processing || isDone();
    });
    const bool hasCamera = processing;
    const bool done = hasCamera ? runChanged.waitFor(lock, kReadyTimeout, isDone) : isDone();
    lock.unlock();
    if (!done) {
        const std::chrono::seconds waited = hasCamera ? kReadyTimeout : kSubscriptionTimeout;
        logWarning(kOwnLogCategory, owner->getName() + ": no " +
                                        (hasCamera ? "first image" : "camera subscription") + " within " +
                                        std::to_string(waited.count()) + " s, not waiting any longer");
    }
}

void KRVisionExtractorPrivate::stop() {
    KRLock lock(runMutex);
    if (running && runThread == std::this_thread::get_id()) {
        stopRequested = true;
        lock.unlock();
        throw KRError(
            owner->getName(), "stop",
            "called on the acquisition thread, which cannot wait for its own end; it ends after this image");
    }
    if (processing) {
        lock.unlock();
        pause(false);
        lock.lock();
    }
    if (running || runsExpected > 0) {
        ++stopsWaiting; // a run that is yet to begin sees it
        stopRequested = true;
        runChanged.notifyAll();
        runChanged.wait(lock, [this] {
            runMutex.assertHeld();
            return !running && runsExpected == 0;
        });
        --stopsWaiting;
    }
    // After an exception the loop leaves these set.
    processing = false;
    ready = false;
    paused = false;
    lock.unlock();
    xUnsubscribe();
}

std::string KRVisionExtractorPrivate::getUnsubscribedId() const {
    return getSubscriberName(owner->getName());
}

std::string KRVisionExtractorPrivate::getSubscriberId() {
    const KRLock lock(idMutex);
    return subscriberId;
}

void KRVisionExtractorPrivate::setSubscriberId(const std::string& id) {
    const KRLock lock(idMutex);
    subscriberId = id;
}

void KRVisionExtractorPrivate::xSubscribe() {
    const KRLock subscriptionGuard(subscriptionMutex);
    const KRSharedLock resolutionGuard(resolutionLock);
    const KRSharedLock colorSpaceGuard(colorSpaceLock);
    const KRSharedLock frameRateGuard(frameRateLock);
    const KRSharedLock cameraGuard(cameraLock);
    if (subscribed) {
        return;
    }
    try {
        setSubscriberId(videoDeviceProxy->subscribeCamera(
            getSubscriberId(), activeCamera, resolution, colorSpace, toFrameRate(owner->getCurrentPeriod())));
        subscribed = true;
        ++subscriptionChanges;
        xSetSubscriptionParameters();
    } catch (const KRError& error) {
        logProblem("Could not subscribe to KRVideoDevice");
        exitBecause("the camera subscription has failed: " + error.getDescription());
    }
}

void KRVisionExtractorPrivate::xUnsubscribe() {
    const KRLock subscriptionGuard(subscriptionMutex);
    // Not frameRateLock: its setter updates the owner's periods, and the owner may hold a lock now.
    const KRSharedLock resolutionGuard(resolutionLock);
    const KRSharedLock colorSpaceGuard(colorSpaceLock);
    const KRSharedLock cameraGuard(cameraLock);
    if (!subscribed) {
        return;
    }
    try {
        const std::string id = getSubscriberId();
        videoDeviceProxy->setAllCameraParametersToDefault(id);
        videoDeviceProxy->unsubscribe(id);
        setSubscriberId(getUnsubscribedId());
        subscribed = false;
        ++subscriptionChanges;
    } catch (const KRError& error) {
        logProblem("Could not unsubscribe to KRVideoDevice");
        exitBecause("unsubscribing from the camera failed: " + error.getDescription());
    }
}

int KRVisionExtractorPrivate::countSubscriptionChanges() {
    const KRLock subscriptionGuard(subscriptionMutex);
    return subscriptionChanges;
}

KRImage* KRVisionExtractorPrivate::xGetImage() {
    try {
        return KRImage::fromKRValue(videoDeviceProxy->getImageRemote(getSubscriberId()));
    } catch (const KRError& error) {
        logProblem(std::string("Could not retrieve image ") + error.what());
        return nullptr;
    }
}

void KRVisionExtractorPrivate::xSetSubscriptionParameters() {
    std::vector<std::pair<int, int>> parameters;
    {
        const KRLock lock(parametersMutex);
        parameters = cameraParameters;
    }
    const std::string id = getSubscriberId();
    for (const auto& [parameter, value] : parameters) {
        // Without the module's name: deliberate.
        logVerbose(kLogCategory, id + " : set camera (" + std::to_string(activeCamera) + ") parameter " +
                                     std::to_string(parameter) + " to " + std::to_string(value));
        videoDeviceProxy->setCameraParameter(id, parameter, value);
    }
}

void KRVisionExtractorPrivate::pause(bool pausing) {
    bool runs = false;
    {
        const KRLock lock(runMutex);
        runs = processing;
        if (processing) {
            paused = pausing;
            runChanged.notifyAll();
        }
    }
    if (runs) {
        logVerbose(kLogCategory, owner->getName() + ": Extractor pause status " + (pausing ? "1" : "0"));
    } else {
        logWarning(kLogCategory,
                   owner->getName() + ": Extractor is not running, cannot change pause status.");
    }
}

bool KRVisionExtractorPrivate::isPaused() {
    const KRLock lock(runMutex);
    return paused;
}

bool KRVisionExtractorPrivate::isProcessing() {
    const KRLock lock(runMutex);
    return processing;
}

} // namespace KR
