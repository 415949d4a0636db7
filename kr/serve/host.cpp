#include "serve/host.hpp"

#include "tool/interruption.hpp"

#include <krplatform/krmutex.hpp>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <set>
#include <thread>

#include <unistd.h>

namespace KR::tool {

namespace {

constexpr std::chrono::milliseconds kMakingStep{20};
// For a module that is being made when the interruption comes.
constexpr std::chrono::milliseconds kTimeToComeUp{500};
// For modules to shut down before the services do.
constexpr std::chrono::milliseconds kTimeWithServices{1000};

/// Ends the program if modules do not shut down in time. Thread-safe.
class Watchdog {
public:
    Watchdog() : thread_([this] { watch(); }) {}
    ~Watchdog() {
        {
            const KRLock lock(mutex_);
            done_ = true;
            changed_.notifyAll();
        }
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void expect(const std::string& module) {
        const KRLock lock(mutex_);
        up_.insert(module);
    }
    void noticeDown(const std::string& module) {
        const KRLock lock(mutex_);
        up_.erase(up_.find(module));
    }

private:
    void watch() {
        KRLock lock(mutex_);
        const auto isDone = [this] {
            mutex_.assertHeld();
            return done_;
        };
        if (changed_.waitFor(lock, Host::kTimeToComeDown, isDone)) {
            return;
        }
        std::string left;
        for (const std::string& module : up_) {
            left += (left.empty() ? "" : ", ") + module;
        }
        printError("did not shut down in time: " + left);
        ::_exit(static_cast<int>(ExitCode::Failed)); // exit() would destroy what their threads still use
    }

    KRMutex mutex_;
    KRCondition changed_;
    bool done_ KR_GUARDED_BY(mutex_) = false;
    std::multiset<std::string> up_ KR_GUARDED_BY(mutex_);
    std::thread thread_; // last: it uses the other members
};

std::string describe(const KRSubscription& subscription) {
    return "the subscription to " + subscription.getExtractor();
}

// In parallel, since each may be waiting for an image. The vector must not change until they are down.
std::vector<std::future<void>> takeDownEach(std::vector<KRModuleHandle<KRModule>>& modules,
                                            Watchdog& watchdog) {
    std::vector<std::future<void>> down;
    down.reserve(modules.size());
    for (auto& module : modules) {
        down.push_back(std::async(std::launch::async, [&module, &watchdog] {
            const std::string name = module->getName();
            module.reset();
            watchdog.noticeDown(name);
        }));
    }
    return down;
}

// The same for subscriptions, which may wait for an extractor that is just being subscribed to.
std::vector<std::future<void>> endEach(std::vector<KRSubscription>& subscriptions, Watchdog& watchdog) {
    std::vector<std::future<void>> ended;
    ended.reserve(subscriptions.size());
    for (auto& subscription : subscriptions) {
        const std::string name = describe(subscription);
        watchdog.expect(name);
        ended.push_back(
            std::async(std::launch::async, [last = std::move(subscription), name, &watchdog]() mutable {
                { const KRSubscription ending = std::move(last); }
                watchdog.noticeDown(name);
            }));
    }
    return ended;
}

} // namespace

Host::Host() {
    std::signal(SIGPIPE, SIG_IGN);
}

Host::~Host() {
    takeDown();
}

void Host::add(const std::string& name, const std::function<KRModuleHandle<KRModule>()>& make,
               Interruption& interruption) {
    auto made = std::async(std::launch::async, make);
    while (made.wait_for(kMakingStep) != std::future_status::ready) {
        if (interruption.hasCome() && made.wait_for(kTimeToComeUp) != std::future_status::ready) {
            printError(name + " was still waiting for what it needs");
            ::_exit(static_cast<int>(ExitCode::Done)); // nothing wakes it
        }
    }
    modules_.push_back(made.get());
}

ExitCode Host::waitFor(Interruption& interruption) const {
    constexpr std::chrono::milliseconds kStep{200};
    ExitCode code = ExitCode::Done;
    std::vector<std::string> reported(modules_.size()); // what was printed of each; "" while it works
    while (!interruption.waitFor(kStep)) {
        std::size_t ended = 0;
        for (std::size_t i = 0; i < modules_.size(); ++i) {
            const std::string failure = modules_[i]->getFailure();
            const std::string state = !failure.empty()           ? " has failed: " + failure
                                      : modules_[i]->isExiting() ? " has exited by itself"
                                                                 : "";
            if (state != reported[i] && !state.empty()) {
                printError("module " + modules_[i]->getName() + state);
                code = ExitCode::Failed;
            }
            reported[i] = state;
            ended += state.empty() ? 0 : 1;
        }
        if (!modules_.empty() && ended == modules_.size()) {
            break;
        }
    }
    return code;
}

void Host::takeDown() {
    Watchdog watchdog;
    for (const auto* modules : {&modules_, &services_}) {
        for (const auto& module : *modules) {
            watchdog.expect(module->getName());
        }
    }
    const auto end = std::chrono::steady_clock::now() + kTimeWithServices;
    auto subscriptionsEnded = endEach(subscriptions_, watchdog);
    auto modulesDown = takeDownEach(modules_, watchdog);
    for (const auto& module : modulesDown) {
        module.wait_until(end);
    }
    takeDownEach(services_, watchdog); // also wakes modules that wait for one, such as for a camera to open
    subscriptionsEnded.clear();
    modulesDown.clear();
    subscriptions_.clear();
    modules_.clear();
    services_.clear();
}

} // namespace KR::tool
