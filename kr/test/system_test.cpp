// Verbs that inspect a running system.

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include <krvision/krimage.hpp>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <string>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

TEST_F(KrSystem, ListsTheModulesOfAnotherProcess) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome outcome = krOnDomain({"module", "list"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "KRMemory\nKRVideoDevice\n");
    EXPECT_EQ(json::parse(krOnDomain({"module", "list", "--json"}).out), json({"KRMemory", "KRVideoDevice"}));
    RunningProgram watch(onDomain({"event", "watch", "Door/Opened"}), "watching");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    EXPECT_EQ(krOnDomain({"module", "list"}).out, "KRMemory\nKRVideoDevice\n");
    EXPECT_THAT(krOnDomain({"module", "list", "--all"}).out, HasSubstr("\nkr-"));
}

TEST_F(KrSystem, ListsWhereModulesRunAndHowTheyAreCalled) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string location = ", in process " + std::to_string(server.getPid()) + " (kr) on ";
    EXPECT_THAT(krOnDomain({"module", "list", "--verbose"}).out,
                AllOf(StartsWith("KRMemory" + location), HasSubstr("\nKRVideoDevice" + location),
                      HasSubstr(", socket and shared memory of this machine\n")));
    const json modules = json::parse(krOnDomain({"module", "list", "--verbose", "--json"}).out);
    ASSERT_EQ(modules.size(), 2U);
    EXPECT_EQ(modules[0]["name"], "KRMemory");
    EXPECT_EQ(modules[0]["local"], true);
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

TEST_F(KrSystem, CallsAMethodAndReportsWrongArgumentsWithTheSignatures) {
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
                StartsWith("kr: KRMemory.nothing: no such method; the nearest names are "));
    EXPECT_EQ(krOnDomain({"call", "KRMemory", "insertdat", "a", "1"}).err.substr(0, 75),
              "kr: KRMemory.insertdat: no such method; the nearest names are insertData, g");
}

TEST_F(KrSystem, NamesAMissingModule) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome outcome = krOnDomain({"call", "KRNobody", "go"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("KRNobody"), HasSubstr("KRMemory, KRVideoDevice")));
}

TEST_F(KrSystem, RefusesArgumentsThatAreNotValues) {
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
    EXPECT_THAT(krOnDomain({"memory", "list", "Door/"}).out,
                MatchesRegex(" *[0-9.]+ m?s  Door/Name\n *[0-9.]+ m?s  Door/Open\n"));
    const Outcome missing = krOnDomain({"memory", "get", "Door/Width"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "kr: KRMemory.getData: there is no data named Door/Width\n");
}

TEST_F(KrSystem, ShowsWhenAValueWasWritten) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const auto readClock = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const auto before = readClock();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "true"}).exitCode, 0);
    const Outcome get = krOnDomain({"memory", "get", "Door/Open"});
    EXPECT_EQ(get.out, "1\n");
    EXPECT_THAT(get.err, MatchesRegex("kr: Door/Open was written [0-9.]+ m?s ago\n"));
    const json got = json::parse(krOnDomain({"memory", "get", "Door/Open", "--json"}).out);
    EXPECT_EQ(got["value"], 1);
    EXPECT_GE(got["time_usec"].get<std::int64_t>(), before);
    EXPECT_LE(got["time_usec"].get<std::int64_t>(), readClock());
    const json list = json::parse(krOnDomain({"memory", "list", "--json"}).out);
    EXPECT_EQ(list, json({{{"key", "Door/Open"}, {"time_usec", got["time_usec"]}}}));
}

TEST_F(KrSystem, InspectsTheCamerasOfTheRunningService) {
    RunningProgram server = serve({"--camera", "0=test:black", "--camera", "1=test:white"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"camera", "list"}).out, "  0  test:black\n  1  test:white\n");
    RunningProgram other(onDomain({"camera", "watch", "0"}), " missed");
    ASSERT_TRUE(other.isUp()) << other.readErr();
    const Outcome watch = krOnDomain({"camera", "watch", "1", "--count", "3", "--resolution", "1280x960"});
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
    EXPECT_THAT(krOnDomain({"camera", "top", "--count", "1"}).out, Not(HasSubstr("kr_2 ")))
        << "it only watches the system";
    const Outcome none = krOnDomain({"camera", "watch", "2"});
    EXPECT_EQ(none.exitCode, 2);
    EXPECT_THAT(none.err, HasSubstr("there are cameras 0 to 1"));
}

TEST_F(KrSystem, CompletesNamesOfRunningModulesAndTheirMethods) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string url = domain_.getUrl();
    EXPECT_EQ(kr({"complete", "--", "call", "--broker", url, "KRM"}).out, "KRMemory\n");
    EXPECT_THAT(kr({"complete", "--", "call", "--broker=" + url, "KRMemory", "get"}).out,
                StartsWith("getData\n"));
}

TEST_F(KrSystem, CompletesKeysOfTheMemoryAndNamesOfEvents) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "1"}).exitCode, 0);
    ASSERT_EQ(krOnDomain({"event", "raise", "Door/Opened"}).exitCode, 0);
    const std::string url = domain_.getUrl();
    EXPECT_EQ(kr({"complete", "--", "memory", "get", "--broker", url, "Do"}).out,
              "Door/Open\nDoor/Opened\n"); // the last value of an event is data, too
    EXPECT_EQ(kr({"complete", "--", "event", "watch", "--broker", url, "Do"}).out, "Door/Opened\n");
}

} // namespace
} // namespace KR::test
