// kr video recover

#include "recordings.hpp"

#include <krvision/krvideo.hpp>
#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace {

using namespace KR::test;
using KR::KRImage;
using KR::KRVideo;
using KR::streamHeader;
using testing::HasSubstr;

class KrVideoRecover : public Recordings {
protected:
    /// Recovers a file, and checks that the file stays unchanged.
    Outcome recover(const Bytes& file) const {
        const std::string in = write("in.oxv", file);
        Outcome outcome = kr({"video", "recover", in, path("out.oxv")});
        EXPECT_EQ(readAll(in), file);
        return outcome;
    }
    void expectKept(const Bytes& file, unsigned kept, unsigned lost, unsigned streams = 1) const {
        const Outcome outcome = recover(file);
        EXPECT_EQ(outcome.exitCode, lost > 0 ? 3 : 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_THAT(outcome.out,
                    HasSubstr("kept " + std::to_string(kept) + " frames, lost " + std::to_string(lost)));
        KRVideo video;
        video.readVideo(path("out.oxv"));
        ASSERT_EQ(video.getFrameCount(), kept);
        KRImage image = makeEmptyImage();
        for (unsigned frame = 0; frame < kept; ++frame) {
            for (unsigned stream = 0; stream < streams; ++stream) {
                EXPECT_TRUE(video.getFrame(image, frame, stream, true));
                EXPECT_TRUE(holdsChunk(image, frame, stream, kChunk)) << frame;
            }
        }
        EXPECT_EQ(kr({"video", "doctor", path("out.oxv")}).out, "");
    }
};

TEST_F(KrVideoRecover, ClosesARecordingThatWasNeverClosed) {
    expectKept(make(5, kNeverClosed), 5, 0);
    EXPECT_EQ(readAll(path("out.oxv")), make(5, 5));
    expectKept(make(0, kNeverClosed), 0, 0);
}

TEST_F(KrVideoRecover, KeepsEveryCompleteFrameOfATruncatedRecording) {
    for (const std::size_t missing : {std::size_t{1}, kChunk - 1, kChunk - 25}) {
        for (const std::uint32_t count : {kNeverClosed, 5u}) {
            Bytes file = make(5, count);
            file.resize(file.size() - missing);
            expectKept(file, 4, 1);
        }
    }
    Bytes file = make(5, 5);
    file.resize(32 + 2 * kChunk);
    expectKept(file, 2, 3);
    file.resize(32);
    expectKept(file, 0, 5);
}

TEST_F(KrVideoRecover, CorrectsAWrongCount) {
    expectKept(make(5, 2), 5, 0);
    expectKept(make(5, 0), 5, 0);
    expectKept(make(5, 9), 5, 4);
}

TEST_F(KrVideoRecover, CountsFramesOfSeveralStreamsNotTheirChunks) {
    expectKept(make(3, 6, 2), 3, 0, 2);
    expectKept(make(3, 3, 2), 3, 0, 2);
    expectKept(make(3, kNeverClosed, 3), 3, 0, 3);
    Bytes file = make(3, 5, 2); // the last frame lacks one camera
    file.resize(file.size() - kChunk);
    expectKept(file, 2, 1, 2);
}

TEST_F(KrVideoRecover, ReadsNoStreamsAsOne) {
    Bytes file = make(3, 3);
    put(file, 12, std::uint32_t{0});
    expectKept(file, 3, 0);
}

TEST_F(KrVideoRecover, FindsTheFramesIfTheExtraHeaderIsMissing) {
    expectKept(make(3, 3, 1, 1000), 3, 0);
    EXPECT_EQ(readAll(path("out.oxv")), make(3, 3));
    expectKept(make(3, kNeverClosed, 2, 1000), 3, 0, 2);
    Bytes file = make(3, kNeverClosed, 1, 1000);
    file.resize(file.size() - 100);
    expectKept(file, 2, 1);
}

TEST_F(KrVideoRecover, KeepsAnExtraHeader) {
    expectKept(make(3, kNeverClosed, 1, 1000, 1000), 3, 0);
    EXPECT_EQ(readAll(path("out.oxv")), make(3, 3, 1, 1000, 1000));
}

TEST_F(KrVideoRecover, KeepsTheVersion) {
    const Outcome outcome = recover(make(3, kNeverClosed, 1, 0, 0, kOxvVersion0));
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(readAll(path("out.oxv")), make(3, 3, 1, 0, 0, kOxvVersion0));
}

TEST_F(KrVideoRecover, NeverWritesToItsInput) {
    const Bytes file = make(3, kNeverClosed);
    const std::string in = write("in.oxv", file);
    std::filesystem::create_symlink(in, path("link.oxv"));
    std::filesystem::create_hard_link(in, path("hard.oxv"));
    for (const std::string name : {"in.oxv", "link.oxv", "hard.oxv", "./in.oxv"}) {
        const Outcome outcome = kr({"video", "recover", in, path(name)});
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_THAT(outcome.err, HasSubstr("is the input file"));
        EXPECT_EQ(readAll(in), file);
    }
    ::chmod(in.c_str(), 0444);
    EXPECT_EQ(kr({"video", "recover", in, path("out.oxv")}).exitCode, 0);
}

TEST_F(KrVideoRecover, AnUnrecoverableFileIsReportedAndNothingIsWritten) {
    const std::vector<std::pair<Bytes, std::string>> cases = {
        {{}, "not an oxv file"},
        {{'1', 'V', 'X', 'O', 0}, "ends within its headers, after 5 bytes"},
        {makeOxvHeader(kOxvVersion1, 0, 1, 3, {{160, 120, 0, 8}, {160, 120, 0, 8}}),
         "ends within its headers"},
        {makeOxvHeader(kOxvVersion1, 0, 1, 0xFFFFFFFF, {{160, 120, 0, 8}}), "ends within its headers"},
        {makeOxvHeader(kOxvVersion1, 0, 1, 1, {{160, 120, 27, 8}}), "stream 0 has an impossible geometry"},
        {makeOxvHeader(kOxvVersion1, 0, 1, 1, {{0xFFFFFFFF, 0xFFFFFFFF, 19, 0xFFFFFFFF}}),
         "stream 0 has an impossible geometry"},
        {makeOxvHeader(kOxvVersion1, 0, 1, 1, {{1280, 960, 9, 8}}), "1280x960 pixels: readers open"},
    };
    for (const auto& [file, text] : cases) {
        const Outcome outcome = recover(file);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, HasSubstr(text));
        EXPECT_FALSE(std::filesystem::exists(path("out.oxv")));
    }
    EXPECT_EQ(kr({"video", "recover", path("missing.oxv"), path("out.oxv")}).exitCode, 1);
}

TEST_F(KrVideoRecover, AFullDiskIsAFailure) {
    const Outcome outcome = kr({"video", "recover", write("in.oxv", make(3, kNeverClosed)), "/dev/full"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err, "kr: /dev/full: cannot be written: No space left on device\n");
    EXPECT_EQ(outcome.out, "");
}

TEST_F(KrVideoRecover, ReportsTheSameAsJson) {
    Bytes file = make(3, kNeverClosed);
    file.resize(file.size() - 1);
    const Outcome outcome = kr({"video", "recover", "--json", write("in.oxv", file), path("out.oxv")});
    EXPECT_EQ(outcome.exitCode, 3);
    const auto json = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(json["kept_frames"], 2);
    EXPECT_EQ(json["lost_frames"], 1);
}

} // namespace
