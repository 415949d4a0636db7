#include "krplatform/krcamerainfo.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krvideodeviceproxy.hpp"

#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;

TEST(KRCameraInfo, EveryFieldOfTheServicesAnswerArrives) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "KRVideoDevice", [](TestModule& m) {
        m.add("getCameraList", [] {
            return KRValue::array(KRValue::array(0, "test", 1, "open", "", 640, 480, 2),
                                  KRValue::array(1, "v4l2:/dev/video0", 3, "failed", "gone", 0, 0, 1));
        });
        m.add("getControls", [](int camera) {
            return KRValue::array(KRValue::array(0x00980900, "brightness", -100, 100, 1, 0, camera));
        });
        m.add("getStatistics", [] {
            return KRValue::array(
                KRValue::array("me_1", 0, 90, 10, 1.5F, 2.5F, 3.5F, 33, 34, 35, 4.0F, 5.0F, 6.0F));
        });
        m.add("getSubscribers", [] { return KRValue::array(KRValue::array("me_1", 0, 2, 9, 30)); });
    });
    const KRVideoDeviceProxy proxy(broker);

    const std::vector<KRCameraInfo> cameras = proxy.getCameraList();
    ASSERT_EQ(cameras.size(), 2U);
    EXPECT_EQ(cameras[0].state, "open");
    EXPECT_EQ(cameras[0].subscribers, 2);
    EXPECT_EQ(cameras[1].toKRValue(), KRValue::array(1, "v4l2:/dev/video0", 3, "failed", "gone", 0, 0, 1));

    const std::vector<KRCameraControl> controls = proxy.getControls(7);
    ASSERT_EQ(controls.size(), 1U);
    EXPECT_EQ(controls[0].value, 7);
    EXPECT_EQ(controls[0].toKRValue(), KRValue::array(0x00980900, "brightness", -100, 100, 1, 0, 7));

    const std::vector<KRSubscriptionStatistics> statistics = proxy.getStatistics();
    ASSERT_EQ(statistics.size(), 1U);
    EXPECT_EQ(statistics[0].interval.p99_ms, 34);
    EXPECT_EQ(statistics[0].toKRValue(),
              KRValue::array("me_1", 0, 90, 10, 1.5F, 2.5F, 3.5F, 33.0F, 34.0F, 35.0F, 4.0F, 5.0F, 6.0F));

    const std::vector<KRSubscriberInfo> subscribers = proxy.getSubscribers();
    ASSERT_EQ(subscribers.size(), 1U);
    EXPECT_EQ(subscribers[0].toKRValue(), KRValue::array("me_1", 0, 2, 9, 30));
}

TEST(KRCameraInfo, AMalformedAnswerIsAnError) {
    EXPECT_THROW(KRCameraInfo::fromKRValue(KRValue::array(0, "test", 1)), KRError);
    EXPECT_THROW(KRCameraControl::fromKRValue(KRValue::array(1, 2, 3, 4, 5, 6, 7)), KRError);
    EXPECT_THROW(KRSubscriberInfo::fromKRValue(KRValue("me_1")), KRError);
    EXPECT_THROW(KRSubscriptionStatistics::fromKRValue({}), KRError);
}

} // namespace
} // namespace KR
