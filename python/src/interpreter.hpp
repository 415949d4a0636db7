#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <utility>

namespace KR::python {

namespace py = pybind11;

/// Controls how threads enter and leave Python.
///
/// A call that may block runs with the interpreter's lock released (LockReleased), and callbacks of the library run with it
/// held (LockTaken). The interpreter's exit closes this: new hooks are refused, running ones are waited for, and a thread
/// that returns from a blocking call blocks forever, as Python would terminate it inside its C++ functions.
class Interpreter {
public:
    /// Refuses new hooks and waits until running ones have returned. Called at the interpreter's exit, with its lock held.
    /// The calling thread may still enter and leave.
    static void close();

    /// Counts a thread that is in Python. \return false: refused, as the interpreter is exiting
    static bool enter() noexcept;
    static void leave() noexcept;
    static bool isClosingThread() noexcept;

    /// Ends the process with exit code 1 after `seconds`, and prints what did not shut down. For the interpreter's exit,
    /// which waits for modules and cannot be interrupted. \param names  for the message
    static void endAfter(double seconds, std::string names);
    /// Cancels that: everything has shut down.
    static void endNot();
};

/// Releases the interpreter's lock during its lifetime.
class LockReleased {
public:
    LockReleased() : state_(PyEval_SaveThread()) {}
    ~LockReleased();
    LockReleased(const LockReleased&) = delete;
    LockReleased& operator=(const LockReleased&) = delete;

private:
    PyThreadState* const state_;
};

/// Holds the interpreter's lock during its lifetime, on any thread.
class LockTaken {
public:
    /// \throws KRError the interpreter is exiting
    LockTaken(const std::string& module, const std::string& method);
    /// For callers that must not throw: see isHeld().
    LockTaken() noexcept;
    ~LockTaken();
    LockTaken(const LockTaken&) = delete;
    LockTaken& operator=(const LockTaken&) = delete;

    /// False: the interpreter is exiting, and Python must not be used.
    bool isHeld() const noexcept { return held_; }

private:
    bool held_;
    bool counted_;
    PyGILState_STATE state_ = PyGILState_UNLOCKED;
};

/// For functions called by Python that run Python code themselves. The interpreter's exit waits until this is destroyed:
/// otherwise Python would terminate a daemon thread in that code, inside our functions. Once the interpreter is exiting, the
/// thread blocks here forever. The lock is held.
class CodeRun {
public:
    CodeRun();
    ~CodeRun();
    CodeRun(const CodeRun&) = delete;
    CodeRun& operator=(const CodeRun&) = delete;

private:
    const bool counted_;
};

/// Runs a function with the interpreter's lock released. The function's captures are destroyed before the lock is
/// taken again: they may include the last handle of a broker.
template <class Function>
auto unlocked(Function&& function) {
    const LockReleased released;
    auto local = std::forward<Function>(function);
    return local();
}

void bindInterpreter(py::module_& m);

} // namespace KR::python
