#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krproxy.hpp"

#include <string>
#include <vector>

namespace KR {

/// The memory module, typed: data by key, and events.
///
/// Calls whatever module is registered as "KRMemory". All operations are thread-safe and throw KRError when
/// there is no such module. Events declared and subscribed to through this proxy are declared and subscribed to again
/// when a memory module of another process has gone and another has come; data is not written again.
class KR_EXPORT KRMemoryProxy {
public:
    explicit KRMemoryProxy(const boost::shared_ptr<KRBroker>& broker);

    /// Writes a value under a key, over whatever was there.
    void insertData(const std::string& key, const KRValue& value);
    /// \throws KRError no data under this key
    KRValue getData(const std::string& key) const;
    /// Keys that begin with `prefix`, in order.
    std::vector<std::string> getDataList(const std::string& prefix = "") const;
    /// \throws KRError no data under this key
    void removeData(const std::string& key);

    /// Says that `extractor` raises this event, so that those who subscribe to the event are subscribed to it.
    void declareEvent(const std::string& event, const std::string& extractor);
    /// Declares an event that no extractor stands behind.
    void declareEvent(const std::string& event);
    /// Stores the value under the event's name and calls back everyone who subscribed to the event, on call
    /// threads, in the order of raising. Returns without waiting for them.
    void raiseEvent(const std::string& event, const KRValue& value);
    /// Has `callback(string event, value)` of the module `client` called whenever the event is raised, and
    /// subscribes the client to the extractor that declared it. An event may be declared later, and its
    /// extractor may go and come back. Subscribing again replaces the callback. A client that takes its events so
    /// slowly that the oldest get lost is told by its method `onEventsLost(string event, int count)`, if it has
    /// one, before the next event that it gets.
    /// \throws KRError no such client; it has no such callback; the extractor refuses the subscription
    void subscribeToEvent(const std::string& event, const std::string& client, const std::string& callback);
    /// Ends that. The client's last event of an extractor unsubscribes it from the extractor.
    /// \throws KRError the client is not subscribed to the event
    void unsubscribeFromEvent(const std::string& event, const std::string& client);
    /// Names of the events that were declared, raised or subscribed to, in order.
    std::vector<std::string> getEventList() const;
    /// One array [client, callback, delivered, lost] per subscription to the event, in order of the clients.
    KRValue getEventSubscribers(const std::string& event) const;

    const KRProxy& getProxy() const noexcept { return proxy_; }

private:
    const boost::shared_ptr<KRBroker> broker_;
    KRProxy proxy_;
};

} // namespace KR
