#include "service/krsubscription.hpp"

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

KRSubscription::Settings KRSubscription::getSettings() const {
    const KRLock lock(mutex_);
    return settings_;
}

KRSubscription::Position KRSubscription::getPosition() const {
    const KRLock lock(mutex_);
    return {settings_, lastFrame_, moves_, ended_};
}

void KRSubscription::setResolution(int resolution) {
    const KRLock lock(mutex_);
    settings_.resolution = resolution;
}

void KRSubscription::setColorSpace(int colorSpace) {
    const KRLock lock(mutex_);
    settings_.colorSpace = colorSpace;
}

void KRSubscription::setFrameRate(int frameRate) {
    const KRLock lock(mutex_);
    settings_.frameRate = frameRate;
}

void KRSubscription::setCamera(int camera) {
    const KRLock lock(mutex_);
    settings_.camera = camera;
    lastFrame_ = 0;
    ++moves_;
}

void KRSubscription::end() {
    std::shared_ptr<KRFrame> held; // released after the lock
    const KRLock lock(mutex_);
    ended_ = true;
    held.swap(held_);
}

bool KRSubscription::take(const std::shared_ptr<KRFrame>& frame, const Position& position) {
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

void KRSubscription::noteDelivery(const KRFrame& frame) {
    const KRLock lock(mutex_);
    deliveredAt_ = Clock::now();
    ages_.add(deliveredAt_ - frame.getTaken());
    if (delivered_ > 0) {
        intervals_.add(deliveredAt_ - lastDelivery_);
    }
    lastDelivery_ = deliveredAt_;
    ++delivered_;
}

void KRSubscription::release() {
    std::shared_ptr<KRFrame> held; // released after the lock
    const KRLock lock(mutex_);
    noteRelease();
    held.swap(held_);
}

void KRSubscription::noteRelease() {
    if (held_) {
        holds_.add(Clock::now() - deliveredAt_);
    }
}

KRSubscriberInfo KRSubscription::getInfo(const std::string& id) const {
    const Settings settings = getSettings();
    return {id, settings.camera, settings.resolution, settings.colorSpace, settings.frameRate};
}

KRSubscriptionStatistics KRSubscription::getStatistics(const std::string& id) const {
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
