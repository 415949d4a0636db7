// kr on a domain of its own, with kr serve in one process and the other verbs in others.

#include "servedprogram.hpp"
#include "stranger.hpp"
#include "temporaryfolder.hpp"
#include "testdomain.hpp"

#include <krvision/krimage.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class KrSystem : public testing::Test {
protected:
    std::vector<std::string> onDomain(std::vector<std::string> arguments) const {
        arguments.push_back("--broker");
        arguments.push_back(domain_.getUrl());
        return arguments;
    }
    Outcome krOnDomain(std::vector<std::string> arguments) const {
        return kr(onDomain(std::move(arguments)));
    }
    RunningProgram serve(std::vector<std::string> arguments = {}) const {
        arguments.insert(arguments.begin(), "serve");
        return RunningProgram(onDomain(std::move(arguments)), "serving on");
    }

    const TestDomain domain_;
};

TEST_F(KrSystem, ListsTheModulesOfAnotherProcess) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome outcome = krOnDomain({"module", "list"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "KRMemory\nKRVideoDevice\n");
    EXPECT_EQ(json::parse(krOnDomain({"module", "list", "--json"}).out), json({"KRMemory", "KRVideoDevice"}));
}

TEST_F(KrSystem, ShowsTheMethodsOfAModuleAsPublished) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome outcome = krOnDomain({"module", "info", "KRMemory"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out,
                AllOf(HasSubstr("insertData(string key, value value)"),
                      HasSubstr("Writes a value under a key."), HasSubstr("key: Name of the data.")));
    const json info = json::parse(krOnDomain({"module", "info", "KRMemory", "--json"}).out);
    EXPECT_EQ(info["methods"][0]["name"], "insertData");
    EXPECT_EQ(info["methods"][0]["parameters"][0]["type"], "string");
}

TEST_F(KrSystem, CallsAMethodAndAnswersWrongArgumentsWithTheSignatures) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"call", "KRMemory", "insertData", "greeting",
                          R"(["hello", 3, 0.5, null, {"base64": "AAECAw=="}])"})
                  .exitCode,
              0);
    const Outcome got = krOnDomain({"call", "KRMemory", "getData", "greeting"});
    EXPECT_EQ(got.exitCode, 0);
    EXPECT_EQ(json::parse(got.out), json::parse(R"(["hello", 3, 0.5, null, {"base64": "AAECAw=="}])"));

    const Outcome wrong = krOnDomain({"call", "KRMemory", "getData", "1", "2"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_THAT(wrong.out, IsEmpty());
    EXPECT_THAT(wrong.err, AllOf(HasSubstr("kr: KRMemory.getData: cannot be called with (int, int)"),
                                 HasSubstr("getData(string key): value value")));
    const Outcome option = krOnDomain({"call", "KRMemory", "getDataList", "--prefix"});
    EXPECT_EQ(option.exitCode, 2);
    EXPECT_THAT(option.err, HasSubstr("--prefix"));
    EXPECT_THAT(krOnDomain({"call", "KRMemory", "nothing"}).err,
                AllOf(HasSubstr("kr: KRMemory.nothing: "), HasSubstr("insertData(string key, value value)")));
}

TEST_F(KrSystem, NamesTheModuleThatIsNotThere) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome outcome = krOnDomain({"call", "KRNobody", "go"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("KRNobody"), HasSubstr("KRMemory, KRVideoDevice")));
}

TEST_F(KrSystem, RefusesArgumentsThatAreNoValues) {
    for (const char* argument : {"[1", "12x", R"({"a": 1})", "99999999999", R"({"base64": "A"})"}) {
        const Outcome outcome = krOnDomain({"call", "KRMemory", "getData", argument});
        EXPECT_EQ(outcome.exitCode, 2) << argument;
        EXPECT_THAT(outcome.err, Not(IsEmpty()));
    }
}

