// BeamPatternTableManager batch access: the user interface's import and export of
// whole beam sets. A batch has the shape of the table's mode sections:
// {"TX": {"1": beam, ...}, "RX": {...}}; keys that are not RF mode names are skipped.
//
// _setBatchBeamPattern runs its flags in a fixed order: SAVE (apply every beam
// through setBeamPattern, then write the file), VALIDATE (check every beam of the
// batch through the hooks), GET (hand the batch back as the result's data).
#include "tables/beam_pattern_table_manager.h"
#include "py/capi.h"

#include <string>
#include <utility>

namespace vex::tables::beams {

using namespace vex::py;

namespace {

const Name g_BTModeFilter{"BTModeFilter"};
const Name g_BTSetOption{"BTSetOption"};
const Name k_members{"__members__"};
const Name k_items{"items"};

// Flag bits of BTModeFilter and BTSetOption.
constexpr long kTX = 1, kRX = 2;
constexpr long kValidate = 1, kGet = 2, kSave = 4, kReplaceAll = 8;

// The integer value of a flag argument, converted first with its enum (so 13 and
// BTSetOption.UI_SAVE_REPLACE are the same request).
long flag_bits(const Name& enum_name, nb::handle flag) {
    nb::object value = enum_fields(enum_member(global(enum_name), flag)).value;
    long bits = PyLong_AsLong(value.ptr());
    if (bits == -1 && PyErr_Occurred()) raise_already_set();
    return bits;
}

nb::object not_ready(const Log& log) {
    log.error(str("BeamTable is not ready"));
    return ret_error("ERROR_BF_BEAM", "BeamTable is not ready");
}

// --------------------------------------------------------------------- get

nb::object read_batch(nb::handle self, const Log& log, nb::handle mode_filter, nb::handle callback) {
    log.info("getBatchBeamPattern with filter: %s", mode_filter);
    long bits = flag_bits(g_BTModeFilter, mode_filter);
    if (!callback.is_none()) {
        // Web mode: the table comes fresh from the host through _load.
        log.info(str("calling _load()"));
        nb::object loaded = getattr(self, m_load)(getattr(self, a_freq), getattr(self, a_aakit), callback);
        if (ret_failed(loaded)) return loaded;
        setattr(self, a_table, getattr(loaded, k_RetData));
    }
    nb::object table = getattr(self, a_table);
    if (table.is_none()) return not_ready(log);
    nb::dict batch;   // the table's own sections, not copies
    nb::object modes = RFMode();
    static const Name k_TX{"TX"}, k_RX{"RX"};
    for (auto [bit, mode] : {std::pair{kTX, &k_TX}, std::pair{kRX, &k_RX}}) {
        if (!(bits & bit)) continue;
        nb::object name = enum_fields(getattr(modes, *mode)).name;
        setitem(batch, name, getitem(table, name));
    }
    return ret_data(batch);
}

// --------------------------------------------------------------------- set

bool is_steered(nb::handle beam_type) {
    int r = PyObject_RichCompareBool(beam_type.ptr(), BeamType().attr("BEAM").attr("value").ptr(), Py_EQ);
    if (r < 0) raise_already_set();
    return r == 1;
}

// Calls visit(mode member, mode name, beams) for every batch entry named after an
// RF mode, in the batch's order, until a visit ends the operation.
template <class F>
EarlyResult for_each_mode(nb::handle batch, F&& visit) {
    nb::object members = getattr(RFMode(), k_members);
    nb::object pairs = getattr(batch, k_items)();
    for (nb::handle pair : pairs) {
        nb::object name = getitem(pair, Py_ssize_t(0));
        int known = PySequence_Contains(members.ptr(), name.ptr());
        if (known < 0) raise_already_set();
        if (!known) continue;
        if (EarlyResult stop = visit(getitem(members, name), name, getitem(pair, Py_ssize_t(1)))) return stop;
    }
    return EarlyResult::go_on();
}

// Calls visit(beam id, beam) for every beam of a mode's batch entry, until a visit
// ends the operation.
template <class F>
EarlyResult for_each_beam(nb::handle beams, F&& visit) {
    nb::object pairs = getattr(beams, k_items)();
    for (nb::handle pair : pairs)
        if (EarlyResult stop = visit(getitem(pair, Py_ssize_t(0)), getitem(pair, Py_ssize_t(1)))) return stop;
    return EarlyResult::go_on();
}

nb::object beam_id_number(nb::handle beam_id) {
    PyObject* number = PyNumber_Long(beam_id.ptr());
    if (!number) raise_already_set();
    return nb::steal(number);
}

// Applies every beam through setBeamPattern without saving. With replace_all each
// mode named in the batch first gets a new, empty section, so beams absent from
// the batch are gone; the old section object stays intact for whoever still holds
// it (a batch read with _getBatchBeamPattern shares it). Ends the operation with
// the first set that fails.
EarlyResult apply_batch(nb::handle self, nb::handle table, nb::handle batch, bool replace_all) {
    nb::object set_beam = getattr(self, m_setBeamPattern);
    return for_each_mode(batch, [&](nb::handle mode, nb::handle name, nb::handle beams) {
        if (replace_all) setitem(table, name, nb::dict());
        return for_each_beam(beams, [&](nb::handle beam_id, nb::handle beam) {
            nb::object type = getitem(beam, k_beam_type);
            nb::object config = getitem(beam, is_steered(type) ? k_beam_config : k_channel_config);
            nb::object applied = set_beam(mode, beam_id_number(beam_id), type, config,
                                          getitem(beam, k_beam_description), nb::arg("save") = false);
            return EarlyResult::if_failed(applied);
        });
    });
}

// Writes the table after a batch was applied; web mode hands the whole table to
// the callback.
nb::object save_batch(nb::handle self, nb::handle table, nb::handle callback) {
    nb::object save = getattr(self, m_saveToBeamTableFile);
    nb::object saved = callback.is_none() ? save() : save(callback, nb::arg("new_table") = table);
    return saved;
}

// Checks every beam of the batch through the hooks, changing nothing. Ends the
// operation with the first check that fails.
EarlyResult validate_batch(nb::handle self, nb::handle batch) {
    return for_each_mode(batch, [&](nb::handle mode, nb::handle, nb::handle beams) {
        return for_each_beam(beams, [&](nb::handle, nb::handle beam) {
            nb::object checked;
            if (is_steered(getitem(beam, k_beam_type))) {
                nb::object steering = getitem(beam, k_beam_config);
                checked = check_steered_beam(self, mode, getitem(steering, k_db), getitem(steering, k_theta),
                                             getitem(steering, k_phi));
            } else {
                checked = validate_channel_config(self, beam, mode);
            }
            return EarlyResult::if_failed(checked);
        });
    });
}

nb::object write_batch(nb::handle self, const Log& log, nb::handle batch, nb::handle option, nb::handle callback) {
    log.info(str("setBatchBeamPattern with option: %s"), option);
    if (!is_mapping(batch))
        raise(PyExc_TypeError, std::string("batch_config must be a mapping, not ") + type_name_of(batch.ptr()));
    long bits = flag_bits(g_BTSetOption, option);
    nb::object data;
    if (bits & kSave) {
        nb::object table = getattr(self, a_table);
        if (table.is_none()) return not_ready(log);
        if (EarlyResult refused = apply_batch(self, table, batch, bits & kReplaceAll)) return refused.result();
        nb::object saved = save_batch(self, getattr(self, a_table), callback);
        if (ret_failed(saved)) return saved;
        data = getattr(self, a_table);
    }
    if (bits & kValidate) {
        if (EarlyResult refused = validate_batch(self, batch)) return refused.result();
    }
    if (bits & kGet) data = nb::borrow(batch);
    return data.is_valid() ? ret_data(data) : ret_ok();
}

}  // namespace

nb::object get_batch_beam_pattern(nb::handle self, nb::handle mode_filter, nb::handle callback) {
    Log log = logger_of(self, a_logger);
    return guard([&] { return read_batch(self, log, mode_filter, callback); },
                 [&](nb::handle) {
                     log.exception(str("GetBatchBeamPattern exception"));
                     return ret_error("ERROR_BF_BEAM", "GetBatchBeamPattern exception");
                 });
}

nb::object set_batch_beam_pattern(nb::handle self, nb::handle batch_config, nb::handle option,
                                  nb::handle callback) {
    Log log = logger_of(self, a_logger);
    return guard([&] { return write_batch(self, log, batch_config, option, callback); },
                 [&](nb::handle) {
                     log.exception(str("SetBatchBeamPattern exception"));
                     return ret_error("ERROR_BF_BEAM", "SetBatchBeamPattern exception");
                 });
}

}  // namespace vex::tables::beams
