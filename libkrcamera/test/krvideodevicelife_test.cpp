// Subscriptions to cameras that fail and recover.

#include "cameratest.hpp"

#include "../../libkrplatform/test/patience.hpp"

namespace KR {

using testing::HasSubstr;
using testing::StartsWith;

class LifeTest : public CameraTest {
protected:
    /// The end of a film simulates unplugging a camera; while the file exists, it can be plugged in again.
    LifeTest() {
        writeFilm(film);
        source = "gst:filesrc location=" + film + " ! decodebin";
    }

    void unplug() { std::filesystem::rename(film, film + ".away"); }
    void plugIn() { std::filesystem::rename(film + ".away", film); }
    std::string getFailure(int camera = 0) {
        return proxy->getCameraList().at(static_cast<std::size_t>(camera)).failure;
    }
    std::string failureOfFetch(const std::string& id) {
        std::string error;
        EXPECT_TRUE(test::eventually([&] {
            error = errorOf([&] { fetch(id); });
            return error.find("has failed") != std::string::npos;
        }));
        return error;
    }
    bool fetches(const std::string& id) {
        return test::eventually([&] { return errorOf([&] { fetch(id); }) == "no error"; });
    }

    TemporaryFolder folder;
    const std::string film = folder / "film.avi";
    std::string source;
};

TEST_F(LifeTest, SubscriptionsSurviveAFailure) {
    start({source});
    const std::string one = subscribe();
    const std::string two = subscribe(0, Resolution::QuarterVga, Space::Bgr);
    const std::int64_t before = fetch(one).time_usec;
    fetch(two);
    unplug();
    EXPECT_THAT(failureOfFetch(one), StartsWith("getImageRemote: camera 0 (" + source + ") has failed: "));
    waitUntil([&] { return getFailure().find("No such file") != std::string::npos; });
    EXPECT_THAT(failureOfFetch(two), HasSubstr("No such file"));
    plugIn();
    EXPECT_TRUE(fetches(one));
    EXPECT_TRUE(fetches(two));
    std::int64_t time = 0;
    EXPECT_TRUE(
        test::eventually([&] { return errorOf([&] { time = fetch(one).time_usec; }) == "no error"; }));
    EXPECT_GT(time, before);
}

TEST_F(LifeTest, ANewSubscriberMakesAFailedCameraRetryAtOnce) {
    start({source});
    const std::string id = subscribe();
    unplug();
    waitUntil([&] { return getFailure().find("No such file") != std::string::npos; });
    EXPECT_THAT(errorOf([&] { subscribe(); }),
                StartsWith("subscribeCamera: camera 0 (" + source + ") cannot be opened: "));
    EXPECT_EQ(proxy->getSubscribers().size(), 1U);
    plugIn();
    const std::string later = subscribe();
    EXPECT_TRUE(fetches(later));
    EXPECT_TRUE(fetches(id));
}

TEST_F(LifeTest, AFailedCameraCanBeUnsubscribedAndClosed) {
    start({source, "test"});
    const std::string moving = subscribe();
    const std::string leaving = subscribe();
    unplug();
    waitUntil([&] { return getFailure().find("No such file") != std::string::npos; });
    proxy->releaseImage(leaving);
    EXPECT_TRUE(proxy->setResolution(leaving, 1));
    EXPECT_TRUE(proxy->setActiveCamera(moving, 1));
    EXPECT_EQ(fetch(moving).camera, 1);
    proxy->unsubscribe(leaving);
    EXPECT_EQ(proxy->getCameraList()[0].state, "closed");
    EXPECT_EQ(getThreadNames().count("KRCamera 0"), 0U);
    EXPECT_TRUE(
        test::eventually([&] { return errorOf([&] { proxy->setActiveCamera(moving, 0); }) != "no error"; }));
    EXPECT_EQ(fetch(moving).camera, 1);
}

TEST_F(LifeTest, ControlsSurviveAFailure) {
    start({"file:" + film});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    EXPECT_TRUE(proxy->setCameraParameter(id, 0x00980914, 1));
    const auto isTurned = [](const Image& image) {
        return image.at(314, 5)[1] > 200 && image.at(5, 5)[1] < 200;
    };
    fetchUntil(id, isTurned);
    std::filesystem::resize_file(film, 100); // it cannot restart at its end
    waitUntil([&] { return !getFailure().empty(); });
    writeFilm(film);
    waitUntil([&] { return getFailure().empty(); });
    EXPECT_TRUE(fetches(id));
    fetchUntil(id, isTurned);
}

TEST_F(LifeTest, APausedSubscriptionSurvivesAFailure) {
    start({source});
    const std::string paused = subscribe(0, Resolution::QuarterVga, Space::Bgr);
    fetch(paused);
    proxy->releaseImage(paused);
    unplug();
    waitUntil([&] { return getFailure().find("No such file") != std::string::npos; });
    plugIn();
    waitUntil([&] { return getFailure().empty(); });
    EXPECT_TRUE(fetches(paused));
    const std::vector<KRSubscriptionStatistics> statistics = proxy->getStatistics();
    EXPECT_EQ(statistics[0].id, paused);
    EXPECT_GE(statistics[0].delivered, 2);
}

} // namespace KR
