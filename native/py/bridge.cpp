#include "py/bridge.h"
#include "py/capi.h"

#include <deque>
#include <new>

namespace vex::py {

// ---------------------------------------------------------------- names ----

PyObject* Name::ptr() const {
    if (!obj_) {
        obj_ = PyUnicode_InternFromString(text_);
        if (!obj_) raise_already_set();
    }
    return obj_;
}

std::string mangle(const char* class_name, const char* member) {
    std::string out = "_";
    // Python strips leading underscores of the class name when mangling.
    while (*class_name == '_') ++class_name;
    out += class_name;
    out += "__";
    out += member;
    return out;
}

// --------------------------------------------------------- module globals --

namespace {
PyObject* g_module = nullptr;   // strong reference, kept for the life of the process
}

void set_module(nb::handle m) {
    Py_XINCREF(m.ptr());
    g_module = m.ptr();
}

nb::handle module() { return g_module; }

nb::object global(const Name& name) {
    PyObject* dict = PyModule_GetDict(g_module);
    PyObject* value = PyDict_GetItemWithError(dict, name.ptr());
    if (value) return nb::borrow(value);
    if (PyErr_Occurred()) raise_already_set();
    // Python falls back to builtins before giving up.
    PyObject* builtins = PyEval_GetBuiltins();
    value = builtins ? PyDict_GetItemWithError(builtins, name.ptr()) : nullptr;
    if (value) return nb::borrow(value);
    if (PyErr_Occurred()) raise_already_set();
    PyErr_Format(PyExc_NameError, "name '%s' is not defined", name.c_str());
    raise_already_set();
}

nb::object RetType() {
    static const Name n{"RetType"};
    return global(n);
}

nb::object RetCode(const char* member) {
    static const Name n{"RetCode"};
    return nb::getattr(global(n), member);
}

nb::object RFMode() {
    static const Name n{"RFMode"};
    return global(n);
}

nb::object BeamType() {
    static const Name n{"BeamType"};
    return global(n);
}

// ---------------------------------------------------------------- results --

nb::object ret_ok() { return RetType()(); }

nb::object ret_error(const char* code, nb::handle msg) { return RetType()(RetCode(code), msg); }

nb::object ret_error(const char* code, std::string_view msg) { return ret_error(code, str(msg)); }

// RetType(data=value), called with a keyword-names tuple made once: results are
// built on every query, and a keyword call through the binding layer costs more.
nb::object ret_data(nb::handle data) {
    static PyObject* keywords = nullptr;   // ("data",), kept for the life of the process
    if (!keywords) {
        static const Name data_name{"data"};
        keywords = PyTuple_Pack(1, data_name.ptr());
        if (!keywords) raise_already_set();
    }
    PyObject* args[2] = {nullptr, data.ptr()};
    PyObject* result = PyObject_Vectorcall(RetType().ptr(), args + 1, PY_VECTORCALL_ARGUMENTS_OFFSET, keywords);
    if (!result) raise_already_set();
    return nb::steal(result);
}

nb::object ret_code_data(const char* code, nb::handle data) {
    return RetType()(RetCode(code), nb::arg("data") = data);
}

nb::object ret_msg(std::string_view msg) { return RetType()(nb::arg("msg") = str(msg)); }

bool ret_failed(nb::handle result) {
    static const Name n{"RetCode"};
    nb::object code = getattr(result, n);
    int r = PyObject_RichCompareBool(code.ptr(), RetCode("OK").ptr(), Py_NE);
    if (r < 0) raise_already_set();
    return r == 1;
}

// ---------------------------------------------------------------- logging --

Log Log::named(const char* name) {
    static const Name n{"logging"};
    return Log(global(n).attr("getLogger")(name));
}

bool Log::on(int level) const {
    static const Name n{"isEnabledFor"};
    PyObject* lvl = PyLong_FromLong(level);
    if (!lvl) raise_already_set();
    PyObject* args[2] = {logger_.ptr(), lvl};
    PyObject* r = PyObject_VectorcallMethod(n.ptr(), args, 2 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
    Py_DECREF(lvl);
    if (!r) raise_already_set();
    int truth = PyObject_IsTrue(r);
    Py_DECREF(r);
    if (truth < 0) raise_already_set();
    return truth == 1;
}

nb::str str(std::string_view text) {
    PyObject* s = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass");
    if (!s) raise_already_set();
    return nb::steal<nb::str>(s);
}

// ------------------------------------------------------------- exceptions --

void raise(PyObject* type, std::string_view message) {
    PyObject* msg = PyUnicode_DecodeUTF8(message.data(), static_cast<Py_ssize_t>(message.size()), "replace");
    if (!msg) raise_already_set();
    PyErr_SetObject(type, msg);
    Py_DECREF(msg);
    raise_already_set();
}

void raise_key_error(nb::handle key) {
    // KeyError takes the key as its single argument (a tuple key would be unpacked).
    PyObject* exc = call_one_arg(PyExc_KeyError, key.ptr());
    if (!exc) raise_already_set();
    PyErr_SetObject(PyExc_KeyError, exc);
    Py_DECREF(exc);
    raise_already_set();
}

void raise_already_set() { throw nb::python_error(); }

void reraise(nb::handle exc) {
    PyObject* tb = PyException_GetTraceback(exc.ptr());
    PyErr_Restore(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr()))), Py_NewRef(exc.ptr()), tb);
    raise_already_set();
}

