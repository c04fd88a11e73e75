// The module's pieces, each defined in its own file and called by the module
// initialiser in the order the module's names come into being.
//
// Interned names (vex::py::Name) follow one scheme in every file: a_ for an
// instance attribute (mangled when private), m_ for a method reached through the
// instance (so overrides apply), g_ for a module global looked up when used, k_
// for dict keys and any other name.
#pragma once

#include "py/bridge.h"
#include "py/pyops.h"

namespace vex::tables {

void define_beam_enums(nb::module_& m);                   // BTModeFilter, BTSetOption, BTField, BTBeamField
void define_beam_pattern_table_manager(nb::module_& m);   // BeamPatternTableManager
void define_moss_cali(nb::module_& m);                    // moss_cali
void define_calibration_table_manager(nb::module_& m);    // CalibrationTableManager
void define_aakit_field(nb::module_& m);                  // AAKitField
void define_aakit_table_manager(nb::module_& m);          // AAKitTableManager
void define_ud_delta_freq_table_manager(nb::module_& m);  // UDDeltaFreqTableManager
void define_table_db(nb::module_& m);                     // QRVTableDBError, _QRVTableDB
void define_check_hooks(nb::module_& m);                  // fake_rf_layout, fake_check, fake_ic_check
void document_enums(nb::module_& m);                      // docstrings of the enumerations above

}  // namespace vex::tables
