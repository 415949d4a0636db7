#include "serve/childprocess.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace KR::tool {

namespace {

// Between fork and exec: allocates nothing and takes no lock.
[[noreturn]] void become(char* const* arguments, pid_t parent, ChildOutput output) noexcept {
    ::setpgid(0, 0); // Ctrl-C goes to the parent, which then ends this one
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int nothing = ::open("/dev/null", O_RDWR);
    if (nothing >= 0) {
        ::dup2(nothing, STDIN_FILENO);
        if (output == ChildOutput::None) {
            ::dup2(nothing, STDOUT_FILENO);
        }
    }
    if (::getppid() == parent) { // or else it ended before prctl()
        ::execv(arguments[0], arguments);
    }
    ::_exit(127);
}

} // namespace

ChildProcess::ChildProcess(std::vector<std::string> command, ChildOutput output) {
    if (::access(command.front().c_str(), X_OK) != 0) {
        throw std::runtime_error(command.front() + ": " + std::strerror(errno));
    }
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& each : command) {
        arguments.push_back(each.data());
    }
    arguments.push_back(nullptr);
    const pid_t parent = ::getpid();
    process_ = ::fork();
    if (process_ < 0) {
        throw std::runtime_error(std::string("no process: ") + std::strerror(errno));
    }
    if (process_ == 0) {
        become(arguments.data(), parent, output);
    }
}

ChildProcess::~ChildProcess() {
    if (!findEnd()) {
        send(SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }
}

std::optional<std::string> ChildProcess::findEnd() {
    int status = 0;
    if (!end_ && ::waitpid(process_, &status, WNOHANG) == process_) {
        end_ = WIFEXITED(status) ? " has ended with exit code " + std::to_string(WEXITSTATUS(status))
                                 : " was ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
                                       ::strsignal(WTERMSIG(status)) + ")";
    }
    return end_;
}

void ChildProcess::send(int signal) const {
    if (!end_) {
        ::kill(process_, signal);
    }
}

std::string getProgramPath() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

} // namespace KR::tool
