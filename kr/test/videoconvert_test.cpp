// kr video convert, extract and play

#include "image/pictureconversion.hpp"
#include "patience.hpp"
#include "recordings.hpp"
#include "video/filmreader.hpp"
#include "video/frames.hpp"
#include "video/framesink.hpp"

#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace {

using namespace KR::test;
using namespace KR::tool;
using KR::KRImage;
using KR::KRVideo;
using testing::HasSubstr;

constexpr unsigned kFrames = 12;

// A field of one colour that changes from frame to frame; byte by byte, so that nothing is converted.
std::array<unsigned char, 4> colorOf(unsigned frame, unsigned stream) {
    const auto luma = static_cast<unsigned char>(60 + 10 * frame);
    return stream == 0 ? std::array<unsigned char, 4>{luma, 90, luma, 200}  // reddish
                       : std::array<unsigned char, 4>{luma, 200, luma, 90}; // bluish
}

class KrVideoConvert : public Recordings {
protected:
    /// Two streams of YUV422, 160x120 and 320x240, with 50 ms between the frames.
    std::string record(const std::string& name) const {
        KRVideo video;
        video.recordVideo(path(name), 0, {{160, 120, kYuv422, 8}, {320, 240, kYuv422, 8}});
        for (unsigned frame = 0; frame < kFrames; ++frame) {
            for (unsigned stream = 0; stream < 2; ++stream) {
                Bytes image;
                while (image.size() < (stream == 0 ? 38400u : 153600u)) {
                    append(image, colorOf(frame, stream));
                }
                video.write(reinterpret_cast<char*>(image.data()), static_cast<int>(image.size()),
                            1500000000000000 + 50000 * frame, static_cast<char>(stream), 0.5f, 0.25f, -0.5f,
                            -0.25f);
            }
        }
        testing::internal::CaptureStdout();
        video.closeVideo();
        testing::internal::GetCapturedStdout();
        return path(name) + ".oxv";
    }
    Outcome convert(const std::string& in, const std::string& out,
                    std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"video", "convert", in, path(out)});
        return kr(options);
    }
    void expectDone(const Outcome& outcome) const {
        EXPECT_EQ(outcome.exitCode, 0);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "");
    }
    /// Expects the whole picture to have the frame's colour, as the library converts it.
    static void expectColor(const Picture& picture, unsigned frame, unsigned stream, int tolerance) {
        const std::array<unsigned char, 4> color = colorOf(frame, stream);
        KRImage pair(2, 1, kYuv422, false, 0.0f, 0.0f, 0.0f, 0.0f);
        std::copy(color.begin(), color.end(), pair.data.get());
        const Picture expected = makePicture(pair);
        ASSERT_EQ(picture.rgb.size(), 3u * picture.width * picture.height);
        for (std::size_t i = 0; i < picture.rgb.size(); ++i) {
            ASSERT_LE(std::abs(picture.rgb[i] - expected.rgb[i % 3]), tolerance)
                << "frame " << frame << ", pixel " << i / 3;
        }
    }
};

TEST_F(KrVideoConvert, AFilmHasTheFramesColoursAndRateOfTheRecording) {
    const std::string in = record("in");
    struct Case {
        std::string name;
        std::vector<std::string> options;
    };
    for (const Case& c :
         {Case{"a.mkv", {}}, Case{"b.mkv", {"--codec", "vp8"}}, Case{"c.mp4", {}}, Case{"d.y4m", {}}}) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> options = c.options;
        options.insert(options.end(), {"--stream", "1"});
        expectDone(convert(in, c.name, options));
        expectDone(convert(path(c.name), "back.oxv", {"--size", "320x240"}));
        KR::KROxvFile back(path("back.oxv"));
        Frames frames(back, 0);
        ASSERT_EQ(frames.count(), kFrames);
        for (unsigned frame = 0; frame < kFrames; ++frame) {
            const KRImage& image = frames.read(frame);
            EXPECT_NEAR(static_cast<double>(image.timeStamp - back.readChunkHeader(0, 0).timeStamp),
                        50000.0 * frame, 1000.0);
            expectColor(makePicture(image), frame, 1, 12);
        }
        EXPECT_EQ(kr({"video", "doctor", path("back.oxv")}).out, "");
    }
}

