#include "py/pyops.h"
#include "py/capi.h"

namespace vex::py {

Log logger_of(nb::handle self, const Name& logger_attr) { return Log(getattr(self, logger_attr)); }

nb::object py_str(nb::handle value) {
    PyObject* s = PyObject_Str(value.ptr());
    if (!s) raise_already_set();
    return nb::steal(s);
}

nb::object concat(std::initializer_list<nb::handle> parts) {
    nb::object out;
    for (nb::handle part : parts) {
        if (!out.is_valid()) {
            out = nb::borrow(part);
            continue;
        }
        PyObject* sum = PyNumber_Add(out.ptr(), part.ptr());
        if (!sum) raise_already_set();
        out = nb::steal(sum);
    }
    return out;
}

nb::object pair_list(nb::handle first, nb::handle second) {
    PyObject* list = PyList_New(2);
    if (!list) raise_already_set();
    list_fill(list, 0, Py_NewRef(first.ptr()));
    list_fill(list, 1, Py_NewRef(second.ptr()));
    return nb::steal(list);
}

nb::object percent(const char* fmt, nb::handle arg) {
    PyObject* s = PyUnicode_Format(str(fmt).ptr(), arg.ptr());
    if (!s) raise_already_set();
    return nb::steal(s);
}

Py_ssize_t range_bound(nb::handle value) {
    Py_ssize_t n = PyNumber_AsSsize_t(value.ptr(), nullptr);   // clamps, raises only for a non-integer
    if (n == -1 && PyErr_Occurred()) raise_already_set();
    return n;
}

Py_ssize_t list_position(nb::handle value) {
    Py_ssize_t n = PyNumber_AsSsize_t(value.ptr(), PyExc_IndexError);
    if (n == -1 && PyErr_Occurred()) raise_already_set();
    return n;
}

Py_ssize_t py_len(nb::handle value) {
    Py_ssize_t n = PyObject_Length(value.ptr());
    if (n < 0) raise_already_set();
    return n;
}

std::array<nb::object, 3> unpack_three(nb::handle value) {
    PyObject* iterator = PyObject_GetIter(value.ptr());
    if (!iterator) {
        // Python keeps a TypeError raised by the object's own __iter__; only an
        // object that cannot be iterated at all gets the unpacking message.
        if (PyErr_ExceptionMatches(PyExc_TypeError) && !PyType_GetSlot(Py_TYPE(value.ptr()), Py_tp_iter) &&
            !PySequence_Check(value.ptr())) {
            PyErr_Clear();
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                         type_name_of(value.ptr()).c_str());
        }
        raise_already_set();
    }
    nb::object it = nb::steal(iterator);
    std::array<nb::object, 3> items;
    for (int i = 0; i < 3; ++i) {
        PyObject* item = PyIter_Next(it.ptr());
        if (!item) {
            if (PyErr_Occurred()) raise_already_set();
            PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 3, got %d)", i);
            raise_already_set();
        }
        items[i] = nb::steal(item);
    }
    PyObject* extra = PyIter_Next(it.ptr());
    if (extra) {
        Py_DECREF(extra);
        raise(PyExc_ValueError, "too many values to unpack (expected 3)");
    }
    if (PyErr_Occurred()) raise_already_set();
    return items;
}

long csv_field_size_limit() {
    static const Name g_csv{"csv"}, k_field_size_limit{"field_size_limit"};
    nb::object limit = getattr(global(g_csv), k_field_size_limit)();
    const long value = PyLong_AsLong(limit.ptr());
    if (value == -1 && PyErr_Occurred()) raise_already_set();
    return value;
}

void GcPause::finish_collecting_young() {
    if (!was_enabled_) return;
    resume();
    static const Name k_collect{"collect"};
    nb::object gc = nb::module_::import_("gc");
    getattr(gc, k_collect)(0);
}

}  // namespace vex::py
