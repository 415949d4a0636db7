#include "krlocallanes.hpp"

#include <krplatform/krerror.hpp>

#include <algorithm>
#include <utility>

namespace KR {

void KRLocalLanes::add(std::shared_ptr<KRLocalClient> lane) {
    std::string why;
    {
        const KRLock lock(mutex_);
        if (!gone_) {
            lanes_.push_back({std::move(lane), 0, Clock::now()});
            return;
        }
        why = why_;
    }
    lane->closeSilently(why);
}

KRLocalMessage KRLocalLanes::call(const KRLocalMessage& request) {
    const std::shared_ptr<KRLocalClient> lane = take();
    const struct Return {
        KRLocalLanes& lanes;
        const KRLocalClient& lane;
        ~Return() { lanes.giveBack(lane); }
    } atEnd{*this, *lane};
    try {
        return lane->call(request);
    } catch (const KRError&) {
        if (const auto end = lane->getEnd()) { // which another thread may be about to say here
            noticeGone(*end);
        }
        throw;
    }
}

std::shared_ptr<KRLocalClient> KRLocalLanes::take() {
    std::shared_ptr<KRLocalClient> taken;
    bool opens = false;
    {
        const KRLock lock(mutex_);
        if (gone_) {
            throw KRError("KRLocalConnection", "call", why_);
        }
        // The first of those with the fewest calls, so that lanes that are not needed rest at the end.
        Lane& lane = *std::ranges::min_element(lanes_, {}, &Lane::calls);
        opens = lane.calls > 0 && lanes_.size() < kMaxLanes && !opening_ && Clock::now() >= retry_;
        opening_ = opening_ || opens;
        ++lane.calls;
        taken = lane.client;
    }
    if (opens) {
        try {
            owner_.post([self = shared_from_this()] { self->openAnother(); });
        } catch (const std::exception&) { // lanes are shared
            const KRLock lock(mutex_);
            opening_ = false;
            retry_ = Clock::now() + kRetry;
        }
    }
    return taken;
}

void KRLocalLanes::giveBack(const KRLocalClient& client) noexcept {
    const KRLock lock(mutex_);
    const auto lane = std::ranges::find(lanes_, &client, [](const Lane& each) { return each.client.get(); });
    --lane->calls;
    lane->used = Clock::now();
}

void KRLocalLanes::openAnother() noexcept {
    bool isOpened = false;
    try {
        if (auto lane = owner_.open(shared_from_this())) {
            add(std::move(lane));
            isOpened = true;
        }
    } catch (const std::exception&) { // lanes are shared
    }
    const KRLock lock(mutex_);
    opening_ = false;
    if (!isOpened) {
        retry_ = Clock::now() + kRetry;
    }
}

bool KRLocalLanes::isOpen() const {
    const KRLock lock(mutex_);
    return !gone_;
}

bool KRLocalLanes::setGone(const std::string& why) {
    const KRLock lock(mutex_);
    if (std::exchange(gone_, true)) {
        return false;
    }
    why_ = why;
    return true;
}

void KRLocalLanes::noticeGone(const std::string& why) {
    if (setGone(why)) {
        owner_.onGone(why);
    }
}

std::vector<std::shared_ptr<KRLocalClient>> KRLocalLanes::list() const {
    const KRLock lock(mutex_);
    std::vector<std::shared_ptr<KRLocalClient>> lanes;
    lanes.reserve(lanes_.size());
    for (const Lane& lane : lanes_) {
        lanes.push_back(lane.client);
    }
    return lanes;
}

void KRLocalLanes::close(const std::string& why) {
    for (const auto& lane : list()) {
        lane->close(why); // which this object notices
    }
}

void KRLocalLanes::closeSilently(const std::string& why) {
    setGone(why);
    for (const auto& lane : list()) {
        lane->closeSilently(why);
    }
}

void KRLocalLanes::trim() {
    std::vector<Lane> idle;
    {
        const KRLock lock(mutex_);
        const auto rests = [](const Lane& lane) {
            return lane.calls == 0 && Clock::now() - lane.used > kIdleTime;
        };
        while (lanes_.size() > 1 && rests(lanes_.back())) {
            idle.push_back(std::move(lanes_.back()));
            lanes_.pop_back();
        }
    }
    for (const Lane& lane : idle) {
        lane.client->closeSilently("it was not needed any more");
    }
}

} // namespace KR
