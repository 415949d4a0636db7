#include "krplatform/krclock.hpp"

#include "krplatform/krbroker.hpp"

#include "patience.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <limits>

namespace KR {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using test::startAndLetSleep;

constexpr std::int64_t kBeginning_usec = 1'500'000'000'000'000;

KRRecordingClock& getRecordingClock(KRBroker& broker) {
    return dynamic_cast<KRRecordingClock&>(broker.getClock());
}

TEST(KRClock, IsTheMachinesUnlessTheAddressSaysOtherwise) {
    const auto broker = KRBroker::create("local:");
    KRClock& clock = broker->getClock();
    EXPECT_FALSE(clock.isRecording());
    EXPECT_FALSE(clock.hasEnded());
    const auto before = std::chrono::steady_clock::now();
    const auto start = clock.now();
    clock.sleepMilliseconds(2);
    clock.pace(clock.now() + milliseconds(2));
    EXPECT_GE(clock.now() - start, milliseconds(4));
    EXPECT_GE(start, before);
    const auto unix_usec =
        std::chrono::duration_cast<microseconds>(std::chrono::system_clock::now().time_since_epoch());
    EXPECT_NEAR(static_cast<double>(clock.getTime_usec()), static_cast<double>(unix_usec.count()), 60e6);
}

TEST(KRClock, OfARecordingWorksWithAndWithoutMemory) {
    EXPECT_TRUE(KRBroker::create("local:?clock=recording")->getClock().isRecording());
    for (const char* url : {"local:?clock=recording&memory=none", "local:?memory=none&clock=recording"}) {
        const auto broker = KRBroker::create(url);
        EXPECT_TRUE(broker->getClock().isRecording());
        EXPECT_TRUE(broker->getModuleList().empty());
    }
}

TEST(KRRecordingClock, FollowsTheTimeStampsOfImages) {
    KRRecordingClock clock;
    clock.advanceTo(kBeginning_usec);
    EXPECT_EQ(clock.getTime_usec(), kBeginning_usec);
    const auto start = clock.now();
    clock.advanceTo(kBeginning_usec + 40'000);
    EXPECT_EQ(clock.getTime_usec(), kBeginning_usec + 40'000);
    EXPECT_EQ(clock.now() - start, milliseconds(40));
}

TEST(KRRecordingClock, AdvancesByTheUsualStepWithoutUsableTimeStamps) {
    constexpr auto kFirst = std::numeric_limits<std::int64_t>::min();
    constexpr auto kLast = std::numeric_limits<std::int64_t>::max();
    KRRecordingClock clock;
    clock.advanceTo(100);
    auto before = clock.now();
    for (const std::int64_t timeStamp : {std::int64_t{100}, std::int64_t{-1}, kLast, kFirst, kLast}) {
        clock.advanceTo(timeStamp);
        EXPECT_EQ(clock.now() - before, KRRecordingClock::kUsualStep);
        EXPECT_EQ(clock.getTime_usec(), timeStamp);
        before = clock.now();
    }
}

TEST(KRRecordingClock, ASleepOfTheFetchingThreadAdvancesTheClock) {
    KRRecordingClock clock;
    clock.advanceTo(kBeginning_usec);
    const auto start = clock.now();
    clock.sleepUntil(start + hours(1)); // would take too long for this test
    EXPECT_EQ(clock.now() - start, hours(1));
    EXPECT_EQ(clock.getTime_usec(), kBeginning_usec + 3'600'000'000);
    clock.advanceTo(kBeginning_usec + 1000); // too late: the clock never goes back
    EXPECT_EQ(clock.now() - start, hours(1));
    EXPECT_EQ(clock.getTime_usec(), kBeginning_usec + 1000);
}

TEST(KRRecordingClock, PacingTakesNoTime) {
    KRRecordingClock clock;
    clock.advanceTo(kBeginning_usec);
    const auto start = clock.now();
    clock.pace(start + hours(1));
    EXPECT_EQ(clock.now(), start);
}

TEST(KRRecordingClock, ASleepBeforeTheFirstImageAdvancesTheClock) {
    KRRecordingClock clock;
    const auto start = clock.now();
    clock.sleepMilliseconds(3'600'000);
    EXPECT_EQ(clock.now() - start, hours(1));
    clock.sleepMilliseconds(-5);
    EXPECT_EQ(clock.now() - start, hours(1));
}

TEST(KRRecordingClock, AnotherThreadSleepsUntilAnImageIsLateEnough) {
    KRRecordingClock clock;
    clock.advanceTo(kBeginning_usec);
    auto sleeper = startAndLetSleep([&] { clock.sleepMilliseconds(100); });
    clock.advanceTo(kBeginning_usec + 99'999);
    EXPECT_EQ(sleeper.wait_for(milliseconds(0)), std::future_status::timeout);
    clock.advanceTo(kBeginning_usec + 100'000);
    EXPECT_EQ(sleeper.wait_for(test::kPatience), std::future_status::ready);
}

TEST(KRRecordingClock, ItsEndEndsAllSleeps) {
    KRRecordingClock clock;
    clock.advanceTo(kBeginning_usec);
    auto sleeper = startAndLetSleep([&] { clock.sleepMilliseconds(100); });
    EXPECT_FALSE(clock.hasEnded());
    clock.end();
    EXPECT_EQ(sleeper.wait_for(test::kPatience), std::future_status::ready);
    EXPECT_TRUE(clock.hasEnded());
}

TEST(KRRecordingClock, AWaitForAServiceTakesRecordingTimeOnly) {
    const auto broker = KRBroker::create("local:?clock=recording");
    KRRecordingClock& clock = getRecordingClock(*broker);
    clock.advanceTo(kBeginning_usec);
    const auto start = clock.now();
    EXPECT_TRUE(broker->getSession().waitForService("KRMemory", hours(1)));
    EXPECT_EQ(clock.now(), start);
    EXPECT_FALSE(broker->getSession().waitForService("Nobody", hours(1)));
    EXPECT_EQ(clock.now() - start, hours(1));
    EXPECT_FALSE(broker->getSession().waitForService("Nobody", milliseconds::max()));
}

} // namespace
} // namespace KR
