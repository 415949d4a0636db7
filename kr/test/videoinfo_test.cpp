// kr video info and kr video doctor

#include "recordings.hpp"
#include "video/timeline.hpp"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <fstream>
#include <limits>

namespace {

using namespace KR::test;
using KR::streamHeader;
using KR::tool::makeTimeline;
using KR::tool::Timeline;
using testing::HasSubstr;

class KrVideoInfo : public Recordings {};
class KrVideoDoctor : public Recordings {
protected:
    std::string problemsOf(const Bytes& file, int expectedCode = 1) const {
        const Outcome outcome = kr({"video", "doctor", write("a.oxv", file)});
        EXPECT_EQ(outcome.exitCode, expectedCode);
        EXPECT_EQ(outcome.err, "");
        return outcome.out;
    }
};

// ---- time stamps

TEST(KrTimeline, FindsGapsAndJumpsByTheUsualInterval) {
    const Timeline timeline = makeTimeline({0, 100, 200, 300, 449, 700, 690, 790, 790});
    EXPECT_EQ(timeline.frames, 9u);
    EXPECT_EQ(timeline.getDuration(), 790);
    EXPECT_EQ(timeline.usualInterval, 100);
    ASSERT_EQ(timeline.gaps.size(), 1u);
    EXPECT_EQ(timeline.gaps[0].frame, 5u);
    EXPECT_EQ(timeline.gaps[0].length, 251);
    EXPECT_EQ(timeline.gaps[0].missingFrames, 2u);
    ASSERT_EQ(timeline.jumps.size(), 1u);
    EXPECT_EQ(timeline.jumps[0].frame, 6u);
    EXPECT_EQ(timeline.jumps[0].length, 10);
    EXPECT_NEAR(timeline.getRate(), 8 / 790e-6, 1e-6);
}

TEST(KrTimeline, HasNoRateForFewOrEqualTimeStamps) {
    for (const std::vector<std::int64_t>& timeStamps :
         {std::vector<std::int64_t>{}, {5}, {-1, -1, -1}, {std::vector<std::int64_t>{7, 6}}}) {
        const Timeline timeline = makeTimeline(timeStamps);
        EXPECT_EQ(timeline.getRate(), 0.0);
        EXPECT_EQ(timeline.getDuration(), 0);
        EXPECT_TRUE(timeline.gaps.empty());
    }
}

TEST(KrTimeline, AcceptsAnyNumbers) {
    constexpr auto kLowest = std::numeric_limits<std::int64_t>::min();
    constexpr auto kHighest = std::numeric_limits<std::int64_t>::max();
    const Timeline timeline = makeTimeline({0, 10, 20, kLowest, kHighest, kLowest, 0});
    EXPECT_EQ(timeline.jumps.size(), 2u);
    EXPECT_EQ(timeline.gaps.size(), 2u);
    EXPECT_EQ(makeTimeline({kLowest, kHighest}).getDuration(), kHighest);
}

// ---- info

TEST_F(KrVideoInfo, ShowsTheStreamsAndTheirTimes) {
    const std::string file = write("a.oxv", make(4, 4));
    const Outcome outcome = kr({"video", "info", file});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, file + "\n"
                                  "  format            oxv, version 1\n"
                                  "  frames            4\n"
                                  "  on disk           76832 bytes, as expected\n"
                                  "  stream 0\n"
                                  "    size            160x120 pixels\n"
                                  "    colour space    luma (0), depth 8\n"
                                  "    begins          2017-07-14 02:40:00.000000 UTC\n"
                                  "    ends            2017-07-14 02:40:00.099999 UTC\n"
                                  "    duration        0.100 s\n"
                                  "    rate            30.00 frames/s, usual interval 33.3 ms\n"
                                  "    gaps            0\n"
                                  "    backward jumps  0\n");
}

TEST_F(KrVideoInfo, ShowsGapsJumpsAndMissingBytes) {
    Bytes file = make(20, 25, 2);
    file.resize(file.size() - 100);
    for (unsigned frame = 10; frame < 20; ++frame) { // stream 1, a second later
        put(file, 48 + (2 * frame + 1) * kChunk, timeStampOf(frame, 1) + 1000000);
    }
    put(file, 48 + 2 * 5 * kChunk, timeStampOf(3, 0)); // stream 0, back and forth
    const Outcome outcome = kr({"video", "info", write("a.oxv", file)});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, HasSubstr("  frames            19; the header says 25\n"));
    EXPECT_THAT(outcome.out, HasSubstr("767948 bytes, expected 960048\n"));
    EXPECT_THAT(outcome.out,
                HasSubstr("    gaps            1\n      before frame 6: 100.0 ms, 2 frames missing\n"
                          "    backward jumps  1\n      at frame 5: by 33.3 ms\n"));
    EXPECT_THAT(outcome.out,
                HasSubstr("    gaps            1\n      before frame 10: 1033.3 ms, 30 frames missing\n"
                          "    backward jumps  0\n"));
}

