#pragma once

#include <krplatform/krmodulehandle.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <chrono>

namespace KR {
class KRBroker;
class KRProxy;
} // namespace KR

namespace KR::tool {

class ServiceNotifier;

/// Sends watchdog reports to the service manager: the main loop posts a call to an internal module, which reports on a call
/// thread of the broker. If the main loop, the call threads or the broker hang, there is no report. Thread-bound.
class Pulse {
public:
    /// Does nothing if the manager does not ask for it. \param notifier  outlives this
    Pulse(const boost::shared_ptr<KRBroker>& broker, const ServiceNotifier& notifier);

    /// Posts the call when it is time.
    void beat() const;

private:
    const ServiceNotifier& notifier_;
    KRModuleHandle<KRModule> module_; // empty: the manager does not ask
    boost::shared_ptr<KRProxy> proxy_;
    mutable std::chrono::steady_clock::time_point next_{};
};

} // namespace KR::tool
