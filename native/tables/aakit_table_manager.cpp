// AAKitTableManager: to be written (the class exists so the module's names are complete).
#include "tables/tables.h"

namespace vex::tables {

void define_aakit_table_manager(nb::module_& m) {
    vex::py::ClassBuilder cls(m, "AAKitTableManager", "Antenna-array-kit tables of one device type.");
    cls.finish();
}

}  // namespace vex::tables
