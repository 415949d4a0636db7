// kr serve robot.yaml: the system

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <string>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KrRobot : public KrSystem {
protected:
    void write(const std::string& text) const {
        std::ofstream(folder_.path("next.yaml")) << "broker: " << domain_.getUrl() << "\n" << text;
        std::filesystem::rename(folder_.path("next.yaml"), file_);
    }
    RunningProgram serveFile(const std::string& text) const {
        write(text);
        return RunningProgram({"serve", file_}, "serving on");
    }
    static void reload(const RunningProgram& server) { ::kill(server.getPid(), SIGHUP); }
    std::string call(const std::string& module, const std::string& method) const {
        return krOnDomain({"call", module, method}).out;
    }
    /// The process of a module that crashes; waits until it exists.
    std::string processOf(const std::string& module) const {
        std::string process;
        EXPECT_TRUE(eventually([&] {
            process = call(module, "getProcess");
            return !process.empty();
        }));
        return process.substr(0, process.find('\n'));
    }
    bool waitForValue(const std::string& module, const std::string& parameter,
                      const std::string& value) const {
        return eventually([&] {
            return krOnDomain({"param", "get", module, parameter}).out == value + "\n";
        });
    }

    const TemporaryFolder folder_;
    const std::string file_ = folder_.path("robot.yaml");
};

TEST_F(KrRobot, ServesTheSystemOfTheFile) {
    RunningProgram server =
        serveFile("cameras:\n"
                  "  - test:ball\n"
                  "  - {source: test:smpte, size: 1280x960, controls: {hue: 20, Horizontal Flip: 1}}\n"
                  "modules:\n"
                  "  - {library: " KR_MOTION_LIBRARY ", name: Door, parameters: {threshold: 0.25}}\n"
                  "  - {library: " KR_CRASHING_MODULE ", name: Beside, process: own, parameters: {size: 7}}\n"
                  "subscriptions:\n"
                  "  - {module: Door, period: 50, precision: 1}\n"
                  "memory: {Door/Open: [1, left]}\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(json::parse(krOnDomain({"memory", "get", "Door/Open"}).out), json({1, "left"}));
    EXPECT_TRUE(waitForValue("Door", "threshold", "0.25"));
    EXPECT_NE(processOf("Beside"), std::to_string(server.getPid()));
    EXPECT_TRUE(waitForValue("Beside", "size", "7"));
    RunningProgram watch(onDomain({"memory", "watch", "Door/Motion"}), "Door/Motion [");
    EXPECT_TRUE(watch.isUp()) << server.readErr();
    const json controls = json::parse(krOnDomain({"camera", "controls", "1", "--json"}).out);
    EXPECT_EQ(controls[3]["value"], 0) << "the camera is closed";
    RunningProgram images(onDomain({"camera", "watch", "1"}), "ms");
    const json open = json::parse(krOnDomain({"camera", "controls", "1", "--json"}).out);
    EXPECT_EQ(open[3]["name"], "hue");
    EXPECT_EQ(open[3]["value"], 20);
    EXPECT_EQ(open[5]["value"], 1);
    const json cameras = json::parse(krOnDomain({"camera", "list", "--json"}).out);
    EXPECT_EQ(cameras[1]["source"], "test:smpte");
    const Outcome ended = server.stop();
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("did not shut down")));
    EXPECT_EQ(krOnDomain({"module", "list"}).out, "") << "its child process has ended, too";
}

