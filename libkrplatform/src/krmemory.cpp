#include "krmemory.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"

#include <algorithm>

namespace KR {

namespace {

constexpr const char* kCategory = "krplatform.memory";
constexpr const char* kLossCallback = "onEventsLost";
constexpr std::chrono::seconds kIntroduction{2}; // a module of another process may take to be known here

void tryToUnsubscribe(const KRProxy& extractor, const std::string& client) {
    try {
        extractor.call("unsubscribe", client);
    } catch (...) { // it had not kept it
    }
}

} // namespace

KRMemory::KRMemory(boost::shared_ptr<KRBroker> broker, const std::string& name)
    : KRModule(std::move(broker), name) {
    publishMethods();
}

void KRMemory::publishMethods() {
    const auto publish = [this](auto member) {
        advertiseMethod(getCurrentMethodDescription(), this, member);
    };
    const auto overload = [this](auto member) { bindMethodOverload(createFunctor(this, member)); };

    functionName("insertData", kName, "Writes a value under a key.");
    addParam("key", "Name of the data.");
    addParam("value", "The value; it replaces whatever was there.");
    publish(&KRMemory::insertData);

    functionName("getData", kName, "Gets the value under a key.");
    addParam("key", "Name of the data.");
    setReturn("value", "The value written last.");
    publish(&KRMemory::getData);

    functionName("getDataList", kName, "Gets the keys that there are.");
    addParam("prefix", "What the keys have to begin with; empty for all.");
    setReturn("keys", "Array of keys, in order.");
    publish(&KRMemory::getDataList);

    functionName("removeData", kName, "Removes a key and its value.");
    addParam("key", "Name of the data.");
    publish(&KRMemory::removeData);

    functionName("declareEvent", kName, "Declares an event and the extractor that raises it.");
    addParam("event", "Name of the event.");
    addParam("extractor", "Name of the extractor module.");
    overload(
        static_cast<void (KRMemory::*)(const std::string&, const std::string&)>(&KRMemory::declareEvent));

    functionName("declareEvent", kName, "Declares an event that no extractor stands behind.");
    addParam("event", "Name of the event.");
    overload(static_cast<void (KRMemory::*)(const std::string&)>(&KRMemory::declareEvent));

    functionName("raiseEvent", kName,
                 "Stores a value under the event's name and tells the event's subscribers.");
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
                 "Unsubscribes a module from an event, with its last one from the extractor too.");
    addParam("event", "Name of the event.");
    addParam("client", "Name of the module which had subscribed.");
    publish(&KRMemory::unsubscribeFromEvent);

    functionName("getEventList", kName, "Gets the events that were declared, raised or subscribed to.");
    setReturn("events", "Array of names, in order.");
    publish(&KRMemory::getEventList);

    functionName("getEventSubscribers", kName, "Gets the subscriptions to an event.");
    addParam("event", "Name of the event.");
    setReturn("subscribers", "Array of [client, callback, events delivered, events lost].");
    publish(&KRMemory::getEventSubscribers);
}

void KRMemory::insertData(const std::string& key, const KRValue& value) {
    KRValue previous = value; // goes without the lock, as what it shares may call its owner when it goes
    const std::lock_guard lock(mutex_);
    std::swap(data_[key], previous);
}

KRValue KRMemory::getData(const std::string& key) {
    const std::lock_guard lock(mutex_);
    const auto found = data_.find(key);
    if (found == data_.end()) {
        throw KRError(kName, "getData", "there is no data named " + key);
    }
    return found->second;
}

std::vector<std::string> KRMemory::getDataList(const std::string& prefix) {
    std::vector<std::string> keys;
    const std::lock_guard lock(mutex_);
    for (auto entry = data_.lower_bound(prefix); entry != data_.end() && entry->first.starts_with(prefix);
         ++entry) {
        keys.push_back(entry->first);
    }
    return keys;
}

void KRMemory::removeData(const std::string& key) {
    decltype(data_)::node_type removed; // goes without the lock
    {
        const std::lock_guard lock(mutex_);
        removed = data_.extract(key);
    }
    if (removed.empty()) {
        throw KRError(kName, "removeData", "there is no data named " + key);
    }
}

void KRMemory::declareEvent(const std::string& event) {
    declareEvent(event, "");
}

void KRMemory::declareEvent(const std::string& event, const std::string& extractor) {
    std::vector<LinkKey> links;
    {
        const std::lock_guard lock(mutex_);
        Event& declared = events_[event];
        for (const auto& [client, subscription] : declared.subscriptions) {
            links.emplace_back(declared.extractor, client);
            links.emplace_back(extractor, client);
        }
        declared.extractor = extractor;
    }
    settleLater(links);
}

