#include "krplatform/krtransport.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"
#include "krmodulenumber.hpp"

#include <optional>
#include <system_error>

namespace KR {

std::uint32_t drawModuleNumber() noexcept {
    static std::atomic<std::uint32_t> last = 0;
    return ++last;
}

KRRemoteModule::KRRemoteModule(std::string name, std::string whereabouts)
    : name_(std::move(name)), whereabouts_(std::move(whereabouts)), number_(drawModuleNumber()) {}

KRRemoteModule::~KRRemoteModule() = default;

KRIncomingCall::~KRIncomingCall() = default;

KRTransport::~KRTransport() = default;

std::vector<KRLocalModule> KRTransportHost::listModules() const {
    return broker_.directory.listLocal();
}

void KRTransportHost::setRemoteModule(const std::shared_ptr<KRRemoteModule>& module, KRModuleState state) {
    broker_.directory.setRemote(module, state);
}

void KRTransportHost::removeRemoteModule(const std::shared_ptr<KRRemoteModule>& module) {
    broker_.directory.removeRemote(module);
}

void KRTransportHost::post(std::function<void()> job) {
    broker_.threads.post(std::move(job));
}

void KRTransportHost::serve(std::shared_ptr<KRIncomingCall> call) {
    const std::shared_ptr<KRModuleGate> gate = broker_.directory.find(call->module);
    std::shared_ptr<KRError> refusal;
    try {
        if (!gate) {
            throw KRError(call->module, call->method, "there is no module named " + call->module);
        }
        gate->enter(call->method);
    } catch (const KRError& error) {
        refusal = std::make_shared<KRError>(error);
    }
    try {
        if (refusal) {
            broker_.threads.post([call, refusal] { call->fail(*refusal); });
            return;
        }
        broker_.threads.post([call, gate]() mutable {
            KRValue result;
            std::optional<KRError> failure;
            {
                KRModuleGate::Running running(*gate, &call->caller);
                try {
                    result = running.call(call->method, call->arguments);
                } catch (const KRError& error) {
                    failure = error;
                } catch (...) {
                    failure = KRError(call->module, call->method, describeCurrentException());
                }
                call->arguments.clear(); // while the module stands, which may own what they hold
            }
            // Outside the module: a caller that does not read its answer must not keep the module from going.
            if (failure) {
                call->fail(*failure);
            } else {
                call->succeed(result);
            }
        });
    } catch (const std::system_error& error) {
        if (!refusal) {
            gate->leave();
        }
        logError("krplatform.call", "a call of " + call->module + "." + call->method +
                                        " is lost, no call thread: " + error.what());
    }
}

void KRTransportHost::noticeCallerGone(const std::string& caller) {
    for (const std::shared_ptr<KRModuleGate>& gate : broker_.directory.getOpenGates()) {
        try {
            gate->enter("xCallerGone");
            broker_.postEntered(gate, "xCallerGone",
                                [caller](KRModuleGate::Running& running) { running.tellCallerGone(caller); });
        } catch (const KRError& error) {
            logVerbose("krplatform.module", error.what()); // it goes itself
        }
    }
}

} // namespace KR
