#include "krvision/krvisiondefinitions.hpp"

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
    {160, 120},   // 0: 0 to 4 are 4:3, each twice as wide and high as the one before
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

struct Depth {
    int layers;   // bytes per pixel
    int channels; // components per pixel
};

// By colour-space code.
constexpr std::array<Depth, 27> kDepths = {{
    {1, 1},  {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, // 0 to 8
    {2, 2},                                                                  // 9: YUV422
    {3, 3},  {3, 3}, {3, 3}, {3, 3},                                         // 10 to 13
    {2, 2},                                                                  // 14
    {3, 3},  {3, 3},                                                         // 15, 16
    {2, 1},                                                                  // 17: 16-bit samples
    {4, 4},                                                                  // 18
    {12, 3},                                                                 // 19: 32-bit samples
    {2, 1},  {2, 1},                                                         // 20, 21: 16-bit samples
    {3, 3},                                                                  // 22
    {2, 1},                                                                  // 23: 16-bit samples
    {3, 3},  {3, 3}, {3, 3},                                                 // 24 to 26
}};

// A negative code is a huge one here: one comparison refuses both.
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
    return isBelow(colorSpace, kDepths.size());
}

int getNumLayersInColorSpace(int colorSpace) noexcept {
    return isColorSpaceValid(colorSpace) ? kDepths[static_cast<std::size_t>(colorSpace)].layers : -1;
}

int getNumChannelsInColorSpace(int colorSpace) noexcept {
    return isColorSpaceValid(colorSpace) ? kDepths[static_cast<std::size_t>(colorSpace)].channels : -1;
}

} // namespace KR
