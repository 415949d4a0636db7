#include "cameratest.hpp"

#include <krplatform/krthread.hpp>
#include <krvision/krdefaultangles.hpp>

#include <algorithm>

namespace KR {

class ImageTest : public CameraTest {};

namespace {

void expectNear(const std::vector<int>& actual, const std::vector<int>& expected, int tolerance,
                const std::string& what) {
    ASSERT_GE(actual.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NEAR(actual[i], expected[i], tolerance) << what << ", byte " << i;
    }
}

// Luma and YUV422 as in BT.601, 16 to 235; the others 0 to 255.
struct Color {
    std::string pattern;
    int luma;
    std::vector<int> yuv422; ///< Y0 U Y1 V
    std::vector<int> rgb;
};

void PrintTo(const Color& color, std::ostream* out) {
    *out << color.pattern;
}

} // namespace

class ColorTest : public CameraTest, public testing::WithParamInterface<Color> {};

TEST_P(ColorTest, IsCorrectInEveryColorSpace) {
    const Color& color = GetParam();
    start({"test:" + color.pattern});
    const std::vector<int> bgr(color.rgb.rbegin(), color.rgb.rend());
    const std::string id = subscribe();
    for (const int resolution : {Resolution::Vga, Resolution::QuarterVga, 3, 7, 12}) {
        const auto check = [&](int colorSpace, const std::vector<int>& expected) {
            const int tolerance =
                expected == bgr || expected == color.rgb ? 1 : 0; // the levels of YUV are coarser
            ASSERT_TRUE(proxy->setResolution(id, resolution));
            ASSERT_TRUE(proxy->setColorSpace(id, colorSpace));
            const Image image = fetch(id);
            const std::string what =
                "resolution " + std::to_string(resolution) + ", colour space " + std::to_string(colorSpace);
            for (const int x : {0, image.width / 2 / 2 * 2, image.width - 2}) {
                for (const int y : {0, image.height / 2, image.height - 1}) {
                    expectNear(image.at(x, y, static_cast<int>(expected.size())), expected, tolerance, what);
                }
            }
        };
        check(Space::Luma, {color.luma});
        check(Space::Yuv422, color.yuv422);
        check(Space::Rgb, color.rgb);
        check(Space::Bgr, bgr);
        check(Space::Bgrx, bgr);
    }
}

INSTANTIATE_TEST_SUITE_P(Patterns, ColorTest,
                         testing::Values(Color{"red", 81, {81, 90, 81, 240}, {255, 0, 0}},
                                         Color{"green", 145, {145, 54, 145, 34}, {0, 255, 0}},
                                         Color{"blue", 41, {41, 240, 41, 110}, {0, 0, 255}},
                                         Color{"white", 235, {235, 128, 235, 128}, {255, 255, 255}},
                                         Color{"black", 16, {16, 128, 16, 128}, {0, 0, 0}}),
                         [](const testing::TestParamInfo<Color>& color) { return color.param.pattern; });

TEST_F(ImageTest, ThePictureFillsTheImageButKeepsItsProportionsInWideImages) {
    start({"test:white"});
    const std::string id = subscribe(0, 9, Space::Luma); // 16:9 of a 4:3 picture: stretched
    const Image stretched = fetch(id);
    EXPECT_GT(stretched.at(0, 180)[0], 230);
    EXPECT_GT(stretched.at(639, 180)[0], 230);

    ASSERT_TRUE(proxy->setResolution(id, 15)); // 640x180: the picture is 240 wide, centred
    for (const int colorSpace : {Space::Luma, Space::Yuv422, Space::Bgr}) {
        ASSERT_TRUE(proxy->setColorSpace(id, colorSpace));
        const Image wide = fetch(id);
        for (const int y : {0, 90, 179}) {
            EXPECT_LT(wide.at(0, y)[0], 20);
            EXPECT_LT(wide.at(196, y)[0], 20);
            EXPECT_GT(wide.at(204, y)[0], 230);
            EXPECT_GT(wide.at(436, y)[0], 230);
            EXPECT_LT(wide.at(444, y)[0], 20);
            EXPECT_LT(wide.at(638, y)[0], 20);
        }
    }
}

TEST_F(ImageTest, CarriesCameraAndFieldOfView) {
    start({"test:black", "test:white"});
    const Image image = fetch(subscribe(1));
    EXPECT_EQ(image.camera, 1);
    EXPECT_EQ(image.angles, kDefaultAngles);
}

TEST_F(ImageTest, IsNewAtEveryFetch) {
    start({"test"});
    const std::string id = subscribe();
    std::int64_t last = 0;
    for (int i = 0; i < 20; ++i) {
        const Image image = fetch(id);
        EXPECT_GT(image.time_usec, last);
        last = image.time_usec;
        if (i % 2 == 0) {
            proxy->releaseImage(id);
        }
    }
}

TEST_F(ImageTest, IsTheNewestAfterAPause) {
    start({"test"});
    const std::string watcher = subscribe();
    const std::string sleeper = subscribe();
    fetch(sleeper);
    Image seen = fetch(watcher);
    for (int i = 0; i < 10; ++i) {
        seen = fetch(watcher);
    }
    EXPECT_GE(fetch(sleeper).time_usec, seen.time_usec);
}

TEST_F(ImageTest, HasItsCaptureTimeInMicroseconds) {
    start({"test"});
    const std::string id = subscribe();
    bool finerThanMilliseconds = false;
    for (int i = 0; i < 10; ++i) {
        const Image image = fetch(id);
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const auto now_usec = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
        EXPECT_LE(image.time_usec, now_usec);
        EXPECT_GT(image.time_usec, now_usec - 30'000'000);
        EXPECT_GE(image.microseconds, 0);
        EXPECT_LT(image.microseconds, 1'000'000);
        finerThanMilliseconds = finerThanMilliseconds || image.microseconds % 1000 != 0;
    }
    EXPECT_TRUE(finerThanMilliseconds);
}

class SharingTest : public CameraTest, public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(SharingTest, SubscribersOfTheSameGeometryGetTheSamePixels) {
    const auto [resolution, colorSpace] = GetParam();
    // Slow enough for the second subscriber to always fetch the same frame as the first.
    start({"gst:videotestsrc is-live=true pattern=ball ! video/x-raw,width=640,height=480,framerate=8/1"});
    const std::string first = subscribe(0, resolution, colorSpace);
    const std::string second = subscribe(0, resolution, colorSpace);
    bool sameFrame = false;
    for (int i = 0; i < 40 && !sameFrame; ++i) {
        const Image a = fetch(first);
        const Image b = fetch(second);
        sameFrame = a.time_usec == b.time_usec;
        EXPECT_EQ(a.data() == b.data(), sameFrame);
    }
    EXPECT_TRUE(sameFrame);
}

INSTANTIATE_TEST_SUITE_P(Geometries, SharingTest,
                         testing::Values(std::pair{Resolution::Vga, Space::Yuv422},
                                         std::pair{Resolution::QuarterVga, Space::Bgr},
                                         std::pair{Resolution::QuarterVga, Space::Luma}));

TEST_F(ImageTest, DoesNotChangeWhileItIsHeld) {
    start({"test:snow"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Bgr);
    const Image held = fetch(id);
    const std::vector<unsigned char> copy(held.data(), held.data() + held.pixels.size());
    for (int i = 0; i < 10; ++i) {
        fetch(id);
        proxy->releaseImage(id);
    }
    EXPECT_TRUE(std::equal(copy.begin(), copy.end(), held.data()));
}

TEST_F(ImageTest, OutlivesTheService) {
    start({"test:white"});
    const std::string id = subscribe();
    const Image delivered = fetch(id);
    ASSERT_TRUE(proxy->setColorSpace(id, Space::Rgb));
    const Image converted = fetch(id);
    service.reset();
    proxy.reset();
    broker.reset();
    EXPECT_EQ(delivered.at(0, 479), (std::vector{235, 128}));
    EXPECT_GT(converted.at(639, 479)[2], 250);
}

TEST_F(ImageTest, IsAwaitedForTwoFrameIntervalsAndAtLeast200Milliseconds) {
    start({"gst:videotestsrc is-live=true ! video/x-raw,framerate=1/60"});
    const std::string text = "getImageRemote: camera 0 (gst:videotestsrc is-live=true ! "
                             "video/x-raw,framerate=1/60): no image within ";
    const std::string id = subscribe();
    fetch(id);
    EXPECT_EQ(errorOf([&] { proxy->getImageRemote(id); }), text + "200 ms");
    proxy->releaseImage(id);
    ASSERT_TRUE(proxy->setFrameRate(id, 4));
    EXPECT_EQ(errorOf([&] { proxy->getImageRemote(id); }), text + "500 ms");
    proxy->unsubscribe(id);
}

} // namespace KR
