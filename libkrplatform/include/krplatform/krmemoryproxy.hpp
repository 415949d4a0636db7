#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krproxy.hpp"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace KR {

class KRMemoryLedger;

/// A value that was written to the memory.
struct KRMemoryChange {
    std::string key;               ///< under which it was written
    KRValue value;                 ///< invalid if it was left out
    int bytes = 0;                 ///< size of the value
    bool leftOut = false;          ///< whether it was too large to be included
    std::int64_t written_usec = 0; ///< as KRMemoryProxy::getTimestamp() returns it
};

/// Values written to the memory since an earlier call.
struct KRMemoryChanges {
    std::string now;                     ///< marks this position
    std::vector<KRMemoryChange> changes; ///< in the order of the keys
};

/// The memory module, typed: data by key, and events.
///
/// Keys and event names have at most 1024 bytes, and values at most 256 MiB; operations refuse more.
///
/// Calls whatever module is registered as "KRMemory". All operations are thread-safe. Without such a module they throw a
/// KRError, except for writing operations once there has been one: while the memory module is away, for example during a
/// restart, the newest value of each key and the raised events are kept, up to 64 MiB for all proxies of the broker, and
/// delivered when one is back, events a second later. A warning is logged when it goes away, and a line with the number of
/// dropped values and events when it is back. Declarations and subscriptions are repeated to each new memory module; other
/// data is not written again. Reading operations and removeData() throw while it is away.
class KR_EXPORT KRMemoryProxy {
public:
    /// On the memory module that the broker reaches, which need not exist yet.
    explicit KRMemoryProxy(const boost::shared_ptr<KRBroker>& broker);

    /// Writes a value under a key, in place of any earlier one.
    void insertData(const std::string& key, const KRValue& value);
    /// Writes values under several keys in one call, all or none.
    void insertListData(const std::vector<std::pair<std::string, KRValue>>& list);
    /// \throws KRError no data under this key
    KRValue getData(const std::string& key) const;
    /// When the key was last written, by the clock of the memory module's machine: microseconds since the Unix epoch. A
    /// write with the same value counts; a value that was kept while the memory module was away is written when it is back.
    /// On the wire, as in an image, an array of whole seconds and the microseconds beyond.
    /// \throws KRError no data under this key
    std::int64_t getTimestamp(const std::string& key) const;
    /// Keys that begin with `prefix`, in order.
    std::vector<std::string> getDataList(const std::string& prefix = "") const;
    /// Keys that begin with `prefix`, in order, and their values.
    std::vector<std::pair<std::string, KRValue>> getDataValues(const std::string& prefix = "") const;
    /// Values under keys that begin with `prefix` that were written since an earlier call, in the order of the keys.
    /// \param since     `now` of that call; empty, or from another memory module: all values
    /// \param maxBytes  larger values are left out
    KRMemoryChanges getDataChanges(const std::string& prefix, const std::string& since, int maxBytes) const;
    /// \throws KRError no data under this key
    void removeData(const std::string& key);

    /// Declares that `module` writes this key; the memory module logs a warning if a second module does so.
    /// Does nothing if the memory module is away, or of an older version. Does not throw.
    void declareData(const std::string& key, const std::string& module) noexcept;

    /// Declares that `extractor` raises this event: clients that subscribe to the event are subscribed to it.
    void declareEvent(const std::string& event, const std::string& extractor);
    /// Declares an event that no extractor raises.
    void declareEvent(const std::string& event);
    /// Stores the value under the event's name and calls back all subscribers of the event, on call
    /// threads, in the order of raising. Returns without waiting for them.
    void raiseEvent(const std::string& event, const KRValue& value);
    /// Calls `callback(string event, value)` of the module `client` whenever the event is raised, and
    /// subscribes the client to the extractor that declared it. The event may be declared later, and its
    /// extractor may restart. Subscribing again replaces the callback. If more events are queued for a slow client than
    /// setEventLimits() allows, or more than 16384, the oldest are lost; its method
    /// `onEventsLost(string event, int count)`, if it has one, is called before its next event.
    /// \throws KRError no such client; it has no such callback; the extractor refuses the subscription
    void subscribeToEvent(const std::string& event, const std::string& client, const std::string& callback);
    /// Ends a subscription. The client's last event of an extractor unsubscribes it from the extractor.
    /// \throws KRError the client is not subscribed to the event
    void unsubscribeFromEvent(const std::string& event, const std::string& client);
    /// Calls `callback(string name, value, bool isEvent)` of the module `client`, as subscribeToEvent() does, for every
    /// value written under a key that begins with `prefix`, and for events with such names; subscribes the client to no
    /// extractor. Not repeated to a new memory module.
    /// \throws KRError no such client; it has no such callback; as all operations
    void subscribeToWrites(const std::string& prefix, const std::string& client, const std::string& callback);
    /// \throws KRError the client is not subscribed to the prefix
    void unsubscribeFromWrites(const std::string& prefix, const std::string& client);
    /// Names of the events that were declared, raised or subscribed to, in order.
    std::vector<std::string> getEventList() const;
    /// One array [client, callback, delivered, lost] per subscription to the event, in order of the clients.
    KRValue getEventSubscribers(const std::string& event) const;

    /// Limits the memory for events queued for slow clients, in kilobytes: by default 65536 per subscription and 262144
    /// in total. \throws KRError a limit below 1
    void setEventLimits(int perSubscription, int inAll);

    const KRProxy& getProxy() const noexcept { return proxy_; } ///< untyped

private:
    KRMemoryLedger& getLedger() const;

    const boost::shared_ptr<KRBroker> broker_;
    KRProxy proxy_;
};

} // namespace KR
