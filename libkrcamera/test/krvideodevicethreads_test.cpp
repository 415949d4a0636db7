#include "cameratest.hpp"

#include "../../libkrplatform/test/patience.hpp"

#include <atomic>
#include <random>
#include <thread>

namespace KR {

using testing::HasSubstr;

class ThreadTest : public CameraTest {
protected:
    /// Calls the function while a fetch waits for an image of a slow camera.
    /// \return the error of the fetch
    std::string interruptFetch(const std::function<void(const std::string& id)>& interrupt) {
        std::string error;
        EXPECT_TRUE(test::eventually([&] { // on a busy machine the fetch may time out first
            start({"gst:videotestsrc is-live=true ! video/x-raw,framerate=1/60"});
            const std::string id = subscribe(0, Resolution::Vga, Space::Yuv422, 1);
            fetch(id);
            auto fetching =
                test::startAndLetSleep([&] { return errorOf([&] { proxy->getImageRemote(id); }); });
            interrupt(id);
            error = test::resultOf(fetching);
            return error.find("no image within") == std::string::npos;
        }));
        return error;
    }
};

namespace {

const std::string stalled = "gst:videotestsrc is-live=true ! valve drop=true";

} // namespace

TEST_F(ThreadTest, EightThreadsChangeSettingsAtRandom) {
    start({"test", "test:smpte", "gst:videotestsrc is-live=true ! video/x-raw,width=320,height=240"});
    std::vector<std::string> shared;
    for (int camera = 0; camera < 3; ++camera) {
        shared.push_back(subscribe(camera));
    }
    std::vector<std::thread> threads;
    std::atomic<int> images{0};
    for (unsigned seed = 1; seed <= 8; ++seed) {
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            const auto below = [&random](int bound) {
                return std::uniform_int_distribution<>(0, bound - 1)(random);
            };
            std::string own = subscribe(below(3));
            for (int i = 0; i < 60; ++i) {
                const std::string id = below(2) == 0 ? own : shared[static_cast<std::size_t>(below(3))];
                switch (below(10)) {
                case 0:
                    EXPECT_TRUE(proxy->setResolution(id, std::array{0, 1, 2, 7, 8, 12, 16, 17}[below(8)]));
                    break;
                case 1:
                    EXPECT_TRUE(proxy->setColorSpace(id, std::array{0, 9, 11, 13, 18}[below(5)]));
                    break;
                case 2:
                    EXPECT_TRUE(proxy->setFrameRate(id, 1 + below(30)));
                    break;
                case 3:
                    EXPECT_TRUE(proxy->setActiveCamera(id, below(3)));
                    break;
                case 4:
                    // A shared subscription may have moved to the camera without parameters.
                    if (const std::string error =
                            errorOf([&] { proxy->setCameraParameter(id, 0x00980900, below(200) - 100); });
                        error != "no error") {
                        EXPECT_THAT(error, HasSubstr("it has: none"));
                    }
                    break;
                case 5:
                    proxy->setAllCameraParametersToDefault(id);
                    break;
                case 6:
                    proxy->unsubscribe(own);
                    own = subscribe(below(3));
                    break;
                default:
                    // Several threads may compete for the images of a shared subscription.
                    if (const std::string error =
                            errorOf([&] { const Image image(proxy->getImageRemote(id)); });
                        error != "no error") {
                        EXPECT_THAT(error, HasSubstr("no image within"));
                    } else {
                        ++images;
                    }
                    proxy->releaseImage(id);
                }
            }
            proxy->unsubscribe(own);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(images, 0);
    for (const std::string& id : shared) {
        fetch(id);
        proxy->unsubscribe(id);
    }
}

TEST_F(ThreadTest, ACameraThatOpensSlowlyDoesNotBlockOthers) {
    start({"test", stalled});
    proxy->setServiceTimeout(std::chrono::milliseconds(0)); // do not wait for another service
    std::string error;
    std::atomic<bool> done{false};
    std::thread opening([&] {
        error = errorOf([&] { subscribe(1); });
        done = true;
    });
    waitUntil([] { return getThreadNames().count("KRCamera 1") == 1; });
    const std::string id = subscribe(0);
    fetch(id);
    EXPECT_TRUE(proxy->setResolution(id, 1));
    proxy->unsubscribe(id);
    EXPECT_FALSE(done);
    service.reset();
    opening.join();
    EXPECT_EQ(error, "subscribeCamera: camera 1 (" + stalled +
                         ") cannot be opened: the camera service is shutting down");
}

TEST_F(ThreadTest, AWaitingFetchEndsWithTheService) {
    EXPECT_EQ(interruptFetch([this](const std::string&) { service.reset(); }),
              "getImageRemote: the camera service is shutting down");
    EXPECT_EQ(getThreadNames().count("KRCamera 0"), 0U);
}

TEST_F(ThreadTest, AWaitingFetchEndsWithItsSubscription) {
    EXPECT_EQ(interruptFetch([this](const std::string& id) { proxy->unsubscribe(id); }),
              "getImageRemote: subscription \"test_1\" has ended");
}

TEST_F(ThreadTest, AWaitingFetchFollowsItsSubscriptionToAnotherCamera) {
    start({"gst:videotestsrc is-live=true ! video/x-raw,framerate=1/60", "test"});
    const std::string id = subscribe(0, Resolution::Vga, Space::Yuv422, 1);
    fetch(id);
    std::atomic<bool> fetching{false};
    int camera = -1;
    std::thread waiting([&] {
        fetching = true;
        camera = fetch(id).camera;
    });
    waitUntil([&] { return fetching.load(); });
    EXPECT_TRUE(proxy->setActiveCamera(id, 1));
    waiting.join();
    EXPECT_EQ(camera, 1);
}

TEST_F(ThreadTest, TheServiceCanRestartWhileItHasSubscribers) {
    for (int i = 0; i < 3; ++i) {
        start({"test", "test"});
        fetch(subscribe(0));
        fetch(subscribe(1));
        service.reset();
        EXPECT_EQ(getThreadNames().count("KRCamera 0") + getThreadNames().count("KRCamera 1"), 0U);
    }
}

} // namespace KR
