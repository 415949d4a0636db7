#include "interruption.hpp"

#include <cerrno>
#include <ctime>

namespace KR::tool {

Interruption::Interruption() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
}

Interruption::~Interruption() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool Interruption::waitFor(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!happened_) {
        const auto left =
            std::chrono::duration_cast<std::chrono::nanoseconds>(end - std::chrono::steady_clock::now());
        if (left.count() < 0) {
            break;
        }
        const timespec timeout{static_cast<std::time_t>(left.count() / 1'000'000'000),
                               static_cast<long>(left.count() % 1'000'000'000)};
        happened_ = sigtimedwait(&signals_, nullptr, &timeout) > 0; // or another signal was handled meanwhile
    }
    return happened_;
}

} // namespace KR::tool
