// CalibrationTableManager: reading a calibration CSV into _CaliTable, the
// insertion primitive every parsed value goes through, the JSON export and
// parseRawJson.
//
// The file is tokenised in C++; Python objects are made only for what the table
// stores. Plain lines (no quote, no NUL, not longer than the CSV field limit), which
// is nearly every line of a table, are split at commas in place, which is exactly
// what the CSV reader makes of them; any other line, with the lines a quoted field
// runs on into, is read by the CSV reader itself.
//
// DATA rows (about a hundred thousand in a large table) take a lean path:
// consecutive rows of the same board, chip and common arm share one target
// mapping; entry keys repeat in every chip and register values are small, so both
// are made once per parse and shared (they are immutable), leaving one new list
// per row. The cyclic garbage collector is paused while the table is built: the
// table holds no cycles, and collections over a growing table cost more than the
// reading itself.
#include "tables/calibration_table_manager.h"
#include "py/capi.h"

#include "codec/numbers.h"
#include "py/codecs.h"

#include <charconv>
#include <cmath>
#include <string>
#include <unordered_map>
#include <vector>

namespace vex::tables::cali {

using namespace vex::py;

// ------------------------------------------------------------- insertion ---
// Every parsed value enters the table through update_dict.

namespace {

// d.get(key) is None: store; otherwise merge with the mapping's own update().
void insert_or_merge(nb::handle d, nb::handle key, nb::handle value) {
    nb::object existing = dict_get(d, key);
    if (!existing.is_valid() || existing.is_none()) {
        setitem(d, key, value);
    } else if (PyDict_CheckExact(existing.ptr()) && PyDict_CheckExact(value.ptr())) {
        if (PyDict_Update(existing.ptr(), value.ptr()) < 0) raise_already_set();
    } else {
        existing.attr("update")(value);
    }
}

}  // namespace

void update_dict(const Log& log, nb::handle d, nb::handle key, nb::handle value) {
    guard(
        [&]() -> nb::object {
            insert_or_merge(d, key, value);
            return nb::none();
        },
        [&](nb::handle) -> nb::object {
            PyObject* text =
                PyUnicode_FromFormat("__updateDict exception with key:%S, value:%S", key.ptr(), value.ptr());
            if (!text) raise_already_set();
            log.exception(nb::steal(text));
            raise(PyExc_Exception, "__updateDict exception");
        });
}

nb::object child_mapping(const Log& log, nb::handle parent, nb::handle key) {
    update_dict(log, parent, key, nb::dict());
    return getitem(parent, key);
}

namespace {

const Name k_VER{"VER"}, k_REALVER{"REALVER"}, k_SN{"SN"}, k_FCENTER{"FCENTER"}, k_DR{"DR"};
const Name k_TX{"TX"}, k_RX{"RX"}, k_COMDR{"COMDR"}, k_ELEDR{"ELEDR"}, k_TEMPADC{"TEMPADC"};
const Name k_TC{"TC"}, k_COMSTEPDR{"COMSTEPDR"};

enum class RowKind {
    Unknown,
    Ver,
    RealVer,
    Sn,
    FCenter,
    Dr,
    OffsetTx,
    OffsetRx,
    ComDr,
    EleDr,
    TempAdc,
    Tc,
    ComStepDr,
    Data,
    End
};

// Keys are matched exactly; DATA comes first because it is most rows of a table.
RowKind kind_of(std::string_view key) {
    static const std::pair<std::string_view, RowKind> kinds[] = {
        {"DATA", RowKind::Data},           {"VER", RowKind::Ver},
        {"REALVER", RowKind::RealVer},     {"SN", RowKind::Sn},
        {"FCENTER", RowKind::FCenter},     {"DR", RowKind::Dr},
        {"OFFSET_TX", RowKind::OffsetTx},  {"OFFSET_RX", RowKind::OffsetRx},
        {"COMDR", RowKind::ComDr},         {"ELEDR", RowKind::EleDr},
        {"TEMPADC", RowKind::TempAdc},     {"TC", RowKind::Tc},
        {"COMSTEPDR", RowKind::ComStepDr}, {"END", RowKind::End},
    };
    for (const auto& [name, kind] : kinds)
        if (key == name) return kind;
    return RowKind::Unknown;
}

// The cells of one row, viewing the text (or the CSV reader's record) they come from.
using Cells = CsvFields;

// row[index], with the IndexError a Python list gives for a row that is too short.
std::string_view cell(const Cells& row, size_t index) {
    if (index >= row.size()) raise(PyExc_IndexError, "list index out of range");
    return row[index];
}

nb::object text_of(const Cells& row, size_t index) { return str(cell(row, index)); }

nb::object prefixed(std::string_view prefix, std::string_view number) {
    std::string key(prefix);
    key += number;
    return str(key);
}

nb::object numbered(const char* prefix, Py_ssize_t number) {
    PyObject* key = PyUnicode_FromFormat("%s%zd", prefix, number);
    if (!key) raise_already_set();
    return nb::steal(key);
}

// [float(cell) for cell in row[first:]]
nb::list floats_from(const Cells& row, size_t first) {
    nb::list values;
    for (size_t i = first; i < row.size(); ++i) values.append(nb::float_(double_from_text(row[i])));
    return values;
}

// int(text) for cells of one parse. Small values are made once and shared;
// anything but a plain decimal goes through int() itself.
class IntCache {
public:
    ~IntCache() {
        for (PyObject* number : numbers_) Py_XDECREF(number);
    }

