// Vision extractors on the real camera service; everything must be released at the end.

#include "cameratest.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krproxy.hpp>
#include <krvision/krvisionextractor.hpp>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace KR {
namespace {

/// Counts the images that it gets.
class ImageCounter : public KRVisionExtractor {
public:
    ImageCounter(boost::shared_ptr<KRBroker> broker, const std::string& name, int camera = 0)
        : KRVisionExtractor(std::move(broker), name, Resolution::QuarterVga, Space::Yuv422, 30, camera) {}

    void xStartImageProcessing() override {}
    void xProcessImage(KRImage* image) override {
        const std::lock_guard lock(mutex_);
        ++images_[{image->cameraId, image->width, image->colorSpace}];
        sound_ = sound_ && image->timeStamp > lastTime_ && image->data != nullptr;
        lastTime_ = image->cameraId == lastCamera_ ? image->timeStamp : 0;
        lastCamera_ = image->cameraId;
        got_.notify_all();
        if (onImage) {
            onImage(image);
        }
    }
    void xStopImageProcessing() override {}

    std::function<void(KRImage*)> onImage; ///< set before images flow

    /// Blocks until that many images of this kind have arrived since the start. \return whether they have
    bool waitFor(int camera, int width, int colorSpace, int images) {
        std::unique_lock lock(mutex_);
        return got_.wait_for(lock, std::chrono::seconds(60), [&] {
            return images_[{camera, width, colorSpace}] >= images;
        });
    }
    /// Every image had pixels and a later time than the one before from the same camera.
    bool isSound() {
        const std::lock_guard lock(mutex_);
        return sound_;
    }

private:
    std::mutex mutex_;
    std::condition_variable got_;
    std::map<std::tuple<int, int, int>, int> images_; // guarded by mutex_, like the members below
    bool sound_ = true;
    std::int64_t lastTime_ = 0;
    int lastCamera_ = -1;
};

class KRExtractorsOnCameras : public CameraTest {
protected:
    std::multiset<std::string> getOwnThreads() {
        std::multiset<std::string> own;
        for (const std::string& name : getThreadNames()) {
            if (name.starts_with("KRCamera") || name.starts_with("Counter")) {
                own.insert(name);
            }
        }
        return own;
    }

