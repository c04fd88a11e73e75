#include "py/bridge.h"
#include "py/capi.h"

#include <structmember.h>   // PyMemberDef, T_OBJECT_EX, READONLY (older Pythons: not in Python.h)

#include <deque>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

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
PyObject* g_module = nullptr;        // strong reference, kept for the life of the process
PyObject* g_module_dict = nullptr;   // its namespace (borrowed from the module, which never goes)

// The interned Python string for a C text, made once per distinct text: names
// chosen at run time (an enumeration member named by a caller) cost a hash lookup
// instead of a new string on every use.
PyObject* interned(const char* text) {
    static std::deque<std::string> texts;                             // stable storage for the keys
    static std::unordered_map<std::string_view, PyObject*> known;     // kept for the life of the process
    auto found = known.find(std::string_view(text));
    if (found != known.end()) return found->second;
    PyObject* name = PyUnicode_InternFromString(text);
    if (!name) raise_already_set();
    texts.emplace_back(text);
    known.emplace(std::string_view(texts.back()), name);
    return name;
}
}  // namespace

void set_module(nb::handle m) {
    Py_XINCREF(m.ptr());
    g_module = m.ptr();
    g_module_dict = PyModule_GetDict(g_module);
}

nb::handle module() { return g_module; }

nb::object global(const Name& name) {
    PyObject* value = PyDict_GetItemWithError(g_module_dict, name.ptr());
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
    static const Name g_RetType{"RetType"};
    return global(g_RetType);
}

namespace {
const Name g_RetCode{"RetCode"};
}  // namespace

nb::object RetCode(const char* member) {
    PyObject* code = PyObject_GetAttr(global(g_RetCode).ptr(), interned(member));
    if (!code) raise_already_set();
    return nb::steal(code);
}

nb::object RFMode() {
    static const Name g_RFMode{"RFMode"};
    return global(g_RFMode);
}

nb::object BeamType() {
    static const Name g_BeamType{"BeamType"};
    return global(g_BeamType);
}

// ----------------------------------------------------------- enumerations --

nb::object enum_member(nb::handle enum_class, nb::handle value) {
    if (Py_TYPE(value.ptr()) == reinterpret_cast<PyTypeObject*>(enum_class.ptr())) return nb::borrow(value);
    PyObject* member = call_one_arg(enum_class.ptr(), value.ptr());
    if (!member) raise_already_set();
    return nb::steal(member);
}

EnumMember enum_fields(nb::handle member) {
    constexpr size_t kRemembered = 32;   // the RF modes, beam types, flags and options of a process
    static std::vector<EnumMember>* known = [] {   // kept for good; never reallocated
        auto* members = new std::vector<EnumMember>();
        members->reserve(kRemembered);
        return members;
    }();
    for (const EnumMember& m : *known)
        if (m.member.ptr() == member.ptr()) return m;
    EnumMember fields{nb::borrow(member), getattr(member, k_name), getattr(member, k_value)};
    if (known->size() < kRemembered) known->push_back(fields);  // beyond: a host making members again and again
    return fields;
}

// ---------------------------------------------------------------- results --

