#include "krplatform/krclock.hpp"

#include "krplatform/krthread.hpp"

#include <algorithm>

namespace KR {

namespace {

constexpr std::uint64_t kLongestStep_usec = 3600'000'000;

} // namespace

KRClock::~KRClock() = default;

void KRClock::sleepMilliseconds(int milliseconds) {
    sleepUntil(now() + std::chrono::milliseconds(milliseconds));
}

KRClock::TimePoint KRMachineClock::now() const {
    return std::chrono::steady_clock::now();
}

std::int64_t KRMachineClock::getTime_usec() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void KRMachineClock::sleepUntil(TimePoint deadline) {
    KR::sleepUntil(deadline);
}

void KRMachineClock::pace(TimePoint deadline) {
    KR::sleepUntil(deadline);
}

KRClock::TimePoint KRRecordingClock::now() const {
    const KRLock lock(mutex_);
    return now_;
}

std::int64_t KRRecordingClock::getTime_usec() const {
    const KRLock lock(mutex_);
    const auto slept = std::chrono::duration_cast<std::chrono::microseconds>(now_ - imageTime_).count();
    std::int64_t time = 0; // time stamps of a file may be any
    return __builtin_add_overflow(lastImage_, slept, &time) ? lastImage_ : time;
}

void KRRecordingClock::sleepUntil(TimePoint deadline) {
    KRLock lock(mutex_);
    if (!started_ || ended_ || mover_ == std::this_thread::get_id()) {
        now_ = std::max(now_, deadline);
        moved_.notifyAll();
        return;
    }
    moved_.wait(lock, [&] {
        mutex_.assertHeld();
        return now_ >= deadline || ended_;
    });
}

void KRRecordingClock::advanceTo(std::int64_t timeStamp) {
    const KRLock lock(mutex_);
    if (started_) {
        // Unsigned: time stamps may be further apart than an int64_t can say.
        const std::uint64_t step =
            static_cast<std::uint64_t>(timeStamp) - static_cast<std::uint64_t>(lastImage_);
        const bool saysSomething = timeStamp > lastImage_ && step <= kLongestStep_usec;
        imageTime_ += saysSomething ? std::chrono::microseconds(static_cast<std::int64_t>(step)) : kUsualStep;
        // After sleeps that were longer than the step, the clock is ahead of the image and waits for it.
        now_ = imageTime_ = std::max(now_, imageTime_);
    } else {
        imageTime_ = now_;
    }
    started_ = true;
    lastImage_ = timeStamp;
    mover_ = std::this_thread::get_id();
    moved_.notifyAll();
}

void KRRecordingClock::end() {
    const KRLock lock(mutex_);
    ended_ = true;
    moved_.notifyAll();
}

} // namespace KR
