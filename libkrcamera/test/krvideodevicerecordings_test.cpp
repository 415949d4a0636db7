#include "cameratest.hpp"

#include "../../libkrplatform/test/recordedlog.hpp"

#include <krvision/krvideo.hpp>

#include <cstring>
#include <fstream>
#include <future>
#include <latch>
#include <limits>

namespace KR {

using testing::AllOf;
using testing::HasSubstr;

/// Recordings of two streams: 160x120 luma and 320x240 YUV422, image i of stream s filled with 10 * s + i.
class RecordingTest : public CameraTest {
protected:
    static constexpr int frames = 4;
    static constexpr std::int64_t beginning_usec = 1'500'000'000'000'000;
    static constexpr std::int64_t step_usec = 20'000;

    static std::int64_t timeOf(int frame) { return beginning_usec + frame * step_usec + frame; }

    void record(bool close = true) {
        KRVideo video;
        video.recordVideo(path, 0, {{160, 120, 0, 8}, {320, 240, 9, 8}});
        std::vector<char> pixels(320 * 240 * 2);
        for (int i = 0; i < frames; ++i) {
            for (const int stream : {0, 1}) {
                std::fill(pixels.begin(), pixels.end(), static_cast<char>(10 * stream + i));
                const float angle = 0.1F * static_cast<float>(i);
                video.write(pixels.data(), stream == 0 ? 160 * 120 : 320 * 240 * 2, timeOf(i), 5, angle,
                            angle + 1, angle + 2, angle + 3);
            }
        }
        if (close) {
            video.closeVideo();
        }
    }

    /// One stream, 160x120 luma; the time stamps are relative to the beginning.
    void recordTimes(const std::vector<std::int64_t>& times_usec) {
        KRVideo video;
        video.recordVideo(path, 0, {{160, 120, 0, 8}});
        std::vector<char> pixels(160 * 120);
        for (const std::int64_t time_usec : times_usec) {
            const auto stamp =
                static_cast<std::uint64_t>(beginning_usec) + static_cast<std::uint64_t>(time_usec);
            video.write(pixels.data(), 160 * 120, static_cast<std::int64_t>(stamp), 0, 0, 0, 0, 0);
        }
        video.closeVideo();
    }

