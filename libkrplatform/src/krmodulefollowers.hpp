#pragma once

#include "krplatform/krmutex.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace KR {

/// Something that acts when a module appears.
class KRModuleFollower {
public:
    virtual ~KRModuleFollower() = default;
    /// A module became reachable. Must not block, and must not call the followers.
    virtual void noticeModule(const std::string& module) noexcept = 0;
};

/// The followers of a broker. Thread-safe.
class KRModuleFollowers {
public:
    void add(KRModuleFollower& follower) {
        const KRLock lock(mutex_);
        followers_.push_back(&follower);
    }
    /// The follower is not called any more once this has returned.
    void remove(const KRModuleFollower& follower) {
        const KRLock lock(mutex_);
        std::erase(followers_, &follower);
    }
    void noticeModule(const std::string& module) {
        const KRLock lock(mutex_); // so that none is destroyed meanwhile
        for (KRModuleFollower* const follower : followers_) {
            follower->noticeModule(module);
        }
    }

private:
    KRMutex mutex_;
    std::vector<KRModuleFollower*> followers_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
