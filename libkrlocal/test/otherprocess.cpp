#include "otherprocess.hpp"

#include "patience.hpp"

#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace KR::test {

OtherProcess::OtherProcess(const std::vector<std::string>& given) {
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    if (pipe2(input.data(), O_CLOEXEC) != 0 || pipe2(output.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    std::vector<std::string> words{KRLOCAL_SERVER};
    words.insert(words.end(), given.begin(), given.end());
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    const int failed = posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
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

OtherProcess::~OtherProcess() {
    if (pid_ > 0) {
        stop();
    }
}

int OtherProcess::waitForEnd() {
    int status = 0;
    if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int OtherProcess::stop() {
    thaw();
    close(std::exchange(input_, -1));
    return waitForEnd();
}

void OtherProcess::kill() {
    ::kill(pid_, SIGKILL);
    close(std::exchange(input_, -1));
    waitForEnd();
}

void OtherProcess::freeze() const {
    ::kill(pid_, SIGSTOP);
}

void OtherProcess::thaw() const {
    ::kill(pid_, SIGCONT);
}

MappedMemory readMappedMemory() {
    MappedMemory memory;
    std::ifstream maps("/proc/self/smaps");
    bool ours = false;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("memfd:krvision") != std::string::npos) {
            ours = true;
            ++memory.mappings;
        } else if (line.find("-") != std::string::npos && line.find(":") == std::string::npos) {
            ours = false;
        } else if (line.rfind("VmFlags:", 0) == 0) {
            ours = false;
        } else if (ours && line.rfind("Rss:", 0) == 0) {
            memory.resident_kB += std::stoul(line.substr(4));
        }
    }
    return memory;
}

} // namespace KR::test
