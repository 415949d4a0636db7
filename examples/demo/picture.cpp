#include "picture.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krthread.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <png.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <optional>
#include <stdexcept>

namespace {

/// A subscription to RGB images, with standard colours.
class Camera {
public:
    Camera(const boost::shared_ptr<KR::KRBroker>& broker, int camera)
        : service_(broker),
          id_(service_.subscribeCamera("Picture", camera, KR::kVGA, KR::kRgbColorSpace, 30)) {}
    ~Camera() {
        try {
            service_.unsubscribe(id_);
        } catch (const KR::KRError&) { // the service has ended, and with it the subscription
        }
    }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    /// The next image, with its own copy of the pixels.
    std::unique_ptr<KR::KRImage> fetch() {
        const std::unique_ptr<KR::KRImage> image(KR::KRImage::fromKRValue(service_.getImageRemote(id_)));
        service_.releaseImage(id_);
        return std::make_unique<KR::KRImage>(image->deepCopy());
    }

private:
    KR::KRVideoDeviceProxy service_;
    const std::string id_;
};

// The annotations of the image with this time; nullopt if the extractor skipped it.
std::optional<KR::KRAnnotations> findAnnotations(const KR::KRMemoryProxy& memory,
                                                 const std::string& extractor, std::int64_t timeStamp) {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        try {
            auto annotations = KR::KRAnnotations::fromKRValue(memory.getData(extractor + "/Annotations"));
            if (annotations.timeStamp == timeStamp) {
                return annotations;
            }
            if (annotations.timeStamp > timeStamp) {
                return std::nullopt;
            }
        } catch (const KR::KRError&) { // nothing has been written yet
        }
        KR::sleepMilliseconds(2);
    }
    return std::nullopt;
}

/// "12:34:56.789", local time
std::string formatTime(std::int64_t timeStamp) {
    const std::time_t seconds = timeStamp / 1'000'000;
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec,
                  static_cast<int>(timeStamp / 1000 % 1000));
    return text.data();
}

std::string describeFindings(const std::string& extractor, const KR::KRAnnotations& annotations) {
    if (annotations.boxes.empty()) {
        return extractor + ": nothing moves";
    }
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), ": %.1f %% of the picture moves",
                  100.0 * static_cast<double>(annotations.boxes.front().score));
    return extractor + text.data();
}

} // namespace

void Picture::add(const boost::shared_ptr<KR::KRBroker>& broker, int camera, const std::string& source,
                  const std::string& extractor) {
    Camera images(broker, camera);
    const KR::KRMemoryProxy memory(broker);
    constexpr int kTries = 50; // an extractor at half the rate skips every other image
    for (int i = 0; i < kTries; ++i) {
        auto image = images.fetch();
        auto annotations = findAnnotations(memory, extractor, image->timeStamp);
        if (!annotations) {
            continue;
        }
        const std::string name = source.substr(source.find_last_of('/') + 1);
        annotations->texts.push_back(
            {{0.01F, 0.01F},
             "camera " + std::to_string(camera) + " (" + name + ")  " + formatTime(image->timeStamp)});
        annotations->texts.push_back({{0.01F, 0.06F}, describeFindings(extractor, *annotations)});
        KR::drawAnnotations(*image, *annotations);
        tiles_.push_back(std::move(image));
        return;
    }
    throw std::runtime_error(extractor + " wrote nothing about " + std::to_string(kTries) +
                             " images of camera " + std::to_string(camera));
}

void Picture::writePng(const std::string& path) const {
    int width = 0;
    int height = 0;
    for (const auto& tile : tiles_) {
        width += tile->width;
        height = std::max(height, tile->height);
    }
    std::vector<unsigned char> rgb(std::size_t{3} * static_cast<unsigned>(width) *
                                   static_cast<unsigned>(height));
    int left = 0;
    for (const auto& tile : tiles_) {
        for (int y = 0; y < tile->height; ++y) {
            std::copy_n(tile->data.get() + 3 * y * tile->width, 3 * tile->width,
                        rgb.begin() + 3 * (y * width + left));
        }
        left += tile->width;
    }
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(width);
    png.height = static_cast<png_uint_32>(height);
    png.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&png, path.c_str(), 0, rgb.data(), 0, nullptr) == 0) {
        throw std::runtime_error("cannot write " + path + ": " + png.message);
    }
}
