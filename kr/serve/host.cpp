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

// All at the same time, since each may wait for an image.
void takeDownTogether(std::vector<KRModuleHandle<KRModule>>& modules, Watchdog& watchdog) {
    std::vector<std::thread> threads;
    for (auto& module : modules) {
        threads.emplace_back([&module, &watchdog] {
            const std::string name = module->getName();
            module.reset();
            watchdog.noticeDown(name);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    modules.clear();
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
    takeDownTogether(modules_, watchdog);
    takeDownTogether(services_, watchdog);
}

} // namespace KR::tool