TEST_F(KrVideoInfo, ShowsTheSameAsJson) {
    const Outcome outcome = kr({"video", "info", "--json", write("a.oxv", make(4, kNeverClosed, 2))});
    EXPECT_EQ(outcome.exitCode, 0);
    const auto json = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(json["frames"], 4);
    EXPECT_EQ(json["closed"], false);
    EXPECT_TRUE(json["announced_frames"].is_null());
    EXPECT_EQ(json["file_bytes"], json["expected_bytes"]);
    ASSERT_EQ(json["streams"].size(), 2u);
    EXPECT_EQ(json["streams"][1]["width"], 160);
    EXPECT_EQ(json["streams"][1]["chunk_bytes"], kChunk);
    EXPECT_EQ(json["streams"][1]["first_time_usec"], timeStampOf(0, 1));
    EXPECT_EQ(json["streams"][1]["duration_usec"], 3 * 33333);
    EXPECT_EQ(json["streams"][1]["gaps"].size(), 0u);
}

TEST_F(KrVideoInfo, FailsForAFileThatIsNotARecording) {
    writeAll(path("other"), Bytes(100, 'x'));
    writeAll(path("short"), {'1', 'V', 'X', 'O', 0});
    write("bad", makeOxvHeader(kOxvVersion1, 0, 1, 1, {{0, 0, 0, 8}}));
    write("streams", makeOxvHeader(kOxvVersion1, 0, 1, 0xFFFFFFFF, {{160, 120, 0, 8}}));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"missing", ": cannot be read: No such file or directory"},
        {"", ": cannot be read: Is a directory"},
        {"other", ": not an oxv file"},
        {"short", ": ends within its headers, after 5 bytes"},
        {"streams", ": ends within its headers, after 32 bytes"},
        {"bad", ": stream 0 has an impossible geometry: 0x0 pixels of 8 bits in colour space 0"},
    };
    for (const auto& [name, text] : cases) {
        const Outcome outcome = kr({"video", "info", path(name)});
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "kr: " + path(name) + text + "\n");
    }
}

// ---- doctor

TEST_F(KrVideoDoctor, FindsNothingWrongWithAGoodRecording) {
    EXPECT_EQ(problemsOf(make(3, 3), 0), "");
    EXPECT_EQ(problemsOf(make(0, 0), 0), "");
    EXPECT_EQ(problemsOf(make(3, 3, 2), 0), "");
    EXPECT_EQ(problemsOf(make(3, 3, 1, 0, 0, kOxvVersion0), 0), "");
    EXPECT_EQ(problemsOf(make(3, 3, 1, 1000, 1000), 0), "");
}

TEST_F(KrVideoDoctor, FindsAMissingOrWrongCount) {
    EXPECT_EQ(
        problemsOf(make(3, kNeverClosed)),
        "byte 8: the recording was never closed: the header does not say how many frames there are (3)\n");
    EXPECT_EQ(problemsOf(make(1, 4)), "byte 8: the header says 4 frames, but there is 1\n");
    EXPECT_EQ(problemsOf(make(4, 1)), "byte 8: the header says 1 frame, but there are 4\n");
    EXPECT_EQ(problemsOf(make(3, 6, 2)),
              "byte 8: the header says 6 frames, but there are 3: the recorder counts "
              "chunks, and a frame has one of each of the 2 streams\n");
}

TEST_F(KrVideoDoctor, FindsATruncatedFrame) {
    Bytes file = make(3, 2);
    file.resize(file.size() - 200);
    EXPECT_EQ(problemsOf(file),
              "byte 38432, frame 2, stream 0: the frame is cut: the file has 19000 of its 19200 "
              "bytes\n");
}

TEST_F(KrVideoDoctor, FindsErrorsInTheHeaders) {
    EXPECT_EQ(problemsOf({1, 2, 3}), "byte 0: the file does not begin as an oxv or mcap file does\n");
    EXPECT_EQ(problemsOf({'1', 'V', 'X', 'O'}),
              "byte 4: the file ends within its headers, which need 32 bytes\n");
    EXPECT_EQ(problemsOf(
                  makeOxvHeader(kOxvVersion1, 0, 0, 1025, std::vector<streamHeader>(1025, {160, 120, 0, 8}))),
              "byte 12: 1025 streams; files have up to 1024\n");
    EXPECT_EQ(problemsOf(makeOxvHeader(kOxvVersion1, 0, 0, 0, {{160, 120, 0, 8}})),
              "byte 12: no streams; readers assume one\n");
    EXPECT_EQ(problemsOf(
                  makeOxvHeader(kOxvVersion1, 0, 0, 4,
                                {{1280, 960, 9, 8}, {160, 120, 0, 8}, {160, 120, 18, 8}, {160, 120, 0, 16}})),
              "byte 16, stream 0: 1280x960 pixels: readers open 160x120, 320x240 and 640x480 only\n"
              "byte 48, stream 2: colour space BGRx (18): readers open 0 to 16 only\n"
              "byte 64, stream 3: a depth of 16 bits: images have 8\n");
    EXPECT_EQ(problemsOf(make(3, 3, 1, 1000)),
              "byte 4: an extra header of 1000 bytes is announced but missing: "
              "readers look for the first frame that far behind it\n");
}

