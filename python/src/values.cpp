#include "values.hpp"

#include "errors.hpp"

#include <cmath>
#include <limits>

namespace KR::python {

namespace {

std::string getTypeNameOf(py::handle object) {
    return Py_TYPE(object.ptr())->tp_name;
}

// For messages: 4294967296, but not a number of a thousand digits.
std::string describeNumber(py::handle number) {
    constexpr std::size_t kLongest = 40;
    std::string text;
    try {
        text = py::repr(number).cast<std::string>();
    } catch (py::error_already_set&) { // an int with too many digits for Python to print
        return "the number";
    }
    return text.size() > kLongest ? text.substr(0, kLongest) + "..." : text;
}

KRValue fromInt(PyObject* object) {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (number == -1 && overflow == 0 && PyErr_Occurred() != nullptr) {
        throw py::error_already_set();
    }
    if (overflow != 0 || number < std::numeric_limits<std::int32_t>::min() ||
        number > std::numeric_limits<std::int32_t>::max()) {
        refuse(PyExc_OverflowError,
               describeNumber(object) +
                   " does not fit a value's 32 bits; ints are -2147483648 to 2147483647");
    }
    return static_cast<std::int32_t>(number);
}

KRValue fromFloat(PyObject* object) {
    const double number = PyFloat_AS_DOUBLE(object);
    const auto rounded = static_cast<float>(number);
    if (std::isinf(rounded) && !std::isinf(number)) {
        refuse(PyExc_OverflowError,
               describeNumber(object) + " does not fit a value's 32 bits; floats are within 3.4e38 of 0");
    }
    return rounded;
}

KRValue fromBuffer(PyObject* object) {
    Py_buffer view;
    if (PyObject_GetBuffer(object, &view, PyBUF_FULL_RO) != 0) {
        throw py::error_already_set();
    }
    const auto bytes = KRBinary::allocate(static_cast<std::size_t>(view.len));
    const int failed = PyBuffer_ToContiguous(bytes.get(), &view, view.len, 'C');
    const auto size = static_cast<std::size_t>(view.len);
    PyBuffer_Release(&view);
    if (failed != 0) {
        throw py::error_already_set();
    }
    return KRBinary(bytes, size);
}

KRValue fromSequence(PyObject* object) {
    if (Py_EnterRecursiveCall(" while making a value of a list") != 0) {
        throw py::error_already_set();
    }
    const struct Leave {
        ~Leave() { Py_LeaveRecursiveCall(); }
    } leave;
    std::vector<KRValue> elements;
    // The list may change while an element is converted.
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(object); ++i) {
        elements.push_back(toValue(py::reinterpret_borrow<py::object>(PySequence_Fast_GET_ITEM(object, i))));
    }
    return elements;
}

bool isNumpyScalar(py::handle object) {
    // If NumPy is not imported, there are none.
    static PyObject* const name = PyUnicode_InternFromString("numpy");
    PyObject* const numpy = PyDict_GetItemWithError(PyImport_GetModuleDict(), name);
    if (numpy == nullptr) {
        return false;
    }
    const py::object scalars = py::getattr(numpy, "generic", py::none());
    return !scalars.is_none() && py::isinstance(object, scalars);
}

} // namespace

KRValue toValue(py::handle handle) {
    PyObject* const object = handle.ptr();
    if (PyLong_Check(object)) { // bool among them
        return fromInt(object);
    }
    if (PyFloat_Check(object)) {
        return fromFloat(object);
    }
    if (PyUnicode_Check(object)) {
        return toText(handle);
    }
    if (object == Py_None) {
        return {};
    }
    if (PyList_Check(object) || PyTuple_Check(object)) {
        return fromSequence(object);
    }
    if (PyBytes_Check(object) || PyByteArray_Check(object) || PyMemoryView_Check(object)) {
        return fromBuffer(object);
    }
    if (isNumpyScalar(handle)) {
        const py::object item = handle.attr("item")();
        if (PyLong_Check(item.ptr()) || PyFloat_Check(item.ptr())) {
            return toValue(item);
        }
    }
    refuse(PyExc_TypeError,
           "a " + getTypeNameOf(handle) +
               " is not a value; values are None, bool, int, float, str, bytes, memoryview and "
               "lists of these");
}

std::vector<KRValue> toValues(const py::args& objects) {
    std::vector<KRValue> values;
    values.reserve(objects.size());
    for (const py::handle object : objects) {
        values.push_back(toValue(object));
    }
    return values;
}

py::object toPython(const KRValue& value) {
    PyObject* made = nullptr;
    switch (value.getType()) {
    case KRValue::Type::Invalid:
        return py::none();
    case KRValue::Type::Int:
        made = PyLong_FromLong(value.to<int>());
        break;
    case KRValue::Type::Float:
        made = PyFloat_FromDouble(static_cast<double>(value.to<float>()));
        break;
    case KRValue::Type::String:
        return toPythonText(value.to<std::string>());
    case KRValue::Type::Binary: {
        const KRBinary& binary = value.GetBinary();
        made = PyBytes_FromStringAndSize(reinterpret_cast<const char*>(binary.data()),
                                         static_cast<Py_ssize_t>(binary.size()));
        break;
    }
    case KRValue::Type::Array: {
        if (Py_EnterRecursiveCall(" while reading a value") != 0) {
            throw py::error_already_set();
        }
        const struct Leave {
            ~Leave() { Py_LeaveRecursiveCall(); }
        } leave;
        py::list list(value.getSize());
        for (std::size_t i = 0; i < value.getSize(); ++i) {
            PyList_SET_ITEM(list.ptr(), static_cast<Py_ssize_t>(i), toPython(value[i]).release().ptr());
        }
        return list;
    }
    }
    if (made == nullptr) {
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::object>(made);
}

py::object toPython(const KRValue& value, KRArgumentType wanted) {
    if (wanted == KRArgumentType::Bool && value.isInt()) {
        return py::bool_(value.to<bool>());
    }
    if (wanted == KRArgumentType::Float && value.isInt()) {
        return py::float_(static_cast<double>(value.to<float>()));
    }
    return toPython(value);
}

py::str toPythonText(std::string_view text) {
    PyObject* const made =
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
    if (made == nullptr) {
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::str>(made);
}

std::string toText(py::handle text) {
    if (!PyUnicode_Check(text.ptr())) {
        refuse(PyExc_TypeError, "a " + getTypeNameOf(text) + " is not a str");
    }
    Py_ssize_t size = 0;
    if (const char* const utf8 = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) {
        return {utf8, static_cast<std::size_t>(size)};
    }
    PyErr_Clear();
    const auto bytes =
        py::reinterpret_steal<py::object>(PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogateescape"));
    if (!bytes) {
        throw py::error_already_set();
    }
    return {PyBytes_AS_STRING(bytes.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr()))};
}

} // namespace KR::python
