#include "service/krvideodevice_p.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cassert>
#include <stdexcept>

namespace KR {

namespace {

constexpr std::size_t maximumSubscriptions = 4096;

} // namespace

KRSize getSize(int resolution) noexcept {
    KRSize size;
    setSizeFromResolution(resolution, size.width, size.height);
    assert(size.width > 0 && size.height > 0);
    return size;
}

void KRVideoDevice::Private::fail(const char* method, const std::string& text, KRSourceLocation where) const {
    throw KRError(name, method, text, where);
}

KRCameraSlot* KRVideoDevice::Private::findSlot(int camera) const noexcept {
    return camera >= 0 && static_cast<std::size_t>(camera) < slots.size() ? slots[camera].get() : nullptr;
}

KRCameraSlot& KRVideoDevice::Private::getSlot(const char* method, int camera) const {
    if (KRCameraSlot* slot = findSlot(camera)) {
        return *slot;
    }
    fail(method, "camera " + std::to_string(camera) + " does not exist; " +
                     (slots.size() == 1 ? "there is only camera 0"
                                        : "there are cameras 0 to " + std::to_string(slots.size() - 1)));
}

KRCameraSlot& KRVideoDevice::Private::getSlot(const KRImageSubscription::Settings& settings) const noexcept {
    KRCameraSlot* slot = findSlot(settings.camera);
    assert(slot != nullptr); // a subscription is only moved to cameras that exist
    return *slot;
}

void KRVideoDevice::Private::acquire(const char* method, KRCameraSlot& slot, int resolution) const {
    try {
        slot.acquire(getSize(resolution));
    } catch (const std::runtime_error& error) {
        fail(method, error.what());
    }
}

std::string KRVideoDevice::Private::subscribe(const std::string& subscriber, const std::string& caller,
                                              const KRImageSubscription::Settings& settings) {
    const char* method = "subscribeCamera";
    KRCameraSlot& slot = getSlot(settings);
    acquire(method, slot, settings.resolution);
    try {
        const KRLock lock(mutex);
        if (subscriptions.size() >= maximumSubscriptions) {
            fail(method, "there are " + std::to_string(subscriptions.size()) +
                             " subscriptions; more are not supported");
        }
        return add(subscriber, caller, settings);
    } catch (...) {
        slot.release();
        throw;
    }
}

std::string KRVideoDevice::Private::add(const std::string& subscriber, const std::string& caller,
                                        const KRImageSubscription::Settings& settings) {
    const std::uint64_t number = ++subscriptionsMade;
    std::string id = subscriber + "_" + std::to_string(number);
    subscriptions.emplace(id, std::make_shared<KRImageSubscription>(number, settings, caller));
    return id;
}

std::vector<std::string> KRVideoDevice::Private::listOf(const std::string& caller) const {
    std::vector<std::string> ids;
    const KRLock lock(mutex);
    for (const auto& [id, subscription] : subscriptions) {
        if (subscription->getCaller() == caller) {
            ids.push_back(id);
        }
    }
    return ids;
}

std::shared_ptr<KRImageSubscription> KRVideoDevice::Private::find(const char* method,
                                                                  const std::string& id) const {
    const KRLock lock(mutex);
    const auto found = subscriptions.find(id);
    if (found == subscriptions.end()) {
        failUnknown(method, id);
    }
    return found->second;
}

void KRVideoDevice::Private::failUnknown(const char* method, const std::string& id) const {
    fail(method,
         "subscription \"" + id + "\" does not exist; expected an identifier that subscribeCamera returned");
}

KRVideoDevice::Private::Subscriptions KRVideoDevice::Private::list() const {
    Subscriptions all;
    {
        const KRLock lock(mutex);
        all.assign(subscriptions.begin(), subscriptions.end());
    }
    std::ranges::sort(all, {}, [](const auto& entry) { return entry.second->getNumber(); });
    return all;
}

} // namespace KR
