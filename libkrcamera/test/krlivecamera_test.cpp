#include "camera/krlivecamera.hpp"

#include "camera/krframe.hpp"
#include "conversion/krconverter.hpp"

#include <krplatform/krthread.hpp>

#include "../../libkrplatform/test/patience.hpp"
#include "../../libkrplatform/test/recordedlog.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <new>
#include <stdexcept>

namespace KR {

using test::Event;
using test::eventually;

/// A camera whose source is controlled by the test.
class LiveCameraTest : public testing::Test {
protected:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kShortLimit{500}; // of silence

    class Source : public KRImageSource {
    public:
        explicit Source(LiveCameraTest& owner) : test(owner) { ++test.running; }
        ~Source() override { --test.running; }
        std::optional<KRCapture> pull() override { return test.pull(); }
        bool suits(const KRSize& size) const override { return size.width <= test.openedFor; }

    private:
        LiveCameraTest& test;
    };

    LiveCameraTest() { initGStreamer(); }

    static KRCapture makeCapture() {
        KRCapture capture;
        gst_video_info_set_format(&capture.info, GST_VIDEO_FORMAT_GRAY8, 320, 240);
        capture.buffer.reset(gst_buffer_new_allocate(nullptr, capture.info.size, nullptr));
        capture.taken = Clock::now();
        return capture;
    }
    /// Waits longer than the test, so the test passes only if the wait is interrupted.
    std::shared_ptr<KRFrame> fetch(std::uint64_t after) {
        return camera->waitForFrame(after, Clock::now() + 2 * test::kPatience);
    }
    std::string errorOf(const std::function<void()>& function) {
        try {
            function();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "no error";
    }

    std::function<void()> open = [] {};
    std::function<std::optional<KRCapture>()> pull = [] {
        sleepMilliseconds(1);
        return makeCapture();
    };
    std::atomic<int> attempts = 0;
    std::atomic<int> running = 0;
    std::atomic<int> openedFor = 0; ///< width
    std::unique_ptr<KRLiveCamera> camera = std::make_unique<KRLiveCamera>(
        0, "camera 0",
        [this](const KRSize& wanted) -> std::unique_ptr<KRImageSource> {
            ++attempts;
            openedFor = wanted.width;
            open();
            return std::make_unique<Source>(*this);
        },
        KRLiveCamera::Silence());
};

TEST_F(LiveCameraTest, RecoversFromAFailureByItselfAndKeepsCounting) {
    std::atomic<bool> plugged = true;
    open = [&] {
        if (!plugged) {
            throw std::runtime_error("no device");
        }
    };
    pull = [&]() -> std::optional<KRCapture> {
        if (!plugged) {
            throw std::runtime_error("unplugged");
        }
        sleepMilliseconds(1);
        return makeCapture();
    };
    camera->open();
    EXPECT_EQ(camera->getStatus().state, "open");
    EXPECT_EQ(camera->getStatus().width, 320);
    const std::uint64_t first = fetch(0)->getNumber();
    plugged = false;
    ASSERT_TRUE(eventually([&] { return camera->getStatus().failure == "no device"; }));
    EXPECT_EQ(camera->getStatus().state, "failed");
    EXPECT_NO_THROW(fetch(0)); // the last frame before the failure
    const std::uint64_t last = fetch(0)->getNumber();
    EXPECT_EQ(errorOf([&] { fetch(last); }), "no device");
    EXPECT_EQ(running, 0);

    plugged = true;
    ASSERT_TRUE(eventually([&] { return camera->getStatus().state == "open"; }));
    EXPECT_GT(fetch(last)->getNumber(), first);
    EXPECT_EQ(camera->getStatus().failure, "");
    camera->close(); // before the objects that its thread uses
}

TEST_F(LiveCameraTest, AnyExceptionIsAFailure) {
    open = [this] {
        if (attempts == 1) {
            throw 42;
        }
        if (attempts == 2) {
            throw std::bad_alloc();
        }
    };
    EXPECT_EQ(errorOf([&] { camera->open(); }), "an exception that is not a std::exception");
    EXPECT_TRUE(eventually([&] { return camera->getStatus().state == "open"; }));
    EXPECT_EQ(attempts, 3);
    camera->close(); // before the objects that its thread uses
}

TEST_F(LiveCameraTest, RepeatedFailuresAreNotLoggedEachTime) {
    const test::RecordedLog log;
    std::atomic<int> delivered = 0;
    pull = [&]() -> std::optional<KRCapture> {
        if (++delivered % 2 == 0) { // one image each time
            throw std::runtime_error(delivered % 4 == 0 ? "unplugged" : "no signal");
        }
        return makeCapture();
    };
    EXPECT_TRUE(eventually([&] {
        errorOf([&] { camera->open(); }); // tries at once
        return delivered >= 20;
    }));
    camera->close();
    EXPECT_EQ(log.find(KRLogLevel::Error, "camera 0 has failed: no signal").size(), 1U);
    EXPECT_EQ(log.find(KRLogLevel::Error, "camera 0 has failed: unplugged").size(), 1U);
    EXPECT_LE(log.find(KRLogLevel::Info, "camera 0 is open").size(), 3U);
}

TEST_F(LiveCameraTest, FailuresWithChangingReasonsDoNotFloodTheLog) {
    const test::RecordedLog log;
    open = [this] { throw std::runtime_error("error " + std::to_string(attempts)); };
    EXPECT_TRUE(eventually([&] {
        errorOf([&] { camera->open(); }); // tries at once
        return attempts >= 40;
    }));
    camera->close();
    EXPECT_EQ(log.find(KRLogLevel::Error, "camera 0 has failed: error ").size(), 9U);
}

TEST_F(LiveCameraTest, RetriesAtIncreasingIntervals) {
    const auto start = Clock::now();
    std::vector<std::chrono::milliseconds> times; // used by the capture thread until it has ended
    open = [&] {
        times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start));
        throw std::runtime_error("no device");
    };
    EXPECT_EQ(errorOf([&] { camera->open(); }), "no device");
    ASSERT_TRUE(eventually([&] { return attempts >= 4; }));
    camera->close();
    EXPECT_GE(times[1] - times[0], std::chrono::milliseconds(250));
    EXPECT_GE(times[2] - times[1], std::chrono::milliseconds(500));
    EXPECT_GE(times[3] - times[2], std::chrono::milliseconds(1000));
}

