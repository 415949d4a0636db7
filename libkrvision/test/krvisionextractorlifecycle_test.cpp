#include "fakecamera.hpp"

#include "krplatform/krthread.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <stdexcept>
#include <thread>

namespace KR::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

/// Blocks threads until it is opened.
class Door {
public:
    void open() { promise_.set_value(); }
    void wait() const { opened_.wait(); }

private:
    std::promise<void> promise_;
    std::shared_future<void> opened_ = promise_.get_future().share();
};

TEST(KRVisionExtractorLifecycle, AStartWakesWhenTheRunEndsBeforeItsFirstIteration) {
    Stage stage;
    stage.camera->fail("releaseImage");
    stage.extractor->subscribe("client", 33, 0.0F); // returns although no iteration was completed
    EXPECT_FALSE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.extractor->getMyPeriod("client"), 33);
    const auto undeleted = stage.extractor->takeUndeleted();
}

TEST(KRVisionExtractorLifecycle, AStartWakesWhenAnExceptionEndsTheRun) {
    Stage stage;
    stage.extractor->onImage([](KRImage*) { throw std::runtime_error("escaped"); });
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(stage.extractor->isProcessing()); // unchanged
    stage.extractor->unsubscribe("client");       // stopping still returns
    EXPECT_FALSE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
}

TEST(KRVisionExtractorLifecycle, AnExceptionAfterTheFirstIterationLeavesTheFlagsAndStoppingReturns) {
    std::promise<void> thrown;
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->onImage([&](KRImage*) {
        stage.extractor->onImage(nullptr);
        thrown.set_value();
        throw std::runtime_error("escaped");
    });
    const KRLogListener callLog([&](const KRLogRecord& record) {
        if (record.category == "krplatform.call") {
            stage.log->add(record.message);
        }
    });
    thrown.get_future().wait();
    ASSERT_TRUE(stage.waitForLog("posted call Motion._run failed: escaped"));
    EXPECT_TRUE(stage.extractor->isProcessing());
    stage.extractor->xStartDetection(33, 0.0F);
    EXPECT_TRUE(stage.waitForLog("warning|Motion: Extractor is already running"));
    stage.extractor->unsubscribe("client");
    EXPECT_FALSE(stage.extractor->isProcessing());
    stage.extractor->subscribe("client", 33, 0.0F); // it can run again
    EXPECT_TRUE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.journal.count("subscribeCamera VisionExtractorMotion 0 0 9 30"), 2);
}

TEST(KRVisionExtractorLifecycle, AModuleCanBeDestroyedAfterAnException) {
    Stage stage;
    stage.extractor->onImage([](KRImage*) { throw 42; });
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor.reset();
    EXPECT_EQ(stage.journal.get().back(), "xStopImageProcessing");
}

TEST(KRVisionExtractorLifecycle, AClassThatStopsItselfInItsDestructorGetsOneStopHook) {
    class StopsItself : public TestExtractor {
    public:
        using TestExtractor::TestExtractor;
        ~StopsItself() override { StopsItself::xStopDetection(); }
    };
    for (const bool isDetecting : {true, false}) {
        Journal journal;
        const auto broker = KRBroker::create("local:");
        const auto camera = createModule<FakeCamera>(broker, "KRVideoDevice", journal);
        auto extractor = createModule<StopsItself>(broker, "Motion", journal);
        if (isDetecting) {
            extractor->subscribe("client", 33, 0.0F);
        }
        extractor.reset();
        EXPECT_EQ(journal.count("xStopImageProcessing"), isDetecting ? 1 : 0);
    }
    // A directly constructed module is stopped by nobody else.
    Journal journal;
    const auto broker = KRBroker::create("local:");
    const auto camera = createModule<FakeCamera>(broker, "KRVideoDevice", journal);
    auto extractor = std::make_unique<StopsItself>(broker, "Motion", journal);
    extractor->subscribe("client", 33, 0.0F);
    extractor.reset();
    EXPECT_EQ(journal.count("xStopImageProcessing"), 1);
}

