#pragma once

#include <krplatform/krmoduleclass.hpp>

#include <string>

namespace KR::tool {

/// A module library, and what a module of it is to be called: "[NAME=]PATH".
struct NamedLibrary {
    std::string name; ///< "": as its class says
    std::string path;
};
NamedLibrary splitNamedLibrary(const std::string& text);

/// Loads a library that has KR_REGISTER_MODULE in it. It stays loaded, as objects of its classes need its code.
/// \throws std::runtime_error it cannot be loaded, for the reason that the text gives; it has no module
/// \throws UsageError its name is empty
const KRModuleClass& loadModuleClass(const std::string& library);

/// Creates a module of the library's class. \param name  "": the name that the class gives its modules
/// \throws std::runtime_error as loadModuleClass(); the name is taken; its constructor throws
KRModuleHandle<KRModule> createModuleOf(const std::string& library, const boost::shared_ptr<KRBroker>& broker,
                                        const std::string& name);

} // namespace KR::tool
