// kr evaluate

#include "recordings.hpp"
#include "servedprogram.hpp"

#include <krinterop/krmcapreader.hpp>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>

namespace {

using namespace KR::test;
using Json = nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;

class KrEvaluate : public Recordings {
protected:
    static constexpr unsigned kFrames = 40;

    /// Runs the probe on a recording.
    Outcome evaluate(const std::string& recording, std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"evaluate", KR_PROBE_MODULE, recording});
        return kr(options);
    }
    std::string makeRecording(unsigned frames = kFrames) const {
        return write("in.oxv", make(frames, frames));
    }
    /// The lines of a .jsonl file.
    std::vector<Json> readResults(const std::string& name) const {
        const Bytes bytes = readAll(path(name));
        std::istringstream file(std::string(bytes.begin(), bytes.end()));
        std::vector<Json> results;
        for (std::string line; std::getline(file, line);) {
            results.push_back(Json::parse(line));
        }
        return results;
    }
    /// The values of one key.
    std::vector<Json> readSeen(const std::string& name) const {
        std::vector<Json> values;
        for (const Json& result : readResults(name)) {
            if (result.value("key", "") == "Probe/Seen") {
                values.push_back(result.at("value"));
            }
        }
        return values;
    }
};

TEST_F(KrEvaluate, GivesEachImageToTheModuleOnceInOrderAtAnyPeriod) {
    // 300 images, one per second, would take five minutes.
    const std::string recording = makeRecording(300);
    const Outcome outcome = evaluate(recording, {"--subscribe", "1000,0.5", "--out", path("out.jsonl")});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("images        300\n"), HasSubstr("images/s"),
                                   HasSubstr("median"), HasSubstr("results       600 values, 30 events\n")));
    const std::vector<Json> results = readResults("out.jsonl");
    ASSERT_EQ(results.size(), 630U);
    std::size_t seen = 0;
    for (const Json& result : results) {
        if (result.value("key", "") == "Probe/Seen") {
            EXPECT_EQ(result["frame"], seen);
            EXPECT_EQ(result["time_stamp_usec"], timeStampOf(static_cast<unsigned>(seen), 0));
            EXPECT_EQ(result["value"][0], seen);
            EXPECT_EQ(result["value"][2], 0) << "the clock differs from the image's time";
            ++seen;
        }
    }
    EXPECT_EQ(seen, 300U);
}

TEST_F(KrEvaluate, TheSameRunGivesTheSameBytes) {
    const std::string recording = makeRecording();
    for (const std::string extension : {"jsonl", "mcap"}) {
        const auto run = [&](const std::string& name) {
            EXPECT_EQ(evaluate(recording, {"--subscribe", "33,0.25", "--out", path(name)}).exitCode, 0);
            return readAll(path(name));
        };
        const Bytes first = run("first." + extension);
        EXPECT_GT(first.size(), kFrames * 50);
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(run("again." + extension), first) << extension;
        }
    }
}

// The first image arrives before the subscription is complete, all others after it.
TEST_F(KrEvaluate, TheSubscriptionIsCompleteBeforeTheSecondImage) {
    ASSERT_EQ(evaluate(makeRecording(3), {"--subscribe", "33,0.25", "--out", path("out.jsonl")}).exitCode, 0);
    const std::vector<Json> seen = readSeen("out.jsonl");
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[0][3], -1.0);
    EXPECT_EQ(seen[1][3], 0.25);
    EXPECT_EQ(seen[2][3], 0.25);
}

TEST_F(KrEvaluate, ARecordingOfOneImageIsEvaluated) {
    const Outcome outcome = evaluate(makeRecording(1), {"--out", path("out.jsonl")});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(readSeen("out.jsonl").size(), 1U);
}

