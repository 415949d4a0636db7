#include "program.hpp"
#include "servedprogram.hpp"
#include "temporaryfolder.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvideo.hpp>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace KR {
namespace {

using nlohmann::json;
using test::kr;
using test::Outcome;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST(KrCamera, ListsTheGivenCameras) {
    const Outcome one = kr({"camera", "list", "--camera", "0=test"});
    EXPECT_EQ(one.exitCode, 0) << one.err;
    EXPECT_EQ(one.out, "  0  test\n");
    const Outcome two =
        kr({"camera", "list", "--camera", "1=test:snow", "--camera", "0=gst:videotestsrc", "--json"});
    EXPECT_EQ(two.exitCode, 0) << two.err;
    const json list = json::parse(two.out);
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0]["source"], "gst:videotestsrc");
    EXPECT_EQ(list[1]["model"], 1);
}

TEST(KrCamera, MalformedCamerasAreRefused) {
    const auto errorOf = [](const std::string& option) {
        const Outcome outcome = kr({"camera", "list", "--camera", option});
        EXPECT_EQ(outcome.exitCode, 2) << option;
        return outcome.err;
    };
    EXPECT_THAT(errorOf("test"), HasSubstr("expected N=SOURCE"));
    EXPECT_THAT(errorOf("x=test"), HasSubstr("expected N=SOURCE"));
    EXPECT_THAT(errorOf("1=test"), HasSubstr("camera 0 is missing"));
    const Outcome twice = kr({"camera", "list", "--camera", "0=test", "--camera", "0=test"});
    EXPECT_THAT(twice.err, HasSubstr("camera 0 is given twice"));
    const Outcome unknown = kr({"camera", "list", "--camera", "0=webcam"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_THAT(unknown.err, HasSubstr("camera source \"webcam\" is not supported"));
    const Outcome none = kr({"camera", "info", "3", "--camera", "0=test"});
    EXPECT_EQ(none.exitCode, 2);
    EXPECT_THAT(none.err, HasSubstr("there is no camera 3; there is only camera 0"));
}

TEST(KrCamera, ShowsTheImagesOfACamera) {
    const Outcome outcome = kr({"camera", "info", "0", "--json", "--camera", "0=test"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    const json info = json::parse(outcome.out);
    EXPECT_EQ(info["width"], 640);
    EXPECT_EQ(info["height"], 480);
    EXPECT_EQ(info["controls"], 7);
    EXPECT_GT(info["rate_per_s"], 1); // less than 30 if a busy machine misses images
    EXPECT_LT(info["rate_per_s"], 32);
}

TEST(KrCamera, ShowsTheRateOfAShortRecording) {
    const test::TemporaryFolder folder;
    KRVideo video;
    video.recordVideo(folder.path("short"), 0, {{160, 120, 0, 8}});
    std::vector<char> pixels(std::size_t{160} * 120);
    for (int frame = 0; frame < 3; ++frame) {
        video.write(pixels.data(), static_cast<int>(pixels.size()), frame * 50000, 0, 0.0F, 0.0F, 0.0F, 0.0F);
    }
    video.closeVideo();
    const Outcome outcome =
        kr({"camera", "info", "0", "--json", "--camera", "0=oxv:" + folder.path("short.oxv")});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    const double rate = json::parse(outcome.out)["rate_per_s"];
    EXPECT_GT(rate, 9) << "if it fetched every other image";
    EXPECT_LT(rate, 21);
}

TEST(KrCamera, ListsControlsAndSetsThemByNumberOrName) {
    const Outcome list = kr({"camera", "controls", "0", "--camera", "0=test"});
    EXPECT_EQ(list.exitCode, 0) << list.err;
    EXPECT_THAT(list.out, AllOf(HasSubstr("0x00980900  brightness"), HasSubstr("-100 to 100")));
    const Outcome set = kr({"camera", "controls", "0", "--set", "brightness=20", "--set", "0x00980903=-90",
                            "--json", "--camera", "0=test"});
    EXPECT_EQ(set.exitCode, 0) << set.err;
    const json controls = json::parse(set.out);
    EXPECT_EQ(controls[0]["value"], 20);
    EXPECT_EQ(controls[3]["value"], -90);
    EXPECT_THAT(kr({"camera", "controls", "0", "--set", "brightness=101", "--camera", "0=test"}).err,
                HasSubstr("the camera refuses brightness=101; brightness goes from -100 to 100"));
    const Outcome unknown = kr({"camera", "controls", "0", "--set", "light=1", "--camera", "0=test"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_THAT(unknown.err, HasSubstr("the camera has no control \"light\"; it has brightness, contrast, "));
    EXPECT_EQ(kr({"camera", "controls", "0", "--set", "12=1", "--camera", "0=test"}).exitCode, 2);
    EXPECT_THAT(kr({"camera", "controls", "0", "--set", "hue=x", "--camera", "0=test"}).err,
                HasSubstr("expected ID=VALUE"));
}

TEST(KrCamera, WatchShowsALinePerImageAndASummary) {
    const Outcome outcome = kr({"camera", "watch", "0", "--count", "4", "--camera", "0=test"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(std::ranges::count(outcome.out, '\n'), 4 + 3);
    EXPECT_THAT(outcome.out, AllOf(HasSubstr(" UTC"), HasSubstr(" ms "), HasSubstr(" missed\n"),
                                   HasSubstr("4 images, "), HasSubstr("interval  median")));
}

TEST(KrCamera, WatchReportsTheEndOfACameraAndContinuesWhenItReturns) {
    const Outcome outcome = kr({"camera", "watch", "0", "--count", "10", "--camera",
                                "0=gst:videotestsrc is-live=true num-buffers=3"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.err, HasSubstr("has failed: the source has ended; continuing without it"));
    EXPECT_THAT(outcome.out, HasSubstr("\n10 images, "));
}

TEST(KrCamera, AnInterruptIsANormalEnd) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("film.oxv");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        test::RunningProgram watch({"camera", "watch", "0", "--camera", "0=test"}, " missed\n");
        EXPECT_TRUE(watch.isUp());
        const Outcome watched = watch.stop(signal);
        EXPECT_EQ(watched.exitCode, 0) << signal;
        EXPECT_THAT(watched.out, HasSubstr(" images, ")) << "the summary";

        test::RunningProgram top({"camera", "top", "--camera", "0=test"}, "kr_1 ");
        EXPECT_TRUE(top.isUp());
        EXPECT_EQ(top.stop(signal).exitCode, 0) << signal;

        test::RunningProgram record(
            {"camera", "record", "0", path, "--seconds", "3600", "--camera", "0=test"}, "");
        EXPECT_TRUE(test::eventually([&] { return !std::filesystem::is_empty(folder.path("")); }));
        EXPECT_EQ(record.stop(signal).exitCode, 0) << signal;
        EXPECT_EQ(kr({"video", "doctor", path}).exitCode, 0) << signal;
        std::filesystem::remove(path);
    }
}

TEST(KrCamera, AWaitForACameraToOpenIsInterruptedAtOnce) {
    const test::TemporaryFolder folder;
    const std::string silent = "0=gst:videotestsrc ! identity drop-probability=1.0"; // takes ten seconds
    const auto isOpening = [](pid_t process) {
        const auto tasks = std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task");
        return std::ranges::any_of(tasks, [](const auto& task) {
            std::string name;
            std::ifstream comm(task.path() / "comm");
            std::getline(comm, name);
            return name == "KRCamera 0";
        });
    };
    for (const std::vector<std::string>& verb : std::vector<std::vector<std::string>>{
             {"camera", "watch", "0"},
             {"camera", "top"},
             {"camera", "record", "0", folder.path("a.oxv"), "--seconds", "1"}}) {
        std::vector<std::string> arguments = verb;
        arguments.insert(arguments.end(), {"--camera", silent});
        test::RunningProgram program(arguments, "");
        EXPECT_TRUE(test::eventually([&] { return isOpening(program.getPid()); }));
        const Outcome outcome = program.stop();
        EXPECT_EQ(outcome.exitCode, 0) << verb[1];
        EXPECT_EQ(outcome.err, "") << "it did not wait for the camera to fail";
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path("")));
}

TEST(KrCamera, WatchingEndsWhenItsReaderCloses) {
    const test::TemporaryFolder folder;
    for (const std::string command : {"camera watch 0 --camera 0=test", "camera top --camera 0=test"}) {
        const std::string reader = "trap '' PIPE; { timeout 30 '" KR_PROGRAM "' " + command + "; echo $? > " +
                                   folder.path("code") + "; } | head -n 1 > /dev/null";
        EXPECT_EQ(std::system(reader.c_str()), 0);
        const test::Bytes code = test::readAll(folder.path("code"));
        EXPECT_EQ(std::string(code.begin(), code.end()), "1\n") << command;
    }
}

TEST(KrCamera, SnapshotsAreOxiFilesOrPictures) {
    const test::TemporaryFolder folder;
    const std::string oxi = folder.path("now.oxi");
    EXPECT_EQ(kr({"camera", "snapshot", "0", oxi, "--resolution", "320x240", "--color-space", "bgr",
                  "--camera", "0=test"})
                  .exitCode,
              0);
    const json info = json::parse(kr({"image", "info", "--json", oxi}).out);
    EXPECT_EQ(info[0]["width"], 320);
    EXPECT_EQ(info[0]["color_space"], 13);
    const std::string png = folder.path("now.png");
    EXPECT_EQ(kr({"camera", "snapshot", "0", png, "--camera", "0=test"}).exitCode, 0);
    EXPECT_EQ(json::parse(kr({"image", "info", "--json", png}).out)[0]["width"], 640);
    const Outcome unknown = kr({"camera", "snapshot", "0", folder.path("now.gif"), "--camera", "0=test"});
    EXPECT_EQ(unknown.exitCode, 2);
    const Outcome odd = kr({"camera", "snapshot", "0", png, "--resolution", "100x100", "--camera", "0=test"});
    EXPECT_EQ(odd.exitCode, 2);
    EXPECT_THAT(odd.err, HasSubstr("sizes are 160x120, 320x240"));
}

TEST(KrCamera, SeveralCamerasAreStreamsOfOneRecording) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("both.oxv");
    const Outcome outcome =
        kr({"camera", "record", "0", "1", path, "--seconds", "1", "--resolution", "160x120", "--color-space",
            "luma", "--camera", "0=test:white", "--camera", "1=test:black"});
    EXPECT_THAT(outcome.exitCode, testing::AnyOf(0, 3)) << outcome.err; // 3: an image was too late
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path));
    EXPECT_EQ(video.getStreams().size(), 2U);
    EXPECT_EQ(kr({"video", "doctor", path}).out, "") << "each frame counts once";
    const unsigned frames = video.getFrameCount();
    ASSERT_GE(frames, 2U);
    KRImage image(0, 0, false, 0, 0, 0, 0);
    for (const unsigned stream : {0U, 1U}) {
        std::int64_t last = 0;
        for (unsigned frame = 0; frame < frames; ++frame) {
            ASSERT_TRUE(video.getFrame(image, frame, stream, true));
            EXPECT_GT(image.timeStamp, last);
            last = image.timeStamp;
            EXPECT_EQ(image.cameraId, static_cast<int>(stream));
            EXPECT_EQ(image.data[1000], stream == 0 ? 235 : 16);
        }
    }
}

TEST(KrCamera, RefusesToRecordWhatARecordingCannotHold) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("film.oxv");
    EXPECT_THAT(kr({"camera", "record", "0", path, "--seconds", "1", "--resolution", "1280x960", "--camera",
                    "0=test"})
                    .err,
                HasSubstr("a recording holds 160x120, 320x240 or 640x480"));
    EXPECT_THAT(
        kr({"camera", "record", "0", path, "--seconds", "1", "--color-space", "bgrx", "--camera", "0=test"})
            .err,
        HasSubstr("a recording cannot hold that"));
    EXPECT_THAT(
        kr({"camera", "record", "0", folder.path("film.mp4"), "--seconds", "1", "--camera", "0=test"}).err,
        HasSubstr("ends in .oxv"));
    EXPECT_THAT(kr({"camera", "record", "left", path, "--seconds", "1", "--camera", "0=test"}).err,
                HasSubstr("left is not a camera number"));
    EXPECT_EQ(kr({"camera", "record", path, "--seconds", "1", "--camera", "0=test"}).exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(KrCamera, AFailedRecordingLeavesTheOldFile) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("film.oxv");
    std::ofstream(path) << "the old file";
    const Outcome outcome = kr(
        {"camera", "record", "0", path, "--seconds", "1", "--camera", "0=file:" + folder.path("none.mp4")});
    EXPECT_EQ(outcome.exitCode, 1);
    const test::Bytes left = test::readAll(path);
    EXPECT_EQ(std::string(left.begin(), left.end()), "the old file");

    const Outcome folderless =
        kr({"camera", "record", "0", folder.path("none/film.oxv"), "--seconds", "1", "--camera", "0=test"});
    EXPECT_EQ(folderless.exitCode, 1);
    EXPECT_THAT(folderless.err, HasSubstr("there is no folder " + folder.path("none")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path("")), {}), 1);

    std::filesystem::create_symlink("/dev/null", folder.path("null.oxv"));
    const Outcome link =
        kr({"camera", "record", "0", folder.path("null.oxv"), "--seconds", "1", "--camera", "0=test"});
    EXPECT_EQ(link.exitCode, 1);
    EXPECT_THAT(link.err, HasSubstr("null.oxv: a recording is written to a regular file"));
}

TEST(KrCamera, ARecordingOnAFullDiskHoldsTheFramesThatFit) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("film.oxv");
    // The header, two frames, and a part of the third.
    const std::string limited = "ulimit -f 200; exec '" KR_PROGRAM "' camera record 0 " + path +
                                " --camera 0=test --seconds 3600 --resolution 160x120 2> " +
                                folder.path("err");
    const int status = std::system(("trap '' XFSZ; " + limited).c_str());
    EXPECT_EQ(WEXITSTATUS(status), 3);
    const test::Bytes error = test::readAll(folder.path("err"));
    EXPECT_THAT(std::string(error.begin(), error.end()),
                HasSubstr("kr: " + path + ": cannot be written: File too large; the recording ends here"));
    EXPECT_EQ(std::filesystem::file_size(path), 32U + 2 * 160 * 120 * 2);
    EXPECT_EQ(kr({"video", "doctor", path}).exitCode, 0);
}

TEST(KrCamera, NoFileReplacesAClosedStandardStream) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("film.oxv");
    const pid_t process = test::start(
        {"/bin/sh", "-c",
         "exec '" KR_PROGRAM "' camera record 0 " + path + " --camera 0=test --seconds 3600 <&- >&- 2>&-"},
        STDOUT_FILENO, STDERR_FILENO);
    EXPECT_TRUE(test::eventually([&] { return !std::filesystem::is_empty(folder.path("")); }));
    for (const std::string stream : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/fd/" + stream),
                  "/dev/null");
    }
    ::kill(process, SIGTERM);
    int status = 0;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_EQ(kr({"video", "doctor", path}).exitCode, 0);
}

TEST(KrCamera, TopShowsTheStatisticsOfEverySubscription) {
    const Outcome outcome =
        kr({"camera", "top", "--seconds", "0.5", "--camera", "0=test", "--camera", "1=test:snow"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("subscriber"), HasSubstr("kr_1 "), HasSubstr("kr_2 ")));
}

TEST(KrCamera, ARecordingWithMissedImagesIsKeptAndTheLossReported) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("film.oxv");
    // The camera fails repeatedly, each time for at least a quarter of a second.
    const Outcome outcome = kr(
        {"camera", "record", "0", path, "--seconds", "2", "--resolution", "160x120", "--color-space", "luma",
         "--camera", "0=gst:videotestsrc is-live=true num-buffers=5 ! video/x-raw,width=160,height=120"});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err, HasSubstr("has failed: the source has ended; continuing without it"));
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path));
    EXPECT_GE(video.getFrameCount(), 1U);
    EXPECT_EQ(kr({"video", "doctor", path}).out, "");
}

} // namespace
} // namespace KR