TEST_F(KrVideoConvert, NumberedPicturesAreOfTheSelectedFrames) {
    const std::string in = record("in");
    expectDone(convert(in, "p-%03d.png", {"--from", "3", "--to", "5"}));
    expectDone(convert(in, "q.ppm", {"--from", "11", "--stream", "1", "--to", "1000"}));
    for (unsigned frame = 3; frame <= 5; ++frame) {
        const Picture picture = readPicture(path("p-00" + std::to_string(frame) + ".png"));
        EXPECT_EQ(picture.width, 160);
        expectColor(picture, frame, 0, 0);
    }
    expectColor(readPicture(path("q-000011.ppm")), 11, 1, 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("")), {}), 5);
}

TEST_F(KrVideoConvert, NumbersReplaceTheirPlaceholder) {
    EXPECT_EQ(numberPath("a.png", 7), "a-000007.png");
    EXPECT_EQ(numberPath("x/a%d.png", 7), "x/a7.png");
    EXPECT_EQ(numberPath("a%04d-%d.png", 12345), "a12345-%d.png");
    EXPECT_EQ(numberPath("a%s%99d.png", 7), "a%s%99d-000007.png");
}

TEST_F(KrVideoConvert, FromOxvToOxvCopiesTheSelection) {
    const std::string in = record("in");
    expectDone(convert(in, "all.oxv", {"--from", "2", "--to", "4"}));
    KRVideo video;
    video.readVideo(path("all.oxv"));
    ASSERT_EQ(video.getFrameCount(), 3u);
    ASSERT_EQ(video.getStreams().size(), 2u);
    KRImage image = makeEmptyImage();
    ASSERT_TRUE(video.getFrame(image, 2, 1, true));
    EXPECT_EQ(image.timeStamp, 1500000000000000 + 50000 * 4);
    EXPECT_EQ(image.cameraId, 1);
    EXPECT_EQ(image.data[28], colorOf(4, 1)[0]);

    expectDone(convert(in, "one.oxv", {"--stream", "1"}));
    video.readVideo(path("one.oxv"));
    ASSERT_EQ(video.getFrameCount(), kFrames);
    ASSERT_EQ(video.getStreams().size(), 1u);
    EXPECT_EQ(video.getStreams()[0].width, 320u);
    EXPECT_EQ(kr({"video", "doctor", path("one.oxv")}).out, "");
}

TEST_F(KrVideoConvert, Y4mHoldsThePlanes) {
    const std::string in = record("in");
    expectDone(convert(in, "a.y4m", {"--to", "0"}));
    const Bytes file = readAll(path("a.y4m"));
    const std::string header = "YUV4MPEG2 W160 H120 F1000000:50000 Ip A1:1 C422 XCOLORRANGE=LIMITED\nFRAME\n";
    ASSERT_EQ(file.size(), header.size() + 38400);
    EXPECT_EQ(std::string(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(header.size())), header);
    const auto color = colorOf(0, 0);
    EXPECT_EQ(file[header.size()], color[0]);
    EXPECT_EQ(file[header.size() + 19199], color[0]);
    EXPECT_EQ(file[header.size() + 19200], color[1]);
    EXPECT_EQ(file[header.size() + 28799], color[1]);
    EXPECT_EQ(file[header.size() + 28800], color[3]);
    EXPECT_EQ(file.back(), color[3]);
}

TEST_F(KrVideoConvert, ATruncatedRecordingIsConvertedAndTheLossReported) {
    Bytes file = readAll(record("in"));
    file.resize(file.size() - 1);
    const std::string in = write("cut.oxv", file);
    const Outcome outcome = convert(in, "a.y4m");
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err, HasSubstr("1 frame is missing or cut at its end"));
    EXPECT_EQ(readAll(path("a.y4m")).size(), 68u + 11 * (6 + 38400u));
    expectDone(convert(in, "b.y4m", {"--to", "10"}));
}

