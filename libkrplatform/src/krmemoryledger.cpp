#include "krmemoryledger.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krtext.hpp"

#include "krheap.hpp"
#include "krmemory.hpp"
#include "krmodulegate.hpp"

#include <optional>

namespace KR {

namespace {

constexpr const char* kLedgerCategory = "krplatform.memory";
// The memory module may discover the modules of this process a little later than this process discovers it.
constexpr int kTries = 25;
constexpr std::chrono::milliseconds kDeliveryRetryInterval{200};
// Gives clients in other processes time to subscribe again before the kept events are delivered.
constexpr std::chrono::seconds kResubscriptionTime{1};

std::string describe(const KRMemoryBacklog::Counts& counts) {
    const auto describeNumber = [](std::size_t number, const char* what) {
        return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
    };
    return describeNumber(counts.values, "value") + " and " + describeNumber(counts.events, "event");
}

} // namespace

KRMemoryLedger::KRMemoryLedger(boost::shared_ptr<KRBroker> broker,
                               std::function<void(std::function<void()>)> post)
    : memory_(std::move(broker), KRMemory::kName), post_(std::move(post)) {}

bool KRMemoryLedger::isAbsence(std::uint32_t memory, const KRError& error) const {
    // Its process may refuse the call before this one learns that the module is exiting.
    return memory == 0 || memory_.getModuleNumber() != memory ||
           KRModuleGate::isRefusal(error, KRMemory::kName);
}

template <class... A>
KRMemoryLedger::Outcome KRMemoryLedger::callIfThere(const char* method, const A&... arguments) const {
    if (away_) {
        return Outcome::Skipped;
    }
    const std::uint32_t memory = memory_.getModuleNumber();
    try {
        memory_.call(method, arguments...);
        return Outcome::Done;
    } catch (const KRError& error) {
        if (!seen_ || !isAbsence(memory, error)) {
            throw;
        }
        return Outcome::Away;
    }
}

void KRMemoryLedger::insertData(const std::string& key, const KRValue& value) {
    write("insertData", KRMemoryBacklog::Kind::Value, key, value);
}

void KRMemoryLedger::raiseEvent(const std::string& event, const KRValue& value) {
    write("raiseEvent", KRMemoryBacklog::Kind::Event, event, value);
}

void KRMemoryLedger::insertListData(const std::vector<std::pair<std::string, KRValue>>& list) {
    constexpr const char* kMethod = "insertListData";
    std::vector<KRValue> entries;
    entries.reserve(list.size());
    for (const auto& [key, value] : list) {
        entries.push_back(KRValue::array(key, value));
    }
    const KRValue argument(std::move(entries));
    for (;;) {
        const Outcome outcome = callIfThere(kMethod, argument);
        if (outcome == Outcome::Done) {
            used_ = true;
            return;
        }
        for (const auto& [key, value] : list) {
            KRMemory::checkData(kMethod, key, value);
        }
        const KRLock lock(mutex_);
        if (outcome == Outcome::Skipped && !away_) {
            continue; // it is back
        }
        goAway();
        for (const auto& [key, value] : list) {
            backlog_.add(KRMemoryBacklog::Kind::Value, key, value);
        }
        startHandOver();
        return;
    }
}

void KRMemoryLedger::write(const char* method, KRMemoryBacklog::Kind kind, const std::string& name,
                           const KRValue& value) {
    for (;;) {
        const Outcome outcome = callIfThere(method, name, value);
        if (outcome == Outcome::Done) {
            used_ = true;
            return;
        }
        KRMemory::checkData(method, name, value);
        const KRLock lock(mutex_);
        if (outcome == Outcome::Skipped && !away_) {
            continue; // it is back
        }
        goAway();
        backlog_.add(kind, name, value);
        startHandOver();
        return;
    }
}

void KRMemoryLedger::declareEvent(const std::string& event, const std::string& extractor) {
    std::optional<std::string> before;
    {
        const KRLock lock(mutex_);
        const auto known = declarations_.find(event);
        if (known != declarations_.end()) {
            before = known->second;
        }
        declarations_[event] =
            extractor; // first, so that a memory module that starts during the call gets it
        noteChange();
    }
    try {
        const Outcome outcome = extractor.empty() ? callIfThere("declareEvent", event)
                                                  : callIfThere("declareEvent", event, extractor);
        finish(outcome);
    } catch (...) {
        const KRLock lock(mutex_);
        if (before) {
            declarations_[event] = *before;
        } else {
            declarations_.erase(event);
        }
        ++changes_;
        throw;
    }
}

void KRMemoryLedger::subscribeToEvent(const std::string& event, const std::string& client,
                                      const std::string& callback) {
    {
        const KRLock lock(mutex_);
        subscriptions_[{event, client}] = callback;
        noteChange();
    }
    try {
        finish(callIfThere("subscribeToEvent", event, client, callback));
    } catch (...) {
        const KRLock lock(mutex_);
        subscriptions_.erase({event, client}); // nor does the memory module keep an earlier one
        ++changes_;
        throw;
    }
}

void KRMemoryLedger::unsubscribeFromEvent(const std::string& event, const std::string& client) {
    bool known = false;
    {
        const KRLock lock(mutex_);
        known = subscriptions_.erase({event, client}) > 0;
        ++changes_;
    }
    const Outcome outcome = callIfThere("unsubscribeFromEvent", event, client);
    if (outcome != Outcome::Done && !known) {
        throw KRError(KRMemory::kName, "unsubscribeFromEvent",
                      client + " is not subscribed to the event " + event);
    }
    finish(outcome);
}

void KRMemoryLedger::noteChange() {
    ++changes_;
    used_ = true;
    if (away_) {
        told_ = 0; // the hand-over may have repeated everything else already
    }
}

void KRMemoryLedger::finish(Outcome outcome) {
    if (outcome == Outcome::Away) {
        const KRLock lock(mutex_);
        goAway();
        startHandOver();
    }
}

void KRMemoryLedger::noticeModule(const std::string& module, bool reachable) noexcept {
    try {
        const KRLock lock(mutex_);
        if (module != KRMemory::kName) {
            if (!reachable) {
                std::erase_if(declarations_, [&](const auto& each) { return each.second == module; });
                std::erase_if(subscriptions_, [&](const auto& each) { return each.first.second == module; });
                ++changes_;
            }
        } else if (!reachable) {
            if (used_) {
                goAway();
            }
        } else if (!seen_ || !used_) {
            told_ = memory_.getModuleNumber();
            seen_ = true;
        } else {
            startHandOver();
        }
    } catch (...) {
        logError(kLedgerCategory, "no memory to note that a module came or went");
    }
}

void KRMemoryLedger::goAway() {
    if (away_ || stopping_) {
        return;
    }
    away_ = true;
    used_ = true; // data kept now is for the next memory module, even if this one was never written to
    handedOver_ = {};
    lost_ = 0;
    logWarning(kLedgerCategory, "the memory module has gone; values and events are kept until one is back");
}

void KRMemoryLedger::startHandOver() {
    if (handingOver_ || stopping_ || memory_.getModuleNumber() == 0) {
        return;
    }
    handingOver_ = true;
    try {
        post_([this] { handOver(); });
    } catch (...) {
        handingOver_ = false; // the next operation tries again
        throw;
    }
}

void KRMemoryLedger::handOver() {
    try {
        for (;;) {
            std::uint32_t memory = 0;
            bool toldBefore = false;
            {
                // The number is read with the lock held: a later memory module starts another delivery.
                const KRLock lock(mutex_);
                memory = memory_.getModuleNumber();
                toldBefore = told_ == memory;
                const bool complete = memory != 0 && toldBefore && backlog_.isEmpty();
                if (complete) {
                    reportBack();
                    away_ = false;
                }
                if (complete || memory == 0 || stopping_) {
                    handingOver_ = false;
                    if (!backlog_.takeReturn()) {
                        return;
                    }
                    break;
                }
            }
            if (!toldBefore) {
                repeat(memory);
            }
            handOverBacklog();
        }
        returnFreedMemory();
    } catch (...) {
        const std::string why = describeCurrentException();
        {
            const KRLock lock(mutex_);
            handingOver_ = false; // the next operation tries again
        }
        logError(kLedgerCategory, "values and events kept for the memory module were not delivered: " + why);
    }
}

void KRMemoryLedger::repeat(std::uint32_t memory) {
    for (int i = 1; i <= kTries && memory_.getModuleNumber() == memory; ++i) {
        Declarations declarations;
        Subscriptions subscriptions;
        std::uint64_t changes = 0;
        {
            const KRLock lock(mutex_);
            declarations = declarations_;
            subscriptions = subscriptions_;
            changes = changes_;
        }
        const bool complete = repeatAll(declarations, subscriptions, i == kTries);
        {
            const KRLock lock(mutex_);
            if ((complete && changes == changes_) || i == kTries) {
                told_ = memory;
                return;
            }
        }
        if (!complete && !pause(kDeliveryRetryInterval)) {
            return;
        }
    }
}

bool KRMemoryLedger::repeatAll(const Declarations& declarations, const Subscriptions& subscriptions,
                               bool last) const {
    bool complete = true;
    const auto attempt = [&](auto&& call) {
        try {
            call();
        } catch (const KRError& error) {
            complete = false;
            if (last) {
                logError(
                    kLedgerCategory,
                    std::string("the new memory module lacks events or subscriptions of this process: ") +
                        error.what());
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

void KRMemoryLedger::handOverBacklog() {
    bool events = false;
    {
        const KRLock lock(mutex_);
        events = backlog_.hasEvents();
    }
    if (events && !pause(kResubscriptionTime)) {
        return;
    }
    for (;;) {
        KRMemoryBacklog::Entry entry;
        {
            const KRLock lock(mutex_);
            if (stopping_ || backlog_.isEmpty()) {
                return;
            }
            entry = backlog_.takeFirst();
        }
        const bool value = entry.kind == KRMemoryBacklog::Kind::Value;
        const std::uint32_t memory = memory_.getModuleNumber();
        try {
            memory_.call(value ? "insertData" : "raiseEvent", entry.name, entry.value);
            const KRLock lock(mutex_);
            ++(value ? handedOver_.values : handedOver_.events);
        } catch (const KRError& error) {
            if (isAbsence(memory, error)) {
                {
                    const KRLock lock(mutex_);
                    backlog_.putBack(std::move(entry));
                }
                pause(kDeliveryRetryInterval);
                return;
            }
            logWarning(kLedgerCategory, (value ? "the value " : "the event ") + entry.name +
                                            " was kept, but is refused: " + error.what());
            const KRLock lock(mutex_);
            ++lost_;
        }
    }
}

void KRMemoryLedger::reportBack() {
    if (!away_) {
        return;
    }
    lost_ += backlog_.takeLost();
    std::string text = "the memory module is back and knows the events of this process again";
    if (handedOver_.values + handedOver_.events > 0) {
        text += ", and " + describe(handedOver_) + " that were kept";
    }
    if (lost_ > 0) {
        logWarning(kLedgerCategory, text + "; " + std::to_string(lost_) + " were lost");
    } else {
        logInfo(kLedgerCategory, text);
    }
}

bool KRMemoryLedger::pause(std::chrono::milliseconds time) {
    KRLock lock(mutex_);
    return !stopped_.waitFor(lock, time, [this] {
        mutex_.assertHeld();
        return stopping_;
    });
}

void KRMemoryLedger::stop() noexcept {
    try {
        const KRLock lock(mutex_);
        stopping_ = true;
        stopped_.notifyAll();
        if (!backlog_.isEmpty()) {
            logWarning(kLedgerCategory, describe(backlog_.getCounts()) +
                                            " that were kept for the memory module are lost: none is back");
        }
    } catch (...) {
        logError(kLedgerCategory, "no memory to report what was kept for the memory module");
    }
}

} // namespace KR
