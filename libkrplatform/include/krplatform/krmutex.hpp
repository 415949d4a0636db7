#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Clang checks these with -Wthread-safety; other compilers see nothing.
#if defined(__clang__)
#define KR_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KR_THREAD_ATTRIBUTE(x)
#endif

/// The member may only be touched with this mutex held.
#define KR_GUARDED_BY(mutex) KR_THREAD_ATTRIBUTE(guarded_by(mutex))
/// What the member points to may only be touched with this mutex held.
#define KR_POINTEE_GUARDED_BY(mutex) KR_THREAD_ATTRIBUTE(pt_guarded_by(mutex))
/// The caller holds these mutexes.
#define KR_REQUIRES(...) KR_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// The caller does not hold these mutexes.
#define KR_EXCLUDES(...) KR_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// This mutex is locked after those.
#define KR_ACQUIRED_AFTER(...) KR_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
/// The function locks in a way that the analysis cannot follow.
#define KR_NO_THREAD_SAFETY_ANALYSIS KR_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace KR {

/// A std::mutex whose use clang can check: members marked KR_GUARDED_BY are only touched with it held.
class KR_THREAD_ATTRIBUTE(capability("mutex")) KRMutex {
public:
    KRMutex() = default;
    KRMutex(const KRMutex&) = delete;
    KRMutex& operator=(const KRMutex&) = delete;

    void lock() KR_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
    void unlock() KR_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
    /// \return whether the mutex is locked by the caller now
    bool try_lock() KR_THREAD_ATTRIBUTE(try_acquire_capability(true)) { return mutex_.try_lock(); }
    /// Tells the analysis that the caller holds the mutex, as in the predicate of a wait. Does nothing at run time.
    void assertHeld() const KR_THREAD_ATTRIBUTE(assert_capability(this)) {}

private:
    friend class KRLock;
    std::mutex mutex_;
};

/// Holds a mutex from its construction to its destruction, except between unlock() and lock(). Thread-bound.
class KR_THREAD_ATTRIBUTE(scoped_lockable) KRLock {
public:
    explicit KRLock(KRMutex& mutex) KR_THREAD_ATTRIBUTE(acquire_capability(mutex)) : lock_(mutex.mutex_) {}
    ~KRLock() KR_THREAD_ATTRIBUTE(release_capability()) {}
    KRLock(const KRLock&) = delete;
    KRLock& operator=(const KRLock&) = delete;

    void lock() KR_THREAD_ATTRIBUTE(acquire_capability()) { lock_.lock(); }
    void unlock() KR_THREAD_ATTRIBUTE(release_capability()) { lock_.unlock(); }

private:
    friend class KRCondition;
    std::unique_lock<std::mutex> lock_;
};

/// A condition variable for KRLock. Wake-ups may be spurious. In a predicate that reads guarded members, call
/// assertHeld() of their mutex first: the analysis looks at a lambda by itself.
class KRCondition {
public:
    /// Wakes one thread that waits.
    void notifyOne() noexcept { condition_.notify_one(); }
    /// Wakes all threads that wait.
    void notifyAll() noexcept { condition_.notify_all(); }

    /// Waits to be woken, which may happen without a reason.
    void wait(KRLock& lock) { condition_.wait(lock.lock_); }
    /// Waits until the predicate is true.
    template <typename Predicate>
    void wait(KRLock& lock, Predicate predicate) {
        condition_.wait(lock.lock_, predicate);
    }
    /// \return false at the deadline
    bool waitUntil(KRLock& lock, std::chrono::steady_clock::time_point deadline) {
        return condition_.wait_until(lock.lock_, deadline) == std::cv_status::no_timeout;
    }
    /// \return the predicate's value, at the deadline at the latest
    template <typename Predicate>
    bool waitUntil(KRLock& lock, std::chrono::steady_clock::time_point deadline, Predicate predicate) {
        return condition_.wait_until(lock.lock_, deadline, predicate);
    }
    /// Waits until the predicate is true, for as long as the patience lasts. \return the predicate
    template <typename Rep, typename Period, typename Predicate>
    bool waitFor(KRLock& lock, std::chrono::duration<Rep, Period> patience, Predicate predicate) {
        return condition_.wait_for(lock.lock_, patience, predicate);
    }

private:
    std::condition_variable condition_;
};

} // namespace KR
