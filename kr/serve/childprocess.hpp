#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace KR::tool {

enum class ChildOutput { Shared, None };

/// A child process that ends with this one. Thread-bound: it gets SIGTERM when the thread that started it ends.
class ChildProcess {
public:
    /// Starts it without input, in its own process group. It shares this program's standard error.
    /// \param command  path of the program, and its arguments
    /// \param output  whether it shares the standard output
    /// \throws std::runtime_error it cannot be started
    ChildProcess(std::vector<std::string> command, ChildOutput output);
    /// Kills it if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// " has ended with exit code 1" or " was ended by signal 11 (Segmentation fault)"; nullopt while it runs.
    std::optional<std::string> findEnd();
    void send(int signal) const;

private:
    pid_t process_;
    std::optional<std::string> end_;
};

/// Path of this program.
std::string getProgramPath();

} // namespace KR::tool
