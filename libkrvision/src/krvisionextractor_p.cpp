#include "krvisionextractor_p.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krthread.hpp"

#include <boost/smart_ptr/make_shared.hpp>

#include <chrono>
#include <memory>

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
        owner->exit();
    }
}

KRVisionExtractorPrivate::~KRVisionExtractorPrivate() {
    try {
        stop();
    } catch (const std::exception& error) {
        logProblem(error.what());
    }
}

int KRVisionExtractorPrivate::toFrameRate(int period) noexcept {
    return period == 0 ? kMaximumFrameRate : 1000 / period;
}

void KRVisionExtractorPrivate::logProblem(const std::string& message) {
    logError(kLogCategory, owner->getName() + ": " + message);
}

std::uint64_t KRVisionExtractorPrivate::expectRun() {
    const std::lock_guard lock(runMutex);
    ++runsExpected;
    return runsEnded;
}

void KRVisionExtractorPrivate::cancelRun() {
    const std::lock_guard lock(runMutex);
    --runsExpected;
    runChanged.notify_all();
}

void KRVisionExtractorPrivate::refuseRuns() {
    const std::lock_guard lock(runMutex);
    runsRefused = true;
}

void KRVisionExtractorPrivate::run() {
    const ThreadNameScope threadName(owner->getName());
    bool claimed = false;
    {
        const std::lock_guard lock(runMutex);
        if (runsExpected > 0) {
            --runsExpected;
        }
        claimed = !running && !processing && !runsRefused;
        if (claimed) {
            running = true;
            runThread = std::this_thread::get_id();
            stopRequested = stopsWaiting > 0;
        } else if (!running) {
            ++runsEnded; // before it began
        }
        runChanged.notify_all();
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
            const std::lock_guard lock(p.runMutex);
            p.running = false;
            p.runThread = {};
            ++p.runsEnded;
            p.runChanged.notify_all();
        }
    } claim{*this};
    xSubscribe();
    {
        const std::lock_guard lock(runMutex);
        processing = true;
        paused = false;
    }
    loop();
    const std::lock_guard lock(runMutex);
    paused = false;
    processing = false;
    ready = false;
}

void KRVisionExtractorPrivate::loop() {
    for (;;) {
        {
            std::unique_lock lock(runMutex);
            // A stop request wakes it whatever pause() says, so that no later pause can park the stop.
            runChanged.wait(lock, [this] { return !paused || stopRequested; });
        }
        const auto start = std::chrono::steady_clock::now();
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
            const std::lock_guard lock(runMutex);
            stopRequested = true;
            return;
        }
        image.reset();
        sleepUntil(start + std::chrono::milliseconds(owner->getCurrentPeriod()));
        const std::lock_guard lock(runMutex);
        if (!ready) {
            ready = true;
            runChanged.notify_all();
        }
        // Asked for at the end, so that a run has at least one iteration: deliberate.
        if (stopRequested) {
            return;
        }
    }
}

void KRVisionExtractorPrivate::waitUntilReady(std::uint64_t ticket) {
    std::unique_lock lock(runMutex);
    const bool done = runChanged.wait_for(lock, kReadyTimeout, [&] { return ready || runsEnded != ticket; });
    lock.unlock();
    if (!done) {
        logWarning(kLogCategory, owner->getName() + ": The first image takes more than " +
                                     std::to_string(kReadyTimeout.count()) +
                                     " s, not waiting for it any longer");
    }
}

void KRVisionExtractorPrivate::stop() {
    std::unique_lock lock(runMutex);
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
        runChanged.notify_all();
        runChanged.wait(lock, [this] { return !running && runsExpected == 0; });
        --stopsWaiting;
    }
    // What an exception that left the loop has left behind.
    processing = false;
    ready = false;
    paused = false;
    lock.unlock();
    xUnsubscribe();
}

std::string KRVisionExtractorPrivate::getUnsubscribedId() const {
    return "VisionExtractor" + owner->getName();
}

std::string KRVisionExtractorPrivate::getSubscriberId() {
    const std::lock_guard lock(idMutex);
    return subscriberId;
}

void KRVisionExtractorPrivate::setSubscriberId(const std::string& id) {
    const std::lock_guard lock(idMutex);
    subscriberId = id;
}

void KRVisionExtractorPrivate::xSubscribe() {
    const std::lock_guard subscriptionGuard(subscriptionMutex);
    const std::shared_lock resolutionGuard(resolutionLock);
    const std::shared_lock colorSpaceGuard(colorSpaceLock);
    const std::shared_lock frameRateGuard(frameRateLock);
    const std::shared_lock cameraGuard(cameraLock);
    if (subscribed) {
        return;
    }
    try {
        setSubscriberId(videoDeviceProxy->subscribeCamera(
            getSubscriberId(), activeCamera, resolution, colorSpace, toFrameRate(owner->getCurrentPeriod())));
        subscribed = true;
        xSetSubscriptionParameters();
    } catch (const KRError& error) {
        logProblem("Could not subscribe to KRVideoDevice");
        logWarning(kLogCategory, owner->getName() + ": " + error.what());
        owner->exit();
    }
}

void KRVisionExtractorPrivate::xUnsubscribe() {
    const std::lock_guard subscriptionGuard(subscriptionMutex);
    if (!subscribed) {
        return;
    }
    try {
        const std::string id = getSubscriberId();
        videoDeviceProxy->setAllCameraParametersToDefault(id);
        videoDeviceProxy->unsubscribe(id);
        setSubscriberId(getUnsubscribedId());
        subscribed = false;
    } catch (const KRError& error) {
        logProblem("Could not unsubscribe to KRVideoDevice");
        logWarning(kLogCategory, owner->getName() + ": " + error.what());
        owner->exit();
    }
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
        const std::lock_guard lock(parametersMutex);
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
        const std::lock_guard lock(runMutex);
        runs = processing;
        if (processing) {
            paused = pausing;
            runChanged.notify_all();
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
    const std::lock_guard lock(runMutex);
    return paused;
}

bool KRVisionExtractorPrivate::isProcessing() {
    const std::lock_guard lock(runMutex);
    return processing;
}

} // namespace KR
