#include "krplatform/krsubscription.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krproxy.hpp"

#include "eventmodules.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Names = FakeExtractor::Names;

TEST(KRSubscription, SubscribesUntilItGoesOutOfScope) {
    const auto broker = KRBroker::create();
    const auto extractor = createModule<FakeExtractor>(broker, "Faces");
    {
        const KRSubscription subscription(broker, "Faces", "Greeter");
        EXPECT_TRUE(extractor->waitForSubscribers({"Greeter"}));
        EXPECT_TRUE(eventually([&] { return subscription.isSubscribed(); }));
        EXPECT_EQ(subscription.getExtractor(), "Faces");
        EXPECT_EQ(subscription.getFailure(), "");
    }
    EXPECT_THAT(extractor->getSubscribers(), IsEmpty());
    EXPECT_THAT(extractor->getCalls(), ElementsAre("subscribe Greeter", "unsubscribe Greeter"));
}

TEST(KRSubscription, PassesOnPeriodAndPrecision) {
    const auto broker = KRBroker::create();
    std::atomic<int> period = 0;
    std::atomic<float> precision = -1;
    const auto extractor = makeModule(broker, "Faces", [&](TestModule& m) {
        m.add("subscribe", [&](const std::string&, int itsPeriod, float itsPrecision) {
            precision = itsPrecision;
            period = itsPeriod;
        });
        m.add("unsubscribe", [](const std::string&) {});
    });
    {
        const KRSubscription subscription(broker, "Faces", "Greeter", 100, 0.5F);
        EXPECT_TRUE(eventually([&] { return period == 100; }));
        EXPECT_EQ(precision, 0.5F);
    }
    const KRSubscription subscription(broker, "Faces", "Greeter", 200);
    EXPECT_TRUE(eventually([&] { return period == 200; }));
    EXPECT_EQ(precision, 0.0F);
}

TEST(KRSubscription, WaitsForAnExtractorThatStartsLater) {
    const auto broker = KRBroker::create();
    const KRSubscription subscription(broker, "Faces", "Greeter");
    EXPECT_FALSE(subscription.isSubscribed());
    const auto extractor = createModule<FakeExtractor>(broker, "Faces");
    EXPECT_TRUE(extractor->waitForSubscribers({"Greeter"}));
}

TEST(KRSubscription, SubscribesAgainWheneverTheExtractorReturns) {
    const auto broker = KRBroker::create();
    const KRSubscription subscription(broker, "Faces", "Greeter");
    for (int i = 0; i < 20; ++i) {
        const auto extractor = createModule<FakeExtractor>(broker, "Faces");
        EXPECT_TRUE(extractor->waitForSubscribers({"Greeter"})) << i;
        EXPECT_TRUE(eventually([&] { return subscription.isSubscribed(); }));
    }
    EXPECT_FALSE(subscription.isSubscribed());
}

TEST(KRSubscription, SubscribesToAnExtractorThatReplacedTheOneItWasAsking) {
    const auto broker = KRBroker::create();
    Event asked;
    Event mayAnswer;
    const SetAtEnd atEnd(mayAnswer);
    auto first = createModule<FakeExtractor>(broker, "Faces", [&](const std::string&, const std::string&) {
        asked.set();
        EXPECT_TRUE(mayAnswer.wait());
    });
    const KRSubscription subscription(broker, "Faces", "Greeter");
    ASSERT_TRUE(asked.wait());
    first->exit(); // it stays until its call has ended
    mayAnswer.set();
    first.reset();
    const auto second = createModule<FakeExtractor>(broker, "Faces");
    EXPECT_TRUE(second->waitForSubscribers({"Greeter"}));
}

TEST(KRSubscription, RetriesWhenRefused) {
    const auto broker = KRBroker::create();
    const RecordedLog log;
    std::atomic<bool> refuses = true;
    const auto extractor =
        createModule<FakeExtractor>(broker, "Faces", [&](const std::string& call, const std::string&) {
            if (refuses && call == "subscribe") {
                throw KRError("Faces", "subscribe", "the lens is dirty");
            }
        });
    const KRSubscription subscription(broker, "Faces", "Greeter");
    EXPECT_TRUE(eventually([&] { return subscription.getFailure() == "the lens is dirty"; }));
    EXPECT_FALSE(subscription.isSubscribed());
    EXPECT_TRUE(log.waitFor(KRLogLevel::Warning, "Faces refuses the subscription of Greeter"));
    EXPECT_THAT(extractor->getCalls(), testing::Contains("unsubscribe Greeter"))
        << "it may have kept a subscriber that it does not serve";
    refuses = false;
    EXPECT_TRUE(extractor->waitForSubscribers({"Greeter"}));
    EXPECT_TRUE(eventually([&] { return subscription.getFailure().empty(); }));
}

TEST(KRSubscription, ARestartEndsThePauseAfterARefusal) {
    const auto broker = KRBroker::create();
    auto refusing = createModule<FakeExtractor>(
        broker, "Faces", [](const std::string&, const std::string&) { throw std::runtime_error("never"); });
    const KRSubscription subscription(broker, "Faces", "Greeter");
    EXPECT_TRUE(eventually([&] { return subscription.getFailure() == "never"; }));
    refusing.reset();
    EXPECT_EQ(subscription.getFailure(), "") << "nobody refuses now";
    const auto extractor = createModule<FakeExtractor>(broker, "Faces");
    EXPECT_TRUE(extractor->waitForSubscribers({"Greeter"}));
}

TEST(KRSubscription, WaitsForARunningSubscriptionBeforeItUnsubscribes) {
    const auto broker = KRBroker::create();
    Event asked;
    Event mayAnswer;
    const SetAtEnd atEnd(mayAnswer);
    const auto extractor =
        createModule<FakeExtractor>(broker, "Faces", [&](const std::string& call, const std::string&) {
            if (call == "subscribe") {
                asked.set();
                EXPECT_TRUE(mayAnswer.wait());
            }
        });
    auto subscription = std::make_unique<KRSubscription>(broker, "Faces", "Greeter");
    ASSERT_TRUE(asked.wait());
    auto end = startAndLetSleep([&] { subscription.reset(); });
    mayAnswer.set();
    resultOf(end);
    EXPECT_THAT(extractor->getCalls(), ElementsAre("subscribe Greeter", "unsubscribe Greeter"));
}

TEST(KRSubscription, CanBeDestroyedWithoutAnExtractor) {
    const auto broker = KRBroker::create();
    auto extractor = createModule<FakeExtractor>(broker, "Faces");
    auto subscription = std::make_unique<KRSubscription>(broker, "Faces", "Greeter");
    EXPECT_TRUE(extractor->waitForSubscribers({"Greeter"}));
    extractor.reset();
    subscription.reset();
    const KRSubscription never(broker, "Nobody", "Greeter");
}

TEST(KRSubscription, CanBeMoved) {
    const auto broker = KRBroker::create();
    const auto extractor = createModule<FakeExtractor>(broker, "Faces");
    std::vector<KRSubscription> subscriptions;
    for (const char* client : {"A", "B", "C"}) {
        subscriptions.emplace_back(broker, "Faces", client);
    }
    EXPECT_TRUE(extractor->waitForSubscribers({"A", "B", "C"}));
    subscriptions.pop_back();
    EXPECT_TRUE(extractor->waitForSubscribers({"A", "B"}));
}

} // namespace
} // namespace KR::test
