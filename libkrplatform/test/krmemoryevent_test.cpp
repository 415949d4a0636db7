#include "krplatform/krmemoryproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "eventmodules.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::Event;
using test::EventListener;
using test::eventually;
using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::ThrowsMessage;

/// A broker, its memory, and a client "client" that is subscribed to "event".
struct Fixture {
    explicit Fixture(EventListener::Hook hook = {})
        : client(createModule<EventListener>(broker, "client", std::move(hook))) {
        memory.subscribeToEvent("event", "client", "onEvent");
    }
    /// Events delivered and lost, as the memory counts them.
    std::pair<int, int> count() {
        const KRValue row = memory.getEventSubscribers("event")[0];
        return {row[2].to<int>(), row[3].to<int>()};
    }

    boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRMemoryProxy memory{broker};
    KRModuleHandle<EventListener> client;
};

TEST(KRMemoryEvent, IsDeliveredWithItsNameAndValueAndKeptAsData) {
    Fixture f;
    f.memory.raiseEvent("event", KRValue::array(1, "face"));
    EXPECT_THAT(f.client->waitForEvents(1), ElementsAre(Pair("event", KRValue::array(1, "face"))));
    EXPECT_EQ(f.memory.getData("event"), KRValue::array(1, "face"));
}

TEST(KRMemoryEvent, ReachesEverySubscriberAndNobodyElse) {
    Fixture f;
    const auto other = createModule<EventListener>(f.broker, "other");
    const auto bystander = createModule<EventListener>(f.broker, "bystander");
    f.memory.subscribeToEvent("event", "other", "onEvent");
    f.memory.subscribeToEvent("another event", "bystander", "onEvent");
    f.memory.raiseEvent("event", 1);
    f.memory.raiseEvent("another event", 2);
    EXPECT_THAT(f.client->waitForEvents(1), ElementsAre(Pair("event", 1)));
    EXPECT_THAT(other->waitForEvents(1), ElementsAre(Pair("event", 1)));
    EXPECT_THAT(bystander->waitForEvents(1), ElementsAre(Pair("another event", 2)));
}

TEST(KRMemoryEvent, TenThousandComeInTheOrderOfRaising) {
    Fixture f;
    constexpr int kEvents = 10000;
    for (int i = 0; i < kEvents; ++i) {
        f.memory.raiseEvent("event", i);
    }
    const auto events = f.client->waitForEvents(kEvents);
    ASSERT_EQ(events.size(), static_cast<std::size_t>(kEvents));
    for (int i = 0; i < kEvents; ++i) {
        ASSERT_EQ(events[static_cast<std::size_t>(i)].second, i);
    }
    EXPECT_EQ(f.count(), std::pair(kEvents, 0));
}

TEST(KRMemoryEvent, EachRaisersEventsComeInTheirOrder) {
    Fixture f;
    std::vector<std::thread> raisers;
    for (int raiser = 0; raiser < 4; ++raiser) {
        raisers.emplace_back([&, raiser] {
            for (int i = 0; i < 500; ++i) {
                f.memory.raiseEvent("event", KRValue::array(raiser, i));
            }
        });
    }
    for (std::thread& raiser : raisers) {
        raiser.join();
    }
    std::vector<int> next(4);
    for (const auto& [event, value] : f.client->waitForEvents(2000)) {
        EXPECT_EQ(value[1], next.at(static_cast<std::size_t>(value[0].to<int>()))++);
    }
    EXPECT_THAT(next, ElementsAre(500, 500, 500, 500));
}

TEST(KRMemoryEvent, ASlowSubscriberLosesTheOldestAndTheLossIsLoggedAndCounted) {
    constexpr int kKept = 16384;
    constexpr int kTooMany = 100;
    const test::RecordedLog recorded;
    Event entered;
    Event release;
    Fixture f([&](const KRValue&) {
        entered.set();
        EXPECT_TRUE(release.wait());
    });
    const test::SetAtEnd end(release);
    f.memory.raiseEvent("event", 0);
    ASSERT_TRUE(entered.wait());
    for (int i = 1; i <= kKept + kTooMany; ++i) {
        f.memory.raiseEvent("event", i);
    }
    EXPECT_EQ(f.count(), std::pair(1, kTooMany));
    release.set();
    const auto events = f.client->waitForEvents(1 + kKept);
    ASSERT_EQ(events.size(), 1u + kKept);
    EXPECT_EQ(events[0].second, 0);
    EXPECT_EQ(events[1].second, kTooMany + 1);
    EXPECT_EQ(events.back().second, kKept + kTooMany);
    EXPECT_EQ(f.count(), std::pair(1 + kKept, kTooMany));
    const auto warnings = recorded.find(KRLogLevel::Warning, "");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_THAT(warnings[0].message, HasSubstr("event event for client.onEvent: lost 100 events"));
}