TEST_F(KrVideoConvert, ResolutionsThatReadersRefuseAreConverted) {
    KRVideo video;
    video.recordVideo(path("large"), 0, {{1280, 960, kYuv422, 8}});
    Bytes image(1280 * 960 * 2, 128);
    video.write(reinterpret_cast<char*>(image.data()), static_cast<int>(image.size()), 0, 0, 0, 0, 0, 0);
    const std::string in = path("large.oxv");
    expectDone(kr({"video", "extract", in, "--frame", "0", path("a.png")}));
    const Picture picture = readPicture(path("a.png"));
    EXPECT_EQ(picture.width, 1280);
    EXPECT_EQ(picture.rgb, Bytes(3 * 1280 * 960, 130));
}

TEST_F(KrVideoConvert, UnconvertibleInputIsReportedAndLeavesNothing) {
    const std::string in = record("in");
    const std::string empty = write("empty.oxv", make(0, 0));
    const std::string text = write("text.mkv", Bytes(1000, 'x'));
    Bytes deep = makeOxvHeader(kOxvVersion1, 0, 1, 1, {{160, 120, 0, 16}});
    deep.resize(deep.size() + 2 * kChunk);
    const std::string sixteen = write("deep.oxv", deep);
    struct Case {
        std::string in, out;
        std::vector<std::string> options;
        int exitCode;
        std::string text;
    };
    for (const Case& c : {
             Case{in, "a.avi", {}, 2, "the extension selects the format"},
             Case{in,
                  "a.mkv",
                  {"--codec", "h264"},
                  2,
                  "there is no codec h264 for .mkv files; codecs are mkv (jpeg"},
             Case{in, "a.y4m", {"--codec", "jpeg"}, 2, "--codec is for mkv (jpeg, vp8), mp4 (vp9)"},
             Case{in, "a.y4m", {"--from", "2", "--to", "1"}, 2, "--from 2 is after --to 1"},
             Case{in, "a.y4m", {"--from", "12"}, 1, "there is no frame 12; there are 12"},
             Case{in, "a.y4m", {"--stream", "2"}, 1, "there is no stream 2; the last one is 1"},
             Case{empty, "a.mkv", {}, 1, "there is no frame 0; there are 0"},
             Case{sixteen, "a.mkv", {}, 1, "stream 0 cannot be read as images of 8 bits"},
             Case{in, "missing/a.mkv", {}, 1, "there is no folder"},
             Case{in, "missing/a.png", {}, 1, "missing/a-000000.png cannot be written: there is no folder"},
             Case{in, "in.oxv", {}, 1, "is the input file"},
             Case{text, "a.oxv", {}, 1, "text.mkv: "},
             Case{text, "a.mkv", {}, 2, "is not an oxv file"},
             Case{text, "a.oxv", {"--size", "1x1"}, 2, "--size 1x1: recordings have"},
             Case{path("missing"), "a.oxv", {}, 1, "missing: cannot be read: No such file"},
         }) {
        const Outcome outcome = convert(c.in, c.out, c.options);
        EXPECT_EQ(outcome.exitCode, c.exitCode) << c.text;
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, HasSubstr(c.text));
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("")), {}), 4);
}

TEST_F(KrVideoConvert, AFileWithoutVideoIsRefusedAtOnce) {
    // GStreamer takes either for subtitles.
    Bytes header = {'[', 'U', 'V', '4', 'M', 'P', 'E', 'G', '2',  ' ', 0xFF,
                    '1', '6', 2,   4,   0,   0,   '2', '0', 0x8A, 0xDC};
    header.resize(3000, 0x10);
    const std::string text = "WEBVTT\n\n";
    for (const std::string& in :
         {write("damaged.y4m", header), write("a.vtt", Bytes(text.begin(), text.end()))}) {
        const Outcome outcome = convert(in, "a.oxv");
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_EQ(outcome.err, "kr: " + in + ": there is no video in it\n");
    }
    EXPECT_FALSE(std::filesystem::exists(path("a.oxv")));
}

