// The bridge between the table logic and the Python host.
//
// Everything a manager needs to behave like the Python class it replaces:
//   - module globals looked up at the moment of use (a host may replace them),
//   - interned attribute and key names,
//   - RetType results built through the module's current RetType and RetCode,
//   - logging through the standard logging module, formatting only when enabled,
//   - raising the same Python exceptions Python code would raise,
//   - a guard that turns any failure inside a public operation into its result,
//   - a builder that assembles plain Python classes from C++ methods.
//
// Convention: a function that returns nb::object or takes nb::handle may raise by
// throwing nb::python_error (the Python error indicator has been set and fetched).
#pragma once

#include <nanobind/nanobind.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace nb = nanobind;

namespace vex::py {

// ---------------------------------------------------------------- names ----

// An interned Python string created once, on first use, and kept for the life of
// the process. Use as a function-local or namespace-scope constant:
//     static const Name k_TX{"TX"};
class Name {
public:
    explicit Name(const char* text) : text_(text) {}
    PyObject* ptr() const;                     // borrowed, never null
    nb::handle handle() const { return nb::handle(ptr()); }
    operator nb::handle() const { return handle(); }
    const char* c_str() const { return text_; }

private:
    const char* text_;
    mutable PyObject* obj_ = nullptr;
};

// Names every part reads: the fields of enumeration members and of RetType records.
inline const Name k_name{"name"};
inline const Name k_value{"value"};
inline const Name k_RetCode{"RetCode"};
inline const Name k_RetMsg{"RetMsg"};
inline const Name k_RetData{"RetData"};

// "_" + class_name + "__" + member: the name Python gives a private member.
std::string mangle(const char* class_name, const char* member);

// --------------------------------------------------------- module globals --

// Called once by the module initialiser.
void set_module(nb::handle module);
nb::handle module();

// The module global `name`, looked up now, as Python code would: a replacement
// assigned on the module takes effect at once. NameError when it is missing.
nb::object global(const Name& name);

// Frequently used globals, each looked up at the moment of the call.
nb::object RetType();
nb::object RetCode(const char* member);     // RetCode.<member>
nb::object RFMode();
nb::object BeamType();

// ----------------------------------------------------------- enumerations --

// Enum(value): a member of that very class is itself (Enum(member) is member, and
// the class call would run Python-level code to say so); anything else is passed
// to the class, which converts it or raises.
nb::object enum_member(nb::handle enum_class, nb::handle value);

// An enumeration member with its name and value.
struct EnumMember {
    nb::object member;
    nb::object name;
    nb::object value;
};
// Both are Python-level properties of a member that never change, and the tables
// need them on every call: they are read once for each of the first members met
// (kept referenced, so an entry can never be taken for another object).
EnumMember enum_fields(nb::handle member);

// ---------------------------------------------------------------- results --

// Called once by the module initialiser with the record class vexcore.QRVUtils
// supplies. While the module global RetType is that class, unchanged, results are
// filled in directly (what its __init__ would do, without running it); a replaced or
// patched RetType is called like any other class.
void remember_stock_result_type(nb::handle cls);

// RetType()
nb::object ret_ok();
// RetType(RetCode.<code>, msg)
nb::object ret_error(const char* code, nb::handle msg);
nb::object ret_error(const char* code, std::string_view msg);
// RetType(RetCode.<code>, RetMsg=msg)
nb::object ret_error_named(const char* code, nb::handle msg);
// RetType(data=value)
nb::object ret_data(nb::handle data);
// RetType(RetCode.<code>, data=value)
nb::object ret_code_data(const char* code, nb::handle data);
// RetType(msg=text)
nb::object ret_msg(std::string_view msg);

// result.RetCode != RetCode.OK, compared with Python's != as the callers do.
bool ret_failed(nb::handle result);
// The same, with `ok` (RetCode.OK) fetched once by a caller that checks many results.
bool ret_failed(nb::handle result, nb::handle ok);

// What a step of a public operation hands back when it may end the operation
// early: either "go on" (with the step's value, when it has one) or the result the
// operation must return now (a refusal, a failure). This is the one way native
// code says "return this result now"; the caller reads
//     if (EarlyResult refused = step(...)) return refused.result();
// or, for a step that also gives a value to go on with,
//     EarlyResult steered = step(...);
//     if (steered) return steered.result();
//     beam = steered.value();
class EarlyResult {
public:
    static EarlyResult go_on(nb::object value = nb::object()) { return EarlyResult(std::move(value), false); }
    static EarlyResult end_with(nb::object result) { return EarlyResult(std::move(result), true); }
    // end_with(result) when the result failed (RetCode != OK), else go_on().
    static EarlyResult if_failed(nb::object result) {
        return ret_failed(result) ? end_with(std::move(result)) : go_on();
    }

