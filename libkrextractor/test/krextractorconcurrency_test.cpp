#include "recordingextractor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <limits>
#include <thread>

namespace KR::test {
namespace {

TEST(KRExtractorConcurrency, StartAndStopHooksNeverOverlap) {
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<RecordingExtractor>(broker, "Faces");
    std::atomic<int> inside = 0;
    std::atomic<bool> overlapped = false;
    extractor->onHook = [&](const std::string& hook) {
        if (hook == "update") {
            return; // may overlap the others
        }
        overlapped = overlapped || inside.fetch_add(1) != 0;
        std::this_thread::yield();
        inside.fetch_sub(1);
    };
    constexpr int kThreads = 8;
    constexpr int kRounds = 200;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, name = "client" + std::to_string(t), period = 10 + t] {
            const auto proxy = broker->getProxy("Faces");
            start.arrive_and_wait();
            for (int i = 0; i < kRounds; ++i) {
                proxy->call("subscribe", name, period, 0.5F);
                proxy->call("updatePeriod", name, period + 1);
                proxy->call("updatePrecision", name, 1.5F);
                EXPECT_EQ(proxy->call<int>("getMyPeriod", name), period + 1);
                EXPECT_LE(proxy->call<int>("getCurrentPeriod"), period + 1);
                proxy->call<KRValue>("getSubscribersInfo");
                proxy->call("unsubscribe", name);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(extractor->getCurrentPeriod(), -1);
    EXPECT_EQ(extractor->getSubscribersInfo().getSize(), 0U);
}

TEST(KRExtractorConcurrency, AnUpdateDoesNotWaitForASubscribeInProgress) {
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<RecordingExtractor>(broker, "Faces");
    std::promise<void> started;
    std::promise<void> goOn;
    extractor->onHook = [&](const std::string& hook) {
        if (hook == "start") {
            started.set_value();
            goOn.get_future().wait();
        }
    };
    auto subscribe = std::async(std::launch::async, [&] { extractor->subscribe("A", 100, 0.5F); });
    started.get_future().wait();
    extractor->updatePeriod("A", 50); // returns while the start hook still runs
    EXPECT_EQ(extractor->getCurrentPeriod(), 50);
    goOn.set_value();
    subscribe.get();
}

/// Remembers the period passed to the hook that finished last; the test can block one hook.
class SlowExtractor : public RecordingExtractor {
public:
    using RecordingExtractor::RecordingExtractor;
    void xStartDetection(int period, float /*precision*/) override { take(period); }
    void xUpdateParameters(int period, float /*precision*/) override { take(period); }

    int getTaken() const { return taken_; }
    void holdBack(int period) { heldBack_ = period; }
    void waitUntilHeld() { held_.get_future().wait(); }
    void release() { release_.set_value(); }

private:
    void take(int period) {
        int expected = period;
        if (heldBack_.compare_exchange_strong(expected, 0)) {
            held_.set_value();
            release_.get_future().wait();
        }
        taken_ = period;
    }

    std::atomic<int> heldBack_ = 0;
    std::atomic<int> taken_ = 0;
    std::promise<void> held_;
    std::promise<void> release_;
};

TEST(KRExtractorConcurrency, ALateHookIsFollowedByOneWithTheCurrentValues) {
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<SlowExtractor>(broker, "Faces");
    extractor->subscribe("A", 50, 0.5F);
    extractor->holdBack(33);
    auto late = std::async(std::launch::async, [&] { extractor->updatePeriod("A", 33); });
    extractor->waitUntilHeld();
    extractor->updatePeriod("A", 100);
    EXPECT_EQ(extractor->getTaken(), 100);
    extractor->release();
    late.get();
    EXPECT_EQ(extractor->getCurrentPeriod(), 100);
    EXPECT_EQ(extractor->getTaken(), 100);
}

TEST(KRExtractorConcurrency, AnUpdateDuringTheStartAppliesAfterIt) {
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<SlowExtractor>(broker, "Faces");
    extractor->holdBack(50);
    auto start = std::async(std::launch::async, [&] { extractor->subscribe("A", 50, 0.5F); });
    extractor->waitUntilHeld();
    extractor->updatePeriod("A", 100);
    extractor->release();
    start.get();
    EXPECT_EQ(extractor->getTaken(), 100);
}

TEST(KRExtractorConcurrency, OverlappingUpdatesEndWithTheCurrentValues) {
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<SlowExtractor>(broker, "Faces");
    extractor->subscribe("A", 50, 0.5F);
    constexpr int kThreads = 4;
    for (int round = 0; round < 300; ++round) {
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, period = 10 + round * kThreads + t] {
                start.arrive_and_wait();
                extractor->updatePeriod("A", period);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(extractor->getTaken(), extractor->getCurrentPeriod());
    }
}

TEST(KRExtractorConcurrency, ANaNPrecisionIsReportedOnce) {
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<RecordingExtractor>(broker, "Faces");
    extractor->subscribe("A", 50, std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(extractor->takeHooks(), std::vector<std::string>{"start 50 nan"});
}

TEST(KRExtractorConcurrency, UpdatingASubscriberThatHasJustLeftIsAnError) {
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<RecordingExtractor>(broker, "Faces");
    std::atomic<bool> done = false;
    std::thread updater([&] {
        while (!done) {
            try {
                extractor->updatePeriod("A", 20);
            } catch (const KRError&) { // it had left before or during the call
            }
        }
    });
    for (int i = 0; i < 2000; ++i) {
        extractor->subscribe("A", 10, 0.0F);
        extractor->unsubscribe("A");
    }
    done = true;
    updater.join();
    EXPECT_EQ(extractor->getCurrentPeriod(), -1);
}

TEST(KRExtractorConcurrency, DestroyingTheModuleDuringSubscriptionsLeavesNoDetectionRunning) {
    for (int round = 0; round < 50; ++round) {
        const auto broker = KRBroker::create("local:");
        std::atomic<int> detections = 0;
        auto extractor = createModule<RecordingExtractor>(broker, "Faces");
        extractor->onHook = [&](const std::string& hook) {
            detections += hook == "start" ? 1 : hook == "stop" ? -1 : 0;
        };
        std::latch start(3);
        std::vector<std::thread> clients;
        for (const char* name : {"A", "B"}) {
            clients.emplace_back([&, name] {
                const auto proxy = broker->getProxy("Faces");
                start.arrive_and_wait();
                try {
                    for (;;) {
                        proxy->call("subscribe", name, 10, 0.0F);
                        proxy->call("unsubscribe", name);
                    }
                } catch (const KRError&) { // the module was destroyed
                }
            });
        }
        start.arrive_and_wait();
        extractor.reset();
        for (std::thread& client : clients) {
            client.join();
        }
        EXPECT_EQ(detections, 0);
    }
}

} // namespace
} // namespace KR::test
