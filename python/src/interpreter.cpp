#include "interpreter.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krmutex.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

#include <unistd.h>

namespace KR::python {

namespace {

constexpr std::uint64_t kClosed = std::uint64_t{1} << 63;
std::atomic<std::uint64_t> threadsInside = 0; // threads in Python, and kClosed
std::atomic<std::thread::id> closingThread;

/// Ends a process whose modules do not shut down. Never destroyed: its thread may outlive main().
struct Watch {
    KRMutex mutex;
    KRCondition changed;
    bool down KR_GUARDED_BY(mutex) = false;
};
Watch& getWatch() {
    static auto* const watch = new Watch;
    return *watch;
}

// Blocks a thread that must not return to the interpreter. The interpreter's lock is not held.
[[noreturn]] void stop() {
    for (;;) {
        ::pause();
    }
}

} // namespace

bool Interpreter::enter() noexcept {
    if ((threadsInside.fetch_add(1, std::memory_order_acq_rel) & kClosed) == 0) {
        return true;
    }
    leave();
    return false;
}

void Interpreter::leave() noexcept {
    if ((threadsInside.fetch_sub(1, std::memory_order_acq_rel) & kClosed) != 0) {
        threadsInside.notify_all();
    }
}

bool Interpreter::isClosingThread() noexcept {
    return closingThread.load() == std::this_thread::get_id();
}

void Interpreter::close() {
    closingThread = std::this_thread::get_id();
    std::uint64_t now = threadsInside.fetch_or(kClosed) | kClosed;
    const LockReleased released; // threads in Python may be waiting for it
    while (now != kClosed) {
        threadsInside.wait(now);
        now = threadsInside.load();
    }
}

void Interpreter::endAfter(double seconds, std::string names) {
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
    std::thread([deadline, names = std::move(names)] {
        Watch& watch = getWatch();
        KRLock lock(watch.mutex);
        const bool down = watch.changed.waitUntil(lock, deadline, [&watch] {
            watch.mutex.assertHeld();
            return watch.down;
        });
        if (!down) {
            std::fprintf(stderr, "krvision: did not shut down in time: %s\n", names.c_str());
            ::_exit(1); // exit() would destroy what their threads still use
        }
    }).detach();
}

void Interpreter::endNot() {
    Watch& watch = getWatch();
    const KRLock lock(watch.mutex);
    watch.down = true;
    watch.changed.notifyAll();
}

LockReleased::~LockReleased() {
    if (Interpreter::isClosingThread()) {
        PyEval_RestoreThread(state_);
        return;
    }
    if (!Interpreter::enter()) {
        stop();
    }
    PyEval_RestoreThread(state_);
    Interpreter::leave();
}

LockTaken::LockTaken() noexcept : held_(true), counted_(!Interpreter::isClosingThread()) {
    if (counted_ && !Interpreter::enter()) {
        held_ = counted_ = false;
        return;
    }
    state_ = PyGILState_Ensure();
}

LockTaken::LockTaken(const std::string& module, const std::string& method) : LockTaken() {
    if (!held_) {
        throw KRError(module, method, "the Python interpreter is exiting");
    }
}

LockTaken::~LockTaken() {
    if (held_) {
        PyGILState_Release(state_);
    }
    if (counted_) {
        Interpreter::leave();
    }
}

CodeRun::CodeRun() : counted_(!Interpreter::isClosingThread()) {
    if (counted_ && !Interpreter::enter()) {
        PyEval_SaveThread();
        stop();
    }
}

CodeRun::~CodeRun() {
    if (counted_) {
        Interpreter::leave();
    }
}

void bindInterpreter(py::module_& m) {
    m.def("close_interpreter", &Interpreter::close,
          "Refuse hooks from now on and wait for running ones. For the interpreter's exit.");
    m.def("end_after", &Interpreter::endAfter, py::arg("seconds"), py::arg("names"),
          "End the process with exit code 1 after `seconds`, unless end_not() is called before.");
    m.def("end_not", &Interpreter::endNot, "Cancel end_after().");
}

} // namespace KR::python
