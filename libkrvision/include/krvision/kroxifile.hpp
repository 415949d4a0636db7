#pragma once

#include "krplatform/krexport.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace KR {

class KRImage;

/// Layout of an oxi file (docs/oxi.md): the first word, and sizes in bytes.
namespace oxi {

inline constexpr std::uint32_t kVersion1 = 0x4F584931; ///< "1IXO"
inline constexpr std::uint32_t kVersion0 = 0x4F584930; ///< "0IXO": version 1 without the angles
inline constexpr std::size_t kHeaderSize1 = 48;        ///< bytes of a header of version 1
inline constexpr std::size_t kHeaderSize0 = 32;        ///< bytes of a header of version 0

/// Bytes before the pixels in a file that begins with this word; 0: it is not an oxi file.
constexpr std::size_t getHeaderSize(std::uint32_t version) noexcept {
    return version == kVersion1 ? kHeaderSize1 : version == kVersion0 ? kHeaderSize0 : 0;
}

} // namespace oxi

/// The header of an oxi file, as it stands there.
struct KR_EXPORT KROxiHeader {
    int version = 1;                  ///< 0 or 1
    std::int32_t width = 0;           ///< pixels
    std::int32_t height = 0;          ///< pixels
    std::int32_t layers = 0;          ///< bytes per pixel
    std::int32_t colorSpace = 0;      ///< code
    std::int64_t timeStamp = -1;      ///< microseconds; -1: not set
    std::int8_t cameraId = 0;         ///< the camera that took the image
    std::array<float, 4> angles = {}; ///< left, top, right, bottom, radians; the default ones in version 0
    std::uint64_t fileSize = 0;       ///< bytes, of the file that it was read from

    /// \param bytes  as many as oxi::getHeaderSize() says for the first word, which must be that of an oxi file
    static KROxiHeader decode(const unsigned char* bytes) noexcept;
    /// The header in version 1.
    std::array<unsigned char, oxi::kHeaderSize1> encode() const noexcept;

    std::uint64_t getPixelsOffset() const noexcept; ///< bytes
    /// Bytes of pixels that the geometry calls for; 0 if no image has it: a side or the layers below 1, or more than
    /// 2 GiB - 1 bytes. KRImage::readFile computes the same size with 32 bits, where it wraps round.
    std::uint64_t countPixelBytes() const noexcept;
};

/// Whether a regular file begins as an oxi file does. Reentrant, as the functions below.
/// \throws std::runtime_error "<path>: cannot be read: <reason>"
KR_EXPORT bool isOxiFile(const std::string& path);

/// Reads the header of a regular file without checking its fields.
/// \throws std::runtime_error with the path: it cannot be read, is not an oxi file, or ends within the header
KR_EXPORT KROxiHeader readOxiHeader(const std::string& path);

/// Why the file must not be used as an image, one sentence each; empty if it may be: the geometry is possible, all
/// pixels are in the file, and the layers are those of a valid colour space.
KR_EXPORT std::vector<std::string> findProblems(const KROxiHeader& header);

/// Reads an image from a file that may be cut, damaged or hostile. Memory is taken only for pixels that are there.
/// \throws std::runtime_error with the path: the first of its problems, or it cannot be read
KR_EXPORT KRImage readOxi(const std::string& path);

} // namespace KR
