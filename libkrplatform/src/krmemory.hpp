#pragma once

#include "krplatform/krmemoryobserver.hpp"
#include "krplatform/krmodule.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krproxy.hpp"
#include "krplatform/krtransport.hpp"

#include "krheap.hpp"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KR {

/// The memory module: data by key, events, and subscriptions to events.
///
/// A client that subscribes to an event is also subscribed to the extractor that declared the event, for as long as it
/// has a subscription to any event of that extractor. This tracks extractors and clients as they start and stop. No lock is
/// held while an extractor or a client is called.
class KRMemory : public KRModule {
public:
    static constexpr const char* kName = "KRMemory";
    /// Maximum number of events queued for one subscription. When this or a limit in bytes is exceeded, the oldest are
    /// dropped and counted; the newest is always kept.
    static constexpr std::size_t kMaxPending = 16384;
    static constexpr std::size_t kMaxPendingBytes = 64 << 20;  // of one subscription, unless set otherwise
    static constexpr std::size_t kMaxPendingInAll = 256 << 20; // the same of all
    static constexpr std::size_t kMaxKeyBytes = 1024;          // also of an event's name
    static constexpr std::size_t kMaxValueBytes = 256 << 20;   // as KRValue::countBytes() counts

    KRMemory(boost::shared_ptr<KRBroker> broker, const std::string& name);

    void insertData(const std::string& key, const KRValue& value);
    /// \param list  array of arrays [key, value]
    void insertListData(const KRValue& list);
    KRValue getData(const std::string& key);
    /// When the key was last written: [seconds since the Unix epoch, microseconds beyond].
    KRValue getTimestamp(const std::string& key);
    std::vector<std::string> getDataList(const std::string& prefix);
    /// \return array of arrays [key, value]
    KRValue getDataValues(const std::string& prefix);
    /// \return [now, array of arrays [key, value, bytes of the value, seconds and microseconds when it was written]]; the
    /// value is invalid if it has more than maxBytes
    KRValue getDataChanges(const std::string& prefix, const std::string& since, int maxBytes);
    void removeData(const std::string& key);
    /// The module writes this key. Logs a warning if another existing module has declared it, too.
    void declareData(const std::string& key, const std::string& module);

    void declareEvent(const std::string& event, const std::string& extractor);
    void declareEvent(const std::string& event);
    /// A subscriber that is not reachable yet gets it later.
    void raiseEvent(const std::string& event, const KRValue& value);
    void subscribeToEvent(const std::string& event, const std::string& client, const std::string& callback);
    void unsubscribeFromEvent(const std::string& event, const std::string& client);
    /// Calls `callback(string name, value, bool isEvent)` of the client for everything written under a name that begins
    /// with the prefix, and for such events; subscribes it to no extractor.
    void subscribeToWrites(const std::string& prefix, const std::string& client, const std::string& callback);
    void unsubscribeFromWrites(const std::string& prefix, const std::string& client);
    std::vector<std::string> getEventList();
    KRValue getEventSubscribers(const std::string& event);

    /// \throws KRError the key or the value is too large for the memory
    static void checkData(const char* method, const std::string& key, const KRValue& value);

    /// Limits the queues, in kilobytes. \throws KRError a limit below 1
    void setEventLimits(int perSubscription, int inAll);

    /// setMemoryObserver().
    void setObserver(KRMemoryObserver observer);

    /// A module became reachable or unreachable. Does not block.
    void noticeModule(const std::string& module, bool reachable);

private:
    struct Pending {
        std::string name; // of the key or event, for a subscription to writes
        bool isEvent;
        KRValue value;
        std::size_t bytes;
    };
    using Undelivered = std::deque<Pending>;
    struct Subscription {
        std::string event; // or prefix
        bool isOfWrites;
        std::string callback;
        KRProxy client;
        bool hearsOfLosses;
        Undelivered pending;
        std::size_t pendingBytes = 0;
        bool delivering = false; // a call thread calls the client
        int delivered = 0;
        int lost = 0;
        int lostUnreported = 0; // of lost, since the last warning
    };
    struct Stored {
        KRValue value;
        std::size_t bytes = 0;
        std::chrono::system_clock::time_point written = std::chrono::system_clock::now();
        std::uint64_t change = 0; // number of the change that brought it
    };
    static KRValue toTimestamp(const Stored& stored);
    using Subscriptions = std::map<std::string, std::shared_ptr<Subscription>>; // by client
    struct Event {
        std::string extractor; // empty: no extractor raises it
        Subscriptions subscriptions;
    };
    /// Subscriptions to deliver to after releasing the lock.
    using Idle = std::vector<std::shared_ptr<Subscription>>;
    // A client's subscription to an extractor.
    struct Link {
        bool subscribed = false;
        bool busy = false; // a thread is in settle()
    };
    using LinkKey = std::pair<std::string, std::string>; // extractor, client

