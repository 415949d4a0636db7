// Many processes on one domain, and many modules in one.

#include "otherprocess.hpp"
#include "stranger.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <testmodule.hpp>

#include <krdds/krdds.hpp>
#include <krplatform/krproxy.hpp>

#include "krhostnetwork.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <future>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace KR::test {

namespace {

using Processes = std::vector<std::unique_ptr<OtherProcess>>;

/// Starts so many processes at once, with a module each: Member0, Member1...
Processes startProcesses(const TestDomain& domain, int count) {
    std::vector<std::future<std::unique_ptr<OtherProcess>>> starting;
    for (int i = 0; i < count; ++i) {
        starting.push_back(std::async(std::launch::async, [&domain, i] {
            return std::make_unique<OtherProcess>(
                domain.getUrl(), std::vector<std::string>{"module", "Member" + std::to_string(i)});
        }));
    }
    Processes processes;
    for (auto& each : starting) {
        processes.push_back(each.get());
        EXPECT_EQ(processes.back()->getAnswer(), "ready");
    }
    return processes;
}

TEST(KRDDSMany, ANewBrokerKnowsAtOnceTenProcesses) {
    const TestDomain domain;
    const Processes processes = startProcesses(domain, 10);
    // A machine that is busy may keep one waiting for longer than it waits.
    EXPECT_TRUE(test::eventually([&] { return domain.createBroker()->getModuleList().size() == 10; }));
}

TEST(KRDDSMany, OfTwentyProcessesThatTakeANameAtOnceOneGetsIt) {
    const TestDomain domain;
    constexpr int kProcesses = 20;
    const Processes processes = startProcesses(domain, kProcesses);
    const auto broker = domain.createBroker();
    std::vector<boost::shared_ptr<KRProxy>> members;
    for (int i = 0; i < kProcesses; ++i) {
        const std::string name = "Member" + std::to_string(i);
        ASSERT_TRUE(broker->getSession().waitForService(name, kPatience));
        members.push_back(broker->getProxy(name));
    }
    const auto callAll = [&](const std::string& method, auto... arguments) {
        std::vector<std::future<KRValue>> calls;
        for (const auto& member : members) {
            calls.push_back(std::async(std::launch::async, [&, member] {
                return member->template call<KRValue>(method, arguments...);
            }));
        }
        int count = 0;
        for (auto& call : calls) {
            const KRValue result = call.get();
            count += result.isInt() ? result.template to<int>() : 0;
        }
        return count;
    };
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(callAll("take", std::string("Wanted")), 1);
        callAll("giveBack");
        for (const auto& member : members) {
            EXPECT_TRUE(eventually(
                [&] { return !member->template call<bool>("isReachable", std::string("Wanted")); }));
        }
    }
}

