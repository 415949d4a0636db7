#include "otherprocess.hpp"
#include "testdomain.hpp"

#include <eventmodules.hpp>
#include <patience.hpp>

#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KR::test {

namespace {

/// The memory in another process, beside a module "Server" and an extractor "Extractor".
class KRDDSMemory : public testing::Test {
protected:
    explicit KRDDSMemory(std::string lease = "lease=30") : lease_(std::move(lease)) {}

    void SetUp() override { ASSERT_TRUE(broker->getSession().waitForService("KRMemory", kPatience)); }

    bool hasSubscribers(const std::string& event, std::size_t count) {
        return eventually([&] {
            try {
                return memory.getEventSubscribers(event).getSize() == count;
            } catch (const KRError&) { // there is no memory at the moment
                return false;
            }
        });
    }

private:
    const std::string lease_;

protected:
    TestDomain domain;
    const std::string url = domain.getUrl(lease_);
    const std::string memoryUrl = url + "&memory=here";
    std::unique_ptr<OtherProcess> server =
        std::make_unique<OtherProcess>(memoryUrl, std::vector<std::string>{"module", "Server"});
    boost::shared_ptr<KRBroker> broker = KRBroker::create(url);
    KRMemoryProxy memory{broker};
};

/// The same, where a process that is killed is missed soon.
class KRDDSMortalMemory : public KRDDSMemory {
protected:
    KRDDSMortalMemory() : KRDDSMemory("lease=2") {}
};

TEST_F(KRDDSMemory, DataIsSharedByAllProcesses) {
    memory.insertData("key", KRValue::array(1, "two"));
    const OtherProcess third(url, {"module", "Third"});
    ASSERT_TRUE(broker->getSession().waitForService("Third", kPatience));
    const auto proxy = broker->getProxy("Third");
    ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "KRMemory"); }));
    EXPECT_EQ(proxy->call<KRValue>("callOther", "KRMemory", "getData", "key"), KRValue::array(1, "two"));
    EXPECT_EQ(memory.getDataList(), std::vector<std::string>{"key"});
    memory.removeData("key");
    EXPECT_THROW(memory.getData("key"), KRError);
}

TEST_F(KRDDSMemory, AModuleSubscribesToAnEventAsSoonAsItIsThere) {
    for (int i = 0; i < 10; ++i) {
        const auto listener = createModule<EventListener>(broker, "Listener");
        memory.subscribeToEvent("Event", "Listener", "onEvent");
        memory.raiseEvent("Event", i);
        EXPECT_EQ(listener->waitForEvents(1).size(), 1U);
    }
    EXPECT_TRUE(hasSubscribers("Event", 0));
}

TEST_F(KRDDSMemory, AClientThatIsNotThereIsRefused) {
    EXPECT_THROW(memory.subscribeToEvent("Event", "Nobody", "onEvent"), KRError);
}

TEST_F(KRDDSMemory, TenThousandEventsComeCompletelyAndInOrder) {
    constexpr int kEvents = 10000;
    const auto listener = createModule<EventListener>(broker, "Listener");
    memory.subscribeToEvent("Event", "Listener", "onEvent");
    broker->getProxy("Server")->call("raiseMany", "Event", kEvents);
    auto events = listener->waitForEvents(kEvents);
    // On a busy machine it takes its time, but it goes on.
    for (std::size_t before = 0; events.size() > before && events.size() < kEvents;) {
        before = events.size();
        events = listener->waitForEvents(kEvents);
    }
    ASSERT_EQ(events.size(), static_cast<std::size_t>(kEvents));
    for (int i = 0; i < kEvents; ++i) {
        ASSERT_EQ(events[i].second, KRValue(i));
    }
}

TEST_F(KRDDSMemory, SubscribersOfAnEventAreSubscribedToItsExtractorWhereverItIs) {
    const auto extractor = createModule<FakeExtractor>(broker, "Extractor");
    memory.declareEvent("Event", "Extractor");
    const OtherProcess third(url, {"listener", "Listener"});
    ASSERT_TRUE(broker->getSession().waitForService("Listener", kPatience));
    memory.subscribeToEvent("Event", "Listener", "onEvent");
    EXPECT_TRUE(extractor->waitForSubscribers({"Listener"}));
    memory.unsubscribeFromEvent("Event", "Listener");
    EXPECT_TRUE(extractor->waitForSubscribers({}));
}

TEST_F(KRDDSMortalMemory, AMemoryThatComesBackKnowsTheEventsAgain) {
    const auto extractor = createModule<FakeExtractor>(broker, "Extractor");
    const auto listener = createModule<EventListener>(broker, "Listener");
    memory.declareEvent("Event", "Extractor");
    memory.declareEvent("Nobodys");
    memory.subscribeToEvent("Event", "Listener", "onEvent");
    memory.subscribeToEvent("Dropped", "Listener", "onEvent");
    memory.unsubscribeFromEvent("Dropped", "Listener");
    server->kill();
    server = std::make_unique<OtherProcess>(memoryUrl);
    ASSERT_TRUE(hasSubscribers("Event", 1));
    memory.raiseEvent("Event", 7);
    EXPECT_EQ(listener->waitForEvents(1).at(0).second, KRValue(7));
    EXPECT_TRUE(extractor->waitForSubscribers({"Listener"}));
    EXPECT_EQ(memory.getEventList(), (std::vector<std::string>{"Event", "Nobodys"}));
}

} // namespace

} // namespace KR::test
