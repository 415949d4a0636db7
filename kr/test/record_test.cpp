// kr record

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include "record/recordqueue.hpp"

#include <krinterop/krmcaptopics.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

/// The number of messages per topic.
std::map<std::string, int> countMessages(const std::string& path) {
    KRMcapReader reader(path);
    std::map<std::string, int> counts;
    for (KRMcapMessage message; reader.next(message);) {
        ++counts[message.channel->topic];
    }
    return counts;
}

class KrRecord : public KrSystem {
protected:
    RunningProgram record(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"record", path("out.mcap")});
        return RunningProgram(onDomain(std::move(arguments)), "recording to");
    }
    std::string path(const std::string& name) const { return folder_.path(name); }
    std::vector<std::string> listFiles() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path(""))) {
            names.push_back(entry.path().filename());
        }
        std::ranges::sort(names);
        return names;
    }

private:
    const TemporaryFolder folder_;
};

TEST_F(KrRecord, RecordsCamerasValuesAndEvents) {
    RunningProgram server = serve({"--camera", "0=test:ball"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"memory", "set", "Before", "1"}).exitCode, 0);
    RunningProgram recorder = record({"--all"});
    ASSERT_TRUE(recorder.waitFor("1 values")) << recorder.readOut() << recorder.readErr(); // the existing one
    EXPECT_EQ(krOnDomain({"memory", "set", "Door", "0.5"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"event", "raise", "Bell", "[1, \"rings\"]"}).exitCode, 0);
    ASSERT_TRUE(recorder.waitFor("2 values  1 events")) << recorder.readOut() << recorder.readErr();
    ASSERT_TRUE(recorder.waitFor("/camera/0/image")) << recorder.readOut();
    const Outcome outcome = recorder.stop(SIGINT);
    EXPECT_THAT(outcome.exitCode, testing::AnyOf(0, 3)) << outcome.err; // a busy machine may miss images
    auto counts = countMessages(path("out.mcap"));
    EXPECT_GT(counts["/camera/0/image"], 0);
    EXPECT_EQ(counts["/camera/0/image"], counts["/camera/0/properties"]);
    EXPECT_EQ(counts["/memory/Before"], 1);
    EXPECT_EQ(counts["/memory/Door"], 1);
    EXPECT_EQ(counts["/event/Bell"], 1);
    EXPECT_TRUE(KRMcapReader(path("out.mcap")).isIndexed());
}

