#pragma once

#include <chrono>
#include <cstdlib>
#include <future>
#include <utility>

#include <signal.h>

namespace KR::tool {

/// Ctrl-C, SIGTERM and a terminal that is closed, waited for instead of ending the program. Make it before any thread
/// starts: those that come after it leave the signals to it.
class Interruption {
public:
    Interruption();
    /// The signals do what they did before.
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// \return whether one of them came before `time` had passed; if so, every later wait says so at once
    bool waitFor(std::chrono::milliseconds time);
    /// \return whether one of them has come
    bool hasCome() { return waitFor(std::chrono::milliseconds(0)); }

private:
    sigset_t signals_;
    sigset_t before_;
    bool happened_ = false;
};

/// Does something that may wait for long, and that nothing can wake, on a thread of its own. If the program is
/// interrupted before it is done, the program ends at once, with exit code 0.
/// \return what `work` returns \throws what `work` throws
template <class Work>
auto doInterruptibly(Interruption& interruption, Work work) {
    auto done = std::async(std::launch::async, std::move(work));
    while (done.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
        if (interruption.hasCome()) {
            std::_Exit(0);
        }
    }
    return done.get();
}

} // namespace KR::tool
