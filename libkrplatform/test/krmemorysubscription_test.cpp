#include "krplatform/krmemoryproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "eventmodules.hpp"
#include "recordedlog.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>

namespace KR {
namespace {

using test::Event;
using test::EventListener;
using test::FakeExtractor;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

/// A broker, its memory, an extractor "extractor" that declared "event", and a client "client".
struct SubscriptionFixture {
    explicit SubscriptionFixture(FakeExtractor::Hook hook = {})
        : extractor(createModule<FakeExtractor>(broker, "extractor", std::move(hook))) {
        memory.declareEvent("event", "extractor");
    }

    boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRMemoryProxy memory{broker};
    KRModuleHandle<FakeExtractor> extractor;
    KRModuleHandle<EventListener> client = createModule<EventListener>(broker, "client");
};

TEST(KRMemorySubscription, SubscribesTheClientToTheExtractorBeforeItReturns) {
    SubscriptionFixture f;
    f.memory.subscribeToEvent("event", "client", "onEvent");
    EXPECT_THAT(f.extractor->getCalls(), ElementsAre("subscribe client"));
    f.memory.unsubscribeFromEvent("event", "client");
    EXPECT_THAT(f.extractor->getCalls(), ElementsAre("subscribe client", "unsubscribe client"));
}

TEST(KRMemorySubscription, EachClientIsSubscribedSeparately) {
    SubscriptionFixture f;
    const auto other = createModule<EventListener>(f.broker, "other");
    f.memory.subscribeToEvent("event", "client", "onEvent");
    f.memory.subscribeToEvent("event", "other", "onEvent");
    f.memory.unsubscribeFromEvent("event", "client");
    EXPECT_THAT(f.extractor->getSubscribers(), ElementsAre("other"));
}

TEST(KRMemorySubscription, AClientsLastEventUnsubscribesItFromTheExtractor) {
    SubscriptionFixture f;
    f.memory.declareEvent("second", "extractor");
    f.memory.subscribeToEvent("event", "client", "onEvent");
    f.memory.subscribeToEvent("second", "client", "onEvent");
    f.memory.subscribeToEvent("second", "client", "onEvent");
    EXPECT_THAT(f.extractor->getCalls(), ElementsAre("subscribe client")) << "once for all of them";
    f.memory.unsubscribeFromEvent("event", "client");
    EXPECT_THAT(f.extractor->getSubscribers(), ElementsAre("client"));
    f.memory.unsubscribeFromEvent("second", "client");
    EXPECT_THAT(f.extractor->getCalls(), ElementsAre("subscribe client", "unsubscribe client"));
}

TEST(KRMemorySubscription, AnEventMayBeDeclaredLater) {
    SubscriptionFixture f;
    f.memory.subscribeToEvent("later", "client", "onEvent");
    EXPECT_THAT(f.extractor->getCalls(), IsEmpty());
    f.memory.declareEvent("later", "extractor");
    EXPECT_TRUE(f.extractor->waitForSubscribers({"client"}));
}

TEST(KRMemorySubscription, ADeclaredExtractorMayStartLater) {
    SubscriptionFixture f;
    f.memory.declareEvent("other event", "other extractor");
    f.memory.subscribeToEvent("other event", "client", "onEvent");
    const auto other = createModule<FakeExtractor>(f.broker, "other extractor");
    EXPECT_TRUE(other->waitForSubscribers({"client"}));
}

TEST(KRMemorySubscription, AnEventMayMoveFromOneExtractorToAnother) {
    SubscriptionFixture f;
    const auto other = createModule<FakeExtractor>(f.broker, "other extractor");
    f.memory.subscribeToEvent("event", "client", "onEvent");
    f.memory.declareEvent("event", "other extractor");
    EXPECT_TRUE(other->waitForSubscribers({"client"}));
    EXPECT_TRUE(f.extractor->waitForSubscribers({}));
    f.memory.declareEvent("event");
    EXPECT_TRUE(other->waitForSubscribers({}));
}

TEST(KRMemorySubscription, ARestartedExtractorGetsItsSubscribersBack) {
    SubscriptionFixture f;
    f.memory.subscribeToEvent("event", "client", "onEvent");
    for (int round = 0; round < 5; ++round) {
        f.extractor.reset();
        f.extractor = createModule<FakeExtractor>(f.broker, "extractor");
        EXPECT_TRUE(f.extractor->waitForSubscribers({"client"}));
    }
    f.memory.unsubscribeFromEvent("event", "client");
    EXPECT_THAT(f.extractor->getSubscribers(), IsEmpty());
}

TEST(KRMemorySubscription, AnExtractorRefusingAsItExitsGetsItsSubscribersBack) {
    for (const char* refusal :
         {"the module is exiting", "the module is not reachable yet", "there is no module named extractor"}) {
        SubscriptionFixture f([refusal](const std::string& /*call*/, const std::string& /*client*/) {
            throw KRError("extractor", "subscribe",
                          refusal); // as another process does before it announces that
        });
        f.memory.subscribeToEvent("event", "client", "onEvent");
        f.extractor.reset();
        f.extractor = createModule<FakeExtractor>(f.broker, "extractor");
        EXPECT_TRUE(f.extractor->waitForSubscribers({"client"})) << refusal;
    }
}

TEST(KRMemorySubscription, AClientMayLeaveWhileTheExtractorIsAway) {
    SubscriptionFixture f;
    f.memory.subscribeToEvent("event", "client", "onEvent");
    f.extractor.reset();
    f.memory.unsubscribeFromEvent("event", "client");
    f.extractor = createModule<FakeExtractor>(f.broker, "extractor");
    f.memory.subscribeToEvent("event", "client", "onEvent");
    EXPECT_THAT(f.extractor->getCalls(), ElementsAre("subscribe client"));
}

TEST(KRMemorySubscription, ADestroyedClientIsUnsubscribedFromTheExtractor) {
    SubscriptionFixture f;
    const auto other = createModule<EventListener>(f.broker, "other");
    f.memory.subscribeToEvent("event", "client", "onEvent");
    f.memory.subscribeToEvent("event", "other", "onEvent");
    f.client.reset();
    EXPECT_TRUE(f.extractor->waitForSubscribers({"other"}));
}

TEST(KRMemorySubscription, AnExitingClientIsUnsubscribedBeforeItsDestruction) {
    SubscriptionFixture f;
    f.memory.subscribeToEvent("event", "client", "onEvent");
    f.client->exit();
    EXPECT_TRUE(f.extractor->waitForSubscribers({}));
}

TEST(KRMemorySubscription, TheExtractorsRefusalIsTheCallersErrorAndNothingIsKept) {
    std::atomic<bool> refuse = true;
    SubscriptionFixture f([&](const std::string& call, const std::string&) {
        if (refuse && call == "subscribe") {
            throw KRError("extractor", "subscribe", "the camera is unplugged");
        }
    });
    EXPECT_THAT([&] { f.memory.subscribeToEvent("event", "client", "onEvent"); },
                ThrowsMessage<KRError>(HasSubstr("the camera is unplugged")));
    EXPECT_EQ(f.memory.getEventSubscribers("event"), KRValue::array());
    EXPECT_THAT(f.extractor->getCalls(), ElementsAre("subscribe client", "unsubscribe client"))
        << "it may have kept the client";
    refuse = false;
    f.memory.subscribeToEvent("event", "client", "onEvent");
    EXPECT_THAT(f.extractor->getSubscribers(), ElementsAre("client"));
}

TEST(KRMemorySubscription, AnExtractorThatThrowsAnythingBlocksNobody) {
    std::atomic<bool> refuse = true;
    SubscriptionFixture f([&](const std::string&, const std::string&) {
        if (refuse) {
            throw 7;
        }
    });
    EXPECT_THROW(f.memory.subscribeToEvent("event", "client", "onEvent"), int);
    refuse = false;
    f.memory.subscribeToEvent("event", "client", "onEvent");
    refuse = true;
    f.memory.unsubscribeFromEvent("event", "client");
    refuse = false;
    f.memory.subscribeToEvent("event", "client", "onEvent");
    EXPECT_THAT(f.extractor->getSubscribers(), ElementsAre("client"));
}

TEST(KRMemorySubscription, AnExtractorThatFailsToUnsubscribeIsLogged) {
    const test::RecordedLog recorded;
    SubscriptionFixture f([&](const std::string& call, const std::string&) {
        if (call == "unsubscribe") {
            throw std::runtime_error("stuck");
        }
    });
    f.memory.subscribeToEvent("event", "client", "onEvent");
    EXPECT_NO_THROW(f.memory.unsubscribeFromEvent("event", "client"));
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Warning, "stuck"));
}

