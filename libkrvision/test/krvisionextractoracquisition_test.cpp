#include "fakecamera.hpp"

#include "krplatform/krthread.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace KR::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(KRVisionExtractorConstruction, TheFrameRateGivesTheDefaultPeriod) {
    for (const auto& [frameRate, period] : {std::pair(30, 33), {15, 66}, {20, 50}, {1, 1000}}) {
        Stage stage(frameRate);
        EXPECT_EQ(stage.extractor->getDefaultPeriod(), period);
        EXPECT_FALSE(stage.extractor->isExiting());
        EXPECT_THAT(stage.getLog(), IsEmpty());
    }
}

TEST(KRVisionExtractorConstruction, AFrameRateOutOfRangeIsLoggedAndMakesTheModuleExit) {
    for (const int frameRate : {0, 31, -1}) {
        Stage stage(frameRate);
        EXPECT_THAT(stage.getLog(), ElementsAre("error|Motion: The framerate must be between 1 and 30 FPS"));
        EXPECT_TRUE(stage.extractor->isExiting());
        EXPECT_GT(stage.extractor->getDefaultPeriod(), 0);
        EXPECT_THROW(stage.broker->getProxy("Motion")->call<int>("getCurrentPeriod"), KRError);
    }
}

TEST(KRVisionExtractorConstruction, OnlyCameraTwoHasTheLongerMinimumPeriod) {
    for (const auto& [camera, minimum] : {std::pair(0, 33), {1, 33}, {2, 50}, {3, 33}}) {
        Stage stage(30, camera);
        EXPECT_EQ(stage.extractor->getMinimumPeriod(), minimum);
        EXPECT_EQ(stage.extractor->getMaximumPeriod(), 1000);
    }
}

TEST(KRVisionExtractorAcquisition, ADetectionCallsHooksAndCameraInOrder) {
    std::promise<void> stopped;
    Stage stage;
    stage.extractor->setSubscriptionParameters({{11, 1}, {12, 2}});
    auto canStop = stopped.get_future().share();
    std::atomic<int> fetches = 0;
    stage.camera->on("getImageRemote", [&fetches, canStop] {
        if (++fetches == 2) {
            canStop.wait(); // keeps the second iteration from mixing with the end of the subscribe
        }
    });
    stage.broker->getProxy("Motion")->call("subscribe", "client", 100, 0.5F);
    ASSERT_TRUE(stage.journal.waitFor("getImageRemote " + kId, 2));
    const auto begin = stage.journal.get();
    // The subscriber's thread sets the frame rate, the loop fetches the second image.
    EXPECT_THAT(begin, Contains("setFrameRate " + kId + " 10"));
    std::vector<std::string> loop;
    std::copy_if(begin.begin(), begin.end(), std::back_inserter(loop),
                 [](const std::string& line) { return !line.starts_with("setFrameRate"); });
    EXPECT_THAT(loop, ElementsAre("xStartImageProcessing", "subscribeCamera VisionExtractorMotion 0 0 9 10",
                                  "setCameraParameter " + kId + " 11 1",
                                  "setCameraParameter " + kId + " 12 2", "getImageRemote " + kId,
                                  "xProcessImage", "releaseImage " + kId, "getImageRemote " + kId));
    stopped.set_value();
    stage.broker->getProxy("Motion")->call("unsubscribe", "client");
    auto end = stage.journal.get();
    end.erase(end.begin(), end.end() - 4);
    EXPECT_THAT(end, ElementsAre("releaseImage " + kId, "setAllCameraParametersToDefault " + kId,
                                 "unsubscribe " + kId, "xStopImageProcessing"));
    EXPECT_THAT(stage.getLog(), ElementsAre("verbose|" + kId + " : set camera (0) parameter 11 to 1",
                                            "verbose|" + kId + " : set camera (0) parameter 12 to 2",
                                            "verbose|Motion: Extractor pause status 0"));
}

TEST(KRVisionExtractorAcquisition, SubscribingReturnsAfterTheFirstImageWasProcessedAndPaced) {
    Stage stage;
    const auto start = std::chrono::steady_clock::now();
    stage.extractor->subscribe("client", 200, 0.0F);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_GE(stage.journal.count("xProcessImage"), 1);
    EXPECT_GE(stage.journal.count("releaseImage " + kId), 1);
    EXPECT_TRUE(stage.extractor->isProcessing());
    EXPECT_FALSE(stage.extractor->isPaused());
}

TEST(KRVisionExtractorAcquisition, ImagesArriveUnchangedOnTheNamedThread) {
    std::promise<std::string> seen;
    Stage stage;
    stage.camera->setImage(makeImageValue(320, 240, 3, 13));
    stage.extractor->onImage([&](KRImage* image) {
        std::ostringstream text;
        text << image->width << "x" << image->height << "x" << image->nbLayers << " in " << image->colorSpace
             << " at " << image->timeStamp << " of " << static_cast<int>(image->cameraId) << " on "
             << getThreadName();
        stage.extractor->onImage(nullptr);
        seen.set_value(text.str());
    });
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_EQ(seen.get_future().get(), "320x240x3 in 13 at 1500000000123456 of 1 on Motion");
}

TEST(KRVisionExtractorAcquisition, TheThreadGetsItsNameBack) {
    Stage stage;
    std::thread thread([&] {
        setThreadName("a thread with a long name of its own");
        stage.extractor->xRun();
        EXPECT_EQ(getThreadName(), "a thread with a long name of its own");
    });
    ASSERT_TRUE(stage.journal.waitFor("xProcessImage"));
    stage.extractor->xStopDetection();
    thread.join();
}

