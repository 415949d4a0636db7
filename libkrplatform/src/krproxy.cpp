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

    KRBrokerPrivate& getBroker() const { return KRBrokerPrivate::of(*broker); }

    /// The gate of the module of this process, or null.
    std::shared_ptr<KRModuleGate> find() {
        const std::lock_guard lock(mutex);
        if (!gate || gate->isClosed()) {
            gate = getBroker().directory.find(module);
        }
        return gate;
    }

    /// The module of another process, which can be called. \throws KRError there is none
    std::shared_ptr<KRRemoteModule> findRemote(std::string_view method) const {
        auto remote = getBroker().directory.findRemote(module);
        if (!remote) {
            throw KRError(module, std::string(method), "there is no module named " + module);
        }
        if (remote->getState() != KRModuleState::Open) {
            throw KRError(module, std::string(method),
                          remote->getState() == KRModuleState::Closed ? "the module is exiting"
                                                                      : "the module is not reachable yet");
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
    gate->enter(method);
    p_->getBroker().postEntered(gate, std::string(method),
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