TEST_F(KrEvaluate, AnMcapFileGivesTheSameResultsAsItsRecording) {
    const std::string recording = makeRecording();
    ASSERT_EQ(kr({"video", "convert", recording, path("in.mcap"), "--compression", "lz4"}).exitCode, 0);
    EXPECT_EQ(evaluate(recording, {"--out", path("a.jsonl")}).exitCode, 0);
    const Outcome outcome = evaluate(path("in.mcap"), {"--out", path("b.jsonl")});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(readAll(path("b.jsonl")), readAll(path("a.jsonl")));
}

TEST_F(KrEvaluate, ResultsInAnMcapFileAreOnTheTopicsOfMemoryEventsAndAnnotations) {
    ASSERT_EQ(evaluate(makeRecording(), {"--out", path("out.mcap")}).exitCode, 0);
    KR::KRMcapReader reader(path("out.mcap"));
    std::map<std::string, unsigned> counts;
    for (KR::KRMcapMessage message; reader.next(message);) {
        const unsigned number = counts[message.channel->topic]++;
        if (message.channel->topic == "/memory/Probe/Seen") {
            EXPECT_EQ(Json::parse(message.data.begin(), message.data.end())["frame"], number);
            EXPECT_EQ(message.logTime, KR::toNanoseconds(timeStampOf(number, 0)));
        }
    }
    EXPECT_EQ(counts["/memory/Probe/Seen"], kFrames);
    EXPECT_EQ(counts["/event/Probe/Tenth"], kFrames / 10);
    EXPECT_EQ(counts["/Probe/annotations"], kFrames);
}

TEST_F(KrEvaluate, SettingsApplyBeforeItStarts) {
    const Outcome outcome =
        evaluate(makeRecording(), {"--set", "resolution=1", "--set", "offset=1000.0", "--call", "setWord",
                                   "one", "two", "--call", "setExitAt", "1000", "--out", path("out.jsonl")});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    for (const Json& seen : readSeen("out.jsonl")) {
        EXPECT_GE(seen[1], 1000);
        EXPECT_EQ(seen[4], 320);
        EXPECT_EQ(seen[5], "onetwo");
    }
}

TEST_F(KrEvaluate, WrongSettingsAreRefusedByName) {
    const std::string recording = makeRecording();
    const auto refuses = [&](std::vector<std::string> options, int exitCode, const std::string& why) {
        const Outcome outcome = evaluate(recording, std::move(options));
        EXPECT_EQ(outcome.exitCode, exitCode);
        EXPECT_THAT(outcome.err, HasSubstr(why));
    };
    refuses({"--set", "resolution"}, 2, "expected NAME=VALUE");
    refuses({"--set", "colour=1"}, 1, "setColour");
    refuses({"--set", "throwAt=-5"}, 1, "Probe refuses setThrowAt with -5");
    refuses({"--call", "fly", "3"}, 1, "fly");
    refuses({"--subscribe", "100"}, 2, "expected PERIOD,PRECISION");
    refuses({"--subscribe", "100,x"}, 2, "expected PERIOD,PRECISION");
    refuses({"--out", path("out.txt")}, 2, ".jsonl or .mcap");
    refuses({"--set", "activeCamera=3"}, 1, "refuses setActiveCamera with 3");
}

TEST_F(KrEvaluate, AModuleThatThrowsInFrame17IsReportedAndItsResultsAreKept) {
    const Outcome outcome = evaluate(makeRecording(), {"--set", "throwAt=17", "--out", path("out.jsonl")});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("module Probe has failed"), HasSubstr("thrown on purpose"),
                                   HasSubstr("in frame 17")));
    EXPECT_EQ(readSeen("out.jsonl").size(), 17U);
}

TEST_F(KrEvaluate, AModuleThatThrowsInTheFirstOrTheLastFrameIsReported) {
    for (const std::string frame : {"0", "39"}) {
        const Outcome outcome = evaluate(makeRecording(), {"--set", "throwAt=" + frame});
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_THAT(outcome.err,
                    AllOf(HasSubstr("thrown on purpose"), HasSubstr("in frame " + frame + "\n")));
    }
}

