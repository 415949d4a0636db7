#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krfunctor.hpp"
#include "krplatform/krparameter.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <concepts>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace KR {

class KRBroker;
class KRModule;
class KRModuleGate;

/// Shuts the module down in order, then destroys it. When called from within one of the module's own calls, a call
/// thread does both once that call has returned. Thread-safe.
KR_EXPORT void shutDownAndDestroy(std::unique_ptr<KRModule> module) noexcept;

/// One remote method as published.
struct KRMethodDescription {
    /// One argument, for documentation.
    struct Parameter {
        std::string name;        ///< of the argument
        std::string description; ///< of the argument
    };

    std::string name;                                 ///< of the method
    std::string className;                            ///< of the module
    std::string description;                          ///< what the method does
    std::vector<Parameter> parameters;                ///< what its arguments mean
    Parameter result;                                 ///< both texts empty without a result
    std::vector<KRArgumentType> argumentTypes;        ///< matched by calls
    KRArgumentType resultType = KRArgumentType::Void; ///< type of the result

    /// "subscribe(string name, int period, float precision)", followed by ": int period" if it has a result.
    KR_EXPORT std::string getSignature() const;
};

/// A participant of the middleware: a name that others call, and the methods that it publishes.
///
/// Derive, publish methods in the constructor, and create the module with createModule()
/// (<krplatform/krmodulehandle.hpp>): it is reachable once its constructor has finished, and its handle shuts it
/// down in order. A module that is constructed directly is reachable after makeReachable(), and must call
/// shutDown() (an extractor may call xStopDetection() instead) in its own destructor: when this class's destructor
/// runs, the derived class is gone.
///
/// Published methods run on the threads of their callers and on call threads, many at once.
class KR_EXPORT KRModule {
public:
    /// Takes the name in the broker's directory; the module is not reachable yet.
    /// \throws KRError the name is empty or taken
    KRModule(boost::shared_ptr<KRBroker> broker, const std::string& name);
    /// Refuses new calls, waits for running ones and frees the name.
    virtual ~KRModule();
    KRModule(const KRModule&) = delete;
    KRModule& operator=(const KRModule&) = delete;

    /// Name of the module. Thread-safe.
    const std::string& getName() const noexcept;
    /// The broker that the module was made with. Thread-safe.
    boost::shared_ptr<KRBroker> getParentBroker() const;

    /// Asks the module to exit: new calls are refused from now on. Returns at once; running calls continue and nothing
    /// is destroyed. May be called from anywhere: any thread, a hook, a constructor. Thread-safe.
    void exit();
    /// exit() or shutDown() has been called. Thread-safe.
    bool isExiting() const noexcept;

    /// The reason for the last reported failure; empty while the module works. Remote: KRProxy::getFailure().
    /// Thread-safe.
    std::string getFailure() const;

    /// Makes the module callable; does nothing if it already is, or is exiting. createModule() calls this. Nothing more
    /// can be published afterwards. Before, parameters get the values of KRBroker::setInitialParameters(). Thread-safe.
    /// \throws KRError there is no such parameter, it cannot have that value, or its setter refuses it
    void makeReachable();

    /// Shuts the module down in order: new calls are refused, xShutDown() stops the module's own work, running calls
    /// finish. Calls on the stack of the calling thread are not waited for.
    /// May be called more than once; the derived class must still exist.
    void shutDown();

    /// The methods published, in publication order. Thread-safe once the module is reachable.
    std::vector<KRMethodDescription> getMethodList() const;

protected:
    /// Opens the description of the next method to publish; the last argument is ignored.
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

