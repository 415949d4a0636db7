#include "startedprocess.hpp"

#include "patience.hpp"

#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace KR::test {

StartedProcess::StartedProcess(std::vector<std::string> command) {
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    if (pipe2(input.data(), O_CLOEXEC) != 0 || pipe2(output.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    std::vector<char*> arguments;
    for (std::string& word : command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    const int failed = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    input_ = input[1];
    if (failed != 0) {
        pid_ = -1;
        throw std::runtime_error(std::string("the other process does not start: ") + std::strerror(failed));
    }
    for (char c = 0; c != '\n';) {
        pollfd readable{output[0], POLLIN, 0};
        const int patience = static_cast<int>(std::chrono::milliseconds(kPatience).count());
        if (poll(&readable, 1, patience) != 1 || read(output[0], &c, 1) != 1) {
            break;
        }
        answer_ += c == '\n' ? "" : std::string(1, c);
    }
    close(output[0]);
}

StartedProcess::~StartedProcess() {
    if (pid_ > 0) {
        stop();
    }
}

int StartedProcess::waitForEnd() {
    int status = 0;
    if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int StartedProcess::stop() {
    thaw();
    close(std::exchange(input_, -1));
    return waitForEnd();
}

void StartedProcess::kill() {
    ::kill(pid_, SIGKILL);
    close(std::exchange(input_, -1));
    waitForEnd();
}

void StartedProcess::freeze() const {
    ::kill(pid_, SIGSTOP);
    // Its parent is notified when all of its threads have stopped.
    siginfo_t stopped{};
    if (!eventually([&] {
            return waitid(P_PID, static_cast<id_t>(pid_), &stopped, WSTOPPED | WNOHANG) == 0 &&
                   stopped.si_pid == pid_;
        })) {
        throw std::runtime_error("the other process does not stop");
    }
}

void StartedProcess::thaw() const {
    ::kill(pid_, SIGCONT);
}

} // namespace KR::test
