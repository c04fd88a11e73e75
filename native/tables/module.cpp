// Module start-up: bind the names the table managers use, then define the
// module's own names in a fixed order (each definition may rely on the earlier).
#include "tables/tables.h"

#include "py/codecs.h"
#include "py/stdlib_messages.h"

namespace {

void bind(nb::module_& m, const char* name, nb::handle value) { m.attr(name) = value; }

// The standard and sibling modules the table managers use, bound as module
// globals so that a host can replace any of them and the managers follow.
// A failing import aborts the import of this module with that error.
void import_dependencies(nb::module_& m) {
    bind(m, "csv", nb::module_::import_("csv"));
    bind(m, "datetime", nb::module_::import_("datetime").attr("datetime"));
    nb::module_ enum_ = nb::module_::import_("enum");
    bind(m, "Enum", enum_.attr("Enum"));
    bind(m, "Flag", enum_.attr("Flag"));
    bind(m, "auto", enum_.attr("auto"));
    bind(m, "glob", nb::module_::import_("glob"));
    bind(m, "importlib", nb::module_::import_("importlib"));
    nb::module_ json = nb::module_::import_("json");
    bind(m, "json", json);
    vex::py::remember_standard_json_loads(json.attr("loads"));
    bind(m, "logging", nb::module_::import_("logging"));
    bind(m, "os", nb::module_::import_("os"));
    bind(m, "time", nb::module_::import_("time"));
    nb::module_ typing = nb::module_::import_("typing");
    bind(m, "Union", typing.attr("Union"));
    bind(m, "Callable", typing.attr("Callable"));
    bind(m, "Path", nb::module_::import_("pathlib").attr("Path"));
    nb::module_ utils = nb::module_::import_("vexcore.QRVUtils");
    bind(m, "_Utils", utils.attr("_Utils"));
    bind(m, "RetType", utils.attr("RetType"));
    vex::py::remember_stock_result_type(utils.attr("RetType"));
    nb::module_ pub = nb::module_::import_("vexcore.QRVPublic");
    bind(m, "RFMode", pub.attr("RFMode"));
    bind(m, "BeamType", pub.attr("BeamType"));
    bind(m, "RetCode", pub.attr("RetCode"));
    bind(m, "CellRFMode", pub.attr("CellRFMode"));
    bind(m, "POL", pub.attr("POLARIZATION"));
}

}  // namespace

NB_MODULE(QRVTableManager, m) {
    using namespace vex::tables;
    vex::py::set_module(m);
    vex::py::stdlib_messages();   // the running interpreter's csv and json texts, chosen now
    m.doc() =
        "Table manager of the vexcore SDK: calibration, antenna-array-kit, beam pattern "
        "and UD delta-frequency tables.";
    import_dependencies(m);
    define_beam_enums(m);
    define_beam_pattern_table_manager(m);
    define_moss_cali(m);
    define_calibration_table_manager(m);
    define_aakit_field(m);
    define_aakit_table_manager(m);
    define_ud_delta_freq_table_manager(m);
    define_table_db(m);
    define_check_hooks(m);
    document_enums(m);
    vex::py::define_codec_submodule(m);
}
