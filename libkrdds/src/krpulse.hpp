#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace KR {

/// Shows other processes of this machine that this one is alive: a counter in shared memory, without any messages. They
/// find the memory among the open files of this process by the identity of its broker.
class KRPulse {
public:
    /// Without memory or descriptors there is no pulse.
    explicit KRPulse(const std::string& id) noexcept;
    ~KRPulse();
    KRPulse(const KRPulse&) = delete;
    KRPulse& operator=(const KRPulse&) = delete;

    void beat() noexcept;

private:
    int file_ = -1;
    std::atomic<std::uint64_t>* counter_ = nullptr;
};

/// The pulses of other processes. Reentrant.
class KRPulses {
public:
    KRPulses();
    ~KRPulses();
    KRPulses(const KRPulses&) = delete;
    KRPulses& operator=(const KRPulses&) = delete;

    /// Starts watching a process, if it is on this machine and its memory is accessible.
    /// \param host  name of its machine
    void watch(const std::string& id, const std::string& host, pid_t process);
    /// Forgets all others.
    void keep(const std::function<bool(const std::string& id)>& isWanted);
    /// Polls all pulses. \return processes that have ended, or had no pulse in the last `looks` polls and for that long; ten
    /// times as long for a process that is not stopped, as it may be waiting for a processor
    std::vector<std::string> findSilent(int looks, std::chrono::milliseconds time);

private:
    class View;
    struct Watched {
        std::unique_ptr<View> view; // null: not accessible
        std::uint64_t last = 0;
        int missed = 0; // polls since it changed
        std::chrono::steady_clock::time_point since;
    };
    const std::string host_;
    std::map<std::string, Watched> watched_; // by identity
};

} // namespace KR
