// The texts of the standard csv and json modules that differ between the CPython
// versions the module supports. The module gives the message of the interpreter
// it runs in, and one stable-ABI build runs on interpreters newer than the one it
// was compiled for, so the choice follows the running version (Py_Version), made
// once when the module starts.
#pragma once

namespace vex::py {

struct StdlibMessages {
    // csv.Error for a line break inside an unquoted field.
    const char* csv_newline_in_unquoted_field;
    // json.loads refuses "[1,]" and '{"a": 1,}' with "Illegal trailing comma
    // before end of array" / "... of object" at the comma (since 3.13), instead of
    // failing on the closing bracket as a missing value or property name.
    bool json_names_trailing_comma;
    // json.dumps(..., indent=N) refuses a key of another type naming the type as
    // C code does ("datetime.date"), since 3.13 runs its C encoder with an indent;
    // the pure-Python encoder before names the class ("date").
    bool json_key_refusal_names_c_type;
};

// The messages of the running interpreter.
const StdlibMessages& stdlib_messages();

}  // namespace vex::py