    nb::object get(std::string_view text) {
        long long value = 0;
        if (!codec::parse_plain_int(text, value)) return int_from_text(text);
        if (value < kLowest || value >= kLowest + kCount) return nb::steal(PyLong_FromLongLong(value));
        if (numbers_.empty()) numbers_.assign(kCount, nullptr);
        PyObject*& slot = numbers_[static_cast<size_t>(value - kLowest)];
        if (!slot) {
            slot = PyLong_FromLongLong(value);
            if (!slot) raise_already_set();
        }
        return nb::borrow(slot);
    }

    // [int(cell) for cell in row[first:]], built in place.
    nb::object list_from(const Cells& row, size_t first) {
        Py_ssize_t count = row.size() > first ? static_cast<Py_ssize_t>(row.size() - first) : 0;
        PyObject* list = PyList_New(count);
        if (!list) raise_already_set();
        nb::object values = nb::steal(list);
        for (Py_ssize_t i = 0; i < count; ++i)
            list_fill(list, i, get(row[first + static_cast<size_t>(i)]).release().ptr());
        return values;
    }

private:
    static constexpr long long kLowest = -1024;
    static constexpr long long kCount = 1 << 16;
    std::vector<PyObject*> numbers_;
};

// Appends str(int(float(text))): the integer part of a number written as text.
void append_truncated(std::string& out, std::string_view text) {
    double value = double_from_text(text);
    if (std::isfinite(value) && std::fabs(value) < 9.0e18) {
        char digits[24];
        auto end = std::to_chars(digits, digits + sizeof digits, static_cast<long long>(value)).ptr;
        out.append(digits, end);
        return;
    }
    PyObject* big = PyLong_FromDouble(value);   // OverflowError / ValueError as int() raises
    if (!big) raise_already_set();
    nb::object number = nb::steal(big);
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(nb::str(number).ptr(), &size);
    if (!utf8) raise_already_set();
    out.append(utf8, static_cast<size_t>(size));
}

nb::object dr_message(nb::handle mode_name, double low, double high) {
    auto fixed = [](double v) {
        char* text = PyOS_double_to_string(v, 'f', 6, 0, nullptr);
        if (!text) raise_already_set();
        std::string out(text);
        PyMem_Free(text);
        return out;
    };
    std::string rest = " mode DR: {" + fixed(low) + "~" + fixed(high) + "}";
    PyObject* message = PyUnicode_FromFormat("%S%s", mode_name.ptr(), rest.c_str());
    if (!message) raise_already_set();
    return nb::steal(message);
}

// ------------------------------------------------------------- row sources ---

// Rows of a handed-in file object, through the CSV reader.
class ObjectRows {
public:
    explicit ObjectRows(nb::handle file_object) : csv_(file_object, /*drop_nul=*/true) {}

    bool next(Cells& cells) { return csv_.next(cells); }

private:
    CsvReader csv_;
};

// ------------------------------------------------------------ the reader ---

// Reads rows into one table. The reading goes on with its verdict (OK at END; a
// broken file when the rows run out first), or a refusal of the header check ends
// the whole parse at once with that result.
class TableReader {
public:
    TableReader(nb::handle self, const Log& log, nb::handle table) : self_(self), log_(log), table_(table) {}

