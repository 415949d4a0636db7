#include "picture.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <png.h>

#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>

namespace {

void drawBox(std::vector<unsigned char>& rgb, int width, int height, const Motion& motion) {
    const int left = static_cast<int>(motion.left * static_cast<float>(width));
    const int right = std::min(width, static_cast<int>(motion.right * static_cast<float>(width))) - 1;
    const int top = static_cast<int>(motion.top * static_cast<float>(height));
    const int bottom = std::min(height, static_cast<int>(motion.bottom * static_cast<float>(height))) - 1;
    for (int y = top; y <= bottom; ++y) {
        for (int x = left; x <= right; ++x) {
            constexpr int kThickness = 3;
            if (x - left < kThickness || right - x < kThickness || y - top < kThickness ||
                bottom - y < kThickness) {
                constexpr std::array<unsigned char, 3> kOrange{255, 128, 0};
                std::copy(kOrange.begin(), kOrange.end(), rgb.begin() + 3 * (y * width + x));
            }
        }
    }
}

} // namespace

void Picture::add(const boost::shared_ptr<KR::KRBroker>& broker, int camera, const Motion& motion) {
    KR::KRVideoDeviceProxy cameras(broker);
    const std::string id = cameras.subscribeCamera("Picture", camera, KR::kVGA, KR::kRgbColorSpace, 30);
    const auto image = std::unique_ptr<KR::KRImage>(KR::KRImage::fromKRValue(cameras.getImageRemote(id)));
    cameras.releaseImage(id);
    cameras.unsubscribe(id);
    Tile tile{image->width, image->height, {}};
    tile.rgb.assign(image->data.get(), image->data.get() + 3 * image->width * image->height);
    drawBox(tile.rgb, tile.width, tile.height, motion);
    tiles_.push_back(std::move(tile));
}

void Picture::writePng(const std::string& path) const {
    int width = 0;
    int height = 0;
    for (const Tile& tile : tiles_) {
        width += tile.width;
        height = std::max(height, tile.height);
    }
    std::vector<unsigned char> rgb(static_cast<std::size_t>(3) * width * height);
    int left = 0;
    for (const Tile& tile : tiles_) {
        for (int y = 0; y < tile.height; ++y) {
            std::copy_n(tile.rgb.begin() + 3 * y * tile.width, 3 * tile.width,
                        rgb.begin() + 3 * (y * width + left));
        }
        left += tile.width;
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
