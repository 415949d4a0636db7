#include "fakecamera.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace KR::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

TEST(KRVisionExtractorSettings, BeforeASubscriptionAValidResolutionIsKeptForTheNextOne) {
    Stage stage;
    EXPECT_FALSE(stage.extractor->setResolution(9));
    EXPECT_FALSE(stage.extractor->setResolution(-1));
    EXPECT_EQ(stage.extractor->getResolution(), 0);
    EXPECT_TRUE(stage.extractor->setResolution(8));
    EXPECT_EQ(stage.extractor->getResolution(), 8);
    EXPECT_THAT(stage.getLog(), IsEmpty());
    EXPECT_THAT(stage.journal.get(), IsEmpty());
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_EQ(stage.journal.count("subscribeCamera VisionExtractorMotion 0 8 9 30"), 1);
}

TEST(KRVisionExtractorSettings, BeforeASubscriptionTheColourSpaceIsRefusedAndNotKept) {
    Stage stage;
    EXPECT_FALSE(stage.extractor->setColorSpace(0));
    EXPECT_EQ(stage.extractor->getColorSpace(), 9);
    EXPECT_THAT(
        stage.getLog(),
        ElementsAre(
            "error|Motion: The module has not been subscribed to, so you cannot set the colorspace."));
}

TEST(KRVisionExtractorSettings, BeforeASubscriptionTheFrameRateIsRefused) {
    Stage stage;
    EXPECT_FALSE(stage.extractor->setFrameRate(10));
    EXPECT_EQ(stage.extractor->getFrameRate(), -1);
    EXPECT_THAT(
        stage.getLog(),
        ElementsAre("error|Motion: The module has not been subscribed to, so you cannot set the framerate."));
}

TEST(KRVisionExtractorSettings, BeforeASubscriptionTheCameraIsPresetIfItExists) {
    Stage stage;
    EXPECT_TRUE(stage.extractor->setActiveCamera(2));
    EXPECT_EQ(stage.extractor->getActiveCamera(), 2);
    EXPECT_EQ(stage.extractor->getMinimumPeriod(), 50);
    EXPECT_FALSE(stage.extractor->setActiveCamera(3));
    EXPECT_EQ(stage.extractor->getActiveCamera(), 2);
    ASSERT_EQ(stage.getLog().size(), 1U);
    EXPECT_THAT(
        stage.getLog()[0],
        StartsWith("error|MotionCan't swith active camera to 3: Motion.setActiveCamera: camera not found"));
    EXPECT_THAT(stage.journal.get(), ElementsAre("getCameraModel 2", "getCameraModel 3"));
}

TEST(KRVisionExtractorSettings, BeforeASubscriptionACameraServiceErrorIsLoggedTheSameWay) {
    Stage stage;
    stage.camera->fail("getCameraModel");
    EXPECT_FALSE(stage.extractor->setActiveCamera(1));
    EXPECT_THAT(
        stage.getLog()[0],
        StartsWith("error|MotionCan't swith active camera to 1: KRVideoDevice.getCameraModel: injected"));
    EXPECT_EQ(stage.extractor->getActiveCamera(), 0);
}

TEST(KRVisionExtractorSettings, WhileSubscribedAChangeIsKeptOnlyIfTheCameraAcceptsIt) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(stage.extractor->setResolution(12)); // the camera decides, also about codes above 8
    EXPECT_TRUE(stage.extractor->setColorSpace(0));
    EXPECT_TRUE(stage.extractor->setActiveCamera(2));
    EXPECT_EQ(stage.extractor->getResolution(), 12);
    EXPECT_EQ(stage.extractor->getColorSpace(), 0);
    EXPECT_EQ(stage.extractor->getActiveCamera(), 2);
    stage.camera->acceptance = Acceptance::Nothing;
    EXPECT_FALSE(stage.extractor->setResolution(1));
    EXPECT_FALSE(stage.extractor->setColorSpace(9));
    EXPECT_FALSE(stage.extractor->setActiveCamera(0));
    EXPECT_FALSE(stage.extractor->setFrameRate(10));
    EXPECT_FALSE(stage.extractor->setFrameRate("client", 10));
    EXPECT_EQ(stage.extractor->getResolution(), 12);
    EXPECT_EQ(stage.extractor->getColorSpace(), 0);
    EXPECT_EQ(stage.extractor->getActiveCamera(), 2);
    EXPECT_EQ(stage.extractor->getMyPeriod("client"), 33);
    EXPECT_FALSE(stage.extractor->isPaused()); // the loop also continues after a refused camera change
    EXPECT_EQ(stage.journal.count("setResolution " + kId + " 12"), 1);
    EXPECT_EQ(stage.journal.count("setColorSpace " + kId + " 0"), 1);
    EXPECT_EQ(stage.journal.count("setActiveCamera " + kId + " 2"), 1);
}