    template <class Rows>
    EarlyResult read(Rows& rows) {
        nb::object ret = ret_ok();
        Cells row;
        while (rows.next(row)) {
            if (row.empty()) continue;
            RowKind kind = kind_of(row[0]);
            if (kind != RowKind::Data) data_target_ = nb::object();
            if (kind == RowKind::End) {
                log_.info(str("%s parsing done"), path_for_log());
                return EarlyResult::go_on(ret);
            }
            if (kind == RowKind::ComDr || kind == RowKind::EleDr)
                if (EarlyResult refused = EarlyResult::if_failed(basic_check(self_, table_))) return refused;
            store(kind, row);
        }
        log_.error(str("cali file is broken"));
        return EarlyResult::go_on(ret_error("ERROR_BF_CALI_PARSE", "cali file is broken"));
    }

private:
    void store(RowKind kind, const Cells& row) {
        switch (kind) {
        case RowKind::Data: store_data(row); break;
        case RowKind::Ver: store_header(k_VER, row); break;
        case RowKind::RealVer: store_header(k_REALVER, row); break;
        case RowKind::Sn: store_header(k_SN, row); break;
        case RowKind::FCenter: store_header(k_FCENTER, row); break;
        case RowKind::Dr: store_dr(row); break;
        case RowKind::OffsetTx: store_offsets(k_TX, row); break;
        case RowKind::OffsetRx: store_offsets(k_RX, row); break;
        case RowKind::ComDr: store_arm_range(k_COMDR, row); break;
        case RowKind::EleDr: store_arm_range(k_ELEDR, row); break;
        case RowKind::TempAdc: store_temp_adc(row); break;
        case RowKind::Tc: store_tc(row); break;
        case RowKind::ComStepDr: store_com_step(row); break;
        case RowKind::Unknown:
        case RowKind::End: break;
        }
    }

    nb::object path_for_log() const {
        return hasattr(self_, a_path_cali) ? getattr(self_, a_path_cali) : nb::object(nb::str(""));
    }

    nb::object board(std::string_view number) { return child_mapping(log_, table_, prefixed("BOARD_", number)); }

    // Header values are plain text; a repeated header row replaces the value.
    void store_header(const Name& key, const Cells& row) {
        nb::object value = text_of(row, 1);
        if (log_.on(DEBUG)) {
            PyObject* message = PyUnicode_FromFormat("%s: %S", key.c_str(), value.ptr());
            if (!message) raise_already_set();
            log_.debug(nb::steal(message));
        }
        setitem(table_, key, value);
    }

    // Two cells per RF mode, in the modes' declared order.
    void store_dr(const Cells& row) {
        nb::dict ranges;
        setitem(table_, k_DR, ranges);
        size_t next = 1;
        for (nb::handle mode : RFMode()) {
            double low = double_from_text(cell(row, next));
            double high = double_from_text(cell(row, next + 1));
            next += 2;
            nb::object name = getattr(mode, k_name);
            if (log_.on(DEBUG)) log_.debug(dr_message(name, low, high));
            nb::list pair;
            pair.append(nb::float_(low));
            pair.append(nb::float_(high));
            setitem(ranges, name, pair);
        }
    }

    // One integer per channel, board by board, chip by chip. Rows merge, so a second
    // row for the same mode replaces channel values and keeps everything else.
    // Each layout number is read as its loop starts, as range() would read it: a
    // table without offset rows never needs the layout, and the chip count is not
    // read when there are no boards. A layout without chips has nothing to store,
    // so its boards are not walked: that adds no empty board entries, and a huge
    // board count cannot run away.
    void store_offsets(const Name& mode, const Cells& row) {
        const Py_ssize_t boards = range_bound(getattr(self_, a_num_board));
        if (boards < 1) return;
        const Py_ssize_t ics = range_bound(getattr(self_, a_num_ic_per_board));
        if (ics < 1) return;
        const Py_ssize_t channels = range_bound(getattr(self_, a_num_channel_per_ic));
        size_t next = 1;
        for (Py_ssize_t b = 1; b <= boards; ++b) {
            nb::object arm = child_mapping(log_, child_mapping(log_, table_, board_key(b)), mode);
            for (Py_ssize_t c = 1; c <= ics; ++c) {
                nb::dict chip;
                for (Py_ssize_t ch = 1; ch <= channels; ++ch)
                    setitem(chip, numbered("CHANNEL_", ch), ints_.get(cell(row, next++)));
                update_dict(log_, arm, numbered("OFFSET_CHIP_", c), chip);
            }
        }
    }

