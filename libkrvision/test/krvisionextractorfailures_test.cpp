#include "fakecamera.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace KR::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(KRVisionExtractorFailures, ARefusedCameraSubscriptionIsLoggedAndMakesTheModuleExit) {
    Stage stage;
    stage.camera->fail("subscribeCamera");
    stage.camera->fail(
        "releaseImage"); // as a camera service does for an identifier that it has not given out
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_EQ(stage.getLog().front(), "error|Motion: Could not subscribe to KRVideoDevice");
    EXPECT_THAT(stage.getLog()[1], HasSubstr("injected"));
    EXPECT_TRUE(stage.extractor->isExiting());
    EXPECT_EQ(stage.journal.count("getImageRemote VisionExtractorMotion"), 1);
    const auto undeleted = stage.extractor->takeUndeleted();
    stage.extractor.reset();
    EXPECT_EQ(stage.journal.count("unsubscribe VisionExtractorMotion"), 0);
}

TEST(KRVisionExtractorFailures, AParameterThatTheCameraRefusesIsARefusedSubscriptionThatIsHeld) {
    Stage stage;
    stage.extractor->setSubscriptionParameters({{11, 1}, {12, 2}});
    stage.camera->fail("setCameraParameter");
    stage.extractor->subscribe("client", 33, 0.0F);
    EXPECT_THAT(stage.getLog(), Contains("error|Motion: Could not subscribe to KRVideoDevice"));
    EXPECT_EQ(stage.journal.count("setCameraParameter " + kId + " 12 2"), 0);
    EXPECT_TRUE(stage.extractor->isExiting());
    EXPECT_TRUE(stage.extractor->isProcessing()); // images flow all the same
    stage.extractor->unsubscribe("client");
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
}

TEST(KRVisionExtractorFailures, WithErrorsOnEveryFetchTheLoopGoesOnWithoutProcessing) {
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
        stage.camera->toldFrameRate = 24;
        stage.extractor->subscribe("client", 33, 0.0F);
        stage.camera->fail(operation);
        stage.extractor->unsubscribe("client");
        EXPECT_THAT(stage.getLog(), Contains("error|Motion: Could not unsubscribe to KRVideoDevice"));
        EXPECT_TRUE(stage.extractor->isExiting());
        EXPECT_EQ(stage.extractor->getFrameRate(), 24); // subscribed under the same identifier still
        stage.camera->on(operation, nullptr);
        stage.extractor->xStopDetection();
        EXPECT_EQ(stage.extractor->getFrameRate(), -1);
    }
}

TEST(KRVisionExtractorFailures, AnErrorOfTheFrameRatePassesToTheSubscriber) {
    Stage stage;
    stage.camera->fail("setFrameRate");
    EXPECT_THROW(stage.extractor->subscribe("client", 33, 0.0F), KRError);
    EXPECT_TRUE(stage.extractor->isProcessing());
    EXPECT_EQ(stage.extractor->getMyPeriod("client"), 33);
    EXPECT_THROW(stage.extractor->updatePeriod("client", 50), KRError);
    EXPECT_EQ(stage.extractor->getCurrentPeriod(), 50);
    stage.extractor->unsubscribe("client");
}

TEST(KRVisionExtractorFailures, ErrorsThatAreNoneOfThePlatformLeaveTheLoop) {
    for (const char* operation : {"subscribeCamera", "getImageRemote", "releaseImage"}) {
        SCOPED_TRACE(operation);
        Stage stage;
        stage.camera->on(operation, [] { throw std::logic_error("foreign"); });
        try {
            stage.extractor->subscribe("client", 33, 0.0F);
        } catch (const std::exception&) { // from the frame rate, when there is no camera subscription
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

TEST(KRVisionExtractorFailures, ACameraServiceThatGoesAwayAndComesBackIsUsedAgain) {
    Stage stage;
    stage.extractor->setParameter("4", 7);
    stage.extractor->subscribe("client", 33, 0.0F);
    stage.extractor->onImage([&](KRImage*) {
        stage.camera->exit(); // so its release comes too late
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

TEST(KRVisionExtractorFailures, WithoutACameraServiceASubscriberHearsSo) {
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

TEST(KRVisionExtractorFailures, ANoPeriodAtAllAsksTheCameraForItsHighestRate) {
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
