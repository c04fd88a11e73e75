#include "py/stdlib_messages.h"

#include <Python.h>

namespace vex::py {
namespace {

struct Since {
    unsigned long version;   // PY_VERSION_HEX of the first release with these texts
    StdlibMessages messages;
};

// Oldest first; an interpreter takes the last row not newer than itself.
constexpr Since k_messages_by_version[] = {
    {0x030B0000,
     {"new-line character seen in unquoted field - "
      "do you need to open the file in universal-newline mode?",
      false, false}},
    {0x030D0000,
     {"new-line character seen in unquoted field - do you need to open the file with newline=''?", true, true}},
};

const StdlibMessages& messages_of(unsigned long version) {
    const StdlibMessages* chosen = &k_messages_by_version[0].messages;
    for (const Since& row : k_messages_by_version)
        if (version >= row.version) chosen = &row.messages;
    return *chosen;
}

}  // namespace

const StdlibMessages& stdlib_messages() {
    static const StdlibMessages& running = messages_of(Py_Version);
    return running;
}

}  // namespace vex::py
