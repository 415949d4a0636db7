#include "serve/pulse.hpp"

#include "serve/servicenotifier.hpp"
#include "system/client.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krproxy.hpp>

#include <utility>

namespace KR::tool {

namespace {

constexpr const char* kBeat = "beat";

class PulseModule : public KRModule {
public:
    PulseModule(boost::shared_ptr<KRBroker> broker, const std::string& name, const ServiceNotifier& notifier)
        : KRModule(std::move(broker), name), notifier_(notifier) {
        functionName(kBeat, "Pulse", "Reports to the service manager.");
        advertiseMethod(getCurrentMethodDescription(), this, &PulseModule::beat);
    }
    ~PulseModule() override { shutDown(); }

    void beat() {
        getParentBroker()->getModuleList(); // takes the locks of the broker
        notifier_.reportAlive();
    }

private:
    const ServiceNotifier& notifier_;
};

} // namespace

Pulse::Pulse(const boost::shared_ptr<KRBroker>& broker, const ServiceNotifier& notifier)
    : notifier_(notifier) {
    if (notifier.getAlivePeriod()) {
        const std::string name = makeClientName() + "-pulse";
        module_ = createModule<PulseModule>(broker, name, notifier);
        proxy_ = broker->getProxy(name);
    }
}

void Pulse::beat() const {
    const auto now = std::chrono::steady_clock::now();
    if (module_ && now >= next_) {
        next_ = now + *notifier_.getAlivePeriod();
        proxy_->post(kBeat);
    }
}

} // namespace KR::tool
