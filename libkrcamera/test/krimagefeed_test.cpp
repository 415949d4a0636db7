#include "krcamera/krimagefeed.hpp"

#include "cameratest.hpp"

#include <krplatform/krclock.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>

namespace KR {

using testing::HasSubstr;

namespace {

constexpr std::int64_t kBeginning_usec = 1'500'000'000'000'000;

/// Images of 160x120 luma; number i is filled with i. Each subscriber gets every image.
class TestFeed : public KRImageFeed {
public:
    explicit TestFeed(std::uint64_t count) : count_(count) {}

    std::string getText() const override { return "test feed"; }
    void open() override { ++openings; }
    Image waitForImage(std::uint64_t after, std::chrono::steady_clock::time_point deadline) override {
        const std::uint64_t number = after + 1;
        if (number > available) {
            std::this_thread::sleep_until(deadline);
            return {};
        }
        if (number > count_) {
            throw std::runtime_error("no more images");
        }
        KRImage image(size, kLumaColorSpace, false, 0.1F, 0.2F, 0.3F, 0.4F);
        std::fill_n(image.data.get(), image.width * image.height, static_cast<unsigned char>(number));
        image.timeStamp = kBeginning_usec + static_cast<std::int64_t>(number) * 40'000;
        return {number, image, number == count_};
    }

    std::atomic<int> openings = 0;
    std::atomic<int> size = 0;
    std::atomic<std::uint64_t> available = 1000; ///< highest number that is available without waiting

private:
    const std::uint64_t count_;
};

class FeedTest : public CameraTest {
protected:
    void startWith(std::vector<std::shared_ptr<KRImageFeed>> feeds) {
        service = createModule<KRVideoDevice>(broker, "KRVideoDevice", std::move(feeds));
        proxy = std::make_unique<KRVideoDeviceProxy>(broker);
    }
    const std::shared_ptr<TestFeed> feed = std::make_shared<TestFeed>(3);
};

/// Records the images that it gets.
class FeedExtractor : public KRVisionExtractor {
public:
    FeedExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : KRVisionExtractor(broker, name, 0, kLumaColorSpace, 1, 0), clock_(broker->getClock()) {}
    void xStartImageProcessing() override {}
    void xProcessImage(KRImage* image) override {
        seen.push_back(image->data[0]);
        EXPECT_EQ(clock_.getTime_usec(), image->timeStamp);
    }
    void xStopImageProcessing() override {}
    std::vector<int> seen; // on the acquisition thread; afterwards read by the test

private:
    KRClock& clock_;
};

} // namespace

TEST_F(FeedTest, ItsImagesAreThoseOfTheCamera) {
    startWith({std::make_shared<TestFeed>(1), feed});
    EXPECT_EQ(proxy->getCameraModel(1), 7);
    const auto cameras = proxy->getCameraList();
    ASSERT_EQ(cameras.size(), 2U);
    EXPECT_EQ(cameras[1].source, "test feed");
    EXPECT_EQ(cameras[1].state, "closed");
    const std::string id = subscribe(1, Resolution::QuarterVga, Space::Luma);
    for (int i = 1; i <= 3; ++i) {
        const Image image = fetch(id);
        EXPECT_EQ(image.width, 320);
        EXPECT_EQ(image.at(100, 100)[0], i);
        EXPECT_EQ(image.time_usec, kBeginning_usec + i * 40'000);
        EXPECT_EQ(image.angles, (std::array{0.1F, 0.2F, 0.3F, 0.4F}));
        EXPECT_EQ(image.camera, 1);
    }
    EXPECT_THAT(errorOf([&] { fetch(id); }), HasSubstr("no more images"));
    EXPECT_EQ(feed->openings, 1);
}

TEST_F(FeedTest, AMissingImageIsAwaitedAsLongAsFromACamera) {
    feed->available = 0;
    startWith({feed});
    const std::string id = subscribe(0, 0, Space::Luma);
    EXPECT_THAT(errorOf([&] { proxy->getImageRemote(id); }), HasSubstr("no image within 200 ms"));
    auto fetched = std::async(std::launch::async, [&] { return fetch(id).at(0, 0)[0]; });
    feed->available = 1;
    EXPECT_EQ(fetched.get(), 1);
}

TEST_F(FeedTest, ASizeWithoutAResolutionIsRefused) {
    feed->size = 3; // 1280x960
    startWith({feed});
    EXPECT_EQ(fetch(subscribe(0, 0, Space::Luma)).width, 160);
    class OddFeed : public TestFeed {
    public:
        OddFeed() : TestFeed(1) {}
        Image waitForImage(std::uint64_t, std::chrono::steady_clock::time_point) override {
            return {1, KRImage(33, 22, kLumaColorSpace, false, 0, 0, 0, 0), true};
        }
    };
    service.reset();
    startWith({std::make_shared<OddFeed>()});
    const std::string id = subscribe(0, 0, Space::Luma);
    EXPECT_THAT(errorOf([&] { proxy->getImageRemote(id); }),
                HasSubstr("its images are 33x22 pixels of colour space 0; supported are"));
}

TEST_F(FeedTest, AnExtractorOnTheClockOfARecordingGetsEachImageOnceAndEnds) {
    broker = KRBroker::create("local:?clock=recording");
    startWith({std::make_shared<TestFeed>(200)});
    const auto extractor = createModule<FeedExtractor>(broker, "Extractor"); // its period is a second
    const auto extractorProxy = broker->getProxy("Extractor");
    extractorProxy->call("subscribe", "test");
    waitUntil([&] { return !extractor->isProcessing(); });
    EXPECT_EQ(extractor->getFailure(), "");
    extractorProxy->call("unsubscribe", "test");
    std::vector<int> expected;
    for (int i = 1; i <= 200; ++i) {
        expected.push_back(i);
    }
    EXPECT_EQ(extractor->seen, expected);
}

} // namespace KR
