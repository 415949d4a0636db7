#include "krplatform/krtransport.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"
#include "krmodulenumber.hpp"

#include <new>
#include <optional>

namespace KR {

std::uint32_t drawModuleNumber() noexcept {
    static std::atomic<std::uint32_t> last = 0;
    return ++last;
}

KRRemoteModule::KRRemoteModule(std::string name, std::string location)
    : name_(std::move(name)), location_(std::move(location)), number_(drawModuleNumber()) {}

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

namespace {

/// Runs a call that has entered the gate, which it leaves.
void run(KRIncomingCall& call, KRModuleGate& gate) {
    KRValue result;
    std::optional<KRError> failure;
    {
        KRModuleGate::Running running(gate, &call);
        try {
            result = running.call(call.method, call.arguments);
        } catch (const KRError& error) {
            failure = error;
        } catch (...) {
            failure = KRError(call.module, call.method, describeCurrentException());
        }
        call.arguments.clear(); // before the module, which may own their bytes, is destroyed
    }
    // Outside the module, so that a caller that does not read its answer cannot block the module's destruction.
    if (failure) {
        call.fail(*failure);
    } else {
        call.succeed(result);
    }
}

/// Answers with the reason why the gate refuses the call.
void refuse(KRIncomingCall& call, std::optional<KRModuleState> state) {
    try {
        KRModuleGate::refuse(call.module, call.method, state);
    } catch (const KRError& error) {
        call.fail(error);
    }
}

/// State of a module that cannot be called; nullopt: there is none.
std::optional<KRModuleState> getState(const std::shared_ptr<KRModuleGate>& gate) {
    return gate ? std::optional(gate->isClosed() ? KRModuleState::Closed : KRModuleState::Claimed)
                : std::nullopt;
}

} // namespace

void KRTransportHost::serveHere(const std::shared_ptr<KRIncomingCall>& call) noexcept {
    try {
        const std::shared_ptr<KRModuleGate> gate = broker_.directory.find(call->module);
        if (gate && gate->tryToEnter()) {
            run(*call, *gate);
        } else {
            refuse(*call, getState(gate));
        }
    } catch (...) { // no memory
        logError("krplatform.call", "a call from another process is lost: out of memory");
    }
}

void KRTransportHost::serve(std::shared_ptr<KRIncomingCall> call) noexcept {
    std::shared_ptr<KRModuleGate> entered;
    try {
        std::shared_ptr<KRModuleGate> gate = broker_.directory.find(call->module);
        if (gate && gate->tryToEnter()) {
            entered = gate;
            broker_.threads.post([call, gate] { run(*call, *gate); });
            return;
        }
        const auto state = getState(gate);
        broker_.threads.post([call, state] { refuse(*call, state); });
    } catch (...) { // no thread or no memory: the call is destroyed unanswered, so its caller gets an error
        if (entered) {
            entered->leave();
        }
        logError("krplatform.call", "a call from another process is lost: out of threads or memory");
    }
}

void KRTransportHost::noticeCallerGone(const std::string& caller) noexcept {
    std::vector<std::shared_ptr<KRModuleGate>> gates;
    try {
        gates = broker_.directory.getOpenGates();
    } catch (const std::bad_alloc&) {
        logError("krplatform.call", "modules were not notified that a caller is gone: out of memory");
    }
    for (const std::shared_ptr<KRModuleGate>& gate : gates) {
        try {
            broker_.postCall(gate, "xCallerGone",
                             [caller](KRModuleGate::Running& running) { running.reportCallerGone(caller); });
        } catch (const std::exception& error) {
            logVerbose("krplatform.module", error.what()); // it is exiting
        }
    }
}

} // namespace KR