    // mode, label, board, label, values...
    void store_arm_range(const Name& kind, const Cells& row) {
        nb::object mode = text_of(row, 1);
        nb::object target = board(cell(row, 3));
        nb::dict entry;
        setitem(entry, kind, floats_from(row, 5));
        update_dict(log_, target, mode, entry);
    }

    // label, board, label, reading: one reading serves both modes.
    void store_temp_adc(const Cells& row) {
        nb::object target = board(cell(row, 2));
        nb::object reading = text_of(row, 4);
        for (const Name* mode : {&k_TX, &k_RX}) {
            nb::dict entry;
            setitem(entry, k_TEMPADC, reading);
            update_dict(log_, target, *mode, entry);
        }
    }

    // label, board, label, tx1, tx2, rx1, rx2
    void store_tc(const Cells& row) {
        nb::object target = board(cell(row, 2));
        size_t next = 4;
        for (const Name* mode : {&k_TX, &k_RX}) {
            nb::list pair;
            pair.append(text_of(row, next));
            pair.append(text_of(row, next + 1));
            next += 2;
            nb::dict entry;
            setitem(entry, k_TC, pair);
            update_dict(log_, target, *mode, entry);
        }
    }

    // label, label, board, arm, low, high
    void store_com_step(const Cells& row) {
        nb::object target = board(cell(row, 3));
        nb::dict entry;
        setitem(entry, prefixed("COM_", cell(row, 4)), floats_from(row, 5));
        update_dict(log_, target, k_COMSTEPDR, entry);
    }

    // label, label, board, label, chip, arm, mode, gain, phase, one value per channel:
    // [BOARD_b][DATA_CHIP_c][COM_a][mode_gain_phase] = values, gain as int(float()).
    // As a row is read: its board and chip mappings first, then its entry, and the
    // arm's mapping only once the entry converted, so a bad row adds no empty arm.
    void store_data(const Cells& row) {
        bool same_block = data_target_.is_valid() && row.size() > 6 && row[3] == last_board_ &&
                          row[5] == last_chip_ && row[6] == last_arm_;
        if (!same_block) start_block(row);
        nb::handle key = entry_key(cell(row, 7), cell(row, 8), cell(row, 9));
        nb::object values = ints_.list_from(row, 10);
        if (!same_block) open_arm(cell(row, 6));
        setitem(data_target_, key, values);
    }

    void start_block(const Cells& row) {
        data_target_ = nb::object();
        chip_data_ = nb::object();
        std::string_view board_number = cell(row, 3);
        nb::object board_data = board(board_number);
        std::string_view chip = cell(row, 5);
        chip_data_ = child_mapping(log_, board_data, prefixed("DATA_CHIP_", chip));
        last_board_ = board_number;
        last_chip_ = chip;
        place_in_block_ = 0;
    }

    void open_arm(std::string_view arm) {
        data_target_ = child_mapping(log_, chip_data_, prefixed("COM_", arm));
        last_arm_ = arm;
    }

    // The key of a DATA entry. Every common-arm block lists its entries in the same
    // order, so the key at the same place of the previous block is tried first.
    nb::handle entry_key(std::string_view mode, std::string_view gain, std::string_view phase) {
        size_t place = place_in_block_++;
        if (place < previous_keys_.size()) {
            const KeyCells& seen = previous_keys_[place];
            if (seen.mode == mode && seen.gain == gain && seen.phase == phase) return seen.key;
        }
        if (place >= previous_keys_.size()) previous_keys_.resize(place + 1);
        previous_keys_[place] = {std::string(mode), std::string(gain), std::string(phase),
                                 composed_key(mode, gain, phase)};
        return previous_keys_[place].key;
    }

    // mode + "_" + str(int(float(gain))) + "_" + phase, one str object per text.
    nb::object composed_key(std::string_view mode, std::string_view gain, std::string_view phase) {
        key_text_ = mode;
        key_text_ += '_';
        append_truncated(key_text_, gain);
        key_text_ += '_';
        key_text_ += phase;
        auto found = entry_keys_.find(key_text_);
        if (found != entry_keys_.end()) return found->second;
        return entry_keys_.emplace(key_text_, str(key_text_)).first->second;
    }

