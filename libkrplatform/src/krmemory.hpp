#pragma once

#include "krplatform/krmodule.hpp"
#include "krplatform/krproxy.hpp"
#include "krplatform/krtransport.hpp"

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace KR {

/// The memory module: data by key, events, and subscriptions to events.
///
/// Whoever subscribes to an event is subscribed to the extractor that declared it for as long as it has a
/// subscription to any event of that extractor; this follows extractors and clients that come and go. No lock
/// is held while an extractor or a client is called.
class KRMemory : public KRModule {
public:
    static constexpr const char* kName = "KRMemory";
    /// Events that wait for one subscriber at most; when more come the oldest are lost, and counted.
    static constexpr std::size_t kMaxPending = 16384;

    KRMemory(boost::shared_ptr<KRBroker> broker, const std::string& name);

    void insertData(const std::string& key, const KRValue& value);
    KRValue getData(const std::string& key);
    std::vector<std::string> getDataList(const std::string& prefix);
    void removeData(const std::string& key);

    void declareEvent(const std::string& event, const std::string& extractor);
    void declareEvent(const std::string& event);
    /// A subscriber that is not reachable yet gets it once it is.
    void raiseEvent(const std::string& event, const KRValue& value);
    void subscribeToEvent(const std::string& event, const std::string& client, const std::string& callback);
    void unsubscribeFromEvent(const std::string& event, const std::string& client);
    std::vector<std::string> getEventList();
    KRValue getEventSubscribers(const std::string& event);

    /// A module can be called from now on, or cannot any more. Does not block.
    void noticeModule(const std::string& module, bool reachable);

private:
    using Undelivered = std::deque<KRValue>;
    struct Subscription {
        std::string event;
        std::string callback;
        KRProxy client;
        bool hearsOfLosses;
        Undelivered pending;
        bool delivering = false; // a call thread is at it
        int delivered = 0;
        int lost = 0;
        int lostUntold = 0; // of lost, since the last warning
    };
    struct Event {
        std::string extractor;                                              // empty if none stands behind it
        std::map<std::string, std::shared_ptr<Subscription>> subscriptions; // by client
    };
    // A client's subscription to an extractor.
    struct Link {
        bool subscribed = false;
        bool busy = false; // a thread is bringing it to what is wanted
    };
    using LinkKey = std::pair<std::string, std::string>; // extractor, client

    void publishMethods();
    /// \throws KRError there is no such module, or it goes
    KRModuleState findClient(const std::string& client) const;
    /// \return whether the client may want to hear of events that it lost
    /// \throws KRError it cannot be called back
    bool checkCallback(const std::string& client, const std::string& callback) const;
    static void tellOfLoss(const Subscription& subscription, int lost);
    /// Calls the subscriber with the events that wait for it, as soon as it is reachable.
    void deliver(const std::shared_ptr<Subscription>& subscription);
    /// The same on a call thread. \throws KRError there is none
    void deliverLater(const std::shared_ptr<Subscription>& subscription);
    void settle(const std::string& extractor, const std::string& client);
    void settleLater(const std::vector<LinkKey>& links);
    bool isReachable(const std::string& module) const;
    bool isStillToCome(const std::string& module) const; // its name is taken, but it cannot be called yet
    bool isWanted(const LinkKey& key) const;             // with mutex_ held
    /// Ends the subscription; with mutex_ held. What it returns is to go without it.
    [[nodiscard]] Undelivered drop(Event& event, const std::string& client);

    std::mutex mutex_;
    std::condition_variable settled_;
    // Guarded by mutex_.
    std::map<std::string, KRValue> data_;
    std::map<std::string, Event> events_;
    std::map<LinkKey, Link> links_;
};

} // namespace KR
