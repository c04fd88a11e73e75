// CalibrationTableManager: the calibration table of one device (serial number) at
// one operating frequency. This file holds construction, the search for
// calibration files "{SN}_{Freq}GHz.csv", the frequency list, the version query
// and the header check, and the class definition: every method is bound here.
// Parsing lives in calibration_table_manager_parse.cpp, the queries in
// calibration_table_manager_queries.cpp.
#include "tables/calibration_table_manager.h"
#include "py/capi.h"

#include <array>

namespace vex::tables::cali {

using namespace vex::py;

// ---------------------------------------------------------- small helpers ---

nb::object py_format(const char* fmt, nb::handle value) {
    PyObject* text = PyUnicode_FromFormat(fmt, value.ptr());
    if (!text) raise_already_set();
    return nb::steal(text);
}

// The keys of the boards a device can have are made once each: every query builds
// them, and formatting costs more than the lookup they serve.
nb::object board_key(Py_ssize_t number) {
    constexpr Py_ssize_t kKept = 256;
    static PyObject* kept[kKept + 1] = {};   // kept for the life of the process
    bool keep = number >= 1 && number <= kKept;
    if (keep && kept[number]) return nb::borrow(kept[number]);
    PyObject* text = PyUnicode_FromFormat("BOARD_%zd", number);
    if (!text) raise_already_set();
    if (keep) kept[number] = Py_NewRef(text);
    return nb::steal(text);
}

nb::object board_key(nb::handle number) {
    if (PyLong_CheckExact(number.ptr())) {   // str() of an int is its decimal text; not so for bool
        int overflow = 0;
        long long n = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
        if (!overflow && n >= 1 && n <= 256) return board_key(static_cast<Py_ssize_t>(n));
    }
    return py_format("BOARD_%S", number);
}

bool dual_polarization(nb::handle self) { return truthy(getattr(self, a_support_polar)); }

bool uses_database(nb::handle self) { return truthy(getattr(self, a_web_mode)) && !dual_polarization(self); }

nb::object database(nb::handle self) { return getattr(self, a_db); }

bool is_database_error(nb::handle exc) {
    static const Name g_QRVTableDBError{"QRVTableDBError"};
    int r = PyObject_IsInstance(exc.ptr(), global(g_QRVTableDBError).ptr());
    if (r < 0) raise_already_set();
    return r == 1;
}

namespace {

// __updateDict as a method (update_dict itself is with the parser).
void cali_update_dict(nb::handle self, nb::handle d, nb::handle key, nb::handle value) {
    update_dict(logger_of(self, a_logger), d, key, value);
}

// ---------------------------------------------------------- construction ---

void store_layout(nb::handle self, nb::handle rf_layout) {
    auto [boards, ics, channels] = unpack_three(rf_layout());
    setattr(self, a_num_board, boards);
    setattr(self, a_num_ic_per_board, ics);
    setattr(self, a_num_channel_per_ic, channels);
}

// The frequencies dual-polarization devices are calibrated for: 26.5 to 29.5 GHz
// in 0.5 GHz steps (each the quotient of an integer by 10, as floats).
nb::list dual_polarization_frequencies() {
    nb::list freqs;
    for (int tenths = 265; tenths < 300; tenths += 5) freqs.append(nb::float_(tenths / 10.0));
    return freqs;
}

nb::object database_adapter(nb::handle sn, nb::handle freq) {
    static const Name g_QRVTableDB{"_QRVTableDB"};
    nb::dict filter;
    filter["sn"] = sn;
    filter["frequency"] = freq;
    return global(g_QRVTableDB)("calibration", filter);
}

nb::object files_folder() {
    static const Name g_Path{"Path"}, g_Utils{"_Utils"};
    return global(g_Path)(global(g_Utils).attr("_get_files_dir")());
}

void init(nb::handle self, nb::handle sn, nb::handle freq, nb::handle rf_layout, nb::handle support_polar,
          nb::handle web_client_id, nb::handle fetch_csv_from_file) {
    setattr(self, a_logger, Log::named("CaliTbl").logger());
    setattr(self, a_sn, sn);
    setattr(self, a_freq, freq);
    setattr(self, a_freq_list, nb::list());
    setattr(self, a_support_polar, support_polar);
    setattr(self, a_allOffset, nb::none());
    setattr(self, a_allXXXDR, nb::none());
    setattr(self, a_allComDataMap, nb::dict());
    store_layout(self, rf_layout);
    setattr(self, a_ver_limit, nb::str("2.0.0"));
    bool web_mode = !web_client_id.is_none();
    setattr(self, a_web_mode, nb::bool_(web_mode));

    if (truthy(support_polar)) {
        // The built-in record is the whole table: no database, no files folder.
        static const Name g_moss_cali{"moss_cali"};
        setattr(self, a_freq_list, dual_polarization_frequencies());
        setattr(self, a_CaliTable, global(g_moss_cali));
        return;
    }
    if (web_mode) setattr(self, a_db, database_adapter(sn, freq));
    setattr(self, a_CaliTable, nb::dict());
    if (truthy(fetch_csv_from_file)) {
        setattr(self, a_defaultDir, files_folder());
        setattr(self, a_path_cali, nb::str(""));
        getattr(self, m_searchCaliFile)();
    }
}

// ------------------------------------------------------------ file search ---

// The frequency written in a calibration file name: the piece of the whole path
// after its last "_", up to "GHz" + extension, read as float() reads it.
nb::object frequency_in_name(nb::handle path, nb::handle ghz_extension) {
    nb::object tail = getitem(path.attr("split")("_"), -1);
    nb::object number = getitem(tail.attr("split")(ghz_extension), 0);
    PyObject* value = PyFloat_FromString(number.ptr());
    if (!value) raise_already_set();
    return nb::steal(value);
}

// True when the text form of the serial number holds "/", the platform's own
// separators or NUL. Such a serial number would make the search pattern (and the
// JSON export beside the file found) reach outside the files folder.
bool serial_number_leaves_folder(nb::handle sn_text) {
    static const Name g_os{"os"};
    nb::object os = global(g_os);
    const nb::object separators[] = {nb::str("/"), nb::str("\0", 1), os.attr("sep"), os.attr("altsep")};
    for (const nb::object& separator : separators) {
        if (separator.is_none()) continue;
        int found = PySequence_Contains(sn_text.ptr(), separator.ptr());
        if (found < 0) raise_already_set();
        if (found) return true;
    }
    return false;
}

// Rebuilds _freq_list from the files folder and returns the path of the file for
// the current frequency, or False. The folder is read first, so a manager without
// one (files not fetched) keeps its frequency list when the search fails.
// The serial number is a shell-style pattern as written (a "*" in it matches
// other names of the folder), but one that would leave the folder finds nothing.
nb::object search_cali_file(nb::handle self, nb::handle extension) {
    nb::object folder = getattr(self, a_defaultDir);
    nb::list freq_list;
    setattr(self, a_freq_list, freq_list);
    nb::object result = nb::bool_(false);

    nb::object sn_text = py_format("%S", getattr(self, a_sn));
    if (serial_number_leaves_folder(sn_text)) {
        logger_of(self, a_logger)
            .error(nb::str("Serial number %r holds a path separator or NUL: no calibration file "
                           "is searched for it"),
                   sn_text);
        return result;
    }
    PyObject* name = PyUnicode_FromFormat("%S*GHz%S", sn_text.ptr(), extension.ptr());
    if (!name) raise_already_set();
    PyObject* joined = PyNumber_TrueDivide(folder.ptr(), name);
    Py_DECREF(name);
    if (!joined) raise_already_set();
    nb::object pattern = nb::str(nb::steal(joined));

    static const Name g_glob{"glob"};
    nb::object paths = global(g_glob).attr("glob")(pattern);
    if (!truthy(paths)) return result;

    nb::object ghz_extension = nb::str("GHz") + nb::borrow(extension);
    nb::object freq = getattr(self, a_freq);
    for (nb::handle path : paths) {
        nb::object path_freq = frequency_in_name(path, ghz_extension);
        if (compare(path_freq, freq, Py_EQ)) result = nb::borrow(path);
        freq_list.append(path_freq);
    }
    freq_list.attr("sort")();
    return result;
}

// -------------------------------------------------- location and versions ---

nb::object check_cali_table_location(nb::handle self) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            if (truthy(getattr(self, a_web_mode))) return ret_data(Py_True);
            getattr(self, m_searchCaliFile)();
            return ret_data(nb::bool_(py_len(getattr(self, a_freq_list)) > 0));
        },
        [&](nb::handle) -> nb::object {
            log.exception(str("checkCaliTableLocation exception"));
            return ret_error("ERROR_BF_CALI_PATH", "checkCaliTableLocation exception");
        });
}