TEST_F(KrVideoDoctor, FindsErrorsInTheChunks) {
    Bytes file = make(6, 6);
    put(file, 32 + 2 * kChunk, timeStampOf(0, 0)); // back, and forth again
    file[32 + 4 * kChunk + 8] = 7;                 // another camera, and back again
    EXPECT_EQ(
        problemsOf(file),
        "byte 38432, frame 2, stream 0: the time stamp 1500000000000000 us is before that of the previous "
        "frame, 1500000000033333 us\n"
        "byte 76832, frame 4, stream 0: the camera is 7, and 0 in the previous frame\n"
        "byte 96032, frame 5, stream 0: the camera is 0, and 7 in the previous frame\n");
    file = make(6, 6);
    file.erase(file.begin() + 32 + 3 * kChunk + 1000, file.begin() + 32 + 3 * kChunk + 1100);
    EXPECT_THAT(problemsOf(file),
                HasSubstr("byte 76832, frame 4, stream 0: invalid angles in this frame and 0 later ones: "
                          "bytes may be missing from the file\n"));
}

TEST_F(KrVideoDoctor, NamesATimeStampThatJumpsForward) {
    constexpr std::int64_t kHour = 3600LL * 1000000;
    constexpr std::int64_t kMinute = 60 * 1000000;
    const auto problemsOfStamp = [&](std::int64_t wrong) { // in the third frame
        Bytes file = make(5, 5);
        put(file, 32 + 2 * kChunk, wrong);
        return problemsOf(file);
    };
    const auto named = [](std::int64_t wrong) {
        return "byte 38432, frame 2, stream 0: the time stamp " + std::to_string(wrong) +
               " us jumps forward: the previous frame has 1500000000033333 us\n";
    };
    for (const std::int64_t ahead : {kMinute, kHour}) {
        const std::int64_t wrong = timeStampOf(2, 0) + ahead;
        EXPECT_THAT(problemsOfStamp(wrong),
                    testing::AllOf(HasSubstr(named(wrong)), HasSubstr("byte 57632, frame 3, stream 0: ")));
    }
    EXPECT_THAT(problemsOfStamp(INT64_MAX), HasSubstr(named(INT64_MAX)));

    Bytes late = make(3, 3); // the clock was set once
    put(late, 32 + 2 * kChunk, timeStampOf(2, 0) + kHour);
    EXPECT_EQ(problemsOf(late), named(timeStampOf(2, 0) + kHour));
    put(late, 32 + 2 * kChunk, timeStampOf(2, 0) + kMinute); // a pause
    EXPECT_EQ(problemsOf(late, 0), "");
}

TEST_F(KrVideoDoctor, FindsFramesThatReadersCannotReach) {
    // A file with holes, of which the disk holds only a few blocks.
    constexpr std::uint64_t kFrame = 640 * 480 * 3;
    constexpr std::uint64_t kFrames = 4700;
    const std::string file = write("a.oxv", makeOxvHeader(kOxvVersion1, 0, kFrames, 1, {{640, 480, 13, 8}}));
    std::filesystem::resize_file(file, 32 + kFrames * kFrame);
    const Outcome outcome = kr({"video", "doctor", file});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.out,
              "byte 4295577632, frame 4661, stream 0: 39 frames from here on lie beyond 4 GiB, where "
              "readers do not find them; kr video convert does\n");
}

TEST_F(KrVideoDoctor, ListsTheSameAsJson) {
    Bytes file = make(3, kNeverClosed);
    file.resize(file.size() - 1);
    const Outcome outcome = kr({"video", "doctor", "--json", write("a.oxv", file)});
    EXPECT_EQ(outcome.exitCode, 1);
    const auto json = nlohmann::json::parse(outcome.out);
    ASSERT_EQ(json.size(), 2u);
    EXPECT_EQ(json[0]["byte"], 8);
    EXPECT_TRUE(json[0]["frame"].is_null());
    EXPECT_EQ(json[1]["frame"], 2);
    EXPECT_THAT(json[1]["problem"].get<std::string>(), HasSubstr("the frame is cut"));
}

} // namespace
