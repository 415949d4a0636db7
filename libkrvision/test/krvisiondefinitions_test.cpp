#include "krvision/krvisiondefinitions.hpp"

#include "krvision/krcolorspacenames.hpp"
#include "krvision/krsubscribername.hpp"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <string>

namespace {

struct Resolution {
    int code, width, height;
};
constexpr std::array<Resolution, 18> kResolutions = {{
    {0, 160, 120},
    {1, 320, 240},
    {2, 640, 480},
    {3, 1280, 960},
    {4, 2560, 1920},
    {5, 1280, 720},
    {6, 1920, 1080},
    {7, 80, 60},
    {8, 40, 30},
    {9, 640, 360},
    {10, 320, 180},
    {11, 160, 90},
    {12, 80, 45},
    {13, 2560, 720},
    {14, 1280, 360},
    {15, 640, 180},
    {16, 320, 90},
    {17, 160, 45},
}};

struct ColorSpace {
    int code, layers, channels;
};
constexpr std::array<ColorSpace, 27> kColorSpaces = {{
    {0, 1, 1},  {1, 1, 1},  {2, 1, 1},  {3, 1, 1},  {4, 1, 1},  {5, 1, 1},   {6, 1, 1},
    {7, 1, 1},  {8, 1, 1},  {9, 2, 2},  {10, 3, 3}, {11, 3, 3}, {12, 3, 3},  {13, 3, 3},
    {14, 2, 2}, {15, 3, 3}, {16, 3, 3}, {17, 2, 1}, {18, 4, 4}, {19, 12, 3}, {20, 2, 1},
    {21, 2, 1}, {22, 3, 3}, {23, 2, 1}, {24, 3, 3}, {25, 3, 3}, {26, 3, 3},
}};

constexpr std::array kNoCodes = {
    -1, -5, 27, 1000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()};

TEST(KRVisionDefinitions, EveryResolutionHasItsSize) {
    for (const auto& [code, width, height] : kResolutions) {
        int foundWidth = 0;
        int foundHeight = 0;
        KR::setSizeFromResolution(code, foundWidth, foundHeight);
        EXPECT_EQ(foundWidth, width) << "resolution " << code;
        EXPECT_EQ(foundHeight, height) << "resolution " << code;
    }
}

TEST(KRVisionDefinitions, TheNameOfAResolutionIsItsSize) {
    using namespace KR;
    const std::array<Resolution, 18> named = {{
        {k160x120, 160, 120},
        {k320x240, 320, 240},
        {k640x480, 640, 480},
        {k1280x960, 1280, 960},
        {k2560x1920, 2560, 1920},
        {k1280x720, 1280, 720},
        {k1920x1080, 1920, 1080},
        {k80x60, 80, 60},
        {k40x30, 40, 30},
        {k640x360, 640, 360},
        {k320x180, 320, 180},
        {k160x90, 160, 90},
        {k80x45, 80, 45},
        {k2560x720, 2560, 720},
        {k1280x360, 1280, 360},
        {k640x180, 640, 180},
        {k320x90, 320, 90},
        {k160x45, 160, 45},
    }};
    for (std::size_t i = 0; i < named.size(); ++i) {
        EXPECT_EQ(named[i].code, kResolutions[i].code) << i;
        EXPECT_EQ(getResolutionFromSize(named[i].width, named[i].height), named[i].code) << i;
    }
}

TEST(KRVisionDefinitions, EverySizeHasItsResolution) {
    for (const auto& [code, width, height] : kResolutions) {
        EXPECT_EQ(KR::getResolutionFromSize(width, height), code);
    }
}

TEST(KRVisionDefinitions, AnUnknownResolutionHasSizeMinusOne) {
    for (const int code : kNoCodes) {
        int width = 0;
        int height = 0;
        KR::setSizeFromResolution(code, width, height);
        EXPECT_EQ(width, -1) << "resolution " << code;
        EXPECT_EQ(height, -1) << "resolution " << code;
    }
    int width = 0;
    int height = 0;
    KR::setSizeFromResolution(18, width, height);
    EXPECT_EQ(width, -1);
    EXPECT_EQ(height, -1);
}

TEST(KRVisionDefinitions, OnlyExactSizesHaveAResolution) {
    EXPECT_EQ(KR::getResolutionFromSize(480, 640), -1); // swapped
    EXPECT_EQ(KR::getResolutionFromSize(640, 479), -1);
    EXPECT_EQ(KR::getResolutionFromSize(641, 480), -1);
    EXPECT_EQ(KR::getResolutionFromSize(0, 0), -1);
    EXPECT_EQ(KR::getResolutionFromSize(-1, -1), -1);
}

TEST(KRVisionDefinitions, ValidResolutionsEndAtEightAlthoughMoreHaveSizes) {
    for (int code = 0; code <= 8; ++code) {
        EXPECT_TRUE(KR::isResolutionValid(code)) << "resolution " << code;
    }
    for (int code = 9; code <= 18; ++code) {
        EXPECT_FALSE(KR::isResolutionValid(code)) << "resolution " << code;
    }
    for (const int code : kNoCodes) {
        EXPECT_FALSE(KR::isResolutionValid(code)) << "resolution " << code;
    }
}

TEST(KRVisionDefinitions, EveryColorSpaceHasItsLayersAndChannels) {
    for (const auto& [code, layers, channels] : kColorSpaces) {
        EXPECT_TRUE(KR::isColorSpaceValid(code)) << "colour space " << code;
        EXPECT_EQ(KR::getNumLayersInColorSpace(code), layers) << "colour space " << code;
        EXPECT_EQ(KR::getNumChannelsInColorSpace(code), channels) << "colour space " << code;
    }
}

TEST(KRVisionDefinitions, AnUnknownColorSpaceHasNeitherLayersNorChannels) {
    for (const int code : kNoCodes) {
        EXPECT_FALSE(KR::isColorSpaceValid(code)) << "colour space " << code;
        EXPECT_EQ(KR::getNumLayersInColorSpace(code), -1) << "colour space " << code;
        EXPECT_EQ(KR::getNumChannelsInColorSpace(code), -1) << "colour space " << code;
    }
}

TEST(KRVisionDefinitions, NamedCodesMatchTheTables) {
    EXPECT_EQ(KR::getResolutionFromSize(320, 240), KR::kQVGA);
    EXPECT_EQ(KR::getResolutionFromSize(640, 480), KR::kVGA);
    EXPECT_EQ(KR::kYUV422ColorSpace, 9);
}

TEST(KRVisionDefinitions, ColorSpacesAreFoundByTheirNames) {
    for (const KR::KRColorSpaceName& space : KR::kColorSpaceNames) {
        EXPECT_EQ(KR::getColorSpaceName(space.code), space.name);
        EXPECT_EQ(KR::findColorSpace(space.name), space.code);
        EXPECT_EQ(KR::findColorSpace(KR::getColorSpaceOption(space.code)), space.code);
    }
    EXPECT_EQ(KR::getColorSpaceOption(9), "yuv422");
    EXPECT_EQ(KR::describeColorSpace(9), "YUV422 (9)");
    EXPECT_EQ(KR::describeColorSpace(12), "12");
    EXPECT_EQ(KR::findColorSpace("yuv"), -1);
    EXPECT_EQ(KR::findColorSpace(""), -1);
}

TEST(KRSubscriberName, IsFoundInTheIdentifierOfASubscription) {
    const std::string id = KR::getSubscriberName("Motion") + "_12";
    EXPECT_TRUE(KR::isSubscriptionOf(id, "Motion"));
    EXPECT_FALSE(KR::isSubscriptionOf(id + "_3", "Motion")) << "of a module named Motion_12";
    EXPECT_TRUE(KR::isSubscriptionOf(id + "_3", "Motion_12"));
    EXPECT_FALSE(KR::isSubscriptionOf(KR::getSubscriberName("Motion") + "_", "Motion"));
    EXPECT_FALSE(KR::isSubscriptionOf("Watcher_1", "Motion"));
}

} // namespace
