#include "krplatform/krmemoryproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "eventmodules.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
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
struct EventFixture {
    explicit EventFixture(EventListener::Hook hook = {})
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
    EventFixture f;
    f.memory.raiseEvent("event", KRValue::array(1, "face"));
    EXPECT_THAT(f.client->waitForEvents(1), ElementsAre(Pair("event", KRValue::array(1, "face"))));
    EXPECT_EQ(f.memory.getData("event"), KRValue::array(1, "face"));
}

TEST(KRMemoryEvent, ReachesEverySubscriberAndNobodyElse) {
    EventFixture f;
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

TEST(KRMemoryEvent, TenThousandArriveInTheOrderRaised) {
    EventFixture f;
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

TEST(KRMemoryEvent, EachRaisersEventsArriveInOrder) {
    EventFixture f;
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
    EventFixture f([&](const KRValue&) {
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

/// A broker with clients "client0" and so on that are subscribed to "event" and blocked in the first one.
struct StuckClients {
    explicit StuckClients(int count) {
        for (int i = 0; i < count; ++i) {
            entered.push_back(std::make_unique<Event>());
            const std::string name = "client" + std::to_string(i);
            clients.push_back(createModule<EventListener>(broker, name, [this, i](const KRValue&) {
                entered[static_cast<std::size_t>(i)]->set();
                EXPECT_TRUE(release.wait());
            }));
            memory.subscribeToEvent("event", name, "onEvent");
        }
        memory.raiseEvent("event", -1);
        for (const auto& each : entered) {
            EXPECT_TRUE(each->wait());
        }
    }
    ~StuckClients() { release.set(); }

    void raiseMegabytes(int count) {
        for (int i = 0; i < count; ++i) {
            memory.raiseEvent("event", KRBinary::copyOf(std::vector<char>(1 << 20).data(), 1 << 20));
        }
    }
    /// The number of events that each has lost.
    std::vector<int> getLost() const {
        std::vector<int> lost;
        const KRValue rows = memory.getEventSubscribers("event");
        for (std::size_t i = 0; i < rows.getSize(); ++i) {
            lost.push_back(rows[i][3].to<int>());
        }
        return lost;
    }

    Event release;
    std::vector<std::unique_ptr<Event>> entered;
    boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRMemoryProxy memory{broker};
    std::vector<KRModuleHandle<EventListener>> clients;
};

TEST(KRMemoryEvent, TheQueueOfASlowSubscriberIsLimitedInBytes) {
    StuckClients stuck(1);
    stuck.raiseMegabytes(100);
    EXPECT_THAT(stuck.getLost(), ElementsAre(37)) << "64 MiB hold 63";
    stuck.release.set();
    EXPECT_EQ(stuck.clients[0]->waitForEvents(1 + 63).size(), 64U);
}

TEST(KRMemoryEvent, TheLimitInBytesCanBeSet) {
    StuckClients stuck(1);
    stuck.memory.setEventLimits(5 << 10, 1 << 20);
    stuck.raiseMegabytes(20);
    EXPECT_THAT(stuck.getLost(), ElementsAre(16)) << "5 MiB hold 4";
    stuck.memory.setEventLimits(1, 1 << 20);
    stuck.raiseMegabytes(1);
    EXPECT_THAT(stuck.getLost(), ElementsAre(20)) << "the newest is kept";
    EXPECT_THROW(stuck.memory.setEventLimits(0, 1), KRError);
    EXPECT_THROW(stuck.memory.setEventLimits(1, -1), KRError);
}

TEST(KRMemoryEvent, TheQueuesOfAllSubscribersTogetherAreLimitedInBytes) {
    StuckClients stuck(3);
    stuck.memory.setEventLimits(100 << 10, 10 << 10);
    stuck.raiseMegabytes(20);
    const auto lost = stuck.getLost();
    EXPECT_EQ(lost[0] + lost[1] + lost[2], 3 * 20 - 9) << "10 MiB hold 9";
    for (const int each : lost) {
        EXPECT_EQ(each, 17) << "the longest queues lose first";
    }
}

// The sanitizers' allocators return memory by their own rules.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
std::size_t getResidentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0;
    std::size_t resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

TEST(KRMemoryEvent, MemoryOfLargeValuesIsReturnedToTheSystem) {
    const auto makeBytes = [](std::size_t size) {
        return KRBinary::copyOf(std::vector<char>(size, 1).data(), size);
    };
    makeBytes(16 << 20); // once a block of this size is freed, the allocator takes smaller ones from its heap
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    constexpr int kValues = 200;
    // Of the same size, or else they might lie elsewhere: then the values would be freed at the end of the heap, which
    // shrinks by itself.
    std::vector<KRBinary> between;
    for (int i = 0; i < kValues; ++i) {
        memory.insertData(std::to_string(i), makeBytes(600'000));
        between.push_back(makeBytes(600'000));
    }
    const std::size_t before = getResidentBytes();
    for (int i = 0; i < kValues; ++i) {
        memory.removeData(std::to_string(i));
    }
    EXPECT_TRUE(eventually([&] { return getResidentBytes() + (60U << 20) < before; }));
}
#endif

TEST(KRMemoryEvent, ASlowSubscriberGetsItsLossCountBeforeTheNextEvent) {
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

TEST(KRMemoryEvent, ASlowSubscriberDelaysNeitherTheRaiserNorOthers) {
    Event entered;
    Event release;
    EventFixture f([&](const KRValue&) {
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

TEST(KRMemoryEvent, ACallbackThatThrowsIsLoggedAndStillGetsTheNextEvent) {
    const test::RecordedLog recorded;
    EventFixture f([&](const KRValue& value) {
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

TEST(KRMemoryEvent, NothingArrivesAfterUnsubscribing) {
    EventFixture f;
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
    EventFixture f;
    EXPECT_THAT([&] { f.memory.subscribeToEvent("e", "nobody", "onEvent"); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named nobody")));
    EXPECT_THAT(
        [&] { f.memory.subscribeToEvent("e", "client", "fly"); },
        ThrowsMessage<KRError>(HasSubstr("the module client has no method fly(string event, value)")));
    EXPECT_THROW(f.memory.subscribeToEvent("e", "client", "ping"), KRError) << "it takes no arguments";
    EXPECT_EQ(f.memory.getEventSubscribers("e"), KRValue::array());
    f.client->exit();
    EXPECT_THROW(f.memory.subscribeToEvent("e", "client", "onEvent"), KRError) << "it is exiting";
    EXPECT_EQ(f.memory.getEventSubscribers("e"), KRValue::array());
}

TEST(KRMemoryEvent, ADestroyedClientIsForgotten) {
    EventFixture f;
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

TEST(KRMemoryEvent, TwoModulesThatDeclareTheSameEventOrKeyAreReported) {
    EventFixture f;
    const test::RecordedLog recorded;
    const auto first = makeModule(f.broker, "first");
    const auto second = makeModule(f.broker, "second", [&](TestModule&) {
        f.memory.declareEvent("seen", "first");
        f.memory.declareEvent("seen", "second"); // not reachable yet
    });
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Warning,
                                 "the modules first and second both declare the event seen; its subscribers "
                                 "are those of second from now on"));
    f.memory.declareData("last", "second");
    f.memory.declareData("last", "second");
    f.memory.declareData("last", "first");
    EXPECT_TRUE(
        recorded.waitFor(KRLogLevel::Warning, "the modules second and first both declare the key last"));
    EXPECT_EQ(recorded.find(KRLogLevel::Warning, " both declare ").size(), 2U);
}

TEST(KRMemoryEvent, ADestroyedModuleNoLongerOwnsItsNames) {
    EventFixture f;
    const test::RecordedLog recorded;
    makeModule(f.broker, "first", [&](TestModule&) {
        f.memory.declareEvent("seen", "first");
        f.memory.declareData("last", "first");
    });
    const auto second = makeModule(f.broker, "second");
    f.memory.declareEvent("seen", "second");
    f.memory.declareData("last", "second");
    EXPECT_EQ(recorded.find(KRLogLevel::Warning, " both declare ").size(), 0U);
}

TEST(KRMemoryEvent, TheListHasEventsDeclaredRaisedOrSubscribedTo) {
    EventFixture f;
    f.memory.declareEvent("declared");
    f.memory.declareEvent("declared with extractor", "extractor");
    f.memory.raiseEvent("raised", 1);
    f.memory.insertData("data", 1);
    EXPECT_THAT(f.memory.getEventList(),
                ElementsAre("declared", "declared with extractor", "event", "raised"));
    EXPECT_EQ(f.memory.getEventSubscribers("raised"), KRValue::array());
    EXPECT_EQ(f.memory.getEventSubscribers("unknown"), KRValue::array());
}

TEST(KRMemoryEvent, EventsForAClientNotYetReachableArriveOnceItIs) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto client = createModule<EventListener>(broker, "other");
    std::vector<KRValue> heard;
    Event both;
    {
        const auto early = makeModule(broker, "client", [&](TestModule& m) {
            m.add("onEvent", [&](const std::string&, const KRValue& value) {
                heard.push_back(value); // one at a time
                if (heard.size() == 2) {
                    both.set();
                }
            });
            memory.subscribeToEvent("event", "client", "onEvent");
            memory.subscribeToEvent("event", "other", "onEvent");
            memory.raiseEvent("event", 1);
            EXPECT_EQ(client->waitForEvents(1).size(), 1u); // neither waits for the other
            memory.raiseEvent("event", 2);
            EXPECT_EQ(client->waitForEvents(2).size(), 2u);
        });
        EXPECT_TRUE(both.wait());
    }
    EXPECT_THAT(heard, ElementsAre(1, 2));
}

} // namespace
} // namespace KR
