#include "otherprocess.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <recordedlog.hpp>
#include <testmodule.hpp>

#include <krdds/krdds.hpp>
#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KR::test {

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string refusalOf(const std::function<void()>& function) {
    try {
        function();
    } catch (const KRError& error) {
        return error.getDescription();
    }
    return "no error";
}

TEST(KRDDSDirectory, ModulesOfEveryProcessAreListed) {
    const TestDomain domain;
    const OtherProcess first(domain.getUrl("lease=30&memory=here"), {"module", "B", "module", "D"});
    const OtherProcess second(domain.getUrl(), {"module", "A"});
    const auto broker = domain.createBroker();
    const auto here = makeModule(broker, "C");
    EXPECT_TRUE(eventually([&] { return broker->getModuleList().size() == 5; }));
    EXPECT_THAT(broker->getModuleList(), ElementsAre("A", "B", "C", "D", "KRMemory"));
}

TEST(KRDDSDirectory, ANewBrokerKnowsAtOnceWhoIsThere) {
    const TestDomain domain;
    const OtherProcess other(domain.getUrl(), {"module", "A"});
    ASSERT_EQ(other.getAnswer(), "ready");
    EXPECT_THAT(domain.createBroker()->getModuleList(), ElementsAre("A"));
}

TEST(KRDDSDirectory, WaitingForAServiceEndsWhenItsProcessComes) {
    const TestDomain domain;
    const auto broker = domain.createBroker();
    auto waiting = startAndLetSleep([&] {
        broker->getSession().waitForService("Late");
        return true;
    });
    const OtherProcess other(domain.getUrl(), {"module", "Late"});
    EXPECT_TRUE(resultOf(waiting));
    EXPECT_EQ(broker->getProxy("Late")->call<int>("echo", 3), 3);
}

TEST(KRDDSDirectory, WaitingForAServiceEndsAfterItsTime) {
    const TestDomain domain;
    EXPECT_FALSE(domain.createBroker()->getSession().waitForService("Nobody", std::chrono::milliseconds(1)));
}

TEST(KRDDSDirectory, AModuleWhoseProcessEndsIsNoLongerThere) {
    const TestDomain domain;
    const RecordedLog log;
    const auto broker = domain.createBroker();
    OtherProcess other(domain.getUrl(), {"module", "A"});
    ASSERT_TRUE(broker->getSession().waitForService("A", kPatience));
    EXPECT_EQ(other.stop(), 0);
    EXPECT_TRUE(log.waitFor(KRLogLevel::Info, "has left the domain")); // a clean exit, not a timeout
    EXPECT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
    EXPECT_THROW(broker->getProxy("A")->call("getPid"), KRError);
}

TEST(KRDDSDirectory, ANameThatAnotherProcessHasIsRefused) {
    const TestDomain domain;
    const OtherProcess other(domain.getUrl(), {"module", "A"});
    const auto broker = domain.createBroker();
    EXPECT_THAT(refusalOf([&] { makeModule(broker, "A"); }),
                HasSubstr("there is a module named A already, in process " + std::to_string(other.getPid())));
    const OtherProcess third(domain.getUrl(), {"module", "A"});
    EXPECT_THAT(third.getAnswer(), HasSubstr("there is a module named A already"));
}

TEST(KRDDSDirectory, ASecondMemoryIsRefused) {
    const TestDomain domain;
    const OtherProcess other(domain.getUrl("lease=30&memory=here"));
    EXPECT_THAT(refusalOf([&] { domain.createBroker("lease=30&memory=here"); }),
                HasSubstr("there is a module named KRMemory already"));
}

