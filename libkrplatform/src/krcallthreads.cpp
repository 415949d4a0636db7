#include "krcallthreads.hpp"

#include "krplatform/krthread.hpp"

#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>

namespace KR {

struct KRCallThreads::State {
    using Threads = std::list<std::thread>;

    std::mutex mutex;
    std::condition_variable wake;
    // All guarded by mutex.
    std::deque<std::function<void()>> jobs;
    Threads running;
    Threads retired; // ended or about to, to be joined by whoever comes next
    std::size_t idle = 0;
    bool stopping = false;

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
    if (state_->jobs.size() <= state_->idle) {
        state_->wake.notify_one();
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
                lock.unlock();
                setThreadName(name); // the last job may have left its own
                job();
                job = nullptr; // what it holds goes without the lock
                lock.lock();
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
