#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace KR::tool {

/// Reports to the service manager that has started this program, by sd_notify(3)'s protocol: datagrams to the socket that
/// the environment variable NOTIFY_SOCKET names. Without one, nothing happens. Thread-safe.
class ServiceNotifier {
public:
    /// Takes the protocol's variables out of the environment, so that programs started by this one do not report.
    /// Construct it before any thread starts.
    ServiceNotifier();
    ~ServiceNotifier();
    ServiceNotifier(const ServiceNotifier&) = delete;
    ServiceNotifier& operator=(const ServiceNotifier&) = delete;

    void reportReady() const { send("READY=1\n"); }
    void reportReloading() const;
    void reportStopping() const { send("STOPPING=1\n"); }
    /// One human-readable line.
    void reportStatus(const std::string& status) const { send("STATUS=" + status + "\n"); }
    /// Watchdog report: the manager restarts a program that does not send it in time.
    void reportAlive() const { send("WATCHDOG=1\n"); }

    /// How often reportAlive() is to be called; nullopt: never.
    std::optional<std::chrono::microseconds> getAlivePeriod() const noexcept { return alivePeriod_; }

private:
    void send(const std::string& message) const;

    std::string address_; // "": nobody listens
    int socket_ = -1;
    std::optional<std::chrono::microseconds> alivePeriod_;
};

} // namespace KR::tool
