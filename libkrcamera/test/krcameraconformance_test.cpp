// Requirements for every kind of source, and for the fake camera of other tests.

#include "cameratest.hpp"
#include "certificateauthority.hpp"
#include "httpserver.hpp"
#include "rtspserver.hpp"

#include "../../libkrvision/test/fakecamera.hpp"

#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace KR {
namespace {

/// How to make two cameras of one kind.
struct Kind {
    std::string name;
    int model;
    bool fake = false;
    int parameter = 0; ///< id of a parameter of these cameras; 0 if they have none
};

void PrintTo(const Kind& kind, std::ostream* out) {
    *out << kind.name;
}

class Conformance : public CameraTest, public testing::WithParamInterface<Kind> {
protected:
    void SetUp() override {
        const Kind& kind = GetParam();
        if (kind.fake) {
            fake = createModule<test::FakeCamera>(broker, "KRVideoDevice", journal);
            proxy = std::make_unique<KRVideoDeviceProxy>(broker);
            return;
        }
        const std::string source = makeSource(kind.name);
        if (source.empty()) {
            GTEST_SKIP() << "there is no such camera";
        }
        start({source, source == getDevice() ? "test" : source}); // a device can be opened once
    }

    // Destroyed before the folder and the servers.
    void TearDown() override { service.reset(); }

    static std::string getDevice() {
        const char* device = std::getenv("KR_V4L2_DEVICE");
        return device == nullptr ? "" : std::string("v4l2:") + device;
    }

    std::string makeSource(const std::string& kind) {
        if (kind == "Test") {
            return "test:snow";
        }
        if (kind == "Pipeline") {
            return "gst:videotestsrc is-live=true ! video/x-raw,format=I420,width=400,height=300";
        }
        if (kind == "Image") {
            runPipeline("videotestsrc num-buffers=1 ! video/x-raw,width=320,height=240 ! pngenc ! filesink "
                        "location=" +
                        (folder / "still.png"));
            return "image:" + (folder / "still.png");
        }
        if (kind == "Device") {
            return getDevice();
        }
        if (kind == "Recording" || kind == "SteppedRecording") {
            record();
            return "oxv:" + (folder / "film.oxv") + (kind == "Recording" ? "" : "?pace=fetch");
        }
        if (kind == "RtspJpeg" || kind == "RtspH264") {
            rtspServer = std::make_unique<RtspServer>(kind == "RtspJpeg" ? RtspServer::Coding::Jpeg
                                                                         : RtspServer::Coding::H264);
            return rtspServer->getUri();
        }
        writeFilm(folder / "film.avi");
        if (kind == "File") {
            return "file:" + (folder / "film.avi");
        }
        std::ostringstream content;
        content << std::ifstream(folder / "film.avi", std::ios::binary).rdbuf();
        HttpServer::Options options;
        if (kind == "Https") {
            authority = std::make_unique<CertificateAuthority>();
            authority->trust();
            options.certificate = authority->certify("127.0.0.1");
        }
        httpServer = std::make_unique<HttpServer>("video/x-msvideo", content.str(), options);
        return httpServer->getUri();
    }

    // Ten seconds.
    void record() {
        KRVideo video;
        video.recordVideo(folder / "film", 0, {{160, 120, 9, 8}});
        std::vector<char> pixels(160 * 120 * 2, 100);
        for (int i = 0; i < 300; ++i) {
            video.write(pixels.data(), static_cast<int>(pixels.size()), 1'500'000'000'000'000 + i * 33'333, 0,
                        0.4F, 0.3F, -0.4F, -0.3F);
        }
        video.closeVideo();
    }

