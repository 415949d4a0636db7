// Tests on a real or simulated device (scripts/test-v4l2). Skipped unless KR_V4L2_DEVICE names one.

#include "cameratest.hpp"

#include "../../libkrplatform/test/patience.hpp"

#include <krplatform/krthread.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <numeric>

namespace KR {
namespace {

/// Records the size and the time stamp of each image.
class Watcher : public KRVisionExtractor {
public:
    Watcher(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : KRVisionExtractor(std::move(broker), name, Resolution::Vga, Space::Yuv422, 30, 0) {}

    void xStartImageProcessing() override {}
    void xProcessImage(KRImage* image) override {
        const std::lock_guard lock(mutex_);
        width_ = image->width;
        height_ = image->height;
        times_.push_back(image->timeStamp);
        got_.notify_all();
    }
    void xStopImageProcessing() override {}

    bool waitForSize(int width, int height) {
        std::unique_lock lock(mutex_);
        return got_.wait_for(lock, test::kPatience, [&] { return width_ == width && height_ == height; });
    }
    /// Median interval between images, over the given number of them, milliseconds.
    double measureInterval(std::size_t images) {
        std::unique_lock lock(mutex_);
        times_.clear();
        EXPECT_TRUE(got_.wait_for(lock, test::kPatience, [&] { return times_.size() > images; }));
        std::vector<std::int64_t> intervals;
        for (std::size_t i = 1; i < times_.size(); ++i) {
            EXPECT_GT(times_[i], times_[i - 1]);
            intervals.push_back(times_[i] - times_[i - 1]);
        }
        std::ranges::sort(intervals);
        return intervals.empty() ? 0 : static_cast<double>(intervals[intervals.size() / 2]) / 1000;
    }

private:
    std::mutex mutex_;
    std::condition_variable got_;
    int width_ = 0; // guarded by mutex_, like the members below
    int height_ = 0;
    std::vector<std::int64_t> times_;
};

class V4l2Device : public CameraTest {
protected:
    void SetUp() override {
        const char* device = std::getenv("KR_V4L2_DEVICE");
        if (device == nullptr) {
            GTEST_SKIP() << "KR_V4L2_DEVICE names no device";
        }
        start({std::string("v4l2:") + device});
    }
    void TearDown() override { service.reset(); }
};

TEST_F(V4l2Device, AnExtractorGetsItsFramesAt30And15PerSecond) {
    const auto watcher = createModule<Watcher>(broker, "Watcher");
    watcher->subscribe("client", 33, 0.0F);
    EXPECT_NEAR(watcher->measureInterval(40), 33.3, 15);
    EXPECT_TRUE(watcher->setFrameRate(15));
    EXPECT_NEAR(watcher->measureInterval(20), 66.7, 30);
    watcher->unsubscribe("client");
    const KRCameraInfo info = proxy->getCameraList()[0];
    EXPECT_EQ(info.state, "closed");
}

TEST_F(V4l2Device, SizesChangeWhileItStreamsAndTheCameraFollowsTheLargest) {
    const auto watcher = createModule<Watcher>(broker, "Watcher");
    watcher->subscribe("client", 33, 0.0F);
    for (const int resolution : {1, 2, 5, 0, 6, 7, 2, 9}) {
        int width = 0;
        int height = 0;
        setSizeFromResolution(resolution, width, height);
        ASSERT_TRUE(watcher->setResolution(resolution));
        ASSERT_TRUE(watcher->waitForSize(width, height)) << width << "x" << height;
        EXPECT_TRUE(test::eventually([&] {
            return proxy->getCameraList()[0].width >= std::min(width, 1920);
        })) << width
            << "x" << height << " of " << proxy->getCameraList()[0].width;
    }
    watcher->unsubscribe("client");
}

TEST_F(V4l2Device, EveryControlIsSetReadBackAndReset) {
    const std::string id = subscribe();
    const std::vector<KRCameraControl> controls = proxy->getControls(0);
    EXPECT_GE(controls.size(), 4U);
    const auto valueOf = [this](int control) {
        for (const KRCameraControl& now : proxy->getControls(0)) {
            if (now.id == control) {
                return now.value;
            }
        }
        ADD_FAILURE() << "control " << control << " has gone";
        return 0;
    };
    constexpr int gain = 0x00980913;
    constexpr int autogain = 0x00980912;
    int changed = 0;
    for (const KRCameraControl& control : controls) {
        if (control.id == gain) {
            proxy->setCameraParameter(id, autogain, 0); // which would change the gain
        }
        bool refused = false;
        for (const int value : {control.minimum, control.maximum}) {
            // Items of a menu may be missing, and a streaming camera may reject a change.
            if (!proxy->setCameraParameter(id, control.id, value)) {
                std::cout << control.name << " refuses " << value << "\n";
                refused = true;
                continue;
            }
            EXPECT_EQ(valueOf(control.id), value) << control.name;
            ++changed;
        }
        EXPECT_FALSE(control.minimum > INT_MIN &&
                     proxy->setCameraParameter(id, control.id, control.minimum - 1))
            << control.name;
        EXPECT_FALSE(control.maximum < INT_MAX &&
                     proxy->setCameraParameter(id, control.id, control.maximum + 1))
            << control.name;
        proxy->setAllCameraParametersToDefault(id);
        EXPECT_TRUE(refused || control.id == gain || valueOf(control.id) == control.defaultValue)
            << control.name << " is " << valueOf(control.id);
    }
    // A control that the camera adjusts automatically cannot be set.
    EXPECT_TRUE(proxy->setCameraParameter(id, autogain, 1));
    EXPECT_FALSE(proxy->setCameraParameter(id, gain, 255));
    std::cout << controls.size() << " controls, " << changed << " values set and read back\n";
    EXPECT_GT(changed, static_cast<int>(controls.size()));
    EXPECT_THAT(errorOf([&] { proxy->setCameraParameter(id, 12, 0); }),
                testing::HasSubstr("has no parameter 12; it has: 0x00"));
    EXPECT_TRUE(test::eventually([&] { return errorOf([&] { fetch(id); }) == "no error"; }));
}

TEST_F(V4l2Device, BrightnessChangesThePicture) {
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Luma);
    const auto sum = [](const Image& image) {
        return std::accumulate(image.data(), image.data() + image.pixels.size(), 0.0) /
               static_cast<double>(image.pixels.size());
    };
    EXPECT_TRUE(proxy->setCameraParameter(id, 0x00980900, 255));
    fetchUntil(id, [&](const Image& image) { return sum(image) > 160; });
    EXPECT_TRUE(proxy->setCameraParameter(id, 0x00980900, 0));
    fetchUntil(id, [&](const Image& image) { return sum(image) < 90; });
    proxy->setAllCameraParametersToDefault(id);
}

} // namespace
} // namespace KR
