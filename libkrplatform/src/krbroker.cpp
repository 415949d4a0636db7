#include "krplatform/krbroker.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krproxy.hpp"

#include "krbroker_p.hpp"
#include "krtext.hpp"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <string_view>
#include <system_error>

namespace KR {

namespace {

struct LocalOptions {
    bool memory = true;
};

LocalOptions parseLocalUrl(const std::string& url) {
    constexpr std::string_view kScheme = "local:";
    const auto refuse = [&](const std::string& why) {
        throw KRError("KRBroker", "create",
                      "broker address \"" + url + "\": " + why + "; known are local: and local:?memory=none");
    };
    std::string_view rest = url;
    if (!rest.starts_with(kScheme)) {
        refuse("unknown kind of broker");
    }
    rest.remove_prefix(kScheme.size());
    LocalOptions options;
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

} // namespace

void KRBrokerPrivate::postEntered(std::shared_ptr<KRModuleGate> gate, std::string method,
                                  std::function<void(KRModuleGate::Running&)> job) {
    try {
        threads.post([gate, method, job = std::move(job)]() mutable {
            KRModuleGate::Running running(*gate);
            try {
                job(running);
            } catch (...) {
                logError("krplatform.call", "posted call " + gate->getName() + "." + method +
                                                " failed: " + describeCurrentException());
            }
            job = nullptr; // what it holds goes while the module stands
        });
    } catch (const std::system_error& error) {
        gate->leave();
        throw KRError(gate->getName(), method,
                      std::string("no call thread could be started: ") + error.what());
    }
}

void KRSession::waitForService(const std::string& name) {
    broker_.directory.waitFor(name, std::nullopt);
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
    p_->directory.setObserver(nullptr);
    p_->memory.reset();
}

boost::shared_ptr<KRBroker> KRBroker::create(const std::string& url) {
    const LocalOptions options = parseLocalUrl(url);
    boost::shared_ptr<KRBroker> broker(new KRBroker);
    if (options.memory) {
        // The broker owns the memory module, which therefore must not own the broker.
        const boost::shared_ptr<KRBroker> unowned(broker.get(), [](KRBroker*) {});
        broker->p_->memory = createModule<KRMemory>(unowned, KRMemory::kName);
        broker->p_->directory.setObserver(
            [memory = broker->p_->memory.get()](const std::string& module, bool reachable) {
                memory->noticeModule(module, reachable);
            });
    }
    return broker;
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

std::size_t KRBroker::getCallThreadCount() const {
    return p_->threads.getCount();
}

} // namespace KR
