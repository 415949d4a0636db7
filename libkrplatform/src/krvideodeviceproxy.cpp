#include "krplatform/krvideodeviceproxy.hpp"

#include "krplatform/krcolorspacelayers.hpp"

#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace KR {

namespace {

/// Refuses an image value that would make a reader or writer of its pixels leave a buffer. What the conversion
/// to an image refuses by itself (no array, too few elements, wrong types, an unknown colour space) passes.
void checkImage(const KRValue& image) {
    if (!image.isArray() || image.getSize() < 12) {
        return;
    }
    for (const std::size_t i : {0, 1, 2, 3}) {
        if (!image[i].isInt()) {
            return;
        }
    }
    const auto refuse = [](const std::string& why) {
        throw KRError("KRVideoDeviceProxy", "getImageRemote", "malformed image: " + why);
    };
    const std::int64_t width = image[0].to<int>();
    const std::int64_t height = image[1].to<int>();
    const std::int64_t layers = image[2].to<int>();
    const int colorSpace = image[3].to<int>();
    const std::string geometry =
        std::to_string(width) + "x" + std::to_string(height) + " with " + std::to_string(layers) + " layers";
    if (width < 0 || height < 0 || layers < 0) {
        refuse("negative size, " + geometry);
    }
    if (colorSpace < 0 || colorSpace >= static_cast<int>(kColorSpaceLayers.size())) {
        return;
    }
    const std::int64_t layersOfSpace = kColorSpaceLayers[static_cast<std::size_t>(colorSpace)];
    if (layers > layersOfSpace) {
        refuse(std::to_string(layers) + " layers, but colour space " + std::to_string(colorSpace) + " has " +
               std::to_string(layersOfSpace));
    }
    // The first product cannot overflow: both factors are below 2^31.
    if (width * height > std::numeric_limits<std::int32_t>::max() / layersOfSpace) {
        refuse("too large, " + geometry);
    }
    if (!image[6].isBinary()) {
        return;
    }
    const std::size_t bytes = image[6].GetBinary().size();
    if (bytes < static_cast<std::uint64_t>(width * height * layers)) {
        refuse(geometry + " needs " + std::to_string(width * height * layers) + " bytes, but there are " +
               std::to_string(bytes));
    }
}

template <class T>
std::vector<T> readAll(const KRValue& values) {
    std::vector<T> all;
    all.reserve(values.getSize());
    for (std::size_t i = 0; i < values.getSize(); ++i) {
        all.push_back(T::fromKRValue(values[i]));
    }
    return all;
}

} // namespace

/// What this proxy has subscribed to, kept to subscribe again when the service is another one. Thread-safe.
struct KRVideoDeviceProxy::Subscriptions {
    struct Subscription {
        std::string name;
        int camera;
        int resolution;
        int colorSpace;
        int frameRate;
        std::uint32_t service;                         // number of the module that knows the identifier
        std::string id;                                // of the subscription there
        std::vector<std::pair<int, int>> parameters{}; // that were set, in order
        bool known = true;                             // false: the caller's identifier is none of ours
    };

    /// The subscription behind the identifier, brought to the service that is there now.
    /// \return one without a service if there is none
    Subscription get(const KRProxy& proxy, const std::string& id) {
        const std::lock_guard lock(mutex);
        const std::uint32_t service = proxy.getModuleNumber();
        const auto found = byId.find(id);
        if (found == byId.end()) {
            return {"", 0, 0, 0, 0, service, id, {}, false};
        }
        Subscription& subscription = found->second;
        if (service != 0 && service != subscription.service) {
            // With the lock held, so that one thread does it.
            subscription.id = proxy.call<std::string>("subscribeCamera", subscription.name,
                                                      subscription.camera, subscription.resolution,
                                                      subscription.colorSpace, subscription.frameRate);
            subscription.service = service;
            for (const auto& [parameter, value] : subscription.parameters) {
                proxy.call("setCameraParameter", subscription.id, parameter, value);
            }
        }
        Subscription current = subscription;
        current.service = service;
        return current;
    }

    template <class Change>
    void change(const std::string& id, Change function) {
        const std::lock_guard lock(mutex);
        const auto found = byId.find(id);
        if (found != byId.end()) {
            function(found->second);
        }
    }

    /// Calls an operation that has no meaning once the service is gone.
    void callIfThere(const KRProxy& proxy, const char* method, const std::string& id) {
        const Subscription subscription = get(proxy, id);
        if (subscription.known && subscription.service == 0) {
            return;
        }
        try {
            proxy.call(method, subscription.id);
        } catch (const KRError&) {
            if (!subscription.known || proxy.getModuleNumber() == subscription.service) {
                throw;
            }
        }
    }