    /// \name Parameters: settings that can be changed while the module runs
    ///
    /// Declare them in the constructor, with the initial value as default. The first one publishes
    /// the methods getParameterList, getParameterValue, setParameterValue and setParameterValues. A setter gets values in
    /// range only. It runs on the caller's thread, possibly several at once, and with no lock held. It refuses a
    /// value by throwing, for example a KRError with the reason, which the caller gets; it must not have changed anything
    /// then. If calls overlap, the last value wins; a setter may get it twice. A change raises
    /// the event "NAME/ParameterChanged" with [parameter, value].
    /// \throws KRError a malformed name, or one that is taken; an empty range; a default out of range; the module is
    /// reachable already
    ///@{
    template <std::same_as<bool> T>
    void declareParameter(const std::string& name, const std::string& description, T defaultValue,
                          std::function<void(bool)> setter) {
        declareParameter({.name = name,
                          .type = KRParameterInfo::Type::Bool,
                          .description = description,
                          .defaultValue = defaultValue},
                         bindSetter<bool>(std::move(setter)));
    }
    template <detail::FitsInt T>
    requires(!std::same_as<T, bool>) void declareParameter(const std::string& name,
                                                           const std::string& description, T defaultValue,
                                                           int minimum, int maximum, const std::string& unit,
                                                           std::function<void(int)> setter) {
        declareParameter({.name = name,
                          .type = KRParameterInfo::Type::Int,
                          .description = description,
                          .unit = unit,
                          .defaultValue = defaultValue,
                          .minimum = minimum,
                          .maximum = maximum},
                         bindSetter<int>(std::move(setter)));
    }
    template <std::floating_point T>
    void declareParameter(const std::string& name, const std::string& description, T defaultValue,
                          std::type_identity_t<T> minimum, std::type_identity_t<T> maximum,
                          const std::string& unit, std::function<void(float)> setter) {
        declareParameter({.name = name,
                          .type = KRParameterInfo::Type::Float,
                          .description = description,
                          .unit = unit,
                          .defaultValue = defaultValue,
                          .minimum = minimum,
                          .maximum = maximum},
                         bindSetter<float>(std::move(setter)));
    }
    /// A text of up to KRParameterInfo::kMaxTextBytes bytes.
    void declareParameter(const std::string& name, const std::string& description,
                          const std::string& defaultValue, std::function<void(const std::string&)> setter) {
        declareParameter({.name = name,
                          .type = KRParameterInfo::Type::Text,
                          .description = description,
                          .defaultValue = defaultValue},
                         bindSetter<std::string>(std::move(setter)));
    }
    /// One of several texts. Callers may write it in upper or lower case; the setter gets it as declared.
    void declareParameter(const std::string& name, const std::string& description,
                          const std::string& defaultValue, const std::vector<std::string>& choices,
                          std::function<void(const std::string&)> setter) {
        declareParameter({.name = name,
                          .type = KRParameterInfo::Type::Choice,
                          .description = description,
                          .defaultValue = defaultValue,
                          .choices = choices},
                         bindSetter<std::string>(std::move(setter)));
    }
    /// General form. With a getter, the value is the getter's result instead of the last one set: for parameters that can
    /// also change by other means, which xNoticeParameterChange() reports. It runs as the setter does.
    void declareParameter(KRParameterInfo info, std::function<void(const KRValue&)> setter,
                          std::function<KRValue()> getter = {});
    ///@}

    /// The same for a base class whose list of methods is fixed: the methods are answered, but not listed.
    void xDeclareParameter(KRParameterInfo info, std::function<void(const KRValue&)> setter,
                           std::function<KRValue()> getter = {});
    /// Raises the event for a parameter with a getter if its value has changed. Thread-safe.
    void xNoticeParameterChange(const std::string& name) noexcept;

    /// Reports why the module has stopped working, for users and supervisors; an empty text means that it works again.
    /// Does not log. Thread-safe.
    void reportFailure(const std::string& reason);

    /// Runs the function on a call thread. It counts as a running call of the module, which is not destroyed before the
    /// function has returned. Exceptions are logged. \throws KRError the module is exiting; no thread or memory
    void xPost(const std::string& what, std::function<void()> function);

    /// Stops the module's own work while the derived class still exists. Called by shutDown() once new calls are
    /// refused; may be called again, with nothing left to stop. Does nothing here.
    virtual void xShutDown() {}

    /// Identity of the process whose call of this module runs on the calling thread; empty for this process and
    /// outside of calls. Thread-safe.
    std::string xGetCaller() const;
    /// Whether that process is gone, or counts as gone. xCallerGone() may have run before the call began: a call that
    /// acquires a resource for its caller must check this afterwards. Thread-safe.
    bool xIsCallerGone() const;
    /// Called when a process that may have called this module is gone, or has been unreachable for so long that it
    /// counts as gone: the module can release resources held for it. Runs as a call, on a call thread. Does nothing here.
    virtual void xCallerGone(const std::string& /*caller*/) {}

private:
    friend class KRModuleGate;
    friend void shutDownAndDestroy(std::unique_ptr<KRModule> module) noexcept;

    void publish(const KRMethodDescription& description, const boost::shared_ptr<KRFunctorBase>& functor);
    template <class T, class Setter>
    static std::function<void(const KRValue&)> bindSetter(Setter setter) {
        if (!setter) {
            return {};
        }
        return [setter = std::move(setter)](const KRValue& value) { setter(value.to<T>()); };
    }

    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
