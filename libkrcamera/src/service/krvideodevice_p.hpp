#pragma once

#include "krcamera/krvideodevice.hpp"

#include "service/krcameraslot.hpp"
#include "service/krimagesubscription.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krmutex.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KR {

/// Size of the images of a supported resolution.
KRSize getSize(int resolution) noexcept;

/// The cameras and subscriptions of the service. Thread-safe; `method` is the operation that an error names.
struct KRVideoDevice::Private {
    using Subscriptions = std::vector<std::pair<std::string, std::shared_ptr<KRImageSubscription>>>;

    explicit Private(std::string moduleName) : name(std::move(moduleName)) {}

    [[noreturn]] void fail(const char* method, const std::string& text,
                           KRSourceLocation where = KRSourceLocation::current()) const;

    /// Null if the camera does not exist.
    KRCameraSlot* findSlot(int camera) const noexcept;
    /// \throws KRError  the camera does not exist
    KRCameraSlot& getSlot(const char* method, int camera) const;
    /// The camera that a subscription uses now.
    KRCameraSlot& getSlot(const KRImageSubscription::Settings& settings) const noexcept;
    /// \throws KRError  the camera cannot be opened
    void acquire(const char* method, KRCameraSlot& slot, int resolution) const;

    /// Opens the camera and adds a subscription. \return its identifier
    /// \param caller  the process that subscribes; empty for this one
    /// \throws KRError  the camera cannot be opened
    std::string subscribe(const std::string& subscriber, const std::string& caller,
                          const KRImageSubscription::Settings& settings);
    /// \throws KRError  the subscription does not exist
    std::shared_ptr<KRImageSubscription> find(const char* method, const std::string& id) const;
    [[noreturn]] void failUnknown(const char* method, const std::string& id) const;
    /// All subscriptions with their identifiers, the oldest first.
    Subscriptions list() const;
    /// The identifiers of a process's subscriptions.
    std::vector<std::string> listOf(const std::string& caller) const;

    const std::string name;                           ///< of the module
    std::vector<std::unique_ptr<KRCameraSlot>> slots; ///< one per camera, constant

    mutable KRMutex mutex;
    std::map<std::string, std::shared_ptr<KRImageSubscription>> subscriptions KR_GUARDED_BY(mutex);
    std::uint64_t subscriptionsMade KR_GUARDED_BY(mutex) = 0;

private:
    std::string add(const std::string& subscriber, const std::string& caller,
                    const KRImageSubscription::Settings& settings) KR_REQUIRES(mutex);
};

} // namespace KR
