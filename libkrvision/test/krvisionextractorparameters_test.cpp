#include "fakecamera.hpp"

#include "krplatform/krmemoryproxy.hpp"
#include "krplatform/krparameter.hpp"

#include "eventmodules.hpp"
#include "patience.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::ThrowsMessage;

class KRVisionExtractorParameters : public testing::Test {
protected:
    KRVisionExtractorParameters() { stage.camera->acceptance = Acceptance::Real; }
    ~KRVisionExtractorParameters() override { unsubscribe(); }

    void subscribe() { proxy->call("subscribe", "client", 100, 0.0F); }
    void unsubscribe() {
        try {
            proxy->call("unsubscribe", "client");
        } catch (const KRError&) { // it has not subscribed
        }
    }
    void set(const std::string& name, const KRValue& value) { proxy->call("setParameterValue", name, value); }
    KRValue get(const std::string& name) { return proxy->call<KRValue>("getParameterValue", name); }

    Stage stage;
    const boost::shared_ptr<KRProxy> proxy = stage.broker->getProxy("Motion");
};

TEST_F(KRVisionExtractorParameters, ExistByDefaultWithNamesAndRanges) {
    const auto list = getParameterList(*proxy);
    std::vector<std::string> names;
    for (const KRParameterInfo& each : list) {
        names.push_back(each.name);
    }
    EXPECT_THAT(names, ElementsAre("camera", "resolution", "colorSpace", "frameRate", "pause"));
    EXPECT_EQ(list[1].value, "160x120");
    EXPECT_THAT(list[1].choices, ElementsAre("160x120", "320x240", "640x480", "1280x960", "2560x1920",
                                             "1280x720", "1920x1080", "80x60", "40x30"));
    EXPECT_EQ(list[2].value, "YUV422");
    EXPECT_THAT(list[2].choices, ElementsAre("luma", "YUV422", "RGB", "BGR", "BGRx"));
    EXPECT_EQ(list[3].describeRange(), "a whole number from 1 to 30 images per second");
    EXPECT_FALSE(list[4].saved) << "a pause is temporary";
}

TEST_F(KRVisionExtractorParameters, SetWithoutSubscribersTheyApplyToTheNextSubscription) {
    set("camera", 1);
    set("resolution", "320x240");
    set("colorSpace", "luma");
    set("frameRate", 20);
    EXPECT_EQ(get("frameRate"), 20);
    EXPECT_EQ(stage.extractor->getActiveCamera(), 1);
    proxy->call("subscribe", "client"); // at the default period
    EXPECT_EQ(stage.journal.count("subscribeCamera VisionExtractorMotion 1 1 0 20"), 1);
    EXPECT_EQ(proxy->call<int>("getCurrentPeriod"), 50);
}

TEST_F(KRVisionExtractorParameters, SetWithSubscribersTheyGoToTheCameraService) {
    subscribe();
    set("resolution", "320x240");
    set("colorSpace", "BGR");
    set("camera", 2);
    set("frameRate", 5);
    EXPECT_THAT(stage.journal.get(),
                AllOf(Contains("setResolution " + kId + " 1"), Contains("setColorSpace " + kId + " 13"),
                      Contains("setActiveCamera " + kId + " 2"), Contains("setFrameRate " + kId + " 5")));
    EXPECT_EQ(get("frameRate"), 5);
    EXPECT_EQ(proxy->call<int>("getMyPeriod", "client"), 200);
    set("pause", true);
    EXPECT_TRUE(stage.extractor->isPaused());
    set("pause", false);
    EXPECT_FALSE(stage.extractor->isPaused());
}

TEST_F(KRVisionExtractorParameters, SetWhileTheCameraSubscriptionBeginsTheyReachIt) {
    const auto expectReached = [&](const std::string& name, const KRValue& value, const std::string& call) {
        std::future<void> setting;
        stage.camera->on("subscribeCamera", [&] { setting = startAndLetSleep([&] { set(name, value); }); });
        subscribe();
        resultOf(setting);
        EXPECT_THAT(stage.journal.get(), Contains(call));
        EXPECT_EQ(get(name), value);
        unsubscribe();
    };
    expectReached("resolution", "320x240", "setResolution " + kId + " 1");
    expectReached("colorSpace", "BGR", "setColorSpace " + kId + " 13");
    expectReached("camera", 2, "setActiveCamera " + kId + " 2");
}

TEST_F(KRVisionExtractorParameters, SetWhileTheCameraSubscriptionEndsTheyApplyToTheNext) {
    const auto setAtTheEnd = [&](const std::string& name, const KRValue& value) {
        std::future<void> setting;
        subscribe();
        stage.camera->on("unsubscribe", [&] { setting = startAndLetSleep([&] { set(name, value); }); });
        unsubscribe();
        stage.camera->on("unsubscribe", {});
        resultOf(setting);
        EXPECT_EQ(get(name), value);
    };
    setAtTheEnd("resolution", "320x240");
    setAtTheEnd("colorSpace", "BGR");
    setAtTheEnd("camera", 1);

    subscribe();
    EXPECT_EQ(stage.journal.count("subscribeCamera VisionExtractorMotion 1 1 13 10"), 1);
    Event ended;
    stage.camera->on("setFrameRate", [&] { EXPECT_TRUE(ended.wait()); });
    auto setting = startAndLetSleep([&] { set("frameRate", 20); });
    ASSERT_TRUE(stage.journal.waitFor("setFrameRate " + kId + " 20"));
    unsubscribe();
    ended.set();
    resultOf(setting);
    EXPECT_EQ(get("frameRate"), 20);
}

