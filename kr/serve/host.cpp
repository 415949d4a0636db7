#include "host.hpp"

#include "command.hpp"
#include "interruption.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include <unistd.h>

namespace KR::tool {

namespace {

constexpr std::chrono::milliseconds kMakingStep{20};
// After an interruption, for a module that is just being made.
constexpr std::chrono::milliseconds kTimeToComeUp{500};
// For modules to come down while the services are still there.
constexpr std::chrono::milliseconds kTimeWithServices{1000};

/// Ends the program if it is not told in time that all is down.
class Watchdog {
public:
    Watchdog() : thread_([this] { watch(); }) {}
    ~Watchdog() {
        {
            const std::lock_guard lock(mutex_);
            done_ = true;
            changed_.notify_all();
        }
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void expect(const std::string& module) {
        const std::lock_guard lock(mutex_);
        up_.insert(module);
    }
    void noticeDown(const std::string& module) {
        const std::lock_guard lock(mutex_);
        up_.erase(up_.find(module));
    }

private:
    void watch() {
        std::unique_lock lock(mutex_);
        if (changed_.wait_for(lock, Host::kTimeToComeDown, [this] { return done_; })) {
            return;
        }
        std::string left;
        for (const std::string& module : up_) {
            left += (left.empty() ? "" : ", ") + module;
        }
        complain("did not come down in time: " + left);
        std::fflush(stdout);
        ::_exit(static_cast<int>(ExitCode::Failed)); // whoever still runs would touch what exit() destroys
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;             // guarded by mutex_
    std::multiset<std::string> up_; // guarded by mutex_
    std::thread thread_;            // last, as it uses the others
};

// All at the same time, since each may wait for an image. The modules must stay where they are until then.
std::vector<std::future<void>> takeDownEach(std::vector<KRModuleHandle<KRModule>>& modules,
                                            Watchdog& watchdog) {
    std::vector<std::future<void>> down;
    for (auto& module : modules) {
        down.push_back(std::async(std::launch::async, [&module, &watchdog] {
            const std::string name = module->getName();
            module.reset();
            watchdog.noticeDown(name);
        }));
    }
    return down;
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
            complain(name + " was still waiting for what it needs");
            std::fflush(stdout);
            ::_exit(static_cast<int>(ExitCode::Done)); // nothing ends that wait
        }
    }
    modules_.push_back(made.get());
}

void Host::waitFor(Interruption& interruption) const {
    constexpr std::chrono::milliseconds kStep{200};
    const auto isExiting = [](const auto& module) { return module->isExiting(); };
    while (!interruption.waitFor(kStep)) {
        if (!modules_.empty() && std::all_of(modules_.begin(), modules_.end(), isExiting)) {
            return;
        }
    }
}

void Host::takeDown() {
    Watchdog watchdog;
    for (const auto* modules : {&modules_, &services_}) {
        for (const auto& module : *modules) {
            watchdog.expect(module->getName());
        }
    }
    const auto end = std::chrono::steady_clock::now() + kTimeWithServices;
    auto modulesDown = takeDownEach(modules_, watchdog);
    for (const auto& module : modulesDown) {
        module.wait_until(end);
    }
    takeDownEach(services_, watchdog); // which also wakes those who wait for one, as for a camera to open
    modulesDown.clear();
    modules_.clear();
    services_.clear();
}

} // namespace KR::tool
