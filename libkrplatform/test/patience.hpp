#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

namespace KR::test {

/// How long a test waits for something that must happen. Only a failing test waits that long.
constexpr std::chrono::seconds kPatience{30};

/// An event that happens once, and that several threads may wait for. Thread-safe.
class Event {
public:
    void set() {
        const std::lock_guard lock(mutex_);
        happened_ = true;
        happens_.notify_all();
    }
    /// \return whether it happened before the patience ended
    [[nodiscard]] bool wait() const {
        std::unique_lock lock(mutex_);
        return happens_.wait_for(lock, kPatience, [this] { return happened_; });
    }
    [[nodiscard]] bool hasHappened() const {
        const std::lock_guard lock(mutex_);
        return happened_;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable happens_;
    bool happened_ = false;
};

/// Sets the event when destroyed, so that a test that fails halfway leaves no thread waiting.
class SetAtEnd {
public:
    explicit SetAtEnd(Event& event) : event_(event) {}
    ~SetAtEnd() { event_.set(); }
    SetAtEnd(const SetAtEnd&) = delete;
    SetAtEnd& operator=(const SetAtEnd&) = delete;

private:
    Event& event_;
};

/// Polls the condition. \return whether it became true before the patience ended
template <class Condition>
[[nodiscard]] bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Runs the function on a separate thread and returns once that thread is blocked.
/// \throws std::runtime_error it never blocked
template <class Function>
auto startAndLetSleep(Function function) {
    const auto thread = std::make_shared<std::atomic<pid_t>>(0);
    auto result = std::async(std::launch::async, [thread, function] {
        *thread = gettid();
        return function();
    });
    const auto sleeps = [&] {
        std::ifstream file("/proc/self/task/" + std::to_string(*thread) + "/stat");
        std::string line;
        std::getline(file, line);
        const auto afterName = line.rfind(')');
        return afterName != std::string::npos && line.substr(afterName, 3) == ") S";
    };
    if (!eventually([&] { return *thread != 0 && sleeps(); })) {
        throw std::runtime_error("the thread that was to wait does not");
    }
    return result;
}

/// The future's result or exception. \throws std::runtime_error not in time
template <class T>
T resultOf(std::future<T>& future) {
    if (future.wait_for(kPatience) != std::future_status::ready) {
        throw std::runtime_error("what the test waited for did not come");
    }
    return future.get();
}

} // namespace KR::test
