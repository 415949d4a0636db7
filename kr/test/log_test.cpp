// kr log watch, and the forms of the log

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class KrLog : public KrSystem {};

TEST_F(KrLog, EveryLineOfAProgramHasTheRequestedForm) {
    RunningProgram server(onDomain({"serve", "--log-format", "json"}), "serving on");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram journal(onDomain({"run", KR_MOTION_LIBRARY, "--log-format", "journal"}), "KRMotion runs");
    ASSERT_TRUE(journal.isUp()) << journal.readErr();
    EXPECT_THAT(journal.readErr(), AllOf(StartsWith("<6>krdds: broker kr is on"),
                                         HasSubstr("\n<6>kr: module KRMotion runs; Ctrl-C ends it\n")));
    journal.stop();
    std::istringstream lines(server.stop().err);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const json record = json::parse(line);
        EXPECT_THAT(record["time"].get<std::string>(), testing::MatchesRegex("20.*T.*Z")) << line;
        EXPECT_EQ(record["level"], "info") << line;
    }
    EXPECT_GE(count, 2);
    const Outcome refused = kr({"log", "watch", "--log-format", "journal", "--broker", "tcp:"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.err, StartsWith("<3>kr: "));
    EXPECT_EQ(kr({"log", "watch", "--log-format", "xml"}).exitCode, 2);
}

TEST_F(KrLog, TheEnvironmentAndTheFileOfASystemChooseTheForm) {
    ASSERT_EQ(::setenv("KR_LOG_FORMAT", "journal", 1), 0);
    RunningProgram server = serve();
    ::unsetenv("KR_LOG_FORMAT");
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_THAT(server.stop().err, AllOf(StartsWith("<6>krdds: "), HasSubstr("\n<6>kr: serving on")));

    const TemporaryFolder folder;
    std::ofstream(folder.path("robot.yaml"))
        << "broker: " << domain_.getUrl()
        << "\nlog: {level: 'warning,kr.serve=info', format: journal}\n"
           "modules: [{library: " KR_CRASHING_MODULE ", name: Beside, process: own}]\n";
    RunningProgram file({"serve", folder.path("robot.yaml")}, "<6>kr: serving on");
    ASSERT_TRUE(file.isUp()) << file.readErr();
    EXPECT_TRUE(file.waitFor("<6>kr: module Beside runs")) << "its child process logs in the same form";
    EXPECT_THAT(file.readErr(), Not(HasSubstr("krdds: broker"))) << "the level";
    EXPECT_THAT(krOnDomain({"log", "--module", "Beside"}).out, HasSubstr("warning,kr.serve=info"));
    RunningProgram verbose({"serve", folder.path("robot.yaml"), "--log-format", "text", "--log-level",
                            "error", "--broker", domain_.getUrl()},
                           "KRMemory");
    EXPECT_THAT(verbose.wait().err, StartsWith("kr: "))
        << "the command line takes precedence; the domain has a memory";
}

TEST_F(KrLog, WatchPrintsTheLogsOfAllProcesses) {
    RunningProgram server = serve({"--run", "Here=" KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram other(onDomain({"run", KR_MOTION_LIBRARY, "--name", "There"}), "There runs");
    ASSERT_TRUE(other.isUp()) << other.readErr();
    RunningProgram watch(onDomain({"log", "watch"}), "watching");
    RunningProgram filtered(onDomain({"log", "watch", "--module", "There", "--level", "warning"}),
                            "watching");
    ASSERT_TRUE(watch.isUp() && filtered.isUp());
    const auto logs = [&](const RunningProgram& program, const std::string& sign) {
        return eventually([&] { // lines from before the first poll are not shown
            krOnDomain({"log", "info", "--module", "Here"});
            krOnDomain({"log", "info", "--module", "There"});
            return program.readOut().find(sign) != std::string::npos;
        });
    };
    EXPECT_TRUE(logs(watch, "process " + std::to_string(server.getPid()) + " (kr) on ")) << watch.readErr();
    EXPECT_TRUE(logs(watch, "  info krplatform.module: There was asked to log info")) << watch.readOut();
    EXPECT_THAT(watch.readOut(), HasSubstr("process " + std::to_string(other.getPid())));
    EXPECT_THAT(watch.readOut(), Not(HasSubstr("is on DDS domain"))) << "logged before";
    EXPECT_EQ(filtered.readOut(), "");

    const Outcome kept =
        krOnDomain({"log", "watch", "--kept", "--json", "--count", "1", "--module", "There"});
    EXPECT_EQ(kept.exitCode, 0) << kept.err;
    const json record = json::parse(kept.out);
    EXPECT_THAT(record["message"].get<std::string>(), HasSubstr("is on DDS domain"));
    EXPECT_EQ(record["level"], "info");
    EXPECT_EQ(record["category"], "krdds");
    EXPECT_THAT(record["process"].get<std::string>(),
                StartsWith("process " + std::to_string(other.getPid())));

    RunningProgram late(onDomain({"run", KR_MOTION_LIBRARY, "--name", "Late"}), "Late runs");
    EXPECT_TRUE(watch.waitFor("process " + std::to_string(late.getPid()))) << "a process started later";
    EXPECT_EQ(watch.stop(SIGINT).exitCode, 0);
}

TEST_F(KrLog, AFrozenProcessDoesNotDelayTheOthers) {
    RunningProgram server = serve();
    RunningProgram frozen(onDomain({"run", KR_MOTION_LIBRARY, "--name", "Frozen"}), "Frozen runs");
    ASSERT_TRUE(server.isUp() && frozen.isUp());
    RunningProgram watch(onDomain({"log", "watch"}), "watching");
    EXPECT_TRUE(eventually([&] {
        krOnDomain({"log", "info", "--module", "Frozen"});
        return watch.readOut().find("Frozen was asked") != std::string::npos;
    }));
    ::kill(frozen.getPid(), SIGSTOP);
    EXPECT_TRUE(eventually([&] {
        krOnDomain({"log", "info", "--module", "KRMemory"});
        return watch.readOut().find("KRMemory was asked") != std::string::npos;
    }));
    EXPECT_EQ(watch.stop(SIGINT).exitCode, 0);
    ::kill(frozen.getPid(), SIGCONT);
}

TEST_F(KrLog, CompletesLevelsAndWatch) {
    const std::string words = kr({"complete", "--", "log", ""}).out;
    EXPECT_THAT(words, AllOf(HasSubstr("watch\n"), HasSubstr("verbose\n")));
    EXPECT_THAT(kr({"complete", "--", "log", "watch", "--l"}).out, HasSubstr("--level\n"));
    EXPECT_THAT(kr({"complete", "--", "log", "info", ""}).out, Not(HasSubstr("watch")));
}

} // namespace
} // namespace KR::test
