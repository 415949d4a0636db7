#include "doorbell.hpp"
#include "krmotionextractor.hpp"

#include "patience.hpp"
#include "servedprogram.hpp"
#include "testdomain.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using KR::test::eventually;
using KR::test::RunningProgram;

class Bell : public testing::Test {
protected:
    KR::KRModuleHandle<Doorbell> hang(const std::string& event, int pause_ms) {
        return KR::createModule<Doorbell>(broker_, "Doorbell", event, pause_ms,
                                          [this](const std::string&, const KR::KRValue&) { ++rings_; });
    }

    const boost::shared_ptr<KR::KRBroker> broker_ = KR::KRBroker::create("local:");
    KR::KRMemoryProxy memory_{broker_};
    std::atomic<int> rings_ = 0;
};

TEST_F(Bell, RunsTheExtractorOfItsEventWhileItExists) {
    const auto camera =
        KR::createModule<KR::KRVideoDevice>(broker_, "KRVideoDevice", std::vector<std::string>{"test"});
    auto bell = hang("Motion/MotionDetected", 0);
    const auto motion = KR::createModule<KRMotionExtractor>(broker_, "Motion"); // started after its client
    EXPECT_TRUE(eventually([&] { return rings_ > 2; }));
    EXPECT_TRUE(motion->isProcessing());
    bell = {};
    EXPECT_TRUE(eventually([&] { return !motion->isProcessing(); }));
}

TEST_F(Bell, RingsForEachEventWithoutAPause) {
    const auto bell = hang("Somebody/Event", 0);
    for (int i = 0; i < 3; ++i) {
        memory_.raiseEvent("Somebody/Event", i);
    }
    EXPECT_TRUE(eventually([&] { return memory_.getData("Doorbell/Rings").to<int>() == 3; }));
    EXPECT_EQ(rings_, 3);
}

TEST_F(Bell, DoesNotRingTwiceWithinItsPause) {
    constexpr int kHour_ms = 3'600'000;
    const auto bell = hang("Somebody/Event", kHour_ms);
    bell->onEvent("Somebody/Event", 1);
    bell->onEvent("Somebody/Event", 2);
    EXPECT_EQ(rings_, 1);
    EXPECT_EQ(memory_.getData("Doorbell/Rings").to<int>(), 1);
}

TEST(DoorbellProgram, PrintsTheEventsOfAnotherProcess) {
    const KR::test::TestDomain domain;
    const auto broker = domain.createBroker("lease=30&memory=here");
    RunningProgram program({domain.getUrl(), "Somebody/Event"}, "waiting for Somebody/Event");
    ASSERT_TRUE(program.isUp()) << program.readErr();
    KR::KRMemoryProxy(broker).raiseEvent("Somebody/Event", KR::KRValue::array(3, "left"));
    EXPECT_TRUE(program.waitFor("Somebody/Event [3, \"left\"]")) << program.readOut();
    EXPECT_EQ(program.stop().exitCode, 0);
}

TEST(DoorbellProgram, CanBeEndedWithoutAMemoryModule) {
    const KR::test::TestDomain domain;
    RunningProgram program({domain.getUrl()}, "waiting for the memory module");
    EXPECT_TRUE(program.isUp()) << program.readErr();
    EXPECT_EQ(program.stop().exitCode, 0);
}

TEST(DoorbellProgram, RefusesAWrongAddress) {
    EXPECT_EQ(KR::test::kr({"dds:?domain=900"}).exitCode, 1);
    EXPECT_EQ(KR::test::kr({"--help"}).exitCode, 2);
}

} // namespace
