#include "picture.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KR::tool {

namespace {

// A number of the header, after blanks and comments.
unsigned long long readNumber(std::istream& file) {
    int c = file.get();
    while (c == '#' || std::isspace(c) != 0) {
        while (c == '#' && c != '\n' && c != EOF) {
            std::string comment;
            std::getline(file, comment);
            c = '\n';
        }
        c = file.get();
    }
    unsigned long long number = 0;
    int digits = 0;
    for (; std::isdigit(c) != 0 && digits < 9; c = file.get(), ++digits) {
        number = 10 * number + static_cast<unsigned long long>(c - '0');
    }
    if (digits == 0 || std::isspace(c) == 0) { // one blank ends each number, also the last one
        throw std::runtime_error("has no valid ppm header");
    }
    return number;
}

} // namespace

Picture readPpm(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    file.get(); // 'P'
    Picture picture;
    picture.isGrey = file.get() == '5';
    picture.format = picture.isGrey ? "pgm" : "ppm";
    const unsigned long long width = readNumber(file);
    const unsigned long long height = readNumber(file);
    const unsigned long long maximum = readNumber(file);
    if (maximum < 1 || maximum > 255) {
        throw std::runtime_error("has samples up to " + std::to_string(maximum) +
                                 "; only 255 and less can be read");
    }
    const unsigned long long size = (picture.isGrey ? 1 : 3) * width * height;
    const auto start = static_cast<unsigned long long>(file.tellg());
    if (std::filesystem::is_regular_file(path) && std::filesystem::file_size(path) < start + size) {
        throw std::runtime_error("ends within the pixels");
    }
    resize(picture, width, height);
    file.read(reinterpret_cast<char*>(picture.rgb.data()), static_cast<std::streamsize>(size));
    if (static_cast<unsigned long long>(file.gcount()) != size) {
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
            const unsigned scaled =
                (sample * 255u + static_cast<unsigned>(maximum) / 2) / static_cast<unsigned>(maximum);
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
