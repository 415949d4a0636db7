#include "image/picture.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KR::tool {

namespace {

// Reads a number of the header, after blanks and comments.
std::uint64_t readNumber(std::istream& file) {
    int c = file.get();
    while (c == '#' || std::isspace(c) != 0) {
        if (c == '#') {
            std::string comment;
            std::getline(file, comment);
        }
        c = file.get();
    }
    std::uint64_t number = 0;
    int digits = 0;
    for (; std::isdigit(c) != 0 && digits < 9; c = file.get(), ++digits) {
        number = 10 * number + static_cast<std::uint64_t>(c - '0');
    }
    if (digits == 0 || std::isspace(c) == 0) { // exactly one blank ends each number
        throw std::runtime_error("has no valid ppm header");
    }
    return number;
}

/// A ppm or pgm file whose header has been read.
struct PpmReader {
    explicit PpmReader(const std::string& path) : file(path, std::ios::binary) {
        file.get(); // 'P'
        header.isGrey = file.get() == '5';
        header.format = header.isGrey ? "pgm" : "ppm";
        const std::uint64_t width = readNumber(file);
        const std::uint64_t height = readNumber(file);
        maximum = static_cast<unsigned>(readNumber(file));
        if (maximum < 1 || maximum > 255) {
            throw std::runtime_error("has samples up to " + std::to_string(maximum) +
                                     "; samples up to 255 are supported");
        }
        setSize(header, width, height);
        bytes = (header.isGrey ? 1 : 3) * width * height;
        if (std::filesystem::file_size(path) < static_cast<std::uint64_t>(file.tellg()) + bytes) {
            throw std::runtime_error("ends within the pixels");
        }
    }

    std::ifstream file; // at the pixels
    PictureHeader header;
    unsigned maximum = 255;  // of a sample
    std::uint64_t bytes = 0; // of the pixels
};

} // namespace

PictureHeader readPpmHeader(const std::string& path) {
    return PpmReader(path).header;
}

Picture readPpm(const std::string& path) {
    PpmReader reader(path);
    Picture picture;
    static_cast<PictureHeader&>(picture) = reader.header;
    allocatePixels(picture);
    const std::size_t size = reader.bytes;
    const unsigned maximum = reader.maximum;
    reader.file.read(reinterpret_cast<char*>(picture.rgb.data()), static_cast<std::streamsize>(size));
    if (static_cast<std::size_t>(reader.file.gcount()) != size) {
        throw std::runtime_error("ends within the pixels");
    }
    if (picture.isGrey) { // from the end, in place
        for (std::size_t i = size; i-- > 0;) {
            const unsigned char grey = picture.rgb[i];
            picture.rgb[3 * i] = picture.rgb[3 * i + 1] = picture.rgb[3 * i + 2] = grey;
        }
    }
    if (maximum < 255) {
        for (unsigned char& sample : picture.rgb) {
            const unsigned scaled = (sample * 255u + maximum / 2) / maximum;
            sample = static_cast<unsigned char>(scaled < 255 ? scaled : 255);
        }
    }
    return picture;
}

void writePpm(const Picture& picture, const std::string& path) {
    KRImage image(picture.width, picture.height, kRgbColorSpace, true, 0.0f, 0.0f, 0.0f, 0.0f);
    image.data = KRImage::externalData(const_cast<unsigned char*>(picture.rgb.data()));
    const int code = image.savePPM(path.c_str());
    if (code != 1) {
        throw std::runtime_error(code == -1 ? "cannot be opened for writing" : "cannot be written");
    }
}

} // namespace KR::tool