TEST(KRVisionExtractorSettings, WhileSubscribedCameraServiceErrorsPassAndNothingChanges) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    for (const char* operation :
         {"setResolution", "setColorSpace", "setActiveCamera", "setFrameRate", "getFrameRate"}) {
        stage.camera->fail(operation);
    }
    EXPECT_THROW(stage.extractor->setResolution(1), KRError);
    EXPECT_THROW(stage.extractor->setColorSpace(0), KRError);
    EXPECT_THROW(stage.extractor->setFrameRate(10), KRError);
    EXPECT_THROW(stage.extractor->setFrameRate("client", 10), KRError);
    EXPECT_THROW(stage.extractor->getFrameRate(), KRError);
    EXPECT_FALSE(stage.extractor->isPaused());
    EXPECT_THROW(stage.extractor->setActiveCamera(1), KRError);
    EXPECT_TRUE(stage.extractor->isPaused()); // a failed change of the camera leaves the loop paused
    EXPECT_EQ(stage.extractor->getResolution(), 0);
    EXPECT_EQ(stage.extractor->getColorSpace(), 9);
    EXPECT_EQ(stage.extractor->getActiveCamera(), 0);
    EXPECT_EQ(stage.extractor->getMyPeriod("client"), 33);
}

TEST(KRVisionExtractorSettings, ChangingTheCameraPausesAndResumesTheLoop) {
    bool paused = false;
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.camera->on("setActiveCamera", [&] { paused = stage.extractor->isPaused(); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(stage.extractor->setActiveCamera(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_TRUE(paused);
    EXPECT_FALSE(stage.extractor->isPaused());
    EXPECT_THAT(stage.getLog(), ElementsAre("verbose|Motion: Extractor pause status 1",
                                            "verbose|Motion: Extractor pause status 0"));
    EXPECT_TRUE(stage.journal.waitForMore("xProcessImage"));
}

TEST(KRVisionExtractorSettings, TheFrameRateSetsThePeriodOfAllSubscribers) {
    Stage stage;
    stage.camera->reportedFrameRate = 24;
    stage.extractor->subscribe("A", 100, 0.0F);
    stage.extractor->subscribe("B", 500, 0.0F);
    EXPECT_TRUE(stage.extractor->setFrameRate(15));
    EXPECT_EQ(stage.extractor->getMyPeriod("A"), 66);
    EXPECT_EQ(stage.extractor->getMyPeriod("B"), 66);
    EXPECT_EQ(stage.extractor->getCurrentPeriod(), 66);
    EXPECT_GE(stage.journal.count("setFrameRate " + kId + " 15"), 1);
    EXPECT_EQ(stage.extractor->getFrameRate(), 24); // the rate that the camera reports
}

TEST(KRVisionExtractorSettings, AFrameRateOfZeroIsAnErrorEvenIfTheCameraAcceptsIt) {
    Stage stage;
    stage.extractor->subscribe("A", 100, 0.0F);
    EXPECT_THROW(stage.extractor->setFrameRate(0), KRError);
    EXPECT_THROW(stage.extractor->setFrameRate("A", 0), KRError);
    EXPECT_EQ(stage.extractor->getMyPeriod("A"), 100);
    EXPECT_TRUE(stage.extractor->setFrameRate(10)); // no lock was kept
}

TEST(KRVisionExtractorSettings, TheFrameRateOfAnUnknownSubscriberIsRefused) {
    Stage stage;
    stage.extractor->subscribe("A", 100, 0.0F);
    EXPECT_FALSE(stage.extractor->setFrameRate("X", 10));
    EXPECT_THAT(stage.getLog(), ElementsAre("error|Motion: setFrameRate, unknown subscriber name: X"));
}

TEST(KRVisionExtractorSettings, OneSubscribersFrameRateGoesToTheCameraEvenWithoutASubscription) {
    Stage stage;
    stage.camera->fail("releaseImage"); // ends the run at once
    stage.extractor->subscribe("A", 100, 0.0F);
    stage.extractor->xStopDetection(); // no camera subscription, but a subscriber
    stage.camera->fail("setFrameRate");
    EXPECT_FALSE(stage.extractor->setFrameRate(10));
    EXPECT_THROW(stage.extractor->setFrameRate("A", 10), KRError);
    EXPECT_EQ(stage.journal.count("setFrameRate VisionExtractorMotion 10"), 1);
    const auto undeleted = stage.extractor->takeUndeleted();
}

TEST(KRVisionExtractorSettings, PausingWithoutARunLogsAWarning) {
    Stage stage;
    stage.extractor->pause(true);
    EXPECT_FALSE(stage.extractor->isPaused());
    EXPECT_THAT(stage.getLog(),
                ElementsAre("warning|Motion: Extractor is not running, cannot change pause status."));
}

TEST(KRVisionExtractorSettings, SetParameterNeedsAnArrayOfTwoThoughItsMessageSaysOne) {
    Stage stage;
    stage.extractor->setParameter("resolution", KRValue());
    stage.extractor->setParameter("resolution", KRValue(2));
    stage.extractor->setParameter("resolution", KRValue::array(2));
    stage.extractor->setParameter("resolution", KRValue::array());
    EXPECT_EQ(stage.extractor->getResolution(), 0);
    stage.extractor->setParameter("resolution", KRValue::array(2, 0));
    EXPECT_EQ(stage.extractor->getResolution(), 2);
    stage.extractor->setParameter("colour", KRValue::array(2, 0));
    const std::string invalid = "error|Motion: Parameter is not valid, parameter must be a valid array.";
    const std::string size =
        "error|Motion: Wrong parameter size, parameter must be an array of size 1. Current size is ";
    EXPECT_THAT(
        stage.getLog(),
        ElementsAre(invalid, invalid, size + "1", size + "0",
                    "error|Motion: Unknown parameter value. Parameter must be resolution or pause, but "
                    "current parameter is colour"));
}

TEST(KRVisionExtractorSettings, SetParameterPausesForOneAndResumesForAnythingElse) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    for (const int resuming : {0, 2}) {
        stage.extractor->setParameter("pause", KRValue::array(1, 0));
        EXPECT_TRUE(stage.extractor->isPaused());
        stage.extractor->setParameter("pause", KRValue::array(resuming, 0));
        EXPECT_FALSE(stage.extractor->isPaused());
    }
}

TEST(KRVisionExtractorSettings, SubscriptionParametersAreSetAtOnceAndAtEverySubscription) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->setSubscriptionParameters({{11, 1}});
    EXPECT_EQ(stage.journal.count("setCameraParameter " + kId + " 11 1"), 1);
    stage.extractor->setSubscriptionParameters({{12, 2}}); // replaces the former list
    stage.extractor->unsubscribe("client");
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_EQ(stage.journal.count("setCameraParameter " + kId + " 11 1"), 1);
    EXPECT_EQ(stage.journal.count("setCameraParameter " + kId + " 12 2"), 2);
    stage.camera->fail("setCameraParameter");
    EXPECT_THROW(stage.extractor->setSubscriptionParameters({{13, 3}}), KRError);
}

TEST(KRVisionExtractorSettings, TheProxyIsOnTheCameraService) {
    Stage stage;
    EXPECT_EQ(stage.extractor->getVideoDeviceProxy()->getCameraModel(0), 1);
    EXPECT_EQ(stage.extractor->getVideoDeviceProxy(), stage.extractor->getVideoDeviceProxy());
}

TEST(KRVisionExtractorSettings, EverythingMayChangeWhileTheLoopRuns) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    std::vector<std::thread> threads;
    const auto repeat = [&](auto action) {
        threads.emplace_back([action] {
            for (int i = 0; i < 200; ++i) {
                action(i);
            }
        });
    };
    repeat([&](int i) { stage.extractor->setResolution(i % 9); });
    repeat([&](int i) { stage.extractor->setColorSpace(i % 2 == 0 ? 0 : 9); });
    repeat([&](int i) { stage.extractor->setFrameRate(i % 30 + 1); });
    repeat([&](int i) { stage.extractor->setFrameRate("client", i % 30 + 1); });
    repeat([&](int i) { stage.extractor->pause(i % 2 == 0); });
    repeat([&](int i) { stage.extractor->setSubscriptionParameters({{i, i}}); });
    repeat([&](int) {
        stage.extractor->getResolution();
        stage.extractor->getColorSpace();
        stage.extractor->getActiveCamera();
        stage.extractor->getMinimumPeriod();
        stage.extractor->getFrameRate();
        stage.extractor->isPaused();
        stage.extractor->isProcessing();
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 5; ++i) {
            stage.extractor->setActiveCamera(i % 2);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 5; ++i) {
            stage.extractor->subscribe("other", 33, 0.0F);
            stage.extractor->unsubscribe("other");
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    stage.extractor->pause(false);
    EXPECT_TRUE(stage.journal.waitForMore("xProcessImage"));
    stage.extractor->unsubscribe("client");
    EXPECT_EQ(stage.journal.get().back(), "xStopImageProcessing");
}

} // namespace
} // namespace KR::test
