#pragma once

#include <krplatform/krmodulehandle.hpp>

#include <functional>
#include <string>

namespace KR {

class KRBroker;

/// A class of modules of a Python file. What it creates needs no lock of the interpreter.
struct KRPythonClass {
    std::string name;        ///< of the class, e.g. "PeopleExtractor"
    std::string defaultName; ///< of a module of it: the class's without "Extractor"
    /// Creates one that is reachable under this name. \throws KRError, std::runtime_error what its constructor raises
    std::function<KRModuleHandle<KRModule>(const boost::shared_ptr<KRBroker>& broker,
                                           const std::string& name)>
        create = {};
};

/// Type and name of the function of krpythonhost.so, the library that provides the interpreter to a program not linked with
/// it. It starts the interpreter, which ends when the program exits. Load the library with RTLD_GLOBAL: Python
/// extension modules resolve the interpreter's symbols in the program.
///
/// Runs the file only once, however often it is called, and finds the class: that of the name, or without a name the
/// only one. Thread-safe.
/// \throws std::runtime_error the file cannot be run, with the line; there is no such class
using KRLoadPythonClass = void(const std::string& path, const std::string& className, KRPythonClass& loaded);
inline constexpr const char* kLoadPythonClass = "krLoadPythonClass";

} // namespace KR
