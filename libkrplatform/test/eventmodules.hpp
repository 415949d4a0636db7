#pragma once

#include "patience.hpp"

#include "krplatform/krmodulehandle.hpp"

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace KR::test {

/// A fake extractor that records its subscribers.
class FakeExtractor : public KRModule {
public:
    using Names = std::set<std::string>;
    /// Runs inside each call of subscribe and unsubscribe before it takes effect; may throw to refuse.
    using Hook = std::function<void(const std::string& call, const std::string& client)>;

    FakeExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name, Hook hook = {})
        : KRModule(std::move(broker), name), hook_(std::move(hook)) {
        functionName("subscribe", "FakeExtractor", "");
        addParam("name", "");
        advertiseMethod(getCurrentMethodDescription(), this, &FakeExtractor::subscribe);
        functionName("unsubscribe", "FakeExtractor", "");
        addParam("name", "");
        advertiseMethod(getCurrentMethodDescription(), this, &FakeExtractor::unsubscribe);
    }
    ~FakeExtractor() override { shutDown(); }

    void subscribe(const std::string& client) {
        note("subscribe", client);
        const std::lock_guard lock(mutex_);
        subscribers_.insert(client);
        changed_.notify_all();
    }
    void unsubscribe(const std::string& client) {
        note("unsubscribe", client);
        const std::lock_guard lock(mutex_);
        subscribers_.erase(client);
        changed_.notify_all();
    }

    /// "subscribe client", "unsubscribe client" and so on, in order.
    std::vector<std::string> getCalls() const {
        const std::lock_guard lock(mutex_);
        return calls_;
    }
    Names getSubscribers() const {
        const std::lock_guard lock(mutex_);
        return subscribers_;
    }
    /// Waits until exactly these are subscribed. \return whether that happened
    [[nodiscard]] bool waitForSubscribers(const Names& names) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return subscribers_ == names; });
    }

private:
    void note(const std::string& call, const std::string& client) {
        {
            const std::lock_guard lock(mutex_);
            calls_.push_back(call + " " + client);
        }
        if (hook_) {
            hook_(call, client);
        }
    }

    const Hook hook_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> calls_; // guarded by mutex_
    Names subscribers_;              // guarded by mutex_
};

/// A module that records the events that reach its method "onEvent".
class EventListener : public KRModule {
public:
    using Events = std::vector<std::pair<std::string, KRValue>>;
    /// Runs inside each call of onEvent after the event is recorded.
    using Hook = std::function<void(const KRValue& value)>;

    EventListener(boost::shared_ptr<KRBroker> broker, const std::string& name, Hook hook = {})
        : KRModule(std::move(broker), name), hook_(std::move(hook)) {
        functionName("onEvent", "EventListener", "");
        addParam("event", "");
        addParam("value", "");
        advertiseMethod(getCurrentMethodDescription(), this, &EventListener::onEvent);
        functionName("ping", "EventListener", "");
        advertiseMethod(getCurrentMethodDescription(), this, &EventListener::ping);
    }
    ~EventListener() override { shutDown(); }

    void onEvent(const std::string& event, const KRValue& value) {
        {
            const std::lock_guard lock(mutex_);
            events_.emplace_back(event, value);
            grown_.notify_all();
        }
        if (hook_) {
            hook_(value);
        }
    }
    void ping() {}

    /// Waits until that many events have arrived. \return all that have
    Events waitForEvents(std::size_t count) const {
        std::unique_lock lock(mutex_);
        grown_.wait_for(lock, kPatience, [&] { return events_.size() >= count; });
        return events_;
    }

private:
    const Hook hook_;
    mutable std::mutex mutex_;
    mutable std::condition_variable grown_;
    Events events_; // guarded by mutex_
};

} // namespace KR::test
