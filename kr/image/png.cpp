#include "picture.hpp"

#include <png.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace KR::tool {

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

struct FreeImage {
    void operator()(png_image* image) const noexcept { png_image_free(image); }
};

} // namespace

Picture readPng(const std::string& path) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    const std::unique_ptr<png_image, FreeImage> owned(&image);
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        throw std::runtime_error(image.message);
    }
    Picture picture;
    picture.format = "png";
    picture.isGrey = (image.format & PNG_FORMAT_FLAG_COLOR) == 0;
    image.format = PNG_FORMAT_RGB;
    resize(picture, image.width, image.height);
    // A picture that is cut short is no error to libpng, but a warning; here it is none that can be used.
    if (png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr) == 0 ||
        image.warning_or_error != 0) {
        throw std::runtime_error(image.message);
    }
    return picture;
}

void writePng(const Picture& picture, const std::string& path) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.width);
    image.height = static_cast<png_uint_32>(picture.height);
    image.format = picture.isGrey ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
    const unsigned char* pixels = picture.rgb.data();
    std::vector<unsigned char> grey;
    if (picture.isGrey) {
        grey.reserve(picture.rgb.size() / 3);
        for (std::size_t i = 0; i < picture.rgb.size(); i += 3) {
            grey.push_back(picture.rgb[i]);
        }
        pixels = grey.data();
    }
    // Not with png_image_write_to_file(), which removes what it cannot write to, were it a device.
    File file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        throw std::runtime_error(std::strerror(errno));
    }
    if (png_image_write_to_stdio(&image, file.get(), 0, pixels, 0, nullptr) == 0) {
        throw std::runtime_error(image.message);
    }
    if (std::fclose(file.release()) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
}

} // namespace KR::tool
