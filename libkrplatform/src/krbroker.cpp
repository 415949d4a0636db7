#include "krplatform/krbroker.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krmemoryobserver.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krproxy.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <map>
#include <new>
#include <string_view>
#include <system_error>

namespace KR {

namespace {

void logFailedPost(const std::string& module, const std::string& method) {
    logError("krplatform.call",
             "posted call " + module + "." + method + " failed: " + describeCurrentException());
}

constexpr std::string_view kLocalScheme = "local:";

/// A parsed address "local:...".
struct LocalOptions {
    bool memory = true;
    bool recordingClock = false;
};

LocalOptions parseLocalUrl(const std::string& url) {
    const auto refuse = [&](const std::string& why) {
        throw KRError("KRBroker", "create",
                      "broker address \"" + url + "\": " + why +
                          "; known are local:, local:?memory=none and local:?clock=recording");
    };
    std::string_view rest = url;
    rest.remove_prefix(kLocalScheme.size());
    LocalOptions options;
    if (rest.empty()) {
        return options;
    }
    if (rest.front() != '?') {
        refuse("nothing but options may follow local:");
    }
    while (!rest.empty()) {
        rest.remove_prefix(1);
        const std::string_view option = rest.substr(0, rest.find('&'));
        rest.remove_prefix(option.size());
        if (option == "memory=none") {
            options.memory = false;
        } else if (option == "clock=recording") {
            options.recordingClock = true;
        } else {
            refuse("unknown option \"" + std::string(option) + "\"");
        }
    }
    return options;
}

/// Transport factories by scheme: the beginning of an address up to its colon. Thread-safe.
class KRTransports {
public:
    void add(const std::string& scheme, KRTransportFactory factory) {
        const KRLock lock(mutex_);
        factories_[scheme] = std::move(factory);
    }
    KRTransportFactory find(const std::string& url) const {
        const KRLock lock(mutex_);
        const auto found = factories_.find(url.substr(0, url.find(':') + 1));
        if (found == factories_.end()) {
            std::string known(kLocalScheme);
            for (const auto& [scheme, factory] : factories_) {
                known += " and " + scheme;
            }
            throw KRError("KRBroker", "create",
                          "broker address \"" + url + "\": unknown kind of broker; known are " + known +
                              " (dds: needs the library krdds)");
        }
        return found->second;
    }

private:
    mutable KRMutex mutex_;
    std::map<std::string, KRTransportFactory> factories_ KR_GUARDED_BY(mutex_);
};

KRTransports& getTransports() {
    static KRTransports transports;
    return transports;
}

} // namespace

void KRBrokerPrivate::postCall(std::shared_ptr<KRModuleGate> gate, std::string method,
                               std::function<void(KRModuleGate::Running&)> job, bool fromInside) {
    std::function<void()> task = [gate, method, job = std::move(job)]() mutable {
        KRModuleGate::Running running(*gate);
        try {
            job(running);
        } catch (...) {
            logFailedPost(gate->getName(), method);
        }
        job = nullptr; // destroys its captures before the module
    };
    // Entered last: anything that fails after this must leave.
    if (fromInside) {
        gate->enterFromInside(method);
    } else {
        gate->enter(method);
    }
    try {
        post(gate->getName(), method, std::move(task));
    } catch (...) {
        gate->leave();
        throw;
    }
}

void KRBrokerPrivate::postRemote(std::shared_ptr<KRRemoteModule> module, std::string method,
                                 std::vector<KRValue> arguments) {
    post(module->getName(), method, [module, method, arguments = std::move(arguments)] {
        try {
            module->call(method, arguments);
        } catch (...) {
            logFailedPost(module->getName(), method);
        }
    });
}

void KRBrokerPrivate::post(const std::string& module, const std::string& method, std::function<void()> job) {
    try {
        threads.post(std::move(job));
    } catch (const std::system_error& error) {
        throw KRError(module, method, std::string("no call thread could be started: ") + error.what());
    } catch (const std::bad_alloc&) {
        throw KRError(module, method, "out of memory");
    }
}

void KRBrokerPrivate::noticeModule(const std::string& module, bool reachable) noexcept {
    ledger->noticeModule(module, reachable);
    if (reachable) {
        followers.noticeModule(module);
    }
    try {
        if (KRMemory* const noticing = noticingMemory) {
            noticing->noticeModule(module, reachable);
        }
    } catch (...) { // no memory
        logError("krplatform.memory", "subscriptions may be out of date: out of memory");
    }
}

void KRSession::waitForService(const std::string& name) {
    constexpr std::chrono::seconds kSilence{5};
    if (!broker_.directory.waitFor(name, std::chrono::steady_clock::now() + kSilence)) {
        logInfo("krplatform.broker", "still waiting for a module named " + name);
        broker_.directory.waitFor(name, std::nullopt);
    }
}

bool KRSession::waitForService(const std::string& name, std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    constexpr milliseconds kLongest = std::chrono::hours(24 * 365);
    if (broker_.clock->isRecording()) {
        const auto here = std::chrono::steady_clock::now();
        if (!broker_.directory.waitFor(name, here)) {
            broker_.clock->sleepUntil(broker_.clock->now() +
                                      std::clamp(timeout, milliseconds::zero(), kLongest));
        }
        return broker_.directory.waitFor(name, here);
    }
    const auto now = Clock::now();
    if (timeout > std::chrono::floor<milliseconds>(Clock::time_point::max() - now)) {
        waitForService(name); // beyond the range of the clock
        return true;
    }
    return broker_.directory.waitFor(name, now + std::max(timeout, milliseconds::zero()));
}

KRBroker::KRBroker() : p_(std::make_unique<KRBrokerPrivate>()) {}

KRBroker::~KRBroker() {
    if (p_->ledger) {
        p_->ledger->stop();
    }
    if (p_->transport) {
        p_->transport->stop(); // first, so as not to wait for calls to other processes
    }
    p_->noticingMemory = nullptr;
    p_->directory.setObserver(nullptr);
    p_->memory.reset();
    p_->directory.setTransport(nullptr);
}

boost::shared_ptr<KRBroker> KRBroker::create(const std::string& url) {
    boost::shared_ptr<KRBroker> broker(new KRBroker);
    KRBrokerPrivate& p = *broker->p_;
    KRBrokerOptions options;
    if (url.starts_with(kLocalScheme)) {
        const LocalOptions local = parseLocalUrl(url);
        options.memory = local.memory;
        if (local.recordingClock) {
            p.clock = std::make_unique<KRRecordingClock>();
        }
    } else {
        options = getTransports().find(url)(url, p.host);
    }
    p.transport = std::move(options.transport);
    p.directory.setTransport(p.transport.get());
    // Without owning this broker, which owns the ledger.
    const boost::shared_ptr<KRBroker> unowned(broker.get(), [](KRBroker*) {});
    p.ledger = std::make_unique<KRMemoryLedger>(
        unowned, [&p](std::function<void()> job) { p.threads.post(std::move(job)); });
    p.directory.setObserver(
        [&p](const std::string& module, bool reachable) { p.noticeModule(module, reachable); });
    if (p.transport) {
        p.transport->start();
    }
    if (options.memory) {
        broker->startMemory();
    }
    return broker;
}

KRClock& KRBroker::getClock() noexcept {
    return *p_->clock;
}

void KRBroker::startMemory() {
    const boost::shared_ptr<KRBroker> unowned(this, [](KRBroker*) {}); // as this broker owns the module
    p_->memory = KRModuleHandle<KRMemory>(std::make_unique<KRMemory>(unowned, KRMemory::kName));
    p_->noticingMemory = p_->memory.get(); // before any client can subscribe to an event
    p_->memory->makeReachable();
}

void KRBroker::setInitialParameters(const std::string& module,
                                    std::vector<std::pair<std::string, KRValue>> values) {
    std::vector<KRValue> pairs;
    pairs.reserve(values.size());
    for (auto& [name, value] : values) {
        pairs.push_back(KRValue::array(name, std::move(value)));
    }
    const KRLock lock(p_->parametersMutex);
    p_->initialParameters[module] = std::move(pairs);
}

std::vector<KRValue> KRBrokerPrivate::getInitialParameters(const std::string& module) {
    const KRLock lock(parametersMutex);
    const auto found = initialParameters.find(module);
    return found == initialParameters.end() ? std::vector<KRValue>() : found->second;
}

void registerTransport(const std::string& scheme, KRTransportFactory factory) {
    getTransports().add(scheme, std::move(factory));
}

boost::shared_ptr<KRProxy> KRBroker::getProxy(const std::string& module, int) {
    return boost::make_shared<KRProxy>(shared_from_this(), module);
}

KRSession& KRBroker::getSession() noexcept {
    return p_->session;
}

void setMemoryObserver(KRBroker& broker, KRMemoryObserver observer) {
    KRMemory* const memory = KRBrokerPrivate::of(broker).memory.get();
    if (memory == nullptr) {
        throw KRError("KRBroker", "setMemoryObserver", "the broker runs no memory module");
    }
    memory->setObserver(std::move(observer));
}

std::vector<std::string> KRBroker::getModuleList() const {
    return p_->directory.listOpen();
}

KRBrokerDiagnostics KRBroker::getDiagnostics() const {
    return p_->transport ? p_->transport->getDiagnostics() : KRBrokerDiagnostics();
}

std::size_t KRBroker::getCallThreadCount() const {
    return p_->threads.getCount();
}

} // namespace KR
