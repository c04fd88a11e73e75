// BeamPatternTableManager: the table of user-defined beams of one device, frequency
// and antenna kit. This file holds construction, the setters the driver calls on a
// frequency or kit change, single beam get/set with validation through the driver's
// check hooks, and the class definition. Defaults, saving, loading, and batch
// access live in the sibling beam_pattern_table_manager_*.cpp files.
#include "tables/beam_pattern_table_manager.h"
#include "py/capi.h"

#include "tables/tables.h"

namespace vex::tables::beams {

using namespace vex::py;

namespace {
const Name g_Path{"Path"};
const Name g_Utils{"_Utils"};
const Name g_BTField{"BTField"};
const Name k_BeamTable_dir{"BeamTable"};

// "board_<i>" and "channel_<i>" keys, interned once and kept for the life of the
// process: every table uses the same few hundred keys over and over.
class IndexedKeys {
public:
    explicit IndexedKeys(const char* prefix) : prefix_(prefix) {}

    nb::object get(Py_ssize_t index) {
        if (index < 0 || index > kMaxCached) return make(index);
        if (static_cast<size_t>(index) >= keys_.size()) keys_.resize(index + 1);
        if (!keys_[index].is_valid()) keys_[index] = make(index);
        return keys_[index];
    }

private:
    static constexpr Py_ssize_t kMaxCached = 1 << 16;   // far beyond any real layout

    nb::object make(Py_ssize_t index) const {
        PyObject* key = PyUnicode_FromFormat("%s%zd", prefix_, index);
        if (!key) raise_already_set();
        PyUnicode_InternInPlace(&key);
        return nb::steal(key);
    }

