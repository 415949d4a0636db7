#pragma once

#include <krplatform/krmoduleclass.hpp>

#include <functional>
#include <string>

namespace KR::tool {

/// A class of modules of a library or a file of Python.
struct HostedClass {
    std::string name;
    std::string defaultName; ///< of a module of it
    std::function<KRModuleHandle<KRModule>(const boost::shared_ptr<KRBroker>& broker,
                                           const std::string& name)>
        create;
};

/// A module library and the name of its module: "[NAME=]PATH".
struct NamedLibrary {
    std::string name; ///< "": the default of its class
    std::string path;
};
NamedLibrary splitNamedLibrary(const std::string& text);

/// Loads a library that contains KR_REGISTER_MODULE, or the class of a file of Python, "FILE.py[:CLASS]". It stays loaded,
/// since objects of its classes need its code.
/// \throws std::runtime_error it cannot be loaded; it has no module
/// \throws UsageError its name is empty
HostedClass loadModuleClass(const std::string& library);

/// Creates a module of the library's class. \param name  "": the default of the class
/// \throws std::runtime_error as loadModuleClass(); the name is taken; the constructor throws
KRModuleHandle<KRModule> createModuleOf(const std::string& library, const boost::shared_ptr<KRBroker>& broker,
                                        const std::string& name);

} // namespace KR::tool