TEST(KRMemoryEvent, ASlowSubscriberIsToldHowManyEventsItHasLostBeforeTheNextOne) {
    constexpr int kKept = 16384;
    constexpr int kTooMany = 3;
    const auto broker = KRBroker::create("local:");
    KRMemoryProxy memory(broker);
    Event entered;
    Event release;
    const test::SetAtEnd end(release);
    std::mutex mutex;
    std::vector<std::string> heard; // of the first three
    const auto client = makeModule(broker, "client", [&](TestModule& module) {
        const auto hear = [&](const std::string& what) {
            const std::lock_guard lock(mutex);
            if (heard.size() < 3) {
                heard.push_back(what);
            }
        };
        module.add("onEvent", [&, hear](const std::string&, const KRValue& value) {
            entered.set();
            EXPECT_TRUE(release.wait());
            hear(std::to_string(value.to<int>()));
        });
        module.add("onEventsLost", [hear](const std::string& event, int count) {
            hear(event + " " + std::to_string(count));
        });
    });
    memory.subscribeToEvent("event", "client", "onEvent");
    memory.raiseEvent("event", 0);
    ASSERT_TRUE(entered.wait());
    for (int i = 1; i <= kKept + kTooMany; ++i) {
        memory.raiseEvent("event", i);
    }
    release.set();
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard lock(mutex);
        return heard.size() == 3;
    }));
    EXPECT_THAT(heard, ElementsAre("0", "event 3", "4"));
}

TEST(KRMemoryEvent, ASlowSubscriberHoldsUpNeitherTheRaiserNorOthers) {
    Event entered;
    Event release;
    Fixture f([&](const KRValue&) {
        entered.set();
        EXPECT_TRUE(release.wait());
    });
    const test::SetAtEnd end(release);
    const auto quick = createModule<EventListener>(f.broker, "quick");
    f.memory.subscribeToEvent("event", "quick", "onEvent");
    f.memory.raiseEvent("event", 1);
    ASSERT_TRUE(entered.wait());
    f.memory.raiseEvent("event", 2);
    EXPECT_THAT(quick->waitForEvents(2), ElementsAre(Pair("event", 1), Pair("event", 2)));
}

TEST(KRMemoryEvent, ACallbackThatThrowsIsLoggedAndGetsTheNextEventAllTheSame) {
    const test::RecordedLog recorded;
    Fixture f([&](const KRValue& value) {
        if (value == 1) {
            throw std::runtime_error("no film");
        }
        if (value == 2) {
            throw 7;
        }
    });
    for (const int value : {1, 2, 3}) {
        f.memory.raiseEvent("event", value);
        EXPECT_THAT(f.client->waitForEvents(static_cast<std::size_t>(value)).back(), Pair("event", value));
    }
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Warning, "event event for client.onEvent: no film"));
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Warning, "not a std::exception"));
}

TEST(KRMemoryEvent, ACallbackMayRaiseSubscribeAndUnsubscribe) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto client = createModule<EventListener>(broker, "client", [&](const KRValue& value) {
        if (value == 1) {
            memory.raiseEvent("event", 2);
            memory.subscribeToEvent("other event", "client", "onEvent");
        } else if (value == 2) {
            memory.unsubscribeFromEvent("event", "client");
            memory.raiseEvent("event", 3);
            memory.raiseEvent("other event", 4);
        }
    });
    memory.subscribeToEvent("event", "client", "onEvent");
    memory.raiseEvent("event", 1);
    EXPECT_THAT(client->waitForEvents(3),
                ElementsAre(Pair("event", 1), Pair("event", 2), Pair("other event", 4)));
}

TEST(KRMemoryEvent, SubscribingAgainReplacesTheCallback) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    Event called;
    const auto client = makeModule(broker, "client", [&](TestModule& m) {
        m.add("first", [](const std::string&, const KRValue&) { ADD_FAILURE(); });
        m.add("second", [&](const std::string&, const KRValue&) { called.set(); });
    });
    memory.subscribeToEvent("event", "client", "first");
    memory.subscribeToEvent("event", "client", "second");
    EXPECT_EQ(memory.getEventSubscribers("event"), KRValue::array(KRValue::array("client", "second", 0, 0)));
    memory.raiseEvent("event", 1);
    EXPECT_TRUE(called.wait());
}

