#pragma once

#include "krmotionextractor.hpp"

#include <chrono>
#include <mutex>
#include <optional>
#include <vector>

/// A motion extractor that keeps account of when its images came.
class WatchedMotion : public KRMotionExtractor {
public:
    using KRMotionExtractor::KRMotionExtractor;

    struct Account {
        int frames = 0;      ///< since the last account
        double rate = 0;     ///< images per second
        double jitterMs = 0; ///< standard deviation of the intervals between images
    };

    /// What has happened since the last call, or since the start.
    Account takeAccount();

    void xProcessImage(KR::KRImage* image) override;

private:
    using Clock = std::chrono::steady_clock;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::vector<double> intervalsMs_;
    std::optional<Clock::time_point> lastImage_; // none before the first one and after a pause
    Clock::time_point lastAccount_ = Clock::now();
    int frames_ = 0;
};
