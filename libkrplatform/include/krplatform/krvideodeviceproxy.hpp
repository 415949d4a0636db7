#pragma once

#include "krplatform/krcamerainfo.hpp"
#include "krplatform/krexport.hpp"
#include "krplatform/krproxy.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace KR {

/// The camera service, typed.
///
/// Calls the module registered as "KRVideoDevice". All operations are thread-safe; each throws what the
/// service throws, and KRError when there is no such module. `id` is the identifier that subscribeCamera()
/// returned. Setters return false for a value that the camera refuses and change nothing then.
///
/// A subscription made through this proxy outlives the service. While the service is gone, images cannot be
/// fetched, and release and unsubscribe do nothing. With a new service, the next fetch or setting subscribes again with
/// the same settings and parameters under the same identifier; refused parameters are logged.
///
/// A subscription or unsubscription that the service refuses is logged in the category "krplatform.camera".
class KR_EXPORT KRVideoDeviceProxy {
public:
    /// On the camera service that the broker reaches, which need not exist yet.
    explicit KRVideoDeviceProxy(const boost::shared_ptr<KRBroker>& broker);
    ~KRVideoDeviceProxy();

    /// How long subscribeCamera() waits for an absent service; default 10 s, 0: no wait.
    void setServiceTimeout(std::chrono::milliseconds timeout);

    /// Subscribes to a camera; the first subscriber opens it. Frame rate in images per second.
    ///
    /// If there is no service yet this waits for one, see setServiceTimeout(). Inside a call of a module, such as an
    /// acquisition, the wait ends when that module is asked to exit. After a refusal, the operations below throw the same
    /// error if passed `name` as identifier, until a subscription of that name succeeds.
    /// \return the identifier to use from now on
    /// \throws KRError no service in time; it refuses, for example because the camera cannot be opened
    std::string subscribeCamera(const std::string& name, int camera, int resolution, int colorSpace,
                                int frameRate);
    /// Ends a subscription.
    void unsubscribe(const std::string& id);

    /// Fetches the newest image that this subscription has not fetched yet: an array of 12 elements (see
    /// KRImage::fromKRValue), pixels shared with the service, not copied. Waits a bounded time for one.
    /// \throws KRError no image in time; a value that would make its reader leave a buffer: a negative size,
    /// more layers than the colour space has, fewer pixels than its size needs
    KRValue getImageRemote(const std::string& id);
    /// Returns the image that was fetched last to the service.
    void releaseImage(const std::string& id);

    /// Images per second, 1 to 30. True also while the service of a subscription is away or exiting: the next service
    /// gets the rate with the subscription.
    bool setFrameRate(const std::string& id, int frameRate);
    /// Images per second.
    int getFrameRate(const std::string& id) const;
    /// Resolution code.
    bool setResolution(const std::string& id, int resolution);
    /// Colour-space code.
    bool setColorSpace(const std::string& id, int colorSpace);
    /// Index of the camera.
    bool setActiveCamera(const std::string& id, int camera);
    /// -1 for a camera that does not exist.
    int getCameraModel(int camera) const;
    /// Number and value of a camera control.
    bool setCameraParameter(const std::string& id, int parameter, int value);
    /// Resets all controls of the subscription's camera.
    void setAllCameraParametersToDefault(const std::string& id);

    /// \name What the service reports about itself
    /// They also throw a KRError if the service answers with something else.
    ///@{
    /// All cameras, in the order of their indices.
    std::vector<KRCameraInfo> getCameraList() const;
    /// The controls for setCameraParameter() on a camera, with their present values.
    std::vector<KRCameraControl> getControls(int camera) const;
    /// Those of all subscriptions, the oldest first.
    std::vector<KRSubscriptionStatistics> getStatistics() const;
    /// All subscriptions, the oldest first.
    std::vector<KRSubscriberInfo> getSubscribers() const;
    ///@}

    const KRProxy& getProxy() const noexcept { return proxy_; } ///< untyped

private:
    class Subscriptions;

    void callToEnd(const char* method, const std::string& id);

    const boost::shared_ptr<KRBroker> broker_;
    KRProxy proxy_;
    std::atomic<std::chrono::milliseconds> serviceTimeout_ = std::chrono::milliseconds(10'000);
    const std::unique_ptr<Subscriptions> subscriptions_;
};

} // namespace KR
