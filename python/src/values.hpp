#pragma once

#include <krplatform/krfunctor.hpp>
#include <krplatform/krvalue.hpp>

#include <pybind11/pybind11.h>

#include <string>
#include <string_view>
#include <vector>

namespace KR::python {

namespace py = pybind11;

/// The value for a Python object: None, bool (an int), int, float, str, bytes, bytearray, memoryview, a list or tuple of
/// these, and NumPy's scalars. A float is rounded to 32 bits.
/// \throws py::error_already_set TypeError: something else; OverflowError: a number that does not fit 32 bits
KRValue toValue(py::handle object);
std::vector<KRValue> toValues(const py::args& objects);

/// None, int, float, str, bytes or a list. Bytes of a text that are not UTF-8 become lone surrogates, which toValue() turns
/// into the same bytes.
py::object toPython(const KRValue& value);
/// The same with the type of a published argument: a bool or a float for an int.
py::object toPython(const KRValue& value, KRArgumentType wanted);

py::str toPythonText(std::string_view text);
/// \throws py::error_already_set not a str; a str that is not valid text
std::string toText(py::handle text);

} // namespace KR::python