    const char* prefix_;
    std::vector<nb::object> keys_;
};

// Leaked on purpose: the keys must outlive every table, and Python objects must
// not be released after the interpreter has gone.
IndexedKeys& board_keys() {
    static IndexedKeys* keys = new IndexedKeys("board_");
    return *keys;
}

IndexedKeys& channel_keys() {
    static IndexedKeys* keys = new IndexedKeys("channel_");
    return *keys;
}
}  // namespace

// ------------------------------------------------------------- helpers ----

nb::object board_key(Py_ssize_t index) { return board_keys().get(index); }

nb::object channel_key(Py_ssize_t index) { return channel_keys().get(index); }

nb::object current_version_word() {
    nb::object version = global(g_BTField).attr("_version").attr("value");
    return concat(str("v"), version);
}

Layout read_layout(nb::handle self) {
    Layout layout;
    layout.boards = range_bound(getattr(self, a_num_board));
    layout.channels_per_ic = range_bound(getattr(self, a_num_channel_per_ic));
    layout.total_channels = range_bound(getattr(self, a_total_ch));
    return layout;
}

Mode to_mode(nb::handle mode) { return enum_fields(enum_member(RFMode(), mode)); }

nb::object to_beam_type(nb::handle beam_type) { return enum_member(BeamType(), beam_type); }

bool is_mapping(nb::handle value) {
    if (PyDict_Check(value.ptr())) return true;
    nb::object mapping = nb::module_::import_("collections.abc").attr("Mapping");
    return is_instance(value, mapping.ptr());
}

Py_ssize_t py_mod(Py_ssize_t a, Py_ssize_t n) {
    if (n == 0) raise(PyExc_ZeroDivisionError, "integer modulo by zero");
    Py_ssize_t r = a % n;
    return (r != 0 && ((r < 0) != (n < 0))) ? r + n : r;
}

namespace {

void delitem(nb::handle container, const Name& key) {
    if (PyObject_DelItem(container.ptr(), key.ptr()) < 0) raise_already_set();
}

// mapping[key], or an invalid object when the key is absent.
nb::object lookup(nb::handle mapping, nb::handle key) {
    if (PyDict_Check(mapping.ptr())) {
        PyObject* v = PyDict_GetItemWithError(mapping.ptr(), key.ptr());
        if (v) return nb::borrow(v);
        if (PyErr_Occurred()) raise_already_set();
        return nb::object();
    }
    int present = PySequence_Contains(mapping.ptr(), key.ptr());
    if (present < 0) raise_already_set();
    return present ? getitem(mapping, key) : nb::object();
}

// The items of a mapping in iteration order, as `for k, v in mapping.items()`
// gives them: a plain dict is walked directly, any other mapping through its
// items(). A dict that changes size meanwhile raises RuntimeError, as in Python.
template <class F>
void for_each_item(nb::handle mapping, F&& visit) {
    if (PyDict_CheckExact(mapping.ptr())) {
        nb::object keep = nb::borrow(mapping);   // the visitor may drop other references
        const Py_ssize_t size = dict_size(mapping.ptr());
        Py_ssize_t pos = 0;
        PyObject *k, *v;
        while (PyDict_Next(mapping.ptr(), &pos, &k, &v)) {
            nb::object key = nb::borrow(k), value = nb::borrow(v);
            visit(key, value);
            if (dict_size(mapping.ptr()) != size)
                raise(PyExc_RuntimeError, "dictionary changed size during iteration");
        }
        return;
    }
    static const Name k_items{"items"};
    nb::object view = getattr(mapping, k_items)();
    for (nb::handle pair : view) {
        nb::object key = getitem(pair, Py_ssize_t(0));
        nb::object value = getitem(pair, Py_ssize_t(1));
        visit(key, value);
    }
}

nb::object error_result(const char* message) { return ret_error("ERROR_BF_BEAM", message); }

}  // namespace

// ------------------------------------------------------------ validation ---

namespace {

// The "db" of channel_1 ... channel_<n> of one board, in channel order. The list
// of a real layout is sized once; one of a huge channel count grows as channels
// are found, so it fails at the first one missing as the loop over range() does,
// and a negative count gives an empty list.
nb::list board_gains(nb::handle board, Py_ssize_t channels) {
    constexpr Py_ssize_t kLargestPresized = 1 << 16;
    if (channels > kLargestPresized) {
        nb::list gains;
        for (Py_ssize_t c = 0; c < channels; ++c) gains.append(getitem(getitem(board, channel_key(c + 1)), k_db));
        return gains;
    }
    nb::list gains = nb::steal<nb::list>(PyList_New(channels > 0 ? channels : 0));
    for (Py_ssize_t c = 0; c < channels; ++c) {
        nb::object channel = getitem(board, channel_key(c + 1));
        list_fill(gains.ptr(), c, getitem(channel, k_db).release().ptr());
    }
    return gains;
}

nb::object call_hook(nb::handle hook, std::initializer_list<nb::handle> args) {
    PyObject* argv[5];
    size_t n = 0;
    for (nb::handle a : args) argv[n++] = a.ptr();
    PyObject* r = PyObject_Vectorcall(hook.ptr(), argv, n, nullptr);
    if (!r) raise_already_set();
    return nb::steal(r);
}

}  // namespace

nb::object validate_channel_config(nb::handle self, nb::handle beam, nb::handle mode) {
    Layout layout = read_layout(self);
    nb::object ok = RetCode("OK");
    nb::object hook = getattr(self, a_ic_gain_check);
    Log log = logger_of(self, a_logger);
    bool debug = log.on(DEBUG);
    nb::object channel_config = getitem(beam, k_channel_config);
    for (Py_ssize_t b = 0; b < layout.boards; ++b) {
        nb::object board = getitem(channel_config, board_key(b + 1));
        nb::object common = getitem(board, k_common_db);
        nb::list gains = board_gains(board, layout.channels_per_ic);
        if (debug)
            log.debug(nb::steal(PyUnicode_FromFormat("Checking board_%zd gain list: %S with common gain: %S",
                                                     b + 1, gains.ptr(), common.ptr())));
        nb::object checked = call_hook(hook, {mode, nb::int_(b), gains, common});
        if (ret_failed(checked, ok)) {
            nb::object message = percent("Checking board_%d gain list failed", nb::int_(b + 1));
            log.error(message);
            return ret_error("ERROR_BF_BEAM", message);
        }
        if (debug)
            log.debug(nb::steal(PyUnicode_FromFormat("Checked  board_%zd gain list: %S", b + 1, gains.ptr())));
    }
    return ret_ok();
}

nb::object check_steered_beam(nb::handle self, nb::handle mode, nb::handle db, nb::handle theta, nb::handle phi) {
    nb::object hook = getattr(self, a_beam_check);
    return call_hook(hook, {mode, db, theta, phi, nb::none()});
}

// ------------------------------------------------------------- construction

namespace {

void set(nb::handle self, const Name& name, nb::handle value) { setattr(self, name, value); }

nb::object default_dir() {
    nb::object files = global(g_Utils).attr("_get_files_dir")();
    PyObject* dir = PyNumber_TrueDivide(global(g_Path)(files).ptr(), k_BeamTable_dir.ptr());
    if (!dir) raise_already_set();
    return nb::steal(dir);
}

void set_layout(nb::handle self, nb::handle rf_layout) {
    nb::object layout = PyCallable_Check(rf_layout.ptr()) ? rf_layout() : nb::borrow(rf_layout);
    const std::array<nb::object, 3> numbers = unpack_three(layout);
    set(self, a_num_board, numbers[0]);
    set(self, a_num_ic_per_board, numbers[1]);
    set(self, a_num_channel_per_ic, numbers[2]);
    PyObject* partial = PyNumber_Multiply(numbers[0].ptr(), numbers[1].ptr());
    if (!partial) raise_already_set();
    PyObject* total = PyNumber_Multiply(partial, numbers[2].ptr());
    Py_DECREF(partial);
    if (!total) raise_already_set();
    set(self, a_total_ch, nb::steal(total));
}

void init(nb::handle self, nb::handle sn, nb::handle devtype, nb::handle num_beam, nb::handle rf_layout,
          nb::handle check_funcs, nb::handle web_client_id) {
    set(self, a_logger, Log::named("BeamTbl").logger());
    bool web_mode = !web_client_id.is_none();
    set(self, a_web_mode, nb::bool_(web_mode));
    set(self, a_beam_check, nb::none());
    set(self, a_ic_gain_check, nb::none());
    if (!check_funcs.is_none()) {
        set(self, a_beam_check, getitem(check_funcs, Py_ssize_t(0)));
        set(self, a_ic_gain_check, getitem(check_funcs, Py_ssize_t(1)));
    }
    if (!web_mode) {
        set(self, a_default_dir, default_dir());
        set(self, a_path, str(""));
    }
    set(self, a_sn, sn);
    set(self, a_devtype, devtype);
    set(self, a_num_beam, num_beam);
    set(self, a_freq, nb::none());
    set(self, a_DR, nb::dict());
    set(self, a_COMDR, nb::dict());
    set(self, a_ELEDR, nb::dict());
    set(self, a_aakit, str(""));
    set_layout(self, rf_layout);
    set(self, a_table, nb::none());
}

void update_freq(nb::handle self, nb::handle freq, nb::handle DR, nb::handle comDR, nb::handle eleDR) {
    set(self, a_freq, freq);
    set(self, a_DR, DR);
    set(self, a_COMDR, comDR);
    set(self, a_ELEDR, eleDR);
}

void update_aakit(nb::handle self, nb::handle kit_name) { set(self, a_aakit, kit_name); }

// ------------------------------------------------------------ single get ---

nb::object get_beam_id_storage(nb::handle self) { return ret_data(getattr(self, a_num_beam)); }

bool is_valid_beam_id(nb::handle beam_id, nb::handle num_beam) {
    if (PyLong_CheckExact(beam_id.ptr()) && PyLong_CheckExact(num_beam.ptr())) {
        int overflow = 0;
        long long id = PyLong_AsLongLongAndOverflow(beam_id.ptr(), &overflow);
        long long last = overflow ? 0 : PyLong_AsLongLong(num_beam.ptr());
        if (!overflow && !PyErr_Occurred()) return 1 <= id && id <= last;
        PyErr_Clear();
    }
    return compare(nb::int_(1), beam_id, Py_LE) && compare(beam_id, num_beam, Py_LE);
}

// The kind and configuration a set is about to give a beam.
struct SetPlan {
    nb::handle beam_type;
    nb::handle config;
};

// What a set needs of an unset id's default: the channels the configuration
// does not replace, or none when the beam becomes a steered beam. A type that
// does not convert gets the full default here and fails where the set converts it.
DefaultUse default_use_for(const SetPlan* plan) {
    DefaultUse use;
    if (!plan) return use;
    nb::object converted;
    try {
        converted = to_beam_type(plan->beam_type);
    } catch (nb::python_error& e) {
        if (!e.matches(PyExc_Exception)) throw;
        return use;   // the set converts the type again and reports the failure
    }
    if (compare(converted, BeamType().attr("BEAM"), Py_EQ))
        use.channels = false;
    else if (PyDict_CheckExact(plan->config.ptr()))
        use.planned = plan->config;
    return use;
}

nb::object read_beam(nb::handle self, const Log& log, nb::handle mode, nb::handle beam_id, const SetPlan* plan) {
    nb::object table = getattr(self, a_table);
    if (table.is_none()) {
        log.error(str("BeamTable is not ready"));
        return error_result("BeamTable is not ready");
    }
    Mode m = to_mode(mode);
    nb::object section = getitem(table, m.name);
    if (!is_valid_beam_id(beam_id, getattr(self, a_num_beam))) {
        nb::object message = percent("Invaid beam id: %d", nb::make_tuple(beam_id));
        log.error(message);
        return ret_error("ERROR_BF_BEAM", message);
    }
    nb::object beam = lookup(section, py_str(beam_id));
    if (!beam.is_valid()) {
        // An id never set reads as the default channel beam of the current limits;
        // it is not stored, so defaults always follow the limits.
        beam = nb::dict();
        fill_default_beam(self, beam, BeamType().attr("CHANNEL"), m, default_use_for(plan));
    }
    return ret_data(beam);
}

nb::object read_beam_guarded(nb::handle self, const Log& log, nb::handle mode, nb::handle beam_id,
                             const SetPlan* plan) {
    return guard([&] { return read_beam(self, log, mode, beam_id, plan); },
                 [&](nb::handle) {
                     log.exception(str("GetBeamPattern exception"));
                     return error_result("GetBeamPattern exception");
                 });
}

nb::object get_beam_pattern(nb::handle self, nb::handle mode, nb::handle beam_id) {
    return read_beam_guarded(self, logger_of(self, a_logger), mode, beam_id, nullptr);
}

// ------------------------------------------------------------ single set ---

// beam["channel_config"][board][key] = value for every board and key of `config`:
// the partial modification a caller may give (only the boards and channels it
// changes).
void merge_channel_config(nb::handle beam, nb::handle config) {
    nb::object channel_config = getitem(beam, k_channel_config);
    for_each_item(config, [&](nb::handle board_name, nb::handle board_values) {
        nb::object board = getitem(channel_config, board_name);
        for_each_item(board_values, [&](nb::handle key, nb::handle value) { setitem(board, key, value); });
    });
}

struct SetRequest {
    nb::handle self;
    const Log& log;
    Mode mode;
    nb::handle beam_id;
    nb::handle config;
    nb::handle description;
};

// Merges and validates a channel beam; ends the set with the validation's failure
// or "Invalid channel config".
EarlyResult apply_channel_beam(const SetRequest& req, nb::handle beam) {
    return guard<EarlyResult>(
        [&] {
            if (contains(beam, k_beam_config)) {
                // A steered beam becomes a channel beam: its steering values mean
                // nothing now, so it starts from the default channel configuration.
                req.log.debug(str("Skip check beam:%d due to original type is beam_config"), req.beam_id);
                delitem(beam, k_beam_config);
                setitem(beam, k_channel_config, default_channel_config(req.self, req.mode));
            }
            if (!req.config.is_none())
                merge_channel_config(beam, req.config);
            else
                req.log.debug(str("Skip assign channel config, just checking original gains"));
            nb::object checked = validate_channel_config(req.self, beam, req.mode.member);
            if (!ret_failed(checked)) return EarlyResult::go_on();
            nb::object prefix =
                concat(concat(str("BeamID_"), py_str(req.beam_id)), str(": Checking channel config failed: "));
            nb::object message = concat(prefix, getattr(checked, k_RetMsg));
            setattr(checked, k_RetMsg, message);
            req.log.error(message);
            return EarlyResult::end_with(checked);
        },
        [&](nb::handle) {
            req.log.exception(str("Invalid channel config"));
            return EarlyResult::end_with(error_result("Invalid channel config"));
        });
}

// Checks a steered beam through the beam hook and stores the values it accepts.
// Goes on with the beam to store (a fresh one when it was a channel beam), or ends
// the set with the hook's refusal.
EarlyResult apply_steered_beam(const SetRequest& req, nb::object beam, nb::handle beam_type) {
    if (contains(beam, k_channel_config)) {
        nb::dict fresh;
        fill_default_beam(req.self, fresh, beam_type, req.mode);
        if (!req.description.is_none()) fresh[k_beam_description.handle()] = req.description;
        beam = std::move(fresh);
    }
    nb::object source = req.config.is_none() ? getitem(beam, k_beam_config) : nb::borrow(req.config);
    nb::object db = getitem(source, k_db);
    nb::object theta = getitem(source, k_theta);
    nb::object phi = getitem(source, k_phi);
    nb::object checked = check_steered_beam(req.self, req.mode.member, db, theta, phi);
    if (ret_failed(checked)) return EarlyResult::end_with(checked);
    const std::array<nb::object, 3> accepted = unpack_three(getattr(checked, k_RetData));
    nb::object beam_config = getitem(beam, k_beam_config);
    setitem(beam_config, k_db, accepted[0]);
    setitem(beam_config, k_theta, accepted[1]);
    setitem(beam_config, k_phi, accepted[2]);
    return EarlyResult::go_on(beam);
}

// The class's own getBeamPattern function, kept when the class is made.
PyObject* g_own_get_beam_pattern = nullptr;

// Whether `method` is this class's getBeamPattern bound to `self`, that is,
// neither overridden by a subclass nor replaced on the instance.
bool is_own_get_beam_pattern(nb::handle method, nb::handle self) {
    static const Name k_func{"__func__"};
    static const Name k_self{"__self__"};
    PyObject* func = PyObject_GetAttr(method.ptr(), k_func.ptr());
    if (!func) {
        PyErr_Clear();
        return false;
    }
    bool own = func == g_own_get_beam_pattern;
    Py_DECREF(func);
    if (!own) return false;
    PyObject* bound_to = PyObject_GetAttr(method.ptr(), k_self.ptr());
    if (!bound_to) {
        PyErr_Clear();
        return false;
    }
    own = bound_to == self.ptr();
    Py_DECREF(bound_to);
    return own;
}

// The beam a set starts from: getBeamPattern's result, read natively (with only
// the default the set needs) when the method is this class's own.
nb::object read_current_beam(const SetRequest& req, nb::handle beam_type) {
    nb::object getter = getattr(req.self, m_getBeamPattern);
    if (!is_own_get_beam_pattern(getter, req.self)) return getter(req.mode.member, req.beam_id);
    SetPlan plan{beam_type, req.config};
    return read_beam_guarded(req.self, req.log, req.mode.member, req.beam_id, &plan);
}

nb::object write_beam(nb::handle self, const Log& log, nb::handle mode, nb::handle beam_id, nb::handle beam_type,
                      nb::handle config, nb::handle description, nb::handle save) {
    SetRequest req{self, log, to_mode(mode), beam_id, config, description};
    nb::object current = read_current_beam(req, beam_type);
    if (ret_failed(current)) return current;
    nb::object beam = getattr(current, k_RetData);

    nb::object type = to_beam_type(beam_type);
    if (!description.is_none()) setitem(beam, k_beam_description, description);
    setitem(beam, k_beam_type, getattr(type, k_value));

    if (compare(type, BeamType().attr("BEAM"), Py_EQ)) {
        EarlyResult steered = apply_steered_beam(req, beam, type);
        if (steered) return steered.result();
        beam = steered.value();
    } else {
        if (EarlyResult refused = apply_channel_beam(req, beam)) return refused.result();
    }

    if (log.on(INFO))
        log.info(nb::steal(
            PyUnicode_FromFormat("Set/update beam:%S pattern -> %S", py_str(beam_id).ptr(), beam.ptr())));
    setitem(getitem(getattr(self, a_table), req.mode.name), py_str(beam_id), beam);
    if (truthy(save)) return getattr(self, m_saveToBeamTableFile)();
    return ret_ok();
}

nb::object set_beam_pattern(nb::handle self, nb::handle mode, nb::handle beam_id, nb::handle beam_type,
                            nb::handle config, nb::handle description, nb::handle save) {
    Log log = logger_of(self, a_logger);
    return guard([&] { return write_beam(self, log, mode, beam_id, beam_type, config, description, save); },
                 [&](nb::handle) {
                     log.exception(str("SetBeamPattern exception"));
                     return error_result("SetBeamPattern exception");
                 });
}

}  // namespace
}  // namespace vex::tables::beams

