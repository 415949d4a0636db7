#pragma once

#include "krplatform/krexport.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <memory>
#include <string>

namespace KR {

class KRBroker;

/// A client's persistent subscription to an extractor: it subscribes as soon as the extractor exists, again whenever the
/// extractor comes back, and unsubscribes in the destructor.
///
/// If the extractor refuses, it retries after a second, then less and less often, down to every 30 s; the log and
/// getFailure() have the reason. All this happens on a call thread. Thread-safe, except for moving.
class KR_EXPORT KRSubscription {
public:
    /// Subscribes with the extractor's current values, or its defaults. Returns at once.
    /// \param extractor  name of the module to subscribe to, which need not exist yet
    /// \param client     name to subscribe under; nobody else may use it with this extractor
    /// \throws KRError no thread or memory
    KRSubscription(const boost::shared_ptr<KRBroker>& broker, const std::string& extractor,
                   const std::string& client);
    /// Subscribes with this period in milliseconds and this precision.
    KRSubscription(const boost::shared_ptr<KRBroker>& broker, const std::string& extractor,
                   const std::string& client, int period, float precision = 0.0F);
    /// Unsubscribes. Waits for a subscribe call in progress.
    ~KRSubscription();
    /// Takes over the other one's subscription.
    KRSubscription(KRSubscription&&) noexcept;
    /// Unsubscribes, and takes over the other one's subscription.
    KRSubscription& operator=(KRSubscription&&) noexcept;

    /// Name of the module subscribed to.
    const std::string& getExtractor() const noexcept;
    /// Whether the present extractor has accepted the subscription.
    bool isSubscribed() const;
    /// The reason for the last refusal; empty once accepted, and while the extractor is absent.
    std::string getFailure() const;

private:
    class Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