    /// Sets a setting, also for the service to come.
    template <class Value, class Change>
    bool set(const KRProxy& proxy, const char* method, const std::string& id, Value value, Change function) {
        const Subscription subscription = get(proxy, id);
        const bool accepted = proxy.call<bool>(method, subscription.id, value);
        if (accepted) {
            change(id, function);
        }
        return accepted;
    }

    std::mutex mutex;
    std::map<std::string, Subscription> byId; // guarded by mutex: by the identifier that the caller has
};

KRVideoDeviceProxy::KRVideoDeviceProxy(const boost::shared_ptr<KRBroker>& broker)
    : proxy_(broker, "KRVideoDevice"), subscriptions_(std::make_unique<Subscriptions>()) {}

KRVideoDeviceProxy::~KRVideoDeviceProxy() = default;

std::string KRVideoDeviceProxy::subscribeCamera(const std::string& name, int camera, int resolution,
                                                int colorSpace, int frameRate) {
    const std::uint32_t service = proxy_.getModuleNumber();
    const auto id =
        proxy_.call<std::string>("subscribeCamera", name, camera, resolution, colorSpace, frameRate);
    const std::lock_guard lock(subscriptions_->mutex);
    subscriptions_->byId.insert_or_assign(
        id, Subscriptions::Subscription{name, camera, resolution, colorSpace, frameRate, service, id});
    return id;
}

void KRVideoDeviceProxy::unsubscribe(const std::string& id) {
    subscriptions_->callIfThere(proxy_, "unsubscribe", id);
    const std::lock_guard lock(subscriptions_->mutex);
    subscriptions_->byId.erase(id);
}

KRValue KRVideoDeviceProxy::getImageRemote(const std::string& id) {
    KRValue image = proxy_.call<KRValue>("getImageRemote", subscriptions_->get(proxy_, id).id);
    checkImage(image);
    return image;
}

void KRVideoDeviceProxy::releaseImage(const std::string& id) {
    subscriptions_->callIfThere(proxy_, "releaseImage", id);
}

bool KRVideoDeviceProxy::setFrameRate(const std::string& id, int frameRate) {
    return subscriptions_->set(proxy_, "setFrameRate", id, frameRate,
                               [&](auto& subscription) { subscription.frameRate = frameRate; });
}

int KRVideoDeviceProxy::getFrameRate(const std::string& id) const {
    return proxy_.call<int>("getFrameRate", subscriptions_->get(proxy_, id).id);
}

bool KRVideoDeviceProxy::setResolution(const std::string& id, int resolution) {
    return subscriptions_->set(proxy_, "setResolution", id, resolution,
                               [&](auto& subscription) { subscription.resolution = resolution; });
}

bool KRVideoDeviceProxy::setColorSpace(const std::string& id, int colorSpace) {
    return subscriptions_->set(proxy_, "setColorSpace", id, colorSpace,
                               [&](auto& subscription) { subscription.colorSpace = colorSpace; });
}

bool KRVideoDeviceProxy::setActiveCamera(const std::string& id, int camera) {
    return subscriptions_->set(proxy_, "setActiveCamera", id, camera,
                               [&](auto& subscription) { subscription.camera = camera; });
}

int KRVideoDeviceProxy::getCameraModel(int camera) const {
    return proxy_.call<int>("getCameraModel", camera);
}

bool KRVideoDeviceProxy::setCameraParameter(const std::string& id, int parameter, int value) {
    const bool accepted =
        proxy_.call<bool>("setCameraParameter", subscriptions_->get(proxy_, id).id, parameter, value);
    if (accepted) {
        subscriptions_->change(id, [&](auto& subscription) {
            std::erase_if(subscription.parameters, [&](const auto& each) { return each.first == parameter; });
            subscription.parameters.emplace_back(parameter, value);
        });
    }
    return accepted;
}

void KRVideoDeviceProxy::setAllCameraParametersToDefault(const std::string& id) {
    subscriptions_->callIfThere(proxy_, "setAllCameraParametersToDefault", id);
    subscriptions_->change(id, [](auto& subscription) { subscription.parameters.clear(); });
}

std::vector<KRCameraInfo> KRVideoDeviceProxy::getCameraList() const {
    return readAll<KRCameraInfo>(proxy_.call<KRValue>("getCameraList"));
}

std::vector<KRCameraControl> KRVideoDeviceProxy::getControls(int camera) const {
    return readAll<KRCameraControl>(proxy_.call<KRValue>("getControls", camera));
}

std::vector<KRSubscriptionStatistics> KRVideoDeviceProxy::getStatistics() const {
    return readAll<KRSubscriptionStatistics>(proxy_.call<KRValue>("getStatistics"));
}

std::vector<KRSubscriberInfo> KRVideoDeviceProxy::getSubscribers() const {
    return readAll<KRSubscriberInfo>(proxy_.call<KRValue>("getSubscribers"));
}

} // namespace KR
