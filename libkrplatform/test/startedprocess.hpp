#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace KR::test {

/// Another process, which ends with this object.
class StartedProcess {
public:
    /// Starts a program, which must print one line soon and end with its standard input.
    explicit StartedProcess(std::vector<std::string> command);
    /// Asks it to end, and kills it if it does not.
    ~StartedProcess();
    StartedProcess(const StartedProcess&) = delete;
    StartedProcess& operator=(const StartedProcess&) = delete;

    /// The line that it printed.
    const std::string& getAnswer() const noexcept { return answer_; }
    pid_t getPid() const noexcept { return pid_; }
    /// Asks it to end and waits for that. \return its exit code, or 128 plus the signal number
    int stop();
    void kill();
    void freeze() const;
    void thaw() const;

private:
    int waitForEnd();

    pid_t pid_ = -1;
    int input_ = -1; // of the process
    std::string answer_;
};

} // namespace KR::test
