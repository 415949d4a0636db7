#pragma once

#include "krmotionextractor.hpp"

#include <krplatform/krmutex.hpp>

#include <chrono>
#include <optional>
#include <vector>

/// A motion extractor that records when its images arrived.
class WatchedMotion : public KRMotionExtractor {
public:
    using KRMotionExtractor::KRMotionExtractor;

    struct Account {
        int frames = 0;      ///< since the last call
        double rate = 0;     ///< images per second
        double jitterMs = 0; ///< standard deviation of the intervals between images
    };

    /// Statistics since the last call, or since the start.
    Account takeAccount();

    void xProcessImage(KR::KRImage* image) override;

private:
    using Clock = std::chrono::steady_clock;

    KR::KRMutex mutex_;
    std::vector<double> intervalsMs_ KR_GUARDED_BY(mutex_);
    std::optional<Clock::time_point> lastImage_ KR_GUARDED_BY(mutex_); // nullopt at first and after a pause
    Clock::time_point lastAccount_ KR_GUARDED_BY(mutex_) = Clock::now();
    int frames_ KR_GUARDED_BY(mutex_) = 0;
};
