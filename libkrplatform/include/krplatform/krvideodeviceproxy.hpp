#pragma once

#include "krplatform/krcamerainfo.hpp"
#include "krplatform/krexport.hpp"
#include "krplatform/krproxy.hpp"

#include <memory>
#include <string>
#include <vector>

namespace KR {

/// The camera service, typed.
///
/// Calls whatever module is registered as "KRVideoDevice". All operations are thread-safe; each throws what the
/// service throws, and KRError when there is no such module. `id` is the identifier that subscribeCamera()
/// returned. Setters return false for a value that the camera refuses and change nothing then.
///
/// A subscription made through this proxy outlives the service: when the service is gone, images cannot be fetched
/// and there is nothing to release or to unsubscribe; once another has come, the next operation subscribes there with
/// the same settings and parameters, behind the same identifier.
class KR_EXPORT KRVideoDeviceProxy {
public:
    explicit KRVideoDeviceProxy(const boost::shared_ptr<KRBroker>& broker);
    ~KRVideoDeviceProxy();

    /// Subscribes to a camera; the first subscriber opens it. Frame rate in images per second.
    /// \return the identifier to use from now on
    std::string subscribeCamera(const std::string& name, int camera, int resolution, int colorSpace,
                                int frameRate);
    void unsubscribe(const std::string& id);

    /// The newest image that this subscription has not had: an array of 12 elements (see KRImage::fromKRValue),
    /// pixels shared with the service, not copied. Waits for one for a while.
    /// \throws KRError no image in time; a value that would make its reader leave a buffer: a negative size,
    /// more layers than the colour space has, fewer pixels than the size tells
    KRValue getImageRemote(const std::string& id);
    /// Gives the image that was fetched last back.
    void releaseImage(const std::string& id);

    bool setFrameRate(const std::string& id, int frameRate);
    int getFrameRate(const std::string& id) const;
    bool setResolution(const std::string& id, int resolution);
    bool setColorSpace(const std::string& id, int colorSpace);
    bool setActiveCamera(const std::string& id, int camera);
    /// -1 for a camera that does not exist.
    int getCameraModel(int camera) const;
    bool setCameraParameter(const std::string& id, int parameter, int value);
    void setAllCameraParametersToDefault(const std::string& id);

    /// \name What the service tells of itself
    /// They also throw a KRError if the service answers with something else.
    ///@{
    /// All cameras, in the order of their indices.
    std::vector<KRCameraInfo> getCameraList() const;
    /// What can be set with setCameraParameter() on a camera, and its present values.
    std::vector<KRCameraControl> getControls(int camera) const;
    /// Those of all subscriptions, the oldest first.
    std::vector<KRSubscriptionStatistics> getStatistics() const;
    /// All subscriptions, the oldest first.
    std::vector<KRSubscriberInfo> getSubscribers() const;
    ///@}

    const KRProxy& getProxy() const noexcept { return proxy_; }

private:
    struct Subscriptions;
    KRProxy proxy_;
    const std::unique_ptr<Subscriptions> subscriptions_;
};

} // namespace KR
