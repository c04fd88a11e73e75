// CalibrationTableManager: the queries drivers make after a parse.
//
//   getDR, getCOMDR, getELEDR, _getBoardCOMDR, _getBoardELEDR, _getTC
//       gain limits and temperature compensation, from the table (file mode), the
//       database (web mode) or the built-in record (dual polarization);
//   _getBoardsOffset, _searchComStepDR, __appendComDictToList, _getComData
//       channel offsets, common-arm steps that cover a gain range, and the
//       register values stored for a chip's common-arm steps.
//
// Board-level answers are built once per frequency into caches (__allXXXDR,
// __allOffset, __allComDataMap) that a parse with a new frequency drops.
#include "tables/calibration_table_manager.h"
#include "py/capi.h"

namespace vex::tables::cali {

using namespace vex::py;
namespace {

const Name k_DR{"DR"}, k_COMDR{"COMDR"}, k_ELEDR{"ELEDR"}, k_COMSTEPDR{"COMSTEPDR"}, k_TC{"TC"};

nb::object cell_rf_mode() {
    static const Name g_CellRFMode{"CellRFMode"};
    return global(g_CellRFMode);
}

nb::object polarizations() {
    static const Name g_POL{"POL"};
    return global(g_POL);
}

nb::object table_of(nb::handle self) { return getattr(self, a_CaliTable); }

// The names of an enumeration's members, in declared order.
nb::list member_names(nb::handle enumeration) {
    nb::list names;
    for (nb::handle member : enumeration) names.append(getattr(member, k_name));
    return names;
}

// The result of a failed public query: the database error's own result, a
// KeyError (a missing table entry) raised to the caller, anything else `message`.
nb::object query_failure(nb::handle self, nb::handle exc, const char* message) {
    Log log = logger_of(self, a_logger);
    if (is_database_error(exc)) {
        nb::object ret = getattr(exc, k_ret);
        log.error(str("Exception: %s"), ret);
        return ret;
    }
    if (is_instance(exc, PyExc_KeyError)) reraise(exc);
    log.exception(str(message));
    return ret_error("ERROR", message);
}

// ------------------------------------------------------------------- DR ---

nb::object dynamic_range(nb::handle self, nb::handle rf_mode) {
    if (rf_mode.is_none()) {
        if (uses_database(self)) return database(self).attr(k_query)("DR");
        return ret_data(getitem(table_of(self), k_DR));
    }
    bool dual = dual_polarization(self);
    bool from_database = !dual && truthy(getattr(self, a_web_mode));
    nb::object mode = enum_member(dual ? cell_rf_mode() : RFMode(), rf_mode);
    if (dual && compare(mode, cell_rf_mode().attr("STANDBY"), Py_EQ)) {
        logger_of(self, a_logger).warning(str("DR not support for STANDBY mode"));
        return ret_msg("DR not support for STANDBY mode");
    }
    nb::object name = enum_fields(mode).name;
    if (from_database) return database(self).attr(k_query)(pair_list(k_DR, name));
    return ret_data(getitem(getitem(table_of(self), k_DR), name));
}

}  // namespace

nb::object get_dr(nb::handle self, nb::handle rf_mode) {
    return guard([&]() { return dynamic_range(self, rf_mode); },
                 [&](nb::handle exc) { return query_failure(self, exc, "getDR exception"); });
}

namespace {

// ------------------------------------------------------ board-level cache ---

// {kind: [[] per RF mode]} for the kinds this device's table holds.
nb::dict empty_range_cache(bool dual, Py_ssize_t modes) {
    nb::dict cache;
    for (const Name* kind : {&k_COMDR, &k_ELEDR, &k_COMSTEPDR}) {
        if (dual && kind == &k_COMSTEPDR) continue;   // dual-polarization records have no step ranges
        nb::list per_mode;
        for (Py_ssize_t i = 0; i < modes; ++i) per_mode.append(nb::list());
        setitem(cache, *kind, per_mode);
    }
    return cache;
}

// The lists one board's entries are appended to: cache[kind][mode value].
struct RangeLists {
    nb::object comdr, eledr, comstepdr;   // comstepdr is unset on dual-polarization devices
};

RangeLists range_lists(nb::handle cache, nb::handle index, bool dual) {
    RangeLists lists;
    lists.comdr = getitem(getitem(cache, k_COMDR), index);
    lists.eledr = getitem(getitem(cache, k_ELEDR), index);
    if (!dual) lists.comstepdr = getitem(getitem(cache, k_COMSTEPDR), index);
    return lists;
}

void append(nb::handle list, nb::handle value) {
    if (PyList_Append(list.ptr(), value.ptr()) < 0) raise_already_set();
}

// {pol: value of `kind`} of one board and mode.
nb::dict polarized_range(nb::handle arm, nb::handle pol_names, const Name& kind) {
    nb::dict per_pol;
    for (nb::handle name : pol_names) setitem(per_pol, name, getitem(getitem(arm, name), kind));
    return per_pol;
}

void add_polarized_ranges(const RangeLists& lists, nb::handle arm, nb::handle pol_names) {
    append(lists.comdr, polarized_range(arm, pol_names, k_COMDR));
    append(lists.eledr, polarized_range(arm, pol_names, k_ELEDR));
}

// One database query per board and mode; answers come keyed "TX.COMDR" and so on,
// a one-element list standing for its element.
void add_database_ranges(nb::handle self, nb::handle cache, nb::handle index, nb::handle mode_name,
                         nb::handle board) {
    nb::list keys;
    for (const Name* kind : {&k_COMDR, &k_ELEDR, &k_COMSTEPDR}) keys.append(pair_list(mode_name, *kind));
    nb::object answers = getattr(database(self).attr(k_query)(keys, board), k_RetData);
    for (nb::handle key : answers) {
        nb::object value = getitem(answers, key);
        if (PyList_Check(value.ptr()) && list_size(value.ptr()) == 1) value = getitem(value, 0);
        nb::object kind = getitem(key.attr("split")("."), -1);
        append(getitem(getitem(cache, kind), index), value);
    }
}

void add_file_ranges(const RangeLists& lists, nb::handle board_table, nb::handle mode_name) {
    nb::object arm = getitem(board_table, mode_name);
    append(lists.comdr, getitem(arm, k_COMDR));
    append(lists.eledr, getitem(arm, k_ELEDR));
    append(lists.comstepdr, getitem(board_table, k_COMSTEPDR));
}

nb::dict build_range_cache(nb::handle self) {
    bool dual = dual_polarization(self);
    bool from_database = !dual && uses_database(self);
    Py_ssize_t boards = range_bound(getattr(self, a_num_board));
    nb::object modes = RFMode();
    nb::dict cache = empty_range_cache(dual, py_len(modes));
    nb::object table = table_of(self);
    nb::list pol_names = dual ? member_names(polarizations()) : nb::list();
    for (nb::handle mode : modes) {
        nb::object name = getattr(mode, k_name), index = getattr(mode, k_value);
        RangeLists lists = range_lists(cache, index, dual);
        for (Py_ssize_t b = 1; b <= boards; ++b) {
            nb::object board = board_key(b);
            if (dual)
                add_polarized_ranges(lists, getitem(getitem(table, board), name), pol_names);
            else if (from_database)
                add_database_ranges(self, cache, index, name, board);
            else
                add_file_ranges(lists, getitem(table, board), name);
        }
    }
    return cache;
}

// __getXXXDR(key). The cache is stored only once complete, so a failed build
// (a board missing from the table) is retried rather than served half-built.
nb::object ranges_of(nb::handle self, nb::handle kind) {
    Log log = logger_of(self, a_logger);
    nb::object cache = getattr(self, a_allXXXDR);
    if (!cache.is_none()) {
        log.debug("Fetch %s from cache", kind);
        return getitem(cache, kind);
    }
    cache = build_range_cache(self);
    setattr(self, a_allXXXDR, cache);
    log.info(str("All DR: %s"), cache);
    return getitem(cache, kind);
}

}  // namespace

nb::object get_xxx_dr(nb::handle self, nb::handle key) { return ranges_of(self, key); }

nb::object get_com_dr(nb::handle self) {
    return guard([&]() { return ret_data(ranges_of(self, k_COMDR)); },
                 [&](nb::handle exc) { return query_failure(self, exc, "getCOMDR exception"); });
}

nb::object get_ele_dr(nb::handle self) {
    return guard([&]() { return ret_data(ranges_of(self, k_ELEDR)); },
                 [&](nb::handle exc) { return query_failure(self, exc, "getELEDR exception"); });
}

namespace {

nb::object board_range(nb::handle self, const Name& kind, nb::handle mode, nb::handle board_idx) {
    nb::object index = getattr(RFMode()(mode), k_value);
    return getitem(getitem(ranges_of(self, kind), index), board_idx);
}

}  // namespace

nb::object get_board_com_dr(nb::handle self, nb::handle mode, nb::handle board_idx) {
    return board_range(self, k_COMDR, mode, board_idx);
}

nb::object get_board_ele_dr(nb::handle self, nb::handle mode, nb::handle board_idx) {
    return board_range(self, k_ELEDR, mode, board_idx);
}

namespace {

// -------------------------------------------------------------------- TC ---

nb::object as_int(nb::handle value) {
    PyObject* number = PyNumber_Long(value.ptr());
    if (!number) raise_already_set();
    return nb::steal(number);
}

nb::list ints_of(nb::handle values) {
    nb::list out;
    for (nb::handle v : values) out.append(as_int(v));
    return out;
}

// One list per polarization, from the board's "TC" mapping.
nb::list polarized_tc(nb::handle table, nb::handle board, nb::handle pol_names) {
    nb::object tc = getitem(getitem(table, board), k_TC);
    nb::list values;
    for (nb::handle name : pol_names) values.append(ints_of(getitem(tc, name)));
    return values;
}

// The TX pair then the RX pair, from the table or the database.
nb::list mode_tc(nb::handle self, nb::handle table, nb::handle board, nb::handle mode_names, bool from_database) {
    nb::list values;
    nb::object board_table = from_database ? nb::object() : getitem(table, board);
    for (nb::handle name : mode_names) {
        nb::object stored = from_database
                                ? getattr(database(self).attr(k_query)(pair_list(name, k_TC), board), k_RetData)
                                : getitem(getitem(board_table, name), k_TC);
        for (nb::handle v : stored) values.append(as_int(v));
    }
    return values;
}

}  // namespace

// Per board (counted over every chip of the layout): the TX pair then the RX pair
// as integers; dual polarization: one list per polarization.
nb::list get_tc(nb::handle self) {
    // The entry count is multiplied as Python multiplies it (any size, any number
    // type), then taken as range() takes it.
    PyObject* product =
        PyNumber_Multiply(getattr(self, a_num_board).ptr(), getattr(self, a_num_ic_per_board).ptr());
    if (!product) raise_already_set();
    Py_ssize_t entries = range_bound(nb::steal(product));
    nb::object table = table_of(self);
    bool dual = dual_polarization(self);
    bool from_database = !dual && uses_database(self);
    nb::list names = member_names(dual ? polarizations() : RFMode());
    nb::list result;
    for (Py_ssize_t b = 1; b <= entries; ++b) {
        nb::object board = board_key(b);
        result.append(dual ? polarized_tc(table, board, names)
                           : mode_tc(self, table, board, names, from_database));
    }
    return result;
}

namespace {

// ---------------------------------------------------------- board offsets ---

nb::object chip_key(const char* prefix, nb::handle chip) { return py_format(prefix, chip); }

// The chip's {"CHANNEL_n": offset} mapping, from the table or the database.
nb::object stored_offsets(nb::handle self, nb::handle mode_name, nb::handle board, nb::handle chip_name) {
    if (uses_database(self))
        return getattr(database(self).attr(k_query)(pair_list(mode_name, chip_name), board), k_RetData);
    return getitem(getitem(getitem(table_of(self), board), mode_name), chip_name);
}

nb::list channel_offsets(nb::handle self, nb::handle by_channel) {
    Py_ssize_t channels = range_bound(getattr(self, a_num_channel_per_ic));
    nb::list offsets;
    for (Py_ssize_t ch = 1; ch <= channels; ++ch) {
        PyObject* key = PyUnicode_FromFormat("CHANNEL_%zd", ch);
        if (!key) raise_already_set();
        offsets.append(as_int(getitem(by_channel, nb::steal(key))));
    }
    return offsets;
}

// The cache level under `key`, created when missing.
nb::object cache_level(nb::handle parent, nb::handle key) {
    nb::object level = dict_get(parent, key);
    if (level.is_valid()) return level;
    nb::dict created;
    setitem(parent, key, created);
    return std::move(created);
}

// One board's offsets, from the cache or loaded into it. Callers get a copy, so
// changing a returned list cannot change later answers.
nb::object board_offsets(nb::handle self, nb::handle mode_cache, nb::handle mode_name, nb::handle board_number,
                         nb::handle chip_name) {
    nb::object board = board_key(board_number);
    nb::object board_cache = dict_get(mode_cache, board);
    nb::object cached = board_cache.is_valid() ? dict_get(board_cache, chip_name) : nb::object();
    if (!cached.is_valid()) {
        cached = channel_offsets(self, stored_offsets(self, mode_name, board, chip_name));
        setitem(cache_level(mode_cache, board), chip_name, cached);
    }
    return nb::steal(PySequence_List(cached.ptr()));
}

// One board number or an iterable of them.
nb::list board_numbers(nb::handle boards) {
    nb::list numbers;
    if (PyIndex_Check(boards.ptr())) {
        numbers.append(boards);
        return numbers;
    }
    for (nb::handle b : boards) numbers.append(b);
    return numbers;
}

}  // namespace

nb::list get_boards_offset(nb::handle self, nb::handle boards, nb::handle rf_mode_str, nb::handle chip) {
    nb::object cache = getattr(self, a_allOffset);
    if (cache.is_none()) {
        cache = nb::dict();
        setattr(self, a_allOffset, cache);
    }
    nb::object mode_cache = cache_level(cache, rf_mode_str);
    nb::object chip_name = chip_key("OFFSET_CHIP_%S", chip);
    nb::list result;
    for (nb::handle b : board_numbers(boards))
        result.append(board_offsets(self, mode_cache, rf_mode_str, b, chip_name));
    return result;
}

namespace {

// ------------------------------------------------------- common-arm steps ---

// The arm number of a "COM_n" key.
nb::object arm_number(nb::handle key) {
    nb::object digits = getitem(key.attr("rsplit")("_", 1), -1);
    PyObject* number = int_from_str(digits.ptr());
    if (!number) raise_already_set();
    return nb::steal(number);
}

}  // namespace

// Steps whose range [low, high] covers the whole request: low <= min and max <= high.
nb::list append_com_dict_to_list(nb::handle self, nb::handle com_dict, nb::handle min, nb::handle max) {
    nb::list arms;
    for (nb::handle key : com_dict) {
        nb::object range = getitem(com_dict, key);
        nb::object low = getitem(range, 0), high = getitem(range, 1);
        if (!compare(min, low, Py_LT) && !compare(high, max, Py_LT)) arms.append(arm_number(key));
    }
    return arms;
}

namespace {

// A board number from 1; 0 or less would silently pick boards from the end.
Py_ssize_t board_position(nb::handle board) {
    Py_ssize_t number = list_position(board);
    if (number < 1) raise(PyExc_IndexError, "board numbers start at 1");
    return number - 1;
}

}  // namespace

nb::list search_com_step_dr(nb::handle self, nb::handle board, nb::handle rf_mode_str, nb::handle min,
                            nb::handle max, nb::handle polar) {
    nb::object mode = getitem(RFMode(), rf_mode_str);
    nb::object per_board = getitem(ranges_of(self, k_COMSTEPDR), getattr(mode, k_value));
    nb::object steps = getitem(per_board, board_position(board));
    if (!polar.is_none()) {
        // Step ranges split by polarization: search the asked one.
        nb::object pol_name = getattr(polarizations()(polar), k_name);
        nb::object split = dict_get(steps, pol_name);
        if (split.is_valid()) steps = split;
    }
    return append_com_dict_to_list(self, steps, min, max);
}

namespace {

// ----------------------------------------------------------- common-arm data ---

// The chip's DATA mapping {"COM_n": {"TX_gain_phase": [values]}}, cached per board and chip.
nb::object chip_com_data(nb::handle self, nb::handle board_number, nb::handle chip) {
    nb::object board = board_key(board_number);
    nb::object chip_name = chip_key("DATA_CHIP_%S", chip);
    nb::object board_cache = cache_level(getattr(self, a_allComDataMap), board);
    nb::object data = dict_get(board_cache, chip_name);
    if (data.is_valid()) return data;
    data = uses_database(self) ? getattr(database(self).attr(k_query)(chip_name, board), k_RetData)
                               : getitem(getitem(table_of(self), board), chip_name);
    setitem(board_cache, chip_name, data);
    return data;
}

// mode + "_" + str(int(float(gain))) + "_" + str(phase): the key a DATA row is stored under.
nb::object data_entry_key(nb::handle mode, nb::handle gain, nb::handle phase) {
    PyObject* as_float = PyNumber_Float(gain.ptr());
    if (!as_float) raise_already_set();
    nb::object whole = as_int(nb::steal(as_float));
    PyObject* key = PyUnicode_FromFormat("%S_%S_%S", mode.ptr(), whole.ptr(), phase.ptr());
    if (!key) raise_already_set();
    return nb::steal(key);
}

Py_ssize_t channel_position(nb::handle channel) {
    Py_ssize_t number = list_position(channel);
    if (number < 1) raise(PyExc_IndexError, "channel numbers start at 1");
    return number - 1;
}

nb::list arm_values(nb::handle entries, nb::handle mode, nb::handle channel, nb::handle gain, nb::handle phase) {
    Py_ssize_t count = py_len(channel);
    nb::list values;
    for (Py_ssize_t i = 0; i < count; ++i) {
        nb::object key = data_entry_key(mode, getitem(gain, i), getitem(phase, i));
        values.append(getitem(getitem(entries, key), channel_position(getitem(channel, i))));
    }
    return values;
}

}  // namespace

nb::dict get_com_data(nb::handle self, nb::handle rf_mode_str, nb::handle board, nb::handle chip,
                      nb::handle channel, nb::handle gain, nb::handle phase, nb::handle com_list) {
    Py_ssize_t count = py_len(channel);
    if (py_len(gain) != count || py_len(phase) != count)
        raise(PyExc_ValueError, "channel, gain and phase must be lists of the same length");
    nb::object data = chip_com_data(self, board, chip);
    nb::dict result;
    for (nb::handle arm : com_list) {
        nb::object arm_name = py_format("COM_%S", arm);
        nb::object entries = dict_get(data, arm_name);
        if (!entries.is_valid()) continue;   // a step of another board's list
        setitem(result, arm_name, arm_values(entries, rf_mode_str, channel, gain, phase));
    }
    return result;
}

}  // namespace vex::tables::cali
