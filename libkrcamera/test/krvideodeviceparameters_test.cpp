#include "cameratest.hpp"

#include "camera/krsoftwarecontrols.hpp"

namespace KR {

class ParameterTest : public CameraTest {};

TEST_F(ParameterTest, BrightnessChangesThePictureAndIsReset) {
    start({"test:black"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    const std::string other = subscribe(0, Resolution::Vga, Space::Yuv422);
    EXPECT_LT(fetch(id).at(100, 100)[0], 20);
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Brightness, 50));
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] > 100; });
    fetchUntil(other, [](const Image& image) { return image.at(100, 100)[0] > 100; });
    proxy->setAllCameraParametersToDefault(id);
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] < 20; });
}

TEST_F(ParameterTest, InitialSettingsApplyWheneverTheCameraOpens) {
    start({"test:black", "test"});
    service->setInitialSettings(0, -1, {{"Brightness", 50}, {"hue", 90}, {"zoom", 3}, {"gain", 900}});
    const auto valueOf = [this](const char* name) {
        const auto controls = proxy->getControls(0);
        return std::ranges::find(controls, name, &KRCameraControl::name)->value;
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(valueOf("brightness"), 0) << "closed";
        const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
        EXPECT_GT(fetch(id).at(100, 100)[0], 100) << i;
        EXPECT_EQ(valueOf("hue"), 90);
        EXPECT_EQ(valueOf("gain"), 100) << "out of range";
        proxy->unsubscribe(id);
    }
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    service->setInitialSettings(0, -1, {{"hue", 20}});
    EXPECT_EQ(valueOf("hue"), 20);
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] < 20; });
    EXPECT_THROW(service->setInitialSettings(2, -1, {}), KRError);
    EXPECT_THROW(service->setInitialSettings(0, 18, {}), KRError);
}

TEST_F(ParameterTest, TheSourceOfACameraCanBeReplacedUnderItsSubscribers) {
    start({"test:black", "test:black"});
    service->setInitialSettings(0, -1, {{"hue", 20}});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    const std::string other = subscribe(1, Resolution::QuarterVga, Space::Luma);
    for (int i = 0; i < 20; ++i) { // so that the new source's numbers are smaller
        EXPECT_LT(fetch(id).at(100, 100)[0], 20);
    }
    service->setSource(0, "test:white");
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] > 200; });
    EXPECT_LT(fetch(other).at(100, 100)[0], 20);
    EXPECT_EQ(proxy->getCameraList().at(0).source, "test:white");
    EXPECT_EQ(proxy->getControls(0).at(3).value, 20);
    proxy->unsubscribe(id);
    service->setSource(0, "test:black"); // closed
    EXPECT_LT(fetch(subscribe(0, Resolution::QuarterVga, Space::Luma)).at(100, 100)[0], 20);
    EXPECT_THAT(errorOf([&] { service->setSource(0, "nothing:x"); }), testing::HasSubstr("nothing:x"));
    EXPECT_THAT(errorOf([&] { service->setSource(7, "test"); }),
                testing::HasSubstr("camera 7 does not exist"));
}

TEST_F(ParameterTest, ContrastSaturationAndHueChangeThePicture) {
    start({"test:red"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Saturation, 0));
    fetchUntil(id, [](const Image& image) { return std::abs(image.at(9, 9)[0] - image.at(9, 9)[1]) < 5; });
    proxy->setAllCameraParametersToDefault(id);
    fetchUntil(id, [](const Image& image) { return image.at(9, 9)[0] > 250 && image.at(9, 9)[1] < 5; });
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Contrast, 0));
    fetchUntil(id, [](const Image& image) { return image.at(9, 9)[0] < 200; });
    proxy->setAllCameraParametersToDefault(id);
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Hue, 180));
    fetchUntil(id, [](const Image& image) { return image.at(9, 9)[2] > image.at(9, 9)[0]; });
}

TEST_F(ParameterTest, GainChangesTheBrightnessAndKeepsTheColors) {
    start({"test:red"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Yuv422);
    EXPECT_EQ(fetch(id).at(100, 100, 4), (std::vector{81, 90, 81, 240}));
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Gain, 50));
    const Image half = fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] < 60; });
    EXPECT_NEAR(half.at(100, 100)[0], 16 + (81 - 16) / 2, 2);
    EXPECT_NEAR(half.at(100, 100, 4)[1], 128 + (90 - 128) / 2, 2);
    EXPECT_NEAR(half.at(100, 100, 4)[3], 128 + (240 - 128) / 2, 2);
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Gain, 200));
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] > 140; });
}