// Failures carry their result in `ret` (the database error does); any other
// exception has none, and the AttributeError of reading it goes to the caller.
nb::object get_frequency_list(nb::handle self, nb::handle force_refresh) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            if (!dual_polarization(self)) {
                if (truthy(getattr(self, a_web_mode))) {
                    nb::object listed = database(self).attr("getTableList")("Freq");
                    setattr(self, a_freq_list, getattr(listed, k_RetData));
                } else if (truthy(force_refresh)) {
                    getattr(self, m_searchCaliFile)();
                }
            }
            return ret_data(getattr(self, a_freq_list));
        },
        [&](nb::handle exc) -> nb::object {
            nb::object ret = getattr(exc, k_ret);
            log.error(str("Exception: %s"), ret);
            return ret;
        });
}

nb::object query_cali_table_ver(nb::handle self) {
    Log log = logger_of(self, a_logger);
    static const Name k_VER{"VER"};
    return guard(
        [&]() -> nb::object {
            if (uses_database(self)) return database(self).attr(k_query)("VER");
            return ret_data(getitem(getattr(self, a_CaliTable), k_VER));
        },
        [&](nb::handle exc) -> nb::object {
            if (is_database_error(exc)) {
                nb::object ret = getattr(exc, k_ret);
                log.error(str("Exception: %s"), ret);
                return ret;
            }
            return ret_error("ERROR_BF_CALI_INCOMPLTE", "Can not found any calibration table");
        });
}

