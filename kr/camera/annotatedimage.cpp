#include "camera/annotatedimage.hpp"

#include "camera/cameras.hpp"
#include "system/memory.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/krannotations.hpp>

#include <algorithm>
#include <chrono>
#include <deque>
#include <optional>
#include <stdexcept>
#include <utility>

namespace KR::tool {

namespace {

using Clock = std::chrono::steady_clock;

/// The images that annotations may still come for.
class RecentImages {
public:
    void add(std::unique_ptr<KRImage> image) {
        images_.push_back(std::move(image));
        while (images_.size() > 1 && images_.size() * countBytes(*images_.back()) > kMaxBytes) {
            images_.pop_front();
        }
    }
    /// Null if it is not there.
    std::unique_ptr<KRImage> take(std::int64_t timeStamp) {
        const auto found = std::ranges::find(images_, timeStamp, &KRImage::timeStamp);
        return found == images_.end() ? nullptr : std::move(*found);
    }

private:
    static constexpr std::size_t kMaxBytes = 64 << 20; // two seconds of 640x480 YUV422

    static std::size_t countBytes(const KRImage& image) {
        return static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) *
               static_cast<std::size_t>(image.nbLayers);
    }

    std::deque<std::unique_ptr<KRImage>> images_;
};

/// What a module writes about its images.
class AnnotationsKey {
public:
    AnnotationsKey(const boost::shared_ptr<KRBroker>& broker, std::string module)
        : memory_(findMemory(broker)), module_(std::move(module)) {}

    /// The newest annotations, nullopt if there are none yet. \throws KRError the key holds something else
    /// \throws std::runtime_error they are of another camera
    std::optional<KRAnnotations> read(int camera) {
        KRValue value;
        try {
            value = memory_.getData(module_ + "/Annotations");
        } catch (const KRError&) {
            reason_ = "there is no key " + module_ +
                      "/Annotations: the module does not run or writes no annotations; kr memory list shows "
                      "the keys";
            return std::nullopt;
        }
        if (value.isArray() && value.getSize() == 0) { // declared, not written
            reason_ = module_ + " has written no annotations yet: kr call " + module_ +
                      " subscribe me 100 1.0 starts it";
            return std::nullopt;
        }
        auto annotations = KRAnnotations::fromKRValue(value);
        if (annotations.camera != camera) {
            throw std::runtime_error(module_ + " watches camera " + std::to_string(annotations.camera) +
                                     ", not camera " + std::to_string(camera));
        }
        reason_ = module_ + " wrote no annotations of images of camera " + std::to_string(camera) + " for " +
                  std::to_string(Domain::kPatience.count()) + " s: it is paused or has no subscribers";
        return annotations;
    }
    /// Why nothing was found.
    const std::string& getReason() const noexcept { return reason_; }

private:
    const KRMemoryProxy memory_;
    const std::string module_;
    std::string reason_;
};

} // namespace

std::unique_ptr<KRImage> fetchAnnotatedImage(const Cameras& cameras, Subscription& subscription, int camera,
                                             const std::string& module) {
    AnnotationsKey key(cameras.getBroker(), module);
    RecentImages images;
    const auto end = Clock::now() + Domain::kPatience;
    do {
        images.add(subscription.fetch());
        const auto annotations = key.read(camera);
        if (!annotations) {
            continue;
        }
        if (auto image = images.take(annotations->timeStamp)) {
            drawAnnotations(*image, *annotations);
            return image;
        }
    } while (Clock::now() < end);
    throw std::runtime_error(key.getReason());
}

} // namespace KR::tool
