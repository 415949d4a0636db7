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

/// A camera service of this process, with the cameras that the options name; "test" alone if they name none.
class Cameras {
public:
    /// \throws UsageError an option is none, or there is a camera missing before another one
    /// \throws KRError a source is not understood
    explicit Cameras(const CameraOptions& options);

    KRVideoDeviceProxy& getService() noexcept { return service_; }
    /// \throws UsageError there is no such camera
    void require(int camera) const;

private:
    int count_;
    boost::shared_ptr<KRBroker> broker_;
    KRModuleHandle<KRVideoDevice> module_;
    KRVideoDeviceProxy service_;
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

private:
    KRVideoDeviceProxy& service_;
    const std::string id_;
};

} // namespace KR::tool
