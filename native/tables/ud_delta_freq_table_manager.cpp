// UDDeltaFreqTableManager: to be written (the class exists so the module's names are complete).
#include "tables/tables.h"

namespace vex::tables {

void define_ud_delta_freq_table_manager(nb::module_& m) {
    vex::py::ClassBuilder cls(m, "UDDeltaFreqTableManager", "Provide the delta frequency between LO and IF for the UD device variant.");
    cls.finish();
}

}  // namespace vex::tables
