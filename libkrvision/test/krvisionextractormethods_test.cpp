#include "fakecamera.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KR::test {
namespace {

struct Row {
    std::string signature;
    std::string description;
    std::vector<std::string> parameterDescriptions;
    std::string resultDescription;
};

TEST(KRVisionExtractorMethods, FollowThoseOfTheExtractorInOrder) {
    const std::string updated = "True if the update succeeded, False if not";
    const std::vector<Row> rows{
        {"setFrameRate(string subscriberName, int framerate): bool result",
         "Sets the extractor framerate for a chosen subscriber",
         {"Name of the subcriber", "New framerate"},
         updated},
        {"setFrameRate(int framerate): bool result",
         "Sets the extractor framerate for all the subscribers",
         {"New framerate"},
         updated},
        {"setResolution(int resolution): bool result",
         "Sets extractor resolution",
         {"New resolution"},
         updated},
        {"setActiveCamera(int cameraId): bool result",
         "Sets extractor active camera",
         {"Id of the camera that will become the active camera"},
         updated},
        {"setParameter(string paramName, value value)",
         "DEPRECATED: Sets pause and resolution",
         {"Name of the parameter to set", "New value"},
         ""},
        {"getFrameRate(): int framerate",
         "Gets extractor framerate",
         {},
         "Current value of the framerate of the extractor"},
        {"getResolution(): int resolution",
         "Gets extractor resolution",
         {},
         "Current value of the resolution of the extractor"},
        {"getActiveCamera(): int cameraId",
         "Gets extractor active camera",
         {},
         "Id of the current active camera of the extractor"},
        {"isPaused(): bool paused",
         "Gets extractor pause status",
         {},
         "True if the extractor is paused, False if not"},
        {"isProcessing(): bool processing",
         "Gets extractor running status",
         {},
         "True if the extractor is currently processing images, False if not"},
        {"pause(bool paused)", "Changes the pause status of the extractor", {"New pause satus"}, ""},
        {"_run()", "", {}, ""},
    };
    Stage stage;
    const auto methods = stage.broker->getProxy("Motion")->getMethodList();
    constexpr std::size_t kOfExtractor = 13;
    ASSERT_EQ(methods.size(), kOfExtractor + rows.size());
    EXPECT_EQ(methods[0].name, "subscribe");
    EXPECT_EQ(methods[kOfExtractor - 1].name, "getMemoryKeyList");
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const KRMethodDescription& method = methods[kOfExtractor + i];
        SCOPED_TRACE(rows[i].signature);
        EXPECT_EQ(method.getSignature(), rows[i].signature);
        EXPECT_EQ(method.className, "KRVisionExtractor");
        EXPECT_EQ(method.description, rows[i].description);
        std::vector<std::string> descriptions;
        for (const auto& parameter : method.parameters) {
            descriptions.push_back(parameter.description);
        }
        EXPECT_EQ(descriptions, rows[i].parameterDescriptions);
        EXPECT_EQ(method.result.description, rows[i].resultDescription);
    }
}

TEST(KRVisionExtractorMethods, EachReachesItsOperation) {
    Stage stage;
    const auto proxy = stage.broker->getProxy("Motion");
    EXPECT_EQ(proxy->call<int>("getFrameRate"), -1);
    EXPECT_TRUE(proxy->call<bool>("setResolution", 1));
    EXPECT_EQ(proxy->call<int>("getResolution"), 1);
    EXPECT_TRUE(proxy->call<bool>("setActiveCamera", 1));
    EXPECT_EQ(proxy->call<int>("getActiveCamera"), 1);
    EXPECT_FALSE(proxy->call<bool>("isProcessing"));
    proxy->call("subscribe", "client", 33, 0.5F);
    EXPECT_TRUE(proxy->call<bool>("isProcessing"));
    EXPECT_EQ(proxy->call<int>("getFrameRate"), 30);
    proxy->call("pause", true);
    EXPECT_TRUE(proxy->call<bool>("isPaused"));
    proxy->call("setParameter", "pause", KRValue::array(0, 0));
    EXPECT_FALSE(proxy->call<bool>("isPaused"));
    proxy->call("unsubscribe", "client");
}

TEST(KRVisionExtractorMethods, OverloadsOfSetFrameRateDifferByTheirArguments) {
    Stage stage;
    const auto proxy = stage.broker->getProxy("Motion");
    proxy->call("subscribe", "A", 100, 0.0F);
    proxy->call("subscribe", "B", 100, 0.0F);
    EXPECT_TRUE(proxy->call<bool>("setFrameRate", "B", 20));
    EXPECT_EQ(proxy->call<int>("getMyPeriod", "A"), 100);
    EXPECT_EQ(proxy->call<int>("getMyPeriod", "B"), 50);
    EXPECT_TRUE(proxy->call<bool>("setFrameRate", 10));
    EXPECT_EQ(proxy->call<int>("getMyPeriod", "B"), 100);
}

TEST(KRVisionExtractorMethods, RunCalledRemotelyRunsUntilTheModuleIsDestroyed) {
    Stage stage;
    stage.broker->getProxy("Motion")->post("_run");
    // Without subscribers the period is -1, so the requested rate is -1000.
    ASSERT_TRUE(stage.journal.waitFor("subscribeCamera VisionExtractorMotion 0 0 9 -1000"));
    ASSERT_TRUE(stage.journal.waitFor("xProcessImage"));
    stage.extractor.reset();
    EXPECT_EQ(stage.journal.count("unsubscribe " + kId), 1);
}

} // namespace
} // namespace KR::test
