// CalibrationTableManager, shared between its source files:
//   calibration_table_manager.cpp          construction, file search, version, header check, the class
//   calibration_table_manager_parse.cpp    update_dict, parse, JSON export, parseRawJson
//   calibration_table_manager_queries.cpp  DR/COMDR/ELEDR/TC, board offsets, common-arm data
//
// The manager is a plain Python class; its state lives in the instance __dict__
// under the names a Python class would use (private ones mangled), so everything
// here reads and writes attributes of `self`.
#pragma once

#include "tables/tables.h"

#include <string_view>

namespace vex::tables::cali {

using vex::py::ClassBuilder;
using vex::py::Log;
using vex::py::Name;

// ------------------------------------------------------- attribute names ---

inline const Name a_logger{"_CalibrationTableManager__logger"};
inline const Name a_sn{"sn"};
inline const Name a_freq{"_CalibrationTableManager__freq"};
inline const Name a_freq_list{"_freq_list"};
inline const Name a_support_polar{"_CalibrationTableManager__support_polar"};
inline const Name a_allOffset{"_CalibrationTableManager__allOffset"};
inline const Name a_allXXXDR{"_CalibrationTableManager__allXXXDR"};
inline const Name a_allComDataMap{"_CalibrationTableManager__allComDataMap"};
inline const Name a_num_board{"_num_board"};
inline const Name a_num_ic_per_board{"_num_ic_per_board"};
inline const Name a_num_channel_per_ic{"_num_channel_per_ic"};
inline const Name a_ver_limit{"_cali_table_ver_limit"};
inline const Name a_web_mode{"_CalibrationTableManager__web_mode"};
inline const Name a_CaliTable{"_CaliTable"};
inline const Name a_db{"_CalibrationTableManager__db"};
inline const Name a_defaultDir{"defaultDir"};
inline const Name a_path_cali{"path_cali"};
inline const Name m_searchCaliFile{"_searchCaliFile"};

// Other names used in several files.
inline const Name k_ret{"ret"};
inline const Name k_query{"query"};

// ---------------------------------------------------------- small helpers ---

nb::object py_format(const char* fmt, nb::handle value); // PyUnicode_FromFormat with one object
nb::object board_key(nb::handle number);                 // "BOARD_" + str(number)
nb::object board_key(Py_ssize_t number);                 // "BOARD_<n>"

// A dual-polarization manager works from the built-in record alone.
bool dual_polarization(nb::handle self);
// Web mode on a single-polarization device: the table lives in the database.
bool uses_database(nb::handle self);
nb::object database(nb::handle self);                    // the _QRVTableDB adapter

// isinstance(exc, QRVTableDBError), the module global looked up now.
bool is_database_error(nb::handle exc);

// __updateDict(d, key, value): inserts `value` under `key`, or merges it into the
// mapping already there. A failure is logged and raised as "__updateDict exception".
void update_dict(const Log& log, nb::handle d, nb::handle key, nb::handle value);
// The mapping under `key`, created empty through update_dict when absent.
nb::object child_mapping(const Log& log, nb::handle parent, nb::handle key);

// __basicCheck(table): RetType() or the header failure (logged).
nb::object basic_check(nb::handle self, nb::handle table);

// ---------------------------------------------- methods of the other parts ---
// Bound with the rest of the class in calibration_table_manager.cpp.

// calibration_table_manager_parse.cpp
nb::object parse(nb::handle self, nb::handle freq, nb::handle file_object, nb::handle export_to_json);
nb::object parse_raw_json(nb::handle self);

// calibration_table_manager_queries.cpp
nb::list get_boards_offset(nb::handle self, nb::handle boards, nb::handle rf_mode_str, nb::handle chip);
nb::object get_dr(nb::handle self, nb::handle rf_mode);
nb::object get_xxx_dr(nb::handle self, nb::handle key);
nb::object get_com_dr(nb::handle self);
nb::object get_ele_dr(nb::handle self);
nb::object get_board_com_dr(nb::handle self, nb::handle mode, nb::handle board_idx);
nb::object get_board_ele_dr(nb::handle self, nb::handle mode, nb::handle board_idx);
nb::list get_tc(nb::handle self);
nb::list append_com_dict_to_list(nb::handle self, nb::handle com_dict, nb::handle min, nb::handle max);
nb::list search_com_step_dr(nb::handle self, nb::handle board, nb::handle rf_mode_str, nb::handle min,
                            nb::handle max, nb::handle polar);
nb::dict get_com_data(nb::handle self, nb::handle rf_mode_str, nb::handle board, nb::handle chip,
                      nb::handle channel, nb::handle gain, nb::handle phase, nb::handle com_list);

}  // namespace vex::tables::cali
