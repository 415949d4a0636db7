#include "krlimitedlog.hpp"

#include <utility>

namespace KR {

void KRLimitedLog::write(KRLogLevel level, const std::string& message) {
    std::uint64_t omitted = 0;
    bool shown = false;
    {
        const KRLock lock(mutex_);
        omitted = beginInterval();
        shown = lines_ < kLines;
        ++(shown ? lines_ : omitted_);
    }
    logOmitted(omitted);
    if (shown) {
        log(level, category_, message);
    }
}

void KRLimitedLog::flush() {
    std::uint64_t omitted = 0;
    {
        const KRLock lock(mutex_);
        omitted = beginInterval();
    }
    logOmitted(omitted);
}

std::uint64_t KRLimitedLog::beginInterval() {
    const auto now = std::chrono::steady_clock::now();
    if (now - began_ < interval_) {
        return 0;
    }
    began_ = now;
    lines_ = 0;
    return std::exchange(omitted_, 0);
}

void KRLimitedLog::logOmitted(std::uint64_t count) const {
    if (count > 0) {
        logWarning(category_, std::to_string(count) + " more lines about " + subject_ + " were left out");
    }
}

} // namespace KR
