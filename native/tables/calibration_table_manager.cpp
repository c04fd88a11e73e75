// CalibrationTableManager: to be written (the class exists so the module's names are complete).
#include "tables/tables.h"

namespace vex::tables {

void define_calibration_table_manager(nb::module_& m) {
    vex::py::ClassBuilder cls(m, "CalibrationTableManager", "Calibration tables of one device (serial number).");
    cls.finish();
}

}  // namespace vex::tables