TEST_F(ParameterTest, ControlsAreListedWithValuesWhetherTheCameraIsOpenOrNot) {
    start({"test", "gst:videotestsrc is-live=true", "v4l2:/dev/nonexistent"});
    const auto valueOfHue = [this] {
        const std::vector<KRCameraControl> controls = proxy->getControls(0);
        EXPECT_EQ(controls.size(), 7U);
        const KRCameraControl& hue = controls.at(3);
        EXPECT_EQ(hue.toKRValue(), KRValue::array(ControlId::Hue, "hue", -180, 180, 1, 0, hue.value));
        return hue.value;
    };
    EXPECT_EQ(valueOfHue(), 0);
    const std::string id = subscribe();
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Hue, -90));
    EXPECT_EQ(valueOfHue(), -90);
    EXPECT_FALSE(proxy->setCameraParameter(id, ControlId::Hue, 181));
    EXPECT_EQ(valueOfHue(), -90);
    proxy->unsubscribe(id);
    EXPECT_EQ(valueOfHue(), 0);
    EXPECT_TRUE(proxy->getControls(1).empty());
    EXPECT_EQ(errorOf([&] { proxy->getControls(2); }),
              "getControls: camera 2 (v4l2:/dev/nonexistent): No such file or directory");
    EXPECT_EQ(errorOf([&] { proxy->getControls(3); }),
              "getControls: camera 3 does not exist; there are cameras 0 to 2");
}

TEST_F(ParameterTest, FlipsMirrorThePicture) {
    TemporaryFolder folder;
    writeFilm(folder /
              "film.avi"); // colour bars: white at the upper left, blue at the upper right, dark below
    start({"file:" + (folder / "film.avi")});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    const auto isWhite = [](const Image& image, int x, int y) { return image.at(x, y)[1] > 200; };
    EXPECT_TRUE(isWhite(fetch(id), 5, 5));
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::HorizontalFlip, 1));
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 314, 5) && !isWhite(image, 5, 5); });
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::VerticalFlip, 1));
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 314, 234) && !isWhite(image, 314, 5); });
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::HorizontalFlip, 0));
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 5, 234) && !isWhite(image, 314, 234); });
    proxy->setAllCameraParametersToDefault(id);
    fetchUntil(id, [&](const Image& image) { return isWhite(image, 5, 5) && !isWhite(image, 5, 234); });
}

TEST_F(ParameterTest, LastUntilTheCameraCloses) {
    start({"test:black"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Brightness, 50));
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] > 100; });
    proxy->unsubscribe(id);
    EXPECT_LT(fetch(subscribe(0, Resolution::QuarterVga, Space::Luma)).at(100, 100)[0], 20);
}

TEST_F(ParameterTest, ValuesOutOfRangeAreRefused) {
    start({"test"});
    const std::string id = subscribe();
    for (const KRCameraControl& parameter : getPictureControls()) {
        EXPECT_FALSE(proxy->setCameraParameter(id, parameter.id, parameter.minimum - 1)) << parameter.name;
        EXPECT_FALSE(proxy->setCameraParameter(id, parameter.id, parameter.maximum + 1)) << parameter.name;
        EXPECT_TRUE(proxy->setCameraParameter(id, parameter.id, parameter.minimum)) << parameter.name;
        EXPECT_TRUE(proxy->setCameraParameter(id, parameter.id, parameter.maximum)) << parameter.name;
    }
    fetch(id);
}

TEST_F(ParameterTest, UnknownParametersAreRefusedWithTheExistingOnes) {
    start({"test", "gst:videotestsrc is-live=true"});
    EXPECT_EQ(
        errorOf([&] { proxy->setCameraParameter(subscribe(0), 12, 0); }),
        "setCameraParameter: camera 0 (test) has no parameter 12; it has: 0x00980900 (brightness, -100 to "
        "100), 0x00980901 (contrast, 0 to 200), 0x00980902 (saturation, 0 to 200), 0x00980903 (hue, -180 to "
        "180), 0x00980913 (gain, 0 to 200), 0x00980914 (horizontal flip, 0 to 1), 0x00980915 (vertical flip, "
        "0 to 1)");
    const std::string id = subscribe(1);
    EXPECT_EQ(errorOf([&] { proxy->setCameraParameter(id, ControlId::Brightness, 0); }),
              "setCameraParameter: camera 1 (gst:videotestsrc is-live=true) has no parameter 9963776; it "
              "has: none");
    proxy->setAllCameraParametersToDefault(id);
    fetch(id);
}

TEST_F(ParameterTest, LastWhenAFilmRestarts) {
    TemporaryFolder folder;
    const std::string film = folder / "film.multipart"; // it cannot seek: it is opened again
    runPipeline("videotestsrc pattern=black num-buffers=3 ! video/x-raw,width=320,height=240 ! jpegenc"
                " ! multipartmux ! filesink location=" +
                film);
    start({"file:" + film});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    EXPECT_TRUE(proxy->setCameraParameter(id, ControlId::Brightness, 50));
    fetchUntil(id, [](const Image& image) { return image.at(100, 100)[0] > 100; });
    for (int i = 0; i < 10; ++i) {
        EXPECT_GT(fetch(id).at(100, 100)[0], 100);
    }
}

} // namespace KR