TEST_F(KrRobot, AModuleThatCrashesItsProcessIsRestartedAfterAGrowingPause) {
    RunningProgram server = serveFile("modules:\n  - {library: " KR_CRASHING_MODULE
                                      ", name: Beside, process: own, parameters: {size: 7}}\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    std::string process = processOf("Beside");
    for (const char* pause : {"0.25 s", "0.5 s"}) {
        krOnDomain({"call", "Beside", "crash"});
        EXPECT_TRUE(server.waitFor(
            std::string("module Beside was ended by signal 9 (Killed); restarting in ") + pause))
            << server.readErr();
        const std::string next = processOf("Beside");
        EXPECT_NE(next, process);
        process = next;
        EXPECT_TRUE(waitForValue("Beside", "size", "7"));
    }
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrRobot, AModuleThatFailsOrExitsInThisProcessIsRestarted) {
    RunningProgram server = serveFile("modules:\n  - " KR_FAILING_MODULE "\n  - {library: " KR_FAILING_MODULE
                                      ", name: Other, restart: false}\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"call", "Failing", "fail", "the lens is dirty"}).exitCode, 0);
    EXPECT_TRUE(server.waitFor("module Failing has failed: the lens is dirty; restarting in 0.25 s"));
    EXPECT_TRUE(server.waitFor("module Failing works again"));
    krOnDomain({"call", "Failing", "leave"});
    EXPECT_TRUE(server.waitFor("module Failing has exited by itself; restarting in 0.5 s"));
    EXPECT_TRUE(eventually([&] { return call("Failing", "getCurrentPeriod") == "100\n"; }));
    krOnDomain({"call", "Other", "leave"});
    EXPECT_TRUE(server.waitFor("module Other has exited by itself\n"));
    EXPECT_EQ(call("Failing", "getCurrentPeriod"), "100\n") << "it keeps running";
    EXPECT_EQ(server.stop().exitCode, 1) << "one was not to be restarted";
}

TEST_F(KrRobot, AModuleThatCannotBeCreatedIsRetriedWhileOthersWork) {
    RunningProgram server = serveFile("modules:\n  - " KR_THROWING_MODULE "\n  - " KR_FAILING_MODULE "\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_TRUE(server.waitFor("thrown when made; restarting in 0.5 s")) << server.readErr();
    EXPECT_TRUE(eventually([&] { return call("Failing", "getCurrentPeriod") == "100\n"; }));
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrRobot, ItsChildProcessesEndWhenItIsKilled) {
    RunningProgram server =
        serveFile("modules:\n  - {library: " KR_CRASHING_MODULE ", name: Beside, process: own}\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const pid_t process = std::stoi(processOf("Beside"));
    server.stop(SIGKILL);
    EXPECT_TRUE(eventually([&] { return ::kill(process, 0) != 0; }));
}

TEST_F(KrRobot, AHangUpAppliesOnlyTheChanges) {
    const std::string same = "cameras: [test:ball]\n"
                             "modules:\n"
                             "  - {library: " KR_CRASHING_MODULE ", name: Same, process: own}\n";
    RunningProgram server = serveFile(
        same + "  - {library: " KR_CRASHING_MODULE ", name: Left, process: own}\n"
               "  - {library: " KR_MOTION_LIBRARY ", name: Door, parameters: {threshold: 0.25, camera: 0}}\n"
               "memory: {a: 1, b: 2}\n"
               "subscriptions: [{module: Door, period: 70}]\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string process = processOf("Same");
    EXPECT_EQ(krOnDomain({"memory", "set", "a", "5"}).exitCode, 0);
    processOf("Left");
    EXPECT_TRUE(waitForValue("Door", "threshold", "0.25"));

    write(same + "  - {library: " KR_MOTION_LIBRARY
                 ", name: Door, parameters: {camera: 0, colorSpace: luma}}\n"
                 "  - {library: " KR_FAILING_MODULE ", name: New}\n"
                 "memory: {a: 1, b: 3}\n"
                 "subscriptions: [{module: Door, period: 90}]\n");
    reload(server);
    EXPECT_TRUE(eventually([&] { return call("New", "getCurrentPeriod") == "100\n"; })) << server.readErr();
    EXPECT_TRUE(waitForValue("Door", "colorSpace", "\"luma\""));
    EXPECT_TRUE(waitForValue("Door", "threshold", "0.001")) << "the default";
    EXPECT_EQ(processOf("Same"), process);
    EXPECT_TRUE(eventually([&] { return krOnDomain({"memory", "get", "b"}).out == "3\n"; }));
    EXPECT_EQ(krOnDomain({"memory", "get", "a"}).out, "5\n") << "this entry of the file has not changed";
    EXPECT_TRUE(eventually([&] {
        const json table = json::parse(call("Door", "getSubscribersInfo"));
        return table.size() == 1 && table[0][1] == 90;
    }));
    EXPECT_TRUE(eventually([&] {
        return krOnDomain({"module", "list"}).out.find("Left") == std::string::npos;
    }));
    EXPECT_THAT(server.readErr(), AllOf(Not(HasSubstr("restarting the camera service")),
                                        Not(HasSubstr("replaces another source"))));
    EXPECT_THAT(server.readErr(), Not(HasSubstr("module Left was ended"))) << "it ended on request";

    write("cameras: [test:ball]\nmodule: []\n");
    reload(server);
    EXPECT_TRUE(server.waitFor("the file is not applied")) << server.readErr();
    EXPECT_EQ(processOf("Same"), process);
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrRobot, AnotherSourceReachesRunningModulesAndLeavesOtherCamerasAlone) {
    const std::string modules =
        "modules: [" KR_MOTION_LIBRARY ", {library: " KR_MOTION_LIBRARY
        ", name: Other, parameters: {camera: 1}}]\n"
        "subscriptions: [{module: KRMotion, period: 50}, {module: Other, period: 50}]\n";
    RunningProgram server = serveFile("cameras: [test:ball, test:snow]\n" + modules);
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_TRUE(server.waitFor("camera 0 (test:ball) is open")) << server.readErr();
    ASSERT_TRUE(server.waitFor("camera 1 (test:snow) is open")) << server.readErr();
    write("cameras: [test:smpte, test:snow]\n" + modules);
    reload(server);
    EXPECT_TRUE(server.waitFor("camera 0 (test:smpte) is open")) << server.readErr();
    EXPECT_THAT(server.readErr(), Not(HasSubstr("camera 1 (test:snow) is closed")));
    write("cameras: [test:smpte]\n" + modules);
    reload(server);
    EXPECT_TRUE(server.waitFor("restarting the camera service")) << server.readErr();
    EXPECT_TRUE(eventually([&] {
        const std::string log = server.readErr();
        return log.find("camera 0 (test:smpte) is open", log.find("restarting the camera service")) !=
               std::string::npos;
    })) << server.readErr();
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrRobot, HasAWebServerIfTheFileHasOne) {
    if (kr({"web", "--help"}).exitCode != 0) {
        GTEST_SKIP() << "this build has no web server";
    }
    RunningProgram server = serveFile("cameras: [test]\nweb: {listen: '127.0.0.1:0', read-only: true}\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_THAT(server.readErr(), HasSubstr("kr: open http://127.0.0.1:"));
    write("cameras: [test]\nweb: nowhere\n");
    reload(server);
    EXPECT_TRUE(server.waitFor("there is no web server: ")) << server.readErr();
    EXPECT_EQ(server.stop().exitCode, 0);
    EXPECT_THAT(krOnDomain({"serve", "--print", "--web", "127.0.0.1:8765", "--web-read-only"}).out,
                HasSubstr("\nweb:\n  listen: 127.0.0.1:8765\n  read-only: true\n"));
}

TEST_F(KrRobot, RecordsIntoAFileNamedAfterTheTime) {
    RunningProgram server =
        serveFile("cameras: [test]\nmemory: {Here: 1}\nrecord: {file: drive-%Y.mcap, memory: [Here]}\n");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_TRUE(server.waitFor("recording")) << server.readErr();
    const Outcome outcome = server.stop();
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, ""); // no state of the recording each second either
    std::string name;
    for (const auto& each : std::filesystem::directory_iterator(std::filesystem::path(file_).parent_path())) {
        name += each.path().extension() == ".mcap" ? each.path().filename().string() : "";
    }
    EXPECT_THAT(name, testing::MatchesRegex("drive-20[0-9][0-9].mcap"));
}

} // namespace
} // namespace KR::test
