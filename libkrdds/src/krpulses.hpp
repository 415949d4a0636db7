#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace KR {

/// Processes of this host whose brokers are of earlier versions: they are not in the host directory. Each keeps a memfd open
/// that is called "krvision-pulse-" and its broker's identity. Reentrant.
class KRPulses {
public:
    KRPulses();

    /// Starts watching a process, if it is on this machine and its open files are accessible.
    /// \param host  name of its machine
    void watch(const std::string& broker, const std::string& host, pid_t process);
    /// Forgets all others.
    void keep(const std::function<bool(const std::string& broker)>& isWanted);
    /// \return brokers that have ended, or whose process has been stopped for that long
    std::vector<std::string> findSilent(std::chrono::milliseconds time);

private:
    struct Watched {
        std::string file; // in /proc; empty: not accessible
        pid_t process = 0;
        std::chrono::steady_clock::time_point running; // last seen so
    };
    const std::string host_;
    std::map<std::string, Watched> watched_; // by identity
};

} // namespace KR
