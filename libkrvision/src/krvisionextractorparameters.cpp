#include "krvisionextractorparameters.hpp"

#include "krvision/krcolorspacenames.hpp"
#include "krvision/krvisiondefinitions.hpp"
#include "krvision/krvisionextractor.hpp"

#include "krvisionextractor_p.hpp"

#include "krplatform/krerror.hpp"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

namespace KR {

namespace {

constexpr int kLastResolution = 8; // for which there are images
constexpr int kLastCamera = 99;
constexpr int kLowestFrameRate = 1;
constexpr int kHighestFrameRate = 30;

// "640x480"; the number of a code without a size.
std::string toResolutionName(int resolution) {
    int width = 0;
    int height = 0;
    setSizeFromResolution(resolution, width, height);
    return width < 0 ? std::to_string(resolution) : std::to_string(width) + "x" + std::to_string(height);
}

// The code that has this name among those that a parameter offers: 0 to `last`, and the one it began with.
template <class ToName>
int toCode(const std::string& name, int last, int initial, ToName toName) {
    for (int code = 0; code <= last; ++code) {
        if (toName(code) == name) {
            return code;
        }
    }
    return initial;
}

std::vector<std::string> listResolutions(int initial) {
    std::vector<std::string> names;
    for (int code = 0; code <= kLastResolution; ++code) {
        names.push_back(toResolutionName(code));
    }
    if (std::ranges::find(names, toResolutionName(initial)) == names.end()) {
        names.push_back(toResolutionName(initial));
    }
    return names;
}

std::vector<std::string> listColorSpaces(int initial) {
    std::vector<std::string> names;
    names.reserve(kColorSpaceNames.size() + 1);
    for (const KRColorSpaceName& each : kColorSpaceNames) {
        names.emplace_back(each.name);
    }
    if (std::ranges::find(names, getColorSpaceName(initial)) == names.end()) {
        names.push_back(getColorSpaceName(initial));
    }
    return names;
}

std::string describeCameras(const KRVideoDeviceProxy& service, int camera) {
    std::string missing = "camera " + std::to_string(camera) + " does not exist";
    try {
        const std::size_t count = service.getCameraList().size();
        return missing + (count == 0   ? "; there are none"
                          : count == 1 ? "; there is camera 0 only"
                                       : "; cameras are 0 to " + std::to_string(count - 1));
    } catch (const KRError&) { // another implementation of the camera service
        return missing;
    }
}

} // namespace

void KRVisionExtractor::declareParameters() {
    using Type = KRParameterInfo::Type;
    const auto refuse = [this](const char* parameter, const std::string& why) {
        throw KRError(getName(), parameter, why);
    };

    const int initialCamera = getActiveCamera();
    xDeclareParameter(
        {.name = kCameraParameter,
         .description = "Camera whose images are processed.",
         .defaultValue = initialCamera,
         .minimum = std::min(0, initialCamera),
         .maximum = std::max(kLastCamera, initialCamera)},
        [this, refuse](const KRValue& value) {
            const int camera = value.to<int>();
            if (camera == getActiveCamera()) {
                return;
            }
            if (getVideoDeviceProxy()->getProxy().getModuleNumber() == 0 && p_->presetCamera(camera)) {
                return; // the service may start later, and checks it then
            }
            const bool wasPaused = isPaused();
            try {
                if (!setActiveCamera(camera)) {
                    refuse(kCameraParameter, describeCameras(*getVideoDeviceProxy(), camera));
                }
            } catch (...) {
                if (isProcessing()) {
                    p_->pause(wasPaused); // an error leaves the acquisition paused
                }
                throw;
            }
        },
        [this] { return KRValue(getActiveCamera()); });

    const int initialResolution = getResolution();
    xDeclareParameter(
        {.name = kResolutionParameter,
         .type = Type::Choice,
         .description = "Size of the images.",
         .unit = "pixels",
         .defaultValue = toResolutionName(initialResolution),
         .choices = listResolutions(initialResolution)},
        [this, refuse, initialResolution](const KRValue& value) {
            const int resolution =
                toCode(value.to<std::string>(), kLastResolution, initialResolution, toResolutionName);
            if (resolution != getResolution() && !setResolution(resolution)) {
                refuse(kResolutionParameter, "the camera service does not deliver it");
            }
        },
        [this] { return KRValue(toResolutionName(getResolution())); });

    const int initialColorSpace = getColorSpace();
    xDeclareParameter(
        {.name = kColorSpaceParameter,
         .type = Type::Choice,
         .description = "Colour space of the images.",
         .defaultValue = getColorSpaceName(initialColorSpace),
         .choices = listColorSpaces(initialColorSpace)},
        [this, refuse, initialColorSpace](const KRValue& value) {
            const int colorSpace =
                toCode(value.to<std::string>(), kBgrxColorSpace, initialColorSpace, getColorSpaceName);
            if (colorSpace != getColorSpace() && !p_->setOrPresetColorSpace(colorSpace)) {
                refuse(kColorSpaceParameter, "the camera service does not deliver it");
            }
        },
        [this] { return KRValue(getColorSpaceName(getColorSpace())); });

    const int initialFrameRate =
        std::clamp(1000 / p_->getDefaultPeriod(), kLowestFrameRate, kHighestFrameRate);
    xDeclareParameter(
        {.name = kFrameRateParameter,
         .description = "Images processed per second, for all subscribers.",
         .unit = "images per second",
         .defaultValue = initialFrameRate,
         .minimum = kLowestFrameRate,
         .maximum = kHighestFrameRate},
        [this, refuse](const KRValue& value) {
            const int frameRate = value.to<int>();
            const auto set = [&] {
                if (p_->isSubscribed()) {
                    if (!setFrameRate(frameRate)) {
                        refuse(kFrameRateParameter, "the camera service refuses it");
                    }
                } else if (getCurrentPeriod() >= 0) {
                    refuse(kFrameRateParameter, "there are subscribers, but no camera subscription yet");
                }
            };
            for (int triesLeft = 2;; --triesLeft) {
                const int changes = p_->countSubscriptionChanges();
                try {
                    set();
                    break;
                } catch (const KRError&) {
                    if (triesLeft == 0 || p_->countSubscriptionChanges() == changes) {
                        throw;
                    }
                }
            }
            p_->presetFrameRate(frameRate);
        },
        [this] {
            const int period = getCurrentPeriod();
            return KRValue(period < 0 ? 1000 / p_->getDefaultPeriod()
                                      : KRVisionExtractorPrivate::toFrameRate(period));
        });

    xDeclareParameter(
        {.name = kPauseParameter,
         .type = Type::Bool,
         .description = "Whether processing is paused.",
         .defaultValue = false,
         .saved = false},
        [this, refuse](const KRValue& value) {
            if (value.to<bool>() == isPaused()) {
                return;
            }
            if (!isProcessing()) {
                refuse(kPauseParameter, "nothing is processed while nobody is subscribed");
            }
            pause(value.to<bool>());
        },
        [this] { return KRValue(isPaused()); });
}

} // namespace KR
