#include "krlocalcaller.hpp"

#include <cassert>

namespace KR {

bool KRLocalCaller::begin(std::size_t bytes, const std::weak_ptr<KRLocalSession>& session) {
    const KRLock lock(mutex_);
    held_.push_back(session);
    ++running_;
    runningBytes_ += bytes;
    if (isFull()) {
        return true;
    }
    held_.pop_back();
    return false;
}

bool KRLocalCaller::holds(const std::weak_ptr<KRLocalSession>& session) {
    const KRLock lock(mutex_);
    if (!isFull()) {
        return false;
    }
    held_.push_back(session);
    return true;
}

KRLocalCaller::Sessions KRLocalCaller::finish(std::size_t bytes) noexcept {
    const KRLock lock(mutex_);
    assert(running_ > 0 && runningBytes_ >= bytes);
    --running_;
    runningBytes_ -= bytes;
    return isFull() ? Sessions() : std::exchange(held_, {});
}

} // namespace KR
