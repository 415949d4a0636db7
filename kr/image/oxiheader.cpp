#include "oxiheader.hpp"

#include "colorspace.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KR::tool {

namespace {

constexpr std::uint32_t kVersion1 = 0x4F584931;
constexpr std::uint32_t kVersion0 = 0x4F584930;
constexpr std::size_t kSize0 = 32; // of a header of version 0
constexpr std::size_t kSize1 = 48;

template <class T>
T fieldAt(const std::array<char, kSize1>& header, std::size_t offset) {
    T field;
    std::memcpy(&field, header.data() + offset, sizeof field);
    return field;
}

// As much of the header as the file has; the rest is 0.
std::array<char, kSize1> readBytes(const std::string& path, std::size_t& count) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::array<char, kSize1> bytes = {};
    if (!file || std::filesystem::is_directory(path)) {
        throw std::runtime_error(path + ": cannot be read: " + std::strerror(errno != 0 ? errno : EISDIR));
    }
    file.read(bytes.data(), bytes.size());
    count = static_cast<std::size_t>(file.gcount());
    return bytes;
}

} // namespace

std::uint64_t OxiHeader::countPixelBytes() const {
    if (width <= 0 || height <= 0 || layers <= 0) {
        return 0;
    }
    const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
    constexpr std::uint64_t kMost = 0x7FFFFFFF; // sizes of images are ints
    return pixels > kMost || pixels * static_cast<std::uint64_t>(layers) > kMost
               ? 0
               : pixels * static_cast<std::uint64_t>(layers);
}

bool isOxiFile(const std::string& path) {
    std::size_t count = 0;
    const std::array<char, kSize1> bytes = readBytes(path, count);
    const auto version = fieldAt<std::uint32_t>(bytes, 0);
    return version == kVersion1 || version == kVersion0;
}

OxiHeader readOxiHeader(const std::string& path) {
    std::size_t count = 0;
    const std::array<char, kSize1> bytes = readBytes(path, count);
    const auto version = fieldAt<std::uint32_t>(bytes, 0);
    if (version != kVersion1 && version != kVersion0) {
        throw std::runtime_error(path + ": is no oxi file");
    }
    const bool hasAngles = version == kVersion1;
    if (count < (hasAngles ? kSize1 : kSize0)) {
        throw std::runtime_error(path + ": ends within its header, after " + std::to_string(count) +
                                 " bytes");
    }
    const auto angleAt = [&](std::size_t offset) { return hasAngles ? fieldAt<float>(bytes, offset) : 0.0f; };
    return {hasAngles ? 1 : 0,
            fieldAt<std::int32_t>(bytes, 4),
            fieldAt<std::int32_t>(bytes, 8),
            fieldAt<std::int32_t>(bytes, 12),
            fieldAt<std::int32_t>(bytes, 16),
            fieldAt<std::int64_t>(bytes, 20),
            fieldAt<std::int8_t>(bytes, 28),
            angleAt(32),
            angleAt(36),
            angleAt(40),
            angleAt(44),
            hasAngles ? kSize1 : kSize0,
            std::filesystem::file_size(path)};
}

std::vector<std::string> findProblems(const OxiHeader& header) {
    std::vector<std::string> problems;
    const std::uint64_t expected = header.countPixelBytes();
    if (expected == 0) {
        problems.push_back("there is no image of " + std::to_string(header.width) + "x" +
                           std::to_string(header.height) + " pixels of " + std::to_string(header.layers) +
                           " bytes");
    } else if (header.fileSize < header.pixelsOffset + expected) {
        problems.push_back("the file ends within the pixels: it has " + std::to_string(header.fileSize) +
                           " bytes, and needs " + std::to_string(header.pixelsOffset + expected));
    }
    if (!isColorSpaceValid(header.colorSpace)) {
        problems.push_back("there is no colour space " + std::to_string(header.colorSpace));
    } else if (header.layers != getNumLayersInColorSpace(header.colorSpace)) {
        problems.push_back("a pixel in colour space " + describeColorSpace(header.colorSpace) + " has " +
                           std::to_string(getNumLayersInColorSpace(header.colorSpace)) + " bytes, not " +
                           std::to_string(header.layers));
    }
    return problems;
}

KRImage readOxi(const std::string& path) {
    const std::vector<std::string> problems = findProblems(readOxiHeader(path));
    if (!problems.empty()) {
        throw std::runtime_error(path + ": " + problems.front());
    }
    KRImage image(0, 0, kLumaColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    if (!image.readFile(path.c_str())) {
        throw std::runtime_error(path + ": cannot be read");
    }
    return image;
}

} // namespace KR::tool