namespace vex::tables {

void define_beam_pattern_table_manager(nb::module_& m) {
    using namespace vex::tables::beams;
    using vex::py::arg;
    ClassBuilder cls(m, "BeamPatternTableManager",
                     "Beam pattern table of one device, frequency and antenna kit: loads, upgrades, "
                     "generates and saves the table file, and reads and writes single beams and batches.");
    cls.def("__init__", &init, arg("sn"), arg("devtype"), arg("num_beam"), arg("rf_layout"),
            arg("check_funcs") = nb::none(), arg("web_client_id") = nb::none());
    cls.def("_updateFreq", &update_freq, arg("freq"), arg("DR"), arg("comDR"), arg("eleDR"));
    cls.def("_updateAAKit", &update_aakit, arg("kitName"));
    cls.def("_load", &load, arg("freq"), arg("aakit"), arg("callback") = nb::none());
    cls.def_private("generateDefaultBeamTableFile", &generate_default_beam_table_file);
    cls.def_private("generateDefaultBeam", &generate_default_beam, arg("beam"), arg("beam_type"), arg("mode"));
    cls.def("_saveToBeamTableFile", &save_to_beam_table_file, arg("callback") = nb::none(),
            arg("new_table") = nb::none());
    cls.def("getBeamIdStorage", &get_beam_id_storage);
    cls.def("getBeamPattern", &get_beam_pattern, arg("mode"), arg("beamId"));
    // The function itself (as stored in the class), kept for good.
    static const Name k_class_dict{"__dict__"}, g_BTModeFilter{"BTModeFilter"};
    g_own_get_beam_pattern = getitem(getattr(cls.type(), k_class_dict), m_getBeamPattern).release().ptr();
    cls.def("setBeamPattern", &set_beam_pattern, arg("mode"), arg("beamId"), arg("beamType"),
            arg("config") = nb::none(), arg("description") = nb::none(), arg("save") = true);
    cls.def_private("validateChannelConfig", &validate_channel_config, arg("config"), arg("mode"));
    cls.def("_getBatchBeamPattern", &get_batch_beam_pattern,
            arg("mode_filter") = global(g_BTModeFilter).attr("ALL"), arg("callback") = nb::none());
    cls.def("_setBatchBeamPattern", &set_batch_beam_pattern, arg("batch_config"), arg("option"),
            arg("callback") = nb::none());
    cls.finish();
}

}  // namespace vex::tables
