#pragma once

#include "camera/krframe.hpp"
#include "service/krdurationhistogram.hpp"

#include <krplatform/krcamerainfo.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace KR {

/// One subscription: its settings, the image it holds, and its account. Thread-safe.
class KRSubscription {
public:
    struct Settings {
        int camera;
        int resolution;
        int colorSpace;
        int frameRate; ///< images per second
    };
    /// What a fetch begins with.
    struct Position {
        Settings settings;
        std::uint64_t lastFrame; ///< number of the frame fetched last from this camera; 0: none yet
        std::uint64_t moves;     ///< how often the subscription has changed its camera
        bool ended;
    };

    /// \param number  rises from subscription to subscription
    KRSubscription(std::uint64_t number, const Settings& settings) : number_(number), settings_(settings) {}

    std::uint64_t getNumber() const noexcept { return number_; }
    Settings getSettings() const;
    Position getPosition() const;

    void setResolution(int resolution);
    void setColorSpace(int colorSpace);
    void setFrameRate(int frameRate);
    /// Goes on with another camera. Only with `moving` held.
    void setCamera(int camera);
    /// Lets go of the image and refuses all others. Only with `moving` held.
    void end();

    /// Takes a frame in place of the one that is held. \return false, and nothing has changed: the
    /// subscription has ended or moved since, or another thread has taken this frame or a newer one
    bool take(const std::shared_ptr<KRFrame>& frame, const Position& position);
    /// The frame taken last goes to the subscriber now.
    void noteDelivery(const KRFrame& frame);
    /// Lets go of the frame that is held, if there is one.
    void release();

    KRSubscriberInfo getInfo(const std::string& id) const;
    KRSubscriptionStatistics getStatistics(const std::string& id) const;

    std::mutex moving; ///< held while the subscription changes its camera or ends; before any lock inside

private:
    using Clock = std::chrono::steady_clock;

    void noteRelease();

    const std::uint64_t number_;

    mutable std::mutex mutex_;
    // Guarded by mutex_:
    Settings settings_;
    std::uint64_t lastFrame_ = 0;
    std::uint64_t moves_ = 0;
    bool ended_ = false;
    std::shared_ptr<KRFrame> held_;
    Clock::time_point deliveredAt_; ///< the image that is held
    std::uint64_t delivered_ = 0;
    std::uint64_t missed_ = 0;
    Clock::time_point lastDelivery_;
    KRDurationHistogram ages_;
    KRDurationHistogram intervals_;
    KRDurationHistogram holds_;
};

} // namespace KR
