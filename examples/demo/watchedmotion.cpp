#include "watchedmotion.hpp"

#include <cmath>
#include <numeric>

void WatchedMotion::xProcessImage(KR::KRImage* image) {
    KRMotionExtractor::xProcessImage(image);
    const auto now = Clock::now();
    const KR::KRLock lock(mutex_);
    if (lastImage_) {
        intervalsMs_.push_back(std::chrono::duration<double, std::milli>(now - *lastImage_).count());
    }
    lastImage_ = now;
    ++frames_;
}

WatchedMotion::Account WatchedMotion::takeAccount() {
    const auto now = Clock::now();
    const KR::KRLock lock(mutex_);
    Account account;
    account.frames = frames_;
    account.rate = frames_ / std::chrono::duration<double>(now - lastAccount_).count();
    if (!intervalsMs_.empty()) {
        const auto count = static_cast<double>(intervalsMs_.size());
        const double mean = std::accumulate(intervalsMs_.begin(), intervalsMs_.end(), 0.0) / count;
        double squares = 0;
        for (const double interval : intervalsMs_) {
            squares += (interval - mean) * (interval - mean);
        }
        account.jitterMs = std::sqrt(squares / count);
    }
    if (isPaused()) {
        lastImage_.reset();
    }
    intervalsMs_.clear();
    frames_ = 0;
    lastAccount_ = now;
    return account;
}
