#pragma once

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace KR::test {

/// The result of a run of the program.
struct Outcome {
    int exitCode; ///< -1: it did not end by itself
    std::string out;
    std::string err;
    long peakMemory_kB = 0; ///< of its largest resident set
};

namespace detail {

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

inline File makeTemporaryFile() {
    File file(std::tmpfile());
    if (!file) {
        throw std::runtime_error("no temporary file");
    }
    return file;
}

inline std::string readFromStart(std::FILE* file) {
    std::rewind(file);
    std::string text;
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
        text.push_back(static_cast<char>(c));
    }
    return text;
}

} // namespace detail

/// Starts a program with output and errors going to these files. \return its process
inline pid_t start(std::vector<std::string> command, int out, int err) {
    std::vector<char*> arguments;
    for (std::string& argument : command) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    const pid_t process = ::fork();
    if (process < 0) {
        throw std::runtime_error("no process");
    }
    if (process == 0) {
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    return process;
}

/// Runs the command line program itself.
inline Outcome kr(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KR_PROGRAM);
    const detail::File out = detail::makeTemporaryFile();
    const detail::File err = detail::makeTemporaryFile();
    const pid_t process = start(std::move(arguments), ::fileno(out.get()), ::fileno(err.get()));
    int status = 0;
    rusage usage{};
    if (::wait4(process, &status, 0, &usage) != process) {
        throw std::runtime_error("a process was lost");
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, detail::readFromStart(out.get()),
            detail::readFromStart(err.get()), usage.ru_maxrss};
}

} // namespace KR::test
