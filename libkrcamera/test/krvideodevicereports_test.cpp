#include "cameratest.hpp"

#include "../../libkrplatform/test/patience.hpp"

namespace KR {

class ReportTest : public CameraTest {};

TEST_F(ReportTest, TheListOfCamerasShowsTheirStates) {
    start({"test", "file:/nonexistent", "gst:videotestsrc is-live=true ! video/x-raw,width=320,height=240"});
    std::vector<KRCameraInfo> cameras = proxy->getCameraList();
    ASSERT_EQ(cameras.size(), 3U);
    EXPECT_EQ(cameras[0].toKRValue(), KRValue::array(0, "test", 1, "closed", "", 0, 0, 0));
    EXPECT_EQ(cameras[1].toKRValue(), KRValue::array(1, "file:/nonexistent", 2, "closed", "", 0, 0, 0));
    subscribe(0, Resolution::QuarterVga);
    subscribe(2, Resolution::Vga);
    const std::string second = subscribe(2, Resolution::Vga);
    EXPECT_NE(errorOf([&] { subscribe(1); }), "no error");
    cameras = proxy->getCameraList();
    EXPECT_EQ(cameras[0].toKRValue(), KRValue::array(0, "test", 1, "open", "", 640, 480, 1));
    EXPECT_EQ(cameras[1].state, "closed");
    EXPECT_EQ(cameras[2].state, "open");
    EXPECT_EQ(cameras[2].width, 320);
    EXPECT_EQ(cameras[2].subscribers, 2);
    proxy->unsubscribe(second);
    EXPECT_EQ(proxy->getCameraList()[2].subscribers, 1);
}

TEST_F(ReportTest, SubscribersAreListedWithTheirSettingsOldestFirst) {
    start({"test", "test:snow"});
    EXPECT_TRUE(proxy->getSubscribers().empty());
    std::vector<std::string> ids;
    for (int i = 0; i < 11; ++i) {
        ids.push_back(subscribe(0, Resolution::Vga, Space::Yuv422, 30));
    }
    EXPECT_TRUE(proxy->setResolution(ids[1], 5));
    EXPECT_TRUE(proxy->setColorSpace(ids[1], Space::Bgr));
    EXPECT_TRUE(proxy->setFrameRate(ids[1], 12));
    EXPECT_TRUE(proxy->setActiveCamera(ids[1], 1));
    const std::vector<KRSubscriberInfo> subscribers = proxy->getSubscribers();
    ASSERT_EQ(subscribers.size(), ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(subscribers[i].id, ids[i]);
    }
    EXPECT_EQ(subscribers[0].toKRValue(), KRValue::array(ids[0], 0, 2, 9, 30));
    EXPECT_EQ(subscribers[1].toKRValue(), KRValue::array(ids[1], 1, 5, 13, 12));
}

TEST_F(ReportTest, ASubscriptionCountsItsImages) {
    start({"test"});
    const std::string watcher = subscribe();
    const std::string id = subscribe();
    EXPECT_EQ(proxy->getStatistics().at(1).toKRValue(),
              KRValue::array(id, 0, 0, 0, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F));
    fetch(id);
    const auto first = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) {
        fetch(watcher);
    }
    const std::chrono::duration<float, std::milli> pause = std::chrono::steady_clock::now() - first;
    fetch(id); // five images later, or more
    fetch(id);
    proxy->releaseImage(id);
    proxy->releaseImage(id);
    const KRSubscriptionStatistics statistics = proxy->getStatistics().at(1);
    EXPECT_EQ(statistics.id, id);
    EXPECT_EQ(statistics.delivered, 3);
    EXPECT_GE(statistics.missed, 3);
    EXPECT_GT(statistics.age.max_ms, 0);
    EXPECT_GE(statistics.age.p99_ms, statistics.age.median_ms);
    EXPECT_GE(statistics.age.max_ms, statistics.age.p99_ms);
    EXPECT_GT(statistics.interval.max_ms, pause.count() - 1);
    EXPECT_GT(statistics.hold.max_ms, pause.count() - 1); // the first was held until the second came
    EXPECT_LE(statistics.hold.median_ms, statistics.hold.max_ms);
}

TEST_F(ReportTest, ImagesBeforeTheFirstAndOfThePreviousCameraDoNotCountAsMissed) {
    start({"test", "test:snow"});
    const std::string watcher = subscribe(1);
    for (int i = 0; i < 5; ++i) {
        fetch(watcher);
    }
    const std::string id = subscribe(0);
    fetch(id);
    EXPECT_TRUE(proxy->setActiveCamera(id, 1));
    fetch(id);
    EXPECT_EQ(proxy->getStatistics().at(1).missed, 0);
    EXPECT_EQ(proxy->getStatistics().at(1).camera, 1);
}

} // namespace KR
