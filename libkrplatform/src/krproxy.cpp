#include "krplatform/krproxy.hpp"

#include "krplatform/krmutex.hpp"

#include "krbroker_p.hpp"
#include "krmodule_p.hpp"

#include <optional>

namespace KR {

struct KRProxy::Private {
    const boost::shared_ptr<KRBroker> broker;
    const std::string module;
    KRMutex mutex;
    std::shared_ptr<KRModuleGate> gate KR_GUARDED_BY(mutex); // of the module when it was called last

    KRBrokerPrivate& getBroker() const { return KRBrokerPrivate::of(*broker); }

    /// The gate of the module of this process, or null.
    std::shared_ptr<KRModuleGate> find() {
        const KRLock lock(mutex);
        if (!gate || gate->isClosed()) {
            gate = getBroker().directory.find(module);
        }
        return gate;
    }

    /// The module of another process, which can be called. \throws KRError there is none
    std::shared_ptr<KRRemoteModule> findRemote(std::string_view method) const {
        auto remote = getBroker().directory.findRemote(module);
        const auto state = remote ? std::optional(remote->getState()) : std::nullopt;
        if (state != KRModuleState::Open) {
            KRModuleGate::refuse(module, method, state);
        }
        return remote;
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
    if (const std::shared_ptr<KRModuleGate> gate = p_->find()) {
        return gate->call(method, arguments);
    }
    return p_->findRemote(method)->call(method, arguments);
}

void KRProxy::postValues(std::string_view method, std::vector<KRValue> arguments) const {
    const std::shared_ptr<KRModuleGate> gate = p_->find();
    if (!gate) {
        p_->getBroker().postRemote(p_->findRemote(method), std::string(method), std::move(arguments));
        return;
    }
    p_->getBroker().postCall(gate, std::string(method),
                             [method = std::string(method), arguments = std::move(arguments)](
                                 KRModuleGate::Running& running) { running.call(method, arguments); });
}

std::uint32_t KRProxy::getModuleNumber() const {
    if (const std::shared_ptr<KRModuleGate> gate = p_->find()) {
        return gate->isOpen() ? gate->getNumber() : 0;
    }
    const std::shared_ptr<KRRemoteModule> remote = p_->getBroker().directory.findRemote(p_->module);
    return remote && remote->getState() == KRModuleState::Open ? remote->getNumber() : 0;
}

std::vector<KRMethodDescription> KRProxy::getMethodList() const {
    return toMethodDescriptions(call<KRValue>("getMethodList"));
}

std::string KRProxy::getMethodHelp(std::string_view method) const {
    return call<std::string>("getMethodHelp", std::string(method));
}

std::string KRProxy::getFailure() const {
    return call<std::string>("getFailure");
}

} // namespace KR