TEST(KRVisionExtractorLifecycle, ASubscribeCannotHangOnAFirstImageThatTakesForever) {
    Door door;
    Stage stage;
    stage.extractor->onImage([&](KRImage*) { door.wait(); });
    const KRLogListener ownLog([&](const KRLogRecord& record) {
        if (record.category == "krvision.acquisition") {
            stage.log->add(record.message);
        }
    });
    stage.extractor->subscribe("client", 33, 0.0F); // gives up waiting after some seconds
    EXPECT_TRUE(stage.waitForLog("Motion: no first image within 5 s, not waiting any longer"));
    stage.extractor->subscribe("other", 50, 0.0F); // the lock of subscriptions is free
    EXPECT_TRUE(stage.extractor->isProcessing());
    door.open();
}

TEST(KRVisionExtractorLifecycle, TheSecondOfTwoStartsGivesUpWhileTheFirstIsStillStarting) {
    Door door;
    Stage stage;
    stage.camera->on("subscribeCamera", [&] { door.wait(); });
    auto first = std::async(std::launch::async, [&] { stage.extractor->xStartDetection(33, 0.0F); });
    ASSERT_TRUE(stage.journal.waitFor("subscribeCamera VisionExtractorMotion 0 0 9 -1000"));
    stage.extractor->xRun(); // returns at once
    EXPECT_THAT(stage.getLog(), Contains("warning|Motion: Extractor is already running"));
    door.open();
    first.get();
    EXPECT_TRUE(stage.extractor->isProcessing());
    stage.extractor->xStopDetection();
}

TEST(KRVisionExtractorLifecycle, OfManyStartsAtOnceOneRuns) {
    Stage stage;
    constexpr int kStarts = 8;
    std::latch start(kStarts);
    std::vector<std::thread> threads;
    for (int i = 0; i < kStarts; ++i) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            stage.extractor->xStartDetection(33, 0.0F);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(stage.journal.count("subscribeCamera VisionExtractorMotion 0 0 9 -1000"), 1);
    // All others find the first one running, no matter how late they come.
    EXPECT_TRUE(stage.log->waitFor("warning|Motion: Extractor is already running", kStarts - 1));
    stage.extractor->xStopDetection();
    EXPECT_FALSE(stage.extractor->isProcessing());
}

TEST(KRVisionExtractorLifecycle, APauseDuringAStopDoesNotBlockTheStop) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    // The stop resumes the loop first and logs that; then another thread pauses it again.
    const KRLogListener listener([&](const KRLogRecord& record) {
        if (record.message == "Motion: Extractor pause status 0") {
            stage.extractor->pause(true);
        }
    });
    stage.extractor->unsubscribe("client");
    EXPECT_FALSE(stage.extractor->isProcessing());
    EXPECT_FALSE(stage.extractor->isPaused());
}

TEST(KRVisionExtractorLifecycle, APausedRunProcessesAnotherImageWhenStopped) {
    Stage stage;
    stage.extractor->onImage([&](KRImage*) { stage.extractor->pause(true); });
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->onImage(nullptr);
    stage.extractor->unsubscribe("client");
    // Perhaps several: the loop runs from the end of the pause until the stop is requested.
    EXPECT_GE(stage.journal.count("xProcessImage"), 2);
    EXPECT_EQ(stage.journal.get().back(), "xStopImageProcessing");
}

TEST(KRVisionExtractorLifecycle, AStopDuringAStartIsNotLost) {
    Door door;
    Stage stage;
    stage.camera->on("subscribeCamera", [&] { door.wait(); });
    auto start = std::async(std::launch::async, [&] { stage.extractor->xStartDetection(33, 0.0F); });
    ASSERT_TRUE(stage.journal.waitFor("subscribeCamera VisionExtractorMotion 0 0 9 -1000"));
    auto stop = std::async(std::launch::async, [&] { stage.extractor->xStopDetection(); });
    // Whether the stop comes before or after the run has begun, the run ends.
    door.open();
    stop.get();
    EXPECT_FALSE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
    try {
        start.get();
    } catch (const KRError&) { // the camera was unsubscribed before its frame rate could be set
    }
}

