#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krmutex.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace KR {

/// The clock of a broker's modules: KRBroker::getClock(). Thread-safe.
///
/// Usually it is the machine's. A module that reads the time and sleeps by this clock can be evaluated on a recording,
/// faster than real time and with reproducible results: see KRRecordingClock.
class KR_EXPORT KRClock {
public:
    /// A time of this clock; only differences have a meaning.
    using TimePoint = std::chrono::steady_clock::time_point;

    KRClock() = default;
    virtual ~KRClock();
    KRClock(const KRClock&) = delete;
    KRClock& operator=(const KRClock&) = delete;

    /// Never goes back. Only differences have a meaning.
    virtual TimePoint now() const = 0;
    /// Microseconds since the Unix epoch, as the time stamps of images.
    virtual std::int64_t getTime_usec() const = 0;
    /// Blocks the calling thread until now() is `deadline`; returns at once if that has passed.
    virtual void sleepUntil(TimePoint deadline) = 0;
    /// The same for `milliseconds`; returns at once if that is not positive.
    void sleepMilliseconds(int milliseconds);

    /// Sleeps out the period of a loop that fetches images. Returns at once if the images move the clock.
    virtual void pace(TimePoint deadline) = 0;
    /// Whether images move the clock.
    virtual bool isRecording() const noexcept = 0;
    /// Whether a recording has ended; loops that fetch images then end.
    virtual bool hasEnded() const noexcept = 0;
};

/// The machine's clock.
class KR_EXPORT KRMachineClock final : public KRClock {
public:
    TimePoint now() const override;
    std::int64_t getTime_usec() const override;
    void sleepUntil(TimePoint deadline) override;
    void pace(TimePoint deadline) override;
    bool isRecording() const noexcept override { return false; }
    bool hasEnded() const noexcept override { return false; }
};

/// The clock of a recording, that of a broker at "local:?clock=recording": it advances only with the
/// images that the camera service of the broker delivers, to their time stamps.
///
/// The thread that fetched the last image moves the clock: if it sleeps, the clock advances by that time and the sleep
/// returns at once. The same holds for all threads before the first image and after the last one. Other threads sleep until
/// an image with a late enough time stamp. Thread-safe.
class KR_EXPORT KRRecordingClock final : public KRClock {
public:
    /// Step of the clock if the time stamps of two images are unusable: equal, decreasing, or more than an hour apart.
    static constexpr std::chrono::microseconds kUsualStep{33333};

    TimePoint now() const override;
    /// The time stamp of the last image, plus the time slept since; 0 before the first one.
    std::int64_t getTime_usec() const override;
    void sleepUntil(TimePoint deadline) override;
    void pace(TimePoint /*deadline*/) override {}
    bool isRecording() const noexcept override { return true; }
    bool hasEnded() const noexcept override { return ended_; }

    /// Advances to an image that the calling thread has fetched.
    /// \param timeStamp  of the image, microseconds
    void advanceTo(std::int64_t timeStamp);
    /// There are no more images. Ends all sleeps.
    void end();

private:
    mutable KRMutex mutex_;
    KRCondition moved_;
    bool started_ KR_GUARDED_BY(mutex_) = false;
    std::thread::id mover_ KR_GUARDED_BY(mutex_); // fetched the last image
    std::int64_t lastImage_ KR_GUARDED_BY(mutex_) = 0;
    TimePoint imageTime_ KR_GUARDED_BY(mutex_); // when the last image came
    TimePoint now_ KR_GUARDED_BY(mutex_);
    std::atomic<bool> ended_ = false; // written with mutex_ held
};

} // namespace KR
