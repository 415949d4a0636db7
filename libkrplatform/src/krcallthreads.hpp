#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace KR {

/// Threads that run posted calls: as many as calls in progress, even if these block.
/// Of several idle threads, the one that was busy last gets the next job; idle threads end after a while.
/// Thread-safe.
class KRCallThreads {
public:
    static constexpr std::chrono::seconds kIdleTime{2};

    KRCallThreads();
    /// Runs the posted jobs, then ends the threads. May be called on one of them.
    ~KRCallThreads();

    /// Runs the job on one of the threads, soon. Exceptions of the job are logged and dropped.
    /// \throws std::system_error no thread could be started, std::bad_alloc; the job is dropped
    void post(std::function<void()> job);

    std::size_t getCount() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace KR