namespace {

// The record class vexcore.QRVUtils supplies, what its construction is made of, and
// the fields of RetType(); all kept for the life of the process.
struct StockResultType {
    PyObject* type = nullptr;
    PyObject* init = nullptr;  // the __init__ function in the class namespace
    PyObject* init_code = nullptr;  // ... and its code, defaults and keyword defaults
    PyObject* init_defaults = nullptr;
    PyObject* init_kwdefaults = nullptr;
    PyObject* members[3] = {};  // the slot descriptors of RetCode, RetMsg, RetData
    Py_ssize_t offsets[3] = {};  // ... and where each keeps its value in an instance
    PyObject* defaults[3] = {};  // the fields of RetType()
    PyObject* no_args = nullptr;  // ()
};
StockResultType g_stock;

const Name* const k_fields[3] = {&k_RetCode, &k_RetMsg, &k_RetData};

#ifndef Py_LIMITED_API

// cls.__dict__.get(name), borrowed.
PyObject* class_entry(PyTypeObject* type, const Name& name) {
    PyObject* entry = PyDict_GetItemWithError(type->tp_dict, name.ptr());
    if (!entry && PyErr_Occurred()) raise_already_set();
    return entry;
}

const Name k_init{"__init__"};

// Whether calling `cls` would run exactly the stock record's construction: the same
// class, made by `type`, creating instances with object.__new__, storing attributes
// with object.__setattr__ into the same slots, and the same __init__ function made of
// the same code and defaults. Anything a host may patch on the class or its __init__
// makes this false, and the class is then simply called.
bool is_stock_result_type(PyObject* cls) {
    if (cls != g_stock.type) return false;
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(cls);
    if (Py_TYPE(cls) != &PyType_Type || type->tp_new != PyBaseObject_Type.tp_new ||
        type->tp_setattro != PyObject_GenericSetAttr)
        return false;
    for (int i = 0; i < 3; ++i)
        if (class_entry(type, *k_fields[i]) != g_stock.members[i]) return false;
    PyObject* init = class_entry(type, k_init);
    return init == g_stock.init && PyFunction_GET_CODE(init) == g_stock.init_code &&
           PyFunction_GET_DEFAULTS(init) == g_stock.init_defaults &&
           PyFunction_GET_KW_DEFAULTS(init) == g_stock.init_kwdefaults;
}

// The stock record with the given fields (null: the field's default), built as
// type.__call__ and the stock __init__ would: object.__new__, then each field stored
// in its slot, as its slot descriptor stores it into a fresh instance.
nb::object fill_stock_result(PyObject* const fields[3]) {
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(g_stock.type);
    PyObject* result = type->tp_new(type, g_stock.no_args, nullptr);
    if (!result) raise_already_set();
    for (int i = 0; i < 3; ++i) {
        PyObject* value = fields[i] ? fields[i] : g_stock.defaults[i];
        PyObject** slot = reinterpret_cast<PyObject**>(reinterpret_cast<char*>(result) + g_stock.offsets[i]);
        Py_XSETREF(*slot, Py_NewRef(value));
    }
    return nb::steal(result);
}

// The slot descriptor of one field, when it is a plain writable object slot.
PyMemberDescrObject* field_slot(PyTypeObject* type, const Name& name) {
    PyObject* entry = class_entry(type, name);
    if (!entry || Py_TYPE(entry) != &PyMemberDescr_Type) return nullptr;
    auto* member = reinterpret_cast<PyMemberDescrObject*>(entry);
    if (member->d_member->type != T_OBJECT_EX || (member->d_member->flags & READONLY)) return nullptr;
    return member;
}

#else

// The stable ABI hides the type and function internals the check above reads: in a
// stable-ABI build the record class is always called (through vectorcall).
bool is_stock_result_type(PyObject*) { return false; }
nb::object fill_stock_result(PyObject* const*) { return nb::object(); }

#endif  // Py_LIMITED_API

// A keyword a result is built with: the field it sets and the names tuple for vectorcall.
class Keyword {
public:
    Keyword(const char* name, int field) : name_(name), field_(field) {}
    int field() const { return field_; }
    PyObject* names() const {
        if (!names_) {
            names_ = PyTuple_Pack(1, name_.ptr());  // kept for the life of the process
            if (!names_) raise_already_set();
        }
        return names_;
    }

private:
    Name name_;
    int field_;
    mutable PyObject* names_ = nullptr;
};

const Keyword kw_data{"data", 2}, kw_msg{"msg", 1}, kw_RetMsg{"RetMsg", 1};

// RetType(code, msg, <keyword>=value), each part only when given (null or no keyword:
// left out), through the module's current RetType.
nb::object make_result(nb::handle code, nb::handle msg, const Keyword* keyword = nullptr,
                       nb::handle value = nb::handle()) {
    nb::object cls = RetType();
    if (is_stock_result_type(cls.ptr())) {
        PyObject* fields[3] = {code.ptr(), msg.ptr(), nullptr};
        if (keyword) fields[keyword->field()] = value.ptr();
        return fill_stock_result(fields);
    }
    PyObject* args[4] = {nullptr};  // args[0] free for the callee (PY_VECTORCALL_ARGUMENTS_OFFSET)
    size_t positional = 0;
    if (code.is_valid()) args[1 + positional++] = code.ptr();
    if (msg.is_valid()) args[1 + positional++] = msg.ptr();
    if (keyword) args[1 + positional] = value.ptr();
    PyObject* result = PyObject_Vectorcall(cls.ptr(), args + 1, positional | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                           keyword ? keyword->names() : nullptr);
    if (!result) raise_already_set();
    return nb::steal(result);
}

}  // namespace

