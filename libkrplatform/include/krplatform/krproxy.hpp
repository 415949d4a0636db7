#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krmodule.hpp"
#include "krplatform/krvalue.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace KR {

class KRBroker;

/// Calls the methods of a module by name.
///
/// A proxy names a module, it does not own one: it finds the module at each call, so it works again when the module
/// has been replaced by another of its name. Inside one process a call is a direct call on the caller's thread. A call
/// to another process waits for the answer for as long as that process lives, and fails when it is gone. All operations
/// are thread-safe.
class KR_EXPORT KRProxy {
public:
    /// On the module of this name, which need not exist yet.
    KRProxy(boost::shared_ptr<KRBroker> broker, std::string module);
    virtual ~KRProxy();
    KRProxy(const KRProxy&) = delete;
    KRProxy& operator=(const KRProxy&) = delete;

    /// Name of the module that it calls.
    const std::string& getModuleName() const noexcept;

    /// Calls a method and returns its result as an R; overloads are chosen by number, then by type of the arguments.
    /// \throws KRError no such module; no such method; wrong number or type of arguments (the error lists the
    /// signatures); the result is not an R; the method throws
    template <class R = void, class... A>
    R call(std::string_view method, A&&... arguments) const {
        const std::array<KRValue, sizeof...(A)> values{KRValue(std::forward<A>(arguments))...};
        if constexpr (std::is_void_v<R>) {
            callValues(method, values);
        } else {
            return callValues(method, values).template to<R>();
        }
    }
    /// The same with arguments and result as values.
    KRValue callValues(std::string_view method, std::span<const KRValue> arguments) const;

    /// Calls a method on a call thread and returns at once. The result is dropped; a failure is logged.
    /// An accepted call runs even if the proxy is destroyed, and the module is not destroyed before it has returned.
    /// \throws KRError no such module; the module is exiting; no thread or memory for the call
    template <class... A>
    void post(std::string_view method, A&&... arguments) const {
        postValues(method, {KRValue(std::forward<A>(arguments))...});
    }
    /// The same with the arguments as a list.
    void postValues(std::string_view method, std::vector<KRValue> arguments) const;

    /// Number of the module; another module of the same name has another number. 0 if no such module can be called.
    std::uint32_t getModuleNumber() const;

    /// The methods that the module publishes, in publication order. \throws KRError no such module
    std::vector<KRMethodDescription> getMethodList() const;
    /// Help text for the methods of this name: description, parameters and result.
    /// \throws KRError no such module; no such method
    std::string getMethodHelp(std::string_view method) const;
    /// The reason for the last reported failure (KRModule::reportFailure()); empty while the module works.
    /// \throws KRError no such module; it has an older version without this method
    std::string getFailure() const;

private:
    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
