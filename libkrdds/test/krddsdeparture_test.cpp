#include "otherprocess.hpp"
#include "stranger.hpp"
#include "testdomain.hpp"

#include <eventmodules.hpp>
#include <patience.hpp>
#include <testmodule.hpp>

#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

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

/// A broker of an earlier version, not in the host directory, with the module "Earlier". It belongs to a process that keeps
/// its pulse open, as those versions do, and "Server" in another process discovers it.
class KRDDSEarlierBroker : public testing::Test {
protected:
    void SetUp() override {
        const int pulse = memfd_create(("krvision-pulse-" + stranger.getId()).c_str(), 0);
        process.emplace(std::vector<std::string>{"sh", "-c", "echo ready; read line"}); // inherits it
        close(pulse);
        std::array<char, 256> host{};
        gethostname(host.data(), host.size() - 1);
        std::string id = stranger.getId();
        std::string name = "earlier";
        std::vector<std::uint8_t> modules{0x91, 0x95, 0xa7, 'E', 'a', 'r', 'l', 'i', 'e', 'r', 1, 1, 100, 0};
        KRVision_Announcement announcement{};
        announcement.broker = id.data();
        announcement.name = name.data();
        announcement.host = host.data();
        announcement.pid = static_cast<std::uint32_t>(process->getPid());
        announcement.protocol = 1;
        announcement.modules._buffer = modules.data();
        announcement.modules._length = announcement.modules._maximum =
            static_cast<std::uint32_t>(modules.size());
        stranger.announce(announcement);
        ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
        ASSERT_TRUE(eventually([&] { return isKnown(); }));
    }
    bool isKnown() const { return broker->getProxy("Server")->call<bool>("isReachable", "Earlier"); }

    TestDomain domain;
    const std::string options =
        "lease=1&local=off"; // otherwise DDS ignores the broker and the stranger beside it
    boost::shared_ptr<KRBroker> broker = domain.createBroker(options);
    OtherProcess server{domain.getUrl(options), {"module", "Server"}};
    Stranger stranger{domain.getNumber()};
    std::optional<StartedProcess> process;
};

TEST_F(KRDDSEarlierBroker, IsGoneWhenItsProcessIsKilled) {
    process->kill();
    EXPECT_TRUE(eventually([&] { return !isKnown(); }));
}

TEST_F(KRDDSEarlierBroker, IsGoneWhenItsProcessHasBeenFrozenForItsLease) {
    process->freeze();
    EXPECT_TRUE(eventually([&] { return !isKnown(); }));
    process->thaw();
}

TEST_F(KRDDSEarlierBroker, FindsAPulseInProcessesOfThisVersion) {
    const std::string wanted = "/memfd:krvision-pulse-" + stranger.findBrokerOf(server.getPid());
    std::string found;
    for (const auto& file :
         std::filesystem::directory_iterator("/proc/" + std::to_string(server.getPid()) + "/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(file.path(), ignored).string().starts_with(wanted)) {
            found = file.path();
        }
    }
    const auto readPulse = [&] {
        std::uint64_t pulse = 0;
        std::ifstream(found, std::ios::binary).read(reinterpret_cast<char*>(&pulse), sizeof pulse);
        return pulse;
    };
    EXPECT_TRUE(eventually([&] { return readPulse() > 0; }));
    const auto first = readPulse();
    EXPECT_TRUE(eventually([&] { return readPulse() > first; }));
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
