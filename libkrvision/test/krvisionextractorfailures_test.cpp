#include "fakecamera.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

namespace KR::test {
namespace {

/// Polls a condition that has no notification. \return false: not in time
bool waitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(KRVisionExtractorFailures, ARefusedCameraSubscriptionIsLoggedAndMakesTheModuleExit) {
    Stage stage;
    stage.camera->fail("subscribeCamera");
    EXPECT_THROW(stage.extractor->subscribe("client", 33, 0.0F), KRError);
    // Nothing else is logged in this category. Every operation on the refused subscription fails with the cause.
    EXPECT_THAT(
        stage.getLog(),
        ElementsAre(
            "error|Motion: Could not subscribe to KRVideoDevice",
            StartsWith("error|Motion: Could not retrieve image KRVideoDevice.subscribeCamera: injected"),
            StartsWith("error|Motion: Call to release image failed:KRVideoDevice.subscribeCamera: injected"),
            "error|Stopping the extractor."));
    EXPECT_TRUE(stage.extractor->isExiting());
    EXPECT_EQ(stage.extractor->getFailure(), "the camera subscription has failed: injected");
    EXPECT_EQ(stage.journal.count("getImageRemote VisionExtractorMotion"), 0);
    const auto undeleted = stage.extractor->takeUndeleted();
    stage.extractor.reset();
    EXPECT_EQ(stage.journal.count("unsubscribe VisionExtractorMotion"), 0);
}

TEST(KRVisionExtractorFailures, ASubscriberGetsTheReasonForARefusedCamera) {
    Stage stage;
    stage.camera->acceptance = Acceptance::Real;
    const std::string cause = "camera 0 (v4l2:/dev/video9) cannot be opened: No such file or directory";
    stage.camera->on("subscribeCamera", [&] { throw KRError("KRVideoDevice", "subscribeCamera", cause); });
    for (int i = 0; i < 2; ++i) {
        try {
            if (i == 0) {
                stage.broker->getProxy("Motion")->call("subscribe", "client", 33, 0.0F);
            } else {
                stage.extractor->updatePeriod("client", 50); // the module no longer takes calls
            }
            ADD_FAILURE() << "nothing was thrown";
        } catch (const KRError& error) {
            EXPECT_EQ(error.getDescription(), cause);
        }
    }
    EXPECT_EQ(stage.extractor->getFailure(), "the camera subscription has failed: " + cause);
    const auto undeleted = stage.extractor->takeUndeleted();
}

TEST(KRVisionExtractorFailures, ARefusedCameraParameterIsLoggedAsARefusedSubscriptionThatStays) {
    Stage stage;
    stage.extractor->setSubscriptionParameters({{11, 1}, {12, 2}});
    stage.camera->fail("setCameraParameter");
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_THAT(stage.getLog(), Contains("error|Motion: Could not subscribe to KRVideoDevice"));
    EXPECT_EQ(stage.journal.count("setCameraParameter " + kId + " 12 2"), 0);
    EXPECT_TRUE(stage.extractor->isExiting());
    EXPECT_TRUE(stage.extractor->isProcessing()); // images still flow
    stage.extractor->unsubscribe("client");
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
}

TEST(KRVisionExtractorFailures, TheLoopContinuesIfEveryFetchFails) {
    Stage stage;
    stage.camera->fail("getImageRemote");
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(stage.journal.waitFor("releaseImage " + kId, 3));
    EXPECT_TRUE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.journal.count("xProcessImage"), 0);
    const std::string line = stage.getLog().front();
    EXPECT_THAT(line,
                StartsWith("error|Motion: Could not retrieve image KRVideoDevice.getImageRemote: injected"));
    stage.camera->on("getImageRemote", nullptr);
    EXPECT_TRUE(stage.journal.waitFor("xProcessImage"));
}

TEST(KRVisionExtractorFailures, ARefusedReleaseEndsTheRunAndStoppingStillUnsubscribes) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.camera->fail("releaseImage");
    ASSERT_TRUE(stage.waitForLog("error|Stopping the extractor."));
    const auto log = stage.getLog();
    EXPECT_THAT(
        log[log.size() - 2],
        StartsWith("error|Motion: Call to release image failed:KRVideoDevice.releaseImage: injected"));
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 0);
    stage.camera->on("releaseImage", nullptr);
    stage.extractor->unsubscribe("client");
    EXPECT_FALSE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
    const auto undeleted = stage.extractor->takeUndeleted();
}

