#include "krcallthreads.hpp"

#include "krplatform/krthread.hpp"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>

namespace KR {

namespace {

constexpr std::chrono::microseconds kLookingTime{50};

} // namespace

struct KRCallThreads::State {
    using Threads = std::list<std::thread>;

    std::mutex mutex;
    std::condition_variable wake;
    // All guarded by mutex.
    std::deque<std::function<void()>> jobs;
    Threads running;
    Threads retired; // ended or about to, to be joined by whoever comes next
    std::size_t idle = 0;
    std::size_t looking = 0; // of idle: awake still, and sure to look for jobs before they sleep
    bool stopping = false;

    std::atomic<std::size_t> jobsWaiting =
        0; // the size of jobs, for a look without the lock; changed with it

    /// Waits for a job that comes soon, as the next of a row of calls does, without falling asleep and being woken;
    /// others may run meanwhile.
    void lookForJobs() const {
        const auto end = std::chrono::steady_clock::now() + kLookingTime;
        while (jobsWaiting.load(std::memory_order_acquire) == 0 && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
    }

    static void run(std::shared_ptr<State> state, Threads::iterator self);
};

KRCallThreads::KRCallThreads() : state_(std::make_shared<State>()) {}

KRCallThreads::~KRCallThreads() {
    State::Threads threads;
    {
        const std::lock_guard lock(state_->mutex);
        state_->stopping = true;
        state_->wake.notify_all();
    }
    // Jobs may post jobs, and so start threads, until the last one has ended.
    for (;;) {
        {
            const std::lock_guard lock(state_->mutex);
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
    const std::lock_guard lock(state_->mutex);
    state_->jobs.push_back(std::move(job));
    state_->jobsWaiting = state_->jobs.size();
    if (state_->jobs.size() <= state_->idle) {
        if (state_->jobs.size() > state_->looking) {
            state_->wake.notify_one();
        }
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
        state_->jobsWaiting = state_->jobs.size();
        throw;
    }
}

std::size_t KRCallThreads::getCount() const {
    const std::lock_guard lock(state_->mutex);
    return state_->running.size();
}

void KRCallThreads::State::run(std::shared_ptr<State> state, Threads::iterator self) {
    const std::string name = "KRCall";
    Threads retired;
    {
        std::unique_lock lock(state->mutex);
        for (;;) {
            if (!state->jobs.empty()) {
                std::function<void()> job = std::move(state->jobs.front());
                state->jobs.pop_front();
                state->jobsWaiting = state->jobs.size();
                lock.unlock();
                setThreadName(name); // the last job may have left its own
                job();
                job = nullptr; // what it holds goes without the lock
                lock.lock();
                if (state->jobs.empty() && !state->stopping) {
                    ++state->idle;
                    ++state->looking;
                    lock.unlock();
                    state->lookForJobs();
                    lock.lock();
                    --state->looking;
                    --state->idle;
                }
                continue;
            }
            if (state->stopping) {
                return; // the destructor joins
            }
            ++state->idle;
            const bool woken = state->wake.wait_for(lock, kIdleTime,
                                                    [&] { return !state->jobs.empty() || state->stopping; });
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
