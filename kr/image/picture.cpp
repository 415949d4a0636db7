#include "picture.hpp"

#include "outputfile.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KR::tool {

namespace {

Picture readByContent(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::array<unsigned char, 8> start = {};
    if (!file || std::filesystem::is_directory(path)) {
        throw std::runtime_error(std::string("cannot be read: ") +
                                 std::strerror(errno != 0 ? errno : EISDIR));
    }
    file.read(reinterpret_cast<char*>(start.data()), start.size());
    if (std::memcmp(start.data(), "\x89PNG\r\n\x1a\n", 8) == 0) {
        return readPng(path);
    }
    if (start[0] == 0xFF && start[1] == 0xD8) {
        return readJpeg(path);
    }
    if (start[0] == 'P' && (start[1] == '5' || start[1] == '6')) {
        return readPpm(path);
    }
    throw std::runtime_error("is no oxi, ppm, png or jpeg file");
}

} // namespace

bool isPictureExtension(const std::string& extension) {
    return extension == ".ppm" || extension == ".png" || extension == ".jpg" || extension == ".jpeg";
}

Picture readPicture(const std::string& path) {
    try {
        return readByContent(path);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

void writePicture(const Picture& picture, const std::string& path, int quality) {
    const std::string extension = getExtension(path);
    try {
        if (extension == ".ppm") {
            writePpm(picture, path);
        } else if (extension == ".png") {
            writePng(picture, path);
        } else if (extension == ".jpg" || extension == ".jpeg") {
            writeJpeg(picture, path, quality);
        } else {
            throw std::runtime_error("a picture is written as .ppm, .png or .jpg");
        }
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(getFinalName(path) + ": " + error.what());
    }
}

void resize(Picture& picture, unsigned long long width, unsigned long long height) {
    constexpr unsigned long long kMostPixels = 1ULL << 29; // the bytes of an image are an int
    if (width == 0 || height == 0 || width > kMostPixels || height > kMostPixels ||
        width * height > kMostPixels) {
        throw std::runtime_error("has " + std::to_string(width) + "x" + std::to_string(height) +
                                 " pixels, which is not possible here");
    }
    picture.width = static_cast<int>(width);
    picture.height = static_cast<int>(height);
    picture.rgb.resize(3 * width * height);
}

} // namespace KR::tool