TEST(KRVisionExtractorFailures, TheImageOfARefusedReleaseIsNotDeleted) {
    Stage stage;
    stage.camera->fail("releaseImage");
    stage.extractor->subscribe("client", 33, 0.0F);
    // Had the loop deleted it, AddressSanitizer would report this use and the second deletion.
    const auto image = stage.extractor->takeUndeleted();
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->width, 160);
}

TEST(KRVisionExtractorFailures, ARefusedResetOrUnsubscriptionIsLoggedAndTheSubscriptionStays) {
    for (const char* operation : {"setAllCameraParametersToDefault", "unsubscribe"}) {
        SCOPED_TRACE(operation);
        Stage stage;
        stage.camera->reportedFrameRate = 24;
        stage.extractor->subscribe("client", 33, 0.0F);
        stage.camera->fail(operation);
        stage.extractor->unsubscribe("client");
        EXPECT_EQ(stage.getLog().back(), "error|Motion: Could not unsubscribe to KRVideoDevice");
        EXPECT_TRUE(stage.extractor->isExiting());
        EXPECT_EQ(stage.extractor->getFailure(), "unsubscribing from the camera failed: injected");
        EXPECT_EQ(stage.extractor->getFrameRate(), 24); // still subscribed under the same identifier
        stage.camera->on(operation, nullptr);
        stage.extractor->xStopDetection();
        EXPECT_EQ(stage.extractor->getFrameRate(), -1);
    }
}

TEST(KRVisionExtractorFailures, AFrameRateErrorPassesToTheSubscriber) {
    Stage stage;
    stage.camera->fail("setFrameRate");
    EXPECT_THROW(stage.extractor->subscribe("client", 33, 0.0F), KRError);
    EXPECT_TRUE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.extractor->getMyPeriod("client"), 33);
    EXPECT_THROW(stage.extractor->updatePeriod("client", 50), KRError);
    EXPECT_EQ(stage.extractor->getCurrentPeriod(), 50);
    stage.extractor->unsubscribe("client");
}

TEST(KRVisionExtractorFailures, AnExceptionIsTheModulesFailureUntilItsNextGoodStart) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_EQ(stage.extractor->getFailure(), "");
    const KRProxy proxy(stage.broker, "Motion");
    for (const bool isStandard : {true, false}) {
        stage.extractor->onImage([isStandard](KRImage*) {
            if (isStandard) {
                throw std::runtime_error("disk full");
            }
            throw 42;
        });
        const std::string expected = std::string("the acquisition ended with an exception") +
                                     (isStandard ? ": disk full" : " of unknown type");
        EXPECT_TRUE(waitUntil([&] { return proxy.getFailure() == expected; })) << proxy.getFailure();
        stage.extractor->onImage(nullptr);
        stage.extractor->unsubscribe("client");
        EXPECT_EQ(proxy.getFailure(), expected); // the last run did fail
        stage.extractor->subscribe("client", 33, 0.0F);
        EXPECT_EQ(proxy.getFailure(), "");
    }
}

TEST(KRVisionExtractorFailures, ARefusedReleaseIsAFailure) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.camera->fail("releaseImage");
    EXPECT_TRUE(waitUntil([&] { return !stage.extractor->isProcessing(); }));
    EXPECT_EQ(stage.extractor->getFailure(),
              "the acquisition has ended: the camera service refuses to release an image: injected");
    const auto undeleted = stage.extractor->takeUndeleted();
    stage.camera->on("releaseImage", nullptr);
    stage.extractor->unsubscribe("client");
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_EQ(stage.extractor->getFailure(), "");
}

