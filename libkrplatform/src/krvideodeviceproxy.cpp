#include "krplatform/krvideodeviceproxy.hpp"

#include <array>
#include <cstdint>
#include <limits>

namespace KR {

namespace {

// Bytes per pixel of each colour space, as an image container sizes its buffer by them.
constexpr std::array<int, 27> kLayers{1, 1, 1, 1, 1, 1,  1, 1, 1, 2, 3, 3, 3, 3,
                                      2, 3, 3, 2, 4, 12, 2, 2, 3, 2, 3, 3, 3};

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
    if (colorSpace < 0 || colorSpace >= static_cast<int>(kLayers.size())) {
        return;
    }
    const std::int64_t layersOfSpace = kLayers[static_cast<std::size_t>(colorSpace)];
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

KRVideoDeviceProxy::KRVideoDeviceProxy(const boost::shared_ptr<KRBroker>& broker)
    : proxy_(broker, "KRVideoDevice") {}

std::string KRVideoDeviceProxy::subscribeCamera(const std::string& name, int camera, int resolution,
                                                int colorSpace, int frameRate) {
    return proxy_.call<std::string>("subscribeCamera", name, camera, resolution, colorSpace, frameRate);
}

void KRVideoDeviceProxy::unsubscribe(const std::string& id) {
    proxy_.call("unsubscribe", id);
}

KRValue KRVideoDeviceProxy::getImageRemote(const std::string& id) {
    KRValue image = proxy_.call<KRValue>("getImageRemote", id);
    checkImage(image);
    return image;
}

void KRVideoDeviceProxy::releaseImage(const std::string& id) {
    proxy_.call("releaseImage", id);
}

bool KRVideoDeviceProxy::setFrameRate(const std::string& id, int frameRate) {
    return proxy_.call<bool>("setFrameRate", id, frameRate);
}

int KRVideoDeviceProxy::getFrameRate(const std::string& id) const {
    return proxy_.call<int>("getFrameRate", id);
}

bool KRVideoDeviceProxy::setResolution(const std::string& id, int resolution) {
    return proxy_.call<bool>("setResolution", id, resolution);
}

bool KRVideoDeviceProxy::setColorSpace(const std::string& id, int colorSpace) {
    return proxy_.call<bool>("setColorSpace", id, colorSpace);
}

bool KRVideoDeviceProxy::setActiveCamera(const std::string& id, int camera) {
    return proxy_.call<bool>("setActiveCamera", id, camera);
}

int KRVideoDeviceProxy::getCameraModel(int camera) const {
    return proxy_.call<int>("getCameraModel", camera);
}

bool KRVideoDeviceProxy::setCameraParameter(const std::string& id, int parameter, int value) {
    return proxy_.call<bool>("setCameraParameter", id, parameter, value);
}

void KRVideoDeviceProxy::setAllCameraParametersToDefault(const std::string& id) {
    proxy_.call("setAllCameraParametersToDefault", id);
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
