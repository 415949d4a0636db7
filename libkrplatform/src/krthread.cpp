#include "krplatform/krthread.hpp"

#include <array>
#include <cerrno>
#include <ctime>
#include <pthread.h>

namespace KR {

namespace {

constexpr std::size_t kKernelNameSize = 16; // with its closing zero

thread_local std::string threadName;

} // namespace

void setThreadName(const std::string& name) {
    if (name == threadName) {
        return; // as before each job of a call thread
    }
    threadName = name;
    pthread_setname_np(pthread_self(), name.substr(0, kKernelNameSize - 1).c_str());
}

std::string getThreadName() {
    if (!threadName.empty()) {
        return threadName;
    }
    std::array<char, kKernelNameSize> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

void sleepMilliseconds(int milliseconds) {
    sleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds));
}

void sleepUntil(std::chrono::steady_clock::time_point deadline) {
    // The kernel takes its time, up to its timer slack, even when there is nothing to sleep.
    if (deadline <= std::chrono::steady_clock::now()) {
        return;
    }
    // std::chrono::steady_clock is CLOCK_MONOTONIC.
    const auto sinceEpoch = deadline.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const timespec until{static_cast<time_t>(seconds.count()),
                         static_cast<long>(std::chrono::nanoseconds(sinceEpoch - seconds).count())};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

} // namespace KR