TEST_F(LiveCameraTest, OpeningAFailedOneRetriesAtOnce) {
    std::atomic<bool> plugged = false;
    open = [&] {
        if (!plugged) {
            throw std::runtime_error("no device");
        }
    };
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(errorOf([&] { camera->open(); }), "no device");
        EXPECT_GE(attempts, i);
    }
    // If each of them waited, this would take too long.
    auto opening = std::async(std::launch::async, [&] {
        for (int i = 0; i < 15; ++i) {
            EXPECT_EQ(errorOf([&] { camera->open(); }), "no device");
        }
        return true;
    });
    EXPECT_TRUE(test::resultOf(opening));
    plugged = true;
    camera->open();
    EXPECT_EQ(camera->getStatus().state, "open");
    camera->close(); // before the objects that its thread uses
}

TEST_F(LiveCameraTest, ClosingDoesNotWaitForTheNextAttempt) {
    open = [] { throw std::runtime_error("no device"); };
    EXPECT_EQ(errorOf([&] { camera->open(); }), "no device");
    ASSERT_TRUE(eventually([&] { return attempts >= 3; })); // the next one is a second away
    camera->close();
    EXPECT_EQ(fetch(0), nullptr);
    EXPECT_EQ(errorOf([&] { camera->open(); }), "the camera service is shutting down");
}

TEST_F(LiveCameraTest, OneThatNeverDeliversFailsWithAHint) {
    pull = []() -> std::optional<KRCapture> {
        sleepMilliseconds(50);
        return std::nullopt;
    };
    KRLiveCamera silent(
        0, "camera 0", [this](const KRSize&) { return std::make_unique<Source>(*this); },
        KRLiveCamera::Silence{false, "the file may be damaged", kShortLimit});
    EXPECT_EQ(errorOf([&] { silent.open(); }), "no image within 500 ms; the file may be damaged");
}

TEST_F(LiveCameraTest, AWaitingFetchFailsWithTheSource) {
    Event failing;
    std::atomic<bool> first = true;
    pull = [&]() -> std::optional<KRCapture> {
        if (first.exchange(false)) {
            return makeCapture();
        }
        if (failing.hasHappened()) {
            throw std::runtime_error("unplugged");
        }
        sleepMilliseconds(1);
        return std::nullopt;
    };
    camera->open();
    auto fetching = test::startAndLetSleep([&] { return errorOf([&] { fetch(1); }); });
    failing.set();
    EXPECT_EQ(test::resultOf(fetching), "unplugged");
    camera->close();
}

