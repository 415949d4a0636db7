#include "tool/interruption.hpp"

#include <algorithm>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace KR::tool {

namespace {

bool hasTerminal() {
    const int terminal = ::open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (terminal >= 0) {
        ::close(terminal);
    }
    return terminal >= 0;
}

} // namespace

Interruption::Interruption(HangUp hangUp) : hangUp_(hangUp), hadTerminal_(hasTerminal()) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    struct sigaction before = {};
    if (::sigaction(SIGHUP, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) { // nohup ignores it
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
        if (!happened_) {
            note(sigtimedwait(&signals_, nullptr,
                              &timeout)); // fails early if another signal was handled meanwhile
        }
    } while (!happened_ && !reload_ && left.count() > 0);
    return happened_;
}

void Interruption::note(int signal) {
    if (signal == SIGHUP && hangUp_ == HangUp::Reloads && (!hadTerminal_ || hasTerminal())) {
        reload_ = true;
    } else if (signal > 0) {
        happened_ = true;
    }
}

} // namespace KR::tool
