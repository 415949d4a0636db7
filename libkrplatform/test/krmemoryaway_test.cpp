// Behaviour of KRMemoryProxy while the memory module is away.

#include "krplatform/krmemoryproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "patience.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::eventually;
using test::makeModule;
using test::RecordedLog;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

/// A broker whose memory module leaves and returns, and records its calls.
class KRMemoryAway : public testing::Test {
protected:
    void startMemory() {
        module = makeModule(broker, "KRMemory", [this](TestModule& m) {
            const auto note = [this](auto... call) {
                const std::lock_guard lock(mutex);
                calls.push_back(KRValue::array(call...));
            };
            using String = const std::string&;
            m.add("insertData", [note](String key, const KRValue& value) { note("insertData", key, value); });
            m.add("raiseEvent", [note](String event, const KRValue& value) {
                if (event == "Refused") {
                    throw KRError("KRMemory", "raiseEvent", "no");
                }
                note("raiseEvent", event, value);
            });
            m.add("declareEvent", [note](String event) { note("declareEvent", event); });
            m.add("declareEvent", [note](String event, String by) { note("declareEvent", event, by); });
            m.add("subscribeToEvent", [note](String event, String client, String callback) {
                note("subscribeToEvent", event, client, callback);
            });
            m.add("unsubscribeFromEvent",
                  [note](String event, String client) { note("unsubscribeFromEvent", event, client); });
        });
    }
    void stopMemory() {
        module.reset();
        const std::lock_guard lock(mutex);
        calls.clear();
    }
    std::vector<KRValue> getCalls() const {
        const std::lock_guard lock(mutex);
        return calls;
    }
    /// Waits for that many calls to the memory and returns them.
    std::vector<KRValue> waitForCalls(std::size_t count) const {
        EXPECT_TRUE(eventually([&] { return getCalls().size() >= count; }));
        return getCalls();
    }

    const RecordedLog recorded;
    mutable std::mutex mutex;
    std::vector<KRValue> calls; // guarded by mutex
    boost::shared_ptr<KRBroker> broker = KRBroker::create("local:?memory=none");
    KRMemoryProxy memory{broker};
    KRModuleHandle<TestModule> module;
};

TEST_F(KRMemoryAway, AListOfValuesIsKeptAndSentLater) {
    startMemory();
    memory.insertData("A", 1);
    stopMemory();
    memory.insertListData({{"A", 2}, {"B", 3}});
    EXPECT_THROW(memory.insertListData({{std::string(2000, 'x'), 2}}), KRError);
    startMemory();
    EXPECT_THAT(waitForCalls(2),
                ElementsAre(KRValue::array("insertData", "A", 2), KRValue::array("insertData", "B", 3)));
}

TEST_F(KRMemoryAway, TheNewestValuesAndTheEventsAreKeptAndSentInOrder) {
    startMemory();
    memory.insertData("A", 1);
    stopMemory();
    memory.insertData("A", 2);
    memory.raiseEvent("E", 1);
    memory.insertData("B", 1);
    memory.insertData("A", 3);
    memory.raiseEvent("E", 2);
    EXPECT_THROW(memory.getData("A"), KRError) << "reading still throws";
    EXPECT_THROW(memory.getDataList(), KRError);
    EXPECT_THROW(memory.removeData("A"), KRError);
    startMemory();
    EXPECT_THAT(waitForCalls(4),
                ElementsAre(KRValue::array("raiseEvent", "E", 1), KRValue::array("insertData", "B", 1),
                            KRValue::array("insertData", "A", 3), KRValue::array("raiseEvent", "E", 2)));
    memory.insertData("A", 4);
    EXPECT_EQ(waitForCalls(5).back(), KRValue::array("insertData", "A", 4));
}

TEST_F(KRMemoryAway, LeavingAndReturningAreLoggedOnceEach) {
    startMemory();
    memory.insertData("A", 1);
    for (int round = 0; round < 2; ++round) {
        stopMemory();
        for (int i = 0; i < 100; ++i) {
            memory.insertData("A", i);
            memory.insertData("B", i);
        }
        memory.raiseEvent("E", 1);
        startMemory();
        waitForCalls(3);
        EXPECT_TRUE(eventually([&] {
            return recorded.find(KRLogLevel::Info, "the memory module is back").size() > std::size_t(round);
        }));
    }
    EXPECT_THAT(recorded.find(KRLogLevel::Warning, "the memory module has gone; values and events are kept"),
                SizeIs(2));
    EXPECT_THAT(recorded.find(KRLogLevel::Info, "and 2 values and 1 event that were kept"), SizeIs(2));
    EXPECT_THAT(recorded.find(KRLogLevel::Warning, ""), SizeIs(2));
}

TEST_F(KRMemoryAway, AnUnusedMemoryLeavesWithoutALogLine) {
    startMemory();
    stopMemory();
    startMemory();
    EXPECT_THAT(recorded.find(KRLogLevel::Warning, ""), IsEmpty());
    EXPECT_THAT(recorded.find(KRLogLevel::Info, ""), IsEmpty());
}

