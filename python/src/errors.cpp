#include "errors.hpp"

#include "interpreter.hpp"
#include "values.hpp"

#include <krplatform/krlog.hpp>

#include <sstream>

namespace KR::python {

namespace {

constexpr const char* kCategory = "krvision.python";

// Never released: threads use it until the process ends.
py::handle& errorType() {
    static py::handle type;
    return type;
}

// "ValueError: too large"
std::string describeException(const py::error_already_set& error) {
    try {
        const auto type = error.type().attr("__name__").cast<std::string>();
        const std::string text = toText(py::str(error.value()));
        return text.empty() ? type : type + ": " + text;
    } catch (py::error_already_set&) { // its __str__ raises
        return "an exception that cannot be described";
    }
}

} // namespace

void refuse(PyObject* type, const std::string& text) {
    PyErr_SetString(type, text.c_str());
    throw py::error_already_set();
}

void registerErrors() {
    errorType() = py::object(py::module_::import("krvision._errors").attr("Error")).release();
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            std::rethrow_exception(thrown);
        } catch (const KRError& error) {
            if (PyErr_CheckSignals() != 0) {
                return; // Ctrl-C in a hook, which failed because of it
            }
            const CodeRun running; // Error is a class of Python
            try {
                const py::object value =
                    errorType()(toPythonText(error.getModule()), toPythonText(error.getMethod()),
                                toPythonText(error.getDescription()));
                PyErr_SetObject(errorType().ptr(), value.ptr());
            } catch (py::error_already_set& failure) {
                failure.restore();
            }
        }
    });
}

void logException(py::error_already_set& error, const std::string& module, const std::string& method) {
    logError(kCategory, module + ": " + method + " raised " + describeException(error));
    try {
        const py::list lines = py::module_::import("traceback")
                                   .attr("format_exception")(error.type(), error.value(), error.trace());
        for (const py::handle piece : lines) {
            std::istringstream text(toText(piece));
            for (std::string line; std::getline(text, line);) {
                logError(kCategory, line);
            }
        }
    } catch (py::error_already_set&) { // no memory, or a __str__ that raises
        logError(kCategory, "its traceback cannot be shown");
    }
}

KRError takeError(py::error_already_set& error, const std::string& module, const std::string& method) {
    if (error.matches(errorType())) {
        try {
            return {toText(error.value().attr("module")), toText(error.value().attr("method")),
                    toText(error.value().attr("description"))};
        } catch (py::error_already_set&) { // it has been replaced by something else
        }
    }
    const std::string description = describeException(error);
    if (error.matches(PyExc_KeyboardInterrupt)) {
        PyErr_SetInterrupt();
    } else {
        logException(error, module, method);
    }
    return {module, method, description};
}

} // namespace KR::python