TEST(KRMemorySubscription, AModuleWithoutSubscribeIsNotAnExtractor) {
    SubscriptionFixture f;
    f.memory.declareEvent("event", "client");
    EXPECT_THAT([&] { f.memory.subscribeToEvent("event", "client", "onEvent"); },
                ThrowsMessage<KRError>(HasSubstr("client.subscribe: no such method")));
}

TEST(KRMemorySubscription, HoldsNoLockDuringTheExtractorsAnswer) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto extractor =
        createModule<FakeExtractor>(broker, "extractor", [&](const std::string& call, const std::string&) {
            std::thread([&] {
                memory.raiseEvent("event", call);
                memory.declareEvent("event", "extractor");
                memory.getEventSubscribers("event");
            }).join();
        });
    const auto client = createModule<EventListener>(broker, "client");
    memory.declareEvent("event", "extractor");
    memory.subscribeToEvent("event", "client", "onEvent");
    EXPECT_EQ(client->waitForEvents(1).at(0).second, "subscribe");
    memory.unsubscribeFromEvent("event", "client");
    EXPECT_EQ(memory.getData("event"), "unsubscribe");
}

TEST(KRMemorySubscription, ASecondSubscriptionWaitsForTheFirstInProgress) {
    Event entered;
    Event release;
    SubscriptionFixture f([&](const std::string&, const std::string&) {
        entered.set();
        EXPECT_TRUE(release.wait());
    });
    f.memory.declareEvent("second", "extractor");
    auto first =
        std::async(std::launch::async, [&] { f.memory.subscribeToEvent("event", "client", "onEvent"); });
    const test::SetAtEnd end(release);
    ASSERT_TRUE(entered.wait());
    auto second = test::startAndLetSleep([&] {
        f.memory.subscribeToEvent("second", "client", "onEvent");
        return f.extractor->getSubscribers();
    });
    release.set();
    test::resultOf(first);
    EXPECT_THAT(test::resultOf(second), ElementsAre("client"));
    EXPECT_THAT(f.extractor->getCalls(), ElementsAre("subscribe client"));
}