    // True when the operation must return result() now.
    explicit operator bool() const { return ends_; }
    const nb::object& result() const { return object_; }   // when it ends the operation
    const nb::object& value() const { return object_; }    // when the operation goes on

private:
    EarlyResult(nb::object object, bool ends) : object_(std::move(object)), ends_(ends) {}
    nb::object object_;
    bool ends_;
};

// ---------------------------------------------------------------- logging --

enum Level : int { DEBUG = 10, INFO = 20, WARNING = 30, ERROR = 40 };

// A named logger of the standard logging module. Messages are handed over as a
// template plus arguments, exactly as Python code would call logger.info(msg, *args),
// so record.msg, record.args and record.getMessage() match. A template given as C
// text becomes a Python string only when the level is enabled.
class Log {
public:
    Log() = default;
    explicit Log(nb::handle logger) : logger_(nb::borrow(logger)) {}
    static Log named(const char* name);         // logging.getLogger(name)

    // logger.isEnabledFor(level): test before building an expensive message.
    bool on(int level) const;

    template <class M, class... A>
    void debug(M&& msg, A&&... args) const {
        emit(DEBUG, kDebug, std::forward<M>(msg), std::forward<A>(args)...);
    }
    template <class M, class... A>
    void info(M&& msg, A&&... args) const {
        emit(INFO, kInfo, std::forward<M>(msg), std::forward<A>(args)...);
    }
    template <class M, class... A>
    void warning(M&& msg, A&&... args) const {
        emit(WARNING, kWarning, std::forward<M>(msg), std::forward<A>(args)...);
    }
    template <class M, class... A>
    void error(M&& msg, A&&... args) const {
        emit(ERROR, kError, std::forward<M>(msg), std::forward<A>(args)...);
    }
    // logger.exception(msg, *args): call it while the caught exception is the
    // handled one (inside Guard's error path), so the record carries it.
    template <class M, class... A>
    void exception(M&& msg, A&&... args) const {
        emit(ERROR, kException, std::forward<M>(msg), std::forward<A>(args)...);
    }

    nb::handle logger() const { return logger_; }

private:
    enum Method { kDebug, kInfo, kWarning, kError, kException };

    template <class M, class... A>
    void emit(int level, Method method, M&& msg, A&&... args) const {
        if (!on(level)) return;
        nb::object values[] = {message(std::forward<M>(msg)), argument(std::forward<A>(args))...};
        PyObject* call[2 + sizeof...(A)];
        call[0] = logger_.ptr();
        for (size_t i = 0; i <= sizeof...(A); ++i) call[i + 1] = values[i].ptr();
        call_method(method, call, 2 + sizeof...(A));
    }
    static nb::object message(nb::handle text) { return nb::borrow(text); }
    static nb::object message(const char* text);
    static nb::object argument(const Name& name) { return nb::borrow(name.ptr()); }
    template <class T>
    static nb::object argument(T&& value) {
        return nb::cast(std::forward<T>(value));
    }
    // logger.<method>(*args[1:]) with args[0] the logger, through vectorcall.
    static void call_method(Method method, PyObject* const* args, size_t nargs);