TEST(KRVisionExtractorLifecycle, ConcurrentStartsAndStopsEndStopped) {
    Stage stage;
    for (int round = 0; round < 30; ++round) {
        std::latch start(2);
        std::thread starter([&] {
            start.arrive_and_wait();
            stage.extractor->xStartDetection(33, 0.0F);
        });
        start.arrive_and_wait();
        stage.extractor->xStopDetection();
        starter.join();
        stage.extractor->xStopDetection();
        EXPECT_FALSE(stage.extractor->isProcessing());
    }
}

TEST(KRVisionExtractorLifecycle, StoppingFromTheAcquisitionThreadIsRefusedAndEndsTheRun) {
    std::promise<std::string> refusal;
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->onImage([&](KRImage*) {
        stage.extractor->onImage(nullptr);
        try {
            stage.extractor->unsubscribe("client");
        } catch (const KRError& error) {
            refusal.set_value(error.getDescription());
        }
    });
    EXPECT_THAT(refusal.get_future().get(), HasSubstr("acquisition thread"));
    stage.extractor->xStopDetection();
    EXPECT_FALSE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
}

TEST(KRVisionExtractorLifecycle, ExitFromTheAcquisitionThreadIsSafe) {
    std::promise<void> exited;
    Stage stage;
    stage.extractor->onImage([&](KRImage*) {
        stage.extractor->onImage(nullptr);
        stage.extractor->exit();
        exited.set_value();
    });
    stage.extractor->subscribe("client", 33, 0.0F);
    exited.get_future().wait();
    EXPECT_TRUE(stage.extractor->isExiting());
    EXPECT_THROW(stage.broker->getProxy("Motion")->call("unsubscribe", "client"), KRError);
    EXPECT_TRUE(stage.journal.waitForMore("xProcessImage")); // the run goes on until it is stopped
    stage.extractor.reset();
    EXPECT_EQ(stage.journal.get().back(), "xStopImageProcessing");
}

TEST(KRVisionExtractorLifecycle, ExitFromAHookMakesTheStartFail) {
    class Leaving : public TestExtractor {
    public:
        using TestExtractor::TestExtractor;
        void xStartImageProcessing() override { exit(); }
    };
    Journal journal;
    const auto broker = KRBroker::create("local:");
    const auto camera = createModule<FakeCamera>(broker, "KRVideoDevice", journal);
    auto leaving = createModule<Leaving>(broker, "Leaving", journal);
    EXPECT_THROW(broker->getProxy("Leaving")->call("subscribe", "client", 33, 0.0F), KRError);
    EXPECT_FALSE(leaving->isProcessing());
    leaving.reset();
    EXPECT_EQ(journal.get().back(), "xStopImageProcessing");
}

TEST(KRVisionExtractorLifecycle, DestroyingTheModuleDuringStartsLeavesNoCameraSubscription) {
    for (int round = 0; round < 10; ++round) {
        Stage stage;
        std::latch start(3);
        std::vector<std::thread> clients;
        for (const char* name : {"A", "B"}) {
            clients.emplace_back([&, name] {
                const auto proxy = stage.broker->getProxy("Motion");
                start.arrive_and_wait();
                try {
                    for (;;) {
                        proxy->call("subscribe", name, 33, 0.0F);
                        proxy->call("unsubscribe", name);
                    }
                } catch (const KRError&) { // the module was destroyed
                }
            });
        }
        start.arrive_and_wait();
        stage.extractor.reset();
        for (std::thread& client : clients) {
            client.join();
        }
        const auto lines = stage.journal.get();
        const auto begins = [&](const std::string& prefix) {
            return std::count_if(lines.begin(), lines.end(),
                                 [&](const std::string& line) { return line.starts_with(prefix); });
        };
        EXPECT_EQ(begins("subscribeCamera "), begins("unsubscribe "));
        EXPECT_EQ(begins("xStartImageProcessing"), begins("xStopImageProcessing"));
    }
}

} // namespace
} // namespace KR::test