// ----------------------------------------------------------- header check ---

// The first failing check names the problem. The version is compared as text on
// purpose: that is how tables have always been ordered ("10.0.0" < "2.0.0").
const char* header_problem(nb::handle self, nb::handle table) {
    static const Name k_VER{"VER"}, k_SN{"SN"}, k_FCENTER{"FCENTER"};
    if (compare(getitem(table, k_VER), getattr(self, a_ver_limit), Py_LT))
        return "Version of Cali table is too low, please upgrade it.";
    if (!compare(getitem(table, k_SN), getattr(self, a_sn), Py_EQ)) return "Wrong SN!";
    PyObject* centre = PyNumber_Float(getitem(table, k_FCENTER).ptr());
    if (!centre) raise_already_set();
    if (!compare(nb::steal(centre), getattr(self, a_freq), Py_EQ)) return "Wrong Freq";
    return nullptr;
}

}  // namespace

nb::object basic_check(nb::handle self, nb::handle table) {
    nb::object ret = ret_ok();
    const char* problem = header_problem(self, table);
    if (problem) {
        nb::object text = str(problem);
        setattr(ret, k_RetMsg, text);
        setattr(ret, k_RetCode, RetCode("ERROR_BF_CALI_INCOMPLTE"));
        logger_of(self, a_logger).error(text);
    }
    return ret;
}

}  // namespace vex::tables::cali

namespace vex::tables {

void define_calibration_table_manager(nb::module_& m) {
    using namespace vex::tables::cali;
    ClassBuilder cls(m, "CalibrationTableManager",
                     "Calibration table of one device (serial number) at one operating frequency: "
                     "finds, checks and parses its calibration file and answers gain-range queries.");
    cls.def("__init__", &init, vex::py::arg("sn"), vex::py::arg("freq"), vex::py::arg("rf_layout"),
            vex::py::arg("support_polar") = false, vex::py::arg("web_client_id") = nb::none(),
            vex::py::arg("fetchCsvFromFile") = true);
    cls.def("_searchCaliFile", &search_cali_file, vex::py::arg("extension") = ".csv");
    cls.def_private("updateDict", &cali_update_dict, vex::py::arg("srcDict"), vex::py::arg("key"),
                    vex::py::arg("value"));
    cls.def_private("basicCheck", &basic_check, vex::py::arg("table"));
    cls.def("checkCaliTableLocation", &check_cali_table_location);
    cls.def("getFrequencyList", &get_frequency_list, vex::py::arg("force_refresh") = false);
    cls.def("queryCaliTableVer", &query_cali_table_ver);
    cls.def("parse", &parse, vex::py::arg("freq") = nb::none(), vex::py::arg("fileObject") = nb::none(),
            vex::py::arg("exportToJson") = false);
    cls.def("parseRawJson", &parse_raw_json);
    nb::object tx_name = getattr(RFMode().attr("TX"), k_name);
    cls.def("_getBoardsOffset", &get_boards_offset, vex::py::arg("boards"), vex::py::arg("rf_mode_str") = tx_name,
            vex::py::arg("chip") = 1);
    cls.def("getDR", &get_dr, vex::py::arg("rf_mode") = nb::none());
    cls.def_private("getXXXDR", &get_xxx_dr, vex::py::arg("key"));
    cls.def("getCOMDR", &get_com_dr);
    cls.def("getELEDR", &get_ele_dr);
    cls.def("_getBoardCOMDR", &get_board_com_dr, vex::py::arg("mode"), vex::py::arg("board_idx"));
    cls.def("_getBoardELEDR", &get_board_ele_dr, vex::py::arg("mode"), vex::py::arg("board_idx"));
    cls.def("_getTC", &get_tc);
    cls.def_private("appendComDictToList", &append_com_dict_to_list, vex::py::arg("comDict"), vex::py::arg("min"),
                    vex::py::arg("max"));
    cls.def("_searchComStepDR", &search_com_step_dr, vex::py::arg("board"), vex::py::arg("rf_mode_str"),
            vex::py::arg("min"), vex::py::arg("max"), vex::py::arg("polar"));
    cls.def("_getComData", &get_com_data, vex::py::arg("rf_mode_str"), vex::py::arg("board"), vex::py::arg("chip"),
            vex::py::arg("channel"), vex::py::arg("gain"), vex::py::arg("phase"), vex::py::arg("com_list"));
    cls.finish();
}

}  // namespace vex::tables