TEST_F(KrSystem, WritesReadsAndListsValuesOfTheMemory) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"memory", "set", "Door/Open", "true"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"memory", "set", "Door/Name", "front"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"memory", "get", "Door/Open"}).out, "1\n");
    EXPECT_EQ(krOnDomain({"memory", "get", "Door/Name"}).out, "\"front\"\n");
    EXPECT_EQ(krOnDomain({"memory", "list", "Door/"}).out, "Door/Name\nDoor/Open\n");
    const Outcome missing = krOnDomain({"memory", "get", "Door/Width"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_THAT(missing.err, HasSubstr("Door/Width"));
}

TEST_F(KrSystem, WatchesTheMemoryAsItChanges) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "0"}).exitCode, 0);
    RunningProgram watch(onDomain({"memory", "watch", "Door/", "--interval", "10"}), "Door/Open 0\n");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Window", "1"}).exitCode, 0);
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "1"}).exitCode, 0);
    EXPECT_TRUE(watch.waitFor("Door/Open 1\n"));
    const Outcome outcome = watch.stop(SIGINT);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "Door/Open 0\nDoor/Open 1\n");
}

TEST_F(KrSystem, WatchesEventsThatItRaises) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram watch(onDomain({"event", "watch", "Door/Opened", "--count", "2"}), "watching");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    const json list = json::parse(krOnDomain({"event", "list", "--json"}).out);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0]["event"], "Door/Opened");
    EXPECT_EQ(list[0]["subscribers"][0]["callback"], "onEvent");
    EXPECT_EQ(krOnDomain({"event", "raise", "Door/Opened", R"(["front", 0.5])"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"event", "raise", "Door/Opened"}).exitCode, 0);
    const Outcome outcome = watch.wait();
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "Door/Opened [\"front\",0.5]\nDoor/Opened null\n");
}

TEST_F(KrSystem, HostsAModuleLibraryThatOthersSubscribeTo) {
    RunningProgram server = serve({"--camera", "0=test:ball"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram motion(onDomain({"run", KR_MOTION_LIBRARY}), "module KRMotion runs");
    ASSERT_TRUE(motion.isUp()) << motion.readErr();
    const Outcome subscribed = krOnDomain({"call", "KRMotion", "subscribe", "somebody", "50", "1.0"});
    EXPECT_EQ(subscribed.exitCode, 0) << subscribed.err;
    RunningProgram watch(onDomain({"memory", "watch", "KRMotion/Motion"}), "KRMotion/Motion [0.");
    EXPECT_TRUE(watch.isUp()) << watch.readOut() << watch.readErr();

    json extractors;
    EXPECT_TRUE(eventually([&] { // on a busy machine there may be no frame between two looks
        const Outcome top = krOnDomain({"extractor", "top", "--count", "1", "--interval", "0.5", "--json"});
        EXPECT_EQ(top.exitCode, 0);
        extractors = json::parse(top.out);
        return extractors.size() == 1 && extractors[0]["frames_per_second"].is_number() &&
               extractors[0]["frames_per_second"] > 0.0;
    })) << extractors;
    ASSERT_EQ(extractors.size(), 1U);
    EXPECT_EQ(extractors[0]["name"], "KRMotion");
    EXPECT_EQ(extractors[0]["processing"], true);
    EXPECT_EQ(extractors[0]["paused"], false);
    EXPECT_EQ(extractors[0]["subscribers"][0]["name"], "somebody");
    EXPECT_EQ(extractors[0]["subscribers"][0]["period_ms"], 50);

    // Both come down while images are being fetched.
    const Outcome ended = motion.stop();
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("did not come down")));
    EXPECT_EQ(server.stop(SIGINT).exitCode, 0);
}

TEST_F(KrSystem, ComesDownWhileAModuleWaitsForACameraThatDeliversNothing) {
    RunningProgram server =
        serve({"--camera", "0=gst:videotestsrc ! identity drop-probability=1.0", "--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram subscriber(onDomain({"call", "KRMotion", "subscribe", "somebody", "50", "1.0"}), "");
    EXPECT_TRUE(eventually([&] {
        return krOnDomain({"call", "KRVideoDevice", "getCameraList"}).out.find("opening") !=
               std::string::npos;
    }));
    const Outcome ended = server.stop();
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("did not come down")));
}

