#pragma once

#include "krwebclient.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>

namespace KR::web {

/// The time now as messages carry it, nanoseconds since the Unix epoch.
std::uint64_t getTime_ns();

/// A written value or raised event.
struct MemoryMessage {
    std::string name;
    bool isEvent = false;
    std::uint64_t time_ns = 0; ///< when it came here, since the Unix epoch
    Bytes payload;             ///< {"value": ...}
    /// `foxglove.ImageAnnotations` and the time of their image, if the value is annotations under their key; otherwise null.
    Bytes annotations;
    std::uint64_t imageTime_ns = 0;
};

/// Receives values written under given keys and events of given names, through a module. Subscribes again to each new memory
/// module. Thread-safe.
class MemoryWatch {
public:
    static constexpr std::size_t kMaxValue = 4 << 20; ///< bytes; larger ones are left out, and logged
    static constexpr std::size_t kMaxJson = 8 << 20;  ///< bytes, of a value; the same
    static constexpr std::size_t kMaxWaiting =
        16 << 20; ///< bytes for the receiver; more are left out, and logged

    /// Called with each update on call threads; must not throw.
    using Receiver = std::function<void(std::shared_ptr<const MemoryMessage>)>;

    /// \param module  name of the module, which exists while something is watched
    MemoryWatch(boost::shared_ptr<KRBroker> broker, std::string module, Receiver receiver);
    ~MemoryWatch();
    MemoryWatch(const MemoryWatch&) = delete;
    MemoryWatch& operator=(const MemoryWatch&) = delete;

    /// Sets what to receive. The present values of newly added keys follow soon.
    void watch(std::set<std::string> keys, std::set<std::string> events);

private:
    class Listener;
    void run() noexcept;
    void synchronize(const std::set<std::string>& keys, const std::set<std::string>& events);
    void receive(const std::string& name, const KRValue& value, bool isEvent);

    const boost::shared_ptr<KRBroker> broker_;
    const std::string module_;
    const Receiver receiver_;
    // Of bytes that the receiver has not dropped yet.
    const std::shared_ptr<std::atomic<std::size_t>> waiting_ = std::make_shared<std::atomic<std::size_t>>(0);

    // Of the thread.
    std::unique_ptr<KRModuleHandle<Listener>> listener_;
    std::uint32_t memory_ = 0;         // number of the memory module that has the subscriptions
    std::set<std::string> subscribed_; // prefixes
    std::set<std::string> fetched_;    // keys

    KRMutex mutex_;
    KRCondition changed_;
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
    bool isNew_ KR_GUARDED_BY(mutex_) = false;
    std::set<std::string> keys_ KR_GUARDED_BY(mutex_);
    std::set<std::string> events_ KR_GUARDED_BY(mutex_);
    std::thread thread_; // last: it uses the other members
};

} // namespace KR::web
