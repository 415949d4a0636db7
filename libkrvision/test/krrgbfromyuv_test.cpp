#include "krvision/krimage.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>

namespace {

using Pixel = std::array<unsigned char, 3>;

Pixel toRgb(int y, int u, int v) {
    Pixel pixel = {static_cast<unsigned char>(y), static_cast<unsigned char>(u),
                   static_cast<unsigned char>(v)};
    KR::computeRgbFromYuv(&pixel[0], &pixel[1], &pixel[2]);
    return pixel;
}

TEST(ComputeRgbFromYuv, ReplacesYUVWithRGB) {
    EXPECT_EQ(toRgb(16, 128, 128), (Pixel{0, 0, 0}));
    EXPECT_EQ(toRgb(235, 128, 128), (Pixel{254, 254, 254}));
    EXPECT_EQ(toRgb(128, 128, 228), (Pixel{255, 91, 130})); // red: 130.368 + 159.6
    EXPECT_EQ(toRgb(128, 178, 128), (Pixel{130, 89, 231})); // blue: 130.368 + 100.9
}

TEST(ComputeRgbFromYuv, ClampsToAByte) {
    EXPECT_EQ(toRgb(255, 255, 255), (Pixel{255, 125, 255}));
    EXPECT_EQ(toRgb(0, 0, 0), (Pixel{0, 135, 0}));
}

// Coefficients have three decimals, so thousandths are exact. The error of single precision matters only
// where the exact result is a whole number.
TEST(ComputeRgbFromYuv, TruncatesTheFormulaForEveryColor) {
    const auto isCutOff = [](int thousandths, int result) {
        const auto limited = [](int value) { return std::clamp(value, 0, 255); };
        return result == limited(thousandths / 1000) ||
               (thousandths % 1000 == 0 && result == limited(thousandths / 1000 - 1));
    };
    std::size_t wrong = 0;
    for (int y = 0; y < 256; ++y) {
        for (int u = 0; u < 256; ++u) {
            for (int v = 0; v < 256; ++v) {
                const Pixel rgb = toRgb(y, u, v);
                const int luma = 1164 * (y - 16);
                const int d = u - 128;
                const int e = v - 128;
                wrong += isCutOff(luma + 1596 * e, rgb[0]) ? 0 : 1;
                wrong += isCutOff(luma - 813 * d - 391 * e, rgb[1]) ? 0 : 1;
                wrong += isCutOff(luma + 2018 * d, rgb[2]) ? 0 : 1;
            }
        }
    }
    EXPECT_EQ(wrong, 0u);
}

// Every product is rounded to single precision before it is added, and luma is added last.
TEST(ComputeRgbFromYuv, RoundsEachStepForEveryColor) {
    const auto limited = [](float value) { return std::clamp(static_cast<int>(value), 0, 255); };
    std::size_t wrong = 0;
    for (int y = 0; y < 256; ++y) {
        const volatile float luma = 1.164f * static_cast<float>(y - 16);
        for (int u = 0; u < 256; ++u) {
            const volatile float ofBlue = 2.018f * static_cast<float>(u - 128);
            const volatile float uOfGreen = 0.813f * static_cast<float>(u - 128);
            const volatile float blue = luma + ofBlue;
            for (int v = 0; v < 256; ++v) {
                const volatile float ofRed = 1.596f * static_cast<float>(v - 128);
                const volatile float vOfGreen = 0.391f * static_cast<float>(v - 128);
                const volatile float ofGreen = -uOfGreen - vOfGreen;
                const volatile float red = luma + ofRed;
                const volatile float green = luma + ofGreen;
                const Pixel rgb = toRgb(y, u, v);
                wrong +=
                    rgb[0] == limited(red) && rgb[1] == limited(green) && rgb[2] == limited(blue) ? 0 : 1;
            }
        }
    }
    EXPECT_EQ(wrong, 0u);
}

} // namespace
