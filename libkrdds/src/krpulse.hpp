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

/// Shows other processes of this machine that this one runs: a counter in shared memory, which costs nobody a message.
/// They find the memory among the open files of this process by the identity of its broker.
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

    /// Watches a process from now on, if it is one of this machine that lets this one see its memory.
    /// \param host  name of its machine
    void watch(const std::string& id, const std::string& host, pid_t process);
    /// Forgets all others.
    void keep(const std::function<bool(const std::string& id)>& isWanted);
    /// Looks at all. \return who has ended, or had no pulse the last `looks` times and for that long; ten times as long if
    /// the process is not stopped, for a busy machine may have no time for it
    std::vector<std::string> findSilent(int looks, std::chrono::milliseconds time);

private:
    class View;
    struct Watched {
        std::unique_ptr<View> view; // null: it cannot be seen
        std::uint64_t last = 0;
        int missed = 0; // looks since it changed
        std::chrono::steady_clock::time_point since;
    };
    const std::string host_;
    std::map<std::string, Watched> watched_; // by identity
};

} // namespace KR
