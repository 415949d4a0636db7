// kr serve and kr run

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

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
    EXPECT_TRUE(eventually([&] { // on a busy machine there may be no frame between two polls
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

    // Both shut down while images are being fetched.
    const Outcome ended = motion.stop();
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("did not shut down")));
    EXPECT_EQ(server.stop(SIGINT).exitCode, 0);
}

TEST_F(KrSystem, ShowsTheWholeErrorAndReportsARefusingSetter) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome stranger = krOnDomain({"call", "KRMotion", "unsubscribe", "nobody"});
    EXPECT_EQ(stranger.exitCode, 1);
    EXPECT_EQ(stranger.err,
              "kr: KRMotion.unsubscribe: received unsubscribe from non-subscribed module: nobody\n");

    const std::vector<std::string> set{"call", "KRMotion", "setResolution", "99"};
    const Outcome refused = krOnDomain(set);
    EXPECT_EQ(refused.exitCode, 0);
    EXPECT_EQ(refused.out, "0\n");
    EXPECT_THAT(refused.err, StartsWith("kr: KRMotion.setResolution: refused"));
    EXPECT_EQ(krOnDomain({"call", "--check", "KRMotion", "setResolution", "99"}).exitCode, 1);
    const Outcome accepted = krOnDomain({"call", "--check", "KRMotion", "setResolution", "1"});
    EXPECT_EQ(accepted.exitCode, 0);
    EXPECT_EQ(accepted.err, "");
    const Outcome getter = krOnDomain({"call", "--check", "KRMotion", "isPaused"});
    EXPECT_EQ(getter.exitCode, 0) << "not a setter";
    EXPECT_EQ(getter.err, "");
}

TEST_F(KrSystem, ShowsInternalMethodsOnlyOnRequest) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_THAT(krOnDomain({"module", "info", "KRMotion"}).out, Not(HasSubstr("_run")));
    EXPECT_THAT(krOnDomain({"module", "info", "KRMotion", "--all"}).out, HasSubstr("_run("));
    const std::string methods =
        kr({"complete", "--", "call", "--broker", domain_.getUrl(), "KRMotion", ""}).out;
    EXPECT_THAT(methods, Not(HasSubstr("_run")));
    EXPECT_EQ(methods.find("subscribe\n", methods.find("subscribe\n") + 1), methods.find("unsubscribe\n") + 2)
        << "overloads share one name";
}

TEST_F(KrSystem, SetsTheLogLevelsOfARunningModule) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY, "--log-level", "warning,KRImage=error"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_THAT(server.readErr(), Not(HasSubstr("] info ")));
    EXPECT_THAT(krOnDomain({"log", "--module", "KRMotion"}).out, HasSubstr("warning,KRImage=error\n"));
    const Outcome set = krOnDomain({"log", "debug", "core.extractor", "--module", "KRMotion", "--json"});
    EXPECT_EQ(set.exitCode, 0) << set.err;
    EXPECT_EQ(json::parse(set.out), json({{"KRMotion", "warning,KRImage=error,core.extractor=verbose"}}));
    EXPECT_EQ(krOnDomain({"call", "KRMotion", "subscribe", "a", "50", "1.0"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"call", "KRMotion", "subscribe", "b", "50", "1.0"}).exitCode, 0);
    EXPECT_TRUE(server.waitFor("verbose core.extractor: KRMotion received subscribe from b"));
    const Outcome wrong = krOnDomain({"log", "loud", "--module", "KRMotion"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_THAT(wrong.err, HasSubstr("KRMotion.setLogLevels: \"loud\" is not a level of the log"));
}

TEST_F(KrSystem, LogsAtTheLevelsOfTheEnvironment) {
    ASSERT_EQ(::setenv("KR_LOG", "warning,krdds=verbose", 1), 0);
    RunningProgram server = serve();
    ::unsetenv("KR_LOG");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_THAT(krOnDomain({"log", "--module", "KRMemory"}).out, HasSubstr(" warning,krdds=verbose\n"));
    ASSERT_EQ(::setenv("KR_LOG", "loud", 1), 0);
    const Outcome wrong = kr({"completion", "bash"});
    const Outcome used = krOnDomain({"module", "list"});
    ::unsetenv("KR_LOG");
    EXPECT_EQ(wrong.exitCode, 0);
    EXPECT_THAT(used.err, HasSubstr("KR_LOG has no effect: \"loud\" is not a level of the log"));
}

TEST_F(KrSystem, ShutsDownWhileAModuleWaitsForASilentCamera) {
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
    EXPECT_THAT(ended.err, Not(HasSubstr("did not shut down")));
}

TEST_F(KrSystem, KeepsServingWhenNobodyReadsItsLog) {
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

TEST_F(KrSystem, HostsModulesWithTheServicesUnderGivenNames) {
    RunningProgram server = serve(
        {"--camera", "0=test:ball", "--run", "Left=" KR_MOTION_LIBRARY, "--run", "Right=" KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"module", "list"}).out, "KRMemory\nKRVideoDevice\nLeft\nRight\n");
    EXPECT_EQ(krOnDomain({"call", "Left", "subscribe", "somebody", "50", "1.0"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"call", "Right", "subscribe", "somebody", "50", "1.0"}).exitCode, 0);
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrSystem, ReportsWhyALibraryCannotBeHosted) {
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

TEST_F(KrSystem, ReportsTheExceptionOfAModulesConstructor) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome made = krOnDomain({"run", KR_THROWING_MODULE});
    EXPECT_EQ(made.exitCode, 1);
    EXPECT_THAT(made.err, HasSubstr("no module ThrowingModule of " KR_THROWING_MODULE ": thrown when made"));
}

TEST_F(KrSystem, ReportsWhyAModuleCannotBeCreated) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const Outcome outcome = krOnDomain({"run", KR_MOTION_LIBRARY}); // the name is taken, in another process
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("KRMotion"), HasSubstr(KR_MOTION_LIBRARY)));
    const Outcome second = krOnDomain({"serve"});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_THAT(second.err, HasSubstr("KRVideoDevice"));
    const Outcome memory = kr({"serve", "--broker", domain_.getUrl("memory=here")});
    EXPECT_EQ(memory.exitCode, 1);
    EXPECT_THAT(memory.err, HasSubstr("KRMemory"));
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