    void publishMethods();
    static void checkName(const char* method, const std::string& name);
    /// \throws KRError there is no such module, or it is exiting
    KRModuleState findClient(const std::string& client) const;
    /// \return whether the client may have a method that takes reports of lost events
    /// \throws KRError it cannot be called back
    bool checkCallback(const std::string& client, const std::string& callback, std::size_t arguments,
                       const char* signature) const;
    std::shared_ptr<Subscription> makeSubscription(const std::string& name, bool isOfWrites,
                                                   const std::string& client, const std::string& callback);
    static void reportLoss(const Subscription& subscription, int lost);
    /// Calls the subscriber with its pending events, if it is reachable.
    void deliver(const std::shared_ptr<Subscription>& subscription) KR_EXCLUDES(mutex_);
    /// Calls it with one of them. \return false: there is none, or the subscriber is not reachable yet
    bool deliverNext(Subscription& subscription) KR_EXCLUDES(mutex_);
    /// deliver() on a call thread. \throws KRError there is none
    void deliverLater(const std::shared_ptr<Subscription>& subscription) KR_EXCLUDES(mutex_);
    /// Adjusts the client's subscription to the extractor to its event subscriptions.
    void settle(const std::string& extractor, const std::string& client) KR_EXCLUDES(mutex_);
    /// A client appeared or left. \return whether it has a subscription among these
    bool noticeClient(Subscriptions& subscriptions, const std::string& client, bool reachable,
                      std::vector<Undelivered>& undelivered, Idle& waiting) KR_REQUIRES(mutex_);
    void settleLater(const std::vector<LinkKey>& links) KR_EXCLUDES(mutex_);
    /// Logs a warning if both are existing, different modules.
    void warnIfBoth(const std::string& before, const std::string& now, const std::string& declare) const;
    bool isReachable(const std::string& module) const;
    bool isStillToCome(const std::string& module) const; // its name is taken, but it cannot be called yet
    bool isWanted(const LinkKey& key) const KR_REQUIRES(mutex_);
    static bool isRefusalOf(const std::string& module);
    /// Ends the client's subscription, or only `subscription` if that is not null. The caller destroys the result
    /// without the lock.
    [[nodiscard]] Undelivered drop(Subscriptions& subscriptions, const std::string& client,
                                   const Subscription* subscription = nullptr) KR_REQUIRES(mutex_);
    /// Queues a value for a subscription. `idle` has room for one more. The caller destroys `lost` without the lock.
    void append(const std::shared_ptr<Subscription>& subscription, Pending pending, Undelivered& lost,
                Idle& idle) KR_REQUIRES(mutex_);
    /// The same for all subscribers to writes under this name.
    void appendWrite(const std::string& name, bool isEvent, const KRValue& value, std::size_t bytes,
                     Undelivered& lost, Idle& idle) KR_REQUIRES(mutex_);
    /// \throws KRError no thread; the rest has been posted
    void deliverTo(const Idle& idle) KR_EXCLUDES(mutex_);
    [[nodiscard]] Pending takeOldest(Subscription& subscription) KR_REQUIRES(mutex_);
    /// Drops the oldest events until the queues are within the limits. The caller destroys `lost` without the lock.
    void enforceLimits(Subscription& grown, Undelivered& lost) KR_REQUIRES(mutex_);
    /// \throws KRError no data under this key, named after the method
    const Stored& find(const char* method, const std::string& key) const KR_REQUIRES(mutex_);
    [[nodiscard]] Stored store(const std::string& key, Stored value) KR_REQUIRES(mutex_);
    /// Returns memory to the system, on a call thread, after a lot of it has been freed.
    void returnMemoryLater() KR_EXCLUDES(mutex_);

    const std::string instance_; // unique to this memory module

    mutable KRMutex mutex_;
    KRCondition settled_;
    std::map<std::string, Stored> data_ KR_GUARDED_BY(mutex_);
    std::map<std::string, std::string> writers_ KR_GUARDED_BY(mutex_); // module by key, as declared last
    std::uint64_t changes_ KR_GUARDED_BY(mutex_) = 0;                  // of data so far
    std::map<std::string, Event> events_ KR_GUARDED_BY(mutex_);
    std::map<std::string, Subscriptions> writes_ KR_GUARDED_BY(mutex_); // by prefix
    std::map<LinkKey, Link> links_ KR_GUARDED_BY(mutex_);
    std::size_t maxPendingBytes_ KR_GUARDED_BY(mutex_) = kMaxPendingBytes;
    std::size_t maxPendingInAll_ KR_GUARDED_BY(mutex_) = kMaxPendingInAll;
    std::size_t pendingInAll_ KR_GUARDED_BY(mutex_) = 0;                     // bytes
    KRHeapGauge heap_ KR_GUARDED_BY(mutex_);                                 // data and pending events
    std::shared_ptr<const KRMemoryObserver> observer_ KR_GUARDED_BY(mutex_); // null: none
};

} // namespace KR
