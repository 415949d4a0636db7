#include "krpythonhost.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>

#include <pybind11/pybind11.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <dlfcn.h>

namespace KR {

namespace {

namespace py = pybind11;

class WithInterpreter {
public:
    WithInterpreter() : state_(PyGILState_Ensure()) {}
    ~WithInterpreter() { PyGILState_Release(state_); }
    WithInterpreter(const WithInterpreter&) = delete;
    WithInterpreter& operator=(const WithInterpreter&) = delete;

private:
    const PyGILState_STATE state_;
};

std::filesystem::path getOwnFolder() {
    Dl_info info;
    if (dladdr(reinterpret_cast<const void*>(&getOwnFolder), &info) == 0) {
        return {};
    }
    return std::filesystem::absolute(info.dli_fname).parent_path();
}

// Where the package is installed or was built, if the interpreter would not look there.
void addPackage() {
    const std::filesystem::path own = getOwnFolder();
    for (const auto& folder : {own, (own / KR_PYTHON_PACKAGES).lexically_normal()}) {
        if (std::filesystem::exists(folder / "krvision" / "__init__.py")) {
            py::module_::import("sys").attr("path").attr("append")(folder.string());
            return;
        }
    }
}

void finish() {
    PyGILState_Ensure();
    Py_FinalizeEx();
}

void start() {
    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.install_signal_handlers = 0; // the host program has its own
    config.buffered_stdio = 0;          // so that output of modules appears at once
    if (const char* const environment = std::getenv("VIRTUAL_ENV")) {
        const std::string program = std::string(environment) + "/bin/python3";
        PyConfig_SetBytesString(&config, &config.program_name, program.c_str());
    }
    const PyStatus status = Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    if (PyStatus_Exception(status) != 0) {
        throw std::runtime_error(std::string("Python cannot be started: ") +
                                 (status.err_msg != nullptr ? status.err_msg : "unknown reason"));
    }
    std::atexit(finish);
    try {
        addPackage();
    } catch (const py::error_already_set&) { // import reports what is missing
    }
    PyEval_SaveThread(); // for all threads; taken again by finish()
}

// The text of the Python exception, in the form of the host's own errors.
[[noreturn]] void rethrow(const py::error_already_set& error) {
    const py::object errors = py::module_::import("krvision._errors").attr("Error");
    if (error.matches(errors)) {
        const auto text = [&](const char* attribute) {
            return error.value().attr(attribute).cast<std::string>();
        };
        throw KRError(text("module"), text("method"), text("description"));
    }
    throw std::runtime_error(py::str(error.value()).cast<std::string>());
}

py::module_ importHost() {
    try {
        return py::module_::import("krvision._host");
    } catch (py::error_already_set& error) {
        throw std::runtime_error("the package krvision cannot be imported: " +
                                 py::str(error.value()).cast<std::string>());
    }
}

KRModuleHandle<KRModule> create(const py::handle& moduleClass, const std::string& path,
                                const boost::shared_ptr<KRBroker>& broker, const std::string& name) {
    using Broker = boost::shared_ptr<KRBroker>;
    const WithInterpreter interpreter;
    const py::capsule capsule(new Broker(broker), "krvision.KRBroker", [](PyObject* held) {
        delete static_cast<Broker*>(PyCapsule_GetPointer(held, "krvision.KRBroker"));
    });
    try {
        const py::object made = importHost().attr("create")(moduleClass, path, capsule, name);
        return KRModuleHandle<KRModule>(std::unique_ptr<KRModule>(
            static_cast<KRModule*>(PyCapsule_GetPointer(made.ptr(), "krvision.KRModule"))));
    } catch (py::error_already_set& error) {
        rethrow(error);
    }
}

} // namespace

} // namespace KR

extern "C" [[gnu::visibility("default")]] void
krLoadPythonClass(const std::string& path, const std::string& className, KR::KRPythonClass& loaded) {
    namespace py = pybind11;
    static std::once_flag started;
    std::call_once(started, KR::start);
    const KR::WithInterpreter interpreter;
    try {
        const py::tuple found = KR::importHost().attr("load")(path, className);
        // Never released: the class may be needed until the interpreter ends.
        const py::handle moduleClass = py::object(found[0]).release();
        loaded.name = found[1].cast<std::string>();
        loaded.defaultName = found[2].cast<std::string>();
        loaded.create = [moduleClass, path](const boost::shared_ptr<KR::KRBroker>& broker,
                                            const std::string& name) {
            return KR::create(moduleClass, path, broker, name);
        };
    } catch (py::error_already_set& error) {
        KR::rethrow(error);
    }
}
