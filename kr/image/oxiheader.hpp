#pragma once

#include <krvision/krimage.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace KR::tool {

/// What an oxi file (docs/oxi.md) says of its image, and how long it is.
struct OxiHeader {
    int version;
    std::int32_t width;
    std::int32_t height;
    std::int32_t layers;
    std::int32_t colorSpace;
    std::int64_t timeStamp; ///< microseconds
    std::int8_t cameraId;
    float leftAngle; ///< radians, as the other three; not read from a file of version 0
    float topAngle;
    float rightAngle;
    float bottomAngle;
    std::uint64_t pixelsOffset; ///< where the pixels begin
    std::uint64_t fileSize;

    /// Bytes of pixels that the geometry asks for; 0 if it makes no sense.
    std::uint64_t countPixelBytes() const;
};

/// Whether the file begins as an oxi file does.
bool isOxiFile(const std::string& path);

/// Reads the header. Nothing in it is checked.
/// \throws std::runtime_error with the path: the file cannot be read, is none, or ends within the header
OxiHeader readOxiHeader(const std::string& path);

/// What is wrong with the file, a sentence each; empty if its image can be used.
std::vector<std::string> findProblems(const OxiHeader& header);

/// Reads a file that has been looked through for problems.
/// \throws std::runtime_error with the path: the first of its problems; it cannot be read
KRImage readOxi(const std::string& path);

} // namespace KR::tool
