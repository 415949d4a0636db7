#include "recording/krfeedsource.hpp"

#include "krcamera/krimagefeed.hpp"

#include "camera/krframe.hpp"
#include "camera/krsoftwarecontrols.hpp"
#include "conversion/krconverter.hpp"
#include "recording/krimagecapture.hpp"

#include <krplatform/krmutex.hpp>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace KR {

KRImageFeed::~KRImageFeed() = default;

namespace {

constexpr KRSourceKind kFeedKind{"recording", "", 7, nullptr};
constexpr std::chrono::milliseconds kStep{50}; // within which closing a camera wakes its subscribers

class FeedCamera : public KRCamera {
public:
    explicit FeedCamera(std::shared_ptr<KRImageFeed> feed)
        : feed_(std::move(feed)), converter_(std::make_shared<KRConverter>()) {
        status_.state = "opening";
    }

    void open() override {
        feed_->open();
        const KRLock lock(mutex_);
        status_.state = "open";
    }

    void close() override {
        const KRLock lock(mutex_);
        stopping_ = true;
    }

    std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                          std::chrono::steady_clock::time_point deadline) override {
        for (;;) {
            const auto now = std::chrono::steady_clock::now();
            const KRImageFeed::Image image = feed_->waitForImage(after, std::min(deadline, now + kStep));
            const KRLock lock(mutex_);
            if (stopping_) {
                return nullptr;
            }
            if (image.number > 0 && image.image) {
                return share(image);
            }
            if (now >= deadline) {
                return nullptr;
            }
        }
    }

    bool isLast(std::uint64_t number) const override {
        const KRLock lock(mutex_);
        return number == last_;
    }

    Status getStatus() const override {
        const KRLock lock(mutex_);
        return status_;
    }

private:
    /// One frame for all subscribers that get this image, so that it is converted once.
    std::shared_ptr<KRFrame> share(const KRImageFeed::Image& image) KR_REQUIRES(mutex_) {
        if (image.isLast) {
            last_ = image.number;
        }
        if (!newest_ || newest_->getNumber() != image.number) {
            const KRImage& pixels = *image.image;
            const auto info = findImageInfo(pixels.width, pixels.height, pixels.colorSpace);
            if (!info) {
                throw std::runtime_error(
                    "its images are " + std::to_string(pixels.width) + "x" + std::to_string(pixels.height) +
                    " pixels of colour space " + std::to_string(pixels.colorSpace) +
                    "; supported are the sizes of the resolutions 0 to 17 and " + listColorSpaces());
            }
            newest_ = std::make_shared<KRFrame>(image.number, makeCapture(pixels, *info), converter_);
        }
        status_.width = newest_->getWidth();
        status_.height = newest_->getHeight();
        return newest_;
    }

    const std::shared_ptr<KRImageFeed> feed_;
    const std::shared_ptr<KRConverter> converter_;

    mutable KRMutex mutex_;
    Status status_ KR_GUARDED_BY(mutex_);
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
    std::uint64_t last_ KR_GUARDED_BY(mutex_) = 0;          // number of the last image, once delivered
    std::shared_ptr<KRFrame> newest_ KR_GUARDED_BY(mutex_); // delivered last
};

class FeedSource : public KRSource {
public:
    explicit FeedSource(std::shared_ptr<KRImageFeed> feed)
        : KRSource({&kFeedKind, feed->getText(), {}, {}}), feed_(std::move(feed)) {}

    KRControls& getControls() noexcept override { return noControls_; }
    std::shared_ptr<KRCamera> makeCamera(int /*index*/, const std::string& /*title*/) override {
        return std::make_shared<FeedCamera>(feed_);
    }

private:
    const std::shared_ptr<KRImageFeed> feed_;
    KRSoftwareControls noControls_;
};

} // namespace

std::unique_ptr<KRSource> makeFeedSource(std::shared_ptr<KRImageFeed> feed) {
    return std::make_unique<FeedSource>(std::move(feed));
}

} // namespace KR
