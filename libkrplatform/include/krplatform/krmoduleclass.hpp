#pragma once

#include "krplatform/krmodulehandle.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <string>
#include <string_view>

namespace KR {

class KRBroker;

/// A class of modules that a module library offers to the program which hosts it.
struct KRModuleClass {
    std::string name; ///< of the class, e.g. "KRMotionExtractor"
    std::string
        defaultName; ///< of a module of it: the class's without namespaces and "Extractor", e.g. "KRMotion"
    /// Creates one that is reachable under this name. \throws KRError the name is taken. Passes on exceptions of the
    /// constructor
    KRModuleHandle<KRModule> (*create)(const boost::shared_ptr<KRBroker>& broker, const std::string& name);
};

/// Describes a class whose modules are made from a broker and a name.
template <class Module>
KRModuleClass makeModuleClass(std::string_view name) {
    constexpr std::string_view kSuffix = "Extractor";
    std::string_view shortName = name.substr(name.rfind(':') + 1); // npos + 1 is 0
    if (shortName.ends_with(kSuffix) && shortName != kSuffix) {
        shortName.remove_suffix(kSuffix.size());
    }
    return {std::string(name), std::string(shortName),
            [](const boost::shared_ptr<KRBroker>& broker, const std::string& module) {
                return KRModuleHandle<KRModule>(createModule<Module>(broker, module));
            }};
}

/// Type and name of the function that KR_REGISTER_MODULE defines.
using KRGetModuleClass = const KRModuleClass*();
inline constexpr const char* kGetModuleClass = "krGetModuleClass"; ///< what KR_REGISTER_MODULE defines

} // namespace KR

/// Lets `kr run` and `kr serve` host a module of this shared library: one line in one of its source files, with a
/// class that can be made from a broker and a name. A library offers one class.
#define KR_REGISTER_MODULE(Class)                                                                            \
    extern "C" [[gnu::visibility("default")]] const KR::KRModuleClass* krGetModuleClass() {                  \
        static const KR::KRModuleClass moduleClass = KR::makeModuleClass<Class>(#Class);                     \
        return &moduleClass;                                                                                 \
    }
