#include "service/krvideodevice_p.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <stdexcept>

namespace KR {

KRSize getSize(int resolution) noexcept {
    KRSize size;
    setSizeFromResolution(resolution, size.width, size.height);
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

void KRVideoDevice::Private::acquire(const char* method, KRCameraSlot& slot, int resolution) const {
    try {
        slot.acquire(getSize(resolution));
    } catch (const std::runtime_error& error) {
        fail(method, error.what());
    }
}

std::shared_ptr<KRSubscription> KRVideoDevice::Private::find(const char* method,
                                                             const std::string& id) const {
    const std::lock_guard lock(mutex);
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
        const std::lock_guard lock(mutex);
        all.assign(subscriptions.begin(), subscriptions.end());
    }
    std::ranges::sort(all, {}, [](const auto& entry) { return entry.second->getNumber(); });
    return all;
}

} // namespace KR
