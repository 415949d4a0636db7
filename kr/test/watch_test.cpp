// Verbs that run until interrupted, on a running system.

#include "krsystem.hpp"

#include <krplatform/krmemoryproxy.hpp>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST_F(KrSystem, WatchesTheMemoryAsItChanges) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "0"}).exitCode, 0);
    RunningProgram watch(onDomain({"memory", "watch", "Door/", "--interval", "0.01"}), "Door/Open 0\n");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Window", "1"}).exitCode, 0);
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "1"}).exitCode, 0);
    EXPECT_TRUE(watch.waitFor("Door/Open 1\n"));
    const Outcome outcome = watch.stop(SIGINT);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, MatchesRegex(" *[0-9.]+ m?s  Door/Open 0\n *[0-9.]+ m?s  Door/Open 1\n"));
}

TEST_F(KrSystem, ShowsTheSizeOfALargeWatchedValueNotItsBytes) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Image/Small", "1"}).exitCode, 0);
    RunningProgram watch(onDomain({"memory", "watch", "Image", "--interval", "0.01"}), "Image/Small 1\n");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Image/Large", "\"" + std::string(70000, 'x') + "\""}).exitCode,
              0);
    EXPECT_TRUE(watch.waitFor("Image/Large {\"bytes\":70"));
    const Outcome outcome = watch.stop(SIGINT);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_LT(outcome.out.size(), 1000U);
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
    EXPECT_THAT(outcome.out,
                testing::MatchesRegex(".* UTC  Door/Opened \\[\"front\",0.5\\]\n.* UTC  Door/Opened null\n"));
}

TEST_F(KrSystem, KeepsWatchingWhenTheMemoryIsRestarted) {
    auto server = std::make_unique<RunningProgram>(onDomain({"serve"}), "serving on");
    ASSERT_TRUE(server->isUp()) << server->readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "0"}).exitCode, 0);
    RunningProgram values(onDomain({"memory", "watch", "--interval", "0.01"}), "Door/Open 0\n");
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
    EXPECT_THAT(events.wait().out, HasSubstr(" UTC  Door/Opened 5\n"));
}

// Parses one JSON value per line.
std::vector<json> parseLines(const std::string& text) {
    std::vector<json> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(json::parse(line));
    }
    return lines;
}

TEST_F(KrSystem, WatchesAsLinesOfJsonUntilItsTimeIsUp) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "0"}).exitCode, 0);
    RunningProgram events(onDomain({"event", "watch", "Door/Opened", "--json", "--count", "1"}), "watching");
    ASSERT_TRUE(events.isUp()) << events.readErr();
    ASSERT_EQ(krOnDomain({"event", "raise", "Door/Opened", "7"}).exitCode, 0);

    const auto values = parseLines(krOnDomain({"memory", "watch", "--json", "--count", "1"}).out);
    ASSERT_EQ(values.size(), 1U);
    EXPECT_EQ(values[0]["key"], "Door/Open");
    EXPECT_EQ(values[0]["value"], 0);
    const auto raised = parseLines(events.wait().out);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised[0]["event"], "Door/Opened");
    EXPECT_EQ(raised[0]["value"], 7);
    EXPECT_GT(raised[0]["time_usec"], 1'000'000'000'000'000);
    const auto images = parseLines(krOnDomain({"camera", "watch", "0", "--json", "--count", "2"}).out);
    ASSERT_EQ(images.size(), 2U);
    EXPECT_EQ(images[0]["interval_usec"], nullptr);
    EXPECT_EQ(images[1]["interval_usec"],
              images[1]["time_usec"].get<std::int64_t>() - images[0]["time_usec"].get<std::int64_t>());
    RunningProgram watch(onDomain({"camera", "watch", "0"}), " missed");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    const auto tables = parseLines(krOnDomain({"camera", "top", "--json", "--count", "1"}).out);
    ASSERT_EQ(tables.size(), 1U);
    ASSERT_EQ(tables[0]["subscriptions"].size(), 1U);
    EXPECT_GT(tables[0]["subscriptions"][0]["interval"]["median_usec"], 1000);

    for (const std::vector<std::string>& verb :
         std::vector<std::vector<std::string>>{{"event", "watch", "Door/Opened"},
                                               {"memory", "watch"},
                                               {"camera", "watch", "0"},
                                               {"camera", "top"},
                                               {"extractor", "top"}}) {
        std::vector<std::string> arguments = verb;
        arguments.insert(arguments.end(), {"--seconds", "0.1"});
        EXPECT_EQ(krOnDomain(arguments).exitCode, 0) << verb[0] << " " << verb[1];
    }
}

