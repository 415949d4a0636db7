#pragma once

#include <array>

namespace KR {

/// Bytes stored per pixel in each colour space, by its code; they determine the size of an image's buffer.
inline constexpr std::array<int, 27> kColorSpaceLayers = {
    1,  1, 1, 1, 1, 1, 1, 1, 1, // 0 to 8
    2,                          // 9: YUV422
    3,  3, 3, 3,                // 10 to 13
    2,                          // 14
    3,  3,                      // 15, 16
    2,                          // 17: 16-bit samples
    4,                          // 18
    12,                         // 19: three 32-bit samples
    2,  2,                      // 20, 21: 16-bit samples
    3,                          // 22
    2,                          // 23: 16-bit samples
    3,  3, 3,                   // 24 to 26
};

} // namespace KR