TEST(KRMemoryEvent, NothingComesAfterUnsubscribing) {
    Fixture f;
    f.memory.subscribeToEvent("last", "client", "onEvent");
    f.memory.unsubscribeFromEvent("event", "client");
    f.memory.raiseEvent("event", 1);
    f.memory.raiseEvent("last", 2);
    EXPECT_THAT(f.client->waitForEvents(1), ElementsAre(Pair("last", 2)));
    EXPECT_THAT([&] { f.memory.unsubscribeFromEvent("event", "client"); },
                ThrowsMessage<KRError>(HasSubstr("client is not subscribed to the event event")));
    EXPECT_THROW(f.memory.unsubscribeFromEvent("unknown", "client"), KRError);
}

TEST(KRMemoryEvent, ABadClientOrCallbackIsRefused) {
    Fixture f;
    EXPECT_THAT([&] { f.memory.subscribeToEvent("e", "nobody", "onEvent"); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named nobody")));
    EXPECT_THAT(
        [&] { f.memory.subscribeToEvent("e", "client", "fly"); },
        ThrowsMessage<KRError>(HasSubstr("the module client has no method fly(string event, value)")));
    EXPECT_THROW(f.memory.subscribeToEvent("e", "client", "ping"), KRError) << "it takes no arguments";
    EXPECT_EQ(f.memory.getEventSubscribers("e"), KRValue::array());
    f.client->exit();
    EXPECT_THROW(f.memory.subscribeToEvent("e", "client", "onEvent"), KRError) << "it is on its way out";
    EXPECT_EQ(f.memory.getEventSubscribers("e"), KRValue::array());
}

TEST(KRMemoryEvent, AClientThatGoesIsForgotten) {
    Fixture f;
    f.client.reset();
    EXPECT_EQ(f.memory.getEventSubscribers("event"), KRValue::array());
    f.memory.raiseEvent("event", 1);
    const auto namesake = createModule<EventListener>(f.broker, "client");
    f.memory.subscribeToEvent("last", "client", "onEvent");
    f.memory.raiseEvent("event", 2);
    f.memory.raiseEvent("last", 3);
    EXPECT_THAT(namesake->waitForEvents(1), ElementsAre(Pair("last", 3)));
}

TEST(KRMemoryEvent, AClientMaySubscribeInItsConstructor) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    Event called;
    const auto client = makeModule(broker, "client", [&](TestModule& m) {
        memory.subscribeToEvent("event", "client", "later");
        m.add("later", [&](const std::string&, const KRValue&) { called.set(); });
    });
    memory.raiseEvent("event", 1);
    EXPECT_TRUE(called.wait());
    EXPECT_THROW(makeModule(broker, "failing",
                            [&](TestModule&) {
                                memory.subscribeToEvent("event", "failing", "later");
                                throw std::runtime_error("no licence");
                            }),
                 std::runtime_error);
    EXPECT_EQ(memory.getEventSubscribers("event").getSize(), 1u);
}

TEST(KRMemoryEvent, TheListNamesWhatWasDeclaredRaisedOrSubscribedTo) {
    Fixture f;
    f.memory.declareEvent("declared");
    f.memory.declareEvent("declared with extractor", "extractor");
    f.memory.raiseEvent("raised", 1);
    f.memory.insertData("data", 1);
    EXPECT_THAT(f.memory.getEventList(),
                ElementsAre("declared", "declared with extractor", "event", "raised"));
    EXPECT_EQ(f.memory.getEventSubscribers("raised"), KRValue::array());
    EXPECT_EQ(f.memory.getEventSubscribers("unknown"), KRValue::array());
}

TEST(KRMemoryEvent, WhatAClientIsToHearBeforeItIsReachableComesOnceItIs) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto client = createModule<EventListener>(broker, "other");
    std::vector<KRValue> heard;
    Event both;
    {
        const auto early = makeModule(broker, "client", [&](TestModule& m) {
            m.add("onEvent", [&](const std::string&, const KRValue& value) {
                heard.push_back(value); // one after the other
                if (heard.size() == 2) {
                    both.set();
                }
            });
            memory.subscribeToEvent("event", "client", "onEvent");
            memory.subscribeToEvent("event", "other", "onEvent");
            memory.raiseEvent("event", 1);
            EXPECT_EQ(client->waitForEvents(1).size(), 1u); // nobody waits for the other
            memory.raiseEvent("event", 2);
            EXPECT_EQ(client->waitForEvents(2).size(), 2u);
        });
        EXPECT_TRUE(both.wait());
    }
    EXPECT_THAT(heard, ElementsAre(1, 2));
}

} // namespace
} // namespace KR