TEST(KRVisionExtractorFailures, AFrameRateOutOfRangeIsAFailure) {
    const Stage stage(31);
    EXPECT_TRUE(stage.extractor->isExiting());
    EXPECT_EQ(stage.extractor->getFailure(), "the frame rate 31 is not between 1 and 30 FPS");
}

TEST(KRVisionExtractorFailures, OtherExceptionsLeaveTheLoop) {
    for (const char* operation : {"subscribeCamera", "getImageRemote", "releaseImage"}) {
        SCOPED_TRACE(operation);
        Stage stage;
        stage.camera->on(operation, [] { throw std::logic_error("foreign"); });
        try {
            stage.extractor->subscribe("client", 33, 0.0F);
        } catch (const std::exception&) { // setting the frame rate fails without a camera subscription
        }
        stage.camera->on(operation, nullptr);
        stage.extractor->unsubscribe("client");
        EXPECT_FALSE(stage.extractor->isProcessing());
        stage.extractor->subscribe("client", 33, 0.0F);
        EXPECT_TRUE(stage.extractor->isProcessing());
    }
}

TEST(KRVisionExtractorFailures, AnImageOfAnUnknownColourSpaceLeavesTheLoop) {
    Stage stage;
    KRValue image = makeImageValue(160, 120, 2, 9);
    image[3] = 27;
    stage.camera->setImage(image);
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.journal.count("releaseImage " + kId), 0);
    stage.extractor->unsubscribe("client");
}

TEST(KRVisionExtractorFailures, ACameraServiceThatReturnsIsUsedAgain) {
    Stage stage;
    stage.extractor->setParameter("4", 7);
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->onImage([&](KRImage*) {
        stage.camera->exit(); // so that the release comes too late
        stage.journal.add("exited");
    });
    ASSERT_TRUE(stage.journal.waitFor("exited"));
    stage.camera.reset();
    stage.extractor->onImage({});
    EXPECT_TRUE(stage.extractor->isProcessing());
    const auto before = stage.journal.count("xProcessImage");
    stage.camera = createModule<FakeCamera>(stage.broker, "KRVideoDevice", stage.journal);
    EXPECT_TRUE(stage.journal.waitFor("subscribeCamera VisionExtractorMotion 0 0 9 30", 2));
    EXPECT_TRUE(stage.journal.waitFor("xProcessImage", before + 3));
    stage.extractor->unsubscribe("client");
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
}

TEST(KRVisionExtractorFailures, ADetectionEndsWhileTheCameraServiceIsAway) {
    Stage stage;
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.camera.reset();
    stage.extractor->unsubscribe("client");
    EXPECT_FALSE(stage.extractor->isExiting());
    EXPECT_FALSE(stage.extractor->isProcessing());
}

TEST(KRVisionExtractorFailures, WithoutACameraServiceSubscribingFailsWithThatReason) {
    Journal journal;
    const auto broker = KRBroker::create("local:");
    const auto extractor = createModule<TestExtractor>(broker, "Motion", journal);
    try {
        broker->getProxy("Motion")->call("subscribe", "client", 33, 0.0F);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const KRError& error) {
        EXPECT_THAT(error.what(), HasSubstr("there is no module named KRVideoDevice"));
    }
    EXPECT_TRUE(extractor->isExiting());
}

TEST(KRVisionExtractorFailures, APeriodOfZeroRequestsTheHighestFrameRate) {
    class Unbounded : public TestExtractor {
    public:
        using TestExtractor::TestExtractor;
        int getMinimumPeriod() override { return 0; }
    };
    Journal journal;
    const auto broker = KRBroker::create("local:");
    const auto camera = createModule<FakeCamera>(broker, "KRVideoDevice", journal);
    const auto extractor = createModule<Unbounded>(broker, "Motion", journal);
    extractor->subscribe("client", 0, 0.0F);
    EXPECT_EQ(journal.count("subscribeCamera VisionExtractorMotion 0 0 9 30"), 1);
    EXPECT_TRUE(journal.waitFor("xProcessImage", 10));
}

} // namespace
} // namespace KR::test