TEST(KRVisionExtractorAcquisition, TheIdentifierIsForgottenWithTheSubscription) {
    Stage stage;
    for (int i = 0; i < 2; ++i) {
        stage.extractor->subscribe("client", 33, 0.0F);
        stage.extractor->unsubscribe("client");
    }
    EXPECT_EQ(stage.journal.count("subscribeCamera VisionExtractorMotion 0 0 9 30"), 2);
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 2);
}

TEST(KRVisionExtractorAcquisition, TheCurrentPeriodSetsTheCamerasFrameRate) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->xUpdateParameters(0, 0.0F);
    EXPECT_EQ(stage.journal.count("setFrameRate " + kId + " 30"), 2); // including the one at the start
    stage.extractor->xUpdateParameters(100, 0.0F);
    EXPECT_EQ(stage.journal.count("setFrameRate " + kId + " 10"), 1);
    stage.extractor->subscribe("other", 50, 0.0F);
    EXPECT_EQ(stage.journal.count("setFrameRate " + kId + " 30"), 3); // the smaller period still applies
    stage.extractor->updatePeriod("client", 1000);
    EXPECT_EQ(stage.journal.count("setFrameRate " + kId + " 20"), 1);
}

TEST(KRVisionExtractorAcquisition, TheLoopRereadsThePeriodAtEachIteration) {
    Stage stage;
    stage.extractor->subscribe("client", 1000, 0.0F);
    stage.extractor->updatePeriod("client", 33);
    EXPECT_TRUE(stage.journal.waitForMore("xProcessImage", 5));
}

TEST(KRVisionExtractorAcquisition, AnInvalidImageIsReleasedButNotProcessed) {
    Stage stage;
    stage.camera->setImage(KRValue("no image"));
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(stage.journal.waitFor("releaseImage " + kId, 3));
    EXPECT_EQ(stage.journal.count("xProcessImage"), 0);
}

TEST(KRVisionExtractorAcquisition, AMalformedImageIsRefusedAndTheLoopGoesOn) {
    Stage stage;
    KRValue image = makeImageValue(160, 120, 2, 9);
    image[2] = 3; // more layers than the colour space has, and than there are bytes for
    stage.camera->setImage(image);
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(stage.journal.waitFor("releaseImage " + kId, 2));
    EXPECT_EQ(stage.journal.count("xProcessImage"), 0);
    EXPECT_THAT(stage.getLog().front(), ::testing::StartsWith("error|Motion: Could not retrieve image "));
    stage.camera->setImage(makeImageValue(160, 120, 2, 9));
    EXPECT_TRUE(stage.journal.waitFor("xProcessImage"));
}

TEST(KRVisionExtractorAcquisition, PausingKeepsTheNextImageFromBeingFetched) {
    Stage stage;
    const auto other = createModule<TestExtractor>(stage.broker, "Other", stage.journal);
    other->subscribe("client", 33, 0.0F);
    stage.extractor->onImage(
        [&](KRImage*) { stage.extractor->pause(true); }); // in the middle of an iteration
    auto subscribed = std::async(std::launch::async, [&] { stage.extractor->subscribe("client", 33, 0.0F); });
    ASSERT_TRUE(stage.journal.waitFor("releaseImage " + kId));
    subscribed.get();
    EXPECT_TRUE(stage.extractor->isPaused());
    EXPECT_TRUE(stage.extractor->isProcessing());
    ASSERT_TRUE(stage.journal.waitForMore("releaseImage VisionExtractorOther_1", 5));
    EXPECT_EQ(stage.journal.count("getImageRemote " + kId), 1);
    stage.extractor->onImage(nullptr);
    stage.extractor->pause(false);
    EXPECT_FALSE(stage.extractor->isPaused());
    EXPECT_TRUE(stage.journal.waitFor("releaseImage " + kId, 2));
    EXPECT_THAT(stage.getLog(), ElementsAre("verbose|Motion: Extractor pause status 1",
                                            "verbose|Motion: Extractor pause status 0"));
}

TEST(KRVisionExtractorAcquisition, ASecondStartIsLogged) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->xStartDetection(33, 0.0F); // returns, as the first run is ready
    EXPECT_TRUE(stage.waitForLog("warning|Motion: Extractor is already running"));
    EXPECT_EQ(stage.journal.count("subscribeCamera VisionExtractorMotion 0 0 9 30"), 1);
    EXPECT_TRUE(stage.extractor->isProcessing());
}

TEST(KRVisionExtractorAcquisition, StoppingWithoutARunTouchesNoCamera) {
    Stage stage;
    stage.extractor->xStopDetection();
    EXPECT_THAT(stage.journal.get(), ElementsAre("xStopImageProcessing"));
    EXPECT_THAT(stage.getLog(), IsEmpty());
}

TEST(KRVisionExtractorAcquisition, DestructionEndsTheRunAndTheCameraSubscription) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor.reset();
    const auto lines = stage.journal.get();
    EXPECT_THAT(lines, Contains("unsubscribe " + kId));
    EXPECT_EQ(lines.back(), "xStopImageProcessing");
}

TEST(KRVisionExtractorAcquisition, AModuleConstructedDirectlyWorksAndStopsItself) {
    class Direct : public TestExtractor {
    public:
        using TestExtractor::TestExtractor;
        ~Direct() override { xStopDetection(); }
    };
    Journal journal;
    const auto broker = KRBroker::create("local:");
    const auto camera = createModule<FakeCamera>(broker, "KRVideoDevice", journal);
    {
        Direct direct(broker, "Motion", journal);
        direct.subscribe("client", 33, 0.0F);
        EXPECT_TRUE(direct.isProcessing());
        EXPECT_EQ(broker->getProxy("Motion")->call<int>("getCurrentPeriod"), 33);
    }
    EXPECT_EQ(journal.get().back(), "xStopImageProcessing");
}

} // namespace
} // namespace KR::test
