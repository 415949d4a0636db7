#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace KR::test {

/// Another process of the tests (server.cpp), which goes with this object.
class OtherProcess {
public:
    /// Starts it with "KIND NAME" pairs. \param before  a program to run it with, and its arguments
    explicit OtherProcess(const std::string& url, const std::vector<std::string>& modules = {},
                          const std::vector<std::string>& before = {});
    /// Asks it to end, and ends it if it does not.
    ~OtherProcess();
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    /// What it said when its modules were up, "ready", or why they are not.
    const std::string& getAnswer() const noexcept { return answer_; }
    pid_t getPid() const noexcept { return pid_; }
    /// Asks it to end and waits until it has. \return its exit code, or 128 and the number of the signal
    int stop();
    void kill();
    void freeze();
    void thaw();

private:
    int waitForEnd();

    pid_t pid_ = -1;
    int input_ = -1; // of the process
    std::string answer_;
};

} // namespace KR::test
