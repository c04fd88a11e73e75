// UDDeltaFreqTableManager: the minimum spacing between LO and IF of one UD device.
//
// The value comes from the optional CSV file "<serial number>.csv" in the SDK
// files directory. Only the first cell of a row counts: the serial number is a
// label row, "#..." is a comment, anything else is the delta as an integer (the
// last such row wins). Without a file or a value the delta keeps its value
// (0 at first) and parse() returns a warning.
#include "tables/tables.h"
#include "py/codecs.h"

#include <string>
#include <string_view>

namespace vex::tables {
namespace {

using namespace vex::py;

const Name a_logger{"_UDDeltaFreqTableManager__logger"};
const Name a_sn{"_UDDeltaFreqTableManager__sn"};
const Name a_default_dir{"_UDDeltaFreqTableManager__defaultDir"};
const Name a_delta_freq{"_UDDeltaFreqTableManager__delta_freq"};

const Name g_glob{"glob"};
const Name g_Path{"Path"};
const Name g_Utils{"_Utils"};
const Name g_os{"os"};

void init(nb::handle self, nb::handle sn) {
    setattr(self, a_logger, Log::named("UDDeltaTbl").logger());
    setattr(self, a_sn, sn);
    setattr(self, a_default_dir, global(g_Path)(global(g_Utils).attr("_get_files_dir")()));
    setattr(self, a_delta_freq, nb::int_(0));
}

nb::object warning_result(const Log& log, const char* msg) {
    nb::object ret = ret_error("WARNING", msg);
    log.warning(ret.attr("RetMsg"));
    return ret;
}

// The serial number names a file of the files directory: a separator or NUL in
// it would reach a file elsewhere, so such a serial number is refused.
void require_plain_file_name(nb::handle sn) {
    if (!PyUnicode_Check(sn.ptr())) return;   // `sn + ".csv"` fails on its own
    nb::object os = global(g_os);
    const nb::object separators[] = {str("/"), str(std::string_view("\0", 1)), os.attr("sep"), os.attr("altsep")};
    for (const nb::object& sep : separators) {
        if (sep.is_none()) continue;
        int found = PySequence_Contains(sn.ptr(), sep.ptr());
        if (found < 0) raise_already_set();
        if (found) raise(PyExc_ValueError, "serial number must not contain a path separator or NUL");
    }
}

// glob(<files dir>/<sn>.csv): the serial number is matched as written.
nb::object delta_files(nb::handle self) {
    nb::object sn = getattr(self, a_sn);
    require_plain_file_name(sn);
    nb::object glob = global(g_glob);
    nb::object directory = glob.attr("escape")(nb::str(getattr(self, a_default_dir)));
    nb::object pattern = global(g_os).attr("path").attr("join")(directory, sn + nb::str(".csv"));
    return glob.attr("glob")(pattern);
}

// Reads the delta rows; false when no row carries a value.
bool read_delta_rows(nb::handle self, const Log& log, nb::handle path) {
    std::string text = read_text_file(path);
    CsvReader reader(text);
    CsvRow row;
    nb::object sn = getattr(self, a_sn);
    bool found = false;
    while (reader.next(row)) {
        if (row.empty()) continue;
        const std::string& cell = row[0];
        nb::str cell_text = str(cell);
        int is_label = PyObject_RichCompareBool(cell_text.ptr(), sn.ptr(), Py_EQ);
        if (is_label < 0) raise_already_set();
        if (is_label || (!cell.empty() && cell[0] == '#')) continue;
        nb::object delta = int_from_text(cell);
        setattr(self, a_delta_freq, delta);
        log.info(str("Update delta freq to %d"), delta);
        found = true;
    }
    return found;
}

nb::object parse(nb::handle self) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            nb::object files = delta_files(self);
            if (py_len(files) == 0) return warning_result(log, "Delta csv not exist, skip it");
            nb::object path = getitem(files, Py_ssize_t(0));
            log.info(str("Delta csv path: %s"), path);
            if (!read_delta_rows(self, log, path)) return warning_result(log, "No delta freq info, skip it");
            return ret_ok();
        },
        [&](nb::handle) -> nb::object {
            nb::object ret = ret_error("ERROR", "Exception while delta csv parsing");
            log.exception(ret.attr("RetMsg"));
            return ret;
        });
}

nb::object get_ud_delta_freq(nb::handle self) { return ret_data(getattr(self, a_delta_freq)); }

}  // namespace

void define_ud_delta_freq_table_manager(nb::module_& m) {
    ClassBuilder cls(m, "UDDeltaFreqTableManager",
                     "Provide the delta frequency between LO and IF for the UD device variant.");
    cls.def("__init__", &init, arg("sn"));
    cls.def("parse", &parse);
    cls.def("getUDDeltaFreq", &get_ud_delta_freq);
    cls.finish();
}

}  // namespace vex::tables