    struct KeyCells {
        std::string mode, gain, phase;
        nb::object key;
    };

    nb::handle self_;
    const Log& log_;
    nb::handle table_;
    nb::object chip_data_, data_target_;   // the current DATA block's chip and arm
    std::string last_board_, last_chip_, last_arm_;
    std::string key_text_;
    std::unordered_map<std::string, nb::object> entry_keys_;
    std::vector<KeyCells> previous_keys_;
    size_t place_in_block_ = 0;
    IntCache ints_;
};

// Reads the found file (or the handed-in file object) into `table`: the reading's
// verdict, where any failure while reading is "parse exception", or the header
// check's refusal, which ends the parse.
EarlyResult read_table(nb::handle self, const Log& log, nb::handle file_object, nb::handle table) {
    return guard<EarlyResult>(
        [&] {
            GcPause pause;
            TableReader reader(self, log, table);
            if (!file_object.is_none()) {
                ObjectRows rows(file_object);
                return reader.read(rows);
            }
            std::string text = read_text_file(getattr(self, a_path_cali));
            CsvTextRows rows(text, csv_field_size_limit(), /*drop_nul=*/true);
            return reader.read(rows);
        },
        [&](nb::handle) {
            log.exception(str("parse exception"));
            return EarlyResult::go_on(ret_error("ERROR_BF_CALI_PARSE", "parse exception"));
        });
}

// The export goes beside the CSV: every "csv" in the path becomes "json" (folder
// names included, so .../csvfiles/x.csv is exported to .../jsonfiles/x.json).
void export_json(nb::handle self) {
    nb::object json_path = getattr(self, a_path_cali).attr("replace")("csv", "json");
    dump_json_file_atomic(getattr(self, a_CaliTable), 4, json_path);
}

// A new frequency re-targets the manager and drops every cache built for the old one.
void retarget(nb::handle self, nb::handle freq) {
    setattr(self, a_freq, freq);
    setattr(self, a_allOffset, nb::none());
    setattr(self, a_allXXXDR, nb::none());
    setattr(self, a_allComDataMap, nb::dict());
}

nb::object parse_steps(nb::handle self, const Log& log, nb::handle freq, nb::handle file_object,
                       nb::handle export_to_json) {
    if (!freq.is_none()) {
        retarget(self, freq);
        // In web mode the table stays in the database: only its frequency changes.
        if (uses_database(self)) return database(self).attr("setFreq")(getattr(self, a_freq));
    }
    if (file_object.is_none()) {
        nb::object path = getattr(self, m_searchCaliFile)();
        if (!truthy(path)) {
            nb::object ret = ret_error("ERROR_BF_CALI_PATH", "Can not find file for Cali table");
            log.error(str("Can not find file for Cali table"));
            return ret;
        }
        log.info(str("Cali file path: %s"), path);
        setattr(self, a_path_cali, path);
    }
    nb::dict table;
    setattr(self, a_CaliTable, table);
    EarlyResult read = read_table(self, log, file_object, table);
    if (!file_object.is_none()) file_object.attr("close")();
    if (read) return read.result();   // refused by the header check: nothing is exported
    if (truthy(export_to_json)) export_json(self);
    return read.value();
}

}  // namespace

nb::object parse(nb::handle self, nb::handle freq, nb::handle file_object, nb::handle export_to_json) {
    Log log = logger_of(self, a_logger);
    return guard([&]() { return parse_steps(self, log, freq, file_object, export_to_json); },
                 [&](nb::handle) -> nb::object {
                     log.exception(str("parse exception"));
                     return ret_error("ERROR_BF_CALI_PARSE", "parse exception");
                 });
}

// Loads the JSON export of the current frequency (found as the CSV is found).
nb::object parse_raw_json(nb::handle self) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            nb::object path = getattr(self, m_searchCaliFile)(".json");
            if (!truthy(path)) return ret_error("ERROR_BF_CALI_PARSE", "cali file error");
            setattr(self, a_CaliTable, load_json_file(path));
            return ret_ok();
        },
        [&](nb::handle) -> nb::object {
            log.exception(str("cali file error"));
            return ret_error("ERROR_BF_CALI_PARSE", "cali file error");
        });
}

}  // namespace vex::tables::cali
