#include "otherprocess.hpp"
#include "testdomain.hpp"

#include <eventmodules.hpp>
#include <patience.hpp>
#include <testmodule.hpp>

#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace KR::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const std::string kShortLease = "lease=2";

std::string outcomeOf(std::future<bool>& call) {
    try {
        resultOf(call);
    } catch (const KRError& error) {
        return error.getDescription();
    }
    return "no error";
}

TEST(KRDDSDeparture, CallsUnderWayToAProcessThatIsKilledFailAndItsModulesGo) {
    const TestDomain domain;
    OtherProcess server(domain.getUrl(kShortLease), {"module", "Server"});
    const auto broker = domain.createBroker(kShortLease);
    const auto proxy = broker->getProxy("Server");
    auto blocked = std::async(std::launch::async, [&] { return proxy->call<bool>("block"); });
    ASSERT_TRUE(eventually([&] { return proxy->call<int>("countBlocked") == 1; }));
    server.kill();
    EXPECT_THAT(outcomeOf(blocked), HasSubstr("is gone or cannot be reached"));
    EXPECT_TRUE(broker->getModuleList().empty());
    EXPECT_THROW(proxy->call("getPid"), KRError);
    const OtherProcess next(domain.getUrl(kShortLease), {"module", "Server"});
    ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
    EXPECT_EQ(proxy->call<int>("getPid"), next.getPid());
}

TEST(KRDDSDeparture, AProcessOfThisHostThatIsKilledIsGoneLongBeforeItsLeaseIsOver) {
    const TestDomain domain;
    const std::string options = "lease=300";
    OtherProcess server(domain.getUrl(options), {"module", "Server"});
    const auto broker = domain.createBroker(options);
    ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
    server.kill();
    EXPECT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
    const auto module = makeModule(broker, "Server"); // its name is free
}

TEST(KRDDSDeparture, AProcessThatOffersNoSocketIsWatchedAsWell) {
    const TestDomain domain;
    const std::string options = "lease=300&local=off";
    OtherProcess server(domain.getUrl(options), {"module", "Server"});
    const auto broker = domain.createBroker(options);
    ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
    server.kill();
    EXPECT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
}

TEST(KRDDSDeparture, AProcessThatIsFrozenCountsAsGoneUntilItIsBack) {
    const TestDomain domain;
    OtherProcess server(domain.getUrl(kShortLease), {"module", "Server"});
    const auto broker = domain.createBroker(kShortLease);
    const auto proxy = broker->getProxy("Server");
    server.freeze();
    EXPECT_THROW(proxy->call("getPid"), KRError);
    EXPECT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
    server.thaw();
    EXPECT_TRUE(broker->getSession().waitForService("Server", kPatience));
    EXPECT_TRUE(eventually([&] {
        try {
            return proxy->call<int>("getPid") == server.getPid();
        } catch (const KRError&) { // it may find this process a little later
            return false;
        }
    }));
}

TEST(KRDDSDeparture, CallsThatAProcessIsTooFrozenToReadFailAsWell) {
    const TestDomain domain;
    OtherProcess server(domain.getUrl(kShortLease), {"module", "Server"});
    const auto broker = domain.createBroker(kShortLease);
    const auto proxy = broker->getProxy("Server");
    ASSERT_EQ(proxy->call<int>("getPid"), server.getPid());
    server.freeze();
    // More than is kept for a reader that is behind.
    const KRBinary image = KRBinary::copyOf(std::string(3 << 20, 'i').data(), 3 << 20);
    std::vector<std::future<bool>> calls;
    for (int i = 0; i < 3; ++i) {
        calls.push_back(
            std::async(std::launch::async, [&] { return proxy->call<KRBinary>("echo", image) == image; }));
    }
    for (auto& call : calls) {
        EXPECT_THAT(outcomeOf(call), HasSubstr("is gone or cannot be reached"));
    }
}

