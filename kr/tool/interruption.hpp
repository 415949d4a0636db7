#pragma once

#include <chrono>
#include <cstdlib>
#include <future>
#include <utility>

#include <signal.h>

namespace KR::tool {

/// Waits for Ctrl-C, SIGTERM and the hang-up of the terminal, which do not end the program meanwhile. Construct it
/// before any thread starts: later threads inherit the blocked signals. Thread-bound.
class Interruption {
public:
    /// What SIGHUP does: it interrupts, or it asks to read a file again, unless the terminal has been closed.
    enum class HangUp { Interrupts, Reloads };

    explicit Interruption(HangUp hangUp = HangUp::Interrupts);
    /// Restores what the signals did before.
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Waits for one of the signals. Once one has come, every wait returns at once; a request to reload ends the wait.
    /// \return whether one has come
    bool waitFor(std::chrono::milliseconds time);
    /// \return whether one of the signals has come
    bool hasCome() { return waitFor(std::chrono::milliseconds(0)); }

    /// Whether a request to reload has come since the last call.
    bool takeReload() { return std::exchange(reload_, false); }

private:
    void note(int signal);

    const HangUp hangUp_;
    const bool hadTerminal_;
    sigset_t signals_;
    sigset_t before_;
    bool happened_ = false;
    bool reload_ = false;
};

/// Runs `work`, which may block for long and cannot be woken, on a separate thread. An interruption meanwhile ends
/// the program at once, with exit code 0.
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
