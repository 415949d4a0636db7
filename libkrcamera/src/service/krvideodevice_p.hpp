#pragma once

#include "krcamera/krvideodevice.hpp"

#include "service/krcameraslot.hpp"
#include "service/krsubscription.hpp"

#include <krplatform/krerror.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace KR {

/// Of a resolution code that is supported.
KRSize getSize(int resolution) noexcept;

/// The cameras and subscriptions of the service. Thread-safe; `method` is the operation that an error names.
struct KRVideoDevice::Private {
    using Subscriptions = std::vector<std::pair<std::string, std::shared_ptr<KRSubscription>>>;

    explicit Private(std::string moduleName) : name(std::move(moduleName)) {}

    [[noreturn]] void fail(const char* method, const std::string& text,
                           KRSourceLocation where = KRSourceLocation::current()) const;

    /// Null if there is no such camera.
    KRCameraSlot* findSlot(int camera) const noexcept;
    /// \throws KRError there is no such camera
    KRCameraSlot& getSlot(const char* method, int camera) const;
    /// \throws KRError it cannot be opened
    void acquire(const char* method, KRCameraSlot& slot, int resolution) const;

    /// \throws KRError there is no such subscription
    std::shared_ptr<KRSubscription> find(const char* method, const std::string& id) const;
    [[noreturn]] void failUnknown(const char* method, const std::string& id) const;
    /// All subscriptions with their identifiers, the oldest first.
    Subscriptions list() const;

    const std::string name;                           ///< of the module
    std::vector<std::unique_ptr<KRCameraSlot>> slots; ///< one per camera, constant

    mutable std::mutex mutex;
    // Guarded by mutex:
    std::map<std::string, std::shared_ptr<KRSubscription>> subscriptions;
    std::map<std::string, std::string>
        callers; ///< by identifier, the process that subscribed; empty for this one
    std::uint64_t subscriptionsMade = 0;
};

} // namespace KR