    TemporaryFolder folder;
};

TEST_F(KRExtractorsOnCameras, EightOnTwoCamerasGetTheirImagesAndReleaseEverything) {
    writeFilm(folder / "film.avi");
    start({"test", "file:" + folder / "film.avi"});
    std::vector<KRModuleHandle<ImageCounter>> counters;
    for (int i = 0; i < 8; ++i) {
        counters.push_back(createModule<ImageCounter>(broker, "Counter" + std::to_string(i), i % 2));
    }
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back([this, i] {
            const auto extractor = broker->getProxy("Counter" + std::to_string(i));
            extractor->call("subscribe", "first", 33 + 10 * i, 0.5F);
            extractor->call("subscribe", "second", 200, 1.0F);
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(counters[i]->waitFor(i % 2, 320, Space::Yuv422, 5)) << i;
        EXPECT_EQ(counters[i]->getCurrentPeriod(), 33 + 10 * i);
    }
    for (const auto& counter : counters) {
        const auto extractor = broker->getProxy(counter->getName());
        extractor->call("unsubscribe", "first");
        extractor->call("unsubscribe", "second");
        EXPECT_FALSE(counter->isProcessing());
        EXPECT_EQ(counter->getFrameRate(), -1);
        EXPECT_TRUE(counter->isSound());
    }
    waitUntil([this] { return getOwnThreads().empty(); });
    counters.clear();
    service.reset();
    EXPECT_EQ(broker->getModuleList(), std::vector<std::string>{"KRMemory"});
}

TEST_F(KRExtractorsOnCameras, SettingsChangeWhileImagesFlow) {
    start({"test", "test:snow"});
    const auto counter = createModule<ImageCounter>(broker, "Counter");
    counter->subscribe("client", 33, 0.0F);
    ASSERT_TRUE(counter->waitFor(0, 320, Space::Yuv422, 1));
    EXPECT_TRUE(counter->setResolution(Resolution::Vga));
    EXPECT_TRUE(counter->waitFor(0, 640, Space::Yuv422, 1));
    EXPECT_TRUE(counter->setColorSpace(Space::Luma));
    EXPECT_TRUE(counter->waitFor(0, 640, Space::Luma, 1));
    EXPECT_TRUE(counter->setActiveCamera(1));
    EXPECT_TRUE(counter->waitFor(1, 640, Space::Luma, 1));
    EXPECT_TRUE(counter->setFrameRate(15));
    EXPECT_EQ(counter->getFrameRate(), 15);
    EXPECT_EQ(counter->getMyPeriod("client"), 66);
    EXPECT_FALSE(counter->setColorSpace(1)); // not supported by the service
    EXPECT_EQ(counter->getColorSpace(), Space::Luma);
    EXPECT_FALSE(counter->setActiveCamera(7));
    EXPECT_EQ(counter->getActiveCamera(), 1);
    counter->unsubscribe("client");
}

TEST_F(KRExtractorsOnCameras, OnlyAnExistingCameraCanBePreset) {
    start({"test", "test:snow"});
    const auto counter = createModule<ImageCounter>(broker, "Counter");
    EXPECT_FALSE(counter->setActiveCamera(2));
    EXPECT_TRUE(counter->setActiveCamera(1));
    counter->subscribe("client", 33, 0.0F);
    EXPECT_TRUE(counter->waitFor(1, 320, Space::Yuv422, 1));
}

TEST_F(KRExtractorsOnCameras, ACameraThatCannotBeOpenedMakesOnlyItsExtractorExit) {
    start({"test", "file:" + folder / "missing.mp4"});
    const auto good = createModule<ImageCounter>(broker, "CounterGood", 0);
    const auto bad = createModule<ImageCounter>(broker, "CounterBad", 1);
    good->subscribe("client", 33, 0.0F);
    EXPECT_THROW(broker->getProxy("CounterBad")->call("subscribe", "client", 33, 0.0F), KRError);
    EXPECT_TRUE(bad->isExiting());
    EXPECT_FALSE(bad->isProcessing());
    EXPECT_TRUE(good->waitFor(0, 320, Space::Yuv422, 3));
}

TEST_F(KRExtractorsOnCameras, AnExtractorSurvivesTheEndOfItsCameraAndGetsImagesAgain) {
    start({"gst:videotestsrc num-buffers=3 is-live=true"});
    std::mutex mutex;
    std::condition_variable said;
    int failures = 0;
    const KRLogListener listener([&](const KRLogRecord& record) {
        if (record.message.starts_with("Counter: Could not retrieve image ")) {
            const std::lock_guard lock(mutex);
            ++failures;
            said.notify_all();
        }
    });
    const auto counter = createModule<ImageCounter>(broker, "Counter");
    counter->subscribe("client", 33, 0.0F);
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(said.wait_for(lock, std::chrono::seconds(60), [&] { return failures >= 2; }));
    }
    EXPECT_TRUE(counter->waitFor(0, 320, Space::Yuv422, 7)); // three each time
    EXPECT_TRUE(counter->isProcessing());
    counter->unsubscribe("client");
    EXPECT_FALSE(counter->isProcessing());
}

TEST_F(KRExtractorsOnCameras, TheServiceMayBeDestroyedFirst) {
    start({"test"});
    const auto counter = createModule<ImageCounter>(broker, "Counter");
    counter->onImage = [&](KRImage*) { service->exit(); };
    counter->subscribe("client", 33, 0.0F); // its frame rate is kept for the next service
    EXPECT_TRUE(counter->isProcessing());
    service.reset();
    counter->unsubscribe("client");
    EXPECT_FALSE(counter->isProcessing());
}

} // namespace
} // namespace KR
