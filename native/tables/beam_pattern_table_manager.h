// BeamPatternTableManager, shared by its source files:
//   beam_pattern_table_manager.cpp           construction, single beam get/set, validation, class definition
//   beam_pattern_table_manager_defaults.cpp  default beams, the default table
//   beam_pattern_table_manager_save.cpp      saving the table
//   beam_pattern_table_manager_load.cpp      finding, reading, converting and upgrading the table file
//   beam_pattern_table_manager_batch.cpp     whole-table get and set
//
// The manager is a plain Python class whose methods are the C++ functions below.
// Its state lives in the instance __dict__ under the names a Python class would
// give it (private members mangled, e.g. _BeamPatternTableManager__num_beam), so
// each method reads the attributes it needs once, at its start, and works on them.
#pragma once

#include "py/bridge.h"
#include "py/pyops.h"

#include <vector>

namespace vex::tables::beams {

using vex::py::Name;

// ------------------------------------------------------- attribute names ---

inline const Name a_logger{"_BeamPatternTableManager__logger"};
inline const Name a_web_mode{"_BeamPatternTableManager__web_mode"};
inline const Name a_beam_check{"_BeamPatternTableManager__func_beam_checking"};
inline const Name a_ic_gain_check{"_BeamPatternTableManager__func_ic_gain_checking"};
inline const Name a_default_dir{"_BeamPatternTableManager__defaultDir"};
inline const Name a_path{"_BeamPatternTableManager__path"};
inline const Name a_sn{"_BeamPatternTableManager__sn"};
inline const Name a_devtype{"_BeamPatternTableManager__devtype"};
inline const Name a_num_beam{"_BeamPatternTableManager__num_beam"};
inline const Name a_freq{"_BeamPatternTableManager__freq"};
inline const Name a_DR{"_BeamPatternTableManager__DR"};
inline const Name a_COMDR{"_BeamPatternTableManager__COMDR"};
inline const Name a_ELEDR{"_BeamPatternTableManager__ELEDR"};
inline const Name a_aakit{"_BeamPatternTableManager__aakit"};
inline const Name a_num_board{"_BeamPatternTableManager__num_board"};
inline const Name a_num_ic_per_board{"_BeamPatternTableManager__num_ic_per_board"};
inline const Name a_num_channel_per_ic{"_BeamPatternTableManager__num_channel_per_ic"};
inline const Name a_total_ch{"_BeamPatternTableManager__totalCH"};
inline const Name a_table{"_BeamTable"};

// Methods called through the instance, so that overrides and patches are honoured.
inline const Name m_getBeamPattern{"getBeamPattern"};
inline const Name m_setBeamPattern{"setBeamPattern"};
inline const Name m_saveToBeamTableFile{"_saveToBeamTableFile"};
inline const Name m_load{"_load"};

// ---------------------------------------------------------- table keys ----

inline const Name k_VERSION{"VERSION"};
inline const Name k_version{"version"};
inline const Name k_SN{"SN"};
inline const Name k_DEV_TYPE{"DEV_TYPE"};
inline const Name k_FREQ{"FREQ"};
inline const Name k_AAKIT_NAME{"AAKIT_NAME"};
inline const Name k_beam_description{"beam_description"};
inline const Name k_beam_type{"beam_type"};
inline const Name k_beam_config{"beam_config"};
inline const Name k_channel_config{"channel_config"};
inline const Name k_common_db{"common_db"};
inline const Name k_db{"db"};
inline const Name k_theta{"theta"};
inline const Name k_phi{"phi"};
inline const Name k_sw{"sw"};
inline const Name k_deg{"deg"};
inline const Name k_beamId{"beamId"};
inline const Name k_channel{"channel"};
inline const Name k_channel_switch{"channel_switch"};

// Interned "board_<i>" / "channel_<i>" keys, made once per process and index.
nb::object board_key(Py_ssize_t index);
nb::object channel_key(Py_ssize_t index);

// ------------------------------------------------------- small helpers ----

// isinstance(value, Mapping), a % n on C integers (str(), +, %, operator.index
// and unpacking come from py/pyops.h; bool(), comparisons and membership from
// the bridge).
bool is_mapping(nb::handle value);
Py_ssize_t py_mod(Py_ssize_t a, Py_ssize_t n);

// "v" + BTField._version.value: the version word of the current file format.
nb::object current_version_word();

// The RF layout numbers as C integers, read once per call.
struct Layout {
    Py_ssize_t boards;
    Py_ssize_t channels_per_ic;
    Py_ssize_t total_channels;
};
Layout read_layout(nb::handle self);

// A mode as an RFMode member, with its table key (name) and limit index (value).
using Mode = vex::py::EnumMember;
Mode to_mode(nb::handle mode);                 // RFMode(mode)
nb::object to_beam_type(nb::handle beam_type);  // BeamType(beam_type)

// --------------------------------------------------- default generation ---

// How much of a default channel configuration is wanted. A read wants all of it.
// A set starting from an unset id needs less: channels that the configuration it
// merges replaces anyway are taken from that configuration instead of being built
// and thrown away, and a beam about to become a steered beam needs no channels.
// The limits are read in full either way, so missing limits fail alike.
struct DefaultUse {
    nb::handle planned;     // a plain dict about to be merged over the default, or invalid
    bool channels = true;   // false: only the limits are read
};

// Fills `beam` with the default beam of `beam_type` for `mode`, bounded by the
// instance's current gain limits. Raises when the limits do not cover the mode or
// a board.
void fill_default_beam(nb::handle self, nb::handle beam, nb::handle beam_type, const Mode& mode,
                       const DefaultUse& use = DefaultUse());

// A fresh default channel configuration ("board_1": {...}, ...) of `mode`.
nb::object default_channel_config(nb::handle self, const Mode& mode);

// ------------------------------------------------------------ validation ---

// Checks every board of beam["channel_config"] through the IC gain hook. Returns
// a success result, or the failure result of the first board refused.
nb::object validate_channel_config(nb::handle self, nb::handle beam, nb::handle mode);

// Calls the beam hook with a steered beam's values; returns its result.
nb::object check_steered_beam(nb::handle self, nb::handle mode, nb::handle db, nb::handle theta, nb::handle phi);

// ------------------------------------------------------------- methods ----

nb::object generate_default_beam_table_file(nb::handle self);
void generate_default_beam(nb::handle self, nb::handle beam, nb::handle beam_type, nb::handle mode);
nb::object save_to_beam_table_file(nb::handle self, nb::handle callback, nb::handle new_table);
nb::object load(nb::handle self, nb::handle freq, nb::handle aakit, nb::handle callback);
nb::object get_batch_beam_pattern(nb::handle self, nb::handle mode_filter, nb::handle callback);
nb::object set_batch_beam_pattern(nb::handle self, nb::handle batch_config, nb::handle option,
                                  nb::handle callback);

}  // namespace vex::tables::beams
