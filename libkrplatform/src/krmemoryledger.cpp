#include "krmemoryledger.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krthread.hpp"

#include "krmemory.hpp"

namespace KR {

namespace {

constexpr const char* kCategory = "krplatform.memory";
// The memory may find our modules a little later than we find the memory.
constexpr int kTries = 25;
constexpr int kBetweenTries = 200; // milliseconds

} // namespace

KRMemoryLedger::KRMemoryLedger(boost::shared_ptr<KRBroker> broker)
    : memory_(std::move(broker), KRMemory::kName) {}

void KRMemoryLedger::noteDeclaration(const std::string& event, const std::string& extractor) {
    const std::uint32_t memory = memory_.getModuleNumber();
    const std::lock_guard lock(mutex_);
    declarations_[event] = extractor;
    told_ = told_ == 0 ? memory : told_;
}

void KRMemoryLedger::noteSubscription(const std::string& event, const std::string& client,
                                      const std::string& callback) {
    const std::uint32_t memory = memory_.getModuleNumber();
    const std::lock_guard lock(mutex_);
    subscriptions_[{event, client}] = callback;
    told_ = told_ == 0 ? memory : told_;
}

void KRMemoryLedger::forgetSubscription(const std::string& event, const std::string& client) {
    const std::lock_guard lock(mutex_);
    subscriptions_.erase({event, client});
}

void KRMemoryLedger::forgetModule(const std::string& module) {
    const std::lock_guard lock(mutex_);
    std::erase_if(declarations_, [&](const auto& each) { return each.second == module; });
    std::erase_if(subscriptions_, [&](const auto& each) { return each.first.second == module; });
}

void KRMemoryLedger::tellMemory() {
    const std::uint32_t memory = memory_.getModuleNumber();
    Declarations declarations;
    Subscriptions subscriptions;
    {
        const std::lock_guard lock(mutex_);
        if (memory == 0 || told_ == 0 || told_ == memory) {
            return;
        }
        told_ = memory;
        declarations = declarations_;
        subscriptions = subscriptions_;
    }
    for (int i = 1; i <= kTries && !stopping_ && memory_.getModuleNumber() == memory; ++i) {
        if (tell(declarations, subscriptions, i == kTries)) {
            logInfo(kCategory, "the memory module is back and knows the events of this process again");
            return;
        }
        sleepMilliseconds(kBetweenTries);
    }
}

bool KRMemoryLedger::tell(const Declarations& declarations, const Subscriptions& subscriptions, bool last) {
    bool complete = true;
    const auto attempt = [&](auto&& call) {
        try {
            call();
        } catch (const KRError& error) {
            complete = false;
            if (last) {
                logError(kCategory,
                         std::string("the memory module that has come does not know all: ") + error.what());
            }
        }
    };
    for (const auto& [event, extractor] : declarations) {
        attempt([&, &name = event, &who = extractor] {
            if (who.empty()) {
                memory_.call("declareEvent", name);
            } else {
                memory_.call("declareEvent", name, who);
            }
        });
    }
    for (const auto& [key, callback] : subscriptions) {
        attempt([&, &which = key, &method = callback] {
            memory_.call("subscribeToEvent", which.first, which.second, method);
        });
    }
    return complete;
}

} // namespace KR
