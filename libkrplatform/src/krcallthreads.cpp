#include "krcallthreads.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krthread.hpp"

#include <deque>
#include <list>
#include <new>
#include <thread>

namespace KR {

struct KRCallThreads::State {
    using Threads = std::list<std::thread>;
    /// A thread without a job.
    struct Idle {
        KRCondition wake;
        bool woken = false; // guarded by the mutex
    };

    KRMutex mutex;
    std::deque<std::function<void()>> jobs KR_GUARDED_BY(mutex);
    Threads running KR_GUARDED_BY(mutex);
    Threads retired KR_GUARDED_BY(mutex);       // ended or about to; the next thread that retires joins them
    std::list<Idle*> idle KR_GUARDED_BY(mutex); // most recently busy last, as its data is in the caches
    bool stopping KR_GUARDED_BY(mutex) = false;

    void wakeLast() KR_REQUIRES(mutex) {
        idle.back()->woken = true;
        idle.back()->wake.notifyOne();
        idle.pop_back();
    }
    /// Waits for a job. \return false: none for a while
    bool waitIdle(KRLock& lock) KR_REQUIRES(mutex);

    static void run(std::shared_ptr<State> state, Threads::iterator self) noexcept;
    static void runJob(std::function<void()>& job) noexcept;
};

KRCallThreads::KRCallThreads() : state_(std::make_shared<State>()) {}

KRCallThreads::~KRCallThreads() {
    State::Threads threads;
    {
        const KRLock lock(state_->mutex);
        state_->stopping = true;
        while (!state_->idle.empty()) {
            state_->wakeLast();
        }
    }
    // Jobs may post jobs, and so start threads, until the last one has ended.
    for (;;) {
        {
            const KRLock lock(state_->mutex);
            threads.splice(threads.end(), state_->running);
            threads.splice(threads.end(), state_->retired);
        }
        if (threads.empty()) {
            return;
        }
        for (std::thread& thread : threads) {
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach(); // it holds the state itself
            } else {
                thread.join();
            }
        }
        threads.clear();
    }
}

void KRCallThreads::post(std::function<void()> job) {
    const KRLock lock(state_->mutex);
    state_->jobs.push_back(std::move(job));
    if (!state_->idle.empty()) {
        state_->wakeLast(); // unless a busy thread takes the job first
        return;
    }
    try {
        state_->running.emplace_back();
        const auto self = std::prev(state_->running.end());
        try {
            *self = std::thread(State::run, state_, self);
        } catch (...) {
            state_->running.erase(self);
            throw;
        }
    } catch (...) {
        state_->jobs.pop_back();
        throw;
    }
}

std::size_t KRCallThreads::getCount() const {
    const KRLock lock(state_->mutex);
    return state_->running.size();
}

bool KRCallThreads::State::waitIdle(KRLock& lock) {
    Idle self;
    std::list<Idle*> entry;
    try {
        entry.push_back(&self);
    } catch (const std::bad_alloc&) {
        return false;
    }
    const auto place = entry.begin();
    idle.splice(idle.end(), entry);
    const bool woken = self.wake.waitFor(lock, kIdleTime, [&] {
        mutex.assertHeld();
        return self.woken;
    });
    if (!woken) {
        idle.erase(place);
    }
    return woken;
}

void KRCallThreads::State::runJob(std::function<void()>& job) noexcept {
    try {
        setThreadName("KRCall"); // the last job may have left its own
        job();
        job = nullptr; // destroys its captures without the lock
    } catch (...) {    // jobs catch errors that they can report; only out-of-memory remains
        logError("krplatform.call", "a call thread ran out of memory");
        job = nullptr;
    }
}

void KRCallThreads::State::run(std::shared_ptr<State> state, Threads::iterator self) noexcept {
    Threads retired;
    {
        KRLock lock(state->mutex);
        for (;;) {
            if (!state->jobs.empty()) {
                std::function<void()> job = std::move(state->jobs.front());
                state->jobs.pop_front();
                lock.unlock();
                runJob(job);
                lock.lock();
                continue;
            }
            if (state->stopping) {
                return; // the destructor joins
            }
            if (!state->waitIdle(lock)) {
                break;
            }
        }
        retired.splice(retired.end(), state->retired);
        state->retired.splice(state->retired.end(), state->running, self);
    }
    for (std::thread& thread : retired) {
        thread.join();
    }
}

} // namespace KR
