#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krfunctor.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KR {

class KRBroker;
class KRModule;
class KRModuleGate;

/// Shuts the module down in order, then destroys it. Called from within one of the module's own calls it hands
/// the work to a call thread, which waits for that call. Thread-safe.
KR_EXPORT void shutDownAndDestroy(std::unique_ptr<KRModule> module) noexcept;

/// One remote method as published.
struct KRMethodDescription {
    struct Parameter {
        std::string name;
        std::string description;
    };

    std::string name;
    std::string className;
    std::string description;
    std::vector<Parameter> parameters;
    Parameter result; ///< both texts empty without a result
    std::vector<KRArgumentType> argumentTypes;
    KRArgumentType resultType = KRArgumentType::Void;

    /// "subscribe(string name, int period, float precision)", with ": int period" behind if it has a result.
    KR_EXPORT std::string getSignature() const;
};

/// A participant of the middleware: a name that others call, and the methods that it publishes.
///
/// Derive, publish methods in the constructor, and create the module with createModule()
/// (<krplatform/krmodulehandle.hpp>): it is reachable once its constructor has finished, and its handle shuts it
/// down in order. A module that is constructed directly is reachable after makeReachable(), and calls
/// shutDown() (an extractor may call xStopDetection() instead) in its own destructor, for when this class's
/// destructor runs the derived class is gone.
///
/// Published methods run on the threads of their callers and on call threads, many at once.
class KR_EXPORT KRModule {
public:
    /// Takes the name in the broker's directory; nobody reaches the module yet.
    /// \throws KRError the name is empty or taken
    KRModule(boost::shared_ptr<KRBroker> broker, const std::string& name);
    /// Refuses new calls, waits for running ones and frees the name.
    virtual ~KRModule();
    KRModule(const KRModule&) = delete;
    KRModule& operator=(const KRModule&) = delete;

    const std::string& getName() const noexcept;
    boost::shared_ptr<KRBroker> getParentBroker() const;

    /// Asks the module to go: new calls are refused from now on. Returns at once; calls that run go on and
    /// nothing is destroyed. May be called from anywhere: any thread, a hook, a constructor. Thread-safe.
    void exit();
    /// exit() or shutDown() has been called. Thread-safe.
    bool isExiting() const noexcept;

    /// Why the module has stopped doing its work, as it reported last; empty while it works. Callable by others
    /// through KRProxy::getFailure(). Thread-safe.
    std::string getFailure() const;

    /// Lets others call the module; without effect on one that they can already call or that is exiting.
    /// createModule() does this. From now on nothing more can be published. Thread-safe.
    void makeReachable();

    /// Takes the module down in order: new calls are refused, xShutDown() stops what the module does by itself,
    /// running calls finish. A call that is on the stack of the calling thread is not waited for.
    /// May be called more than once; the derived class must still stand.
    void shutDown();

    /// The methods published, in publication order. Thread-safe once the module is reachable.
    std::vector<KRMethodDescription> getMethodList() const;

protected:
    /// Opens the description of the next method to publish; the last argument has no meaning and is 0.
    /// The publication operations belong in the constructor. \throws KRError the module is reachable already
    void functionName(const std::string& method, const std::string& className, const std::string& description,
                      int = 0);
    /// Adds the next parameter to the open description.
    void addParam(const std::string& name, const std::string& description);
    /// Describes the result in the open description.
    void setReturn(const std::string& name, const std::string& description);
    /// The open description.
    KRMethodDescription& getCurrentMethodDescription();
    /// Publishes the open description with this functor; several overloads may share one method name.
    /// \throws KRError the functor is empty; it has another number of arguments than parameters were described;
    /// the name is published with the same argument types already
    void bindMethodOverload(const boost::shared_ptr<KRFunctorBase>& functor);
    /// Publishes a description with a member function of the module, called virtually if it is virtual.
    /// \throws KRError as bindMethodOverload()
    template <class Object, class Member>
    void advertiseMethod(const KRMethodDescription& description, Object* object, Member member) {
        publish(description, createFunctor(object, member));
    }

    /// Records why the module has stopped doing its work, for people and supervisors to see; an empty text says
    /// that it works again. Does not log. Thread-safe.
    void reportFailure(const std::string& reason);

    /// Runs the function on a call thread. It counts as a running call of the module, so the module stands
    /// until it has returned; what it throws is logged. \throws KRError the module is exiting
    void xPost(const std::string& what, std::function<void()> function);

    /// Stops what the module does by itself, while the derived class still stands. Called by shutDown() after
    /// new calls are refused; may be called again, with nothing left to stop. Does nothing here.
    virtual void xShutDown() {}

    /// The process whose call of this module runs on the calling thread: a text that tells processes apart,
    /// empty for this process itself and outside of calls. Thread-safe.
    std::string xGetCaller() const;
    /// A process that may have called this module is gone, or cannot be reached for so long that it counts as
    /// gone; what the module keeps for it can go. Runs as a call, on a call thread. Does nothing here.
    virtual void xCallerGone(const std::string& /*caller*/) {}

private:
    friend class KRModuleGate;
    friend void shutDownAndDestroy(std::unique_ptr<KRModule> module) noexcept;

    void publish(const KRMethodDescription& description, const boost::shared_ptr<KRFunctorBase>& functor);

    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
