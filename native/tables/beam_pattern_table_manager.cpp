// BeamPatternTableManager: to be written (the class exists so the module's names are complete).
#include "tables/tables.h"

namespace vex::tables {

void define_beam_pattern_table_manager(nb::module_& m) {
    vex::py::ClassBuilder cls(m, "BeamPatternTableManager", "Beam pattern table of one device, frequency and antenna kit.");
    cls.finish();
}

}  // namespace vex::tables
