#pragma once

#include "krvision/krimage.hpp"

#include <cstddef>

namespace KR {

/// The actual size in bytes of the buffer that the image owns, which may differ from `allocatedSize`.
/// \return -1: the image owns no buffer, or one that the caller made
inline std::ptrdiff_t countOwnedBytes(const KRImage& image) noexcept {
    return image.ownsData() ? boost::get_deleter<KRImage::deleter>(image.data)->size : -1;
}

/// Whether `size` bytes of the buffer may be read and written. An external buffer, or one that the caller made, is
/// trusted to be large enough.
inline bool hasBytes(const KRImage& image, std::ptrdiff_t size) noexcept {
    const std::ptrdiff_t owned = countOwnedBytes(image);
    return size >= 0 && (image.data || size == 0) && (owned == -1 || size <= owned);
}

} // namespace KR
