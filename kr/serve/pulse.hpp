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

/// Reports to the service manager that this program works: a call of a module of its own, posted by the main loop, does so
/// on a call thread of the broker. If either does not go on any more, or the broker, no report is made. Thread-bound.
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
