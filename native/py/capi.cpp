#include "py/capi.h"

#ifdef Py_LIMITED_API

namespace vex::py {
namespace {

std::string text_attribute(PyObject* type, const char* name) {
    PyObject* value = PyObject_GetAttrString(type, name);
    std::string text;
    if (value && PyUnicode_Check(value)) {
        Py_ssize_t size = 0;
        if (const char* data = PyUnicode_AsUTF8AndSize(value, &size))
            text.assign(data, static_cast<std::size_t>(size));
    }
    Py_XDECREF(value);
    PyErr_Clear();   // a name for a message must not fail the report
    return text;
}

}  // namespace

std::string type_name(PyObject* type) {
    // Called while a message is being made, perhaps with an error already set.
    PyObject* pending = PyErr_GetRaisedException();
    std::string name = text_attribute(type, "__name__");
    std::string module;
    if (!(PyType_GetFlags(reinterpret_cast<PyTypeObject*>(type)) & Py_TPFLAGS_HEAPTYPE))
        module = text_attribute(type, "__module__");
    if (!module.empty() && module != "builtins") name = module + "." + name;
    PyErr_SetRaisedException(pending);
    return name;
}

}  // namespace vex::py

#endif
