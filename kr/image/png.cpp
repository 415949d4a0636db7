#include "image/picture.hpp"

#include "tool/file.hpp"

#include <png.h>

#include <array>
#include <filesystem>

namespace KR::tool {

namespace {

struct FreeImage {
    void operator()(png_image* image) const noexcept { png_image_free(image); }
};

/// What a png file says outside of its compressed pixels.
struct PngLayout {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    unsigned bitsPerPixel = 0;
    bool isGrey = false;
    std::uint64_t compressedBytes = 0; // of all IDAT chunks

    /// Bytes of the pixels at least, before compression.
    std::uint64_t countRawBytes() const { return (std::uint64_t{width} * bitsPerPixel + 7) / 8 * height; }
};

std::uint32_t readWord(const unsigned char* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

unsigned countSamples(unsigned colorType) {
    constexpr unsigned kRgb = 2, kGreyAlpha = 4, kRgbAlpha = 6; // grey and palettes have one
    return colorType == kRgb ? 3 : colorType == kGreyAlpha ? 2 : colorType == kRgbAlpha ? 4 : 1;
}

// Walks over the chunks, each of which has a length, a type, its data and a checksum.
PngLayout readLayout(const std::string& path) {
    const File file = openFile(path, "rb");
    const std::uint64_t size = std::filesystem::file_size(path);
    PngLayout layout;
    std::array<unsigned char, 8> head;
    std::uint64_t offset = 8; // behind the signature
    for (;;) {
        if (offset + 12 > size || std::fseek(file.get(), static_cast<long>(offset), SEEK_SET) != 0 ||
            std::fread(head.data(), 1, head.size(), file.get()) != head.size()) {
            throw std::runtime_error("ends within its chunks");
        }
        const std::uint64_t length = readWord(head.data());
        const std::string type(reinterpret_cast<const char*>(head.data()) + 4, 4);
        if (length > size - offset - 12) {
            throw std::runtime_error("ends within its chunks");
        }
        std::array<unsigned char, 13> fields = {};
        if (type == "IHDR") {
            if (length != fields.size() ||
                std::fread(fields.data(), 1, fields.size(), file.get()) != fields.size()) {
                throw std::runtime_error("has no valid png header");
            }
            layout.width = readWord(fields.data());
            layout.height = readWord(fields.data() + 4);
            layout.bitsPerPixel = fields[8] * countSamples(fields[9]);
            constexpr unsigned kColorFlag = 2;
            layout.isGrey = (fields[9] & kColorFlag) == 0;
        } else if (layout.width == 0) {
            throw std::runtime_error("has no valid png header");
        } else if (type == "IDAT") {
            layout.compressedBytes += length;
        } else if (type == "IEND") {
            return layout;
        }
        offset += 12 + length;
    }
}

PictureHeader check(const PngLayout& layout) {
    PictureHeader header;
    header.format = "png";
    header.isGrey = layout.isGrey;
    setSize(header, layout.width, layout.height);
    constexpr std::uint64_t kMostPerByte = 1032; // of deflate: 258 bytes for two bits
    if (layout.countRawBytes() / kMostPerByte > layout.compressedBytes) {
        throw std::runtime_error("has " + std::to_string(layout.compressedBytes) +
                                 " bytes of compressed pixels, too few for " + std::to_string(layout.width) +
                                 "x" + std::to_string(layout.height));
    }
    return header;
}

} // namespace

PictureHeader readPngHeader(const std::string& path) {
    return check(readLayout(path));
}

Picture readPng(const std::string& path) {
    Picture picture;
    static_cast<PictureHeader&>(picture) = check(readLayout(path));
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    const std::unique_ptr<png_image, FreeImage> owned(&image);
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        throw std::runtime_error(image.message);
    }
    image.format = PNG_FORMAT_RGB;
    setSize(picture, image.width, image.height);
    allocatePixels(picture);
    // libpng only warns of a picture that is cut.
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
    // png_image_write_to_file() would remove what it cannot write to, even a device.
    File file = openFile(path, "wb");
    if (png_image_write_to_stdio(&image, file.get(), 0, pixels, 0, nullptr) == 0) {
        throw std::runtime_error(image.message);
    }
    closeFile(std::move(file));
}

} // namespace KR::tool
