#include "krcallthreads.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krthread.hpp"

#include <deque>
#include <list>
#include <thread>

namespace KR {

struct KRCallThreads::State {
    using Threads = std::list<std::thread>;

    KRMutex mutex;
    KRCondition wake;
    std::deque<std::function<void()>> jobs KR_GUARDED_BY(mutex);
    Threads running KR_GUARDED_BY(mutex);
    Threads retired KR_GUARDED_BY(mutex); // ended or about to; the next thread that retires joins them
    std::size_t idle KR_GUARDED_BY(mutex) = 0;
    bool stopping KR_GUARDED_BY(mutex) = false;

    static void run(std::shared_ptr<State> state, Threads::iterator self) noexcept;
    static void runJob(std::function<void()>& job) noexcept;
};

KRCallThreads::KRCallThreads() : state_(std::make_shared<State>()) {}

KRCallThreads::~KRCallThreads() {
    State::Threads threads;
    {
        const KRLock lock(state_->mutex);
        state_->stopping = true;
        state_->wake.notifyAll();
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
    if (state_->jobs.size() <= state_->idle) {
        state_->wake.notifyOne();
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

void KRCallThreads::State::runJob(std::function<void()>& job) noexcept {
    try {
        setThreadName("KRCall"); // the last job may have left its own
        job();
        job = nullptr; // what it holds is destroyed without the lock
    } catch (...) {    // jobs catch what their callers can be told; what is left is no memory for that
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
            ++state->idle;
            const bool woken = state->wake.waitFor(lock, kIdleTime, [&] {
                state->mutex.assertHeld();
                return !state->jobs.empty() || state->stopping;
            });
            --state->idle;
            if (!woken) {
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