TEST(KRDDSDeparture, ModulesAreNotifiedOfACallerThatIsKilled) {
    const TestDomain domain;
    const OtherProcess server(domain.getUrl(kShortLease), {"module", "Server"});
    OtherProcess client(domain.getUrl(kShortLease), {"module", "Client"});
    const auto broker = domain.createBroker(kShortLease);
    const auto proxy = broker->getProxy("Server");
    const auto clientProxy = broker->getProxy("Client");
    ASSERT_TRUE(eventually([&] { return clientProxy->call<bool>("isReachable", "Server"); }));
    const auto caller = clientProxy->call<std::string>("callOther", "Server", "callerOf", "");
    client.kill();
    EXPECT_TRUE(eventually([&] {
        return proxy->call<std::vector<std::string>>("getGone") == std::vector<std::string>{caller};
    }));
}

TEST(KRDDSDeparture, ACallLearnsThatItsCallerWasKilled) {
    const TestDomain domain;
    const OtherProcess server(domain.getUrl(kShortLease), {"module", "Server"});
    OtherProcess client(domain.getUrl(kShortLease), {"module", "Client"});
    const auto broker = domain.createBroker(kShortLease);
    const auto proxy = broker->getProxy("Server");
    const auto clientProxy = broker->getProxy("Client");
    ASSERT_TRUE(eventually([&] { return clientProxy->call<bool>("isReachable", "Server"); }));
    auto call = std::async(std::launch::async, [&] {
        EXPECT_THROW(clientProxy->call("callOther", "Server", "outliveCaller", ""), KRError);
    });
    ASSERT_TRUE(eventually([&] { return proxy->call<int>("countBlocked") == 1; }));
    EXPECT_FALSE(proxy->call<bool>("hasOutlivedCaller"));
    client.kill();
    EXPECT_TRUE(eventually([&] { return proxy->call<bool>("hasOutlivedCaller"); }));
    resultOf(call);
}

/// The memory and an extractor in this process, two listeners in two others, subscribed to the extractor's event.
class KRDDSSubscribers : public testing::Test {
protected:
    void SetUp() override {
        memory.declareEvent("Event", "Extractor");
        for (const char* name : {"First", "Second"}) {
            ASSERT_TRUE(broker->getSession().waitForService(name, kPatience));
            memory.subscribeToEvent("Event", name, "onEvent");
        }
        ASSERT_TRUE(extractor->waitForSubscribers({"First", "Second"}));
    }

    /// Whether the listener has got so many events.
    bool hasGot(const std::string& client, int count) {
        const KRValue subscribers = memory.getEventSubscribers("Event");
        for (std::size_t i = 0; i < subscribers.getSize(); ++i) {
            if (subscribers[i][0].to<std::string>() == client) {
                return subscribers[i][2].to<int>() == count;
            }
        }
        return false;
    }

    TestDomain domain;
    boost::shared_ptr<KRBroker> broker = domain.createBroker("memory=here&" + kShortLease);
    KRMemoryProxy memory{broker};
    KRModuleHandle<FakeExtractor> extractor = createModule<FakeExtractor>(broker, "Extractor");
    OtherProcess first{domain.getUrl(kShortLease), {"listener", "First"}};
    OtherProcess second{domain.getUrl(kShortLease), {"listener", "Second"}};
};

TEST_F(KRDDSSubscribers, OneThatIsKilledIsDroppedAndUnsubscribedFromTheExtractor) {
    first.kill();
    EXPECT_TRUE(extractor->waitForSubscribers({"Second"}));
    EXPECT_EQ(memory.getEventSubscribers("Event").getSize(), 1U);
    memory.raiseEvent("Event", 1);
    EXPECT_TRUE(eventually([&] { return hasGot("Second", 1); }));
}

TEST_F(KRDDSSubscribers, OneThatIsFrozenKeepsNothingFromTheOther) {
    constexpr int kEvents = 500;
    first.freeze();
    const std::string large(10000, 'x');
    for (int i = 0; i < kEvents; ++i) {
        memory.raiseEvent("Event", large);
    }
    EXPECT_TRUE(eventually([&] { return hasGot("Second", kEvents); }));
    EXPECT_TRUE(extractor->waitForSubscribers({"Second"}));
}

} // namespace

} // namespace KR::test
