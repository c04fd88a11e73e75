// What help() and editors show for every function the module binds: a typed
// signature and a docstring (what it does, its arguments, the RetType it returns,
// its errors). The binding calls look their entry up here by class and name, and
// the module refuses to import when an entry is missing or names other parameters
// than the binding, so this table and the code cannot drift apart. The shipped
// stub (__init__.pyi) carries the same signatures; a test holds the two together.
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "tables/tables.h"

namespace vex::py {
namespace {

#define CALLBACK "Callable[..., RetType] | None"

const FunctionDoc k_docs[] = {
    // ------------------------------------------------ BeamPatternTableManager --
    {"BeamPatternTableManager", "__init__",
     "def __init__(self, sn: str, devtype: int, num_beam: int, "
     "rf_layout: Sequence[int] | Callable[[], Sequence[int]], "
     "check_funcs: Sequence[Callable[..., RetType]] | None = None, web_client_id: str | None = None) -> None",
     "Binds a beam table to one device.\n\n"
     "sn: serial number; devtype: device type, written into the table; num_beam: beam ids per RF mode\n"
     "(1 to num_beam); rf_layout: (boards, ICs per board, channels per IC) or a callable returning it;\n"
     "check_funcs: the driver's hooks (beam_check(mode, db, theta, phi, None),\n"
     "ic_gain_check(mode, board_index, gains, common_db)), each returning a RetType; web_client_id:\n"
     "web mode (no files; _load and saves go to callbacks).\n"
     "Call _updateFreq, _updateAAKit and _load before reading or writing beams."},
    {"BeamPatternTableManager", "_updateFreq",
     "def _updateFreq(self, freq: float, DR: Mapping[str, Any], comDR: Sequence[Sequence[Any]], "
     "eleDR: Sequence[Sequence[Any]]) -> None",
     "Takes a new frequency and its limits: DR, COMDR and ELEDR as the calibration manager's getDR(),\n"
     "getCOMDR() and getELEDR() give them. Default beams are built from these limits."},
    {"BeamPatternTableManager", "_updateAAKit", "def _updateAAKit(self, kitName: str) -> None",
     "Takes the name of the selected antenna kit (part of the beam table's file name)."},
    {"BeamPatternTableManager", "_load",
     "def _load(self, freq: float, aakit: str, callback: " CALLBACK " = None) -> RetType",
     "Finds and loads the beam table of this device, frequency and kit into _BeamTable.\n\n"
     "The file BeamTable/Beam_Configuration_<SN>_<freq>GHz[_<kit>].json of the files directory is\n"
     "created empty when missing; an older version is upgraded and saved again.\n"
     "Returns RetType with the table as data; ERROR_BF_BEAM_FILE for a table that cannot be read or\n"
     "converted, ERROR_BF_BEAM \"BeamTable loading exception\" for other failures.\n"
     "Web mode: returns what callback(func_name=\"_load\", freq=..., aakit=..., ...) returns."},
    {"BeamPatternTableManager", "_BeamPatternTableManager__generateDefaultBeamTableFile",
     "def _BeamPatternTableManager__generateDefaultBeamTableFile(self) -> RetType",
     "Writes a new, empty beam table file (version, SN, device type, frequency, kit, no beams).\n"
     "Returns RetType with the new table as data, or ERROR_BF_BEAM \"BeamTable generating exception\"."},
    {"BeamPatternTableManager", "_BeamPatternTableManager__generateDefaultBeam",
     "def _BeamPatternTableManager__generateDefaultBeam(self, beam: dict[str, Any], "
     "beam_type: BeamType | int, mode: RFMode | int) -> None",
     "Fills `beam` in place with the default of its type: a steered beam {db: DR[mode], theta: 0,\n"
     "phi: 0}, or a channel configuration with every channel on at its board's ELEDR, phase 0, and\n"
     "each board's common_db at its COMDR."},
    {"BeamPatternTableManager", "_saveToBeamTableFile",
     "def _saveToBeamTableFile(self, callback: " CALLBACK " = None, "
     "new_table: dict[str, Any] | None = None) -> RetType",
     "Saves _BeamTable to its file, atomically (the previous file stays whole on any failure).\n"
     "Returns RetType(); ERROR_BF_BEAM_FILE \"BeamFile saving exception\" when it cannot be written.\n"
     "Web mode: returns what callback(func_name=\"saveToBeamTableFile\"[, new_table=...]) returns."},
    {"BeamPatternTableManager", "getBeamIdStorage", "def getBeamIdStorage(self) -> RetType",
     "Returns RetType with the number of beam ids per RF mode (num_beam) as data."},
    {"BeamPatternTableManager", "getBeamPattern",
     "def getBeamPattern(self, mode: RFMode | int, beamId: int) -> RetType",
     "Reads one beam.\n\n"
     "Returns RetType with the stored beam mapping (the table's own object) as data, or, for an id\n"
     "never set, a fresh default channel beam built from the current limits (not stored).\n"
     "Errors: ERROR_BF_BEAM \"BeamTable is not ready\" before _load, \"Invaid beam id: <id>\" outside\n"
     "1..num_beam, \"GetBeamPattern exception\" for a bad mode or id."},
    {"BeamPatternTableManager", "setBeamPattern",
     "def setBeamPattern(self, mode: RFMode | int, beamId: int, beamType: BeamType | int, "
     "config: Mapping[str, Any] | None = None, description: str | None = None, save: bool = True) -> RetType",
     "Writes one beam, validated through the check hooks, and saves the table unless save is False.\n\n"
     "beamType BEAM: config {\"db\", \"theta\", \"phi\"} (None keeps the current ones), checked by\n"
     "beam_check, whose RetData (db, theta, phi) is stored. beamType CHANNEL: config holds only what\n"
     "changes, {\"board_<n>\": {\"common_db\": x, \"channel_<m>\": {\"sw\", \"db\", \"deg\"}}}; every board\n"
     "is then checked by ic_gain_check.\n"
     "Returns RetType(); a refusal of beam_check as the hook returned it; ERROR_BF_BEAM for a table\n"
     "not loaded, a bad id, a board refused by ic_gain_check, an invalid channel config or a bad\n"
     "argument (\"SetBeamPattern exception\"); ERROR_BF_BEAM_FILE when the save fails (the change\n"
     "stays in memory)."},
    {"BeamPatternTableManager", "_BeamPatternTableManager__validateChannelConfig",
     "def _BeamPatternTableManager__validateChannelConfig(self, config: Mapping[str, Any], "
     "mode: RFMode | int) -> RetType",
     "Checks the \"channel_config\" of a beam mapping board by board through ic_gain_check.\n"
     "Returns RetType(), or ERROR_BF_BEAM naming the refused board or \"Invalid channel config\"."},
    {"BeamPatternTableManager", "_getBatchBeamPattern",
     "def _getBatchBeamPattern(self, mode_filter: BTModeFilter | int = BTModeFilter.ALL, "
     "callback: " CALLBACK " = None) -> RetType",
     "Returns RetType with {\"TX\": ..., \"RX\": ...} (the modes of mode_filter) holding the table's\n"
     "own sections, not copies. With a callback (web mode) the table is first reloaded through it.\n"
     "ERROR_BF_BEAM \"GetBatchBeamPattern exception\" for an unknown filter."},
    {"BeamPatternTableManager", "_setBatchBeamPattern",
     "def _setBatchBeamPattern(self, batch_config: Mapping[str, Any], option: BTSetOption | int, "
     "callback: " CALLBACK " = None) -> RetType",
     "Applies, saves and/or validates many beams, as option's flags say (SAVE, then VALIDATE).\n\n"
     "batch_config has the shape _getBatchBeamPattern returns ({mode name: {\"<id>\": beam}}).\n"
     "SAVE sets every beam without saving, then saves once (REPLACE_ALL empties each named mode\n"
     "first); VALIDATE checks every beam through the hooks. Returns RetType with the batch as data\n"
     "(GET), else _BeamTable after SAVE; the first refusal of a beam; ERROR_BF_BEAM\n"
     "\"SetBatchBeamPattern exception\" for a malformed batch or option."},

    // ------------------------------------------------ CalibrationTableManager --
    {"CalibrationTableManager", "__init__",
     "def __init__(self, sn: str, freq: float, rf_layout: Callable[[], Sequence[int]], "
     "support_polar: bool = False, web_client_id: str | None = None, fetchCsvFromFile: bool = True) -> None",
     "Binds the calibration tables of one serial number.\n\n"
     "sn: serial number; freq: operating frequency in GHz; rf_layout: a callable returning (boards,\n"
     "ICs per board, channels per IC); support_polar: a dual-polarization device, answered from\n"
     "moss_cali; web_client_id: web mode (calibration data from the table database);\n"
     "fetchCsvFromFile: False when files are handed to parse() as file objects."},
    {"CalibrationTableManager", "_searchCaliFile",
     "def _searchCaliFile(self, extension: str = '.csv') -> str | bool",
     "Lists the files \"<SN>_<freq>GHz<extension>\" of the files directory into _freq_list and\n"
     "returns the path of the one at the current frequency, or False."},
    {"CalibrationTableManager", "_CalibrationTableManager__updateDict",
     "def _CalibrationTableManager__updateDict(self, srcDict: dict[str, Any], key: str, value: Any) -> None",
     "Inserts value under key into srcDict, merging nested mappings instead of replacing them."},
    {"CalibrationTableManager", "_CalibrationTableManager__basicCheck",
     "def _CalibrationTableManager__basicCheck(self, table: Mapping[str, Any]) -> RetType",
     "Checks a parsed table's header: version not below 2.0.0, serial number, centre frequency.\n"
     "Returns RetType(), or ERROR_BF_CALI_INCOMPLTE with the reason (\"Wrong SN!\", \"Wrong Freq\", ...)."},
    {"CalibrationTableManager", "checkCaliTableLocation", "def checkCaliTableLocation(self) -> RetType",
     "Returns RetType with data True when a calibration file of this serial number exists, else\n"
     "False; ERROR_BF_CALI_PATH \"checkCaliTableLocation exception\" on failure."},
    {"CalibrationTableManager", "getFrequencyList",
     "def getFrequencyList(self, force_refresh: bool = False) -> RetType",
     "Returns RetType with the frequencies that have a calibration table (_freq_list), searched\n"
     "again when force_refresh is true or the list is empty; in web mode asked from the database\n"
     "(a database error gives its own RetType)."},
    {"CalibrationTableManager", "queryCaliTableVer", "def queryCaliTableVer(self) -> RetType",
     "Returns RetType with the loaded table's version (its \"VER\" value) as data;\n"
     "ERROR_BF_CALI_INCOMPLTE \"Can not found any calibration table\" when none is loaded."},
    {"CalibrationTableManager", "parse",
     "def parse(self, freq: float | None = None, fileObject: Any = None, exportToJson: bool = False) -> RetType",
     "Reads the calibration table of freq (default: the current frequency) into _CaliTable.\n\n"
     "The file \"<SN>_<freq>GHz.csv\" is found in the files directory, or read from fileObject (which\n"
     "is closed); in web mode the table comes from the database. exportToJson also writes the parsed\n"
     "table as JSON beside the CSV. A new frequency drops the query caches.\n"
     "Returns RetType(); ERROR_BF_CALI_PATH when no file is found; ERROR_BF_CALI_PARSE for a row\n"
     "that cannot be read (\"parse exception\"), a file without END (\"cali file is broken\") or a\n"
     "failed export; ERROR_BF_CALI_INCOMPLTE with the reason when the header check fails."},
    {"CalibrationTableManager", "parseRawJson", "def parseRawJson(self) -> RetType",
     "Reads the JSON export \"<SN>_<freq>GHz.json\" of the current frequency into _CaliTable.\n"
     "Returns RetType(), or ERROR_BF_CALI_PARSE \"cali file error\"."},
    {"CalibrationTableManager", "_getBoardsOffset",
     "def _getBoardsOffset(self, boards: int | Sequence[int], rf_mode_str: str = 'TX', chip: int = 1) "
     "-> list[list[int]]",
     "Returns, for each board asked (numbered from 1), the phase offsets of chip `chip` in mode\n"
     "rf_mode_str (channel 1 first). Raises KeyError for a missing entry, QRVTableDBError for a\n"
     "database failure (web mode)."},
    {"CalibrationTableManager", "getDR",
     "def getDR(self, rf_mode: RFMode | CellRFMode | int | None = None) -> RetType",
     "Returns RetType with the dynamic range {\"TX\": [low, high], \"RX\": [low, high]}, or one mode's\n"
     "pair. Raises KeyError when the table has no DR; other failures give ERROR \"getDR exception\"."},
    {"CalibrationTableManager", "_CalibrationTableManager__getXXXDR",
     "def _CalibrationTableManager__getXXXDR(self, key: str) -> list[list[Any]]",
     "The cached per-mode, per-board list of \"COMDR\" or \"ELEDR\" (built once per frequency)."},
    {"CalibrationTableManager", "getCOMDR", "def getCOMDR(self) -> RetType",
     "Returns RetType with the common-arm ranges: per mode (index RFMode.value) a [low, high] per\n"
     "board, board 1 first. Raises KeyError for a missing board; other failures give ERROR\n"
     "\"getCOMDR exception\"."},
    {"CalibrationTableManager", "getELEDR", "def getELEDR(self) -> RetType",
     "Returns RetType with the element gain limits: per mode (index RFMode.value) one entry per\n"
     "board. Raises KeyError for a missing board; other failures give ERROR \"getELEDR exception\"."},
    {"CalibrationTableManager", "_getBoardCOMDR",
     "def _getBoardCOMDR(self, mode: RFMode | int, board_idx: int) -> Any",
     "One board's COMDR entry (board_idx from 0) in mode `mode`; errors reach the caller."},
    {"CalibrationTableManager", "_getBoardELEDR",
     "def _getBoardELEDR(self, mode: RFMode | int, board_idx: int) -> Any",
     "One board's ELEDR entry (board_idx from 0) in mode `mode`; errors reach the caller."},
    {"CalibrationTableManager", "_getTC", "def _getTC(self) -> list[list[int]]",
     "Temperature compensation: per board and IC a list of integers, TX pair then RX pair."},
    {"CalibrationTableManager", "_CalibrationTableManager__appendComDictToList",
     "def _CalibrationTableManager__appendComDictToList(self, comDict: Mapping[str, Sequence[float]], "
     "min: float, max: float) -> list[int]",
     "The step numbers n of comDict's \"COM_<n>\" entries whose [low, high] covers [min, max]."},
    {"CalibrationTableManager", "_searchComStepDR",
     "def _searchComStepDR(self, board: int, rf_mode_str: str, min: float, max: float, "
     "polar: POL | int | None) -> list[int]",
     "The common-arm steps of board `board` (from 1) whose range covers [min, max], in table order;\n"
     "polar picks one polarization where the ranges are split by it."},
    {"CalibrationTableManager", "_getComData",
     "def _getComData(self, rf_mode_str: str, board: int, chip: int, channel: list[int], gain: list[float], "
     "phase: list[Any], com_list: list[int]) -> dict[str, list[int]]",
     "Register values of the named channels (with their gain and phase steps) for each common-arm\n"
     "step of com_list: {\"COM_<n>\": [value per position]}; steps without data are left out."},

    // ------------------------------------------------------ AAKitTableManager --
    {"AAKitTableManager", "__init__",
     "def __init__(self, devtype: int, total_ch: int, path: str = 'files/', num_polar: int = 1, "
     "support_dev: Sequence[int] = [], web_client_id: str | None = None) -> None",
     "Binds the antenna-array-kit tables of one device type.\n\n"
     "devtype: the device type; total_ch: channels of the device (each offset row holds that many);\n"
     "path: accepted, not used (kits live in the files directory); num_polar: polarizations;\n"
     "support_dev: device types whose kits are loaded; web_client_id: web mode (kits come from and\n"
     "go to callbacks)."},
    {"AAKitTableManager", "_getAAKitTablePath", "def _getAAKitTablePath(self) -> list[str]",
     "The paths of the kit files \"AAKIT_*.csv\" of the files directory, sorted."},
    {"AAKitTableManager", "parse", "def parse(self) -> RetType",
     "Reads every kit file into _AAKitTable (kit name to record); files that are refused or cannot\n"
     "be read are skipped with a log line naming them, and custom kits without a valid time stamp\n"
     "are renamed. Returns RetType(), or ERROR_BF_NO_AAKIT when there is no kit file or no usable\n"
     "kit. Raises KeyError for a record without TYPE."},
    {"AAKitTableManager", "_selectAAKit", "def _selectAAKit(self, kitName: str) -> RetType",
     "Makes kitName the current kit. Returns RetType(), or ERROR_BF_NO_AAKIT when there is no such kit."},
    {"AAKitTableManager", "getAAKitList",
     "def getAAKitList(self, force_refresh: bool = False, callback: " CALLBACK " = None) -> RetType",
     "Returns RetType with the list of kit names, parsing the files first when needed or asked\n"
     "(force_refresh); in web mode the table comes from callback(devtype, total_ch, support_dev).\n"
     "ERROR_BF_AAKIT \"getAAKitList exception\" on failure."},
    {"AAKitTableManager", "getAAKitInfo",
     "def getAAKitInfo(self, kitName: str | None = None, local: bool = False) -> RetType",
     "Returns RetType with one kit's record (default: the current kit) as a mapping, or with the\n"
     "whole table (kit name to record) when local is true and no kitName is given; ERROR_BF_AAKIT\n"
     "for an unknown kit, or when no kit is named and none is selected."},
    {"AAKitTableManager", "computeAAKitFullName", "def computeAAKitFullName(self, kitName: str) -> str",
     "The full name of a custom kit: kitName, \"_\", then the local time stamp\n"
     "YYYYmmddHHMMSS + hundredths + UTC offset (for example MyKit_2024030112304512+0800)."},
    {"AAKitTableManager", "_AAKitTableManager__checkAAKitTimeFormat",
     "def _AAKitTableManager__checkAAKitTimeFormat(self, time_str: str) -> bool",
     "Whether time_str is a valid custom-kit time stamp (see computeAAKitFullName)."},
    {"AAKitTableManager", "_AAKitTableManager__checkAAKitField",
     "def _AAKitTableManager__checkAAKitField(self, field_name: str, field: list[Any] | dict[str, Any]) -> bool",
     "Whether one field of a kit record has the right shape (pairs of numbers, total_ch offsets per\n"
     "polarization)."},
    {"AAKitTableManager", "setAAKitInfo",
     "def setAAKitInfo(self, kitName: str, spacing: list[float], steeringH: list[float], "
     "steeringV: list[float], offsetTx: list[int] | dict[str, list[int]], "
     "offsetRx: list[int] | dict[str, list[int]], custom: int = 1, callback: " CALLBACK " = None, "
     "dev_type: int | None = None, newKitName: str | None = None) -> RetType",
     "Creates or changes a kit in the table (save it afterwards with saveAAKitFile).\n\n"
     "spacing, steeringH, steeringV: two numbers each; offsetTx, offsetRx: total_ch integers (or one\n"
     "list per polarization); custom 1 makes a custom kit under its time-stamped name; newKitName\n"
     "renames it. Raises TypeError for arguments of the wrong type; returns RetType() with the\n"
     "kit's full name as data, or ERROR_BF_AAKIT for an invalid field or a failed rename."},
    {"AAKitTableManager", "_AAKitTableManager__renameAAKit",
     "def _AAKitTableManager__renameAAKit(self, oldName: str, newName: str, callback: " CALLBACK " = None) "
     "-> RetType",
     "Renames a kit: deletes the old file, then saves under the new name. Returns RetType(), or\n"
     "ERROR_BF_AAKIT (names holding a path separator or NUL are refused before anything changes)."},
    {"AAKitTableManager", "deleteAAKitInfo",
     "def deleteAAKitInfo(self, kitName: str, callback: " CALLBACK " = None, check: bool = True) -> RetType",
     "Deletes a custom kit from the table and its file (official kits are kept).\n"
     "Returns RetType(), or ERROR_BF_AAKIT. Web mode: calls callback(func_name=\"deleteAAKitInfo\", ...)."},
    {"AAKitTableManager", "_AAKitTableManager__writeCSVRow",
     "def _AAKitTableManager__writeCSVRow(self, writer: Any, table: Mapping[str, Any], field: str) -> None",
     "Writes the row of one field of a kit record through a csv writer."},
    {"AAKitTableManager", "saveAAKitFile",
     "def saveAAKitFile(self, kitName: str | None = None, callback: " CALLBACK " = None, check: bool = True, "
     "context: Mapping[str, Any] | None = None) -> RetType",
     "Saves a kit (default: the current kit) to \"AAKIT_<name>.csv\", atomically: the previous file\n"
     "stays whole on any failure. Returns RetType(), or ERROR_BF_AAKIT. Web mode: calls\n"
     "callback(func_name=\"saveAAKitFile\", kitName=..., check=False, context=<record>)."},

    // ------------------------------------------------ UDDeltaFreqTableManager --
    {"UDDeltaFreqTableManager", "__init__", "def __init__(self, sn: str) -> None",
     "Binds the UD delta-frequency table \"<sn>.csv\" of the files directory."},
    {"UDDeltaFreqTableManager", "parse", "def parse(self) -> RetType",
     "Reads the delta (the last value row of the file). Returns RetType(); WARNING when there is no\n"
     "file or no value; ERROR \"Exception while delta csv parsing\" for a value that is not an integer."},
    {"UDDeltaFreqTableManager", "getUDDeltaFreq", "def getUDDeltaFreq(self) -> RetType",
     "Returns RetType with the minimum LO/IF spacing as data (0 until a file gives one)."},

    // ---------------------------------------------------------- table database --
    {"QRVTableDBError", "__init__", "def __init__(self, code: RetCode, msg: str) -> None",
     "A failed database access; `ret` holds RetType(code, msg)."},
    {"_QRVTableDB", "__init__", "def __init__(self, table_name: str, temp: dict[str, Any]) -> None",
     "Opens the query service vexcore.db.QRVDBQueryer for table_name; temp is the request template\n"
     "(for calibration: sn and frequency). Raises QRVTableDBError when the service cannot be loaded."},
    {"_QRVTableDB", "_QRVTableDB__returnDB", "def _QRVTableDB__returnDB(self, db_info: Any) -> RetType",
     "Turns a reply of the service into a RetType; raises QRVTableDBError for a refusal or a reply\n"
     "that is not understood."},
    {"_QRVTableDB", "getTableList", "def getTableList(self, name: str) -> RetType",
     "Returns RetType with a list the service keeps (for example the frequencies of the serial number)."},
    {"_QRVTableDB", "setAAKitName", "def setAAKitName(self, name: str) -> RetType",
     "Sets the kit name of later queries. Returns RetType()."},
    {"_QRVTableDB", "setFreq", "def setFreq(self, freq: float) -> RetType",
     "Sets the frequency of later queries. Returns RetType()."},
    {"_QRVTableDB", "cleanQueryCache", "def cleanQueryCache(self) -> None",
     "Drops the cached answers and the queries held back for a multi-query."},
    {"_QRVTableDB", "query",
     "def query(self, key: str | list[Any] = '', category: str = 'GENERAL', applySetting: bool = True) -> RetType",
     "Asks the service for key (a dotted path or a list of keys) in category (\"GENERAL\" or\n"
     "\"BOARD_<n>\"); answers are cached. Returns RetType with the value as data; raises\n"
     "QRVTableDBError (ERROR_DB_FEEDBACK, ERROR_DB_SERVER) on failure."},

    // --------------------------------------------------------- check hooks --
    {"", "fake_rf_layout", "def fake_rf_layout() -> tuple[int, int, int]",
     "Layout of a 16-channel device: 4 boards, 1 IC per board, 4 channels per IC."},
    {"", "fake_check", "def fake_check(a: Any, b: Any, c: Any, d: Any) -> RetType",
     "Beam check that accepts everything: RetType(data=(b, c, d)). It takes four arguments, so it\n"
     "cannot serve as the beam hook of setBeamPattern, which passes five."},
    {"", "fake_ic_check", "def fake_ic_check(a: Any, b: Any, c: Any) -> RetType",
     "IC gain check that accepts everything: RetType(data=c). It takes three arguments, so it cannot\n"
     "serve as the IC gain hook of setBeamPattern, which passes four."},
};

#undef CALLBACK

// The parameter names of a signature "def name(self, a: T = x, b: U) -> R", without
// self: the text before each ':' or '=' of the top-level comma-separated parts.
std::vector<std::string> parameter_names(const char* signature) {
    std::vector<std::string> names;
    const char* p = std::strchr(signature, '(');
    if (!p) return names;
    int depth = 0;
    std::string current;
    bool in_name = true;
    for (++p; *p; ++p) {
        char c = *p;
        if (depth == 0 && (c == ',' || c == ')')) {
            if (!current.empty() && current != "self") names.push_back(current);
            if (c == ')') break;
            current.clear();
            in_name = true;
            continue;
        }
        if (c == '[' || c == '(') ++depth;
        if (c == ']' || c == ')') --depth;
        if (c == ':' || c == '=') in_name = false;
        if (in_name && c != ' ') current += c;
    }
    return names;
}

// "def <name>(": the name the signature gives the function.
bool names_function(const char* signature, const char* name) {
    size_t length = std::strlen(name);
    return std::strncmp(signature, "def ", 4) == 0 && std::strncmp(signature + 4, name, length) == 0 &&
           signature[4 + length] == '(';
}

// The module's enumerations, documented once they exist (they are made by Python's
// enum machinery, which gives them no text of their own).
const char* const k_enum_docs[][2] = {
    {"BTModeFilter", "Which RF modes a batch beam read returns: TX, RX or ALL (both)."},
    {"BTSetOption",
     "What a batch beam write does: VALIDATE the beams, return them (GET), SAVE them, REPLACE_ALL of\n"
     "each named mode; UI_IMPORT (= VALIDATE), UI_EXPORT, UI_SAVE_UPSERT and UI_SAVE_REPLACE combine them."},
    {"BTField", "Top-level fields of a beam table file; _version holds the current format version (\"2.0.0\")."},
    {"BTBeamField",
     "Field names inside one beam of a beam table file (board_ and channel_ are prefixes of an index)."},
    {"AAKitField", "Row keys of an antenna-array-kit file."},
};

}  // namespace

const FunctionDoc& function_doc(const char* owner, const char* name,
                                std::initializer_list<const char*> arg_names) {
    std::string where = std::string(*owner ? owner : "module") + "." + name;
    for (const FunctionDoc& doc : k_docs) {
        if (std::strcmp(doc.owner, owner) != 0 || std::strcmp(doc.name, name) != 0) continue;
        std::vector<std::string> bound;
        for (const char* arg : arg_names)
            if (arg) bound.emplace_back(arg);
        if (!names_function(doc.signature, name) || parameter_names(doc.signature) != bound)
            throw std::runtime_error("the documented signature of " + where +
                                     " does not match its binding: " + doc.signature);
        return doc;
    }
    throw std::runtime_error("no documentation for " + where);
}

}  // namespace vex::py

namespace vex::tables {

void document_enums(nb::module_& m) {
    for (const auto& entry : vex::py::k_enum_docs) nb::setattr(m.attr(entry[0]), "__doc__", nb::str(entry[1]));
}

}  // namespace vex::tables