TEST_F(LiveCameraTest, IsReopenedOnlyForALargerPictureThanItServes) {
    std::atomic<bool> failing = false;
    pull = [&]() -> std::optional<KRCapture> {
        if (failing.exchange(false)) {
            throw std::runtime_error("unplugged");
        }
        sleepMilliseconds(1);
        return makeCapture();
    };
    camera->want({320, 240});
    camera->open();
    EXPECT_EQ(openedFor, 320);
    camera->want({160, 120});
    camera->want({320, 300}); // larger, but the same source serves it
    const std::uint64_t before = fetch(fetch(fetch(0)->getNumber())->getNumber())->getNumber();
    EXPECT_EQ(attempts, 1);
    camera->want({640, 480});
    EXPECT_TRUE(eventually([&] { return openedFor == 640; }));
    EXPECT_GT(fetch(before + 1)->getNumber(), before);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(camera->getStatus().failure, "");

    // A requested size counts until the camera closes.
    camera->want({160, 120});
    failing = true;
    ASSERT_TRUE(eventually([&] { return attempts > 2 && running == 1; }));
    EXPECT_EQ(openedFor, 640);
    camera->close(); // before the objects that its thread uses
}

// A frame that is not fetched is released when the next one arrives.
TEST_F(LiveCameraTest, HoldsOnlyTheNewestFrame) {
    std::atomic<int> held = 0;
    pull = [&]() -> std::optional<KRCapture> {
        sleepMilliseconds(1);
        KRCapture capture = makeCapture();
        ++held;
        gst_mini_object_weak_ref(
            GST_MINI_OBJECT(capture.buffer.get()),
            [](gpointer count, GstMiniObject*) { --*static_cast<std::atomic<int>*>(count); }, &held);
        return capture;
    };
    camera->open();
    for (std::uint64_t last = 0; last < 20;) {
        last = fetch(last)->getNumber();
        EXPECT_LE(held, 4); // the newest, the next, and the one that the test holds
    }
    camera->close();
    EXPECT_EQ(held, 0);
}

TEST_F(LiveCameraTest, ClosingWakesWaitingFetches) {
    std::atomic<bool> first = true;
    pull = [&]() -> std::optional<KRCapture> {
        if (first.exchange(false)) {
            return makeCapture();
        }
        sleepMilliseconds(1);
        return std::nullopt;
    };
    camera->open();
    auto fetching = test::startAndLetSleep([&] { return fetch(1) == nullptr; });
    camera->close();
    EXPECT_TRUE(test::resultOf(fetching));
}

TEST_F(LiveCameraTest, SilenceIsAFailureForSourcesThatNeverPause) {
    std::atomic<int> delivered = 0;
    pull = [&]() -> std::optional<KRCapture> {
        if (++delivered <= 3) {
            return makeCapture();
        }
        sleepMilliseconds(50);
        return std::nullopt;
    };
    KRLiveCamera steady(
        0, "camera 0", [this](const KRSize&) { return std::make_unique<Source>(*this); },
        KRLiveCamera::Silence{true, "", kShortLimit});
    steady.open();
    ASSERT_TRUE(eventually([&] { return steady.getStatus().state == "failed"; }));
    EXPECT_EQ(steady.getStatus().failure, "no image within 500 ms");
}

TEST_F(LiveCameraTest, AWaitingFetchGetsTheNextFrame) {
    std::atomic<int> due = 1;
    pull = [&]() -> std::optional<KRCapture> {
        if (due > 0) {
            --due;
            return makeCapture();
        }
        sleepMilliseconds(1);
        return std::nullopt;
    };
    camera->open();
    auto fetching = test::startAndLetSleep([&] { return fetch(1)->getNumber(); });
    ++due;
    EXPECT_EQ(test::resultOf(fetching), 2U);
    camera->close(); // before the objects that its thread uses
}

TEST_F(LiveCameraTest, ASourceThatEndsAtOnceCountsAsOpened) {
    for (int i = 0; i < 20; ++i) {
        std::atomic<bool> first = true;
        pull = [&]() -> std::optional<KRCapture> {
            if (first.exchange(false)) {
                return makeCapture();
            }
            throw std::runtime_error("the source has ended");
        };
        KRLiveCamera ending(
            0, "camera 0", [this](const KRSize&) { return std::make_unique<Source>(*this); },
            KRLiveCamera::Silence());
        EXPECT_EQ(errorOf([&] { ending.open(); }), "no error");
    }
}

} // namespace KR
