#include "krplatform/krmemoryproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::ThrowsMessage;

TEST(KRMemory, KeepsTheLastValueWritten) {
    KRMemoryProxy memory(KRBroker::create());
    memory.insertData("key", 1);
    EXPECT_EQ(memory.getData("key"), 1);
    memory.insertData("key", KRValue::array("now", "an array"));
    EXPECT_EQ(memory.getData("key"), KRValue::array("now", "an array"));
}

TEST(KRMemory, KeepsAValueOfEveryType) {
    KRMemoryProxy memory(KRBroker::create());
    for (const KRValue& value : {KRValue(), KRValue(-1), KRValue(0.5f), KRValue("text"),
                                 KRValue(KRBinary::copyOf("ab", 2)), KRValue::array(1, KRValue::array())}) {
        memory.insertData("key", value);
        EXPECT_EQ(memory.getData("key"), value);
    }
}

TEST(KRMemory, DoesNotCopyTheBytesOfABinary) {
    KRMemoryProxy memory(KRBroker::create());
    const KRBinary pixels = KRBinary::copyOf("pixels", 6);
    memory.insertData("image", KRValue::array(pixels));
    EXPECT_EQ(memory.getData("image")[0].GetBinary().data(), pixels.data());
}

TEST(KRMemory, AMissingKeyIsAnErrorThatNamesIt) {
    KRMemoryProxy memory(KRBroker::create());
    const auto namesIt = ThrowsMessage<KRError>(HasSubstr("there is no data named key"));
    EXPECT_THAT([&] { memory.getData("key"); }, namesIt);
    EXPECT_THAT([&] { memory.getTimestamp("key"); }, namesIt);
    EXPECT_THAT([&] { memory.removeData("key"); }, namesIt);
}

std::int64_t readClock_usec() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

TEST(KRMemory, KnowsWhenAKeyWasLastWritten) {
    KRMemoryProxy memory(KRBroker::create());
    const std::int64_t before = readClock_usec();
    memory.insertData("key", 1);
    const std::int64_t first = memory.getTimestamp("key");
    EXPECT_GE(first, before);
    EXPECT_LE(first, readClock_usec());
    EXPECT_EQ(memory.getTimestamp("key"), first) << "reading is not writing";
    while (readClock_usec() == first) {
    }
    memory.insertData("key", 1);
    EXPECT_GT(memory.getTimestamp("key"), first) << "the same value, written again";
}

TEST(KRMemory, KnowsWhenAnEventWasLastRaised) {
    KRMemoryProxy memory(KRBroker::create());
    const std::int64_t before = readClock_usec();
    memory.raiseEvent("event", 1);
    EXPECT_GE(memory.getTimestamp("event"), before);
}

TEST(KRMemory, ReturnsATimeAsTwoIntsLikeImages) {
    KRMemoryProxy memory(KRBroker::create());
    memory.insertData("key", 1);
    const auto time = memory.getProxy().call<std::vector<int>>("getTimestamp", "key");
    ASSERT_EQ(time.size(), 2U);
    EXPECT_GE(time[1], 0);
    EXPECT_LT(time[1], 1000000);
    EXPECT_EQ(time[0] * std::int64_t{1000000} + time[1], memory.getTimestamp("key"));
}

TEST(KRMemory, ForgetsRemovedKeys) {
    KRMemoryProxy memory(KRBroker::create());
    memory.insertData("key", 1);
    memory.removeData("key");
    EXPECT_THROW(memory.getData("key"), KRError);
    EXPECT_THROW(memory.removeData("key"), KRError);
    EXPECT_THAT(memory.getDataList(), IsEmpty());
}

TEST(KRMemory, ListsTheKeysWithAPrefix) {
    KRMemoryProxy memory(KRBroker::create());
    for (const char* key : {"Face/Count", "Face", "Fac", "Faces", "Motion", ""}) {
        memory.insertData(key, 1);
    }
    EXPECT_THAT(memory.getDataList(), ElementsAre("", "Fac", "Face", "Face/Count", "Faces", "Motion"));
    EXPECT_THAT(memory.getDataList("Face"), ElementsAre("Face", "Face/Count", "Faces"));
    EXPECT_THAT(memory.getDataList("Z"), IsEmpty());
    EXPECT_THAT(memory.getDataList("Motion!"), IsEmpty());
}

TEST(KRMemory, WritesManyValuesInOneCall) {
    KRMemoryProxy memory(KRBroker::create());
    std::vector<std::pair<std::string, KRValue>> list;
    for (int i = 0; i < 10000; ++i) {
        list.emplace_back("Key" + std::to_string(10000 + i), i);
    }
    memory.insertListData(list);
    EXPECT_EQ(memory.getData("Key10007"), 7);
    EXPECT_THAT(memory.getDataList("Key"), SizeIs(10000));
    EXPECT_EQ(memory.getDataValues("Key"), list);
}