TEST_F(KrSystem, ServesOnWhenNobodyReadsItsLogAnyMore) {
    const TemporaryFolder folder;
    // The shell's process becomes that of the program.
    const std::string server = "{ echo \\$\\$ > " + folder.path("pid") +
                               "; exec '" KR_PROGRAM "' serve --broker '" + domain_.getUrl() + "'; }";
    const pid_t reader =
        start({"/bin/sh", "-c", "sh -c \"" + server + "\" 2>&1 | head -n 1 > " + folder.path("log")},
              STDOUT_FILENO, STDERR_FILENO);
    EXPECT_TRUE(eventually([&] { return krOnDomain({"memory", "list"}).exitCode == 0; }));
    for (int call = 0; call < 3; ++call) { // each leaves a line in the log
        EXPECT_EQ(krOnDomain({"memory", "set", "a", "1"}).exitCode, 0) << call;
    }
    pid_t process = 0;
    std::ifstream(folder.path("pid")) >> process;
    ASSERT_GT(process, 1);
    ::kill(process, SIGTERM);
    EXPECT_EQ(::waitpid(reader, nullptr, 0), reader);
}

TEST_F(KrSystem, EndsWhileAModuleStillWaitsForTheMemory) {
    for (const int signal : {SIGINT, SIGTERM}) {
        RunningProgram host(onDomain({"run", KR_MOTION_LIBRARY}), "is on DDS domain");
        ASSERT_TRUE(host.isUp()) << host.readErr();
        const Outcome ended = host.stop(signal);
        EXPECT_EQ(ended.exitCode, 0);
        EXPECT_THAT(ended.err, HasSubstr(KR_MOTION_LIBRARY " was still waiting for what it needs"));
    }
}

TEST_F(KrSystem, HostsModulesBesideTheServicesUnderNamesOfTheirOwn) {
    RunningProgram server = serve(
        {"--camera", "0=test:ball", "--run", "Left=" KR_MOTION_LIBRARY, "--run", "Right=" KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"module", "list"}).out, "KRMemory\nKRVideoDevice\nLeft\nRight\n");
    EXPECT_EQ(krOnDomain({"call", "Left", "subscribe", "somebody", "50", "1.0"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"call", "Right", "subscribe", "somebody", "50", "1.0"}).exitCode, 0);
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrSystem, SaysWhyALibraryCannotBeHosted) {
    const TemporaryFolder folder;
    const std::string text = folder.path("text.so");
    std::ofstream(text) << "no library";
    const struct {
        std::string path;
        const char* why;
    } cases[] = {{folder.path("missing.so"), "no such file"},
                 {text, "cannot be loaded"},
                 {KR_LIBRARY_WITHOUT_MODULE, "KR_REGISTER_MODULE"}};
    for (const auto& each : cases) {
        for (const char* verb : {"run", "serve"}) {
            const Outcome outcome = verb == std::string("run") ? krOnDomain({"run", each.path})
                                                               : krOnDomain({"serve", "--run", each.path});
            EXPECT_EQ(outcome.exitCode, 1);
            EXPECT_THAT(outcome.err, AllOf(HasSubstr(each.path), HasSubstr(each.why)));
        }
    }
}

TEST_F(KrSystem, SaysWhatTheConstructorOfAModuleHasThrown) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome made = krOnDomain({"run", KR_THROWING_MODULE});
    EXPECT_EQ(made.exitCode, 1);
    EXPECT_THAT(made.err, HasSubstr("no module ThrowingModule of " KR_THROWING_MODULE ": thrown when made"));
}

TEST_F(KrSystem, SaysWhyAModuleCannotBeMade) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome outcome = krOnDomain({"run", KR_MOTION_LIBRARY}); // the name is taken, in another process
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("KRMotion"), HasSubstr(KR_MOTION_LIBRARY)));
    const Outcome second = krOnDomain({"serve"});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_THAT(second.err, HasSubstr("KRMemory"));
}

