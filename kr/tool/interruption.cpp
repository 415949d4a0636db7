#include "tool/interruption.hpp"

#include <algorithm>
#include <ctime>

namespace KR::tool {

Interruption::Interruption() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    struct sigaction hangUp = {};
    if (::sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler != SIG_IGN) { // nohup ignores it
        sigaddset(&signals_, SIGHUP);
    }
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
}

Interruption::~Interruption() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool Interruption::waitFor(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    std::chrono::nanoseconds left{};
    do { // at least once, for a time of 0
        left = std::max(
            std::chrono::nanoseconds::zero(),
            std::chrono::duration_cast<std::chrono::nanoseconds>(end - std::chrono::steady_clock::now()));
        const timespec timeout{static_cast<std::time_t>(left.count() / 1'000'000'000),
                               static_cast<long>(left.count() % 1'000'000'000)};
        // Fails early if another signal was handled meanwhile.
        happened_ = happened_ || sigtimedwait(&signals_, nullptr, &timeout) > 0;
    } while (!happened_ && left.count() > 0);
    return happened_;
}

} // namespace KR::tool
