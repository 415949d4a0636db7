#pragma once

#include "krplatform/krexport.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <memory>
#include <string>

namespace KR {

class KRBroker;

/// A client's subscription to an extractor that lasts: it subscribes as soon as the extractor is there, subscribes again
/// whenever the extractor comes back, and unsubscribes at its destruction.
///
/// An extractor that refuses is asked again, after a second at first and then less and less often, down to every 30 s; the
/// log has the reason, and getFailure() too. All this happens on a call thread. Thread-safe, but for moving.
class KR_EXPORT KRSubscription {
public:
    /// Subscribes with the values in force at the extractor, or its defaults. Returns at once.
    /// \param extractor  name of the module to subscribe to, which need not exist yet
    /// \param client     name to subscribe under; nobody else may use it with this extractor
    /// \throws KRError no thread or memory
    KRSubscription(const boost::shared_ptr<KRBroker>& broker, const std::string& extractor,
                   const std::string& client);
    /// Subscribes with this period in milliseconds and this precision.
    KRSubscription(const boost::shared_ptr<KRBroker>& broker, const std::string& extractor,
                   const std::string& client, int period, float precision = 0.0F);
    /// Unsubscribes. If the extractor is just being subscribed to, waits until it has answered.
    ~KRSubscription();
    /// Takes over the other one's subscription.
    KRSubscription(KRSubscription&&) noexcept;
    /// Unsubscribes, and takes over the other one's subscription.
    KRSubscription& operator=(KRSubscription&&) noexcept;

    /// Name of the module subscribed to.
    const std::string& getExtractor() const noexcept;
    /// Whether the extractor that is there now has accepted the subscription.
    bool isSubscribed() const;
    /// Why the extractor refused last; empty once it has accepted, and while it is not there.
    std::string getFailure() const;

private:
    class Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
