#include "krmotionextractor.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krvision/krannotations.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

namespace {

/// Counts callbacks and lets the test wait for them.
class Listener : public KR::KRModule {
public:
    Listener(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRModule(std::move(broker), name) {
        functionName("onMotion", "Listener", "");
        addParam("event", "");
        addParam("motion", "");
        advertiseMethod(getCurrentMethodDescription(), this, &Listener::onMotion);
    }
    void onMotion(const std::string&, const KR::KRValue& motion) {
        const std::lock_guard lock(mutex_);
        last_ = motion;
        ++calls_;
        called_.notify_all();
    }
    bool waitForCalls(int calls) {
        std::unique_lock lock(mutex_);
        return called_.wait_for(lock, std::chrono::seconds(60), [&] { return calls_ >= calls; });
    }
    KR::KRValue getLast() {
        const std::lock_guard lock(mutex_);
        return last_;
    }

private:
    std::mutex mutex_;
    std::condition_variable called_;
    int calls_ = 0;    // guarded by mutex_
    KR::KRValue last_; // guarded by mutex_
};

TEST(FindMotion, ReportsTheShareCentreAndBoxOfTheChange) {
    std::vector<unsigned char> before(10 * 5, 100);
    std::vector<unsigned char> now = before;
    now[1 * 10 + 2] = 200; // column 2, row 1
    now[3 * 10 + 4] = 0;   // column 4, row 3
    const Motion motion = findMotion(before, now, 10);
    EXPECT_FLOAT_EQ(motion.amount, 2.0F / 50);
    EXPECT_FLOAT_EQ(motion.x, 3.5F / 10);
    EXPECT_FLOAT_EQ(motion.y, 2.5F / 5);
    EXPECT_FLOAT_EQ(motion.left, 0.2F);
    EXPECT_FLOAT_EQ(motion.top, 0.2F);
    EXPECT_FLOAT_EQ(motion.right, 0.5F);
    EXPECT_FLOAT_EQ(motion.bottom, 0.8F);
}

TEST(FindMotion, TreatsSmallDifferencesAsNoise) {
    const std::vector<unsigned char> before(16, 100);
    const std::vector<unsigned char> now(16, 100 + KRMotionExtractor::kNoise);
    EXPECT_EQ(findMotion(before, now, 4).amount, 0);
}

TEST(KRMotionExtractor, SeesTheBallOfTheTestPictureMove) {
    const auto broker = KR::KRBroker::create("local:");
    const auto camera =
        KR::createModule<KR::KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{"test"});
    const auto listener = KR::createModule<Listener>(broker, "Listener");
    const auto motion = KR::createModule<KRMotionExtractor>(broker, "Motion");
    KR::KRMemoryProxy memory(broker);
    memory.subscribeToEvent("Motion/MotionDetected", "Listener", "onMotion");
    ASSERT_TRUE(listener->waitForCalls(3));
    const KR::KRValue seen = listener->getLast();
    ASSERT_EQ(seen.getSize(), 7U);
    EXPECT_GT(seen[0].to<float>(), 0.0F);
    EXPECT_LT(seen[0].to<float>(), 0.2F); // a ball, not the whole picture
    EXPECT_LT(seen[3].to<float>(), seen[5].to<float>());
    EXPECT_EQ(memory.getData("Motion/Motion").getSize(), 7U);
    const auto annotations = KR::KRAnnotations::fromKRValue(memory.getData("Motion/Annotations"));
    ASSERT_EQ(annotations.boxes.size(), 1U);
    EXPECT_GT(annotations.timeStamp, 0);
    EXPECT_LT(annotations.boxes[0].right - annotations.boxes[0].left, 0.5F);
    memory.unsubscribeFromEvent("Motion/MotionDetected", "Listener");
    EXPECT_FALSE(motion->isProcessing());
}

TEST(KRMotionExtractor, IgnoresMotionBelowItsThreshold) {
    const auto broker = KR::KRBroker::create("local:");
    const auto camera =
        KR::createModule<KR::KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{"test"});
    const auto motion = KR::createModule<KRMotionExtractor>(broker, "Motion");
    const auto proxy = broker->getProxy("Motion");
    proxy->call("setParameterValue", "threshold", 1.0F);
    proxy->call("subscribe", "client", 33, 1.0F);
    KR::KRMemoryProxy memory(broker);
    const auto annotations = [&] { return memory.getData("Motion/Annotations"); };
    while (annotations().getSize() == 0) {
        std::this_thread::yield();
    }
    EXPECT_GT(memory.getData("Motion/Motion")[0].to<float>(), 0.0F);
    EXPECT_TRUE(KR::KRAnnotations::fromKRValue(annotations()).boxes.empty());
    proxy->call("setParameterValue", "threshold", 0.0001F);
    while (KR::KRAnnotations::fromKRValue(annotations()).boxes.empty()) { // until it detects the ball
        std::this_thread::yield();
    }
    EXPECT_THROW(proxy->call("setParameterValue", "threshold", 1.5F), KR::KRError);
    proxy->call("unsubscribe", "client");
}

TEST(KRMotionExtractor, DetectsNothingInAStillPicture) {
    const auto broker = KR::KRBroker::create("local:");
    const auto camera = KR::createModule<KR::KRVideoDevice>(broker, "KRVideoDevice",
                                                            std::vector<std::string>{"test:checkers-8"});
    const auto motion = KR::createModule<KRMotionExtractor>(broker, "Motion");
    const auto proxy = broker->getProxy("Motion");
    proxy->call("subscribe", "client", 33, 1.0F);
    KR::KRMemoryProxy memory(broker);
    while (memory.getData("Motion/Motion").getSize() == 0) {
        std::this_thread::yield(); // until a second image has been compared with the first
    }
    EXPECT_EQ(memory.getData("Motion/Motion")[0], KR::KRValue(0.0F));
    while (memory.getData("Motion/Annotations").getSize() == 0) {
        std::this_thread::yield(); // written after the motion itself
    }
    EXPECT_TRUE(KR::KRAnnotations::fromKRValue(memory.getData("Motion/Annotations")).boxes.empty());
    proxy->call("unsubscribe", "client");
}

} // namespace