TEST(KRMemory, WritesAListEntirelyOrNotAtAll) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    EXPECT_THROW(memory.insertListData({{"A", 1}, {std::string(1025, 'x'), 2}}), KRError);
    EXPECT_THAT(
        [&] { memory.getProxy().call("insertListData", KRValue::array(KRValue::array("A", 1), KRValue(3))); },
        ThrowsMessage<KRError>(HasSubstr("element 1 of the list is not [key, value]")));
    EXPECT_THAT(memory.getDataList(), IsEmpty());
}

TEST(KRMemory, GetsTheValuesWithAPrefix) {
    KRMemoryProxy memory(KRBroker::create());
    memory.insertListData({{"Face", 1}, {"Face/Count", "two"}, {"Motion", 3}});
    EXPECT_THAT(memory.getDataValues("Face"),
                ElementsAre(Pair("Face", KRValue(1)), Pair("Face/Count", KRValue("two"))));
    EXPECT_THAT(memory.getDataValues(), SizeIs(3));
    EXPECT_THAT(memory.getDataValues("Z"), IsEmpty());
}

std::vector<std::string> getKeys(const KRMemoryChanges& changes) {
    std::vector<std::string> keys;
    for (const KRMemoryChange& change : changes.changes) {
        keys.push_back(change.key);
    }
    return keys;
}

TEST(KRMemory, GetsValuesWrittenSinceAnEarlierCall) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    memory.insertListData({{"A", 1}, {"B", 2}, {"Other", 3}});
    KRMemoryChanges changes = memory.getDataChanges("", "", 1000);
    EXPECT_THAT(getKeys(changes), ElementsAre("A", "B", "Other"));
    memory.insertData("B", 4);
    memory.raiseEvent("C", 5);
    const KRMemoryChanges two = memory.getDataChanges("", changes.now, 1000);
    EXPECT_THAT(getKeys(two), ElementsAre("B", "C"));
    EXPECT_EQ(two.changes[0].value, 4);
    EXPECT_EQ(two.changes[0].written_usec, memory.getTimestamp("B"));
    EXPECT_THAT(getKeys(memory.getDataChanges("B", changes.now, 1000)), ElementsAre("B"));
    EXPECT_THAT(getKeys(memory.getDataChanges("", two.now, 1000)), IsEmpty());
    // Positions of another memory module are ignored.
    KRMemoryProxy another(KRBroker::create());
    another.insertListData({{"A", 1}, {"B", 2}});
    EXPECT_THAT(getKeys(another.getDataChanges("", two.now, 1000)), ElementsAre("A", "B"));
    EXPECT_THAT(getKeys(another.getDataChanges("", "nonsense", 1000)), ElementsAre("A", "B"));
}

TEST(KRMemory, LeavesOutLargeChangedValues) {
    KRMemoryProxy memory(KRBroker::create());
    memory.insertData("Image", KRValue::array(KRBinary::copyOf(std::string(5000, 'x').data(), 5000)));
    memory.insertData("Count", 1);
    const KRMemoryChanges changes = memory.getDataChanges("", "", 4000);
    ASSERT_THAT(getKeys(changes), ElementsAre("Count", "Image"));
    EXPECT_FALSE(changes.changes[0].leftOut);
    EXPECT_TRUE(changes.changes[1].leftOut);
    EXPECT_FALSE(changes.changes[1].value.isValid());
    EXPECT_GE(changes.changes[1].bytes, 5000);
}

TEST(KRMemory, RefusesTooLargeNamesAndValuesAndStatesTheLimit) {
    KRMemoryProxy memory(KRBroker::create());
    const std::string longest(1024, 'x');
    memory.insertData(longest, 1);
    EXPECT_EQ(memory.getData(longest), 1);
    const auto tooLong = ThrowsMessage<KRError>(HasSubstr("a name of 1025 bytes, xxx"));
    EXPECT_THAT([&] { memory.insertData(longest + "x", 1); }, tooLong);
    EXPECT_THAT([&] { memory.raiseEvent(longest + "x", 1); }, tooLong);
    EXPECT_THAT([&] { memory.declareEvent(longest + "x"); }, tooLong);
    EXPECT_THAT([&] { memory.insertData(longest + "x", 1); },
                ThrowsMessage<KRError>(HasSubstr("the most is 1024")));
    // The bytes of a refused value are not accessed.
    const boost::shared_ptr<const unsigned char[]> few(new unsigned char[1]);
    const KRBinary large(few, std::size_t{256} << 20);
    const auto tooLarge = ThrowsMessage<KRError>(HasSubstr("bytes; the most is 268435456"));
    EXPECT_THAT([&] { memory.insertData("Image", large); }, tooLarge);
    EXPECT_THAT([&] { memory.insertListData({{"Image", large}}); }, tooLarge);
    EXPECT_THAT([&] { memory.raiseEvent("Image", large); }, tooLarge);
    EXPECT_THAT(memory.getDataList(), ElementsAre(longest));
    EXPECT_THAT(memory.getEventList(), IsEmpty());
}

