#pragma once

#include "krplatform/krbroker.hpp"
#include "krplatform/krexport.hpp"
#include "krplatform/krmodule.hpp"
#include "krplatform/krvalue.hpp"

#include <boost/smart_ptr/scoped_ptr.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <mutex>
#include <string>
#include <vector>

namespace KR {

struct KRExtractorPrivate;

/// What one subscriber asked for.
struct KRExtractorParameters {
    int period = 0;      ///< milliseconds, within the extractor's bounds
    float precision = 0; ///< as asked for; no unit, no bounds
};

/// Base of a module that computes something for as long as somebody subscribes to it, and writes it into shared
/// memory.
///
/// Each client subscribes under its own module name with a period in milliseconds and a precision. The smallest
/// period and the largest precision of all subscribers are in force. The first subscriber starts the detection,
/// the last one to leave stops it: the extractor tells the derived class so through xStartDetection(),
/// xUpdateParameters() and xStopDetection().
///
/// Threads: the public operations are thread-safe, but for the ones that concern outputs (see there).
/// subscribe() and unsubscribe() run one at a time and hold a lock while they call the hooks, so a hook must not
/// call either of them on its own extractor; it may call all the others.
///
/// A derived class that is not created with createModule() calls xStopDetection() in its own destructor.
class KR_EXPORT KRExtractor : public KRModule {
public:
    /// Blocks until there is a memory module, then publishes the operations below as remote methods.
    /// \throws KRError the name is empty or taken
    KRExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name);
    /// Calls no hook and unsubscribes nobody.
    ~KRExtractor() override;

    /// Subscribes a module, or replaces what it asked for; a period out of bounds is brought into them.
    /// The first subscriber starts the detection before this returns.
    /// \throws KRError the module is shutting down; what a hook throws, the subscriber then being registered
    virtual void subscribe(const std::string& name, const int& period, const float& precision);
    /// Subscribes with the values in force, or with the defaults if nobody is subscribed.
    virtual void subscribe(const std::string& name);
    /// Changes one subscriber's period. \throws KRError no such subscriber
    virtual void updatePeriod(const std::string& name, const int& period);
    /// Changes one subscriber's precision. \throws KRError no such subscriber
    virtual void updatePrecision(const std::string& name, const float& precision);
    /// The last subscriber stops the detection before this returns. \throws KRError no such subscriber
    virtual void unsubscribe(const std::string& name);
    /// Period in force in milliseconds, -1 if nobody is subscribed.
    virtual int getCurrentPeriod();
    /// Precision in force, -1 if nobody is subscribed.
    virtual float getCurrentPrecision();
    /// \throws KRError no such subscriber
    virtual int getMyPeriod(const std::string& name);
    /// \throws KRError no such subscriber
    virtual float getMyPrecision(const std::string& name);

    /// Starts the detection. Called by the first subscribe().
    virtual void xStartDetection(int period, float precision) = 0;
    /// Hears of new values in force while the detection runs. Does nothing here.
    virtual void xUpdateParameters(int period, float precision);
    /// Stops the detection. Called by the last unsubscribe() and when the module shuts down.
    virtual void xStopDetection() = 0;
    /// Milliseconds for a first subscriber who asks for nothing: 30 here.
    virtual int getDefaultPeriod();
    /// Precision for a first subscriber who asks for nothing: 0 here.
    virtual float getDefaultPrecision();
    /// Smallest period in milliseconds: 1 here.
    virtual int getMinimumPeriod();
    /// Largest period in milliseconds; negative, as here, for none.
    virtual int getMaximumPeriod();
    /// Events declared, then memory keys declared. Not to be called while the derived class declares.
    virtual std::vector<std::string> getOutputNames();

    /// Brings the values in force up to date and passes them to xUpdateParameters(int, float).
    /// \throws KRError nobody is subscribed
    void xUpdateParameters();
    /// One array [name, period, precision] per subscriber, in byte order of the names.
    KRValue getSubscribersInfo();
    /// Events declared, in order. Not to be called while the derived class declares.
    std::vector<std::string> getEventList();
    /// Memory keys declared, in order. Not to be called while the derived class declares.
    std::vector<std::string> getMemoryKeyList();

protected:
    /// Declares, in the derived constructor, an event that this extractor raises. Declaring twice lists it twice.
    /// \throws KRError from the memory module; the name is listed all the same
    void declareEvent(const std::string& name);
    /// Declares, in the derived constructor, a memory key that this extractor writes, and writes an empty array
    /// there. \throws KRError from the memory module; the name is listed all the same
    void declareMemoryKey(const std::string& name);

    /// Stops a running detection; from now on nobody can subscribe.
    void xShutDown() override;

private:
    void publishMethods();
    int clampPeriod(int period, KRSourceLocation where);

    boost::scoped_ptr<KRExtractorPrivate> p_;
    std::mutex subscribeMutex_; // held by subscribe, unsubscribe and xShutDown to the end, hooks included
    bool shuttingDown_ = false; // guarded by subscribeMutex_
};

} // namespace KR
