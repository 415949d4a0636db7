#pragma once

#include <krplatform/krerror.hpp>

#include <pybind11/pybind11.h>

#include <string>

namespace KR::python {

namespace py = pybind11;

/// \throws py::error_already_set an exception of this type, e.g. PyExc_ValueError
[[noreturn]] void refuse(PyObject* type, const std::string& text);

/// Translates KRError to krvision.Error, with its three texts.
void registerErrors();

/// Converts the calling thread's Python exception to a KRError and clears it. An Error of krvision keeps its three
/// texts. Any other is logged with its traceback, but for KeyboardInterrupt, which the main thread gets again.
KRError takeError(py::error_already_set& error, const std::string& module, const std::string& method);

/// Logs the exception with its traceback, one record for each line.
void logException(py::error_already_set& error, const std::string& module, const std::string& method);

} // namespace KR::python