TEST_F(KrVideoConvert, AFilmThatDeliversNoFrameTimesOut) {
    const std::string film = path("film.mkv");
    ASSERT_EQ(convert(record("in"), "film.mkv").exitCode, 0);
    // The headers of the film, then a hole whose reading takes hours.
    const Bytes bytes = readAll(film);
    constexpr std::array<unsigned char, 4> kCluster{0x1F, 0x43, 0xB6, 0x75};
    const auto frames = std::search(bytes.begin(), bytes.end(), kCluster.begin(), kCluster.end());
    ASSERT_NE(frames, bytes.end());
    std::filesystem::resize_file(film, static_cast<std::uintmax_t>(frames - bytes.begin()));
    std::filesystem::resize_file(film, std::uintmax_t{1} << 40);
    try {
        openFilm(film, KR::kQVGA, std::chrono::milliseconds(200));
        FAIL() << "there is no frame";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), film + ": no frame could be decoded within 200 ms");
    }
}

TEST_F(KrVideoConvert, AFullDiskIsAFailure) {
    const std::string in = record("in");
    for (const std::string format : {"mkv", "y4m", "oxv"}) {
        std::filesystem::create_symlink("/dev/full", path("full." + format));
        const Outcome outcome = convert(in, "full." + format);
        EXPECT_EQ(outcome.exitCode, 1) << format;
        EXPECT_THAT(outcome.err, HasSubstr("kr: " + path("full." + format) + ": "));
    }
    const std::string picture = path("full.png");
    std::filesystem::create_symlink("/dev/full", picture);
    const Outcome outcome = kr({"video", "extract", in, "--frame", "0", picture});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("kr: " + picture + ": "));
    EXPECT_TRUE(std::filesystem::is_symlink(picture)) << "the link was replaced";
}

TEST_F(KrVideoConvert, InterruptedLeavesNothing) {
    // The frames are holes in the file: too many to finish.
    const std::string in = write("in.oxv", makeOxvHeader(kOxvVersion1, 0, 5000, 1, {{640, 480, kYuv422, 8}}));
    std::filesystem::resize_file(in, 32 + 5000 * 614400ull);
    const auto countFiles = [&] { return std::distance(std::filesystem::directory_iterator(path("")), {}); };
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const pid_t process =
            start({KR_PROGRAM, "video", "convert", in, path("out.mp4")}, STDOUT_FILENO, STDERR_FILENO);
        EXPECT_TRUE(eventually([&] { return countFiles() == 2; }));
        ::kill(process, signal);
        int status = 0;
        EXPECT_EQ(::waitpid(process, &status, 0), process);
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(countFiles(), 1) << signal;
    }
}

TEST_F(KrVideoConvert, ExtractWritesAPictureOfOneFrame) {
    const std::string in = record("in");
    expectDone(kr({"video", "extract", in, "--frame", "7", "--stream", "1", path("a.png")}));
    expectColor(readPicture(path("a.png")), 7, 1, 0);
    expectDone(kr({"video", "extract", in, "--frame", "7", path("a.oxi")}));
    KRImage image(1, 1, 0, false, 0.0f, 0.0f, 0.0f, 0.0f);
    ASSERT_TRUE(image.readFile(path("a.oxi").c_str()));
    EXPECT_EQ(image.timeStamp, 1500000000000000 + 7 * 50000);
    EXPECT_EQ(image.bottomAngle, -0.25f);
    const Outcome outcome = kr({"video", "extract", in, "--frame", "12", path("b.png")});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("there is no frame 12; there are 12"));
}

TEST_F(KrVideoConvert, PlaySaysWhatToDoWithoutADisplay) {
    const std::string in = record("in");
    ::unsetenv("DISPLAY");
    ::unsetenv("WAYLAND_DISPLAY");
    const Outcome outcome = kr({"video", "play", in});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("there is no display here"));
    EXPECT_THAT(outcome.err, HasSubstr("kr video convert " + in));
}

TEST_F(KrVideoConvert, Y4mOfLumaHasOnePlane) {
    const std::string in = write("luma.oxv", make(2, 2));
    expectDone(convert(in, "a.y4m"));
    const Bytes file = readAll(path("a.y4m"));
    const std::string header =
        "YUV4MPEG2 W160 H120 F1000000:33333 Ip A1:1 Cmono XCOLORRANGE=LIMITED\nFRAME\n";
    ASSERT_EQ(file.size(), header.size() + kChunk + 6 + kChunk);
    EXPECT_EQ(std::string(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(header.size())), header);
}

