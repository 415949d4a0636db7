#pragma once

#include <algorithm>
#include <array>

/// The expected results for one pair of pixels, written independently of the library.
namespace formulas {

using Yuv422Pair = std::array<unsigned char, 4>; ///< Y0 U Y1 V
using BgrPair = std::array<unsigned char, 6>;    ///< B0 G0 R0 B1 G1 R1

inline Yuv422Pair yuv422FromBgr(const BgrPair& bgr) {
    const int b0 = bgr[0], g0 = bgr[1], r0 = bgr[2], b1 = bgr[3], g1 = bgr[4], r1 = bgr[5];
    const int y0 = (802 * b0 + 4130 * g0 + 2104 * r0 + 131072) >> 13;
    const int y1 = (802 * b1 + 4130 * g1 + 2104 * r1 + 131072) >> 13;
    const int u = std::min((3598 * b0 - 2384 * g0 - 1214 * r0 + 1048576) >> 13, 240);
    const int v = (-585 * b0 - 3013 * g0 + 3598 * r0 + 1048576) >> 13;
    return {static_cast<unsigned char>(y0), static_cast<unsigned char>(u), static_cast<unsigned char>(y1),
            static_cast<unsigned char>(v)};
}

inline BgrPair bgrFromYuv422(const Yuv422Pair& yuv) {
    const int c0 = 298 * (yuv[0] - 16);
    const int c1 = 298 * (yuv[2] - 16);
    const int blue = 517 * (yuv[1] - 128);
    const int green = 208 * (yuv[1] - 128) + 100 * (yuv[3] - 128);
    const int red = 409 * (yuv[3] - 128);
    const auto limited = [](int value) {
        value >>= 8;
        return static_cast<unsigned char>(value < 0 ? 0 : value > 255 ? 255 : value);
    };
    return {limited(c0 + blue), limited(c0 - green), limited(c0 + red),
            limited(c1 + blue), limited(c1 - green), limited(c1 + red)};
}

} // namespace formulas