TEST(KRDDSMany, ModulesThatOneProcessTakesAtOnceAllCome) {
    const TestDomain domain;
    const OtherProcess other(domain.getUrl(), {"module", "Other"});
    const auto broker = domain.createBroker();
    constexpr int kThreads = 8;
    constexpr int kModules = 20;
    std::vector<std::vector<KRModuleHandle<TestModule>>> modules(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            for (int k = 0; k < kModules; ++k) {
                modules[i].push_back(makeModule(broker, "M" + std::to_string(i * kModules + k)));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto proxy = broker->getProxy("Other");
    for (int i = 0; i < kThreads * kModules; ++i) {
        const std::string name = "M" + std::to_string(i);
        EXPECT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", name); })) << name;
    }
}

/// How many writers of calls or replies of a participant have been discovered on the domain.
int countMessageWriters(dds_entity_t publications) {
    int count = 0;
    std::vector<void*> samples(1000);
    std::vector<dds_sample_info_t> info(samples.size());
    const dds_return_t taken = dds_read(publications, samples.data(), info.data(), samples.size(), 1000);
    for (dds_return_t i = 0; i < taken; ++i) {
        const auto& endpoint = *static_cast<const dds_builtintopic_endpoint_t*>(samples[i]);
        const std::string topic = endpoint.topic_name == nullptr ? "" : endpoint.topic_name;
        count += info[i].valid_data && info[i].instance_state == DDS_ALIVE_INSTANCE_STATE &&
                         (topic.ends_with("/Request") || topic.ends_with("/Reply"))
                     ? 1
                     : 0;
    }
    if (taken > 0) {
        dds_return_loan(publications, samples.data(), taken);
    }
    return count;
}

TEST(KRDDSMany, BrokersThatDoNotCallEachOtherHaveNoWritersForThat) {
    const TestDomain domain;
    const std::string options = "local=off&lease=30"; // one machine needs no writers at all
    const OtherProcess first(domain.getUrl(options), {"module", "First"});
    const OtherProcess second(domain.getUrl(options), {"module", "Second"});
    const auto broker = domain.createBroker(options);
    ASSERT_TRUE(broker->getSession().waitForService("First", kPatience));
    ASSERT_TRUE(broker->getSession().waitForService("Second", kPatience));
    const dds_entity_t observer = dds_create_participant(domain.getNumber(), nullptr, nullptr);
    const dds_entity_t publications =
        dds_create_reader(observer, DDS_BUILTIN_TOPIC_DCPSPUBLICATION, nullptr, nullptr);
    EXPECT_EQ(countMessageWriters(publications), 0);
    // A call makes one writer there and one back.
    EXPECT_EQ(broker->getProxy("First")->call<int>("getPid"), first.getPid());
    EXPECT_TRUE(eventually([&] { return countMessageWriters(publications) == 2; }));
    EXPECT_TRUE(broker->getProxy("First")->call<bool>("callOther", "Second", "pidOf", 0) != 0);
    EXPECT_TRUE(eventually([&] { return countMessageWriters(publications) == 4; }));
    dds_delete(observer);
}

/// How many participants of other processes the engine of this one has discovered on the domain.
int countParticipants(const TestDomain& domain) {
    const dds_entity_t observer = dds_create_participant(domain.getNumber(), nullptr, nullptr);
    const dds_entity_t reader =
        dds_create_reader(observer, DDS_BUILTIN_TOPIC_DCPSPARTICIPANT, nullptr, nullptr);
    std::vector<void*> samples(1000);
    std::vector<dds_sample_info_t> info(samples.size());
    const dds_return_t taken = dds_read(reader, samples.data(), info.data(), samples.size(), 1000);
    int count = -2; // the broker's and this one
    for (dds_return_t i = 0; i < taken; ++i) {
        count += info[i].valid_data && info[i].instance_state == DDS_ALIVE_INSTANCE_STATE ? 1 : 0;
    }
    if (taken > 0) {
        dds_return_loan(reader, samples.data(), taken);
    }
    dds_delete(observer);
    return count;
}

TEST(KRDDSMany, BrokersThatHaveMetOnTheHostAreNotDiscoveredOverDDS) {
    const TestDomain domain;
    const OtherProcess met(domain.getUrl("local=on&lease=30"), {"module", "Met"});
    const auto broker = domain.createBroker("local=on&lease=30");
    ASSERT_TRUE(broker->getSession().waitForService("Met", kPatience));
    EXPECT_EQ(broker->getProxy("Met")->call<int>("getPid"), met.getPid());
    EXPECT_EQ(countParticipants(domain), 0);
    const OtherProcess discovered(domain.getUrl("local=off&lease=30"), {"module", "Discovered"});
    ASSERT_TRUE(broker->getSession().waitForService("Discovered", kPatience));
    EXPECT_EQ(countParticipants(domain), 1);
}

TEST(KRDDSMany, ProcessesForWhichThereIsNoPlaceAreDiscoveredByMulticast) {
    const TestDomain domain;
    std::vector<int> sockets;
    for (int i = 0; i < kMaxDDSProcesses; ++i) {
        const int file = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_port = htons(getDDSPort(static_cast<std::uint32_t>(domain.getNumber()), i));
        // A port may be taken already, by whomever.
        (void)bind(file, reinterpret_cast<const sockaddr*>(&place), sizeof place);
        sockets.push_back(file);
    }
    const OtherProcess other(domain.getUrl(), {"module", "Other"});
    EXPECT_EQ(other.getAnswer(), "ready");
    const auto broker = domain.createBroker();
    EXPECT_TRUE(broker->getSession().waitForService("Other", kPatience));
    EXPECT_EQ(broker->getProxy("Other")->call<int>("getPid"), other.getPid());
    for (const int file : sockets) {
        close(file);
    }
}

TEST(KRHostNetwork, FindsTheLoopbackInterfaceAndTheTakenPorts) {
    const int file = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    socklen_t size = sizeof own;
    ASSERT_EQ(bind(file, reinterpret_cast<const sockaddr*>(&own), size), 0);
    ASSERT_EQ(getsockname(file, reinterpret_cast<sockaddr*>(&own), &size), 0);
    const KRHostNetwork network = KRHostNetwork::examine();
    EXPECT_EQ(network.loopback, "lo");
    EXPECT_TRUE(network.takenPorts.contains(ntohs(own.sin_port)));
    close(file);
    KRHostNetwork two;
    two.takenPorts = {1, getDDSPort(3, 0), getDDSPort(3, 7), getDDSPort(4, 1)};
    EXPECT_EQ(two.findPlaces(3), (std::vector<std::uint16_t>{getDDSPort(3, 0), getDDSPort(3, 7)}));
}

} // namespace

} // namespace KR::test
