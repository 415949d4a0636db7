#include "krvision/krvisiondefinitions.hpp"

#include "krplatform/krcolorspacelayers.hpp"

#include <array>
#include <cstddef>

namespace KR {

namespace {

struct Size {
    int width;
    int height;
};

// By resolution code.
constexpr std::array<Size, 18> kSizes = {{
    {160, 120},   // 0: 0 to 4 are 4:3, each twice as wide and high as the previous one
    {320, 240},   // 1
    {640, 480},   // 2
    {1280, 960},  // 3
    {2560, 1920}, // 4
    {1280, 720},  // 5: 16:9
    {1920, 1080}, // 6: 16:9
    {80, 60},     // 7: 4:3
    {40, 30},     // 8: 4:3
    {640, 360},   // 9: 9 to 12 are 16:9
    {320, 180},   // 10
    {160, 90},    // 11
    {80, 45},     // 12
    {2560, 720},  // 13: 13 to 17 are 32:9, two 16:9 frames side by side
    {1280, 360},  // 14
    {640, 180},   // 15
    {320, 90},    // 16
    {160, 45},    // 17
}};

// Components per pixel, by colour-space code: those that differ from the bytes per pixel.
constexpr int countChannels(int colorSpace) {
    switch (colorSpace) {
    case 17: // one 16-bit sample, as 20, 21 and 23
    case 20:
    case 21:
    case 23:
        return 1;
    case 19: // three 32-bit samples
        return 3;
    default:
        return kColorSpaceLayers[static_cast<std::size_t>(colorSpace)];
    }
}

// A negative code becomes a huge one, so one comparison rejects both.
bool isBelow(int code, std::size_t end) {
    return static_cast<unsigned>(code) < end;
}

} // namespace

// Narrower than the size table on purpose: images are not made for the codes 9 to 17.
bool isResolutionValid(int resolution) noexcept {
    return isBelow(resolution, 9);
}

void setSizeFromResolution(int resolution, int& width, int& height) noexcept {
    const Size size =
        isBelow(resolution, kSizes.size()) ? kSizes[static_cast<std::size_t>(resolution)] : Size{-1, -1};
    width = size.width;
    height = size.height;
}

int getResolutionFromSize(int width, int height) noexcept {
    for (std::size_t code = 0; code < kSizes.size(); ++code) {
        if (kSizes[code].width == width && kSizes[code].height == height) {
            return static_cast<int>(code);
        }
    }
    return -1;
}

bool isColorSpaceValid(int colorSpace) noexcept {
    return isBelow(colorSpace, kColorSpaceLayers.size());
}

int getNumLayersInColorSpace(int colorSpace) noexcept {
    return isColorSpaceValid(colorSpace) ? kColorSpaceLayers[static_cast<std::size_t>(colorSpace)] : -1;
}

int getNumChannelsInColorSpace(int colorSpace) noexcept {
    return isColorSpaceValid(colorSpace) ? countChannels(colorSpace) : -1;
}

} // namespace KR
