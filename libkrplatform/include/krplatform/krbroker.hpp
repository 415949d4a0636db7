#pragma once

#include "krplatform/krdiagnostics.hpp"
#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KR {

class KRBrokerPrivate;
class KRClock;
class KRProxy;

/// A broker's link to the services that it can reach. Lives as long as its broker.
class KR_EXPORT KRSession {
public:
    /// Blocks without a time limit until a module of this name can be called; logs a line after 5 s. Thread-safe.
    void waitForService(const std::string& name);
    /// The same for at most `timeout` of the broker's clock; if that is a recording's and the module is absent, for no
    /// less. \return whether it can be called
    bool waitForService(const std::string& name, std::chrono::milliseconds timeout);

private:
    friend class KRBrokerPrivate;
    explicit KRSession(KRBrokerPrivate& broker) : broker_(broker) {}
    KRBrokerPrivate& broker_;
};

/// Holds modules by name, hands out proxies on them and runs the call threads.
///
/// Modules hold their broker, so it is destroyed after the last of them. It holds no module but the memory module,
/// which it runs itself. All operations are thread-safe.
class KR_EXPORT KRBroker : public boost::enable_shared_from_this<KRBroker> {
public:
    /// Makes a broker for the modules of this process: "local:". It runs the memory module "KRMemory" unless the
    /// address is "local:?memory=none". "local:?clock=recording" gives its modules a KRRecordingClock; several options are
    /// joined by "&". With the library krdds, the modules of a "dds:" broker and those of other
    /// processes reach each other (<krdds/krdds.hpp>); it runs no memory module by default.
    /// \throws KRError an invalid address; a domain that cannot be joined as asked for
    static boost::shared_ptr<KRBroker> create(const std::string& url = "local:");
    ~KRBroker();
    KRBroker(const KRBroker&) = delete;
    KRBroker& operator=(const KRBroker&) = delete;

    /// Makes a proxy on the module of this name, which need not exist yet: calls through it fail until it does. The
    /// second argument is ignored.
    boost::shared_ptr<KRProxy> getProxy(const std::string& module, int = 0);

    /// Its link to the services that it can reach.
    KRSession& getSession() noexcept;

    /// The time of this broker's modules (<krplatform/krclock.hpp>).
    KRClock& getClock() noexcept;

    /// Runs the memory module "KRMemory" in this broker, as an address with `memory=here` does from the start. For
    /// programs whose other modules must be reachable before clients that wait for the memory find it.
    /// \throws KRError there is a module of that name
    void startMemory();

    /// Sets the initial parameters of a module of this name in this broker, replacing those of an earlier call.
    /// KRModule::makeReachable() applies them, and reports errors.
    void setInitialParameters(const std::string& module, std::vector<std::pair<std::string, KRValue>> values);

    /// Names of the modules that can be called, those of other processes included, in order.
    std::vector<std::string> getModuleList() const;

    /// Current state of the connection to other processes: brokers discovered, protocol mismatches, name conflicts,
    /// discarded messages.
    KRBrokerDiagnostics getDiagnostics() const;

    /// Number of call threads, busy or idle. It grows with the posted calls in progress; a thread ends after being idle
    /// for two seconds.
    std::size_t getCallThreadCount() const;

private:
    friend class KRBrokerPrivate;
    KRBroker();
    std::unique_ptr<KRBrokerPrivate> p_;
};

} // namespace KR
