// The methods that list cameras and subscriptions, and those for the controls of the cameras.

#include "krcamera/krvideodevice.hpp"

#include "conversion/krconverter.hpp"
#include "service/krvideodevice_p.hpp"
#include "source/krsourcekinds.hpp"

#include <krplatform/krlog.hpp>

#include <optional>
#include <stdexcept>

namespace KR {

namespace {

template <class T>
KRValue toArray(const std::vector<T>& entries) {
    std::vector<KRValue> values;
    values.reserve(entries.size());
    for (const T& entry : entries) {
        values.push_back(entry.toKRValue());
    }
    return values;
}

} // namespace

int KRVideoDevice::getCameraModel(int camera) const {
    const KRCameraSlot* slot = p_->findSlot(camera);
    return slot == nullptr ? -1 : slot->getModel();
}

void KRVideoDevice::setInitialSettings(int camera, int resolution,
                                       const std::vector<std::pair<std::string, int>>& controls) {
    const char* method = "setInitialSettings";
    KRCameraSlot& slot = p_->getSlot(method, camera);
    if (resolution != -1 && !isResolutionSupported(resolution)) {
        p_->fail(method,
                 "resolution " + std::to_string(resolution) + " is not supported; supported are 0 to 17");
    }
    slot.setInitialSettings({resolution == -1 ? std::nullopt : std::optional(getSize(resolution)), controls});
}

void KRVideoDevice::setSource(int camera, const std::string& source) {
    const char* method = "setSource";
    KRCameraSlot& slot = p_->getSlot(method, camera);
    std::unique_ptr<KRSource> made;
    try {
        made = makeSource(source);
    } catch (const std::exception& error) {
        p_->fail(method, "camera " + std::to_string(camera) + ": " + error.what());
    }
    const std::shared_ptr<KRCamera> opening = slot.setSource(std::move(made));
    for (const auto& [id, subscription] : p_->list()) {
        const KRLock moving(subscription->moving);
        const KRImageSubscription::Position position = subscription->getPosition();
        if (position.settings.camera == camera && !position.ended) {
            slot.want(getSize(position.settings.resolution));
            subscription->setCamera(camera); // its images count from 1 again
        }
    }
    if (opening) {
        xPost("open a camera", [opening, title = slot.getTitle()] { // may take ten seconds
            try {
                opening->open();
            } catch (const std::exception& error) {
                logError("KRVideoDevice", title + " cannot be opened: " + error.what());
            }
        });
    }
}

bool KRVideoDevice::setCameraParameter(const std::string& id, int parameter, int value) {
    const char* method = "setCameraParameter";
    KRCameraSlot& slot = p_->getSlot(p_->find(method, id)->getSettings());
    try {
        const KRControls::Answer answer = slot.getControls().set(parameter, value);
        if (answer == KRControls::Answer::Unknown) {
            p_->fail(method, slot.getTitle() + " has no parameter " + std::to_string(parameter) +
                                 "; it has: " + listControls(slot.getControls().list()));
        }
        return answer == KRControls::Answer::Done;
    } catch (const KRError&) {
        throw;
    } catch (const std::runtime_error& error) {
        p_->fail(method, slot.getTitle() + ": " + error.what());
    }
}

void KRVideoDevice::setAllCameraParametersToDefault(const std::string& id) {
    const char* method = "setAllCameraParametersToDefault";
    KRCameraSlot& slot = p_->getSlot(p_->find(method, id)->getSettings());
    try {
        slot.getControls().reset();
    } catch (const std::runtime_error& error) {
        p_->fail(method, slot.getTitle() + ": " + error.what());
    }
}

KRValue KRVideoDevice::getCameraList() const {
    std::vector<KRCameraInfo> cameras;
    for (const auto& slot : p_->slots) {
        cameras.push_back(slot->getInfo());
    }
    return toArray(cameras);
}

KRValue KRVideoDevice::getControls(int camera) const {
    const char* method = "getControls";
    KRCameraSlot& slot = p_->getSlot(method, camera);
    try {
        return toArray(slot.getControls().list());
    } catch (const std::runtime_error& error) {
        p_->fail(method, slot.getTitle() + ": " + error.what());
    }
}

KRValue KRVideoDevice::getStatistics() const {
    std::vector<KRSubscriptionStatistics> statistics;
    for (const auto& [id, subscription] : p_->list()) {
        statistics.push_back(subscription->getStatistics(id));
    }
    return toArray(statistics);
}

KRValue KRVideoDevice::getSubscribers() const {
    std::vector<KRSubscriberInfo> subscribers;
    for (const auto& [id, subscription] : p_->list()) {
        subscribers.push_back(subscription->getInfo(id));
    }
    return toArray(subscribers);
}

} // namespace KR