TEST(KRMemory, IsAModuleLikeAnyOther) {
    const auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("KRMemory");
    proxy->call("insertData", "key", 5);
    EXPECT_EQ(proxy->call<int>("getData", "key"), 5);
    EXPECT_THAT(proxy->getMethodHelp("subscribeToEvent"),
                HasSubstr("subscribeToEvent(string event, string client, string callback)"));
    std::vector<std::string> names;
    for (const auto& method : proxy->getMethodList()) {
        names.push_back(method.name);
    }
    EXPECT_THAT(names, ElementsAre("insertData", "insertListData", "getData", "getTimestamp", "getDataList",
                                   "getDataValues", "getDataChanges", "removeData", "declareData",
                                   "declareEvent", "declareEvent", "raiseEvent", "subscribeToEvent",
                                   "unsubscribeFromEvent", "subscribeToWrites", "unsubscribeFromWrites",
                                   "getEventList", "getEventSubscribers", "setEventLimits"));
}

TEST(KRMemory, WithoutOneEveryOperationThrows) {
    KRMemoryProxy memory(KRBroker::create("local:?memory=none"));
    EXPECT_EQ(memory.getProxy().getModuleName(), "KRMemory");
    EXPECT_THAT([&] { memory.insertData("key", 1); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named KRMemory")));
    EXPECT_THROW(memory.getDataList(), KRError);
    EXPECT_THROW(memory.declareEvent("event"), KRError);
    EXPECT_THROW(memory.raiseEvent("event", 1), KRError);
}

TEST(KRMemory, CanBeReplacedByAnotherModule) {
    const auto broker = KRBroker::create("local:?memory=none");
    std::vector<std::string> asked;
    const auto own = makeModule(broker, "KRMemory", [&](TestModule& m) {
        m.add("insertData",
              [&](const std::string& key, const KRValue&) { asked.push_back("insert " + key); });
        m.add("getData", [&](const std::string& key) { return KRValue(key + "'s value"); });
        m.add("declareEvent", [&](const std::string& event, const std::string& extractor) {
            asked.push_back("declare " + event + " of " + extractor);
        });
        m.add("declareEvent", [&](const std::string& event) { asked.push_back("declare " + event); });
    });
    KRMemoryProxy memory(broker);
    memory.insertData("key", KRValue::array());
    memory.declareEvent("event", "extractor");
    memory.declareEvent("event");
    EXPECT_EQ(memory.getData("key"), "key's value");
    EXPECT_THAT(asked, ElementsAre("insert key", "declare event of extractor", "declare event"));
}

TEST(KRMemory, ServesManyThreads) {
    const auto broker = KRBroker::create();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, key = std::to_string(i)] {
            KRMemoryProxy memory(broker);
            for (int round = 0; round < 200; ++round) {
                memory.insertData(key, round);
                memory.insertData("shared", KRValue::array(round, round));
                EXPECT_EQ(memory.getData(key), round);
                const KRValue shared = memory.getData("shared");
                EXPECT_EQ(shared[0], shared[1]);
                EXPECT_THAT(memory.getDataList(key), ElementsAre(key));
                memory.removeData(key);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// A binary whose release calls the memory, as a module's own buffers may.
KRBinary makeBinaryThatCalls(KRMemoryProxy& memory, int& released) {
    static constexpr unsigned char kFrame[] = {1};
    return {boost::shared_ptr<const unsigned char[]>(kFrame,
                                                     [&](const unsigned char*) {
                                                         memory.getDataList();
                                                         ++released;
                                                     }),
            1};
}

TEST(KRMemory, HoldsNoLockWhileItReleasesAValue) {
    KRMemoryProxy memory(KRBroker::create());
    int released = 0;
    memory.insertData("key", makeBinaryThatCalls(memory, released));
    memory.insertData("key", makeBinaryThatCalls(memory, released));
    EXPECT_EQ(released, 1);
    memory.removeData("key");
    EXPECT_EQ(released, 2);
    memory.raiseEvent("event", makeBinaryThatCalls(memory, released));
    memory.raiseEvent("event", 0);
    EXPECT_EQ(released, 3);
}

} // namespace
} // namespace KR
