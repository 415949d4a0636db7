#pragma once

#include "service/krdurationhistogram.hpp"

#include <krplatform/krcamerainfo.hpp>
#include <krplatform/krmutex.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace KR {

class KRFrame;

/// One subscription: its settings, the image it holds, and its statistics. Thread-safe.
class KRImageSubscription {
public:
    struct Settings {
        int camera;
        int resolution;
        int colorSpace;
        int frameRate; ///< images per second
    };
    /// State at the start of a fetch.
    struct Position {
        Settings settings;
        std::uint64_t lastFrame; ///< number of the frame fetched last from this camera; 0: none yet
        std::uint64_t moves;     ///< how often the subscription has changed its camera
        bool ended;
    };

    /// \param number  increases from subscription to subscription
    /// \param caller  the process that subscribed; empty for this one
    KRImageSubscription(std::uint64_t number, const Settings& settings, std::string caller = {})
        : number_(number), caller_(std::move(caller)), settings_(settings) {}

    std::uint64_t getNumber() const noexcept { return number_; }
    const std::string& getCaller() const noexcept { return caller_; }
    Settings getSettings() const;
    Position getPosition() const;

    void setResolution(int resolution);
    void setColorSpace(int colorSpace);
    void setFrameRate(int frameRate);
    void setCamera(int camera) KR_REQUIRES(moving);
    /// Releases the image and refuses further ones.
    void end() KR_REQUIRES(moving);

    /// Replaces the held frame by this one.
    /// \return false, and nothing has changed: the subscription has ended or moved since, or another thread has taken
    /// this frame or a newer one
    bool take(const std::shared_ptr<KRFrame>& frame, const Position& position);
    /// Records that the frame taken last is delivered now.
    void noteDelivery(const KRFrame& frame);
    /// Releases the frame that is held, if any.
    void release();

    KRSubscriberInfo getInfo(const std::string& id) const;
    KRSubscriptionStatistics getStatistics(const std::string& id) const;

    KRMutex moving; ///< held while the subscription changes its camera or ends; taken before the private one

private:
    using Clock = std::chrono::steady_clock;

    void noteRelease() KR_REQUIRES(mutex_);

    const std::uint64_t number_;
    const std::string caller_;

    mutable KRMutex mutex_;
    Settings settings_ KR_GUARDED_BY(mutex_);
    std::uint64_t lastFrame_ KR_GUARDED_BY(mutex_) = 0;
    std::uint64_t moves_ KR_GUARDED_BY(mutex_) = 0;
    bool ended_ KR_GUARDED_BY(mutex_) = false;
    std::shared_ptr<KRFrame> held_ KR_GUARDED_BY(mutex_);
    Clock::time_point deliveredAt_ KR_GUARDED_BY(mutex_); ///< when the frame that is held was delivered
    std::uint64_t delivered_ KR_GUARDED_BY(mutex_) = 0;
    std::uint64_t missed_ KR_GUARDED_BY(mutex_) = 0;
    Clock::time_point lastDelivery_ KR_GUARDED_BY(mutex_);
    KRDurationHistogram ages_ KR_GUARDED_BY(mutex_);
    KRDurationHistogram intervals_ KR_GUARDED_BY(mutex_);
    KRDurationHistogram holds_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