void remember_stock_result_type(nb::handle cls) {
#ifdef Py_LIMITED_API
    (void)cls;  // never taken for the stock record: see is_stock_result_type
#else
    // Anything but a plain class with three object slots and a Python __init__ is
    // never taken for the stock record: it is always called.
    if (!PyType_Check(cls.ptr())) return;
    PyTypeObject* type = reinterpret_cast<PyTypeObject*>(cls.ptr());
    PyObject* init = class_entry(type, k_init);
    if (!init || !PyFunction_Check(init)) return;
    StockResultType stock;
    for (int i = 0; i < 3; ++i) {
        PyMemberDescrObject* member = field_slot(type, *k_fields[i]);
        if (!member) return;
        stock.members[i] = Py_NewRef(reinterpret_cast<PyObject*>(member));
        stock.offsets[i] = member->d_member->offset;
    }
    // RetType(), called the ordinary way, gives the default fields (constants of the
    // record's own module, which are not a host's to replace).
    nb::object prototype = cls();
    for (int i = 0; i < 3; ++i) stock.defaults[i] = getattr(prototype, *k_fields[i]).release().ptr();
    stock.no_args = PyTuple_New(0);
    if (!stock.no_args) raise_already_set();
    stock.type = Py_NewRef(cls.ptr());
    stock.init = Py_NewRef(init);
    // Held here as well as by the function, so that their addresses can never be
    // reused by other objects that would then pass for them.
    stock.init_code = Py_XNewRef(PyFunction_GET_CODE(init));
    stock.init_defaults = Py_XNewRef(PyFunction_GET_DEFAULTS(init));
    stock.init_kwdefaults = Py_XNewRef(PyFunction_GET_KW_DEFAULTS(init));
    g_stock = stock;
#endif
}

nb::object ret_ok() { return make_result(nb::handle(), nb::handle()); }

nb::object ret_error(const char* code, nb::handle msg) { return make_result(RetCode(code), msg); }

nb::object ret_error(const char* code, std::string_view msg) { return ret_error(code, str(msg)); }

nb::object ret_error_named(const char* code, nb::handle msg) {
    return make_result(RetCode(code), nb::handle(), &kw_RetMsg, msg);
}

nb::object ret_data(nb::handle data) { return make_result(nb::handle(), nb::handle(), &kw_data, data); }

nb::object ret_code_data(const char* code, nb::handle data) {
    return make_result(RetCode(code), nb::handle(), &kw_data, data);
}

nb::object ret_msg(std::string_view msg) { return make_result(nb::handle(), nb::handle(), &kw_msg, str(msg)); }

bool ret_failed(nb::handle result) {
    static const Name k_OK{"OK"};
    nb::object code = getattr(result, k_RetCode);
    return compare(code, getattr(global(g_RetCode), k_OK), Py_NE);
}

bool ret_failed(nb::handle result, nb::handle ok) { return compare(getattr(result, k_RetCode), ok, Py_NE); }

// ---------------------------------------------------------------- logging --

Log Log::named(const char* name) {
    static const Name g_logging{"logging"};
    return Log(global(g_logging).attr("getLogger")(name));
}

bool Log::on(int level) const {
    static const Name k_isEnabledFor{"isEnabledFor"};
    PyObject* lvl = PyLong_FromLong(level);
    if (!lvl) raise_already_set();
    PyObject* args[2] = {logger_.ptr(), lvl};
    PyObject* r =
        PyObject_VectorcallMethod(k_isEnabledFor.ptr(), args, 2 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
    Py_DECREF(lvl);
    if (!r) raise_already_set();
    int truth = PyObject_IsTrue(r);
    Py_DECREF(r);
    if (truth < 0) raise_already_set();
    return truth == 1;
}

nb::object Log::message(const char* text) { return str(text); }

void Log::call_method(Method method, PyObject* const* args, size_t nargs) {
    static const Name k_methods[] = {Name("debug"), Name("info"), Name("warning"), Name("error"),
                                     Name("exception")};
    PyObject* r = PyObject_VectorcallMethod(k_methods[method].ptr(), args, nargs, nullptr);
    if (!r) raise_already_set();
    Py_DECREF(r);
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
        raiser.attr("__code__") =
            raiser.attr("__code__")
                .attr("replace")(nb::arg("co_name") = "<native code>", nb::arg("co_qualname") = "<native code>",
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
    } catch (const nb::python_error&) {}
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

nb::object ClassBuilder::finish() {
    nb::setattr(module_, name_, cls_);
    return cls_;
}

const char* ClassBuilder::keep(std::string name) {
    static std::deque<std::string> names;  // deque: stable addresses
    names.push_back(std::move(name));
    return names.back().c_str();
}

}  // namespace vex::py
