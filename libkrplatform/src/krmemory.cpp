#include "krmemory.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"

#include <algorithm>
#include <cassert>
#include <random>
#include <sstream>

namespace KR {

namespace {

constexpr const char* kMemoryCategory = "krplatform.memory";
constexpr const char* kLossCallback = "onEventsLost";
constexpr std::chrono::seconds kIntroduction{2}; // time for a module of another process to be discovered here

void tryToUnsubscribe(const KRProxy& extractor, const std::string& client) {
    try {
        extractor.call("unsubscribe", client);
    } catch (...) { // it had not kept the subscriber
    }
}

std::string drawInstance() {
    std::random_device random;
    std::ostringstream text;
    text << std::hex << random() << random();
    return text.str();
}

std::size_t toBytes(int kilobytes) {
    if (kilobytes < 1) {
        throw KRError(KRMemory::kName, "setEventLimits",
                      "a limit of " + std::to_string(kilobytes) + " kilobytes; the least is 1");
    }
    return static_cast<std::size_t>(kilobytes) << 10;
}

} // namespace

KRMemory::KRMemory(boost::shared_ptr<KRBroker> broker, const std::string& name)
    : KRModule(std::move(broker), name), instance_(drawInstance()) {
    publishMethods();
}

void KRMemory::publishMethods() {
    const auto publish = [this](auto member) {
        advertiseMethod(getCurrentMethodDescription(), this, member);
    };
    const auto overload = [this](auto member) { bindMethodOverload(createFunctor(this, member)); };

    functionName("insertData", kName, "Writes a value under a key.");
    addParam("key", "Name of the data.");
    addParam("value", "The value; it replaces an existing one.");
    publish(&KRMemory::insertData);

    functionName("insertListData", kName, "Writes values under several keys, all or none.");
    addParam("list", "Array of [key, value].");
    publish(&KRMemory::insertListData);

    functionName("getData", kName, "Gets the value under a key.");
    addParam("key", "Name of the data.");
    setReturn("value", "The value written last.");
    publish(&KRMemory::getData);

    functionName("getTimestamp", kName, "Gets the time when a key was last written.");
    addParam("key", "Name of the data.");
    setReturn("time", "Array of whole seconds since the Unix epoch and the microseconds beyond.");
    publish(&KRMemory::getTimestamp);

    functionName("getDataList", kName, "Gets the keys.");
    addParam("prefix", "What the keys have to begin with; empty for all.");
    setReturn("keys", "Array of keys, in order.");
    publish(&KRMemory::getDataList);

    functionName("getDataValues", kName, "Gets keys and their values.");
    addParam("prefix", "What the keys have to begin with; empty for all.");
    setReturn("values", "Array of [key, value], in order.");
    publish(&KRMemory::getDataValues);

    functionName("getDataChanges", kName, "Gets the values that were written after an earlier call.");
    addParam("prefix", "What the keys have to begin with; empty for all.");
    addParam("since", "What the earlier call returned as now; empty for all values.");
    addParam("maxBytes", "Size of the largest value to get.");
    setReturn("changes",
              "[now, array of [key, value, bytes, seconds, microseconds]], where larger values are invalid.");
    publish(&KRMemory::getDataChanges);

    functionName("removeData", kName, "Removes a key and its value.");
    addParam("key", "Name of the data.");
    publish(&KRMemory::removeData);

    functionName("declareData", kName, "Declares a key and the module that writes it.");
    addParam("key", "Name of the data.");
    addParam("module", "Name of the module.");
    publish(&KRMemory::declareData);

    functionName("declareEvent", kName, "Declares an event and the extractor that raises it.");
    addParam("event", "Name of the event.");
    addParam("extractor", "Name of the extractor module.");
    overload(
        static_cast<void (KRMemory::*)(const std::string&, const std::string&)>(&KRMemory::declareEvent));

    functionName("declareEvent", kName, "Declares an event that no extractor raises.");
    addParam("event", "Name of the event.");
    overload(static_cast<void (KRMemory::*)(const std::string&)>(&KRMemory::declareEvent));

    functionName("raiseEvent", kName,
                 "Stores a value under the event's name and calls back the event's subscribers.");
    addParam("event", "Name of the event.");
    addParam("value", "The value that goes with it.");
    publish(&KRMemory::raiseEvent);

    functionName("subscribeToEvent", kName,
                 "Subscribes a module to an event, and to the extractor that declared the event.");
    addParam("event", "Name of the event.");
    addParam("client", "Name of the module which subscribes.");
    addParam("callback", "Its method to call with the event's name and value.");
    publish(&KRMemory::subscribeToEvent);

    functionName("unsubscribeFromEvent", kName,
                 "Unsubscribes a module from an event, and with its last event from the extractor.");
    addParam("event", "Name of the event.");
    addParam("client", "Name of the module which had subscribed.");
    publish(&KRMemory::unsubscribeFromEvent);

    functionName("subscribeToWrites", kName,
                 "Subscribes a module to values and events, and to no extractor.");
    addParam("prefix", "What the names of the keys and events have to begin with; empty for all.");
    addParam("client", "Name of the module which subscribes.");
    addParam("callback", "Its method to call with a name, the value, and whether it is an event.");
    publish(&KRMemory::subscribeToWrites);

    functionName("unsubscribeFromWrites", kName, "Ends such a subscription.");
    addParam("prefix", "As it was subscribed to.");
    addParam("client", "Name of the module which had subscribed.");
    publish(&KRMemory::unsubscribeFromWrites);

    functionName("getEventList", kName, "Gets the events that were declared, raised or subscribed to.");
    setReturn("events", "Array of names, in order.");
    publish(&KRMemory::getEventList);

    functionName("getEventSubscribers", kName, "Gets the subscriptions to an event.");
    addParam("event", "Name of the event.");
    setReturn("subscribers", "Array of [client, callback, events delivered, events lost].");
    publish(&KRMemory::getEventSubscribers);

    functionName(
        "setEventLimits", kName,
        "Limits the memory for events that wait for slow subscribers, which lose the oldest ones beyond it.");
    addParam("perSubscription", "Kilobytes for each subscription (65536 unless set).");
    addParam("inAll", "Kilobytes for all subscriptions together (262144 unless set).");
    publish(&KRMemory::setEventLimits);
}

KRMemory::Stored KRMemory::store(const std::string& key, Stored value) {
    Stored& stored = data_[key];
    value.change = ++changes_;
    heap_.add(value.bytes);
    heap_.remove(stored.bytes);
    return std::exchange(stored, std::move(value));
}

void KRMemory::setObserver(KRMemoryObserver observer) {
    auto next = observer ? std::make_shared<const KRMemoryObserver>(std::move(observer)) : nullptr;
    const KRLock lock(mutex_);
    observer_.swap(next);
}

void KRMemory::insertData(const std::string& key, const KRValue& value) {
    checkData("insertData", key, value);
    Idle idle;
    std::shared_ptr<const KRMemoryObserver> observer;
    {
        Stored previous; // destroyed without the lock, as releasing shared bytes may call their owner
        Undelivered lost;
        Stored next{value, value.countBytes()};
        const std::size_t bytes = next.bytes;
        const KRLock lock(mutex_);
        previous = store(key, std::move(next));
        appendWrite(key, false, value, bytes, lost, idle);
        observer = observer_;
    }
    if (observer) {
        (*observer)({false, key, value});
    }
    deliverTo(idle);
    returnMemoryLater();
}

KRValue KRMemory::getData(const std::string& key) {
    const KRLock lock(mutex_);
    return find("getData", key).value;
}

KRValue KRMemory::toTimestamp(const Stored& stored) {
    const auto time = stored.written.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return KRValue::array(
        static_cast<int>(seconds.count()),
        static_cast<int>(std::chrono::floor<std::chrono::microseconds>(time - seconds).count()));
}

KRValue KRMemory::getTimestamp(const std::string& key) {
    const KRLock lock(mutex_);
    return toTimestamp(find("getTimestamp", key));
}

const KRMemory::Stored& KRMemory::find(const char* method, const std::string& key) const {
    const auto found = data_.find(key);
    if (found == data_.end()) {
        throw KRError(kName, method, "there is no data named " + key);
    }
    return found->second;
}

std::vector<std::string> KRMemory::getDataList(const std::string& prefix) {
    std::vector<std::string> keys;
    const KRLock lock(mutex_);
    for (auto entry = data_.lower_bound(prefix); entry != data_.end() && entry->first.starts_with(prefix);
         ++entry) {
        keys.push_back(entry->first);
    }
    return keys;
}

void KRMemory::removeData(const std::string& key) {
    {
        std::map<std::string, Stored>::node_type removed; // destroyed without the lock
        const KRLock lock(mutex_);
        removed = data_.extract(key);
        if (removed.empty()) {
            throw KRError(kName, "removeData", "there is no data named " + key);
        }
        heap_.remove(removed.mapped().bytes);
    }
    returnMemoryLater();
}

void KRMemory::declareData(const std::string& key, const std::string& module) {
    std::string before;
    {
        const KRLock lock(mutex_);
        before = std::exchange(writers_[key], module);
    }
    warnIfBoth(before, module, "declare the key " + key + " and write over each other's values");
}

void KRMemory::warnIfBoth(const std::string& before, const std::string& now,
                          const std::string& declare) const {
    const bool areTwo = !before.empty() && !now.empty() && before != now;
    if (areTwo && (isReachable(before) || isStillToCome(before))) {
        logWarning(kMemoryCategory, "the modules " + before + " and " + now + " both " + declare);
    }
}

void KRMemory::declareEvent(const std::string& event) {
    declareEvent(event, "");
}

void KRMemory::declareEvent(const std::string& event, const std::string& extractor) {
    checkName("declareEvent", event);
    std::vector<LinkKey> links;
    std::string before;
    {
        const KRLock lock(mutex_);
        Event& declared = events_[event];
        for (const auto& [client, subscription] : declared.subscriptions) {
            links.emplace_back(declared.extractor, client);
            links.emplace_back(extractor, client);
        }
        before = std::exchange(declared.extractor, extractor);
    }
    settleLater(links);
    warnIfBoth(before, extractor,
               "declare the event " + event + "; its subscribers are those of " + extractor + " from now on");
}

void KRMemory::raiseEvent(const std::string& event, const KRValue& value) {
    checkData("raiseEvent", event, value);
    Idle idle;
    std::shared_ptr<const KRMemoryObserver> observer;
    {
        Stored previous; // this and the next are destroyed without the lock
        Undelivered lost;
        Stored next{value, value.countBytes()};
        const std::size_t bytes = next.bytes;
        const KRLock lock(mutex_);
        Subscriptions& subscriptions = events_[event].subscriptions;
        previous = store(event, std::move(next));
        for (const auto& [client, subscription] : subscriptions) {
            append(subscription, {"", true, value, bytes}, lost, idle);
        }
        appendWrite(event, true, value, bytes, lost, idle);
        observer = observer_;
    }
    if (observer) {
        (*observer)({true, event, value});
    }
    deliverTo(idle);
    returnMemoryLater();
}

void KRMemory::append(const std::shared_ptr<Subscription>& subscription, Pending pending, Undelivered& lost,
                      Idle& idle) {
    idle.reserve(idle.size() + 1); // nothing may fail between marking it as delivering and posting that
    const std::size_t bytes = pending.bytes;
    subscription->pending.push_back(std::move(pending));
    subscription->pendingBytes += bytes;
    pendingInAll_ += bytes;
    heap_.add(bytes);
    enforceLimits(*subscription, lost);
    if (!subscription->delivering) {
        subscription->delivering = true;
        idle.push_back(subscription);
    }
}

void KRMemory::appendWrite(const std::string& name, bool isEvent, const KRValue& value, std::size_t bytes,
                           Undelivered& lost, Idle& idle) {
    for (const auto& [prefix, subscriptions] : writes_) {
        if (name.starts_with(prefix)) {
            for (const auto& [client, subscription] : subscriptions) {
                append(subscription, {name, isEvent, value, bytes + name.size()}, lost, idle);
            }
        }
    }
}

void KRMemory::deliverTo(const Idle& idle) {
    std::exception_ptr failure;
    for (const auto& subscription : idle) {
        try {
            deliverLater(subscription);
        } catch (...) {
            failure = std::current_exception();
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void KRMemory::setEventLimits(int perSubscription, int inAll) {
    const std::size_t bytesPerSubscription = toBytes(perSubscription);
    const std::size_t bytesInAll = toBytes(inAll);
    const KRLock lock(mutex_);
    maxPendingBytes_ = bytesPerSubscription; // excess events are dropped with the next event
    maxPendingInAll_ = bytesInAll;
}

KRMemory::Pending KRMemory::takeOldest(Subscription& subscription) {
    Pending oldest = std::move(subscription.pending.front());
    subscription.pending.pop_front();
    assert(subscription.pendingBytes >= oldest.bytes && pendingInAll_ >= oldest.bytes);
    subscription.pendingBytes -= oldest.bytes;
    pendingInAll_ -= oldest.bytes;
    heap_.remove(oldest.bytes);
    return oldest;
}

void KRMemory::enforceLimits(Subscription& grown, Undelivered& lost) {
    const auto loseOldest = [&](Subscription& subscription) {
        mutex_.assertHeld();
        ++subscription.lost;
        ++subscription.lostUnreported;
        lost.push_back(takeOldest(subscription));
    };
    while (grown.pending.size() > 1 &&
           (grown.pending.size() > kMaxPending || grown.pendingBytes > maxPendingBytes_)) {
        loseOldest(grown);
    }
    while (pendingInAll_ > maxPendingInAll_) {
        Subscription* largest = nullptr;
        const auto look = [&](const Subscriptions& subscriptions) {
            for (const auto& [client, subscription] : subscriptions) {
                if (subscription->pending.size() > 1 &&
                    (largest == nullptr || subscription->pendingBytes > largest->pendingBytes)) {
                    largest = subscription.get();
                }
            }
        };
        for (const auto& [name, event] : events_) {
            look(event.subscriptions);
        }
        for (const auto& [prefix, subscriptions] : writes_) {
            look(subscriptions);
        }
        if (largest == nullptr) {
            return;
        }
        loseOldest(*largest);
    }
}

void KRMemory::returnMemoryLater() {
    {
        const KRLock lock(mutex_);
        if (!heap_.takeReturn()) {
            return;
        }
    }
    try {
        xPost("returnFreedMemory", [] { returnFreedMemory(); });
    } catch (const std::exception& error) { // exiting, most likely
        logVerbose(kMemoryCategory, error.what());
    }
}

void KRMemory::deliverLater(const std::shared_ptr<Subscription>& subscription) {
    try {
        xPost("raiseEvent", [this, subscription] { deliver(subscription); });
    } catch (...) {
        const KRLock lock(mutex_);
        subscription->delivering = false; // the next event tries again
        throw;
    }
}

void KRMemory::deliver(const std::shared_ptr<Subscription>& subscription) {
    try {
        while (deliverNext(*subscription)) {
        }
    } catch (...) { // no memory for a text
        const KRLock lock(mutex_);
        subscription->delivering = false;
        throw;
    }
    returnMemoryLater();
}

bool KRMemory::deliverNext(Subscription& subscription) {
    const auto logWarningAbout = [&](const std::string& what) {
        logWarning(kMemoryCategory, (subscription.isOfWrites ? "writes under " : "event ") +
                                        subscription.event + " for " + subscription.client.getModuleName() +
                                        "." + subscription.callback + ": " + what);
    };
    Pending next;
    int lost = 0;
    {
        const KRLock lock(mutex_);
        // Also empty once the subscription has ended. noticeModule() resumes delivery to a client that is not
        // reachable yet.
        if (subscription.pending.empty() || isStillToCome(subscription.client.getModuleName())) {
            subscription.delivering = false;
            return false;
        }
        next = takeOldest(subscription);
        lost = std::exchange(subscription.lostUnreported, 0);
        ++subscription.delivered;
    }
    if (lost > 0) {
        logWarningAbout("lost " + std::to_string(lost) + " events, it takes them too slowly");
        reportLoss(subscription, lost);
    }
    try {
        if (subscription.isOfWrites) {
            subscription.client.call(subscription.callback, next.name, next.value, next.isEvent);
        } else {
            subscription.client.call(subscription.callback, subscription.event, next.value);
        }
    } catch (...) {
        logWarningAbout(describeCurrentException());
    }
    return true;
}

void KRMemory::reportLoss(const Subscription& subscription, int lost) {
    if (!subscription.hearsOfLosses) {
        return;
    }
    try {
        subscription.client.call(kLossCallback, subscription.event, lost);
    } catch (...) {
        logVerbose(kMemoryCategory, describeCurrentException()); // it may have no such method
    }
}

void KRMemory::subscribeToEvent(const std::string& event, const std::string& client,
                                const std::string& callback) {
    checkName("subscribeToEvent", event);
    const auto subscription = makeSubscription(event, false, client, callback);
    std::string extractor;
    Undelivered undelivered; // destroyed without the lock
    {
        const KRLock lock(mutex_);
        findClient(client); // if it leaves after this, noticeModule() waits for the lock and drops it
        Event& subscribed = events_[event];
        undelivered = drop(subscribed.subscriptions, client);
        subscribed.subscriptions[client] = subscription;
        extractor = subscribed.extractor;
    }
    try {
        settle(extractor, client);
    } catch (...) {
        // Only this one: the client may have subscribed to the event again in the meantime.
        const KRLock lock(mutex_);
        undelivered = drop(events_[event].subscriptions, client, subscription.get());
        throw;
    }
}

void KRMemory::unsubscribeFromEvent(const std::string& event, const std::string& client) {
    std::string extractor;
    Undelivered undelivered;
    {
        const KRLock lock(mutex_);
        const auto found = events_.find(event);
        if (found == events_.end() || !found->second.subscriptions.contains(client)) {
            throw KRError(kName, "unsubscribeFromEvent", client + " is not subscribed to the event " + event);
        }
        undelivered = drop(found->second.subscriptions, client);
        extractor = found->second.extractor;
    }
    settle(extractor, client);
}

std::shared_ptr<KRMemory::Subscription> KRMemory::makeSubscription(const std::string& name, bool isOfWrites,
                                                                   const std::string& client,
                                                                   const std::string& callback) {
    if (!xGetCaller().empty()) {
        // The caller's modules may not have been discovered here yet.
        KRBrokerPrivate::of(*getParentBroker()).directory.waitForState(client, kIntroduction);
    }
    const bool hearsOfLosses = isOfWrites
                                   ? checkCallback(client, callback, 3, "(string name, value, bool isEvent)")
                                   : checkCallback(client, callback, 2, "(string event, value)");
    // Built in place: a subscription holds a proxy, which does not move.
    return std::shared_ptr<Subscription>(
        new Subscription{name, isOfWrites, callback, {getParentBroker(), client}, hearsOfLosses, {}});
}

void KRMemory::subscribeToWrites(const std::string& prefix, const std::string& client,
                                 const std::string& callback) {
    checkName("subscribeToWrites", prefix);
    const auto subscription = makeSubscription(prefix, true, client, callback);
    Undelivered undelivered; // destroyed without the lock
    const KRLock lock(mutex_);
    findClient(client);
    Subscriptions& subscriptions = writes_[prefix];
    undelivered = drop(subscriptions, client);
    subscriptions[client] = subscription;
}

void KRMemory::unsubscribeFromWrites(const std::string& prefix, const std::string& client) {
    Undelivered undelivered;
    const KRLock lock(mutex_);
    const auto found = writes_.find(prefix);
    if (found == writes_.end() || !found->second.contains(client)) {
        throw KRError(kName, "unsubscribeFromWrites",
                      client + " is not subscribed to writes under \"" + prefix + "\"");
    }
    undelivered = drop(found->second, client);
    if (found->second.empty()) {
        writes_.erase(found);
    }
}

std::vector<std::string> KRMemory::getEventList() {
    std::vector<std::string> names;
    const KRLock lock(mutex_);
    for (const auto& [name, event] : events_) {
        names.push_back(name);
    }
    return names;
}

KRValue KRMemory::getEventSubscribers(const std::string& event) {
    std::vector<KRValue> subscribers;
    const KRLock lock(mutex_);
    const auto found = events_.find(event);
    if (found != events_.end()) {
        for (const auto& [client, subscription] : found->second.subscriptions) {
            subscribers.push_back(
                KRValue::array(client, subscription->callback, subscription->delivered, subscription->lost));
        }
    }
    return subscribers;
}

KRModuleState KRMemory::findClient(const std::string& client) const {
    const auto state = KRBrokerPrivate::of(*getParentBroker()).directory.getState(client);
    if (!state) {
        throw KRError(kName, "subscribeToEvent", "there is no module named " + client);
    }
    if (*state == KRModuleState::Closed) {
        throw KRError(kName, "subscribeToEvent", "the module " + client + " is exiting");
    }
    return *state;
}

bool KRMemory::checkCallback(const std::string& client, const std::string& callback, std::size_t arguments,
                             const char* signature) const {
    if (findClient(client) != KRModuleState::Open) {
        return true; // it subscribes in its own constructor, where it may not have published the method yet
    }
    const auto methods = KRProxy(getParentBroker(), client).getMethodList();
    const bool fits = std::any_of(methods.begin(), methods.end(), [&](const KRMethodDescription& method) {
        return method.name == callback && method.argumentTypes.size() == arguments;
    });
    const bool hearsOfLosses =
        std::any_of(methods.begin(), methods.end(), [](const KRMethodDescription& method) {
            return method.name == kLossCallback && method.argumentTypes.size() == 2;
        });
    if (!fits) {
        throw KRError(kName, "subscribeToEvent",
                      "the module " + client + " has no method " + callback + signature);
    }
    return hearsOfLosses;
}

void KRMemory::noticeModule(const std::string& module, bool reachable) {
    std::vector<LinkKey> links;
    std::vector<Undelivered> undelivered;
    Idle waiting;
    {
        const KRLock lock(mutex_);
        for (auto& [name, event] : events_) {
            if (event.extractor == module && reachable) {
                for (const auto& [client, subscription] : event.subscriptions) {
                    links.emplace_back(module, client);
                }
            }
            if (noticeClient(event.subscriptions, module, reachable, undelivered, waiting) && !reachable) {
                links.emplace_back(event.extractor, module);
            }
        }
        for (auto& [prefix, subscriptions] : writes_) {
            noticeClient(subscriptions, module, reachable, undelivered, waiting);
        }
        std::erase_if(writes_, [](const auto& entry) { return entry.second.empty(); });
        if (!reachable) {
            for (auto& [key, link] : links_) {
                if (key.first == module) {
                    link.subscribed = false; // a new extractor of this name does not know its subscribers
                }
            }
        }
    }
    settleLater(links);
    for (const auto& subscription : waiting) {
        try {
            deliverLater(subscription);
        } catch (...) {
            logWarning(kMemoryCategory, "events have to wait: " + describeCurrentException());
        }
    }
}

bool KRMemory::noticeClient(Subscriptions& subscriptions, const std::string& client, bool reachable,
                            std::vector<Undelivered>& undelivered, Idle& waiting) {
    const auto own = subscriptions.find(client);
    if (own == subscriptions.end()) {
        return false;
    }
    if (!reachable) {
        undelivered.push_back(drop(subscriptions, client));
    } else if (!own->second->pending.empty() && !own->second->delivering) {
        waiting.push_back(own->second);
        own->second->delivering = true;
    }
    return true;
}

void KRMemory::settleLater(const std::vector<LinkKey>& links) {
    for (const auto& [extractor, client] : links) {
        try {
            xPost("settle", [this, extractor = extractor, client = client] { settle(extractor, client); });
        } catch (...) {
            logWarning(kMemoryCategory, "subscriptions may be out of date: " + describeCurrentException());
        }
    }
}

// Called while an exception is handled. Another process says that its module is exiting before it announces that.
bool KRMemory::isRefusalOf(const std::string& module) {
    try {
        throw;
    } catch (const KRError& error) {
        return KRModuleGate::isRefusal(error, module);
    } catch (...) {
        return false;
    }
}

void KRMemory::settle(const std::string& extractor, const std::string& client) {
    if (extractor.empty()) {
        return;
    }
    const LinkKey key(extractor, client);
    const KRProxy proxy(getParentBroker(), extractor);
    KRLock lock(mutex_);
    // The entry may be removed during the wait, so it is looked up each time.
    settled_.wait(lock, [&] {
        mutex_.assertHeld();
        return !links_[key].busy;
    });
    Link& link = links_[key]; // stays, as it is busy
    link.busy = true;
    std::exception_ptr failure;
    std::exception_ptr unsubscribeFailure;
    while (!failure && isWanted(key) != link.subscribed) {
        // Recorded before the call: if the extractor leaves during the call, noticeModule() reverts it.
        const bool subscribe = !link.subscribed;
        link.subscribed = subscribe;
        lock.unlock();
        try {
            proxy.call(subscribe ? "subscribe" : "unsubscribe", client);
        } catch (...) {
            if (!isReachable(extractor) || isRefusalOf(extractor)) {
                // It is gone or about to go, and so are its subscribers.
            } else if (subscribe) {
                failure = std::current_exception();
                tryToUnsubscribe(proxy, client); // it may have kept the subscriber despite the error
            } else {
                unsubscribeFailure = std::current_exception();
            }
        }
        lock.lock();
        if (failure) {
            link.subscribed = false;
        }
    }
    link.busy = false;
    if (!link.subscribed) {
        links_.erase(key);
    }
    settled_.notifyAll();
    lock.unlock();
    if (failure) {
        std::rethrow_exception(failure);
    }
    if (unsubscribeFailure) {
        try {
            std::rethrow_exception(unsubscribeFailure);
        } catch (...) {
            logWarning(kMemoryCategory, "a subscription ended with an error: " + describeCurrentException());
        }
    }
}

bool KRMemory::isReachable(const std::string& module) const {
    return KRBrokerPrivate::of(*getParentBroker()).directory.isOpen(module);
}

bool KRMemory::isStillToCome(const std::string& module) const {
    return KRBrokerPrivate::of(*getParentBroker()).directory.getState(module) == KRModuleState::Claimed;
}

bool KRMemory::isWanted(const LinkKey& key) const {
    return isReachable(key.first) && std::any_of(events_.begin(), events_.end(), [&](const auto& entry) {
               return entry.second.extractor == key.first && entry.second.subscriptions.contains(key.second);
           });
}

KRMemory::Undelivered KRMemory::drop(Subscriptions& subscriptions, const std::string& client,
                                     const Subscription* subscription) {
    Undelivered undelivered;
    const auto found = subscriptions.find(client);
    if (found != subscriptions.end() && (subscription == nullptr || found->second.get() == subscription)) {
        assert(pendingInAll_ >= found->second->pendingBytes);
        pendingInAll_ -= found->second->pendingBytes;
        heap_.remove(found->second->pendingBytes);
        found->second->pendingBytes = 0;
        undelivered.swap(found->second->pending);
        subscriptions.erase(found);
    }
    return undelivered;
}

} // namespace KR
