// BeamPatternTableManager: saving the table, to its JSON file or, in web mode,
// through the caller's callback.
#include "tables/beam_pattern_table_manager.h"
#include "py/capi.h"

#include "py/codecs.h"

namespace vex::tables::beams {

using namespace vex::py;

namespace {

const Name k_callback_func_name{"func_name"};
const Name k_callback_new_table{"new_table"};

// Web mode: the caller's callback does the saving; new_table goes along only
// when one was given.
nb::object save_through_callback(nb::handle callback, nb::handle new_table) {
    nb::dict kwargs;
    kwargs[k_callback_func_name.handle()] = str("saveToBeamTableFile");
    if (!new_table.is_none()) kwargs[k_callback_new_table.handle()] = new_table;
    PyObject* r = PyObject_Call(callback.ptr(), nb::tuple().ptr(), kwargs.ptr());
    if (!r) raise_already_set();
    return nb::steal(r);
}

}  // namespace

nb::object save_to_beam_table_file(nb::handle self, nb::handle callback, nb::handle new_table) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&] {
            if (!callback.is_none()) return save_through_callback(callback, new_table);
            nb::object path = getattr(self, a_path);
            log.debug(str("Saving beam file to %s"), path);
            nb::object table = new_table.is_none() ? getattr(self, a_table) : nb::borrow(new_table);
            // Streamed into a temporary file and renamed over the old one: a
            // failed or interrupted save leaves the previous file whole.
            dump_json_file_atomic(table, 2, path);
            return ret_ok();
        },
        [&](nb::handle) {
            log.exception(str("BeamFile saving exception"));
            return ret_error("ERROR_BF_BEAM_FILE", "BeamFile saving exception");
        });
}

}  // namespace vex::tables::beams
