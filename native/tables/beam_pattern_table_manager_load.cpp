// BeamPatternTableManager._load: finds (or creates) the table file of the current
// serial number, frequency and kit, reads it, converts files of the old list-based
// format (before "v1.1.0") and re-saves tables whose version is not the current one.
// In web mode the load is handed to the caller's callback instead.
#include "tables/beam_pattern_table_manager.h"
#include "py/capi.h"

#include "py/codecs.h"

#include <cmath>
#include <string>
#include <string_view>
#include <vector>

namespace vex::tables::beams {

using namespace vex::py;

namespace {

const Name g_BTField{"BTField"};

void delete_if_present(nb::handle mapping, const Name& key) {
    if (contains(mapping, key) && PyObject_DelItem(mapping.ptr(), key.ptr()) < 0) raise_already_set();
}

nb::object call_method(nb::handle obj, const char* name) { return obj.attr(name)(); }

// "Loading Beam Table by: 28.0GHz, AAKIT_NAME: 'MyKit'". Built even when info is
// off: a frequency that is not a number or a kit name that is not text fails the
// load here, before anything changes.
nb::object loading_message(nb::handle freq, nb::handle aakit) {
    PyObject* formatted = PyObject_Format(freq.ptr(), str("1.1f").ptr());
    if (!formatted) raise_already_set();
    nb::object text = concat(str("Loading Beam Table by: "), nb::steal(formatted));
    text = concat(concat(concat(text, str("GHz, AAKIT_NAME: '")), aakit), str("'"));
    return text;
}

// The frequency as it appears in a file name: 28.0 and 28 as "28", 28.5 as "28.5".
nb::object frequency_text(nb::handle freq) {
    PyObject* whole = PyNumber_Long(freq.ptr());
    if (!whole) raise_already_set();
    nb::object as_int = nb::steal(whole);
    return compare(freq, as_int, Py_EQ) ? py_str(as_int) : py_str(freq);
}

// A kit or serial number holding a path separator would put the file outside
// the BeamTable folder; such a name is refused.
void refuse_unsafe_file_name(nb::handle file_name) {
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(file_name.ptr(), &size);
    if (!utf8) raise_already_set();
    std::string_view name(utf8, static_cast<size_t>(size));
    if (name.find_first_of(std::string_view("/\\\0", 3)) != std::string_view::npos)
        raise(PyExc_ValueError, "beam table file name " + std::string(name) +
                                    " holds a path separator; it would lie outside the BeamTable folder");
}

// "Beam_Configuration_" + sn + "_" + frequency + "GHz" + ("_" + kit when a kit is set) + ".json"
nb::object table_file_name(nb::handle sn, nb::handle freq, nb::handle aakit) {
    nb::object name = concat(concat(str("Beam_Configuration_"), sn), str("_"));
    name = concat(concat(name, frequency_text(freq)), str("GHz"));
    if (truthy(aakit)) name = concat(concat(name, str("_")), aakit);
    name = concat(name, str(".json"));
    refuse_unsafe_file_name(name);
    return name;
}

nb::object forward_load_to_callback(nb::handle self, nb::handle callback, nb::handle freq, nb::handle aakit) {
    nb::object layout = nb::make_tuple(getattr(self, a_num_board), getattr(self, a_num_ic_per_board),
                                       getattr(self, a_num_channel_per_ic));
    return nb::borrow(callback)(nb::arg("func_name") = "_load", nb::arg("freq") = freq, nb::arg("aakit") = aakit,
                                nb::arg("devtype") = getattr(self, a_devtype),
                                nb::arg("num_beam") = getattr(self, a_num_beam), nb::arg("rf_layout") = layout,
                                nb::arg("check_funcs") = nb::none(), nb::arg("web_client_id") = nb::none());
}

// A missing table file is created with default (empty) content; its folder first.
void ensure_table_file(nb::handle self, nb::handle path) {
    if (truthy(call_method(path, "exists"))) return;
    nb::object folder = getattr(self, a_default_dir);
    if (!truthy(call_method(folder, "is_dir")))
        folder.attr("mkdir")(nb::arg("parents") = true, nb::arg("exist_ok") = true);
    // A failure here is logged and reported by the generator itself; reading the
    // file below then fails with the loading error.
    generate_default_beam_table_file(self);
}

// "VERSION", or the old files' lower-case "version".
nb::object read_version(const Log& log, nb::handle table) {
    nb::object version = contains(table, k_VERSION) ? getitem(table, k_VERSION) : getitem(table, k_version);
    log.info(str("Beam Table version: %s"), version);
    return version;
}

// ------------------------------------------------------ old-format conversion

std::vector<Mode> rf_modes() {
    std::vector<Mode> modes;
    for (nb::handle member : RFMode()) {
        Mode m;
        m.member = nb::borrow(member);
        m.name = getattr(member, k_name);
        m.value = getattr(member, k_value);
        modes.push_back(std::move(m));
    }
    return modes;
}

nb::object list_key(const Mode& mode) { return concat(mode.name, str("_beam_list")); }

// Old beams kept their steering in "db"/"theta"/"phi" beside the channel list.
// With a kit set they all become steered beams; the old fields go in any case.
void move_old_steering(nb::handle beam, bool has_kit) {
    if (has_kit) {
        setitem(beam, k_beam_type, BeamType().attr("BEAM").attr("value"));
        nb::dict steering;
        steering[k_db.handle()] = getitem(beam, k_db);
        steering[k_theta.handle()] = getitem(beam, k_theta);
        steering[k_phi.handle()] = getitem(beam, k_phi);
        setitem(beam, k_beam_config, steering);
    }
    for (const Name* key : {&k_db, &k_theta, &k_phi, &k_channel_switch}) delete_if_present(beam, *key);
}

void set_current_header(nb::handle self, nb::handle table) {
    delete_if_present(table, k_version);
    setitem(table, k_VERSION, current_version_word());
    setitem(table, k_DEV_TYPE, getattr(self, a_devtype));
    setitem(table, k_FREQ, getattr(self, a_freq));
    setitem(table, k_AAKIT_NAME, getattr(self, a_aakit));
}

// The default beams of a mode, generated (and so checked against the limits) and
// shown in the debug log as a reference for the converted beams.
void log_default_beams(nb::handle self, const Log& log, const Mode& mode) {
    nb::dict steered, channel;
    fill_default_beam(self, steered, BeamType().attr("BEAM"), mode);
    fill_default_beam(self, channel, BeamType().attr("CHANNEL"), mode);
    if (!log.on(DEBUG)) return;
    log.debug(nb::steal(PyUnicode_FromFormat("[%S] Default beam config: %S", mode.name.ptr(), steered.ptr())));
    log.debug(nb::steal(PyUnicode_FromFormat("[%S] Default channel config: %S", mode.name.ptr(), channel.ptr())));
}

// The channel number of an old channel entry, when it is a whole number (only
// those can equal a channel sequence number).
bool channel_number(nb::handle value, Py_ssize_t& number) {
    if (PyLong_Check(value.ptr())) {
        int overflow = 0;
        long long n = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
        if (n == -1 && PyErr_Occurred()) raise_already_set();
        if (overflow) return false;
        number = static_cast<Py_ssize_t>(n);
        return true;
    }
    if (PyFloat_Check(value.ptr())) {
        double d = float_value(value.ptr());
        // Only a whole number within reach of a channel count can be one (and
        // only such a number converts to an integer without undefined behaviour).
        if (!(std::fabs(d) < 0x1p62) || d != std::trunc(d)) return false;
        number = static_cast<Py_ssize_t>(d);
        return true;
    }
    return false;
}

// Old channel entries by their "channel" sequence number (1 ... total); the first
// entry wins where numbers repeat. One pass instead of a search per channel.
std::vector<nb::object> index_old_channels(nb::handle channels, Py_ssize_t total) {
    std::vector<nb::object> by_number(static_cast<size_t>(total) + 1);
    for (nb::handle entry : channels) {
        Py_ssize_t number = 0;
        if (!channel_number(getitem(entry, k_channel), number)) continue;
        if (number >= 1 && number <= total && !by_number[number].is_valid()) by_number[number] = nb::borrow(entry);
    }
    return by_number;
}

nb::object smaller(nb::handle a, nb::handle b) { return nb::borrow(compare(b, a, Py_LT) ? b : a); }

nb::object file_error(const Log& log, nb::handle message) {
    log.error(message);
    return ret_error("ERROR_BF_BEAM_FILE", message);
}

// Builds "channel_config" from an old per-channel list: boards of channels_per_ic
// channels with a null "common_db" (left for the user to fill), each channel's
// gain capped at the board's COMDR + ELEDR. Ends the load with the error result
// of a list that does not fit the layout.
EarlyResult convert_channel_list(nb::handle self, const Log& log, const Mode& mode, nb::handle beam_id,
                                 nb::handle channels, nb::handle entry) {
    Layout layout = read_layout(self);
    Py_ssize_t count = py_len(channels);
    if (count != layout.total_channels) {
        nb::object message = nb::steal(PyUnicode_FromFormat(
            "%S BeamID:%S: count of channel_config(%zd) not match with channel count(%S)", mode.name.ptr(),
            py_str(beam_id).ptr(), count, py_str(getattr(self, a_total_ch)).ptr()));
        return EarlyResult::end_with(file_error(log, message));
    }
    std::vector<nb::object> by_number = index_old_channels(channels, layout.total_channels);
    nb::dict config;
    setitem(entry, k_channel_config, config);
    const Py_ssize_t n = layout.channels_per_ic;
    nb::object board, cap;
    Py_ssize_t board_number = 0;
    for (Py_ssize_t ch = 1; ch <= layout.total_channels; ++ch) {
        nb::handle old = by_number[ch];
        if (!old.is_valid()) {
            nb::object number = nb::int_(ch);
            log.error(str("Can not find channel seq: %d"), number);
            return EarlyResult::end_with(
                ret_error("ERROR_BF_BEAM_FILE", percent("Can not find channel seq: %d", number)));
        }
        if (py_mod(ch, n) == 1) {
            board_number = static_cast<Py_ssize_t>(static_cast<double>(ch) / static_cast<double>(n)) + 1;
            board = nb::dict();
            setitem(board, k_common_db, nb::none());
            nb::object index = nb::int_(board_number - 1);
            cap = concat(getitem(getitem(getattr(self, a_COMDR), mode.value), index),
                         getitem(getitem(getattr(self, a_ELEDR), mode.value), index));
        }
        if (!board.is_valid())
            raise(PyExc_UnboundLocalError,
                  "cannot access local variable 'board' where it is not associated with a value");
        nb::dict channel;
        channel[k_sw.handle()] = getitem(old, k_sw);
        channel[k_db.handle()] = smaller(getitem(old, k_db), cap);
        channel[k_deg.handle()] = getitem(old, k_deg);
        setitem(board, channel_key(py_mod(ch - 1, n) + 1), channel);
        if (py_mod(ch, n) == 0) setitem(config, board_key(board_number), board);
    }
    return EarlyResult::go_on();
}

// One old beam into the new shape, or the error result that ends the load. Beams
// without a type are left out.
EarlyResult convert_old_beam(nb::handle self, const Log& log, const Mode& mode, nb::handle section,
                             nb::handle old) {
    nb::object beam_id = getitem(old, k_beamId);
    nb::object type = dict_get(old, k_beam_type);
    if (!type.is_valid() || type.is_none()) return EarlyResult::go_on();
    nb::dict entry;
    entry[k_beam_description.handle()] = str("");
    entry[k_beam_type.handle()] = type;
    if (compare(type, BeamType().attr("BEAM").attr("value"), Py_EQ)) {
        entry[k_beam_config.handle()] = getitem(old, k_beam_config);
    } else {
        nb::object channels = getitem(old, k_channel_config);
        if (EarlyResult failed = convert_channel_list(self, log, mode, beam_id, channels, entry)) return failed;
    }
    if (log.on(DEBUG))
        log.debug(nb::steal(PyUnicode_FromFormat("Transfer config: [%S][%S] %S", mode.name.ptr(),
                                                 py_str(beam_id).ptr(), entry.ptr())));
    setitem(section, py_str(beam_id), entry);
    return EarlyResult::go_on();
}

// Converts a table of the old list-based format in place, or ends the load with
// the error result of a beam that cannot be converted (the table is then partly
// converted).
EarlyResult convert_old_table(nb::handle self, const Log& log, nb::handle table) {
    std::vector<Mode> modes = rf_modes();
    bool has_kit = truthy(getattr(self, a_aakit));
    for (const Mode& mode : modes)
        for (nb::handle beam : getitem(table, list_key(mode))) move_old_steering(beam, has_kit);
    set_current_header(self, table);
    for (const Mode& mode : modes) {
        nb::object key = list_key(mode);
        nb::object old_beams = getitem(table, key);
        nb::dict section;
        setitem(table, mode.name, section);
        if (PyObject_DelItem(table.ptr(), key.ptr()) < 0) raise_already_set();
        log_default_beams(self, log, mode);
        for (nb::handle old : old_beams)
            if (EarlyResult failed = convert_old_beam(self, log, mode, section, old)) return failed;
    }
    return EarlyResult::go_on();
}

nb::object load_table(nb::handle self, const Log& log, nb::handle freq, nb::handle aakit, nb::handle callback) {
    log.info(loading_message(freq, aakit));
    setattr(self, a_table, nb::none());
    setattr(self, a_freq, freq);
    setattr(self, a_aakit, aakit);
    if (truthy(getattr(self, a_web_mode))) return forward_load_to_callback(self, callback, freq, aakit);

    nb::object file_name = table_file_name(getattr(self, a_sn), freq, aakit);
    PyObject* joined = PyNumber_TrueDivide(getattr(self, a_default_dir).ptr(), file_name.ptr());
    if (!joined) raise_already_set();
    nb::object path = nb::steal(joined);
    setattr(self, a_path, path);
    ensure_table_file(self, path);

    GcPause pause;   // decoding and converting build the whole table
    nb::object table = load_json_file(path);
    setattr(self, a_table, table);
    nb::object version = read_version(log, table);
    if (compare(version, str("v1.1.0"), Py_LT)) {
        if (EarlyResult failed = convert_old_table(self, log, table)) return failed.result();
    }
    pause.finish_collecting_young();
    log.info(str("Loaded Beam Table from: %s"), path);
    if (compare(version, current_version_word(), Py_NE)) {
        // Tables between v1.1.0 and the current version keep their own VERSION
        // word: only the old-format conversion rewrites it.
        log.info(str("Upgrade Beam Table version to %s"), global(g_BTField).attr("_version").attr("value"));
        getattr(self, m_saveToBeamTableFile)();
    }
    return ret_code_data("OK", getattr(self, a_table));
}

}  // namespace

nb::object load(nb::handle self, nb::handle freq, nb::handle aakit, nb::handle callback) {
    Log log = logger_of(self, a_logger);
    return guard([&] { return load_table(self, log, freq, aakit, callback); },
                 [&](nb::handle) {
                     log.exception(str("BeamTable loading exception"));
                     return ret_error("ERROR_BF_BEAM", "BeamTable loading exception");
                 });
}

}  // namespace vex::tables::beams
