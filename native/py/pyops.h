// Python's own small operations, spelled once for every manager.
//
// Each helper does what the Python expression in its comment does, with the same
// result and the same exception; a failure raises nb::python_error as everywhere
// in the bridge. Managers use these rather than writing their own, so that one
// expression means one thing across the tables.
#pragma once

#include "py/bridge.h"

#include <array>
#include <initializer_list>

namespace vex::py {

// The logger an instance keeps under `logger_attr` (its mangled private name).
Log logger_of(nb::handle self, const Name& logger_attr);

// str(value)
nb::object py_str(nb::handle value);

// parts[0] + parts[1] + ..., left to right with Python's `+` (a non-str operand
// raises the TypeError Python code would raise).
nb::object concat(std::initializer_list<nb::handle> parts);
inline nb::object concat(nb::handle left, nb::handle right) { return concat({left, right}); }

// [first, second]
nb::object pair_list(nb::handle first, nb::handle second);

// fmt % arg, with Python's rules: a tuple arg supplies the values, anything else
// is the one value. Wrap a value that may itself be a tuple: nb::make_tuple(v).
nb::object percent(const char* fmt, nb::handle arg);

// A layout number (boards, chips, channels) as the bound of a loop, taken as
// range() takes it: operator.index(value), any size. A value beyond the C range is
// clamped to it; no loop counts that far, so the loop over the clamped bound does
// what `for i in range(value)` does: runs until what it touches fails (a board
// missing from a table), or not at all for a negative value.
Py_ssize_t range_bound(nb::handle value);

// operator.index(value) as a position in a list, with list indexing's errors: a
// value beyond the C range raises IndexError "cannot fit 'int' into an
// index-sized integer", as some_list[value] does.
Py_ssize_t list_position(nb::handle value);

// len(value)
Py_ssize_t py_len(nb::handle value);

// a, b, c = value: exactly three values, with Python's unpacking errors.
std::array<nb::object, 3> unpack_three(nb::handle value);

// csv.field_size_limit() of the module global csv, read when reading starts as
// the CSV reader does.
long csv_field_size_limit();

// While alive, the cyclic garbage collector does not run. Native code builds
// millions of fresh, acyclic containers at a time (a decoded table, a batch of
// beams); left on, the collector would re-walk the growing heap again and again
// during the build, which costs about as much as the build itself, and the
// objects cannot be garbage yet. The previous state is restored at the end, so
// pauses nest, and a collector the host had switched off stays off.
class GcPause {
public:
    GcPause() : was_enabled_(PyGC_Disable() == 1) {}
    ~GcPause() { resume(); }
    GcPause(const GcPause&) = delete;
    GcPause& operator=(const GcPause&) = delete;

    // Turns collection back on now and collects the young generation once, so
    // the work the build caused is paid here and not by the caller's next
    // allocation.
    void finish_collecting_young();

private:
    void resume() {
        if (was_enabled_) PyGC_Enable();
        was_enabled_ = false;
    }
    bool was_enabled_;
};

}  // namespace vex::py
