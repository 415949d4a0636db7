#include "krplatform/krvideodeviceproxy.hpp"

#include "krplatform/krcolorspacelayers.hpp"
#include "krplatform/krlog.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krthread.hpp"

#include "krbroker_p.hpp"

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace KR {

namespace {

constexpr const char* kCameraCategory = "krplatform.camera";
constexpr const char* kService = "KRVideoDevice";

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

/// The subscriptions of this proxy, for subscribing again at a new service. Thread-safe.
class KRVideoDeviceProxy::Subscriptions {
public:
    struct Subscription {
        std::string name;
        int camera = 0;
        int resolution = 0;
        int colorSpace = 0;
        int frameRate = 0;
        std::uint32_t service = 0;                     // number of the module that knows the identifier
        std::string id;                                // of the subscription there
        std::vector<std::pair<int, int>> parameters{}; // accepted ones, in order
    };

    explicit Subscriptions(const KRProxy& proxy) : proxy_(proxy) {}

    void add(const Subscription& subscription) {
        const KRLock lock(mutex_);
        refusals_.erase(subscription.name);
        byId_.insert_or_assign(subscription.id, subscription);
    }
    void remove(const std::string& id) {
        const KRLock lock(mutex_);
        byId_.erase(id);
    }
    void addRefusal(const std::string& name, const KRError& error) {
        const KRLock lock(mutex_);
        if (refusals_.size() >= kMaxRefusals) {
            refusals_.clear();
        }
        refusals_.insert_or_assign(
            name, Refusal{error.getModule(), error.getMethod(), error.getDescription(), error.getLocation()});
    }

    /// The subscription's identifier at the service. Subscribes again if the service is new.
    /// \throws KRError the service refuses that; the identifier is the name of a subscription that was refused
    std::string getServiceId(const std::string& id) {
        const KRLock lock(mutex_);
        const auto found = byId_.find(id);
        if (found == byId_.end()) {
            throwRefusalOf(id);
            return id; // not one of ours: left to the service
        }
        const std::uint32_t service = proxy_.getModuleNumber();
        if (service != 0 && service != found->second.service) {
            resubscribe(found->second, service); // with the lock held, so that one thread does it
        }
        return found->second.id;
    }

    /// Calls an operation that is not needed if the service does not know the subscription or is exiting, as its resources
    /// end with the service.
    void callIfSubscribed(const char* method, const std::string& id) {
        std::optional<Subscription> subscription;
        {
            const KRLock lock(mutex_);
            const auto found = byId_.find(id);
            if (found != byId_.end()) {
                subscription = found->second;
            } else {
                throwRefusalOf(id);
            }
        }
        if (subscription && proxy_.getModuleNumber() != subscription->service) {
            return;
        }
        try {
            proxy_.call(method, subscription ? subscription->id : id);
        } catch (const KRError& error) {
            const bool isGone = KRModuleGate::isRefusal(error, kService) ||
                                (subscription && proxy_.getModuleNumber() != subscription->service);
            if (!subscription || !isGone) {
                throw;
            }
        }
    }

    template <class Change>
    void change(const std::string& id, Change function) {
        const KRLock lock(mutex_);
        const auto found = byId_.find(id);
        if (found != byId_.end()) {
            function(found->second);
        }
    }

    /// Changes a setting, also for future services.
    template <class Value, class Change>
    bool set(const char* method, const std::string& id, Value value, Change function) {
        const bool accepted = proxy_.call<bool>(method, getServiceId(id), value);
        if (accepted) {
            change(id, function);
        }
        return accepted;
    }

    /// The same; while the service is away or exiting, the value is kept for the one to come.
    template <class Value, class Change>
    bool setOrKeep(const char* method, const std::string& id, Value value, Change function) {
        for (int triesLeft = 2;; --triesLeft) {
            const std::uint32_t service = getServiceOf(id);
            try {
                return set(method, id, value, function);
            } catch (const KRError& error) {
                const KRLock lock(mutex_);
                const auto found = byId_.find(id);
                if (found == byId_.end()) {
                    throw;
                }
                const std::uint32_t present = proxy_.getModuleNumber();
                const bool isAway = present == 0 || KRModuleGate::isRefusal(error, kService);
                if (isAway && found->second.service == service) {
                    function(found->second);
                    return true;
                }
                if (present == service || triesLeft == 0) {
                    throw;
                }
            }
        }
    }

private:
    static constexpr std::size_t kMaxRefusals = 64;

    /// The contents of a KRError, whose copies would share a text between threads.
    struct Refusal {
        std::string module;
        std::string method;
        std::string description;
        KRSourceLocation where;
    };

    std::uint32_t getServiceOf(const std::string& id) {
        const KRLock lock(mutex_);
        const auto found = byId_.find(id);
        return found == byId_.end() ? 0 : found->second.service;
    }

    void resubscribe(Subscription& subscription, std::uint32_t service) KR_REQUIRES(mutex_) {
        subscription.id = proxy_.call<std::string>("subscribeCamera", subscription.name, subscription.camera,
                                                   subscription.resolution, subscription.colorSpace,
                                                   subscription.frameRate);
        subscription.service = service;
        for (const auto& [parameter, value] : subscription.parameters) {
            const std::string text = "parameter " + std::to_string(parameter) + " of camera " +
                                     std::to_string(subscription.camera) + " could not be set to " +
                                     std::to_string(value) + " again";
            try {
                if (!proxy_.call<bool>("setCameraParameter", subscription.id, parameter, value)) {
                    logWarning(kCameraCategory, text + ": the camera refuses it");
                }
            } catch (const KRError& error) { // the others may still be accepted
                logWarning(kCameraCategory, text + ": " + error.what());
            }
        }
    }

    /// An extractor whose subscription was refused uses its name as identifier. The original error is more helpful than
    /// that of an unknown subscription.
    void throwRefusalOf(const std::string& name) KR_REQUIRES(mutex_) {
        const auto refusal = refusals_.find(name);
        if (refusal != refusals_.end()) {
            const Refusal& error = refusal->second;
            throw KRError(error.module, error.method, error.description, error.where);
        }
    }

    const KRProxy& proxy_;
    KRMutex mutex_;
    std::map<std::string, Subscription> byId_ KR_GUARDED_BY(mutex_); // by the identifier that the caller has
    std::map<std::string, Refusal> refusals_ KR_GUARDED_BY(mutex_);  // the last one by the subscriber's name
};

KRVideoDeviceProxy::KRVideoDeviceProxy(const boost::shared_ptr<KRBroker>& broker)
    : broker_(broker), proxy_(broker, kService), subscriptions_(std::make_unique<Subscriptions>(proxy_)) {}

KRVideoDeviceProxy::~KRVideoDeviceProxy() = default;

void KRVideoDeviceProxy::setServiceTimeout(std::chrono::milliseconds timeout) {
    serviceTimeout_ = timeout;
}

std::string KRVideoDeviceProxy::subscribeCamera(const std::string& name, int camera, int resolution,
                                                int colorSpace, int frameRate) {
    const auto deadline = std::chrono::steady_clock::now() + serviceTimeout_.load();
    for (;;) {
        std::uint32_t service = proxy_.getModuleNumber();
        if (service == 0 && serviceTimeout_.load() > std::chrono::milliseconds::zero()) {
            logInfo(kCameraCategory, name + " waits for the camera service " + kService);
            KRBrokerPrivate::of(*broker_).directory.waitForUnlessExiting(kService, deadline);
            service = proxy_.getModuleNumber();
        }
        try {
            auto id =
                proxy_.call<std::string>("subscribeCamera", name, camera, resolution, colorSpace, frameRate);
            subscriptions_->add({name, camera, resolution, colorSpace, frameRate, service, id});
            return id;
        } catch (const KRError& error) {
            const bool isGone = proxy_.getModuleNumber() != service;
            const bool isExiting = KRModuleGate::isRefusal(error, kService); // said before it was announced
            if ((isGone || isExiting) && std::chrono::steady_clock::now() < deadline &&
                !KRModuleGate::isThreadExiting()) {
                if (!isGone) {
                    sleepMilliseconds(10);
                }
                continue; // it left during the call
            }
            logWarning(kCameraCategory, "camera " + std::to_string(camera) + " for " + name +
                                            ": subscription refused: " + error.what());
            subscriptions_->addRefusal(name, error);
            throw;
        }
    }
}

void KRVideoDeviceProxy::unsubscribe(const std::string& id) {
    callToEnd("unsubscribe", id);
    subscriptions_->remove(id);
}

void KRVideoDeviceProxy::callToEnd(const char* method, const std::string& id) {
    try {
        subscriptions_->callIfSubscribed(method, id);
    } catch (const KRError& error) {
        logWarning(kCameraCategory, id + ": " + method + " refused: " + error.what());
        throw;
    }
}

KRValue KRVideoDeviceProxy::getImageRemote(const std::string& id) {
    KRValue image = proxy_.call<KRValue>("getImageRemote", subscriptions_->getServiceId(id));
    checkImage(image);
    return image;
}

void KRVideoDeviceProxy::releaseImage(const std::string& id) {
    subscriptions_->callIfSubscribed("releaseImage", id);
}

bool KRVideoDeviceProxy::setFrameRate(const std::string& id, int frameRate) {
    return subscriptions_->setOrKeep("setFrameRate", id, frameRate,
                                     [&](auto& subscription) { subscription.frameRate = frameRate; });
}

int KRVideoDeviceProxy::getFrameRate(const std::string& id) const {
    return proxy_.call<int>("getFrameRate", subscriptions_->getServiceId(id));
}

bool KRVideoDeviceProxy::setResolution(const std::string& id, int resolution) {
    return subscriptions_->set("setResolution", id, resolution,
                               [&](auto& subscription) { subscription.resolution = resolution; });
}

bool KRVideoDeviceProxy::setColorSpace(const std::string& id, int colorSpace) {
    return subscriptions_->set("setColorSpace", id, colorSpace,
                               [&](auto& subscription) { subscription.colorSpace = colorSpace; });
}

bool KRVideoDeviceProxy::setActiveCamera(const std::string& id, int camera) {
    return subscriptions_->set("setActiveCamera", id, camera,
                               [&](auto& subscription) { subscription.camera = camera; });
}

int KRVideoDeviceProxy::getCameraModel(int camera) const {
    return proxy_.call<int>("getCameraModel", camera);
}

bool KRVideoDeviceProxy::setCameraParameter(const std::string& id, int parameter, int value) {
    const bool accepted =
        proxy_.call<bool>("setCameraParameter", subscriptions_->getServiceId(id), parameter, value);
    if (accepted) {
        subscriptions_->change(id, [&](auto& subscription) {
            std::erase_if(subscription.parameters, [&](const auto& each) { return each.first == parameter; });
            subscription.parameters.emplace_back(parameter, value);
        });
    }
    return accepted;
}

void KRVideoDeviceProxy::setAllCameraParametersToDefault(const std::string& id) {
    callToEnd("setAllCameraParametersToDefault", id);
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
