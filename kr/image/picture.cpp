#include "image/picture.hpp"

#include "tool/outputfile.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KR::tool {

namespace {

enum class Format { Png, Jpeg, Ppm };

Format detectFormat(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::array<unsigned char, 8> start = {};
    if (!file || std::filesystem::is_directory(path)) {
        throw std::runtime_error(std::string("cannot be read: ") +
                                 std::strerror(errno != 0 ? errno : EISDIR));
    }
    if (!std::filesystem::is_regular_file(path)) {
        throw std::runtime_error("cannot be read: it is not a regular file");
    }
    file.read(reinterpret_cast<char*>(start.data()), start.size());
    if (std::memcmp(start.data(), "\x89PNG\r\n\x1a\n", 8) == 0) {
        return Format::Png;
    }
    if (start[0] == 0xFF && start[1] == 0xD8) {
        return Format::Jpeg;
    }
    if (start[0] == 'P' && (start[1] == '5' || start[1] == '6')) {
        return Format::Ppm;
    }
    throw std::runtime_error("is not an oxi, ppm, png or jpeg file");
}

PictureHeader readHeaderByContent(const std::string& path) {
    switch (detectFormat(path)) {
    case Format::Png:
        return readPngHeader(path);
    case Format::Jpeg:
        return readJpegHeader(path);
    case Format::Ppm:
        break;
    }
    return readPpmHeader(path);
}

Picture readByContent(const std::string& path) {
    switch (detectFormat(path)) {
    case Format::Png:
        return readPng(path);
    case Format::Jpeg:
        return readJpeg(path);
    case Format::Ppm:
        break;
    }
    return readPpm(path);
}

template <class Result>
Result nameErrors(Result (*read)(const std::string&), const std::string& path) {
    try {
        return read(path);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

} // namespace

bool isPictureExtension(const std::string& extension) {
    return extension == ".ppm" || extension == ".png" || extension == ".jpg" || extension == ".jpeg";
}

PictureHeader readPictureHeader(const std::string& path) {
    return nameErrors(readHeaderByContent, path);
}

Picture readPicture(const std::string& path) {
    return nameErrors(readByContent, path);
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

void setSize(PictureHeader& picture, std::uint64_t width, std::uint64_t height) {
    constexpr std::uint64_t kMostPixels = std::uint64_t{1} << 29; // sizes of images in bytes are ints
    if (width == 0 || height == 0 || width > kMostPixels || height > kMostPixels ||
        width * height > kMostPixels) {
        throw std::runtime_error("has " + std::to_string(width) + "x" + std::to_string(height) +
                                 " pixels, which is not supported");
    }
    picture.width = static_cast<int>(width);
    picture.height = static_cast<int>(height);
}

void allocatePixels(Picture& picture) {
    picture.rgb.resize(std::size_t{3} * static_cast<unsigned>(picture.width) *
                       static_cast<unsigned>(picture.height));
}

} // namespace KR::tool