TEST_F(KrRecord, RecordsOnlyTheSelection) {
    RunningProgram server = serve({"--camera", "0=test:ball"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram recorder = record({"--memory", "Door/", "--event", "Bell"});
    ASSERT_TRUE(recorder.isUp()) << recorder.readErr();
    ASSERT_TRUE(eventually([&] { // until it is subscribed
        return krOnDomain({"call", "KRMemory", "getEventSubscribers", "Bell"}).out.find("kr-record") !=
               std::string::npos;
    }));
    EXPECT_EQ(krOnDomain({"memory", "set", "Window", "1"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"memory", "set", "Door/Angle", "1"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"event", "raise", "Horn", "2"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"event", "raise", "Bell", "3"}).exitCode, 0);
    ASSERT_TRUE(recorder.waitFor("1 values  1 events")) << recorder.readOut() << recorder.readErr();
    EXPECT_EQ(recorder.stop().exitCode, 0);
    EXPECT_EQ(countMessages(path("out.mcap")),
              (std::map<std::string, int>{{"/memory/Door/Angle", 1}, {"/event/Bell", 1}}));
}

TEST_F(KrRecord, AKilledRecordingIsRecovered) {
    RunningProgram server = serve({"--camera", "0=test:ball"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram recorder = record({"--camera", "0", "--resolution", "160x120"});
    ASSERT_TRUE(eventually([&] {
        const std::vector<std::string> written = listFiles();
        return written.size() == 1 &&
               std::filesystem::file_size(path(written[0])) > 3'000'000; // several chunks
    })) << recorder.readOut()
        << recorder.readErr();
    (void)recorder.stop(SIGKILL);
    const std::vector<std::string> files = listFiles();
    ASSERT_EQ(files.size(), 1U);
    EXPECT_THAT(files[0], AllOf(HasSubstr("out.partial-"), HasSubstr(".mcap")));
    EXPECT_THAT(kr({"video", "doctor", path(files[0])}).out, HasSubstr("never closed"));
    const Outcome recovered = kr({"video", "recover", path(files[0]), path("good.mcap")});
    EXPECT_THAT(recovered.exitCode, testing::AnyOf(0, 3)) << recovered.err;
    EXPECT_GT(countMessages(path("good.mcap"))["/camera/0/image"], 0);
    EXPECT_EQ(kr({"video", "doctor", path("good.mcap")}).exitCode, 0);
}

TEST_F(KrRecord, SplitsIntoARingOfFiles) {
    RunningProgram server = serve({"--camera", "0=test:ball"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram recorder = record({"--camera", "0", "--split-size", "1", "--max-files", "2"});
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(path("out-000003.mcap")); }))
        << recorder.readOut() << recorder.readErr();
    EXPECT_NE(recorder.stop().exitCode, 1);
    const std::vector<std::string> files = listFiles();
    ASSERT_EQ(files.size(), 2U);
    EXPECT_GE(files[0], "out-000002.mcap");
    for (const std::string& file : files) {
        EXPECT_TRUE(KRMcapReader(path(file)).isIndexed());
        EXPECT_GT(countMessages(path(file))["/camera/0/image"], 0);
    }
}

TEST_F(KrRecord, ContinuesAfterTheServicesWereAway) {
    std::optional<RunningProgram> server;
    server.emplace(onDomain({"serve", "--camera", "0=test:ball"}), "serving on");
    ASSERT_TRUE(server->isUp()) << server->readErr();
    RunningProgram recorder = record({"--camera", "0", "--memory", ""});
    ASSERT_TRUE(recorder.waitFor("/camera/0/image")) << recorder.readOut() << recorder.readErr();
    EXPECT_EQ(krOnDomain({"memory", "set", "First", "1"}).exitCode, 0);
    ASSERT_TRUE(recorder.waitFor("1 values"));
    EXPECT_EQ(server->stop().exitCode, 0);
    ASSERT_TRUE(recorder.waitFor("the memory module is away")) << recorder.readErr();
    server.emplace(onDomain({"serve", "--camera", "0=test:ball"}), "serving on");
    ASSERT_TRUE(recorder.waitFor("the memory module is back")) << recorder.readErr();
    EXPECT_EQ(krOnDomain({"memory", "set", "Second", "1"}).exitCode, 0);
    ASSERT_TRUE(recorder.waitFor("2 values")) << recorder.readOut() << recorder.readErr();
    const Outcome outcome = recorder.stop();
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err, HasSubstr("a service was away"));
    auto counts = countMessages(path("out.mcap"));
    EXPECT_EQ(counts["/memory/First"], 1);
    EXPECT_EQ(counts["/memory/Second"], 1);
}

TEST_F(KrRecord, WaitsForServicesThatStartLater) {
    RunningProgram recorder = record({"--camera", "0"});
    ASSERT_TRUE(recorder.isUp());
    RunningProgram server = serve({"--camera", "0=test:ball"});
    ASSERT_TRUE(recorder.waitFor("/camera/0/image")) << recorder.readOut() << recorder.readErr();
    EXPECT_NE(recorder.stop().exitCode, 1);
}

TEST_F(KrRecord, WrongUsageIsRefused) {
    const auto refuses = [&](std::vector<std::string> options, const std::string& why) {
        const Outcome outcome = kr(onDomain(std::move(options)));
        EXPECT_EQ(outcome.exitCode, 2);
        EXPECT_THAT(outcome.err, HasSubstr(why));
    };
    refuses({"record", path("a.mcap")}, "nothing to record");
    refuses({"record", path("a.oxv"), "--all"}, "ends in .mcap");
    refuses({"record", path("a.mcap"), "--all", "--max-files", "3"}, "--max-files needs");
    refuses({"record", path("a.mcap"), "--camera", "x"}, "whole number");
}

TEST_F(KrRecord, AFullDiskIsReported) {
    std::filesystem::create_symlink("/dev/full", path("full.mcap"));
    const Outcome outcome = krOnDomain({"record", path("full.mcap"), "--all"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("No space left on device"));
}

tool::Recorded makeValue(const std::string& key, std::size_t bytes) {
    return {.kind = tool::Recorded::Kind::Value,
            .name = key,
            .value = KRValue(std::string(bytes, 'x')),
            .time = 0};
}

TEST(RecordQueue, CountsEntriesThatDoNotFit) {
    tool::RecordQueue queue(100'000);
    for (int i = 0; i < 5; ++i) {
        queue.offer(makeValue("a", 30'000));
    }
    queue.offer(makeValue("b", 30'000));
    EXPECT_LE(queue.countWaitingBytes(), 100'000U);
    const auto counts = queue.getCounts();
    EXPECT_EQ(counts.at("/memory/a").came, 3U);
    EXPECT_EQ(counts.at("/memory/a").missed, 2U);
    EXPECT_EQ(counts.at("/memory/b").missed, 1U);
    EXPECT_TRUE(queue.take(std::chrono::steady_clock::now()).has_value());
    queue.offer(makeValue("b", 30'000));
    EXPECT_EQ(queue.getCounts().at("/memory/b").came, 1U);
}

TEST(RecordQueue, AcceptsATooLargeEntryWhenEmpty) {
    tool::RecordQueue queue(100);
    queue.offer(makeValue("a", 30'000));
    queue.offer(makeValue("a", 1));
    EXPECT_EQ(queue.getCounts().at("/memory/a").came, 1U);
    EXPECT_EQ(queue.getCounts().at("/memory/a").missed, 1U);
}

TEST(RecordQueue, CanBeEmptiedAfterItsEnd) {
    tool::RecordQueue queue(100'000);
    queue.offer(makeValue("a", 1));
    queue.close();
    queue.offer(makeValue("a", 1));
    EXPECT_FALSE(queue.isOver());
    EXPECT_TRUE(queue.take(std::chrono::steady_clock::now()).has_value());
    EXPECT_TRUE(queue.isOver());
    EXPECT_FALSE(queue.take(std::chrono::steady_clock::time_point::max()).has_value());
    EXPECT_EQ(queue.countWaitingBytes(), 0U);
}

} // namespace
} // namespace KR::test
