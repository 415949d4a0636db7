#include "service/krimagesubscription.hpp"

#include "camera/krframe.hpp"
#include "conversion/krconverter.hpp"

#include <gtest/gtest.h>

namespace KR {

/// A subscription, and frames without a camera.
class SubscriptionAccountTest : public testing::Test {
protected:
    SubscriptionAccountTest() { initGStreamer(); }

    static std::shared_ptr<KRFrame> makeFrame(std::uint64_t number) {
        KRCapture capture;
        gst_video_info_set_format(&capture.info, GST_VIDEO_FORMAT_GRAY8, 320, 240);
        capture.buffer.reset(gst_buffer_new_allocate(nullptr, capture.info.size, nullptr));
        return std::make_shared<KRFrame>(number, capture, std::make_shared<KRConverter>());
    }
    bool take(std::uint64_t number) {
        return subscription.take(makeFrame(number), subscription.getPosition());
    }
    int countMissed() const { return subscription.getStatistics("").missed; }

    KRImageSubscription subscription{1, {0, 2, 9, 30}};
};

TEST_F(SubscriptionAccountTest, AFrameThatAnotherThreadTookOrANewerOneIsRefused) {
    const KRImageSubscription::Position position = subscription.getPosition();
    const auto frame = makeFrame(5);
    EXPECT_TRUE(subscription.take(frame, position));
    EXPECT_FALSE(subscription.take(frame, position));
    EXPECT_FALSE(subscription.take(makeFrame(4), position));
    EXPECT_EQ(subscription.getPosition().lastFrame, 5U);
    EXPECT_EQ(countMissed(), 0);
}

TEST_F(SubscriptionAccountTest, AFrameOfThePreviousCameraIsRefused) {
    EXPECT_TRUE(take(100));
    const KRImageSubscription::Position before = subscription.getPosition();
    subscription.setCamera(1);
    EXPECT_FALSE(subscription.take(makeFrame(101), before));
    EXPECT_TRUE(take(1));
}

TEST_F(SubscriptionAccountTest, OneThatHasEndedAcceptsNoFrame) {
    const KRImageSubscription::Position before = subscription.getPosition();
    subscription.end();
    EXPECT_TRUE(subscription.getPosition().ended);
    EXPECT_FALSE(subscription.take(makeFrame(1), before));
}

TEST_F(SubscriptionAccountTest, HoldsOneFrameUntilTheNextOrTheReleaseOrTheEnd) {
    const auto isHeld = [](const std::weak_ptr<KRFrame>& frame) { return !frame.expired(); };
    const auto takeOne = [this](std::uint64_t number) -> std::weak_ptr<KRFrame> {
        const auto frame = makeFrame(number);
        EXPECT_TRUE(subscription.take(frame, subscription.getPosition()));
        return frame;
    };
    const auto first = takeOne(1);
    EXPECT_TRUE(isHeld(first));
    const auto second = takeOne(2);
    EXPECT_FALSE(isHeld(first));
    EXPECT_TRUE(isHeld(second));
    subscription.release();
    EXPECT_FALSE(isHeld(second));
    const auto third = takeOne(3);
    subscription.end();
    EXPECT_FALSE(isHeld(third));
}

TEST_F(SubscriptionAccountTest, CountsTheMissedFramesOfOneCamera) {
    EXPECT_TRUE(take(10));
    EXPECT_EQ(countMissed(), 0);
    EXPECT_TRUE(take(11));
    EXPECT_EQ(countMissed(), 0);
    EXPECT_TRUE(take(14));
    EXPECT_EQ(countMissed(), 2);
    subscription.setCamera(1);
    EXPECT_TRUE(take(7));
    EXPECT_EQ(countMissed(), 2);
}

} // namespace KR