HandledException::HandledException(nb::handle exc) : previous_(PyErr_GetHandledException()) {
    PyErr_SetHandledException(exc.ptr());
}

HandledException::~HandledException() {
    PyErr_SetHandledException(previous_);
    Py_XDECREF(previous_);
}

nb::object exception_object(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (nb::python_error& e) {
        // python_error keeps the exception object with its traceback attached.
        return nb::borrow(e.value());
    } catch (const std::bad_alloc&) {
        return nb::steal(PyObject_CallNoArgs(PyExc_MemoryError));
    } catch (const std::exception& e) {
        return nb::steal(call_one_arg(PyExc_RuntimeError, str(e.what()).ptr()));
    } catch (...) {
        return nb::steal(call_one_arg(PyExc_RuntimeError, str("unknown C++ exception").ptr()));
    }
}

namespace {

// A Python function that gives an exception a traceback of one frame, named
// "<native code>" at line 0 of the module's file: the frame a traceback shows for
// a failure that began in C++. The exception is raised from that frame and caught
// by a caller, which drops its own entry. Everything is public Python: CPython's
// helper for adding such a frame is private (its declaration left the public
// headers in 3.13) and the stable ABI cannot build a frame object. Made on first
// use and kept for the life of the process, like the interned names.
PyObject* native_frame_attacher() {
    static PyObject* attacher = [] {
        static const char* source =
            "def attach(error):\n"
            "    try:\n"
            "        raise_from_native_code(error)\n"
            "    except BaseException:\n"
            "        error.__traceback__ = error.__traceback__.tb_next\n"
            "def raise_from_native_code(error): raise error\n";
        nb::module_ builtins = nb::module_::import_("builtins");
        nb::dict scope;
        builtins.attr("exec")(builtins.attr("compile")(source, module().attr("__file__"), "exec"), scope);
        // One line of source, so every instruction is on the first line, moved to 0.
        nb::object raiser = scope["raise_from_native_code"];
        raiser.attr("__code__") = raiser.attr("__code__").attr("replace")(
            nb::arg("co_name") = "<native code>", nb::arg("co_qualname") = "<native code>",
            nb::arg("co_firstlineno") = 0);
        return nb::object(scope["attach"]).release().ptr();
    }();
    return attacher;
}

}  // namespace

void give_traceback(nb::handle exc) {
    PyObject* tb = PyException_GetTraceback(exc.ptr());
    if (tb) {
        Py_DECREF(tb);
        return;
    }
    // No exception may be the handled one while it is raised, or `raise` would
    // chain it as the __context__ of an exception it has nothing to do with.
    HandledException none(nb::handle{});
    // The frame is a courtesy to the reader of the log: if even this fails (no
    // memory), the exception is reported without it.
    try {
        PyObject* result = PyObject_CallFunctionObjArgs(native_frame_attacher(), exc.ptr(), nullptr);
        Py_XDECREF(result);
    } catch (const nb::python_error&) {
    }
    PyErr_Clear();
}

