// Subscriptions to writes to the memory.

#include "krplatform/krbroker.hpp"
#include "krplatform/krerror.hpp"
#include "krplatform/krmemoryproxy.hpp"

#include "eventmodules.hpp"
#include "patience.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace KR {
namespace {

using test::Event;
using test::eventually;
using test::FakeExtractor;
using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

/// Records "name=value", preceded by "event " for an event, and how many it lost.
class WatchingClient {
public:
    explicit WatchingClient(const boost::shared_ptr<KRBroker>& broker, const std::string& name = "client",
                            std::function<void()> onWrite = {})
        : onWrite_(std::move(onWrite)), module_(makeModule(broker, name, [this](TestModule& module) {
              module.add("onWrite",
                         [this](const std::string& key, const KRValue& value, const bool& isEvent) {
                             note((isEvent ? "event " : "") + key + "=" + std::to_string(value.to<int>()));
                             if (onWrite_) {
                                 onWrite_();
                             }
                         });
              module.add("onEventsLost", [this](const std::string& prefix, const int& count) {
                  note("lost " + std::to_string(count) + " of \"" + prefix + "\"");
              });
              module.add("onTwo", [](const std::string&, const KRValue&) {});
          })) {}

    std::vector<std::string> getHeard() const {
        const std::lock_guard lock(mutex_);
        return heard_;
    }
    [[nodiscard]] bool waitFor(std::size_t count) const {
        return eventually([&] { return getHeard().size() >= count; });
    }
    void leave() { module_.reset(); }

private:
    void note(const std::string& what) {
        const std::lock_guard lock(mutex_);
        heard_.push_back(what);
    }

    const std::function<void()> onWrite_;
    mutable std::mutex mutex_;
    std::vector<std::string> heard_; // guarded by mutex_
    KRModuleHandle<TestModule> module_;
};

class KRMemoryWrites : public testing::Test {
protected:
    const boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRMemoryProxy memory{broker};
};

TEST_F(KRMemoryWrites, ArriveInOrderWithNamesValuesAndKinds) {
    const WatchingClient client(broker);
    memory.subscribeToWrites("Door/", "client", "onWrite");
    memory.insertData("Door/Angle", 1);
    memory.insertData("Window/Angle", 2);
    memory.raiseEvent("Door/Opened", 3);
    memory.raiseEvent("Other", 4);
    memory.insertData("Door/Angle", 1); // the same value again is another write
    ASSERT_TRUE(client.waitFor(3));
    EXPECT_THAT(client.getHeard(), ElementsAre("Door/Angle=1", "event Door/Opened=3", "Door/Angle=1"));
}

TEST_F(KRMemoryWrites, OfSeveralValuesInOneCallArriveOneByOne) {
    const WatchingClient client(broker);
    memory.subscribeToWrites("a", "client", "onWrite");
    memory.getProxy().call("insertListData", KRValue::array(KRValue::array("a", 1), KRValue::array("b", 2),
                                                            KRValue::array("aa", 3)));
    ASSERT_TRUE(client.waitFor(2));
    EXPECT_THAT(client.getHeard(), ElementsAre("a=1", "aa=3"));
}

TEST_F(KRMemoryWrites, WithAnEmptyPrefixAreAll) {
    const WatchingClient client(broker);
    memory.subscribeToWrites("", "client", "onWrite");
    memory.insertData("a", 1);
    memory.raiseEvent("b", 2);
    ASSERT_TRUE(client.waitFor(2));
    EXPECT_THAT(client.getHeard(), ElementsAre("a=1", "event b=2"));
}

TEST_F(KRMemoryWrites, StartNoExtractor) {
    const auto extractor = createModule<FakeExtractor>(broker, "extractor");
    const WatchingClient client(broker);
    memory.declareEvent("event", "extractor");
    memory.subscribeToWrites("", "client", "onWrite");
    memory.raiseEvent("event", 1);
    ASSERT_TRUE(client.waitFor(1));
    EXPECT_THAT(extractor->getCalls(), IsEmpty());
}

TEST_F(KRMemoryWrites, EndWithTheSubscription) {
    const WatchingClient client(broker);
    const WatchingClient other(broker, "other");
    memory.subscribeToWrites("a", "client", "onWrite");
    memory.subscribeToWrites("a", "other", "onWrite");
    memory.insertData("a", 1);
    ASSERT_TRUE(client.waitFor(1));
    memory.unsubscribeFromWrites("a", "client");
    memory.insertData("a", 2);
    ASSERT_TRUE(other.waitFor(2));
    EXPECT_THAT(client.getHeard(), ElementsAre("a=1"));
    EXPECT_THAT([&] { memory.unsubscribeFromWrites("a", "client"); },
                ThrowsMessage<KRError>(HasSubstr("client is not subscribed to writes under \"a\"")));
}

TEST_F(KRMemoryWrites, EndWithTheClient) {
    WatchingClient client(broker);
    memory.subscribeToWrites("a", "client", "onWrite");
    client.leave();
    memory.insertData("a", 1);
    const WatchingClient again(broker); // another module of this name
    memory.insertData("a", 2);
    memory.subscribeToWrites("a", "client", "onWrite");
    memory.insertData("a", 3);
    ASSERT_TRUE(again.waitFor(1));
    EXPECT_THAT(again.getHeard(), ElementsAre("a=3"));
}

TEST_F(KRMemoryWrites, ThatASlowClientLosesAreCounted) {
    Event goOn;
    const test::SetAtEnd setAtEnd(goOn);
    const WatchingClient client(broker, "client", [&] { (void)goOn.wait(); });
    memory.setEventLimits(1, 1); // kilobytes
    memory.subscribeToWrites("", "client", "onWrite");
    memory.insertData("a", 0);
    ASSERT_TRUE(client.waitFor(1));
    for (int i = 1; i <= 1000; ++i) {
        memory.insertData("a", i);
    }
    goOn.set();
    ASSERT_TRUE(eventually([&] { return client.getHeard().back() == "a=1000"; }));
    const std::vector<std::string> heard = client.getHeard();
    EXPECT_LT(heard.size(), 100U);
    EXPECT_THAT(heard[1], HasSubstr("lost "));
    EXPECT_THAT(heard[1], HasSubstr(std::to_string(1000 - (heard.size() - 2))));
}

TEST_F(KRMemoryWrites, NeedACallbackOfThreeArguments) {
    const WatchingClient client(broker);
    EXPECT_THAT([&] { memory.subscribeToWrites("", "client", "onTwo"); },
                ThrowsMessage<KRError>(HasSubstr("has no method onTwo(string name, value, bool isEvent)")));
    EXPECT_THAT([&] { memory.subscribeToWrites("", "nobody", "onWrite"); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named nobody")));
}

} // namespace
} // namespace KR
