#include "record/recordqueue.hpp"

#include <krinterop/krmcaptopics.hpp>

#include <cassert>
#include <utility>

namespace KR::tool {

std::string Recorded::getTopic() const {
    switch (kind) {
    case Kind::Image:
        return getImageTopic(camera);
    case Kind::Event:
        return getEventTopic(name);
    case Kind::Value:
        break;
    }
    return getMemoryTopic(name);
}

std::size_t Recorded::countBytes() const {
    const std::size_t pixels =
        image ? static_cast<std::size_t>(image->width) * image->height * image->nbLayers : 0;
    return sizeof *this + name.size() + pixels + value.countBytes();
}

void RecordQueue::offer(Recorded recorded) {
    const std::size_t bytes = recorded.countBytes();
    const std::string topic = recorded.getTopic();
    const KRLock lock(mutex_);
    if (closed_) {
        return;
    }
    if (!waiting_.empty() && bytes_ + bytes > capacity_) {
        ++counts_[topic].missed;
        return;
    }
    waiting_.push_back(std::move(recorded));
    bytes_ += bytes;
    ++counts_[topic].came;
    changed_.notifyAll();
}

void RecordQueue::noteMissed(const std::string& topic, std::uint64_t count) {
    const KRLock lock(mutex_);
    counts_[topic].missed += count;
}

void RecordQueue::noteInterruption() {
    const KRLock lock(mutex_);
    ++interruptions_;
}

std::optional<Recorded> RecordQueue::take(std::chrono::steady_clock::time_point deadline) {
    KRLock lock(mutex_);
    changed_.waitUntil(lock, deadline, [this] {
        mutex_.assertHeld();
        return !waiting_.empty() || closed_;
    });
    if (waiting_.empty()) {
        return std::nullopt;
    }
    Recorded oldest = std::move(waiting_.front());
    waiting_.pop_front();
    assert(bytes_ >= oldest.countBytes());
    bytes_ -= oldest.countBytes();
    return oldest;
}

void RecordQueue::close() {
    const KRLock lock(mutex_);
    closed_ = true;
    changed_.notifyAll();
}

bool RecordQueue::isOver() const {
    const KRLock lock(mutex_);
    return closed_ && waiting_.empty();
}

RecordQueue::Counts RecordQueue::getCounts() const {
    const KRLock lock(mutex_);
    return counts_;
}

std::uint64_t RecordQueue::countInterruptions() const {
    const KRLock lock(mutex_);
    return interruptions_;
}

std::size_t RecordQueue::countWaitingBytes() const {
    const KRLock lock(mutex_);
    return bytes_;
}

} // namespace KR::tool