TEST_F(KrVideoConvert, Y4mOfRgbHoldsThePlanesOfItsYuv422) {
    KRVideo video;
    video.recordVideo(path("rgb"), 0, {{160, 120, 11, 8}});
    Bytes image(160 * 120 * 3, 255);
    video.write(reinterpret_cast<char*>(image.data()), static_cast<int>(image.size()), 0, 0, 0, 0, 0, 0);
    expectDone(kr({"video", "convert", path("rgb.oxv"), path("a.y4m")}));
    const Bytes file = readAll(path("a.y4m"));
    const Bytes planes(file.end() - 38400, file.end());
    EXPECT_TRUE(std::all_of(planes.begin(), planes.begin() + 19200, [](int y) { return y >= 234; }));
    EXPECT_TRUE(
        std::all_of(planes.begin() + 19200, planes.end(), [](int c) { return std::abs(c - 128) <= 1; }));
}

TEST_F(KrVideoConvert, SelectsFramesOfAFilm) {
    expectDone(convert(record("in"), "a.mkv"));
    expectDone(convert(path("a.mkv"), "part.oxv", {"--size", "160x120", "--from", "3", "--to", "5"}));
    KR::KROxvFile part(path("part.oxv"));
    Frames frames(part, 0);
    ASSERT_EQ(frames.count(), 3U);
    for (unsigned frame = 0; frame < 3; ++frame) {
        expectColor(makePicture(frames.read(frame)), 3 + frame, 0, 12);
    }
    const Outcome beyond = convert(path("a.mkv"), "none.oxv", {"--from", "12"});
    EXPECT_EQ(beyond.exitCode, 1);
    EXPECT_THAT(beyond.err, HasSubstr("there is no frame 12"));
    const Outcome stream = convert(path("a.mkv"), "none.oxv", {"--stream", "0"});
    EXPECT_EQ(stream.exitCode, 2);
    EXPECT_THAT(stream.err, HasSubstr("--stream is for recordings"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("")), {}), 3); // nor an incomplete file
}

TEST_F(KrVideoConvert, PicturesOfAnotherShapeGetBlackBorders) {
    KRVideo video;
    video.recordVideo(path("wide"), 0, {{1280, 720, kYuv422, 8}});
    Bytes image(1280 * 720 * 2, 128);
    video.write(reinterpret_cast<char*>(image.data()), static_cast<int>(image.size()), 0, 0, 0, 0, 0, 0);
    expectDone(kr({"video", "convert", path("wide.oxv"), path("a.mkv")}));
    expectDone(convert(path("a.mkv"), "back.oxv", {"--size", "160x120"}));
    KR::KROxvFile back(path("back.oxv"));
    Frames frames(back, 0);
    const KRImage& film = frames.read(0);
    for (const int y : {1, 118}) {
        EXPECT_LE(film.data[(y * 160 + 80) * 2], 20) << y;
    }
    EXPECT_NEAR(film.data[(60 * 160 + 80) * 2], 128, 4);
}

TEST_F(KrVideoConvert, WithoutIncreasingTimeStampsThereAreThirtyFramesPerSecond) {
    Bytes file = make(3, 3);
    for (unsigned frame = 0; frame < 3; ++frame) {
        put(file, 32 + frame * kChunk, std::int64_t{-1});
    }
    expectDone(convert(write("still.oxv", file), "a.y4m"));
    const Bytes y4m = readAll(path("a.y4m"));
    EXPECT_THAT(std::string(y4m.begin(), y4m.begin() + 80), HasSubstr(" F1000000:33333 "));
}

// ---- time

TEST(KrFrameClock, FollowsTheTimeStampsWhereTheyIncrease) {
    FrameClock clock(100);
    EXPECT_EQ(clock.next(5000), 0);
    EXPECT_EQ(clock.next(5030), 30);
    EXPECT_EQ(clock.next(5030), 130);
    EXPECT_EQ(clock.next(4000), 230);
    EXPECT_EQ(clock.next(4010), 240);
    EXPECT_EQ(clock.next(INT64_MAX), 340);
    EXPECT_EQ(clock.next(INT64_MIN), 440);
}

} // namespace