TEST_F(KrSystem, NamesAndAbandonsAModuleThatDoesNotShutDown) {
    RunningProgram stuck(onDomain({"run", KR_STUCK_MODULE}), "module Stuck runs");
    ASSERT_TRUE(stuck.isUp()) << stuck.readErr();
    const Outcome outcome = stuck.stop(SIGINT);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("did not shut down in time: Stuck\n"));
}

TEST_F(KrSystem, EndsWithCode1WhenItsModuleFails) {
    RunningProgram host(onDomain({"run", KR_FAILING_MODULE}), "module Failing runs");
    ASSERT_TRUE(host.isUp()) << host.readErr();
    EXPECT_EQ(krOnDomain({"call", "Failing", "fail", "the lens is dirty"}).exitCode, 0);
    const Outcome outcome = host.wait();
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("module Failing has failed: the lens is dirty\n"));
}

TEST_F(KrSystem, EndsWithCode1WhenItsModuleExitsByItself) {
    RunningProgram host(onDomain({"run", KR_FAILING_MODULE}), "module Failing runs");
    ASSERT_TRUE(host.isUp()) << host.readErr();
    krOnDomain({"call", "Failing", "leave"});
    const Outcome outcome = host.wait();
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("module Failing has exited by itself\n"));
}

TEST_F(KrSystem, ShowsAFailedModuleAndKeepsServingTheOthers) {
    RunningProgram server = serve({"--run", KR_FAILING_MODULE, "--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"call", "Failing", "fail", "the lens\x1b[2J is dirty"}).exitCode, 0);
    EXPECT_TRUE(server.waitFor("module Failing has failed: the lens\\x1B[2J is dirty\n"));

    const Outcome top = krOnDomain({"extractor", "top", "--count", "1", "--interval", "0.05"});
    EXPECT_THAT(top.out, AllOf(HasSubstr("failed"), HasSubstr("  failed: the lens\\x1B[2J is dirty\n")));
    const json extractors =
        json::parse(krOnDomain({"extractor", "top", "--count", "1", "--interval", "0.05", "--json"}).out);
    ASSERT_EQ(extractors.size(), 2U);
    EXPECT_EQ(extractors[0]["failure"], "the lens\x1b[2J is dirty");
    EXPECT_EQ(extractors[1]["failure"], nullptr);

    const Outcome doctor = krOnDomain({"doctor"});
    EXPECT_EQ(doctor.exitCode, 1);
    EXPECT_THAT(doctor.out,
                HasSubstr("BAD  modules          Failing has failed: the lens\\x1B[2J is dirty\n"));
    EXPECT_EQ(krOnDomain({"call", "KRMotion", "getCurrentPeriod"}).exitCode, 0);
    EXPECT_EQ(server.stop().exitCode, 1);
}

TEST_F(KrSystem, OpensTheMemoryAfterTheCameraService) {
    const auto broker = domain_.createBroker();
    for (int i = 0; i < 5; ++i) {
        std::vector<std::string> modules;
        const auto isThere = [&](const char* module) {
            return std::find(modules.begin(), modules.end(), module) != modules.end();
        };
        RunningProgram server(onDomain({"serve"}), "");
        ASSERT_TRUE(eventually([&] {
            modules = broker->getModuleList();
            return isThere("KRMemory");
        }));
        EXPECT_TRUE(isThere("KRVideoDevice")) << "a module that waits for the memory would find no camera";
        EXPECT_EQ(server.stop().exitCode, 0);
        ASSERT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
    }
}

} // namespace
} // namespace KR::test