TEST_F(KRVisionExtractorParameters, FollowTheMethods) {
    EXPECT_TRUE(proxy->call<bool>("setResolution", 3));
    EXPECT_TRUE(proxy->call<bool>("setActiveCamera", 2));
    EXPECT_EQ(get("resolution"), "1280x960");
    EXPECT_EQ(get("camera"), 2);
    subscribe();
    proxy->call("pause", true);
    EXPECT_EQ(get("pause"), true);
    EXPECT_EQ(get("frameRate"), 10);
}

TEST_F(KRVisionExtractorParameters, RefusalsStateTheReason) {
    const auto refused = [&](const std::string& name, const KRValue& value, const std::string& why) {
        EXPECT_THAT([&] { set(name, value); }, ThrowsMessage<KRError>(HasSubstr(name + " cannot be " + why)));
    };
    refused("camera", 7, "7 now: camera 7 does not exist");
    refused("camera", 100, "100; it takes a whole number from 0 to 99");
    refused("resolution", "641x480", "\"641x480\"; it takes one of 160x120");
    refused("frameRate", 31, "31; it takes a whole number from 1 to 30 images per second");
    refused("frameRate", 0, "0; ");
    refused("pause", true, "true now: nothing is processed while nobody is subscribed");
    subscribe();
    refused("camera", 7, "7 now: camera 7 does not exist");
    EXPECT_FALSE(stage.extractor->isPaused());
    stage.camera->acceptance = Acceptance::Nothing;
    refused("resolution", "320x240", "320x240 now: the camera service does not deliver it");
    refused("colorSpace", "luma", "luma now: the camera service does not deliver it");
    refused("frameRate", 5, "5 now: the camera service refuses it");
    EXPECT_EQ(get("resolution"), "160x120");
    EXPECT_EQ(get("camera"), 0);
    stage.camera->acceptance = Acceptance::Real;
    stage.camera->fail("setActiveCamera");
    refused("camera", 1, "1 now: injected");
    EXPECT_FALSE(stage.extractor->isPaused()) << "a refused value changes nothing";
}

TEST_F(KRVisionExtractorParameters, TheCurrentValueIsNeverRefused) {
    set("pause", false);
    set("camera", 0);
    set("colorSpace", "YUV422");
    EXPECT_THAT(stage.journal.get(), Not(Contains("getCameraModel 0")));
}

TEST_F(KRVisionExtractorParameters, TheCameraCanBeSetBeforeTheServiceExists) {
    stage.camera.reset();
    set("camera", 5);
    EXPECT_EQ(stage.extractor->getActiveCamera(), 5);
}

TEST_F(KRVisionExtractorParameters, AnyChangeRaisesTheEvent) {
    const auto listener = createModule<EventListener>(stage.broker, "Listener");
    KRMemoryProxy memory(stage.broker);
    memory.subscribeToEvent("Motion/ParameterChanged", "Listener", "onEvent");
    EXPECT_TRUE(proxy->call<bool>("setResolution", 2));
    EXPECT_FALSE(proxy->call<bool>("setResolution", 9));
    set("colorSpace", "luma");
    subscribe();
    proxy->call("pause", true);
    std::vector<KRValue> values;
    for (const auto& event : listener->waitForEvents(3)) {
        values.push_back(event.second);
    }
    EXPECT_THAT(values, ElementsAre(KRValue::array("resolution", "640x480"),
                                    KRValue::array("colorSpace", "luma"), KRValue::array("pause", true)));
}

TEST(KRVisionExtractorInitialParameters, OfAModuleWithOddSettingsAreWithinTheirRanges) {
    Journal journal;
    const auto broker = KRBroker::create();
    const auto extractor = createModule<TestExtractor>(broker, "Odd", journal, 12, 26, 1, 120);
    const auto list = getParameterList(*broker->getProxy("Odd"));
    std::string problem;
    for (const KRParameterInfo& each : list) {
        EXPECT_TRUE(each.convert(each.value, problem)) << problem;
        broker->getProxy("Odd")->call("setParameterValue", each.name, each.value);
    }
    EXPECT_EQ(list[0].value, 120);
    EXPECT_EQ(list[1].value, "80x45");
    EXPECT_EQ(list[2].value, "26");
    EXPECT_EQ(extractor->getResolution(), 12);
}

TEST(KRVisionExtractorInitialParameters, ApplyBeforeTheFirstSubscription) {
    Journal journal;
    const auto broker = KRBroker::create();
    const auto camera = createModule<FakeCamera>(broker, "KRVideoDevice", journal);
    broker->setInitialParameters("Motion", {{"camera", 2}, {"resolution", "320x240"}, {"pause", false}});
    const auto extractor = createModule<TestExtractor>(broker, "Motion", journal);
    EXPECT_EQ(extractor->getActiveCamera(), 2);
    EXPECT_EQ(extractor->getResolution(), 1);
}

} // namespace
} // namespace KR::test
