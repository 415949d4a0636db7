#include "otherprocess.hpp"
#include "sharedmemory.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <recordedlog.hpp>

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krvisionextractor.hpp>

#include <gtest/gtest.h>

namespace KR::test {

namespace {

constexpr int kVga = 2;
constexpr int kYuv422 = 9;

/// Counts its images.
class Counter : public KRVisionExtractor {
public:
    Counter(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : KRVisionExtractor(std::move(broker), name, kVga, kYuv422, 30, 0) {}

    void xStartImageProcessing() override {}
    void xProcessImage(KRImage* image) override {
        if (image->width == 640 && image->height == 480) {
            ++count;
        }
    }
    void xStopImageProcessing() override {}

    bool getsImages(int more) const {
        return eventually([this, until = count + more] { return count >= until; });
    }

    std::atomic<int> count = 0;
};

TEST(KRDDSCamera, SubscriptionsOfAProcessThatIsKilledEnd) {
    const TestDomain domain;
    const RecordedLog log;
    const auto broker = domain.createBroker("lease=2");
    const auto camera =
        createModule<KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{"test"});
    OtherProcess watcher(domain.getUrl("lease=2"), {"watcher", "Watcher"});
    ASSERT_EQ(watcher.getAnswer(), "ready");
    ASSERT_TRUE(log.waitFor(KRLogLevel::Info, "camera 0 (test) is open"));
    watcher.kill();
    EXPECT_TRUE(log.waitFor(KRLogLevel::Info, "subscription Watcher_1 has ended"));
    EXPECT_TRUE(log.waitFor(KRLogLevel::Info, "camera 0 (test) is closed"));
}

TEST(KRDDSCamera, AnExtractorGetsItsImagesFromAnotherProcessAndGoesOnWhenThatComesBack) {
    const TestDomain domain;
    const std::string url = domain.getUrl("lease=2");
    auto server = std::make_unique<OtherProcess>(url, std::vector<std::string>{"camera", "KRVideoDevice"});
    const auto broker = domain.createBroker("memory=here&lease=2");
    ASSERT_TRUE(broker->getSession().waitForService("KRVideoDevice", kPatience));
    const auto counter = createModule<Counter>(broker, "Counter");
    counter->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(counter->getsImages(10));
    server->kill();
    ASSERT_TRUE(eventually([&] { return broker->getModuleList().size() == 2; }));
    EXPECT_TRUE(counter->isProcessing());
    server = std::make_unique<OtherProcess>(url, std::vector<std::string>{"camera", "KRVideoDevice"});
    EXPECT_TRUE(counter->getsImages(10));
    counter->unsubscribe("client");
    EXPECT_FALSE(counter->isExiting());
}

TEST(KRDDSCamera, SubscriptionsOfOtherProcessesGoOn) {
    const TestDomain domain;
    const RecordedLog log;
    const auto broker = domain.createBroker("lease=2");
    const auto camera =
        createModule<KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{"test"});
    KRVideoDeviceProxy proxy(broker);
    const std::string own = proxy.subscribeCamera("Own", 0, kVga, kYuv422, 30);
    const OtherProcess staying(domain.getUrl("lease=2"), {"watcher", "Staying"});
    ASSERT_EQ(staying.getAnswer(), "ready");
    OtherProcess leaving(domain.getUrl("lease=2"), {"watcher", "Leaving"});
    ASSERT_EQ(leaving.getAnswer(), "ready");
    EXPECT_EQ(proxy.getSubscribers().size(), 3U);
    leaving.kill();
    EXPECT_TRUE(log.waitFor(KRLogLevel::Info, "subscription Leaving_3 has ended"));
    const std::vector<KRSubscriberInfo> left = proxy.getSubscribers();
    ASSERT_EQ(left.size(), 2U);
    EXPECT_EQ(left[0].id, own);
    EXPECT_EQ(left[1].id, "Staying_2");
}

TEST(KRDDSCameraMemory, ImagesLieWhereOtherProcessesCanReadThem) {
    const TestDomain domain;
    const auto broker = domain.createBroker("local=on&lease=30");
    const auto camera =
        createModule<KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{"test"});
    KRVideoDeviceProxy proxy(broker);
    constexpr int kQuarter = 1; // and converted
    constexpr int kBgr = 13;
    for (const auto& [resolution, colorSpace] :
         {std::pair(kVga, kYuv422), std::pair(kVga, kBgr), std::pair(kQuarter, kYuv422)}) {
        const std::string id = proxy.subscribeCamera("Client", 0, resolution, colorSpace, 30);
        const KRValue image = proxy.getImageRemote(id);
        int pixels = 0;
        for (std::size_t i = 0; i < image.getSize(); ++i) {
            if (image[i].isBinary()) {
                ++pixels;
                EXPECT_TRUE(isInSharedMemory(image[i].GetBinary())) << resolution << " " << colorSpace;
            }
        }
        EXPECT_EQ(pixels, 1);
        proxy.unsubscribe(id);
    }
}

} // namespace

} // namespace KR::test
