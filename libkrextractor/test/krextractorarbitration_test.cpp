#include "recordingextractor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace KR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class KRExtractorArbitration : public ::testing::Test {
protected:
    std::vector<std::string> takeLog() {
        std::vector<std::string> lines;
        for (const KRLogRecord& record : log.take()) {
            lines.push_back((record.level == KRLogLevel::Warning ? "warning:" : "verbose:") + record.message);
        }
        return lines;
    }
    template <class Call>
    void expectError(Call call, const std::string& module, const std::string& method,
                     const std::string& description) {
        try {
            call();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const KRError& error) {
            EXPECT_EQ(error.getModule(), module);
            EXPECT_EQ(error.getMethod(), method);
            EXPECT_EQ(error.getDescription(), description);
        }
    }

    boost::shared_ptr<KRBroker> broker = KRBroker::create("local:");
    KRModuleHandle<RecordingExtractor> extractor = createModule<RecordingExtractor>(broker, "Faces");
    RecordedLog log{"core.extractor"};
};

TEST_F(KRExtractorArbitration, NobodySubscribedMeansMinusOne) {
    EXPECT_EQ(extractor->getCurrentPeriod(), -1);
    EXPECT_EQ(extractor->getCurrentPrecision(), -1.0F);
}

TEST_F(KRExtractorArbitration, TheFirstSubscriberStartsTheDetectionAndLogsNothing) {
    extractor->subscribe("A", 100, 0.5F);
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5"));
    EXPECT_EQ(extractor->getCurrentPeriod(), 100);
    EXPECT_EQ(extractor->getCurrentPrecision(), 0.5F);
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(KRExtractorArbitration, TheSecondSubscriberLowersThePeriodAndTheFinestPrecisionStays) {
    extractor->subscribe("A", 100, 0.5F);
    extractor->subscribe("B", 50, 0.2F);
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5", "update 50 0.5"));
    EXPECT_THAT(takeLog(), ElementsAre("verbose:Faces received subscribe from B"));
    extractor->unsubscribe("B");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("update 100 0.5"));
    EXPECT_THAT(takeLog(), ElementsAre("verbose:Faces received unsubscribe from B"));
    EXPECT_EQ(extractor->getCurrentPeriod(), 100);
    extractor->unsubscribe("A");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("stop"));
    EXPECT_EQ(extractor->getCurrentPeriod(), -1);
    EXPECT_EQ(extractor->getCurrentPrecision(), -1.0F);
    EXPECT_THAT(takeLog(), ElementsAre("verbose:Faces received unsubscribe from A"));
}

TEST_F(KRExtractorArbitration, ASlowerSecondSubscriberLeavesThePeriodAlone) {
    extractor->subscribe("A", 50, 0.0F);
    extractor->subscribe("B", 500, 0.0F);
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 50 0", "update 50 0"));
}

TEST_F(KRExtractorArbitration, DetectionStartsAgainAfterTheLastSubscriberLeft) {
    extractor->subscribe("A", 50, 0.0F);
    extractor->unsubscribe("A");
    extractor->subscribe("B", 70, 1.0F);
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 50 0", "stop", "start 70 1"));
}

TEST_F(KRExtractorArbitration, ATooSmallPeriodBecomesTheMinimum) {
    extractor->subscribe("A", 0, 1.0F);
    EXPECT_THAT(takeLog(),
                ElementsAre("warning:Faces requested period is too small; subscribe with period = 1 ms."));
    EXPECT_EQ(extractor->getMyPeriod("A"), 1);
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 1 1"));
}

