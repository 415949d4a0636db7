#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace KR::test {

/// Another process of the tests (server.cpp), which goes with this object.
class OtherProcess {
public:
    explicit OtherProcess(const std::vector<std::string>& arguments);
    /// Asks it to end, and ends it if it does not.
    ~OtherProcess();
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    /// The first line that it has printed.
    const std::string& getAnswer() const noexcept { return answer_; }
    /// Asks it to end and waits until it has. \return its exit code, or 128 and the number of the signal
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

/// Shared memory of binaries that this process has mapped, its own and that of others.
struct MappedMemory {
    std::size_t mappings = 0;
    std::size_t resident_kB = 0;
};
MappedMemory readMappedMemory();

} // namespace KR::test