void KRMemory::raiseEvent(const std::string& event, const KRValue& value) {
    std::vector<std::shared_ptr<Subscription>> idle;
    std::vector<KRValue> dropped{value}; // go without the lock
    {
        const std::lock_guard lock(mutex_);
        std::swap(data_[event], dropped.front());
        for (const auto& [client, subscription] : events_[event].subscriptions) {
            subscription->pending.push_back(value);
            if (subscription->pending.size() > kMaxPending) {
                dropped.push_back(std::move(subscription->pending.front()));
                subscription->pending.pop_front();
                ++subscription->lost;
                ++subscription->lostUntold;
            }
            if (!subscription->delivering) {
                subscription->delivering = true;
                idle.push_back(subscription);
            }
        }
    }
    std::exception_ptr failure;
    for (const auto& subscription : idle) {
        try {
            deliverLater(subscription);
        } catch (const KRError&) {
            failure = std::current_exception();
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void KRMemory::deliverLater(const std::shared_ptr<Subscription>& subscription) {
    try {
        xPost("raiseEvent", [this, subscription] { deliver(subscription); });
    } catch (const KRError&) {
        const std::lock_guard lock(mutex_);
        subscription->delivering = false; // the next event tries again
        throw;
    }
}

void KRMemory::deliver(const std::shared_ptr<Subscription>& subscription) {
    const auto logWarningAbout = [&](const std::string& what) {
        logWarning(kCategory, "event " + subscription->event + " for " +
                                  subscription->client.getModuleName() + "." + subscription->callback + ": " +
                                  what);
    };
    for (;;) {
        KRValue value;
        int lost = 0;
        {
            const std::lock_guard lock(mutex_);
            // Empty also once the subscription has ended. What waits for a client that is still to be reachable goes
            // on in noticeModule().
            if (subscription->pending.empty() || isStillToCome(subscription->client.getModuleName())) {
                subscription->delivering = false;
                return;
            }
            value = std::move(subscription->pending.front());
            subscription->pending.pop_front();
            lost = std::exchange(subscription->lostUntold, 0);
            ++subscription->delivered;
        }
        if (lost > 0) {
            logWarningAbout("lost " + std::to_string(lost) + " events, it takes them too slowly");
            tellOfLoss(*subscription, lost);
        }
        try {
            subscription->client.call(subscription->callback, subscription->event, value);
        } catch (...) {
            logWarningAbout(describeCurrentException());
        }
    }
}

void KRMemory::tellOfLoss(const Subscription& subscription, int lost) {
    if (!subscription.hearsOfLosses) {
        return;
    }
    try {
        subscription.client.call(kLossCallback, subscription.event, lost);
    } catch (const KRError& error) {
        logVerbose(kCategory, error.what()); // it may have no such method
    }
}

void KRMemory::subscribeToEvent(const std::string& event, const std::string& client,
                                const std::string& callback) {
    if (!xGetCaller().empty()) {
        // It knows its own modules sooner than this process does.
        KRBrokerPrivate::of(*getParentBroker()).directory.waitForState(client, kIntroduction);
    }
    const bool hearsOfLosses = checkCallback(client, callback);
    std::string extractor;
    Undelivered replaced;
    Undelivered undelivered;
    {
        const std::lock_guard lock(mutex_);
        findClient(client); // should it go after this, noticeModule() waits for the lock and drops it
        Event& subscribed = events_[event];
        replaced = drop(subscribed, client);
        // Built in place: a subscription holds a proxy, which does not move.
        subscribed.subscriptions[client] = std::shared_ptr<Subscription>(
            new Subscription{event, callback, {getParentBroker(), client}, hearsOfLosses, {}});
        extractor = subscribed.extractor;
    }
    try {
        settle(extractor, client);
    } catch (...) {
        const std::lock_guard lock(mutex_);
        undelivered = drop(events_[event], client);
        throw;
    }
}

void KRMemory::unsubscribeFromEvent(const std::string& event, const std::string& client) {
    std::string extractor;
    Undelivered undelivered;
    {
        const std::lock_guard lock(mutex_);
        const auto found = events_.find(event);
        if (found == events_.end() || !found->second.subscriptions.contains(client)) {
            throw KRError(kName, "unsubscribeFromEvent", client + " is not subscribed to the event " + event);
        }
        undelivered = drop(found->second, client);
        extractor = found->second.extractor;
    }
    settle(extractor, client);
}

std::vector<std::string> KRMemory::getEventList() {
    std::vector<std::string> names;
    const std::lock_guard lock(mutex_);
    for (const auto& [name, event] : events_) {
        names.push_back(name);
    }
    return names;
}

KRValue KRMemory::getEventSubscribers(const std::string& event) {
    std::vector<KRValue> subscribers;
    const std::lock_guard lock(mutex_);
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

bool KRMemory::checkCallback(const std::string& client, const std::string& callback) const {
    if (findClient(client) != KRModuleState::Open) {
        return true; // it subscribes in its own constructor, where it may not have published the method yet
    }
    const auto methods = KRProxy(getParentBroker(), client).getMethodList();
    const bool fits = std::any_of(methods.begin(), methods.end(), [&](const KRMethodDescription& method) {
        return method.name == callback && method.argumentTypes.size() == 2;
    });
    const bool hearsOfLosses =
        std::any_of(methods.begin(), methods.end(), [](const KRMethodDescription& method) {
            return method.name == kLossCallback && method.argumentTypes.size() == 2;
        });
    if (!fits) {
        throw KRError(kName, "subscribeToEvent",
                      "the module " + client + " has no method " + callback + "(string event, value)");
    }
    return hearsOfLosses;
}

void KRMemory::noticeModule(const std::string& module, bool reachable) {
    std::vector<LinkKey> links;
    std::vector<Undelivered> undelivered;
    std::vector<std::shared_ptr<Subscription>> waiting;
    {
        const std::lock_guard lock(mutex_);
        for (auto& [name, event] : events_) {
            if (event.extractor == module && reachable) {
                for (const auto& [client, subscription] : event.subscriptions) {
                    links.emplace_back(module, client);
                }
            }
            const auto own = event.subscriptions.find(module);
            if (own == event.subscriptions.end()) {
                continue;
            }
            if (!reachable) {
                undelivered.push_back(drop(event, module));
                links.emplace_back(event.extractor, module);
            } else if (!own->second->pending.empty() && !own->second->delivering) {
                own->second->delivering = true;
                waiting.push_back(own->second);
            }
        }
        if (!reachable) {
            for (auto& [key, link] : links_) {
                if (key.first == module) {
                    link.subscribed = false; // what it knew of its subscribers went with it
                }
            }
        }
    }
    settleLater(links);
    for (const auto& subscription : waiting) {
        try {
            deliverLater(subscription);
        } catch (const KRError& error) {
            logWarning(kCategory, std::string("events have to wait: ") + error.what());
        }
    }
}

void KRMemory::settleLater(const std::vector<LinkKey>& links) {
    for (const auto& [extractor, client] : links) {
        try {
            xPost("settle", [this, extractor = extractor, client = client] { settle(extractor, client); });
        } catch (const KRError& error) {
            logWarning(kCategory, std::string("subscriptions may be out of date: ") + error.what());
        }
    }
}

void KRMemory::settle(const std::string& extractor, const std::string& client) {
    if (extractor.empty()) {
        return;
    }
    const LinkKey key(extractor, client);
    const KRProxy proxy(getParentBroker(), extractor);
    std::unique_lock lock(mutex_);
    // The entry may go while this waits, so it is looked up anew each time.
    settled_.wait(lock, [&] { return !links_[key].busy; });
    Link& link = links_[key]; // stays, as it is busy
    link.busy = true;
    std::exception_ptr failure;
    while (!failure && isWanted(key) != link.subscribed) {
        // Noted before the call: should the extractor go during the call, noticeModule() takes it back.
        const bool subscribe = !link.subscribed;
        link.subscribed = subscribe;
        lock.unlock();
        try {
            proxy.call(subscribe ? "subscribe" : "unsubscribe", client);
        } catch (...) {
            if (!isReachable(extractor)) {
                // It has gone, and its subscribers with it.
            } else if (subscribe) {
                failure = std::current_exception();
                tryToUnsubscribe(proxy, client); // it may have kept a subscriber whom it failed to serve
            } else {
                logWarning(kCategory, "a subscription ended with an error: " + describeCurrentException());
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
    settled_.notify_all();
    if (failure) {
        std::rethrow_exception(failure);
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

KRMemory::Undelivered KRMemory::drop(Event& event, const std::string& client) {
    Undelivered undelivered;
    const auto found = event.subscriptions.find(client);
    if (found != event.subscriptions.end()) {
        undelivered.swap(found->second->pending);
        event.subscriptions.erase(found);
    }
    return undelivered;
}

} // namespace KR
