#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace KR {

/// Threads that run posted calls: as many as there are calls in progress, however long these block.
/// Of several without work the one that was busy last gets the next job; one without work retires after a while.
/// Thread-safe.
class KRCallThreads {
public:
    static constexpr std::chrono::seconds kIdleTime{2};

    KRCallThreads();
    /// Runs what was posted, then ends the threads. May be called on one of them.
    ~KRCallThreads();

    /// Runs the job on one of the threads, soon. What the job throws is dropped, with an error in the log.
    /// \throws std::system_error no thread could be started, std::bad_alloc; the job is dropped
    void post(std::function<void()> job);

    std::size_t getCount() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace KR
