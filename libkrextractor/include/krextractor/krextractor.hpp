#pragma once

#include "krplatform/krbroker.hpp"
#include "krplatform/krexport.hpp"
#include "krplatform/krmodule.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krvalue.hpp"

#include <boost/smart_ptr/scoped_ptr.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <string>
#include <vector>

namespace KR {

struct KRExtractorPrivate;

/// Parameters requested by one subscriber.
struct KRExtractorParameters {
    int period = 0;      ///< milliseconds, within the extractor's bounds
    float precision = 0; ///< as given; no unit, no bounds
};

/// Base of a module that computes something and writes it into shared memory while it has subscribers.
///
/// Each client subscribes under its own module name with a period in milliseconds and a precision. The smallest
/// period and the largest precision of all subscribers are in force. The first subscriber starts the detection and
/// the last one to leave stops it, through the hooks xStartDetection(), xUpdateParameters() and xStopDetection().
///
/// Threads: the public operations are thread-safe, except those that concern outputs (see there). subscribe() and
/// unsubscribe() run one at a time and hold a lock while they call the hooks, so a hook must not call either of them
/// on its own extractor; it may call all the others. updatePeriod() and updatePrecision() hold no lock: their hooks may
/// overlap each other and every other hook. Whatever the overlap, the values reported last are those in force.
///
/// A derived class that is not created with createModule() calls xStopDetection() in its own destructor.
class KR_EXPORT KRExtractor : public KRModule {
public:
    /// Blocks until a memory module exists, then publishes the operations below as remote methods.
    /// \throws KRError the name is empty or taken
    KRExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name);
    /// Calls no hooks and unsubscribes no clients.
    ~KRExtractor() override;

    /// Subscribes a module, or replaces its parameters; the period is clamped to the extractor's bounds.
    /// The first subscriber starts the detection before this returns.
    /// \throws KRError the module is shutting down
    /// Passes on exceptions of hooks; the module is subscribed even then
    virtual void subscribe(const std::string& name, const int& period, const float& precision);
    /// Subscribes with the values in force, or with the defaults if there are no subscribers.
    virtual void subscribe(const std::string& name);
    /// Changes one subscriber's period. \throws KRError no such subscriber
    virtual void updatePeriod(const std::string& name, const int& period);
    /// Changes one subscriber's precision. \throws KRError no such subscriber
    virtual void updatePrecision(const std::string& name, const float& precision);
    /// The last subscriber stops the detection before this returns. \throws KRError no such subscriber
    virtual void unsubscribe(const std::string& name);
    /// Period in force in milliseconds, -1 without subscribers.
    virtual int getCurrentPeriod();
    /// Precision in force, -1 without subscribers.
    virtual float getCurrentPrecision();
    /// \throws KRError no such subscriber
    virtual int getMyPeriod(const std::string& name);
    /// \throws KRError no such subscriber
    virtual float getMyPrecision(const std::string& name);

    /// Starts the detection. Called by the first subscribe().
    virtual void xStartDetection(int period, float precision) = 0;
    /// Takes over the values now in force while the detection runs. Called again if they have changed during the
    /// call. Does nothing here.
    virtual void xUpdateParameters(int period, float precision);
    /// Stops the detection. Called by the last unsubscribe() and when the module shuts down.
    virtual void xStopDetection() = 0;
    /// Milliseconds for a first subscriber that gives no period: 30 here.
    virtual int getDefaultPeriod();
    /// Precision for a first subscriber that gives none: 0 here.
    virtual float getDefaultPrecision();
    /// Smallest period in milliseconds: 1 here.
    virtual int getMinimumPeriod();
    /// Largest period in milliseconds; negative, as here, for no upper bound.
    virtual int getMaximumPeriod();
    /// Events declared, then memory keys declared. Not to be called while the derived class declares.
    virtual std::vector<std::string> getOutputNames();

    /// Recomputes the values in force and passes them to xUpdateParameters(int, float).
    /// \throws KRError there are no subscribers
    void xUpdateParameters();
    /// One array [name, period, precision] per subscriber, in byte order of the names.
    KRValue getSubscribersInfo();
    /// Events declared, in order. Not to be called while the derived class declares.
    std::vector<std::string> getEventList();
    /// Memory keys declared, in order. Not to be called while the derived class declares.
    std::vector<std::string> getMemoryKeyList();

protected:
    /// Declares, in the derived constructor, an event that this extractor raises. Declaring twice lists it twice.
    /// \throws KRError from the memory module; the name is listed anyway
    void declareEvent(const std::string& name);
    /// Declares, in the derived constructor, a memory key that this extractor writes, and writes an empty array
    /// there. \throws KRError from the memory module; the name is listed anyway
    void declareMemoryKey(const std::string& name);

    /// Stops a running detection and refuses subscribers from now on.
    void xShutDown() override;

private:
    void publishMethods();
    int clampPeriod(int period, KRSourceLocation where);
    void reportChangesSince(int period, float precision);

    boost::scoped_ptr<KRExtractorPrivate> p_;
    KRMutex subscribeMutex_; // held by subscribe, unsubscribe and xShutDown to the end, hooks included
    bool shuttingDown_ KR_GUARDED_BY(subscribeMutex_) = false;
};

} // namespace KR
