#include "tool/output.hpp"

#include "tool/interruption.hpp"

#include <krplatform/krmutex.hpp>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <thread>
#include <utility>

#include <unistd.h>

namespace KR::tool {

namespace {

constexpr std::chrono::milliseconds kStep{20}; // between two looks for an interruption

// \return 0, or the errno of a failed write
int writeAll(const std::string& text) {
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return 0;
}

} // namespace

struct Output::State {
    explicit State(std::size_t bytes) : capacity(bytes) {}

    const std::size_t capacity;
    KRMutex mutex;
    KRCondition changed;
    std::deque<std::string> queue KR_GUARDED_BY(mutex); // the first one is being written
    std::size_t queuedBytes KR_GUARDED_BY(mutex) = 0;
    int error KR_GUARDED_BY(mutex) = 0; // errno of the write that failed
    bool isEnding KR_GUARDED_BY(mutex) = false;

    bool hasRoomFor(std::size_t bytes) const KR_REQUIRES(mutex) {
        return queue.empty() || queuedBytes + bytes <= capacity;
    }
    void push(std::string text) KR_REQUIRES(mutex) {
        queuedBytes += text.size();
        queue.push_back(std::move(text));
        changed.notifyAll();
    }

    void writeQueue() {
        KRLock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] {
                mutex.assertHeld();
                return isEnding || !queue.empty();
            });
            if (isEnding) {
                return;
            }
            const std::string& text = queue.front(); // stays in place while others are added
            lock.unlock();
            const int failure = writeAll(text);
            lock.lock();
            queuedBytes -= queue.front().size();
            queue.pop_front();
            if (failure != 0) {
                error = failure;
                queue.clear();
                queuedBytes = 0;
                isEnding = true;
            }
            changed.notifyAll();
        }
    }
};

Output::Output(std::size_t capacity) : state_(std::make_shared<State>(capacity)) {
    std::fflush(stdout);
    std::thread([state = state_] { state->writeQueue(); }).detach();
}

Output::~Output() {
    const KRLock lock(state_->mutex);
    state_->isEnding = true;
    state_->changed.notifyAll();
}

bool Output::offer(std::string text) {
    const KRLock lock(state_->mutex);
    if (state_->isEnding || !state_->hasRoomFor(text.size())) {
        return false;
    }
    state_->push(std::move(text));
    return true;
}

void Output::print(std::string text, Interruption& interruption) {
    KRLock lock(state_->mutex);
    while (!state_->isEnding && !state_->hasRoomFor(text.size())) {
        state_->changed.waitUntil(lock, std::chrono::steady_clock::now() + kStep);
        lock.unlock();
        const bool isInterrupted = interruption.hasCome();
        lock.lock();
        if (isInterrupted) {
            return;
        }
    }
    if (!state_->isEnding) {
        state_->push(std::move(text));
    }
}

bool Output::isBroken() const {
    const KRLock lock(state_->mutex);
    return state_->error != 0;
}

std::size_t Output::countQueued() const {
    const KRLock lock(state_->mutex);
    return state_->queue.size();
}

ExitCode Output::finish(Interruption& interruption) {
    constexpr std::chrono::seconds kPatience{1};
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
    KRLock lock(state_->mutex);
    while (state_->error == 0 && !state_->queue.empty() && std::chrono::steady_clock::now() < deadline) {
        state_->changed.waitUntil(lock, std::chrono::steady_clock::now() + kStep);
        lock.unlock();
        if (deadline == std::chrono::steady_clock::time_point::max() && interruption.hasCome()) {
            deadline = std::chrono::steady_clock::now() + kPatience;
        }
        lock.lock();
    }
    const int error = state_->error;
    const std::size_t left = state_->queuedBytes;
    lock.unlock();
    if (error != 0) {
        printError(std::string("standard output cannot be written: ") + std::strerror(error));
        return ExitCode::Failed;
    }
    if (left > 0) {
        printError("standard output is not being read; " + std::to_string(left) + " bytes were not written");
        return ExitCode::Failed;
    }
    return ExitCode::Done;
}

} // namespace KR::tool