    TemporaryFolder folder;
    std::unique_ptr<CertificateAuthority> authority;
    std::unique_ptr<HttpServer> httpServer;
    std::unique_ptr<RtspServer> rtspServer;
    test::Journal journal;
    KRModuleHandle<test::FakeCamera> fake;
};

TEST_P(Conformance, IdentifiersBeginWithTheNameAndDiffer) {
    const std::string first = subscribe();
    const std::string second = subscribe();
    EXPECT_THAT(first, testing::MatchesRegex("test_[0-9]+"));
    EXPECT_THAT(second, testing::MatchesRegex("test_[0-9]+"));
    EXPECT_NE(first, second);
    fetch(first);
    fetch(second);
}

TEST_P(Conformance, UnsupportedSettingsAreRefusedWithTheirValues) {
    using testing::HasSubstr;
    EXPECT_THAT(errorOf([&] { subscribe(9); }), HasSubstr("camera 9"));
    EXPECT_THAT(errorOf([&] { subscribe(-1); }), HasSubstr("camera -1"));
    EXPECT_THAT(errorOf([&] { subscribe(0, 18); }), HasSubstr("resolution 18"));
    EXPECT_THAT(errorOf([&] { subscribe(0, 2, 27); }), HasSubstr("colour space 27"));
    EXPECT_THAT(errorOf([&] { subscribe(0, 2, 9, 0); }), HasSubstr("frame rate 0"));
    EXPECT_THAT(errorOf([&] { subscribe(0, 2, 9, 31); }), HasSubstr("frame rate 31"));
}

TEST_P(Conformance, EveryResolutionIsDeliveredInEveryColorSpace) {
    const std::string id = subscribe();
    const std::array spaces{Space::Luma, Space::Yuv422, Space::Rgb, Space::Bgr, Space::Bgrx};
    for (int resolution = 0; resolution <= 17; ++resolution) {
        const int space = spaces[static_cast<std::size_t>(resolution) % spaces.size()];
        ASSERT_TRUE(proxy->setResolution(id, resolution));
        ASSERT_TRUE(proxy->setColorSpace(id, space));
        const Image image = fetch(id);
        int width = 0;
        int height = 0;
        setSizeFromResolution(resolution, width, height);
        EXPECT_EQ(image.width, width);
        EXPECT_EQ(image.height, height);
        EXPECT_EQ(image.colorSpace, space);
        EXPECT_EQ(image.layers, getNumLayersInColorSpace(space));
        EXPECT_EQ(image.camera, 0);
    }
}

TEST_P(Conformance, EachFetchGetsALaterImageWhetherReleasedOrNot) {
    const std::string id = subscribe(0, Resolution::QuarterVga);
    std::int64_t last = 0;
    for (int i = 0; i < 10; ++i) {
        const Image image = fetch(id);
        EXPECT_GT(image.time_usec, last);
        last = image.time_usec;
        if (i % 2 == 0) {
            proxy->releaseImage(id);
            proxy->releaseImage(id);
        }
    }
}

TEST_P(Conformance, AnImageDoesNotChangeWhileItIsHeld) {
    const std::string id = subscribe(0, 0, Space::Bgr);
    const Image held = fetch(id);
    const std::vector<unsigned char> copy(held.data(), held.data() + held.pixels.size());
    for (int i = 0; i < 5; ++i) {
        fetch(id);
        proxy->releaseImage(id);
    }
    proxy->unsubscribe(id);
    EXPECT_TRUE(std::equal(copy.begin(), copy.end(), held.data()));
}

TEST_P(Conformance, SettersRefuseUnsupportedValuesAndChangeNothing) {
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Bgr, 15);
    for (const int bad : {-1, 18}) {
        EXPECT_FALSE(proxy->setResolution(id, bad));
    }
    for (const int bad : {-1, 27}) {
        EXPECT_FALSE(proxy->setColorSpace(id, bad));
    }
    for (const int bad : {0, 31}) {
        EXPECT_FALSE(proxy->setFrameRate(id, bad));
    }
    for (const int bad : {-1, 9}) {
        EXPECT_FALSE(proxy->setActiveCamera(id, bad));
    }
    EXPECT_EQ(proxy->getFrameRate(id), 15);
    const Image image = fetch(id);
    EXPECT_EQ(image.width, 320);
    EXPECT_EQ(image.colorSpace, Space::Bgr);
    EXPECT_EQ(image.camera, 0);
    EXPECT_TRUE(proxy->setFrameRate(id, 30));
    EXPECT_EQ(proxy->getFrameRate(id), 30);
}

TEST_P(Conformance, AnUnknownIdentifierIsAnErrorEverywhere) {
    const std::string id = subscribe();
    proxy->unsubscribe(id);
    const std::vector<std::function<void()>> operations{
        [&] { proxy->unsubscribe(id); },
        [&] { proxy->getImageRemote(id); },
        [&] { proxy->releaseImage(id); },
        [&] { proxy->setFrameRate(id, 15); },
        [&] { proxy->getFrameRate(id); },
        [&] { proxy->setResolution(id, 1); },
        [&] { proxy->setColorSpace(id, 9); },
        [&] { proxy->setActiveCamera(id, 0); },
        [&] { proxy->setCameraParameter(id, GetParam().parameter, 0); },
        [&] { proxy->setAllCameraParametersToDefault(id); },
    };
    for (const auto& operation : operations) {
        EXPECT_THAT(errorOf(operation), testing::HasSubstr("subscription \"" + id + "\" does not exist"));
    }
}

TEST_P(Conformance, ASubscriptionMovesToAnotherCameraAndBack) {
    const std::string id = subscribe();
    EXPECT_EQ(fetch(id).camera, 0);
    EXPECT_TRUE(proxy->setActiveCamera(id, 1));
    EXPECT_EQ(fetch(id).camera, 1);
    EXPECT_TRUE(proxy->setActiveCamera(id, 0));
    EXPECT_EQ(fetch(id).camera, 0);
}

TEST_P(Conformance, ACameraWithoutSubscribersOpensAgain) {
    for (int i = 0; i < 3; ++i) {
        const std::string id = subscribe();
        fetch(id);
        proxy->unsubscribe(id);
    }
}

TEST_P(Conformance, TheModelIsTheKindOfSource) {
    EXPECT_EQ(proxy->getCameraModel(0), GetParam().model);
    EXPECT_EQ(proxy->getCameraModel(-1), -1);
    EXPECT_EQ(proxy->getCameraModel(9), -1);
}

TEST_P(Conformance, ParametersAreSetWithinTheirRangeAndUnknownOnesAreErrors) {
    const std::string id = subscribe();
    EXPECT_THAT(errorOf([&] { proxy->setCameraParameter(id, 10, 0); }),
                testing::HasSubstr("no parameter 10"));
    if (const int parameter = GetParam().parameter; parameter != 0) {
        EXPECT_TRUE(proxy->setCameraParameter(id, parameter, 60));
        EXPECT_FALSE(proxy->setCameraParameter(id, parameter, 100'000));
    }
    proxy->setAllCameraParametersToDefault(id);
    fetch(id);
}

constexpr int contrast = 0x00980901;

INSTANTIATE_TEST_SUITE_P(
    Sources, Conformance,
    testing::Values(Kind{"Fake", 1, true, 11}, Kind{"Test", 1, false, contrast},
                    Kind{"File", 2, false, contrast}, Kind{"Device", 3, false, contrast}, Kind{"Pipeline", 4},
                    Kind{"Http", 5, false, contrast}, Kind{"Https", 5, false, contrast},
                    Kind{"RtspJpeg", 5, false, contrast}, Kind{"RtspH264", 5, false, contrast},
                    Kind{"Image", 6, false, contrast}, Kind{"Recording", 7}, Kind{"SteppedRecording", 7}),
    [](const testing::TestParamInfo<Kind>& kind) { return kind.param.name; });

} // namespace
} // namespace KR