TEST(KRDDSDirectory, OfManyWhoTakeANameAtOnceOneGetsIt) {
    const TestDomain domain;
    constexpr int kBrokers = 4;
    std::vector<boost::shared_ptr<KRBroker>> brokers;
    for (int i = 0; i < kBrokers; ++i) {
        brokers.push_back(domain.createBroker());
    }
    for (int round = 0; round < 10; ++round) {
        std::atomic<int> got = 0;
        std::vector<KRModuleHandle<TestModule>> handles(kBrokers);
        std::vector<std::thread> threads;
        for (int i = 0; i < kBrokers; ++i) {
            threads.emplace_back([&, i] {
                try {
                    handles[i] = makeModule(brokers[i], "Wanted");
                    ++got;
                } catch (const KRError&) { // another has it
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(got, 1);
        handles.clear();
        EXPECT_TRUE(eventually([&] {
            return std::all_of(brokers.begin(), brokers.end(),
                               [](const auto& broker) { return broker->getModuleList().empty(); });
        }));
    }
}

TEST(KRDDSDirectory, OfTwoModulesOfOneNameThatMeetEverybodyElseCallsTheFirst) {
    const TestDomain domain;
    const std::string options = "lease=2";
    OtherProcess first(domain.getUrl(options), {"module", "A", "module", "First"});
    const auto broker = domain.createBroker(options);
    const auto proxy = broker->getProxy("A");
    ASSERT_EQ(proxy->call<int>("getPid"), first.getPid());
    // While the first is out of reach there is no reason to refuse the second its name.
    first.freeze();
    ASSERT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
    const OtherProcess second(domain.getUrl(options), {"module", "A", "module", "Second"});
    ASSERT_EQ(second.getAnswer(), "ready");
    const OtherProcess observer(domain.getUrl(options), {"module", "Observer"});
    for (const char* name : {"A", "Second", "Observer"}) {
        ASSERT_TRUE(broker->getSession().waitForService(name, kPatience));
    }
    EXPECT_EQ(proxy->call<int>("getPid"), second.getPid());

    const RecordedLog log;
    first.thaw();
    const auto error = log.waitFor(KRLogLevel::Error, "there are two modules named A");
    ASSERT_TRUE(error);
    EXPECT_THAT(error->message, AllOf(HasSubstr("in process " + std::to_string(first.getPid())),
                                      HasSubstr("in process " + std::to_string(second.getPid()))));
    const auto calls = [&](const std::string& caller, const OtherProcess& called) {
        return eventually([&] {
            try {
                return broker->getProxy(caller)->call<int>("callOther", "A", "pidOf", "") == called.getPid();
            } catch (const KRError&) { // some find each other a little later
                return false;
            }
        });
    };
    EXPECT_TRUE(calls("Observer", first));
    const OtherProcess late(domain.getUrl(options), {"module", "Late"});
    EXPECT_TRUE(calls("Late", first));
    // Each of the two goes on with its own.
    EXPECT_TRUE(calls("First", first));
    EXPECT_TRUE(calls("Second", second));
    // When the first goes, the second takes its place.
    first.kill();
    EXPECT_TRUE(calls("Observer", second));
    EXPECT_TRUE(calls("Late", second));
}

TEST(KRDDSDirectory, ABrokerReportsAnotherThatHasAModuleOfTheSameName) {
    const TestDomain domain;
    const std::string options = "lease=2";
    OtherProcess other(domain.getUrl(options), {"module", "A"});
    ASSERT_EQ(other.getAnswer(), "ready");
    other.freeze();
    const RecordedLog log;
    const auto broker = domain.createBroker(options);
    const auto module = makeModule(broker, "A");
    EXPECT_THAT(log.find(KRLogLevel::Error, ""), IsEmpty());
    other.thaw();
    EXPECT_TRUE(
        log.waitFor(KRLogLevel::Error, "there are two modules named A: one in this process, one in process " +
                                           std::to_string(other.getPid())));
    const KRBrokerDiagnostics found = broker->getDiagnostics();
    ASSERT_EQ(found.conflicts.size(), 1U);
    EXPECT_EQ(found.conflicts[0].module, "A");
    EXPECT_THAT(found.conflicts[0].locations,
                ElementsAre("in this process", HasSubstr("in process " + std::to_string(other.getPid()))));
}

TEST(KRDDSDirectory, DiagnosticsListTheOtherBrokersAndTheirModules) {
    const TestDomain domain;
    const OtherProcess other(domain.getUrl("lease=30&name=robot"), {"module", "A"});
    const auto broker = domain.createBroker();
    ASSERT_TRUE(broker->getSession().waitForService("A", kPatience));
    const KRBrokerDiagnostics found = broker->getDiagnostics();
    EXPECT_EQ(found.transport, "dds");
    EXPECT_EQ(found.domain, static_cast<std::uint32_t>(domain.getNumber()));
    EXPECT_FALSE(found.secure);
    EXPECT_THAT(found.interfaces, ElementsAre("lo"));
    EXPECT_EQ(found.malformedMessages, 0U);
    EXPECT_THAT(found.conflicts, IsEmpty());
    ASSERT_EQ(found.peers.size(), 1U);
    EXPECT_THAT(found.peers[0].location,
                HasSubstr("in process " + std::to_string(other.getPid()) + " (robot) on "));
    EXPECT_EQ(found.peers[0].protocol, found.protocol);
    EXPECT_EQ(found.peers[0].state, KRPeerDiagnostics::State::Connected);
    EXPECT_THAT(found.peers[0].modules, ElementsAre("A"));
}

TEST(KRDDSDirectory, AnAddressIsParsedForOthers) {
    const KRDDSAddress address = parseDDSAddress("dds:?domain=3&memory=here&interfaces=lo,eth0&name=robot");
    EXPECT_EQ(address.domain, 3U);
    EXPECT_EQ(address.memory, true);
    EXPECT_EQ(address.name, "robot");
    EXPECT_THAT(address.interfaces, ElementsAre("lo", "eth0"));
    EXPECT_FALSE(address.secure);
    EXPECT_EQ(parseDDSAddress("dds:").memory, std::nullopt);
    EXPECT_EQ(getDDSPort(0, 0), 7410);
    EXPECT_EQ(getDDSPort(3, 2), 8164);
}

TEST(KRDDSDirectory, BrokersOfOneProcessReachEachOther) {
    const TestDomain domain;
    const auto first = domain.createBroker();
    const auto second = domain.createBroker();
    const auto module = makeModule(first, "Module", [](TestModule& made) {
        made.add("echo", [](const KRValue& value) { return value; });
    });
    ASSERT_TRUE(second->getSession().waitForService("Module", kPatience));
    const std::string text(100000, 'x');
    EXPECT_EQ(second->getProxy("Module")->call<std::string>("echo", text), text);
}

TEST(KRDDSDirectory, BrokersOfOneProcessMustAgreeAboutTheirDomain) {
    const TestDomain domain;
    const auto first = domain.createBroker("lease=30");
    EXPECT_THAT(refusalOf([&] { domain.createBroker("lease=20"); }),
                HasSubstr("other peers, interfaces, lease"));
}

TEST(KRDDSDirectory, DomainsDoNotMeet) {
    const TestDomain one;
    const TestDomain other;
    const OtherProcess process(one.getUrl(), {"module", "A"});
    EXPECT_TRUE(other.createBroker()->getModuleList().empty());
}

TEST(KRDDSDirectory, MalformedAddressesAreRefusedWithTheReason) {
    const auto refusal = [](const std::string& url) { return refusalOf([&] { KRBroker::create(url); }); };
    EXPECT_THAT(refusal("dds:7"), HasSubstr("expected \"?\" and options after dds:"));
    EXPECT_THAT(refusal("dds:?domain=231"), HasSubstr("domain is \"231\", not a number from 0 to 230"));
    EXPECT_THAT(refusal("dds:?domain=1x"), HasSubstr("domain is \"1x\""));
    EXPECT_THAT(refusal("dds:?lease=0"), HasSubstr("lease is \"0\""));
    EXPECT_THAT(refusal("dds:?lease=nan"), HasSubstr("lease is \"nan\""));
    EXPECT_THAT(refusal("dds:?memory=maybe"), HasSubstr("not here or none"));
    EXPECT_THAT(refusal("dds:?peers=a,,b"), HasSubstr("peers contains \"\", which is not a name"));
    EXPECT_THAT(refusal("dds:?fragment=100"), HasSubstr("fragment is \"100\""));
    EXPECT_THAT(refusal("dds:?name=" + std::string(256, 'x')), HasSubstr("name is 256 bytes long"));
    EXPECT_THAT(refusal("dds:?colour=blue"), HasSubstr("unknown option \"colour=blue\""));
    EXPECT_THAT(refusal("dds:?domain=1&domain=2"), HasSubstr("domain is given twice"));
    EXPECT_THAT(refusal("dds:?peers="), HasSubstr("peers is empty"));
    EXPECT_THAT(refusal("dds:?security=/no/such/folder"), HasSubstr("/no/such/folder/identity-ca.pem"));
    EXPECT_THAT(refusal("smoke:signals"), HasSubstr("unknown kind of broker"));
}

TEST(KRDDSDirectory, AnInterfaceThatDoesNotExistIsRefused) {
    EXPECT_THAT(refusalOf([] { KRBroker::create("dds:?domain=100&interfaces=nosuch0"); }),
                HasSubstr("nosuch0"));
}

TEST(KRDDSDirectory, ABrokerGoesByItsNameOrElseByThatOfTheProgram) {
    const TestDomain domain;
    const OtherProcess named(domain.getUrl("lease=30&name=robot"), {"module", "A"});
    const OtherProcess unnamed(domain.getUrl(), {"module", "B"});
    const auto broker = domain.createBroker();
    EXPECT_THAT(refusalOf([&] { makeModule(broker, "A"); }), HasSubstr("(robot) on "));
    EXPECT_THAT(refusalOf([&] { makeModule(broker, "B"); }), HasSubstr("(krdds_server) on "));
}

} // namespace

} // namespace KR::test