TEST_F(KRExtractorArbitration, APeriodAtTheMinimumIsKeptWithoutAWarning) {
    extractor->subscribe("A", 1, 1.0F);
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(KRExtractorArbitration, ANegativeMaximumIsNoMaximum) {
    extractor->subscribe("A", std::numeric_limits<int>::max(), 0.0F);
    EXPECT_EQ(extractor->getMyPeriod("A"), std::numeric_limits<int>::max());
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(KRExtractorArbitration, ATooLargePeriodBecomesTheMaximum) {
    extractor->maximum = 1000;
    extractor->subscribe("A", 5000, 0.0F);
    EXPECT_THAT(takeLog(),
                ElementsAre("warning:Faces requested period is too big; subscribe with period = 1000 ms."));
    EXPECT_EQ(extractor->getCurrentPeriod(), 1000);
}

TEST_F(KRExtractorArbitration, AMaximumOfZeroIsABound) {
    extractor->minimum = -10;
    extractor->maximum = 0;
    extractor->subscribe("A", 5, 0.0F);
    EXPECT_EQ(extractor->getCurrentPeriod(), 0);
}

TEST_F(KRExtractorArbitration, SubscribingTwiceReplacesTheParametersWithAWarning) {
    extractor->subscribe("A", 30, 0.0F);
    extractor->subscribe("A", 60, 2.0F);
    EXPECT_THAT(
        takeLog(),
        ElementsAre("warning:Faces the module is already subscribed: will just update the parameters.",
                    "verbose:Faces received subscribe from A"));
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 30 0", "update 60 2"));
    extractor->unsubscribe("A");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("stop"));
}

TEST_F(KRExtractorArbitration, SubscribingWithoutValuesUsesTheDefaultsThenTheCurrentValues) {
    extractor->subscribe("A");
    extractor->updatePeriod("A", 77);
    extractor->updatePrecision("A", 0.25F);
    extractor->subscribe("B");
    EXPECT_THAT(extractor->takeHooks(),
                ElementsAre("start 30 0", "update 77 0", "update 77 0.25", "update 77 0.25"));
    EXPECT_EQ(extractor->getMyPeriod("B"), 77);
    EXPECT_EQ(extractor->getMyPrecision("B"), 0.25F);
}

TEST_F(KRExtractorArbitration, UnsubscribingAnUnknownModuleLogsAWarningAndThrows) {
    const auto unsubscribe = [&] { extractor->unsubscribe("X"); };
    const char* method = "received unsubscribe from non-subscribed module: ";
    expectError(unsubscribe, "KRExtractor", method, "X");
    EXPECT_THAT(takeLog(), ElementsAre("warning:Faces received unsubscribe from non-subscribed module X"));
    extractor->subscribe("A", 100, 0.5F);
    expectError(unsubscribe, "KRExtractor", method, "X");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5"));
    EXPECT_EQ(extractor->getCurrentPeriod(), 100);
}

TEST_F(KRExtractorArbitration, EveryOtherOperationRefusesUnknownNames) {
    extractor->subscribe("A", 100, 0.5F);
    expectError([&] { extractor->updatePeriod("X", 10); }, "KRExtractor",
                "updateParam: unknown module name: ", "X");
    expectError([&] { extractor->updatePrecision("X", 1); }, "KRExtractor",
                "updateParam: unknown module name: ", "X");
    expectError([&] { extractor->getMyPeriod("X"); }, "KRExtractor",
                "getMyPeriod: unknown module name: ", "X");
    expectError([&] { extractor->getMyPrecision("X"); }, "KRExtractor",
                "getMyPrecision: unknown module name: ", "X");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5"));
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(KRExtractorArbitration, UpdatingThePeriodOfAnUnknownModuleDoesNotWarnAboutThePeriod) {
    EXPECT_THROW(extractor->updatePeriod("X", -5), KRError);
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(KRExtractorArbitration, AnUpdatedPeriodIsClamped) {
    extractor->subscribe("A", 100, 0.5F);
    extractor->updatePeriod("A", -5);
    EXPECT_EQ(extractor->getMyPeriod("A"), 1);
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5", "update 1 0.5"));
    const auto records = log.take();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].message, "Faces requested period is too small; subscribe with period = 1 ms.");
    EXPECT_STREQ(records[0].location.function, "updatePeriod");
}

TEST_F(KRExtractorArbitration, LogRecordsNameTheirFileAndOperation) {
    extractor->subscribe("A", 0, 0.0F);
    extractor->subscribe("B", 5, 0.0F);
    extractor->unsubscribe("B");
    std::vector<std::string> functions;
    for (const KRLogRecord& record : log.take()) {
        functions.emplace_back(record.location.function);
        EXPECT_STREQ(record.location.file, "libkrextractor/src/krextractor.cpp");
    }
    EXPECT_THAT(functions, ElementsAre("subscribe", "subscribe", "unsubscribe"));
}

TEST_F(KRExtractorArbitration, AnUpdateCallsTheHookEvenIfNothingChanges) {
    extractor->subscribe("A", 100, 0.5F);
    extractor->updatePeriod("A", 100);
    extractor->updatePrecision("A", 0.5F);
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5", "update 100 0.5", "update 100 0.5"));
}

TEST_F(KRExtractorArbitration, NegativePrecisionsAreAcceptedAndTheLargestWins) {
    extractor->subscribe("A", 10, -3.0F);
    extractor->subscribe("B", 20, -2.0F);
    EXPECT_EQ(extractor->getCurrentPrecision(), -2.0F);
    EXPECT_EQ(extractor->getMyPrecision("A"), -3.0F);
}

TEST_F(KRExtractorArbitration, SubscribersAreListedInByteOrderOfTheirNames) {
    EXPECT_TRUE(extractor->getSubscribersInfo().isArray());
    EXPECT_EQ(extractor->getSubscribersInfo().getSize(), 0U);
    extractor->subscribe("b", 10, 1.0F);
    extractor->subscribe("A", 20, 2.0F);
    extractor->subscribe("a", 30, 3.0F);
    EXPECT_EQ(extractor->getSubscribersInfo(),
              KRValue::array(KRValue::array("A", 20, 2.0F), KRValue::array("a", 30, 3.0F),
                             KRValue::array("b", 10, 1.0F)));
}

TEST_F(KRExtractorArbitration, UpdatingWithoutSubscribersIsAnError) {
    expectError([&] { extractor->xUpdateParameters(); }, "Faces", "xUpdateParameters",
                "no module subscribed");
}

TEST_F(KRExtractorArbitration, AHookThatThrowsDoesNotUndoTheChange) {
    extractor->onHook = [](const std::string&) { throw std::runtime_error("hook"); };
    EXPECT_THROW(extractor->subscribe("A", 100, 0.5F), std::runtime_error);
    EXPECT_EQ(extractor->getMyPeriod("A"), 100);
    EXPECT_THROW(extractor->subscribe("B", 50, 0.5F), std::runtime_error);
    EXPECT_EQ(extractor->getCurrentPeriod(), 50);
    EXPECT_THROW(extractor->unsubscribe("B"), std::runtime_error);
    EXPECT_THROW(extractor->getMyPeriod("B"), KRError);
    EXPECT_THROW(extractor->unsubscribe("A"), std::runtime_error);
    EXPECT_EQ(extractor->getCurrentPeriod(), -1);
    extractor->onHook = nullptr;
    extractor->subscribe("C", 10, 0.0F); // every lock was released
}

TEST_F(KRExtractorArbitration, HooksAndLogListenersMayCallTheGetters) {
    extractor->onHook = [this](const std::string&) {
        extractor->getCurrentPeriod();
        extractor->getSubscribersInfo();
    };
    const KRLogListener listener([this](const KRLogRecord&) { extractor->getCurrentPeriod(); });
    extractor->subscribe("A", 0, 0.5F);
    extractor->subscribe("A", 0, 0.5F);
    extractor->updatePeriod("A", -1);
    extractor->unsubscribe("A");
    EXPECT_EQ(extractor->takeHooks().size(), 4U);
    EXPECT_TRUE(flushLog());
}

TEST_F(KRExtractorArbitration, ShuttingDownStopsTheDetectionOnceAndRefusesSubscribers) {
    extractor->subscribe("A", 100, 0.5F);
    extractor->shutDown();
    extractor->shutDown();
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5", "stop"));
    EXPECT_EQ(extractor->getCurrentPeriod(), -1);
    expectError([&] { extractor->subscribe("B", 1, 1.0F); }, "Faces", "subscribe", "the module is exiting");
}

TEST_F(KRExtractorArbitration, ShuttingDownWithoutSubscribersCallsNoHook) {
    extractor->shutDown();
    EXPECT_THAT(extractor->takeHooks(), IsEmpty());
}

} // namespace
} // namespace KR::test
