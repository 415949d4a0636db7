#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <utility>

namespace KR::python {

namespace py = pybind11;

/// The way of threads into Python and out of it.
///
/// A call that may block runs with the interpreter's lock released (LockReleased), and what the library calls runs with it
/// taken (LockTaken). The interpreter's exit closes the way: hooks are refused from then on, those that run are waited for,
/// and a thread that comes back from a blocking call stops for ever, where Python itself would end it in the middle of its
/// C++ functions.
class Interpreter {
public:
    /// Closes the way once every hook has returned. Called at the interpreter's exit, with its lock held. The calling
    /// thread may still come and go.
    static void close();

    /// Counts a thread that is in Python. \return false: the way is closed
    static bool enter() noexcept;
    static void leave() noexcept;
    static bool isClosingThread() noexcept;

    /// Ends the process with exit code 1 after `seconds`, naming what did not come down. For the interpreter's exit,
    /// which waits for modules; nothing can interrupt it. \param names  for the message
    static void endAfter(double seconds, std::string names);
    /// It has come down.
    static void endNot();
};

/// Releases the interpreter's lock as long as it exists.
class LockReleased {
public:
    LockReleased() : state_(PyEval_SaveThread()) {}
    ~LockReleased();
    LockReleased(const LockReleased&) = delete;
    LockReleased& operator=(const LockReleased&) = delete;

private:
    PyThreadState* const state_;
};

/// Holds the interpreter's lock as long as it exists, on any thread.
class LockTaken {
public:
    /// \throws KRError the interpreter is exiting
    LockTaken(const std::string& module, const std::string& method);
    /// For those who cannot throw: see isHeld().
    LockTaken() noexcept;
    ~LockTaken();
    LockTaken(const LockTaken&) = delete;
    LockTaken& operator=(const LockTaken&) = delete;

    /// False: the interpreter is exiting, and nothing of Python may be touched.
    bool isHeld() const noexcept { return held_; }

private:
    bool held_;
    bool counted_;
    PyGILState_STATE state_ = PyGILState_UNLOCKED;
};

/// For functions that Python has called and that run code of Python themselves. The interpreter's exit waits until this is
/// destroyed: Python would end a daemon thread in that code, and with it our functions below it. Once the exit has closed
/// the way, the thread stops here for ever. The lock is held.
class CodeRun {
public:
    CodeRun();
    ~CodeRun();
    CodeRun(const CodeRun&) = delete;
    CodeRun& operator=(const CodeRun&) = delete;

private:
    const bool counted_;
};

/// Runs a function with the interpreter's lock released. What the function has captured is destroyed before the lock is
/// taken again: the last handle of a broker may be in it.
template <class Function>
auto unlocked(Function&& function) {
    const LockReleased released;
    auto local = std::forward<Function>(function);
    return local();
}

void bindInterpreter(py::module_& m);

} // namespace KR::python
