// The module krvision._krvision: bindings of the libraries for the package krvision, which is written in Python.

#include "broker.hpp"
#include "errors.hpp"
#include "image.hpp"
#include "interpreter.hpp"
#include "module.hpp"

#include <krplatform/krlogformat.hpp>
#ifdef KR_WITH_DDS
#include <krdds/krdds.hpp>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace KR::python {

namespace {

KRLogLevel toLogLevel(const std::string& name) {
    const auto found = std::ranges::find(kLogLevelNames, name);
    if (found != kLogLevelNames.end()) {
        return static_cast<KRLogLevel>(found - kLogLevelNames.begin());
    }
    throw py::value_error("there is no log level " + name + "; levels are error, warning, info and verbose");
}

void bindLog(py::module_& m) {
    m.def(
        "log",
        [](const std::string& level, const std::string& category, const std::string& message) {
            log(toLogLevel(level), category, message, KRSourceLocation("python", "log", 0));
        },
        py::arg("level"), py::arg("category"), py::arg("message"));
    m.def(
        "set_log_levels", [](const std::string& levels) { setLogLevels(levels); }, py::arg("levels"));
    m.def("log_levels", [] { return getLogLevels(); });
    m.def(
        "flush_log",
        [](double seconds) {
            return unlocked([&] {
                return flushLog(std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000)));
            });
        },
        py::arg("seconds"));
}

void bind(py::module_& m) {
    m.doc() = "The C++ part of krvision. Use krvision instead.";
#ifdef KR_WITH_DDS
    registerDDS();
#endif
    registerErrors();
    bindInterpreter(m);
    bindLog(m);
    bindBroker(m);
    bindMemory(m);
    bindImage(m);
    bindVideo(m);
    bindCameras(m);
    bindModule(m);
}

} // namespace
} // namespace KR::python

// PYBIND11_MODULE offers no hook before its first function, and that hangs in a subinterpreter.
extern "C" PYBIND11_EXPORT PyObject* PyInit__krvision() {
    if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
        PyErr_SetString(PyExc_ImportError,
                        "krvision cannot be used in a subinterpreter: its threads enter the main one");
        return nullptr;
    }
    pybind11::detail::get_internals();
    static pybind11::module_::module_def definition;
    pybind11::module_ m = pybind11::module_::create_extension_module("_krvision", nullptr, &definition);
    try {
        KR::python::bind(m);
        return m.ptr();
    }
    PYBIND11_CATCH_INIT_EXCEPTIONS
}
