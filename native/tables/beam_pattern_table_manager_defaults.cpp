// BeamPatternTableManager: default beams and the default (empty) table.
//
// A default channel beam is what every unset beam id reads as, so it is built on
// each such read: 1024 channels make 1024 channel mappings and 256 board mappings.
// It is built here natively with interned keys and pre-sized dicts, and the gain
// limit objects are shared into the beam as they are (no conversion).
#include "tables/beam_pattern_table_manager.h"
#include "py/capi.h"

#include <algorithm>
#include <string>

namespace vex::tables::beams {

using namespace vex::py;

namespace {

// limits[index] with Python's indexing, fast for the usual list.
nb::object limit_at(nb::handle limits, Py_ssize_t index) {
    PyObject* seq = limits.ptr();
    if (PyList_CheckExact(seq) && index >= 0 && index < list_size(seq)) return nb::borrow(list_item(seq, index));
    nb::object key = nb::steal(PyLong_FromSsize_t(index));
    if (!key.is_valid()) raise_already_set();
    return getitem(limits, key);
}

// Sizes are only hints, capped so that a huge layout number asks for nothing
// unreasonable (a dict grows as needed).
constexpr Py_ssize_t kLargestSizeHint = 1 << 16;

// A dict sized for `size` items.
nb::object new_dict(Py_ssize_t size) {
    PyObject* d = new_dict_presized(std::min(size, kLargestSizeHint));
    if (!d) raise_already_set();
    return nb::steal(d);
}

void put(nb::handle dict, nb::handle key, nb::handle value) {
    if (PyDict_SetItem(dict.ptr(), key.ptr(), value.ptr()) < 0) raise_already_set();
}

// {"sw": 0, "db": gain, "deg": 0}: a channel switched on at `gain`, phase 0.
nb::object default_channel(nb::handle gain) {
    nb::object zero = nb::int_(0);
    nb::object channel = new_dict(3);
    put(channel, k_sw, zero);
    put(channel, k_db, gain);
    put(channel, k_deg, zero);
    return channel;
}

nb::object copy_dict(nb::handle dict) {
    PyObject* d = PyDict_Copy(dict.ptr());
    if (!d) raise_already_set();
    return nb::steal(d);
}

// plan[key] when `plan` is a plain dict holding it, else an invalid object.
nb::object planned_item(nb::handle plan, nb::handle key) {
    if (!plan.is_valid() || !PyDict_CheckExact(plan.ptr())) return nb::object();
    PyObject* item = PyDict_GetItemWithError(plan.ptr(), key.ptr());
    if (!item) PyErr_Clear();
    return item ? nb::borrow(item) : nb::object();
}

// Fills `config` by walking channels 1 ... total: a channel whose number modulo
// the channels per IC is 1 starts a board (common gain = that board's COMDR), each
// channel gets the board's ELEDR, and a channel whose number modulo the channels
// per IC is 0 completes the board. Boards are thus groups of channels_per_ic
// channels; with one channel per IC no board is ever started, and the first
// channel fails as it has no board to go into.
void fill_channel_config(nb::handle config, const Layout& layout, nb::handle self, const Mode& mode,
                         const DefaultUse& use) {
    const Py_ssize_t n = layout.channels_per_ic;
    nb::object comdr, eledr;   // this mode's per-board limits, read when first needed
    nb::object board, board_gain, template_channel, planned_board;
    Py_ssize_t board_number = 0;
    bool started = false;
    for (Py_ssize_t ch = 1; ch <= layout.total_channels; ++ch) {
        Py_ssize_t position = py_mod(ch, n);
        if (position == 1) {
            board_number = static_cast<Py_ssize_t>(static_cast<double>(ch) / static_cast<double>(n)) + 1;
            if (!comdr.is_valid()) comdr = getitem(getattr(self, a_COMDR), mode.value);
            nb::object common = limit_at(comdr, board_number - 1);
            started = true;
            board_gain = template_channel = nb::object();
            if (use.channels) {
                board = new_dict(std::min(n, kLargestSizeHint) + 1);   // common_db and n channels
                put(board, k_common_db, common);
                planned_board = planned_item(use.planned, board_key(board_number));
                if (planned_board.is_valid() && !PyDict_CheckExact(planned_board.ptr()))
                    planned_board = nb::object();
            }
        }
        if (!started)
            raise(PyExc_UnboundLocalError,
                  "cannot access local variable 'board' where it is not associated with a value");
        if (!board_gain.is_valid()) {
            if (!eledr.is_valid()) eledr = getitem(getattr(self, a_ELEDR), mode.value);
            board_gain = limit_at(eledr, board_number - 1);
        }
        if (!use.channels) continue;
        nb::object key = channel_key(py_mod(ch - 1, n) + 1);
        nb::object channel = planned_item(planned_board, key);
        if (!channel.is_valid()) {
            // Channels of one board are alike: copying the first is cheaper than
            // building each anew.
            channel = template_channel.is_valid() ? copy_dict(template_channel) : default_channel(board_gain);
            if (!template_channel.is_valid()) template_channel = channel;
        }
        put(board, key, channel);
        if (position == 0) setitem(config, board_key(board_number), board);
    }
}

// {"db": DR[mode name], "theta": 0, "phi": 0}: boresight at the mode's gain.
nb::object default_beam_config(nb::handle self, const Mode& mode) {
    nb::object zero = nb::int_(0);
    nb::object config = new_dict(3);
    put(config, k_db, getitem(getattr(self, a_DR), mode.name));
    put(config, k_theta, zero);
    put(config, k_phi, zero);
    return config;
}

}  // namespace

nb::object default_channel_config(nb::handle self, const Mode& mode) {
    Layout layout = read_layout(self);
    nb::object config = new_dict(layout.channels_per_ic > 0 ? layout.total_channels / layout.channels_per_ic : 0);
    fill_channel_config(config, layout, self, mode, DefaultUse());
    return config;
}

void fill_default_beam(nb::handle self, nb::handle beam, nb::handle beam_type, const Mode& mode,
                       const DefaultUse& use) {
    setitem(beam, k_beam_description, str(""));
    setitem(beam, k_beam_type, getattr(beam_type, k_value));
    int steered = PyObject_RichCompareBool(beam_type.ptr(), BeamType().attr("BEAM").ptr(), Py_EQ);
    if (steered < 0) raise_already_set();
    if (steered) {
        setitem(beam, k_beam_config, default_beam_config(self, mode));
        return;
    }
    Layout layout = read_layout(self);
    nb::object config = new_dict(layout.channels_per_ic > 0 ? layout.total_channels / layout.channels_per_ic : 0);
    setitem(beam, k_channel_config, config);
    fill_channel_config(config, layout, self, mode, use);
}

void generate_default_beam(nb::handle self, nb::handle beam, nb::handle beam_type, nb::handle mode) {
    if (!is_mapping(beam))
        raise(PyExc_TypeError, std::string("beam must be a mapping, not ") + type_name_of(beam.ptr()));
    Mode m = to_mode(mode);
    fill_default_beam(self, beam, to_beam_type(beam_type), m);
}

// ------------------------------------------------------------ default table

namespace {

// VERSION, SN, DEV_TYPE, FREQ, AAKIT_NAME, then an empty section per RF mode.
nb::object new_table(nb::handle self) {
    nb::dict table;
    table[k_VERSION.handle()] = current_version_word();
    table[k_SN.handle()] = getattr(self, a_sn);
    table[k_DEV_TYPE.handle()] = getattr(self, a_devtype);
    table[k_FREQ.handle()] = getattr(self, a_freq);
    table[k_AAKIT_NAME.handle()] = getattr(self, a_aakit);
    for (nb::handle mode : RFMode()) table[getattr(mode, k_name)] = nb::dict();
    return std::move(table);
}

}  // namespace

nb::object generate_default_beam_table_file(nb::handle self) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&] {
            log.info(str("Generate Beam Table: %s"), getattr(self, a_path));
            setattr(self, a_table, new_table(self));
            getattr(self, m_saveToBeamTableFile)();
            return ret_data(getattr(self, a_table));
        },
        [&](nb::handle) {
            log.exception(str("BeamTable generating exception"));
            return ret_error("ERROR_BF_BEAM", "BeamTable generating exception");
        });
}

}  // namespace vex::tables::beams