    nb::object logger_;
};

nb::str str(std::string_view text);             // a Python str from UTF-8 text

// ------------------------------------------------------------- exceptions --

// Raise the Python exception Python code would raise, as nb::python_error.
[[noreturn]] void raise(PyObject* type, std::string_view message);
[[noreturn]] void raise_key_error(nb::handle key);
[[noreturn]] void raise_already_set();          // the error indicator is set: throw it
[[noreturn]] void reraise(nb::handle exc);      // raise this exception object again

// While alive, makes `exc` the handled exception (what sys.exc_info() returns),
// as inside a Python `except` block; the previous one is restored afterwards.
class HandledException {
public:
    explicit HandledException(nb::handle exc);
    ~HandledException();
    HandledException(const HandledException&) = delete;
    HandledException& operator=(const HandledException&) = delete;

private:
    PyObject* previous_;
};

// isinstance(obj, type)
bool is_instance(nb::handle obj, PyObject* type);

// An exception raised inside this module's C++ code carries no Python frame, so a
// logged traceback would be empty. This gives such an exception one frame that
// names the module's native code, as a C extension's frame does in tracebacks.
void give_traceback(nb::handle exc);

// Python's own truth, comparison and membership tests (errors raised as Python's).
bool truthy(nb::handle value);                            // bool(value)
bool compare(nb::handle a, nb::handle b, int op);         // a <op> b, op one of Py_LT ... Py_GE
bool contains(nb::handle container, nb::handle item);     // item in container

// The Python exception for a caught C++ exception: python_error as it is,
// bad_alloc as MemoryError, anything else as RuntimeError.
nb::object exception_object(std::exception_ptr error);

// Runs `body`; if it raises anything, runs `on_error(exc)` with the exception object
// made the handled exception (so Log::exception records it with its traceback)
// and returns what on_error returns. This is Python's
//     try: return body()
//     except Exception as e: return on_error(e)
// BaseException subclasses that are not Exception (KeyboardInterrupt, SystemExit)
// propagate, as they would past `except Exception`. A step that may end its
// operation early guards itself as guard<EarlyResult>(...).
template <class Result = nb::object, class Body, class OnError>
Result guard(Body&& body, OnError&& on_error) {
    nb::object exc;
    try {
        return body();
    } catch (...) {
        exc = exception_object(std::current_exception());
    }
    if (!is_instance(exc, PyExc_Exception)) reraise(exc);
    give_traceback(exc);
    HandledException handled(exc);
    return on_error(exc);
}

// ---------------------------------------------------- attributes and items --

nb::object getattr(nb::handle obj, const Name& name);          // obj.name
void setattr(nb::handle obj, const Name& name, nb::handle value);
bool hasattr(nb::handle obj, const Name& name);

nb::object getitem(nb::handle container, nb::handle key);     // container[key]
nb::object getitem(nb::handle container, Py_ssize_t index);   // container[index]
void setitem(nb::handle container, nb::handle key, nb::handle value);
// d.get(key) for a mapping: a new reference, or an invalid (null) object when absent.
nb::object dict_get(nb::handle mapping, nb::handle key);

// ---------------------------------------------------------- class builder --

// A function argument that accepts any object, None included, as a Python
// parameter does (nanobind refuses None unless told otherwise). Use it for every
// argument of a bound function: arg("freq") = nb::none() gives a default.
inline auto arg(const char* name) { return nb::arg(name).none(); }

// The typed signature and docstring that help() and editors show for a bound
// function, looked up by owner (class name, "" for a module function) and Python
// name in the module's table (tables/docstrings.cpp). Every bound function must have
// an entry whose parameter names are those of the binding: otherwise this raises and
// the module fails to import, so the documentation cannot drift from the code.
struct FunctionDoc {
    const char* owner;
    const char* name;
    const char* signature;   // "def name(self, a: int = 0) -> RetType"
    const char* text;
};
const FunctionDoc& function_doc(const char* owner, const char* name, std::initializer_list<const char*> arg_names);

// The parameter name of a binding extra (nb::arg, with or without default), or
// nullptr for the other extras.
template <class T, class = void>
struct is_arg_extra : std::false_type {};
template <class T>
struct is_arg_extra<T, std::void_t<decltype(std::declval<const T&>().name_)>> : std::true_type {};
template <class T>
const char* arg_name(const T& extra) {
    if constexpr (is_arg_extra<T>::value)
        return extra.name_;
    else
        return nullptr;
}

// A module-level function, documented from the table.
template <class F, class... Extra>
void def_function(nb::module_& m, const char* name, F&& f, const Extra&... extra) {
    const FunctionDoc& doc = function_doc("", name, {arg_name(extra)...});
    m.def(name, std::forward<F>(f), extra..., nb::sig(doc.signature), doc.text);
}

// Builds a plain Python class (created with type(), base object unless given)
// whose methods are C++ functions. Instances are ordinary Python objects: their
// state lives in the instance __dict__, they take new attributes, join garbage
// collection and can be subclassed.
//
//     ClassBuilder cls(m, "UDDeltaFreqTableManager", "doc");
//     cls.def("__init__", &init, nb::arg("sn"));
//     cls.def_private("helper", &helper);        // _UDDeltaFreqTableManager__helper
//     nb::object type = cls.finish();            // also sets module.UDDeltaFreqTableManager
class ClassBuilder {
public:
    ClassBuilder(nb::handle module, const char* name, const char* doc = nullptr, nb::handle bases = nb::handle());

    template <class F, class... Extra>
    ClassBuilder& def(const char* name, F&& f, const Extra&... extra) {
        const FunctionDoc& doc = function_doc(name_, name, {arg_name(extra)...});
        nb::cpp_function_def(std::forward<F>(f), nb::scope(cls_), nb::name(name), nb::is_method(), extra...,
                             nb::sig(doc.signature), doc.text);
        return *this;
    }

    // A private method, stored under its mangled name.
    template <class F, class... Extra>
    ClassBuilder& def_private(const char* name, F&& f, const Extra&... extra) {
        return def(keep(mangle(name_, name)), std::forward<F>(f), extra...);
    }

    nb::handle type() const { return cls_; }
    nb::object finish();

private:
    nb::handle module_;
    const char* name_;
    nb::object cls_;
    static const char* keep(std::string name);   // a name that outlives the builder
};

}  // namespace vex::py