TEST_F(KrSystem, RefusesCamerasThatLeaveAGap) {
    EXPECT_THAT(krOnDomain({"serve", "--camera", "1=test"}).err, HasSubstr("camera 0 is missing"));
    EXPECT_EQ(krOnDomain({"serve", "--camera", "1=test"}).exitCode, 2);
    EXPECT_EQ(krOnDomain({"serve", "--camera", "test"}).exitCode, 2);
    EXPECT_EQ(krOnDomain({"serve", "--camera", "0=test", "--camera", "0=test"}).exitCode, 2);
    const Outcome unknown = krOnDomain({"serve", "--camera", "0=nothing:x"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_THAT(unknown.err, HasSubstr("nothing:x"));
}

TEST_F(KrSystem, LooksAtTheCamerasOfTheRunningService) {
    RunningProgram server = serve({"--camera", "0=test:black", "--camera", "1=test:white"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"camera", "list"}).out, "  0  test:black\n  1  test:white\n");
    RunningProgram other(onDomain({"camera", "watch", "0"}), " missed");
    ASSERT_TRUE(other.isUp()) << other.readErr();
    const Outcome watch = krOnDomain({"camera", "watch", "1", "--frames", "3", "--resolution", "1280x960"});
    EXPECT_EQ(watch.exitCode, 0) << watch.err;
    EXPECT_THAT(watch.out, HasSubstr("\n3 images, "));
    EXPECT_EQ(other.stop(SIGINT).exitCode, 0);

    const TemporaryFolder folder;
    const std::string path = folder.path("white.oxi");
    EXPECT_EQ(
        krOnDomain({"camera", "snapshot", "1", path, "--resolution", "160x120", "--color-space", "luma"})
            .exitCode,
        0);
    KRImage image(0, 0, false, 0, 0, 0, 0);
    ASSERT_TRUE(image.readFile(path.c_str()));
    EXPECT_EQ(image.data[0], 235);
    const Outcome both = krOnDomain({"camera", "list", "--camera", "0=test"});
    EXPECT_EQ(both.exitCode, 2);
    EXPECT_THAT(both.err, AllOf(HasSubstr("--camera"), HasSubstr("--broker")));
    const Outcome none = krOnDomain({"camera", "watch", "2"});
    EXPECT_EQ(none.exitCode, 2);
    EXPECT_THAT(none.err, HasSubstr("there are cameras 0 to 1"));
}

TEST_F(KrSystem, CompletesNamesOfModulesAndMethodsThatAreThere) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string url = domain_.getUrl();
    EXPECT_EQ(kr({"complete", "--", "call", "--broker", url, "KRM"}).out, "KRMemory\n");
    EXPECT_THAT(kr({"complete", "--", "call", "--broker=" + url, "KRMemory", "get"}).out,
                StartsWith("getData\n"));
}

TEST_F(KrSystem, IsFoundWellByItsDoctor) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const json findings = json::parse(krOnDomain({"doctor", "--json"}).out);
    for (const json& finding : findings) {
        EXPECT_EQ(finding["good"].get<bool>(), finding["remedy"].get<std::string>().empty()) << finding;
        if (finding["subject"] == "services") {
            EXPECT_EQ(finding["good"], true) << finding;
        }
        if (finding["subject"] == "participants") {
            EXPECT_THAT(finding["text"].get<std::string>(),
                        StartsWith("1 of 120 places for processes on domain " +
                                   std::to_string(domain_.getNumber()) + " are taken"));
        }
    }
    EXPECT_EQ(findings.size(), 6U);
}

