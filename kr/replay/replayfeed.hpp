#pragma once

#include <krcamera/krimagefeed.hpp>
#include <krplatform/krmutex.hpp>

#include <optional>
#include <string>

namespace KR::tool {

/// A camera that shows the image published last. Thread-safe.
class ReplayFeed : public KRImageFeed {
public:
    explicit ReplayFeed(std::string text) : text_(std::move(text)) {}

    /// Shows an image, whose pixels must not change any more.
    void publish(const KRImage& image);

    std::string getText() const override { return text_; }
    void open() override {}
    Image waitForImage(std::uint64_t after, std::chrono::steady_clock::time_point deadline) override;

private:
    const std::string text_;
    KRMutex mutex_;
    KRCondition changed_;
    std::uint64_t number_ KR_GUARDED_BY(mutex_) = 0;
    std::optional<KRImage> newest_ KR_GUARDED_BY(mutex_);
};

} // namespace KR::tool