TEST(KRMemorySubscription, ARefusalDoesNotEndASubscriptionMadeMeanwhile) {
    Event entered;
    Event release;
    std::atomic<int> asked = 0;
    SubscriptionFixture f([&](const std::string& call, const std::string&) {
        if (call == "subscribe" && ++asked == 1) {
            entered.set();
            EXPECT_TRUE(release.wait());
            throw KRError("extractor", "subscribe", "not yet");
        }
    });
    const auto subscribe = [&] { f.memory.subscribeToEvent("event", "client", "onEvent"); };
    auto first = std::async(std::launch::async, subscribe);
    const test::SetAtEnd end(release);
    ASSERT_TRUE(entered.wait());
    auto second = test::startAndLetSleep(subscribe);
    release.set();
    EXPECT_THROW(test::resultOf(first), KRError);
    test::resultOf(second);
    EXPECT_EQ(f.memory.getEventSubscribers("event").getSize(), 1U);
    EXPECT_THAT(f.extractor->getSubscribers(), ElementsAre("client"));
}

TEST(KRMemorySubscription, AnExtractorMayBeDestroyedDuringItsAnswer) {
    for (int round = 0; round < 30; ++round) {
        Event entered;
        Event release;
        SubscriptionFixture f([&](const std::string&, const std::string&) {
            entered.set();
            EXPECT_TRUE(release.wait());
        });
        std::thread subscribing([&] { f.memory.subscribeToEvent("event", "client", "onEvent"); });
        EXPECT_TRUE(entered.wait());
        f.extractor->exit();
        release.set();
        subscribing.join();
        f.extractor.reset();
        f.extractor = createModule<FakeExtractor>(f.broker, "extractor");
        EXPECT_TRUE(f.extractor->waitForSubscribers({"client"})) << "the old one's subscription went with it";
    }
}

} // namespace
} // namespace KR
