// CPython calls whose quick forms are macros that read object internals, which the
// stable ABI (the one abi3 build for Python 3.12 and later) hides. Each has one
// name here: the macro in a build for a single Python version, the equivalent
// checked function in a stable-ABI build. The code calls these names only.
#pragma once

#include <Python.h>

#include <cstring>
#include <string>
#include <string_view>

namespace vex::py {

#ifndef Py_LIMITED_API

inline Py_ssize_t list_size(PyObject* list) { return PyList_GET_SIZE(list); }
inline PyObject* list_item(PyObject* list, Py_ssize_t i) { return PyList_GET_ITEM(list, i); }
// Fills a slot of a new list, taking over the reference.
inline void list_fill(PyObject* list, Py_ssize_t i, PyObject* item) { PyList_SET_ITEM(list, i, item); }
inline Py_ssize_t dict_size(PyObject* dict) { return PyDict_GET_SIZE(dict); }
// Length in code points of a str.
inline Py_ssize_t str_length(PyObject* text) { return PyUnicode_GET_LENGTH(text); }
// Size and borrowed item of a list or a tuple.
inline Py_ssize_t list_or_tuple_size(PyObject* seq) { return PySequence_Fast_GET_SIZE(seq); }
inline PyObject* list_or_tuple_item(PyObject* seq, Py_ssize_t i) { return PySequence_Fast_GET_ITEM(seq, i); }
inline double float_value(PyObject* f) { return PyFloat_AS_DOUBLE(f); }
inline std::string_view bytes_view(PyObject* b) {
    return {PyBytes_AS_STRING(b), static_cast<std::size_t>(PyBytes_GET_SIZE(b))};
}
inline PyObject* call_one_arg(PyObject* callable, PyObject* arg) { return PyObject_CallOneArg(callable, arg); }
// A dict sized for `size` items (no resizing while it is filled).
inline PyObject* new_dict_presized(Py_ssize_t size) { return _PyDict_NewPresized(size); }
// A str of ASCII text, copied straight into a new compact str.
inline PyObject* ascii_str(const char* data, std::size_t size) {
    PyObject* s = PyUnicode_New(static_cast<Py_ssize_t>(size), 127);
    if (s) std::memcpy(PyUnicode_DATA(s), data, size);
    return s;
}
// int(text) for a str, with int()'s errors.
inline PyObject* int_from_str(PyObject* text) { return PyLong_FromUnicodeObject(text, 10); }
// The type's name as CPython's own C code writes it in messages ("int", "datetime.datetime").
inline std::string type_name(PyObject* type) { return reinterpret_cast<PyTypeObject*>(type)->tp_name; }

#else

inline Py_ssize_t list_size(PyObject* list) { return PyList_Size(list); }
inline PyObject* list_item(PyObject* list, Py_ssize_t i) { return PyList_GetItem(list, i); }
inline void list_fill(PyObject* list, Py_ssize_t i, PyObject* item) { PyList_SetItem(list, i, item); }
inline Py_ssize_t dict_size(PyObject* dict) { return PyDict_Size(dict); }
inline Py_ssize_t str_length(PyObject* text) { return PyUnicode_GetLength(text); }
inline Py_ssize_t list_or_tuple_size(PyObject* seq) {
    return PyList_Check(seq) ? PyList_Size(seq) : PyTuple_Size(seq);
}
inline PyObject* list_or_tuple_item(PyObject* seq, Py_ssize_t i) {
    return PyList_Check(seq) ? PyList_GetItem(seq, i) : PyTuple_GetItem(seq, i);
}
inline double float_value(PyObject* f) { return PyFloat_AsDouble(f); }
inline std::string_view bytes_view(PyObject* b) {
    return {PyBytes_AsString(b), static_cast<std::size_t>(PyBytes_Size(b))};
}
inline PyObject* call_one_arg(PyObject* callable, PyObject* arg) {
    return PyObject_CallFunctionObjArgs(callable, arg, nullptr);
}
inline PyObject* new_dict_presized(Py_ssize_t) { return PyDict_New(); }
inline PyObject* ascii_str(const char* data, std::size_t size) {
    return PyUnicode_FromStringAndSize(data, static_cast<Py_ssize_t>(size));
}
inline PyObject* int_from_str(PyObject* text) { return PyNumber_Long(text); }
// tp_name rebuilt from the public attributes: "module.Name" for a type defined in
// C outside builtins, the bare name otherwise. (A C type made by PyType_FromSpec
// keeps its module in tp_name too; it is named without it here.)
std::string type_name(PyObject* type);

#endif

// The name of the type of `obj`, as type_name gives it.
inline std::string type_name_of(PyObject* obj) { return type_name(reinterpret_cast<PyObject*>(Py_TYPE(obj))); }

}  // namespace vex::py
