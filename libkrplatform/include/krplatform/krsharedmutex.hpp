#pragma once

#include "krplatform/krmutex.hpp"

#include <shared_mutex>

namespace KR {

/// A std::shared_mutex whose use clang can check, as KRMutex: members marked KR_GUARDED_BY are only read with a shared lock
/// and written with an exclusive one.
class KR_THREAD_ATTRIBUTE(capability("mutex")) KRSharedMutex {
public:
    KRSharedMutex() = default;
    KRSharedMutex(const KRSharedMutex&) = delete;
    KRSharedMutex& operator=(const KRSharedMutex&) = delete;

private:
    friend class KRExclusiveLock;
    friend class KRSharedLock;
    std::shared_mutex mutex_;
};

/// Holds a mutex alone from its construction to its destruction. Thread-bound.
class KR_THREAD_ATTRIBUTE(scoped_lockable) KRExclusiveLock {
public:
    explicit KRExclusiveLock(KRSharedMutex& mutex) KR_THREAD_ATTRIBUTE(acquire_capability(mutex))
        : lock_(mutex.mutex_) {}
    ~KRExclusiveLock() KR_THREAD_ATTRIBUTE(release_capability()) {}
    KRExclusiveLock(const KRExclusiveLock&) = delete;
    KRExclusiveLock& operator=(const KRExclusiveLock&) = delete;

private:
    const std::unique_lock<std::shared_mutex> lock_;
};

/// Holds a mutex together with other readers from its construction to its destruction. Thread-bound.
class KR_THREAD_ATTRIBUTE(scoped_lockable) KRSharedLock {
public:
    explicit KRSharedLock(KRSharedMutex& mutex) KR_THREAD_ATTRIBUTE(acquire_shared_capability(mutex))
        : lock_(mutex.mutex_) {}
    ~KRSharedLock() KR_THREAD_ATTRIBUTE(release_capability()) {}
    KRSharedLock(const KRSharedLock&) = delete;
    KRSharedLock& operator=(const KRSharedLock&) = delete;

private:
    const std::shared_lock<std::shared_mutex> lock_;
};

} // namespace KR