    TemporaryFolder folder;
    const std::string path = folder / "film";
    const std::string source = "oxv:" + path + ".oxv";
};

TEST_F(RecordingTest, HasItsOwnTimeStampsAndAnglesAndTheIndexOfTheCamera) {
    record();
    start({"test", source + "#1?pace=fetch"});
    const std::string id = subscribe(1, Resolution::QuarterVga, Space::Yuv422);
    for (int i = 0; i < frames; ++i) {
        const Image image = fetch(id);
        EXPECT_EQ(image.time_usec, timeOf(i));
        const float angle = 0.1F * static_cast<float>(i);
        EXPECT_EQ(image.angles, (std::array{angle, angle + 1, angle + 2, angle + 3}));
        EXPECT_EQ(image.camera, 1);
        EXPECT_THAT(std::vector<int>(image.data(), image.data() + image.pixels.size()),
                    testing::Each(10 + i)); // also the first 25 bytes, which are not stored
    }
}

TEST_F(RecordingTest, WithPaceFetchEachSubscriptionGetsEachImageOnce) {
    record();
    start({source + "?pace=fetch"});
    const std::string one = subscribe(0, 0, Space::Luma);
    const auto next = [this](const std::string& id) { return fetch(id).at(50, 50)[0]; };
    EXPECT_EQ(next(one), 0);
    EXPECT_EQ(next(one), 1);
    const std::string two = subscribe(0, 0, Space::Luma, 1);
    for (int i = 0; i < frames; ++i) {
        EXPECT_EQ(next(two), i);
    }
    EXPECT_EQ(next(one), 2);
    proxy->releaseImage(one);
    EXPECT_EQ(next(one), 3);
    const std::string ended =
        "getImageRemote: camera 0 (" + source + "?pace=fetch) has failed: the recording has ended";
    EXPECT_EQ(errorOf([&] { fetch(one); }), ended);
    EXPECT_EQ(errorOf([&] { fetch(two); }), ended);
    EXPECT_EQ(errorOf([&] { fetch(one); }), ended); // and it does not restart
    EXPECT_EQ(proxy->getStatistics().at(0).delivered, frames);
    EXPECT_EQ(proxy->getStatistics().at(0).missed, 0);
    EXPECT_EQ(next(subscribe(0, 0, Space::Luma)), 0);
}

TEST_F(RecordingTest, AtItsOwnPaceItIsLooped) {
    record();
    start({source + "#0", source + "?pace=own"});
    for (const int camera : {0, 1}) {
        const std::string id = subscribe(camera, 0, Space::Luma);
        std::set<std::int64_t> times;
        bool again = false;
        for (std::int64_t last = 0; times.size() < frames || !again;) {
            const std::int64_t time = fetch(id).time_usec;
            again = again || time <= last;
            last = time;
            times.insert(time);
        }
        for (int i = 0; i < frames; ++i) {
            EXPECT_EQ(times.count(timeOf(i)), 1U);
        }
    }
}

TEST_F(RecordingTest, AnUnfinishedRecordingIsPlayedUpToItsLastCompleteImage) {
    record(false);
    std::filesystem::resize_file(path + ".oxv", std::filesystem::file_size(path + ".oxv") - 1);
    start({source + "#1?pace=fetch"});
    const std::string id = subscribe(0, Resolution::QuarterVga);
    for (int i = 0; i < frames - 1; ++i) {
        EXPECT_EQ(fetch(id).time_usec, timeOf(i));
    }
    EXPECT_THAT(errorOf([&] { fetch(id); }), HasSubstr("the recording has ended"));
}

TEST_F(RecordingTest, ASubscriptionThatReturnsStartsAtTheFirstImage) {
    record();
    start({source + "?pace=fetch", "test"});
    const std::string id = subscribe(0, 0, Space::Luma);
    fetch(id);
    fetch(id);
    EXPECT_TRUE(proxy->setActiveCamera(id, 1));
    fetch(id);
    EXPECT_TRUE(proxy->setActiveCamera(id, 0));
    EXPECT_EQ(fetch(id).time_usec, timeOf(0));
}

TEST_F(RecordingTest, AnUnplayableRecordingIsRefusedWithTheReason) {
    const auto openError = [this](const std::string& text) {
        start({text});
        return errorOf([&] { subscribe(); });
    };
    for (const std::string pace : {"own", "fetch"}) {
        const std::string option = "?pace=" + pace;
        EXPECT_THAT(
            openError("oxv:/nonexistent.oxv" + option),
            HasSubstr("cannot be opened: /nonexistent.oxv: cannot be read: No such file or directory"));
        record();
        EXPECT_THAT(openError(source + "#2" + option), HasSubstr("there is no stream 2 in it; it has 2"));
        std::ofstream(path + ".txt") << "It was a dark and stormy night.\n";
        EXPECT_THAT(openError("oxv:" + path + ".txt" + option), HasSubstr("not an oxv file"));
        KRVideo video;
        video.recordVideo(folder / "empty", 0, {{160, 120, 0, 8}});
        video.closeVideo();
        EXPECT_THAT(openError("oxv:" + (folder / "empty.oxv") + option),
                    HasSubstr("there is no image in it"));
        video.recordVideo(folder / "hsv", 0, {{160, 120, 12, 8}});
        video.closeVideo();
        EXPECT_THAT(openError("oxv:" + (folder / "hsv.oxv") + option),
                    HasSubstr("its images are 160x120 pixels of colour space 12 and 8 bits; supported are "
                              "the sizes of the resolutions 0 to 17, 8 bits and 0 (luma)"));
        video.recordVideo(folder / "deep", 0, {{160, 120, 0, 16}});
        video.closeVideo();
        EXPECT_THAT(openError("oxv:" + (folder / "deep.oxv") + option),
                    HasSubstr("its images are 160x120 pixels of colour space 0 and 16 bits; supported are"));
    }
    EXPECT_THAT(errorOf([&] { start({source + "?pace=slow"}); }), HasSubstr("has an unknown pace"));
}

TEST_F(RecordingTest, MovingToTheSameCameraChangesNothing) {
    record();
    start({source + "?pace=fetch"});
    const std::string id = subscribe(0, 0, Space::Luma);
    EXPECT_EQ(fetch(id).time_usec, timeOf(0));
    EXPECT_TRUE(proxy->setActiveCamera(id, 0));
    EXPECT_EQ(fetch(id).time_usec, timeOf(1));
}

TEST_F(RecordingTest, APathMayContainAHashAndAQuestionMark) {
    record();
    for (const std::string name : {"take#1.oxv", "take#.oxv", "take?.oxv", "take?pace#2.oxv"}) {
        std::filesystem::copy_file(path + ".oxv", folder / name);
        start({"oxv:" + (folder / name) + "?pace=fetch", "oxv:" + (folder / name) + "#1?pace=fetch"});
        EXPECT_EQ(fetch(subscribe(0, 0, Space::Luma)).at(50, 50)[0], 0) << name;
        EXPECT_EQ(fetch(subscribe(1, 0, Space::Luma)).at(50, 50)[0], 10) << name;
    }
}

TEST_F(RecordingTest, IsListedLikeAnyCamera) {
    record();
    const std::string stepped = source + "#1?pace=fetch";
    start({stepped});
    EXPECT_EQ(proxy->getCameraList()[0].state, "closed");
    const std::string id = subscribe(0, 0, Space::Luma);
    fetch(id);
    EXPECT_EQ(proxy->getCameraList()[0].toKRValue(), KRValue::array(0, stepped, 7, "open", "", 320, 240, 1));
}

TEST_F(RecordingTest, IsNotPlayedFasterThanItWasRecorded) {
    KRVideo video;
    video.recordVideo(path, 0, {{160, 120, 0, 8}});
    std::vector<char> pixels(160 * 120);
    for (int i = 0; i < 3; ++i) {
        video.write(pixels.data(), 160 * 120, beginning_usec + i * 1'000'000, 0, 0, 0, 0, 0);
    }
    video.closeVideo();
    start({source});
    const auto before = std::chrono::steady_clock::now();
    const std::string id = subscribe(0, 0, Space::Luma);
    fetchUntil(id, [](const Image& image) { return image.time_usec == beginning_usec + 2'000'000; });
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

TEST_F(RecordingTest, AWrongTimeStampDoesNotStallTheRecording) {
    const test::RecordedLog log;
    constexpr std::int64_t hour_usec = 3'600'000'000;
    recordTimes({0, 20'000, 40'000 + hour_usec, 60'000});
    start({source});
    const std::string id = subscribe(0, 0, Space::Luma);
    for (const std::int64_t time : {std::int64_t{40'000} + hour_usec, std::int64_t{60'000}}) {
        fetchUntil(id, [&](const Image& image) { return image.time_usec == beginning_usec + time; });
    }
    EXPECT_TRUE(log.waitFor(
        KRLogLevel::Warning,
        path + ".oxv: the time stamp of image 2 is 3600.020 s after that of image 1; it is played "
               "33 ms later"));
    EXPECT_TRUE(log.waitFor(
        KRLogLevel::Warning,
        path + ".oxv: the time stamp of image 3 is 3599.980 s before that of image 2; it is played "
               "33 ms later"));
}

TEST_F(RecordingTest, AnyTimeStampsCanBePlayed) {
    constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t greatest = std::numeric_limits<std::int64_t>::max();
    recordTimes({0, greatest - beginning_usec, least, greatest, 0, least + 1, 20'000});
    start({source});
    const std::string id = subscribe(0, 0, Space::Luma);
    for (int i = 0; i < 2; ++i) { // twice from the beginning to the end
        fetchUntil(id, [](const Image& image) { return image.time_usec == beginning_usec + 20'000; });
        fetchUntil(id, [](const Image& image) { return image.time_usec == beginning_usec; });
    }
}

// Only the first are logged, however long such a recording is played.
TEST_F(RecordingTest, TheNumberOfLoggedWrongTimeStampsIsBounded) {
    const test::RecordedLog log;
    std::vector<std::int64_t> times;
    for (int i = 0; i < 50; ++i) {
        times.push_back(i % 2 * 100'000'000);
    }
    recordTimes(times);
    start({source});
    const std::string id = subscribe(0, 0, Space::Luma);
    for (int i = 0; i < 60; ++i) {
        fetch(id);
    }
    EXPECT_TRUE(
        log.waitFor(KRLogLevel::Warning, "further wrong time stamps of this recording are not logged"));
    proxy->unsubscribe(id);
    EXPECT_LE(log.find(KRLogLevel::Warning, "time stamp").size(), 3U);
}

TEST_F(RecordingTest, ThreadsThatShareASubscriptionShareItsImages) {
    constexpr int count = 1000;
    constexpr int threads = 3;
    KRVideo video;
    video.recordVideo(path, 0, {{160, 120, 0, 8}});
    std::vector<char> pixels(160 * 120);
    for (int i = 0; i < count; ++i) {
        video.write(pixels.data(), 160 * 120, timeOf(i), 0, 0, 0, 0, 0);
    }
    video.closeVideo();
    start({source + "?pace=fetch"});
    const std::string id = subscribe(0, 0, Space::Luma);
    std::latch ready(threads);
    const auto drain = [&] {
        ready.arrive_and_wait();
        std::vector<std::int64_t> times;
        while (errorOf([&] { times.push_back(fetch(id).time_usec); }) == "no error") {
        }
        return times;
    };
    std::vector<std::future<std::vector<std::int64_t>>> drains;
    for (int i = 0; i < threads; ++i) {
        drains.push_back(std::async(std::launch::async, drain));
    }
    std::vector<std::int64_t> times;
    for (auto& each : drains) {
        const std::vector<std::int64_t> some = each.get();
        times.insert(times.end(), some.begin(), some.end());
    }
    EXPECT_EQ(times.size(), static_cast<std::size_t>(count));
    EXPECT_EQ((std::set<std::int64_t>(times.begin(), times.end())).size(), static_cast<std::size_t>(count));
}

} // namespace KR