TEST_F(KrSystem, ItsDoctorFindsABrokerOfAnotherVersion) {
    const auto broker = domain_.createBroker(); // so that the stranger is on the loopback as well
    Stranger stranger(domain_.getNumber());
    stranger.announce(99, {});
    const Outcome outcome = krOnDomain({"doctor", "--json"});
    EXPECT_EQ(outcome.exitCode, 1);
    int found = 0;
    for (const json& finding : json::parse(outcome.out)) {
        if (finding["subject"] == "brokers") {
            ++found;
            EXPECT_EQ(finding["good"], false);
            EXPECT_THAT(finding["text"].get<std::string>(), HasSubstr("protocol 99"));
        }
    }
    EXPECT_EQ(found, 1);
}

TEST_F(KrSystem, ItsDoctorFindsTwoModulesOfOneNameAndTheirProcesses) {
    const std::string url = domain_.getUrl("lease=2");
    RunningProgram first({"serve", "--broker", url}, "serving on");
    ASSERT_TRUE(first.isUp()) << first.readErr();
    ::kill(first.getPid(), SIGSTOP); // as if its network were cut off
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
                        AllOf(HasSubstr("two modules named KRMemory"),
                              HasSubstr("two modules named KRVideoDevice"),
                              HasSubstr("in process " + std::to_string(first.getPid())),
                              HasSubstr("in process " + std::to_string(second.getPid()))));
        }
    }
}

TEST_F(KrSystem, IsMissedByItsDoctor) {
    const Outcome outcome = krOnDomain({"doctor"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("there is no KRMemory and KRVideoDevice"),
                                   HasSubstr("-> kr serve --broker '" + domain_.getUrl() + "'\n")));
}

TEST_F(KrSystem, CompletesKeysOfTheMemoryAndNamesOfEvents) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "1"}).exitCode, 0);
    ASSERT_EQ(krOnDomain({"event", "raise", "Door/Opened"}).exitCode, 0);
    const std::string url = domain_.getUrl();
    EXPECT_EQ(kr({"complete", "--", "memory", "get", "--broker", url, "Do"}).out,
              "Door/Open\nDoor/Opened\n"); // the value that an event was raised with last is data, too
    EXPECT_EQ(kr({"complete", "--", "event", "watch", "--broker", url, "Do"}).out, "Door/Opened\n");
}

TEST_F(KrSystem, WatchesOnWhenTheMemoryIsRestarted) {
    auto server = std::make_unique<RunningProgram>(onDomain({"serve"}), "serving on");
    ASSERT_TRUE(server->isUp()) << server->readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "0"}).exitCode, 0);
    RunningProgram values(onDomain({"memory", "watch", "--interval", "10"}), "Door/Open 0\n");
    ASSERT_TRUE(values.isUp()) << values.readErr();
    RunningProgram events(onDomain({"event", "watch", "Door/Opened", "--count", "1"}), "watching");
    ASSERT_TRUE(events.isUp()) << events.readErr();
    EXPECT_EQ(server->stop().exitCode, 0);
    server = std::make_unique<RunningProgram>(onDomain({"serve"}), "serving on");
    ASSERT_TRUE(server->isUp()) << server->readErr();
    EXPECT_EQ(krOnDomain({"memory", "set", "Door/Open", "1"}).exitCode, 0);
    EXPECT_TRUE(values.waitFor("Door/Open 1\n"));
    EXPECT_EQ(values.stop().exitCode, 0);
    EXPECT_TRUE(eventually([&] {
        const json list = json::parse(krOnDomain({"event", "list", "--json"}).out);
        return list.size() == 1 && list[0]["subscribers"].size() == 1;
    }));
    EXPECT_EQ(krOnDomain({"event", "raise", "Door/Opened", "5"}).exitCode, 0);
    EXPECT_EQ(events.wait().out, "Door/Opened 5\n");
}

TEST_F(KrSystem, NamesAModuleThatDoesNotComeDownAndLeavesItBehind) {
    RunningProgram stuck(onDomain({"run", KR_STUCK_MODULE}), "module Stuck runs");
    ASSERT_TRUE(stuck.isUp()) << stuck.readErr();
    const Outcome outcome = stuck.stop(SIGINT);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("did not come down in time: Stuck\n"));
}

} // namespace
} // namespace KR::test
