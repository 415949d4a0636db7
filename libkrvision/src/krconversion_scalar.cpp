#include "krconversionpath.hpp"

#include <algorithm>

namespace KR {

namespace {

// 13-bit fixed point: 8192 is 1.0. The offsets are 16 and 128.
int toY(int b, int g, int r) {
    return (802 * b + 4130 * g + 2104 * r + 131072) >> 13;
}
int toU(int b, int g, int r) {
    return std::min((3598 * b - 2384 * g - 1214 * r + 1048576) >> 13, 240);
}
int toV(int b, int g, int r) {
    return (-585 * b - 3013 * g + 3598 * r + 1048576) >> 13;
}

void yuv422FromBgr(const unsigned char* bgr, unsigned char* yuv, std::size_t pairs) {
    for (; pairs > 0; --pairs, bgr += 6, yuv += 4) {
        // The chroma of the pair is that of its first pixel, not an average: deliberate.
        yuv[0] = static_cast<unsigned char>(toY(bgr[0], bgr[1], bgr[2]));
        yuv[1] = static_cast<unsigned char>(toU(bgr[0], bgr[1], bgr[2]));
        yuv[2] = static_cast<unsigned char>(toY(bgr[3], bgr[4], bgr[5]));
        yuv[3] = static_cast<unsigned char>(toV(bgr[0], bgr[1], bgr[2]));
    }
}

// 8-bit fixed point: 256 is 1.0.
unsigned char toByte(int value) {
    return static_cast<unsigned char>(std::clamp(value >> 8, 0, 255));
}

void bgrFromYuv422(const unsigned char* yuv, unsigned char* bgr, std::size_t pairs) {
    for (; pairs > 0; --pairs, yuv += 4, bgr += 6) {
        const int c0 = 298 * yuv[0] - 4768;
        const int c1 = 298 * yuv[2] - 4768;
        const int d = yuv[1] - 128;
        const int e = yuv[3] - 128;
        // Green takes 208 of U and 100 of V, the reverse of the published matrix: deliberate.
        bgr[0] = toByte(c0 + 517 * d);
        bgr[1] = toByte(c0 - 208 * d - 100 * e);
        bgr[2] = toByte(c0 + 409 * e);
        bgr[3] = toByte(c1 + 517 * d);
        bgr[4] = toByte(c1 - 208 * d - 100 * e);
        bgr[5] = toByte(c1 + 409 * e);
    }
}

void planes444FromYuv422(const unsigned char* yuv, unsigned char* y, unsigned char* u, unsigned char* v,
                         std::size_t pairs) {
    for (; pairs > 0; --pairs, yuv += 4, y += 2, u += 2, v += 2) {
        y[0] = yuv[0];
        y[1] = yuv[2];
        u[0] = u[1] = yuv[1];
        v[0] = v[1] = yuv[3];
    }
}

void planes422FromYuv422(const unsigned char* yuv, unsigned char* y, unsigned char* u, unsigned char* v,
                         std::size_t pairs) {
    for (; pairs > 0; --pairs, yuv += 4, y += 2, ++u, ++v) {
        y[0] = yuv[0];
        y[1] = yuv[2];
        *u = yuv[1];
        *v = yuv[3];
    }
}

} // namespace

const ConversionPath scalarConversionPath = {"scalar", yuv422FromBgr, bgrFromYuv422, planes444FromYuv422,
                                             planes422FromYuv422};

} // namespace KR
