#include "cameratest.hpp"

#include "../src/krcameraparameter.hpp"

namespace KR {

class ParameterTest : public CameraTest {};

TEST_F(ParameterTest, BrightnessShowsInThePictureAndGoesBack) {
    start({"test:black"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    const std::string other = subscribe(0, Resolution::Vga, Space::Yuv422);
    EXPECT_LT(fetch(id).at(100, 100)[0], 20);
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::Brightness, 50));
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] > 100; });
    fetchUntil(other, [](const Image& image) { return image.at(100, 100)[0] > 100; });
    proxy->setAllCameraParametersToDefault(id);
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] < 20; });
}

TEST_F(ParameterTest, ContrastSaturationAndHueShowInThePicture) {
    start({"test:red"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::Saturation, 0));
    fetchUntil(id, [](const Image& image) { return std::abs(image.at(9, 9)[0] - image.at(9, 9)[1]) < 5; });
    proxy->setAllCameraParametersToDefault(id);
    fetchUntil(id, [](const Image& image) { return image.at(9, 9)[0] > 250 && image.at(9, 9)[1] < 5; });
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::Contrast, 0));
    fetchUntil(id, [](const Image& image) { return image.at(9, 9)[0] < 200; });
    proxy->setAllCameraParametersToDefault(id);
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::Hue, 180));
    fetchUntil(id, [](const Image& image) { return image.at(9, 9)[2] > image.at(9, 9)[0]; });
}

TEST_F(ParameterTest, FlipsTurnThePicture) {
    TemporaryFolder folder;
    writeFilm(folder /
              "film.avi"); // colour bars: white at the upper left, blue at the upper right, dark below
    start({"file:" + (folder / "film.avi")});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    const auto isWhite = [](const Image& image, int x, int y) { return image.at(x, y)[1] > 200; };
    EXPECT_TRUE(isWhite(fetch(id), 5, 5));
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::HorizontalFlip, 1));
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 314, 5) && !isWhite(image, 5, 5); });
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::VerticalFlip, 1));
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 314, 234) && !isWhite(image, 314, 5); });
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::HorizontalFlip, 0));
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 5, 234) && !isWhite(image, 314, 234); });
    proxy->setAllCameraParametersToDefault(id);
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 5, 5) && !isWhite(image, 5, 234); });
}

TEST_F(ParameterTest, LastUntilTheCameraCloses) {
    start({"test:black"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    EXPECT_TRUE(proxy->setCameraParameter(id, ParameterId::Brightness, 50));
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] > 100; });
    proxy->unsubscribe(id);
    EXPECT_LT(fetch(subscribe(0, Resolution::QuarterVga, Space::Luma)).at(100, 100)[0], 20);
}

TEST_F(ParameterTest, ValuesOutOfRangeAreRefused) {
    start({"test"});
    const std::string id = subscribe();
    for (const KRCameraParameter& parameter : getSoftwareParameters()) {
        EXPECT_FALSE(proxy->setCameraParameter(id, parameter.id, parameter.minimum - 1)) << parameter.name;
        EXPECT_FALSE(proxy->setCameraParameter(id, parameter.id, parameter.maximum + 1)) << parameter.name;
        EXPECT_TRUE(proxy->setCameraParameter(id, parameter.id, parameter.minimum)) << parameter.name;
        EXPECT_TRUE(proxy->setCameraParameter(id, parameter.id, parameter.maximum)) << parameter.name;
    }
    fetch(id);
}

TEST_F(ParameterTest, UnknownParametersAreRefusedWithTheOnesThereAre) {
    start({"test", "gst:videotestsrc is-live=true"});
    EXPECT_EQ(
        errorOf([&] { proxy->setCameraParameter(subscribe(0), 12, 0); }),
        "setCameraParameter: camera 0 (test) has no parameter 12; it has: 0x00980900 (brightness, -100 to "
        "100), 0x00980901 (contrast, 0 to 200), 0x00980902 (saturation, 0 to 200), 0x00980903 (hue, -180 to "
        "180), 0x00980914 (horizontal flip, 0 to 1), 0x00980915 (vertical flip, 0 to 1)");
    const std::string id = subscribe(1);
    EXPECT_EQ(errorOf([&] { proxy->setCameraParameter(id, ParameterId::Brightness, 0); }),
              "setCameraParameter: camera 1 (gst:videotestsrc is-live=true) has no parameter 9963776; it "
              "has: none");
    proxy->setAllCameraParametersToDefault(id);
    fetch(id);
}

} // namespace KR
