#include "krplatform/krproxy.hpp"

#include "krbroker_p.hpp"
#include "krmodule_p.hpp"

#include <mutex>

namespace KR {

struct KRProxy::Private {
    const boost::shared_ptr<KRBroker> broker;
    const std::string module;
    std::mutex mutex;
    std::shared_ptr<KRModuleGate> gate; // guarded by mutex: where the module was found last

    std::shared_ptr<KRModuleGate> find(std::string_view method) {
        const std::lock_guard lock(mutex);
        if (!gate || gate->isClosed()) {
            gate = KRBrokerPrivate::of(*broker).directory.find(module);
        }
        if (!gate) {
            throw KRError(module, std::string(method), "there is no module named " + module);
        }
        return gate;
    }
};

KRProxy::KRProxy(boost::shared_ptr<KRBroker> broker, std::string module)
    : p_(new Private{std::move(broker), std::move(module), {}, {}}) {
    if (!p_->broker) {
        throw KRError(p_->module, "KRProxy", "a proxy needs a broker");
    }
}

KRProxy::~KRProxy() = default;

const std::string& KRProxy::getModuleName() const noexcept {
    return p_->module;
}

KRValue KRProxy::callValues(std::string_view method, std::span<const KRValue> arguments) const {
    return p_->find(method)->call(method, arguments);
}

void KRProxy::postValues(std::string_view method, std::vector<KRValue> arguments) const {
    const std::shared_ptr<KRModuleGate> gate = p_->find(method);
    gate->enter(method);
    KRBrokerPrivate::of(*p_->broker)
        .postEntered(gate, std::string(method),
                     [method = std::string(method), arguments = std::move(arguments)](
                         KRModuleGate::Running& running) { running.call(method, arguments); });
}

std::vector<KRMethodDescription> KRProxy::getMethodList() const {
    return toMethodDescriptions(call<KRValue>("getMethodList"));
}

std::string KRProxy::getMethodHelp(std::string_view method) const {
    return call<std::string>("getMethodHelp", std::string(method));
}

} // namespace KR