TEST_F(KRMemoryAway, BeforeTheFirstMemoryModuleEverythingThrows) {
    EXPECT_THROW(memory.insertData("A", 1), KRError);
    EXPECT_THROW(memory.raiseEvent("E", 1), KRError);
    EXPECT_THROW(memory.declareEvent("E"), KRError);
    EXPECT_THROW(memory.subscribeToEvent("E", "client", "onEvent"), KRError);
    startMemory();
    memory.insertData("B", 1);
    EXPECT_THAT(getCalls(), ElementsAre(KRValue::array("insertData", "B", 1)));
}

TEST_F(KRMemoryAway, DeclarationsAndSubscriptionsReachTheNextOne) {
    startMemory();
    memory.declareEvent("Before", "extractor");
    stopMemory();
    memory.declareEvent("During");
    memory.declareEvent("During", "extractor");
    memory.subscribeToEvent("Before", "client", "onEvent");
    memory.subscribeToEvent("Dropped", "client", "onEvent");
    memory.unsubscribeFromEvent("Dropped", "client");
    EXPECT_THROW(memory.unsubscribeFromEvent("Dropped", "client"), KRError);
    startMemory();
    EXPECT_THAT(waitForCalls(3),
                UnorderedElementsAre(KRValue::array("declareEvent", "Before", "extractor"),
                                     KRValue::array("declareEvent", "During", "extractor"),
                                     KRValue::array("subscribeToEvent", "Before", "client", "onEvent")));
}

TEST_F(KRMemoryAway, TheOldestEventsBeyondTheLimitAreLostAndCounted) {
    constexpr int kEvents = 100;
    startMemory();
    memory.insertData("A", 1);
    stopMemory();
    memory.insertData("A", 2);
    const KRBinary megabyte = KRBinary::copyOf(std::vector<char>(1 << 20).data(), 1 << 20);
    for (int i = 0; i < kEvents; ++i) {
        memory.raiseEvent("E", KRValue::array(i, megabyte));
    }
    startMemory();
    const auto report = recorded.waitFor(KRLogLevel::Warning, "the memory module is back");
    ASSERT_TRUE(report);
    constexpr int kKept = 63; // that many fit into 64 MiB
    EXPECT_THAT(report->message,
                HasSubstr("1 value and " + std::to_string(kKept) + " events that were kept; " +
                          std::to_string(kEvents - kKept) + " were lost"));
    const auto handedOver = getCalls();
    ASSERT_EQ(handedOver.size(), 1U + kKept);
    EXPECT_EQ(handedOver.front(), KRValue::array("insertData", "A", 2));
    EXPECT_EQ(handedOver.at(1)[2][0], kEvents - kKept);
    EXPECT_EQ(handedOver.back()[2][0], kEvents - 1);
}

TEST_F(KRMemoryAway, WhatTheNextOneRefusesIsLoggedCountedAndSkipped) {
    startMemory();
    memory.insertData("A", 1);
    stopMemory();
    memory.raiseEvent("Refused", 1);
    memory.raiseEvent("E", 2);
    startMemory();
    EXPECT_THAT(waitForCalls(1), ElementsAre(KRValue::array("raiseEvent", "E", 2)));
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Warning, "the event Refused was kept, but is refused: "));
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Warning, "0 values and 1 event that were kept; 1 were lost"));
    memory.raiseEvent("E", 3);
    EXPECT_THROW(memory.raiseEvent("Refused", 1), KRError) << "a memory that is present may refuse";
}

TEST(KRMemoryAwayAtTheEnd, WhatIsKeptWhenTheBrokerIsDestroyedIsReportedAsLost) {
    const RecordedLog recorded;
    {
        const auto broker = KRBroker::create("local:?memory=none");
        KRMemoryProxy memory(broker);
        makeModule(broker, "KRMemory", [&](TestModule& m) {
            m.add("insertData", [](const std::string&, const KRValue&) {});
        }).reset();
        memory.insertData("A", 2);
    }
    EXPECT_THAT(recorded.find(KRLogLevel::Warning,
                              "1 value and 0 events that were kept for the memory module are lost"),
                SizeIs(1));
}

TEST_F(KRMemoryAway, NothingWrittenDuringARestartIsLost) {
    startMemory();
    constexpr int kThreads = 3;
    std::vector<std::thread> writers;
    std::atomic<bool> done = false;
    std::vector<int> last(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        writers.emplace_back([&, i, event = "E" + std::to_string(i)] {
            while (!done) {
                memory.raiseEvent(event, ++last[std::size_t(i)]);
                std::this_thread::yield();
            }
        });
    }
    for (int round = 0; round < 5; ++round) {
        module.reset();
        startMemory();
    }
    done = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
    const auto count = [&] {
        std::size_t sum = 0;
        for (const int number : last) {
            sum += std::size_t(number);
        }
        return sum;
    };
    const auto all = waitForCalls(count());
    EXPECT_EQ(all.size(), count());
    std::vector<int> next(kThreads, 1);
    for (const KRValue& call : all) {
        const auto thread = std::size_t(call[1].to<std::string>().back() - '0');
        EXPECT_EQ(call[2], next.at(thread)++) << "in the order they were raised";
    }
}

} // namespace
} // namespace KR
