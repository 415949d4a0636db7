#pragma once

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krimage.hpp>

#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace KR::tool {

/// The option `--camera N=SOURCE` of a verb.
struct CameraOptions {
    std::vector<std::string> cameras; ///< as they were given

    void declare(CLI::App& app);
    /// One source per camera, in the order of their indices; "test" alone if none was given.
    /// \throws UsageError an option is none, or there is a camera missing before another one
    std::vector<std::string> readSources() const;
};

/// Whose cameras a verb looks at: those of the option `--camera`, or of a running service by `--broker URL`.
struct ServiceOptions {
    CameraOptions own;
    std::string broker; ///< "" for a service of its own

    void declare(CLI::App& app);
};

/// A camera service: one of this process, with the cameras that the options name, "test" alone if they name none; or
/// the one that the brokers at the address have.
class Cameras {
public:
    /// \throws UsageError an option is none, or there is a camera missing before another one
    /// \throws KRError a source is not understood; the brokers have no camera service
    explicit Cameras(const ServiceOptions& options);

    KRVideoDeviceProxy& getService() noexcept { return service_; }
    /// \throws UsageError there is no such camera
    void require(int camera) const;

private:
    boost::shared_ptr<KRBroker> broker_;
    KRModuleHandle<KRVideoDevice> module_; // unless the service is another process's
    KRVideoDeviceProxy service_;
    int count_;
};

/// The geometry in which a verb wants the images.
struct GeometryOptions {
    std::string resolution = "640x480";
    std::string colorSpace = "yuv422";

    void declare(CLI::App& app);
    /// \throws UsageError it is not the size of a resolution code
    int getResolution() const;
    /// \throws UsageError it is not known
    int getColorSpace() const;
};

/// A subscription that ends with the object.
class Subscription {
public:
    Subscription(KRVideoDeviceProxy& service, int camera, int resolution, int colorSpace);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    const std::string& getId() const noexcept { return id_; }
    /// The next image, with pixels of its own. \throws KRError as getImageRemote
    std::unique_ptr<KRImage> fetch();
    /// What the service has counted of it. \throws std::runtime_error it does not know the subscription any more
    KRSubscriptionStatistics getStatistics() const;

private:
    KRVideoDeviceProxy& service_;
    const std::string id_;
};

} // namespace KR::tool