TEST_F(KrEvaluate, AModuleThatExitsIsReported) {
    const Outcome outcome = evaluate(makeRecording(), {"--set", "exitAt=5"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("module Probe has exited by itself in frame "));
}

TEST_F(KrEvaluate, AModuleThatHangsIsAbandonedAfterCtrlC) {
    RunningProgram program({"evaluate", KR_PROBE_MODULE, makeRecording(), "--set", "hangAt=7"}, "hangs");
    ASSERT_TRUE(program.isUp());
    const Outcome outcome = program.stop(SIGINT);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("module Probe does not stop, in frame 7"));
}

TEST_F(KrEvaluate, AModuleThatIsNotAVisionExtractorIsRefused) {
    const Outcome outcome = kr({"evaluate", KR_FAILING_MODULE, makeRecording()});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("subscribing to Failing failed: no such method"));
}

TEST_F(KrEvaluate, EqualResultsAreNoDifference) {
    const std::string recording = makeRecording();
    ASSERT_EQ(evaluate(recording, {"--out", path("expected.jsonl")}).exitCode, 0);
    const Outcome outcome = evaluate(recording, {"--against", path("expected.jsonl")});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, HasSubstr("no difference from " + path("expected.jsonl")));
}

TEST_F(KrEvaluate, TheFirstTenDifferencesAreShownWithBothValues) {
    const std::string recording = makeRecording();
    ASSERT_EQ(evaluate(recording, {"--out", path("expected.jsonl")}).exitCode, 0);
    const Outcome outcome = evaluate(recording, {"--against", path("expected.jsonl"), "--set", "offset=0.5"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(
        outcome.out,
        HasSubstr("frame 0, Probe/Seen: expected [0,184.0,0,-1.0,160,\"\"], got [0,184.5,0,-1.0,160,\"\"]"));
    EXPECT_THAT(outcome.out, HasSubstr("and 30 more\n"));
    EXPECT_THAT(outcome.out, HasSubstr("40 values in 40 frames differ"));
    EXPECT_THAT(outcome.out, testing::Not(HasSubstr("frame 10,")));
    EXPECT_EQ(evaluate(recording,
                       {"--against", path("expected.jsonl"), "--set", "offset=0.5", "--tolerance", "0.5"})
                  .exitCode,
              0);
    EXPECT_EQ(evaluate(recording,
                       {"--against", path("expected.jsonl"), "--set", "offset=0.5", "--tolerance", "0.4"})
                  .exitCode,
              1);
}

TEST_F(KrEvaluate, MissingAndNewResultsAreDifferences) {
    const std::string shorter = write("shorter.oxv", make(38, 38));
    const std::string recording = makeRecording();
    ASSERT_EQ(evaluate(recording, {"--out", path("longer.jsonl")}).exitCode, 0);
    ASSERT_EQ(evaluate(shorter, {"--out", path("shorter.jsonl")}).exitCode, 0);
    const Outcome missing = evaluate(shorter, {"--against", path("longer.jsonl")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_THAT(missing.out, AllOf(HasSubstr("frame 39, event Probe/Tenth: expected 39, got nothing"),
                                   HasSubstr("5 values in 2 frames differ")));
    const Outcome added = evaluate(recording, {"--against", path("shorter.jsonl")});
    EXPECT_EQ(added.exitCode, 1);
    EXPECT_THAT(added.out, AllOf(HasSubstr("frame 39, event Probe/Tenth: expected nothing, got 39"),
                                 HasSubstr("5 values in 2 frames differ")));
}

TEST_F(KrEvaluate, AFileWithoutResultsIsRefused) {
    const std::string recording = makeRecording();
    const auto refuses = [&](const std::string& text, const std::string& why) {
        const std::string expected = write("expected.jsonl", Bytes(text.begin(), text.end()));
        const Outcome outcome = evaluate(recording, {"--against", expected});
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_THAT(outcome.err, HasSubstr(expected + why));
    };
    const std::string good = R"({"frame":5,"time_stamp_usec":0,"key":"k","value":1})";
    refuses("frame 1", ", line 1: not a result of kr evaluate");
    refuses(R"({"frame":5})", ", line 1: not a result of kr evaluate");
    refuses(good + "\n\n[]\n", ", line 3: not a result of kr evaluate");
    refuses(good + "\n" + R"({"frame":4,"key":"k","value":1})", ", line 2: frame 4 comes after frame 5");
    EXPECT_THAT(evaluate(recording, {"--against", path("none.jsonl")}).err, HasSubstr("cannot be read"));
}

TEST_F(KrEvaluate, AFileThatIsNotARecordingIsRefused) {
    EXPECT_THAT(evaluate(path("none.oxv")).err, HasSubstr("none.oxv"));
    const Outcome outcome = evaluate(write("a.oxv", Bytes(1000, 'x')));
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("it is neither an oxv nor an mcap file"));
    EXPECT_THAT(evaluate(write("b.oxv", make(0, 0))).err, HasSubstr("there is no image in it"));
    ASSERT_EQ(evaluate(makeRecording(), {"--out", path("results.mcap")}).exitCode, 0);
    EXPECT_THAT(evaluate(path("results.mcap")).err, HasSubstr("there is no topic with images in it"));
}

TEST_F(KrEvaluate, ATruncatedRecordingIsReadUpToItsLastCompleteFrame) {
    Bytes bytes = make(10, 10);
    bytes.resize(bytes.size() - 5);
    const Outcome outcome = evaluate(write("cut.oxv", bytes), {"--out", path("out.jsonl")});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err, HasSubstr("1 frame is missing or cut at its end"));
    EXPECT_EQ(readSeen("out.jsonl").size(), 9U);
}

TEST_F(KrEvaluate, OfADamagedMcapFileTheIntactChunksAreRead) {
    ASSERT_EQ(kr({"video", "convert", write("in.oxv", make(160, 160)), path("in.mcap")}).exitCode, 0);
    Bytes bytes = readAll(path("in.mcap"));
    bytes[bytes.size() / 2] ^= 1U; // of a pixel
    const Outcome outcome = evaluate(write("bad.mcap", bytes), {"--out", path("out.jsonl")});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err, HasSubstr("CRC"));
    EXPECT_GE(readSeen("out.jsonl").size(), 1U);
    EXPECT_LT(readSeen("out.jsonl").size(), 160U);
}

TEST_F(KrEvaluate, AnMcapFileWithoutAReadableImageIsReported) {
    ASSERT_EQ(kr({"video", "convert", write("in.oxv", make(3, 3)), path("in.mcap")}).exitCode, 0);
    Bytes bytes = readAll(path("in.mcap"));
    bytes[bytes.size() / 2] ^= 1U;
    const Outcome outcome = evaluate(write("bad.mcap", bytes));
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err,
                AllOf(HasSubstr("CRC"), HasSubstr("there is no readable image of /camera/0/image")));
}

TEST_F(KrEvaluate, AFullDiskIsReported) {
    std::filesystem::create_symlink("/dev/full", path("full.jsonl"));
    std::filesystem::create_symlink("/dev/full", path("full.mcap"));
    for (const char* name : {"full.jsonl", "full.mcap"}) {
        const Outcome outcome = evaluate(makeRecording(), {"--out", path(name)});
        EXPECT_EQ(outcome.exitCode, 1) << name;
        EXPECT_THAT(outcome.err, HasSubstr("No space left on device")) << name;
    }
}

TEST_F(KrEvaluate, AnUnrecordedCameraIsNamed) {
    Bytes bytes = make(3, 3, 2);
    for (unsigned frame = 0; frame < 3; ++frame) {
        for (unsigned stream = 0; stream < 2; ++stream) {
            put(bytes, 48 + (2 * frame + stream) * kChunk + 8, static_cast<signed char>(stream + 1));
        }
    }
    const std::string recording = write("in.oxv", bytes);
    const Outcome outcome = evaluate(recording);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("the recording has the cameras 1, 2 only"));
    EXPECT_EQ(evaluate(recording, {"--set", "activeCamera=2"}).exitCode, 0);
}

} // namespace
