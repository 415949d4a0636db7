#pragma once

#include "tool/arguments.hpp"
#ifdef KR_WITH_DDS
#include "system/domain.hpp"
#endif

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krimage.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

class Interruption;

/// The option `--camera N=SOURCE` of a verb.
struct SourceOptions {
    std::vector<std::string> cameras; ///< as given

    /// \param otherwise  what is used without the option, for the help
    Argument declare(Arguments& arguments, const std::string& otherwise);
    /// One source per camera, in the order of their numbers; "test" alone if none was given.
    /// \throws UsageError an option is malformed, or a number is missing or given twice
    std::vector<std::string> readSources() const;
};

/// The cameras that a verb uses: those of `--camera`, in its own service, or else those of the running service, by
/// `--broker URL`. Without the verbs that talk to brokers, there is only its own service.
struct ServiceOptions {
    SourceOptions own;
#ifdef KR_WITH_DDS
    Domain domain;
#endif

    void declare(Arguments& arguments);
    bool isOwn() const noexcept;
};

/// One of these cameras: the argument N.
struct CameraOptions {
    ServiceOptions service;
    int number = 0;

    void declare(Arguments& arguments);
};

/// A camera service: one in this process, or the one that the brokers at the address have.
class Cameras {
public:
    /// \throws UsageError as SourceOptions::readSources()
    /// \throws KRError a source is not supported \throws std::runtime_error the brokers have no camera service
    explicit Cameras(const ServiceOptions& options);
    /// \throws UsageError also if there is no such camera
    explicit Cameras(const CameraOptions& options);

    KRVideoDeviceProxy& getService() noexcept { return service_; }
    const boost::shared_ptr<KRBroker>& getBroker() const noexcept { return broker_; }
    /// The service is one of this process.
    bool isOwn() const noexcept { return static_cast<bool>(module_); }
    /// \throws UsageError there is no such camera
    void require(int camera) const;

private:
    boost::shared_ptr<KRBroker> broker_;
    KRModuleHandle<KRVideoDevice> module_; // empty if another process has the service
    KRVideoDeviceProxy service_;
    int count_;
};

/// The size and colour space in which a verb receives images.
struct GeometryOptions {
    std::string resolution = "640x480";
    std::string colorSpace = "yuv422";

    void declare(Arguments& arguments);
    /// \throws UsageError it is not the size of a resolution code
    int getResolution() const;
    /// \throws UsageError it is not supported
    int getColorSpace() const;
};

/// A subscription that ends with the object. After a restart of the service it goes on there.
class Subscription {
public:
    Subscription(KRVideoDeviceProxy& service, int camera, int resolution, int colorSpace);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    const std::string& getId() const noexcept { return id_; }
    /// The next image, with its own pixels. \throws KRError as getImageRemote
    std::unique_ptr<KRImage> fetch();
    /// What the service has counted; nullopt if it does not know the subscription by this identifier, as after a
    /// restart. \throws KRError there is no service
    std::optional<KRSubscriptionStatistics> getStatistics() const;

private:
    KRVideoDeviceProxy& service_;
    const std::string id_;
};

/// Subscribes to a camera, which may take long. An interruption meanwhile ends the program with exit code 0.
std::unique_ptr<Subscription> subscribe(KRVideoDeviceProxy& service, int camera,
                                        const GeometryOptions& geometry, Interruption& interruption);

} // namespace KR::tool
