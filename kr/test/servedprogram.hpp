#pragma once

#include "program.hpp"

#include "patience.hpp"

#include <string>
#include <utility>
#include <vector>

#include <signal.h>

namespace KR::test {

/// The command line program, running in the background until it is stopped.
class RunningProgram {
public:
    /// Returns once the program has written `sign` to standard output or standard error, or has ended.
    RunningProgram(std::vector<std::string> arguments, const std::string& sign)
        : out_(detail::makeTemporaryFile()), err_(detail::makeTemporaryFile()) {
        arguments.insert(arguments.begin(), KR_PROGRAM);
        process_ = start(std::move(arguments), ::fileno(out_.get()), ::fileno(err_.get()));
        isUp_ = waitFor(sign);
    }
    /// The same with another file for standard output.
    RunningProgram(std::vector<std::string> arguments, const std::string& sign, int out)
        : out_(detail::makeTemporaryFile()), err_(detail::makeTemporaryFile()) {
        arguments.insert(arguments.begin(), KR_PROGRAM);
        process_ = start(std::move(arguments), out, ::fileno(err_.get()));
        isUp_ = waitFor(sign);
    }
    ~RunningProgram() {
        if (process_ > 0) {
            ::kill(process_, SIGKILL);
            ::waitpid(process_, nullptr, 0);
        }
    }
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    bool isUp() const { return isUp_; }
    pid_t getPid() const { return process_; }
    std::string readOut() const { return readBeside(out_.get()); }
    std::string readErr() const { return readBeside(err_.get()); }
    /// \return whether `sign` appeared in time
    [[nodiscard]] bool waitFor(const std::string& sign) const {
        return eventually([&] {
                   return readOut().find(sign) != std::string::npos ||
                          readErr().find(sign) != std::string::npos || !isRunning();
               }) &&
               (readOut() + readErr()).find(sign) != std::string::npos;
    }
    /// Sends the signal and waits for the process to end. \return its result
    Outcome stop(int signal = SIGTERM) {
        ::kill(process_, signal);
        return wait();
    }
    /// \return its result; with exit code -1 if it did not end in time
    Outcome wait() {
        int status = 0;
        if (!eventually([&] { return ::waitpid(process_, &status, WNOHANG) == process_; })) {
            ::kill(process_, SIGKILL);
            ::waitpid(process_, &status, 0);
        }
        process_ = -1;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readOut(), readErr(), 0};
    }

private:
    // The program shares the offset of this file, which reading must not move.
    static std::string readBeside(std::FILE* file) {
        std::string text(1 << 20, '\0');
        const ssize_t size = ::pread(::fileno(file), text.data(), text.size(), 0);
        text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return text;
    }
    bool isRunning() const {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    detail::File out_;
    detail::File err_;
    pid_t process_ = -1;
    bool isUp_ = false;
};

} // namespace KR::test
