#include "krplatform/krbroker.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krproxy.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>

namespace KR {

namespace {

void logFailedPost(const std::string& module, const std::string& method) {
    logError("krplatform.call",
             "posted call " + module + "." + method + " failed: " + describeCurrentException());
}

constexpr std::string_view kLocalScheme = "local:";

KRBrokerOptions parseLocalUrl(const std::string& url) {
    const auto refuse = [&](const std::string& why) {
        throw KRError("KRBroker", "create",
                      "broker address \"" + url + "\": " + why + "; known are local: and local:?memory=none");
    };
    std::string_view rest = url;
    rest.remove_prefix(kLocalScheme.size());
    KRBrokerOptions options;
    if (rest.empty()) {
        return options;
    }
    if (rest.front() != '?') {
        refuse("nothing but options may follow local:");
    }
    rest.remove_prefix(1);
    if (rest != "memory=none") {
        refuse("unknown option \"" + std::string(rest) + "\"");
    }
    options.memory = false;
    return options;
}

/// What the address begins with, up to its colon, and who makes sense of it. Thread-safe.
class KRTransports {
public:
    void add(const std::string& scheme, KRTransportFactory factory) {
        const std::lock_guard lock(mutex_);
        factories_[scheme] = std::move(factory);
    }
    KRTransportFactory find(const std::string& url) const {
        const std::lock_guard lock(mutex_);
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
    mutable std::mutex mutex_;
    std::map<std::string, KRTransportFactory> factories_; // guarded by mutex_
};

KRTransports& getTransports() {
    static KRTransports transports;
    return transports;
}

} // namespace

void KRBrokerPrivate::postEntered(std::shared_ptr<KRModuleGate> gate, std::string method,
                                  std::function<void(KRModuleGate::Running&)> job) {
    try {
        threads.post([gate, method, job = std::move(job)]() mutable {
            KRModuleGate::Running running(*gate);
            try {
                job(running);
            } catch (...) {
                logFailedPost(gate->getName(), method);
            }
            job = nullptr; // what it holds goes while the module stands
        });
    } catch (const std::system_error& error) {
        gate->leave();
        throw KRError(gate->getName(), method,
                      std::string("no call thread could be started: ") + error.what());
    }
}

void KRBrokerPrivate::postRemote(std::shared_ptr<KRRemoteModule> module, std::string method,
                                 std::vector<KRValue> arguments) {
    try {
        threads.post([module, method, arguments = std::move(arguments)] {
            try {
                module->call(method, arguments);
            } catch (...) {
                logFailedPost(module->getName(), method);
            }
        });
    } catch (const std::system_error& error) {
        throw KRError(module->getName(), method,
                      std::string("no call thread could be started: ") + error.what());
    }
}

void KRBrokerPrivate::noticeModule(const std::string& module, bool reachable) {
    if (KRMemory* const noticing = noticingMemory) {
        noticing->noticeModule(module, reachable);
    }
    if (!ledger) {
        return;
    }
    if (!reachable) {
        ledger->forgetModule(module);
    } else if (module == KRMemory::kName) {
        try {
            threads.post([this] {
                try {
                    ledger->tellMemory();
                } catch (...) {
                    logError("krplatform.memory", describeCurrentException());
                }
            });
        } catch (const std::system_error& error) {
            logError("krplatform.memory", std::string("the memory module is not told: ") + error.what());
        }
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
    const auto now = Clock::now();
    if (timeout > std::chrono::floor<milliseconds>(Clock::time_point::max() - now)) {
        waitForService(name); // the clock does not reach that far
        return true;
    }
    return broker_.directory.waitFor(name, now + std::max(timeout, milliseconds::zero()));
}

KRBroker::KRBroker() : p_(std::make_unique<KRBrokerPrivate>()) {}

KRBroker::~KRBroker() {
    if (p_->transport) {
        p_->ledger->stop();
        p_->transport->stop(); // first, so that nobody waits for calls to other processes
    }
    p_->noticingMemory = nullptr;
    p_->directory.setObserver(nullptr);
    p_->memory.reset();
    p_->directory.setTransport(nullptr);
}

boost::shared_ptr<KRBroker> KRBroker::create(const std::string& url) {
    boost::shared_ptr<KRBroker> broker(new KRBroker);
    KRBrokerOptions options =
        url.starts_with(kLocalScheme) ? parseLocalUrl(url) : getTransports().find(url)(url, broker->p_->host);
    KRBrokerPrivate& p = *broker->p_;
    p.transport = std::move(options.transport);
    p.directory.setTransport(p.transport.get());
    if (p.transport) {
        // Without owning this broker, which owns the ledger.
        const boost::shared_ptr<KRBroker> unowned(broker.get(), [](KRBroker*) {});
        p.ledger = std::make_unique<KRMemoryLedger>(unowned);
    }
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

void KRBroker::startMemory() {
    const boost::shared_ptr<KRBroker> unowned(this, [](KRBroker*) {}); // as this broker owns the module
    p_->memory = createModule<KRMemory>(unowned, KRMemory::kName);
    p_->noticingMemory = p_->memory.get();
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
