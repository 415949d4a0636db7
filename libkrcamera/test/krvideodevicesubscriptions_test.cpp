#include "cameratest.hpp"

#include <krvision/krvisiondefinitions.hpp>

namespace KR {

using testing::HasSubstr;

class SubscriptionTest : public CameraTest {};

TEST_F(SubscriptionTest, IdentifiersAreTheNameWithANumberAndUnique) {
    start({"test", "test:smpte"});
    const std::string first = subscribe();
    const std::string second = subscribe();
    const std::string other = subscribe(1);
    EXPECT_THAT(first, testing::MatchesRegex("test_[0-9]+"));
    EXPECT_EQ((std::set{first, second, other}.size()), 3U);
    proxy->unsubscribe(first);
    EXPECT_NE(subscribe(), first);
}

TEST_F(SubscriptionTest, WithoutSourcesThereIsOneTestCamera) {
    service = createModule<KRVideoDevice>(broker, "KRVideoDevice");
    proxy = std::make_unique<KRVideoDeviceProxy>(broker);
    EXPECT_EQ(proxy->getCameraModel(0), 1);
    EXPECT_EQ(proxy->getCameraModel(1), -1);
    const Image image = fetch(subscribe());
    EXPECT_EQ(image.width, 640);
    EXPECT_EQ(image.height, 480);
}

TEST_F(SubscriptionTest, UnknownCamerasAreRefusedWithTheExistingOnes) {
    start({"test", "test"});
    EXPECT_EQ(errorOf([&] { subscribe(7); }),
              "subscribeCamera: camera 7 does not exist; there are cameras 0 to 1");
    EXPECT_EQ(errorOf([&] { subscribe(-1); }),
              "subscribeCamera: camera -1 does not exist; there are cameras 0 to 1");
    start({"test"});
    EXPECT_EQ(errorOf([&] { subscribe(1); }),
              "subscribeCamera: camera 1 does not exist; there is only camera 0");
}

TEST_F(SubscriptionTest, UnsupportedSettingsAreRefusedWithTheSupportedOnes) {
    start({"test"});
    for (const int resolution : {-1, 18}) {
        EXPECT_EQ(errorOf([&] { subscribe(0, resolution); }), "subscribeCamera: resolution " +
                                                                  std::to_string(resolution) +
                                                                  " is not supported; supported are 0 to 17");
    }
    for (const int colorSpace : {-1, 1, 10, 19, 27}) {
        EXPECT_EQ(errorOf([&] { subscribe(0, Resolution::Vga, colorSpace); }),
                  "subscribeCamera: colour space " + std::to_string(colorSpace) +
                      " is not supported; supported are 0 (luma), 9 (YUV422), 11 (RGB), 13 (BGR), 18 (BGRx)");
    }
    for (const int rate : {-1, 0, 31}) {
        EXPECT_EQ(errorOf([&] { subscribe(0, Resolution::Vga, Space::Yuv422, rate); }),
                  "subscribeCamera: frame rate " + std::to_string(rate) +
                      " is not supported; supported are 1 to 30 images per second");
    }
}

TEST_F(SubscriptionTest, NamesAndSubscriptionsAreBounded) {
    start({"test"});
    const auto subscribeAs = [this](std::size_t size) {
        return proxy->subscribeCamera(std::string(size, 'a'), 0, Resolution::Vga, Space::Yuv422, 30);
    };
    subscribeAs(1024);
    EXPECT_EQ(errorOf([&] { subscribeAs(1025); }),
              "subscribeCamera: the name of the subscriber has 1025 bytes; at most 1024 are supported");
    for (int i = 1; i < 4096; ++i) {
        subscribeAs(1);
    }
    EXPECT_EQ(errorOf([&] { subscribeAs(1); }),
              "subscribeCamera: there are 4096 subscriptions; more are not supported");
    EXPECT_EQ(proxy->getCameraList()[0].subscribers, 4096);
}

TEST_F(SubscriptionTest, UnknownIdentifiersAreRefusedByEveryOperation) {
    start({"test"});
    const std::string text = ": subscription \"nobody\" does not exist; "
                             "expected an identifier that subscribeCamera returned";
    const std::string id = "nobody";
    EXPECT_EQ(errorOf([&] { proxy->unsubscribe(id); }), "unsubscribe" + text);
    EXPECT_EQ(errorOf([&] { proxy->getImageRemote(id); }), "getImageRemote" + text);
    EXPECT_EQ(errorOf([&] { proxy->releaseImage(id); }), "releaseImage" + text);
    EXPECT_EQ(errorOf([&] { proxy->setFrameRate(id, 15); }), "setFrameRate" + text);
    EXPECT_EQ(errorOf([&] { proxy->getFrameRate(id); }), "getFrameRate" + text);
    EXPECT_EQ(errorOf([&] { proxy->setResolution(id, 1); }), "setResolution" + text);
    EXPECT_EQ(errorOf([&] { proxy->setColorSpace(id, 9); }), "setColorSpace" + text);
    EXPECT_EQ(errorOf([&] { proxy->setActiveCamera(id, 0); }), "setActiveCamera" + text);
    EXPECT_EQ(errorOf([&] { proxy->setCameraParameter(id, 0x00980900, 0); }), "setCameraParameter" + text);
    EXPECT_EQ(errorOf([&] { proxy->setAllCameraParametersToDefault(id); }),
              "setAllCameraParametersToDefault" + text);
}

TEST_F(SubscriptionTest, ASubscriptionEndsOnce) {
    start({"test"});
    const std::string id = subscribe();
    proxy->unsubscribe(id);
    EXPECT_THAT(errorOf([&] { proxy->unsubscribe(id); }), HasSubstr("does not exist"));
    EXPECT_THAT(errorOf([&] { proxy->getImageRemote(id); }), HasSubstr("does not exist"));
}

TEST_F(SubscriptionTest, SettingsApplyToTheNextImage) {
    start({"test"});
    const std::string id = subscribe();
    EXPECT_TRUE(proxy->setFrameRate(id, 1));
    EXPECT_EQ(proxy->getFrameRate(id), 1);
    EXPECT_TRUE(proxy->setFrameRate(id, 30));
    for (int resolution = 0; resolution <= 17; ++resolution) {
        for (const int colorSpace : {Space::Luma, Space::Yuv422, Space::Rgb, Space::Bgr, Space::Bgrx}) {
            ASSERT_TRUE(proxy->setResolution(id, resolution));
            ASSERT_TRUE(proxy->setColorSpace(id, colorSpace));
            const Image image = fetch(id);
            int width = 0;
            int height = 0;
            setSizeFromResolution(resolution, width, height);
            EXPECT_EQ(image.width, width);
            EXPECT_EQ(image.height, height);
            EXPECT_EQ(image.colorSpace, colorSpace);
            EXPECT_EQ(image.layers, getNumLayersInColorSpace(colorSpace));
        }
    }
}

TEST_F(SubscriptionTest, ReleasingWithoutAnImageHasNoEffect) {
    start({"test"});
    const std::string id = subscribe();
    proxy->releaseImage(id);
    fetch(id);
    proxy->releaseImage(id);
    proxy->releaseImage(id);
    fetch(id);
}

TEST_F(SubscriptionTest, ASubscriptionMovesToAnotherCamera) {
    start({"test:red", "test:blue"});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    const Image red = fetch(id);
    EXPECT_EQ(red.camera, 0);
    EXPECT_TRUE(proxy->setActiveCamera(id, 1));
    EXPECT_EQ(getThreadNames().count("KRCamera 0"), 0U);
    const Image blue = fetch(id);
    EXPECT_EQ(blue.camera, 1);
    EXPECT_GT(blue.at(100, 100)[2], 250);
    EXPECT_GT(blue.time_usec, red.time_usec);
    EXPECT_TRUE(proxy->setActiveCamera(id, 1));
    EXPECT_EQ(fetch(id).camera, 1);
}

TEST_F(SubscriptionTest, ASubscriptionDoesNotMoveToACameraThatCannotBeOpened) {
    start({"test", "file:/nonexistent"});
    const std::string id = subscribe();
    EXPECT_THAT(errorOf([&] { proxy->setActiveCamera(id, 1); }),
                HasSubstr("setActiveCamera: camera 1 (file:/nonexistent) cannot be opened: "));
    EXPECT_EQ(fetch(id).camera, 0);
    proxy->unsubscribe(id);
}

TEST_F(SubscriptionTest, ACameraIsOpenFromItsFirstSubscriberToItsLast) {
    start({"test", "test"});
    EXPECT_EQ(getThreadNames().count("KRCamera 0"), 0U);
    const std::string first = subscribe();
    const std::string second = subscribe();
    // A thread started by the capture thread briefly has its name.
    waitUntil([] { return getThreadNames().count("KRCamera 0") == 1; });
    EXPECT_EQ(getThreadNames().count("KRCamera 1"), 0U);
    proxy->unsubscribe(first);
    waitUntil([] { return getThreadNames().count("KRCamera 0") == 1; });
    fetch(second);
    proxy->unsubscribe(second);
    EXPECT_EQ(getThreadNames().count("KRCamera 0"), 0U);
    const std::string third = subscribe();
    fetch(third);
}

TEST_F(SubscriptionTest, TheModelIsTheKindOfSource) {
    start({"test", "file:/nonexistent", "v4l2:/dev/nonexistent", "gst:videotestsrc", "http://127.0.0.1/",
           "image:/nonexistent", "oxv:/nonexistent"});
    for (int camera = 0; camera < 7; ++camera) {
        EXPECT_EQ(proxy->getCameraModel(camera), camera + 1);
    }
    EXPECT_EQ(proxy->getCameraModel(7), -1);
    EXPECT_EQ(proxy->getCameraModel(-1), -1);
}

TEST_F(SubscriptionTest, EveryMethodIsPublishedWithItsDescription) {
    start({"test"});
    std::vector<std::string> names;
    for (const KRMethodDescription& method : proxy->getProxy().getMethodList()) {
        names.push_back(method.name);
        EXPECT_FALSE(method.description.empty()) << method.name;
        EXPECT_EQ(method.parameters.size(), method.argumentTypes.size()) << method.name;
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre(
                           "subscribeCamera", "unsubscribe", "getImageRemote", "releaseImage", "setFrameRate",
                           "getFrameRate", "setResolution", "setColorSpace", "setActiveCamera",
                           "getCameraModel", "setCameraParameter", "setAllCameraParametersToDefault",
                           "getCameraList", "getControls", "getStatistics", "getSubscribers"));
}

} // namespace KR
