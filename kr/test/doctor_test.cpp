// kr doctor

#include "krsystem.hpp"
#include "stranger.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <string>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(KrSystem, DoctorFindsNothingWrongWithAHealthySystem) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const json findings = json::parse(krOnDomain({"doctor", "--json"}).out);
    for (const json& finding : findings) {
        EXPECT_EQ(finding["good"].get<bool>(), finding["remedy"].get<std::string>().empty()) << finding;
        if (finding["subject"] == "services") {
            EXPECT_EQ(finding["good"], true) << finding;
        }
        if (finding["subject"] == "ways") {
            EXPECT_EQ(finding["text"], "1 broker is called through shared memory");
        }
        if (finding["subject"] == "participants") {
            EXPECT_THAT(finding["text"].get<std::string>(),
                        StartsWith("1 of 120 places for processes on domain " +
                                   std::to_string(domain_.getNumber()) + " are taken"));
        }
    }
    EXPECT_EQ(findings.size(), 10U);
}

TEST_F(KrSystem, DoctorFindsABrokerOfAnotherVersion) {
    // So that the stranger is on the loopback interface, too, and discovers others over DDS.
    const auto broker = domain_.createBroker("local=off");
    Stranger stranger(domain_.getNumber());
    stranger.announce(99, {});
    Outcome outcome;
    json brokers;
    EXPECT_TRUE(eventually([&] { // the doctor waits only briefly
        outcome = krOnDomain({"doctor", "--json"});
        for (const json& finding : json::parse(outcome.out)) {
            if (finding["subject"] == "brokers") {
                brokers = finding;
            }
        }
        return !brokers["good"].get<bool>();
    }));
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(brokers["text"].get<std::string>(), HasSubstr("protocol 99"));
}

TEST_F(KrSystem, DoctorFindsTwoModulesThatDeclareTheSameOutput) {
    const auto broker = domain_.createBroker();
    const auto declare = [](TestModule& module) {
        module.add("getOutputNames", [] { return std::vector<std::string>{"Seen", "Seen"}; });
    };
    const auto first = makeModule(broker, "First", declare);
    EXPECT_THAT(krOnDomain({"doctor"}).out, HasSubstr("ok   outputs"));
    const auto second = makeModule(broker, "Second", declare);
    EXPECT_THAT(krOnDomain({"doctor"}).out,
                HasSubstr("BAD  outputs          First and Second declare Seen\n"));
}

TEST_F(KrSystem, DoctorFindsTwoModulesOfTheSameNameAndTheirProcesses) {
    const std::string url = domain_.getUrl("lease=2");
    RunningProgram first({"serve", "--broker", url}, "serving on");
    ASSERT_TRUE(first.isUp()) << first.readErr();
    ::kill(first.getPid(), SIGSTOP); // as if disconnected from the network
    RunningProgram second({"serve", "--broker", url}, "serving on");
    ASSERT_TRUE(second.isUp()) << second.readErr();
    ::kill(first.getPid(), SIGCONT);
    ASSERT_TRUE(first.waitFor("there are two modules named KRMemory"));
    ASSERT_TRUE(second.waitFor("there are two modules named KRMemory"));
    const Outcome outcome = kr({"doctor", "--json", "--broker", url});
    EXPECT_EQ(outcome.exitCode, 1);
    for (const json& finding : json::parse(outcome.out)) {
        if (finding["subject"] == "brokers") {
            EXPECT_EQ(finding["good"], false);
            EXPECT_THAT(finding["text"].get<std::string>(),
                        AllOf(HasSubstr("several modules named KRMemory"),
                              HasSubstr("several modules named KRVideoDevice"),
                              HasSubstr("in process " + std::to_string(first.getPid())),
                              HasSubstr("in process " + std::to_string(second.getPid()))));
        }
    }
}

TEST_F(KrSystem, DoctorReportsMissingServices) {
    const Outcome outcome = krOnDomain({"doctor"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("there is no KRMemory and KRVideoDevice"),
                                   HasSubstr("-> kr serve --broker '" + domain_.getUrl() + "'\n")));
}

} // namespace
} // namespace KR::test