bool truthy(nb::handle value) {
    int r = PyObject_IsTrue(value.ptr());
    if (r < 0) raise_already_set();
    return r == 1;
}

bool compare(nb::handle a, nb::handle b, int op) {
    int r = PyObject_RichCompareBool(a.ptr(), b.ptr(), op);
    if (r < 0) raise_already_set();
    return r == 1;
}

bool contains(nb::handle container, nb::handle item) {
    int r = PySequence_Contains(container.ptr(), item.ptr());
    if (r < 0) raise_already_set();
    return r == 1;
}

bool is_instance(nb::handle obj, PyObject* type) {
    int r = PyObject_IsInstance(obj.ptr(), type);
    if (r < 0) raise_already_set();
    return r == 1;
}

// ---------------------------------------------------- attributes and items --

nb::object getattr(nb::handle obj, const Name& name) {
    PyObject* r = PyObject_GetAttr(obj.ptr(), name.ptr());
    if (!r) raise_already_set();
    return nb::steal(r);
}

void setattr(nb::handle obj, const Name& name, nb::handle value) {
    if (PyObject_SetAttr(obj.ptr(), name.ptr(), value.ptr()) < 0) raise_already_set();
}

bool hasattr(nb::handle obj, const Name& name) {
    PyObject* value = PyObject_GetAttr(obj.ptr(), name.ptr());
    if (value) {
        Py_DECREF(value);
        return true;
    }
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) raise_already_set();
    PyErr_Clear();
    return false;
}

nb::object getitem(nb::handle container, nb::handle key) {
    if (PyDict_CheckExact(container.ptr())) {
        PyObject* v = PyDict_GetItemWithError(container.ptr(), key.ptr());
        if (v) return nb::borrow(v);
        if (PyErr_Occurred()) raise_already_set();
        raise_key_error(key);
    }
    PyObject* r = PyObject_GetItem(container.ptr(), key.ptr());
    if (!r) raise_already_set();
    return nb::steal(r);
}

nb::object getitem(nb::handle container, Py_ssize_t index) {
    PyObject* r = PySequence_Check(container.ptr()) && !PyDict_Check(container.ptr())
                      ? PySequence_GetItem(container.ptr(), index)
                      : nullptr;
    if (!r && !PyErr_Occurred()) {
        PyObject* key = PyLong_FromSsize_t(index);
        if (!key) raise_already_set();
        r = PyObject_GetItem(container.ptr(), key);
        Py_DECREF(key);
    }
    if (!r) raise_already_set();
    return nb::steal(r);
}

void setitem(nb::handle container, nb::handle key, nb::handle value) {
    if (PyObject_SetItem(container.ptr(), key.ptr(), value.ptr()) < 0) raise_already_set();
}

nb::object dict_get(nb::handle mapping, nb::handle key) {
    if (PyDict_Check(mapping.ptr())) {
        PyObject* v = PyDict_GetItemWithError(mapping.ptr(), key.ptr());
        if (v) return nb::borrow(v);
        if (PyErr_Occurred()) raise_already_set();
        return nb::object();
    }
    nb::object v = mapping.attr("get")(key);
    if (v.is_none()) return nb::object();
    return v;
}

// ---------------------------------------------------------- class builder --

ClassBuilder::ClassBuilder(nb::handle module, const char* name, const char* doc, nb::handle bases)
    : module_(module), name_(name) {
    nb::dict ns;
    ns["__module__"] = module.attr("__name__");
    ns["__qualname__"] = name;
    if (doc) ns["__doc__"] = doc;
    nb::object base_tuple = bases.is_valid() ? nb::borrow(bases) : nb::object(nb::tuple());
    cls_ = nb::borrow<nb::object>(reinterpret_cast<PyObject*>(&PyType_Type))(name, base_tuple, ns);
}

ClassBuilder& ClassBuilder::attr(const char* name, nb::handle value) {
    nb::setattr(cls_, name, value);
    return *this;
}

nb::object ClassBuilder::finish() {
    nb::setattr(module_, name_, cls_);
    return cls_;
}

const char* ClassBuilder::keep(std::string name) {
    static std::deque<std::string> names;   // deque: stable addresses
    names.push_back(std::move(name));
    return names.back().c_str();
}

}  // namespace vex::py
