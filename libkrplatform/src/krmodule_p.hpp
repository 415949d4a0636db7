#pragma once

#include "krplatform/krmodule.hpp"
#include "krplatform/krmutex.hpp"

#include "krmodulegate.hpp"
#include "krparameters.hpp"

#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace KR {

class KRDirectory;

struct KRModule::Private {
    struct Method {
        KRMethodDescription description;
        boost::shared_ptr<KRFunctorBase> functor;
        bool listed = true;
    };

    Private(boost::shared_ptr<KRBroker> parentBroker, const std::string& moduleName, KRModule& module);

    /// Calls the method that fits; the module's gate has been entered.
    KRValue call(std::string_view method, std::span<const KRValue> arguments) const;
    const Method* findMethod(std::string_view method, std::span<const KRValue> arguments) const;
    std::string describeMethods(std::string_view method) const;
    /// Names of published methods similar to `wanted`.
    std::string suggestMethods(std::string_view wanted) const;
    std::string getSignatures(const std::vector<std::size_t>& indices) const;
    KRDirectory& getDirectory() const;
    std::string getFailure() const;
    std::vector<KRMethodDescription> getMethodList() const;
    void raiseParameterChanged(const std::string& parameter, const KRValue& value) const noexcept;

    // Constant after construction.
    const std::string name;
    const boost::shared_ptr<KRBroker> broker;
    const std::shared_ptr<KRModuleGate> gate;

    // Constant once the gate is open; until then used by the constructing thread alone.
    std::vector<Method> methods;
    std::map<std::string, std::vector<std::size_t>, std::less<>> methodsByName; // indices of methods
    KRMethodDescription openDescription;
    KRParameters parameters;
    static constexpr std::size_t kParameterMethods = 4;
    std::size_t firstParameterMethod = 0; // index of the first of them, once there are parameters

    mutable KRMutex failureMutex;
    std::string failure KR_GUARDED_BY(failureMutex); // empty while the module works
};

/// The methods of a module as a value and back: one array [name, class, description, parameters, result] per
/// method, a parameter or a result being [name, description, type].
KRValue toValue(const std::vector<KRMethodDescription>& methods);
std::vector<KRMethodDescription> toMethodDescriptions(const KRValue& value);

} // namespace KR
