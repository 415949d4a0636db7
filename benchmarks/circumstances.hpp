#pragma once

// What a machine does while calls between processes are measured.

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

/// Processes that loop at full speed while this object exists.
class BusyLoops {
public:
    explicit BusyLoops(std::int64_t count) {
        for (std::int64_t i = 0; i < count; ++i) {
            const pid_t pid = fork();
            if (pid == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                for (volatile bool forever = true; forever;) {
                }
                _exit(0);
            }
            pids_.push_back(pid);
        }
    }
    ~BusyLoops() {
        for (const pid_t pid : pids_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    BusyLoops(const BusyLoops&) = delete;
    BusyLoops& operator=(const BusyLoops&) = delete;

private:
    std::vector<pid_t> pids_;
};

/// Where the calling thread and the process to call run. The kernel sees little reason to move two threads that wake
/// each other: by chance they share a core, where a round trip takes 10 us, or wake two in turn, which takes up to 60.
enum Placement { AnyCore, OneCore, TwoCores };

/// Keeps this thread and another process on one core or on two while this object exists.
class Placed {
public:
    /// \throws std::runtime_error there is one core only
    Placed(pid_t other, Placement placement) : other_(other) {
        sched_getaffinity(0, sizeof all_, &all_);
        std::vector<std::size_t> cores;
        for (std::size_t core = 0; core < CPU_SETSIZE; ++core) {
            if (CPU_ISSET(core, &all_)) {
                cores.push_back(core);
            }
        }
        if (placement == TwoCores && cores.size() < 2) {
            throw std::runtime_error("there is one core only");
        }
        if (placement != AnyCore) {
            place(only(cores[placement == OneCore ? 0 : 1]), only(cores[0]));
        }
    }
    ~Placed() { place(all_, all_); }
    Placed(const Placed&) = delete;
    Placed& operator=(const Placed&) = delete;

private:
    static cpu_set_t only(std::size_t core) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(core, &set);
        return set;
    }
    void place(const cpu_set_t& here, const cpu_set_t& there) const {
        sched_setaffinity(0, sizeof here, &here);
        for (const auto& thread :
             std::filesystem::directory_iterator("/proc/" + std::to_string(other_) + "/task")) {
            sched_setaffinity(std::stoi(thread.path().filename()), sizeof there,
                              &there); // fails if it has ended
        }
    }

    const pid_t other_;
    cpu_set_t all_{};
};
