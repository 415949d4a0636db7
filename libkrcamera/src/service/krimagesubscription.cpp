#include "service/krimagesubscription.hpp"

#include "camera/krframe.hpp"

#include <algorithm>
#include <limits>
#include <utility>

namespace KR {

namespace {

int toInt(std::uint64_t count) noexcept {
    return static_cast<int>(std::min<std::uint64_t>(count, std::numeric_limits<int>::max()));
}

} // namespace

KRImageSubscription::Settings KRImageSubscription::getSettings() const {
    const KRLock lock(mutex_);
    return settings_;
}

KRImageSubscription::Position KRImageSubscription::getPosition() const {
    const KRLock lock(mutex_);
    return {settings_, lastFrame_, moves_, ended_};
}

void KRImageSubscription::setResolution(int resolution) {
    const KRLock lock(mutex_);
    settings_.resolution = resolution;
}

void KRImageSubscription::setColorSpace(int colorSpace) {
    const KRLock lock(mutex_);
    settings_.colorSpace = colorSpace;
}

void KRImageSubscription::setFrameRate(int frameRate) {
    const KRLock lock(mutex_);
    settings_.frameRate = frameRate;
}

void KRImageSubscription::setCamera(int camera) {
    const KRLock lock(mutex_);
    settings_.camera = camera;
    lastFrame_ = 0;
    ++moves_;
}

void KRImageSubscription::end() {
    std::shared_ptr<KRFrame> held; // released after the lock
    const KRLock lock(mutex_);
    ended_ = true;
    held.swap(held_);
}

bool KRImageSubscription::take(const std::shared_ptr<KRFrame>& frame, const Position& position) {
    std::shared_ptr<KRFrame> before; // released after the lock
    const KRLock lock(mutex_);
    if (ended_ || moves_ != position.moves || lastFrame_ >= frame->getNumber()) {
        return false;
    }
    if (lastFrame_ > 0) {
        missed_ += frame->getNumber() - lastFrame_ - 1;
    }
    lastFrame_ = frame->getNumber();
    noteRelease();
    before = std::exchange(held_, frame);
    deliveredAt_ = Clock::now();
    return true;
}

void KRImageSubscription::noteDelivery(const KRFrame& frame) {
    const KRLock lock(mutex_);
    deliveredAt_ = Clock::now();
    ages_.add(deliveredAt_ - frame.getTaken());
    if (delivered_ > 0) {
        intervals_.add(deliveredAt_ - lastDelivery_);
    }
    lastDelivery_ = deliveredAt_;
    ++delivered_;
}

void KRImageSubscription::release() {
    std::shared_ptr<KRFrame> held; // released after the lock
    const KRLock lock(mutex_);
    noteRelease();
    held.swap(held_);
}

void KRImageSubscription::noteRelease() {
    if (held_) {
        holds_.add(Clock::now() - deliveredAt_);
    }
}

KRSubscriberInfo KRImageSubscription::getInfo(const std::string& id) const {
    const Settings settings = getSettings();
    return {id, settings.camera, settings.resolution, settings.colorSpace, settings.frameRate};
}

KRSubscriptionStatistics KRImageSubscription::getStatistics(const std::string& id) const {
    const KRLock lock(mutex_);
    return {id,
            settings_.camera,
            toInt(delivered_),
            toInt(missed_),
            ages_.summarize(),
            intervals_.summarize(),
            holds_.summarize()};
}

} // namespace KR
