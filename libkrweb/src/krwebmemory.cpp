#include "krwebmemory.hpp"

#include "krwebmessages.hpp"

#include <krinterop/krannotationsmessage.hpp>
#include <krinterop/krjson.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <chrono>
#include <utility>

namespace KR::web {

namespace {

constexpr std::chrono::milliseconds kCheck{500}; // for another memory module
constexpr std::size_t kMessageCost = 512;        // bytes of memory of a message, beside its texts

// Prefixes of all names, none of which is a prefix of another, so that no value is received twice.
std::set<std::string> findPrefixes(const std::set<std::string>& keys, const std::set<std::string>& events) {
    std::set<std::string> names = keys;
    names.insert(events.begin(), events.end());
    std::set<std::string> prefixes;
    const std::string* last = nullptr;
    for (const std::string& name : names) { // in order: what begins with a name comes behind it
        if (last == nullptr || !name.starts_with(*last)) {
            last = &*prefixes.insert(name).first;
        }
    }
    return prefixes;
}

// The size of what the image channels publish.
void setAnnotations(MemoryMessage& message, const KRValue& value) {
    try {
        const KRAnnotations annotations = KRAnnotations::fromKRValue(value);
        int width = 0;
        int height = 0;
        setSizeFromResolution(kVGA, width, height);
        message.annotations = share(encodeAnnotations(annotations, width, height));
        message.imageTime_ns = annotations.timeStamp >= 0
                                   ? static_cast<std::uint64_t>(annotations.timeStamp) * 1000
                                   : message.time_ns;
    } catch (const KRError&) { // NOLINT(bugprone-empty-catch): another value under a key of that name
    }
}

} // namespace

std::uint64_t getTime_ns() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

/// The module that the memory calls.
class MemoryWatch::Listener : public KRModule {
public:
    Listener(boost::shared_ptr<KRBroker> broker, const std::string& name, MemoryWatch& watch)
        : KRModule(std::move(broker), name), watch_(watch) {
        functionName("onWrite", "Web", "Shows a value or an event.");
        addParam("name", "Name of the key or event.");
        addParam("value", "Its value.");
        addParam("isEvent", "Whether it is an event.");
        advertiseMethod(getCurrentMethodDescription(), this, &Listener::onWrite);
        functionName("onEventsLost", "Web", "Reports what was dropped on the way here.");
        addParam("event", "Prefix of the names.");
        addParam("count", "How many were dropped since the last call.");
        advertiseMethod(getCurrentMethodDescription(), this, &Listener::onEventsLost);
    }
    ~Listener() override { shutDown(); }

    void onWrite(const std::string& name, const KRValue& value, const bool& isEvent) {
        watch_.receive(name, value, isEvent);
    }
    void onEventsLost(const std::string& event, const int& count) {
        logWarning("krweb", "lost " + std::to_string(count) + " values or events of " + event +
                                " on the way from the memory");
    }

private:
    MemoryWatch& watch_;
};

MemoryWatch::MemoryWatch(boost::shared_ptr<KRBroker> broker, std::string module, Receiver receiver)
    : broker_(std::move(broker)), module_(std::move(module)), receiver_(std::move(receiver)),
      thread_([this] { run(); }) {}

MemoryWatch::~MemoryWatch() {
    {
        const KRLock lock(mutex_);
        stopping_ = true;
        changed_.notifyAll();
    }
    thread_.join();
    listener_.reset();
}

void MemoryWatch::watch(std::set<std::string> keys, std::set<std::string> events) {
    const KRLock lock(mutex_);
    if (keys != keys_ || events != events_) {
        keys_ = std::move(keys);
        events_ = std::move(events);
        isNew_ = true;
        changed_.notifyAll();
    }
}

void MemoryWatch::run() noexcept {
    setThreadName("krweb memory");
    KRLock lock(mutex_);
    while (!stopping_) {
        const std::set<std::string> keys = keys_;
        const std::set<std::string> events = events_;
        isNew_ = false;
        lock.unlock();
        try {
            synchronize(keys, events);
        } catch (const KRError&) { // NOLINT(bugprone-empty-catch): the memory has just gone
        } catch (...) {
            logWarning("krweb", "memory: " + describeCurrentException());
        }
        lock.lock();
        const auto isWanted = [this] {
            mutex_.assertHeld();
            return stopping_ || isNew_;
        };
        if (keys.empty() && events.empty()) {
            changed_.wait(lock, isWanted);
        } else {
            changed_.waitFor(lock, kCheck, isWanted);
        }
    }
}

void MemoryWatch::synchronize(const std::set<std::string>& keys, const std::set<std::string>& events) {
    KRMemoryProxy memory(broker_);
    const std::uint32_t number = memory.getProxy().getModuleNumber();
    if (number != memory_) {
        subscribed_.clear();
        fetched_.clear();
        memory_ = number;
    }
    if (number == 0) {
        return;
    }
    const std::set<std::string> prefixes = findPrefixes(keys, events);
    if (!prefixes.empty() && !listener_) {
        listener_ =
            std::make_unique<KRModuleHandle<Listener>>(createModule<Listener>(broker_, module_, *this));
    }
    for (const std::string& prefix : prefixes) {
        if (!subscribed_.contains(prefix)) {
            memory.subscribeToWrites(prefix, module_, "onWrite");
            subscribed_.insert(prefix);
        }
    }
    for (auto prefix = subscribed_.begin(); prefix != subscribed_.end();) {
        if (prefixes.contains(*prefix)) {
            ++prefix;
            continue;
        }
        const std::string ended = *prefix;
        prefix = subscribed_.erase(prefix);
        memory.unsubscribeFromWrites(ended, module_);
    }
    std::erase_if(fetched_, [&](const std::string& key) { return !keys.contains(key); });
    for (const std::string& key : keys) {
        if (fetched_.insert(key).second) {
            try {
                receive(key, memory.getData(key), false);
            } catch (const KRError&) { // NOLINT(bugprone-empty-catch): removed
            }
        }
    }
    if (prefixes.empty()) {
        listener_.reset();
    }
}

void MemoryWatch::receive(const std::string& name, const KRValue& value, bool isEvent) {
    const std::string what = (isEvent ? "event " : "value of ") + name;
    const std::size_t size = value.countBytes();
    if (size > kMaxValue) {
        logWarning("krweb", what + " is left out: it takes " + std::to_string(size) +
                                " bytes, the limit is " + std::to_string(kMaxValue));
        return;
    }
    if (waiting_->load() > kMaxWaiting) {
        logWarning("krweb", what + " is left out: too many wait");
        return;
    }
    MemoryMessage made;
    made.name = name;
    made.isEvent = isEvent;
    made.time_ns = getTime_ns();
    made.payload = share(dump({{"value", toJson(value)}}));
    if (made.payload->size() > kMaxJson) { // a control character takes six bytes
        logWarning("krweb", what + " is left out: as JSON it takes " + std::to_string(made.payload->size()) +
                                " bytes, the limit is " + std::to_string(kMaxJson));
        return;
    }
    if (!isEvent && name.ends_with(kAnnotationsSuffix)) {
        setAnnotations(made, value);
    }
    const std::size_t bytes =
        kMessageCost + made.payload->size() + (made.annotations ? made.annotations->size() : 0);
    *waiting_ += bytes;
    receiver_(std::shared_ptr<const MemoryMessage>(new MemoryMessage(std::move(made)),
                                                   [waiting = waiting_, bytes](const MemoryMessage* message) {
                                                       delete message;
                                                       *waiting -= bytes;
                                                   }));
}

} // namespace KR::web
