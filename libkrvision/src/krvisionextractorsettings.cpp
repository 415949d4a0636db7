// The settings of a vision extractor; the acquisition is in krvisionextractor_p.cpp.

#include "krvisionextractor_p.hpp"

#include "krvision/krvisiondefinitions.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krthread.hpp"

namespace KR {

void KRVisionExtractorPrivate::setSubscriptionParameters(const std::vector<std::pair<int, int>>& parameters) {
    {
        const KRLock lock(parametersMutex);
        cameraParameters = parameters;
    }
    if (subscribed) {
        xSetSubscriptionParameters();
    }
}

// The lock of a setting is held while the camera subscription begins or ends, so a setter that holds it either reaches
// the subscription or is seen by the next one.
bool KRVisionExtractorPrivate::setColorSpace(int newColorSpace) {
    const KRExclusiveLock guard(colorSpaceLock);
    if (!subscribed) {
        // Not stored for the next subscription either, unlike resolution and camera: deliberate.
        logProblem("The module has not been subscribed to, so you cannot set the colorspace.");
        return false;
    }
    return xSetColorSpace(newColorSpace);
}

bool KRVisionExtractorPrivate::setOrPresetColorSpace(int newColorSpace) {
    const KRExclusiveLock guard(colorSpaceLock);
    if (!subscribed) {
        colorSpace = newColorSpace;
        return true;
    }
    return xSetColorSpace(newColorSpace);
}

bool KRVisionExtractorPrivate::xSetColorSpace(int newColorSpace) {
    const bool accepted = videoDeviceProxy->setColorSpace(getSubscriberId(), newColorSpace);
    if (accepted) {
        colorSpace = newColorSpace;
    }
    return accepted;
}

bool KRVisionExtractorPrivate::setResolution(int newResolution) {
    const KRExclusiveLock guard(resolutionLock);
    const bool accepted = subscribed ? videoDeviceProxy->setResolution(getSubscriberId(), newResolution)
                                     : isResolutionValid(newResolution);
    if (accepted) {
        resolution = newResolution;
    }
    return accepted;
}

bool KRVisionExtractorPrivate::setActiveCamera(int camera) {
    std::optional<bool> accepted;
    while (!accepted) { // again if the subscription began or ended meanwhile
        accepted = subscribed ? changeCamera(camera) : presetExistingCamera(camera);
    }
    return *accepted;
}

std::optional<bool> KRVisionExtractorPrivate::changeCamera(int camera) {
    const bool wasProcessing = isProcessing();
    if (wasProcessing) {
        pause(true);
    }
    sleepMilliseconds(50); // lets the loop reach its wait
    std::optional<bool> accepted;
    {
        const KRExclusiveLock guard(cameraLock);
        if (subscribed) {
            // After an error the loop stays paused: deliberate.
            accepted = videoDeviceProxy->setActiveCamera(getSubscriberId(), camera);
            if (*accepted) {
                activeCamera = camera;
            }
        }
    }
    if (wasProcessing) {
        pause(false);
    }
    return accepted;
}

std::optional<bool> KRVisionExtractorPrivate::presetExistingCamera(int camera) {
    try {
        if (videoDeviceProxy->getCameraModel(camera) == -1) {
            throw KRError(owner->getName(), "setActiveCamera", "camera not found");
        }
    } catch (const KRError& error) {
        // No separator after the module's name, and the spelling: deliberate.
        logError(kLogCategory, owner->getName() + "Can't swith active camera to " + std::to_string(camera) +
                                   ": " + error.what());
        return false;
    }
    return presetCamera(camera) ? std::optional(true) : std::nullopt;
}

bool KRVisionExtractorPrivate::presetCamera(int camera) {
    const KRExclusiveLock guard(cameraLock);
    if (subscribed) {
        return false;
    }
    activeCamera = camera;
    return true;
}

bool KRVisionExtractorPrivate::hasSubscriber(const std::string& subscriber) {
    for (const KRValue& entry : owner->getSubscribersInfo().to<std::vector<KRValue>>()) {
        if (entry[0].to<std::string>() == subscriber) {
            return true;
        }
    }
    return false;
}

void KRVisionExtractorPrivate::updatePeriodOf(const std::string& subscriber, int frameRate) {
    if (frameRate == 0) {
        throw KRError(owner->getName(), "setFrameRate", "a frame rate of 0 has no period");
    }
    owner->updatePeriod(subscriber, 1000 / frameRate);
}

void KRVisionExtractorPrivate::updatePeriodIfSubscribed(const std::string& subscriber, int frameRate) {
    constexpr int kTries = 3; // it may leave and come back between the failure and the check
    for (int failures = 0;;) {
        try {
            updatePeriodOf(subscriber, frameRate);
            return;
        } catch (const KRError&) {
            if (!hasSubscriber(subscriber)) {
                return;
            }
            if (++failures == kTries) {
                throw;
            }
        }
    }
}

bool KRVisionExtractorPrivate::setFrameRate(int frameRate) {
    const KRValue subscribers = owner->getSubscribersInfo();
    if (!subscribed) {
        logProblem("The module has not been subscribed to, so you cannot set the framerate.");
        return false;
    }
    const KRExclusiveLock guard(frameRateLock);
    const bool accepted = videoDeviceProxy->setFrameRate(getSubscriberId(), frameRate);
    if (accepted) {
        for (std::size_t i = 0; i < subscribers.getSize(); ++i) {
            updatePeriodIfSubscribed(subscribers[i][0].to<std::string>(), frameRate);
        }
    }
    return accepted;
}

bool KRVisionExtractorPrivate::setFrameRate(const std::string& subscriber, int frameRate) {
    if (!hasSubscriber(subscriber)) {
        logProblem("setFrameRate, unknown subscriber name: " + subscriber);
        return false;
    }
    // Without a camera subscription it is the camera service that refuses: deliberate.
    const KRExclusiveLock guard(frameRateLock);
    const bool accepted = videoDeviceProxy->setFrameRate(getSubscriberId(), frameRate);
    if (accepted) {
        updatePeriodOf(subscriber, frameRate);
    }
    return accepted;
}

void KRVisionExtractorPrivate::setVideoDeviceFrameRate(int frameRate) {
    videoDeviceProxy->setFrameRate(getSubscriberId(), frameRate);
}

void KRVisionExtractorPrivate::setParameter(const std::string& name, const KRValue& value) {
    if (!value.isValid() || !value.isArray()) {
        logProblem("Parameter is not valid, parameter must be a valid array.");
        return;
    }
    // Refuses the very size that the message asks for: deliberate.
    if (value.getSize() < 2) {
        logProblem("Wrong parameter size, parameter must be an array of size 1. Current size is " +
                   std::to_string(value.getSize()));
        return;
    }
    if (name == "resolution") {
        owner->setResolution(value[0].to<int>());
    } else if (name == "pause") {
        owner->pause(value[0].to<int>() == 1);
    } else {
        logProblem(
            "Unknown parameter value. Parameter must be resolution or pause, but current parameter is " +
            name);
    }
}

int KRVisionExtractorPrivate::getResolution() {
    const KRSharedLock guard(resolutionLock);
    return resolution;
}

int KRVisionExtractorPrivate::getColorSpace() {
    const KRSharedLock guard(colorSpaceLock);
    return colorSpace;
}

int KRVisionExtractorPrivate::getActiveCamera() {
    const KRSharedLock guard(cameraLock);
    return activeCamera;
}

int KRVisionExtractorPrivate::getFrameRate() {
    const KRSharedLock guard(frameRateLock);
    return subscribed ? videoDeviceProxy->getFrameRate(getSubscriberId()) : -1;
}

int KRVisionExtractorPrivate::getMinimumPeriod() const noexcept {
    return activeCamera == 2 ? 50 : 33; // camera 2 is slower than the others: deliberate
}

} // namespace KR