/// A pipe that is read late or never.
class Pipe {
public:
    Pipe() {
        if (::pipe2(ends_.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    ~Pipe() {
        ::close(ends_[0]);
        closeWriter();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int getWriter() const { return ends_[1]; }
    /// Fills it until another byte would block the writer.
    void fill() const {
        ::fcntl(ends_[1], F_SETFL, O_NONBLOCK);
        for (const std::string& size : {std::string(4096, '.'), std::string(1, '.')}) {
            while (::write(ends_[1], size.data(), size.size()) > 0) {
            }
        }
        ::fcntl(ends_[1], F_SETFL, 0);
    }
    std::string readToEnd() {
        closeWriter();
        std::string text;
        std::array<char, 65536> part;
        for (ssize_t size = 0; (size = ::read(ends_[0], part.data(), part.size())) > 0;) {
            text.append(part.data(), static_cast<std::size_t>(size));
        }
        return text;
    }

private:
    void closeWriter() {
        if (ends_[1] >= 0) {
            ::close(ends_[1]);
        }
        ends_[1] = -1;
    }
    std::array<int, 2> ends_{};
};

// Whether the program handles SIGTERM itself.
bool blocksTermination(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:")) {
            return (std::stoull(line.substr(7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
        }
    }
    return false;
}

TEST_F(KrSystem, AnUnreadWatchEndsWhenInterrupted) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "Door/Open", "1"}).exitCode, 0);
    for (const std::vector<std::string>& verb :
         std::vector<std::vector<std::string>>{{"memory", "watch"},
                                               {"event", "watch", "Door/Opened"},
                                               {"camera", "watch", "0"},
                                               {"camera", "top"},
                                               {"extractor", "top", "--interval", "0.05"}}) {
        for (const int signal : {SIGTERM, SIGINT}) {
            const Pipe pipe;
            pipe.fill();
            RunningProgram program(onDomain(verb), "", pipe.getWriter());
            ASSERT_TRUE(eventually([&] { return blocksTermination(program.getPid()); }));
            if (verb[0] == "event") {
                ASSERT_TRUE(program.waitFor("watching"));
                ASSERT_EQ(krOnDomain({"event", "raise", "Door/Opened"}).exitCode, 0);
            }
            EXPECT_NE(program.stop(signal).exitCode, -1) << verb[0] << " " << verb[1] << " " << signal;
        }
    }
}

TEST_F(KrSystem, CountsTheEventsThatAStalledReaderMissed) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    Pipe pipe;
    RunningProgram watch(onDomain({"event", "watch", "Flood"}), "watching", pipe.getWriter());
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    const auto broker = domain_.createBroker();
    ASSERT_TRUE(broker->getSession().waitForService("KRMemory", kPatience));
    KRMemoryProxy memory(broker);
    constexpr int kEvents = 300;
    const std::string large(100000, 'x'); // more than the pipe and the queue hold
    for (int i = 0; i < kEvents; ++i) {
        memory.raiseEvent("Flood", large);
    }
    ASSERT_TRUE(eventually([&] { return memory.getEventSubscribers("Flood")[0][2].to<int>() == kEvents; }));

    const Outcome outcome = watch.stop();
    EXPECT_EQ(outcome.exitCode, 3);
    const std::string text = pipe.readToEnd();
    const auto printed = std::count(text.begin(), text.end(), '\n');
    const auto lost = [](auto count) { return HasSubstr("kr: lost " + std::to_string(count) + " events: "); };
    // The memory counts an event before the call that delivers it: the last one may arrive too late.
    EXPECT_THAT(outcome.err, testing::AnyOf(lost(kEvents - printed), lost(kEvents - printed - 1)));
}

TEST_F(KrSystem, WatchesACameraAcrossARestartOfItsService) {
    auto server = std::make_unique<RunningProgram>(onDomain({"serve"}), "serving on");
    ASSERT_TRUE(server->isUp()) << server->readErr();
    RunningProgram watch(onDomain({"camera", "watch", "0"}), " missed\n");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    EXPECT_EQ(server->stop().exitCode, 0);
    EXPECT_TRUE(watch.waitFor("; continuing without it\n"));
    server = std::make_unique<RunningProgram>(onDomain({"serve"}), "serving on");
    ASSERT_TRUE(server->isUp()) << server->readErr();
    const auto countLines = [&] {
        const std::string text = watch.readOut();
        return std::count(text.begin(), text.end(), '\n');
    };
    const auto before = countLines();
    EXPECT_TRUE(eventually([&] { return countLines() > before + 3; }));
    const Outcome outcome = watch.stop();
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, HasSubstr(" images, "));
}

TEST_F(KrSystem, NamesOfModulesCannotControlTheTerminal) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"memory", "set", "a\x1b[2Jb", "1"}).exitCode, 0);
    ASSERT_EQ(krOnDomain({"event", "raise", "e\x1b[2J"}).exitCode, 0);
    EXPECT_THAT(krOnDomain({"memory", "list", "a"}).out, testing::EndsWith("s  a\\x1B[2Jb\n"));
    EXPECT_THAT(krOnDomain({"memory", "list", "a", "--json"}).out, HasSubstr("\"a\\u001b[2Jb\""));
    EXPECT_THAT(krOnDomain({"event", "list"}).out, HasSubstr("e\\x1B[2J\n"));
    RunningProgram watch(onDomain({"memory", "watch", "a"}), "a\\x1B[2Jb 1\n");
    EXPECT_TRUE(watch.isUp()) << watch.readOut();
    const Outcome missing = krOnDomain({"memory", "get", "no\x1b[2J"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_THAT(missing.err, testing::Not(HasSubstr("\x1b")));
}

} // namespace
} // namespace KR::test
