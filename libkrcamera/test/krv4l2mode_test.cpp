#include "v4l2/krv4l2mode.hpp"

#include <gtest/gtest.h>

namespace KR {

const std::string yuy2 = "video/x-raw,format=YUY2";
const std::string jpeg = "image/jpeg";

// Like a USB 2 webcam: large images are compressed or slow.
const std::vector<KRV4l2Mode> webcam{
    {jpeg, {1920, 1080}, 30, 1}, {jpeg, {1280, 720}, 30, 1}, {jpeg, {640, 480}, 30, 1},
    {yuy2, {1920, 1080}, 5, 1},  {yuy2, {1280, 720}, 10, 1}, {yuy2, {640, 480}, 30, 1},
    {yuy2, {320, 240}, 30, 1},
};

TEST(KRV4l2Mode, TheExactSizeIsChosen) {
    EXPECT_EQ(chooseV4l2Caps(webcam, {640, 480}), yuy2 + ",width=640,height=480,framerate=30/1");
    EXPECT_EQ(chooseV4l2Caps(webcam, {320, 240}), yuy2 + ",width=320,height=240,framerate=30/1");
}

TEST(KRV4l2Mode, WithoutTheExactSizeTheNextLargerIsChosen) {
    EXPECT_EQ(chooseV4l2Caps(webcam, {160, 120}), yuy2 + ",width=320,height=240,framerate=30/1");
    EXPECT_EQ(chooseV4l2Caps(webcam, {640, 490}), jpeg + ",width=1280,height=720,framerate=30/1");
}

TEST(KRV4l2Mode, TheSameAspectRatioIsPreferredToASmallerSize) {
    const std::vector<KRV4l2Mode> modes{{yuy2, {640, 360}, 30, 1}, {yuy2, {640, 480}, 30, 1}};
    EXPECT_EQ(chooseV4l2Caps(modes, {320, 240}), yuy2 + ",width=640,height=480,framerate=30/1");
    EXPECT_EQ(chooseV4l2Caps(modes, {320, 180}), yuy2 + ",width=640,height=360,framerate=30/1");
}

TEST(KRV4l2Mode, CompressedIsPreferredToSlow) {
    EXPECT_EQ(chooseV4l2Caps(webcam, {1280, 720}), jpeg + ",width=1280,height=720,framerate=30/1");
}

TEST(KRV4l2Mode, IfAllAreTooSmallTheLargestIsChosen) {
    EXPECT_EQ(chooseV4l2Caps(webcam, {2560, 1920}), jpeg + ",width=1920,height=1080,framerate=30/1");
}

TEST(KRV4l2Mode, ASlowModeIsBetterThanNone) {
    EXPECT_EQ(chooseV4l2Caps({{yuy2, {640, 480}, 15, 2}}, {320, 240}),
              yuy2 + ",width=640,height=480,framerate=15/2");
}

TEST(KRV4l2Mode, WithoutListedModesVgaIsRequested) {
    EXPECT_EQ(chooseV4l2Caps({}, {1280, 720}),
              "video/x-raw,format=YUY2,width=640,height=480,framerate=30/1;video/x-raw;image/jpeg");
}

TEST(KRV4l2Mode, UncompressedIsPreferredAndYuv422IsBest) {
    const std::string nv12 = "video/x-raw,format=NV12";
    const KRV4l2Mode compressed{jpeg, {640, 480}, 30, 1};
    const KRV4l2Mode planar{nv12, {640, 480}, 30, 1};
    const KRV4l2Mode packed{yuy2, {640, 480}, 30, 1};
    EXPECT_EQ(chooseV4l2Caps({compressed, planar}, {640, 480}),
              nv12 + ",width=640,height=480,framerate=30/1");
    EXPECT_EQ(chooseV4l2Caps({compressed, planar, packed}, {640, 480}),
              yuy2 + ",width=640,height=480,framerate=30/1");
}

TEST(KRV4l2Mode, TwentyFourImagesPerSecondAreEnough) {
    EXPECT_EQ(chooseV4l2Caps({{jpeg, {640, 480}, 30, 1}, {yuy2, {640, 480}, 24, 1}}, {640, 480}),
              yuy2 + ",width=640,height=480,framerate=24/1");
}

TEST(KRV4l2Mode, AWidePictureWithTooFewRowsIsTooSmall) {
    EXPECT_EQ(chooseV4l2Caps({{yuy2, {1280, 360}, 30, 1}, {yuy2, {1280, 960}, 30, 1}}, {640, 480}),
              yuy2 + ",width=1280,height=960,framerate=30/1");
}

} // namespace KR
