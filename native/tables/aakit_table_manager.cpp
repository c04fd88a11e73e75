// AAKitTableManager: the antenna-array kits of one device type.
//
// Every kit is one CSV file "AAKIT_<kit name>.csv" in the SDK files directory:
// a key per row followed by its values (name, device type, kit type, spacing,
// steering limits, per-channel phase offsets). The manager reads all kit files
// that fit the device into `_AAKitTable` (kit name -> record dict), keeps the name
// of the selected kit in `_aakit_name`, names custom kits with a time stamp, and
// creates, renames, deletes and saves kits. In web mode no file is touched: the
// table comes from, and changes go to, callbacks of the caller.
//
// State lives in the instance __dict__ under the names a Python implementation
// would use (private ones mangled, the misspelt `__totol_ch` included), so drivers
// and tests can read and patch it. Public and single-underscore methods that call
// each other go through the instance, so subclass overrides take effect.
#include "tables/tables.h"
#include "codec/atomic_file.h"
#include "py/capi.h"
#include "py/codecs.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace vex::tables {
namespace {

using namespace vex::py;

// ------------------------------------------------------------------ names ---

const Name a_logger{"_AAKitTableManager__logger"};
const Name a_devtype{"_AAKitTableManager__devtype"};
const Name a_num_polarization{"_num_polarization"};
const Name a_support_devs{"_AAKitTableManager__supportDevs"};
const Name a_totol_ch{"_AAKitTableManager__totol_ch"};
const Name a_aakit_name{"_aakit_name"};
const Name a_web_mode{"_AAKitTableManager__web_mode"};
const Name a_table{"_AAKitTable"};
const Name a_default_dir{"_AAKitTableManager__defaultDir"};
const Name a_field_limit{"_AAKitTableManager__fieldlimit"};

// Methods reached through the instance (overridable).
const Name m_getAAKitTablePath{"_getAAKitTablePath"};
const Name m_parse{"parse"};
const Name m_getAAKitList{"getAAKitList"};
const Name m_computeAAKitFullName{"computeAAKitFullName"};
const Name m_deleteAAKitInfo{"deleteAAKitInfo"};
const Name m_saveAAKitFile{"saveAAKitFile"};

// Row keys of a kit file and keys of a kit record.
const Name k_AAKIT_NAME{"AAKIT_NAME"};
const Name k_DEV_TYPE{"DEV_TYPE"};
const Name k_TYPE{"TYPE"};
const Name k_SPACING{"SPACING"};
const Name k_STEERING_H{"STEERING_H"};
const Name k_STEERING_V{"STEERING_V"};
const Name k_OFFSET_TX{"OFFSET_TX"};
const Name k_OFFSET_RX{"OFFSET_RX"};

const Name k_empty{""};

// Module globals, looked up when used.
const Name g_os{"os"};
const Name g_glob{"glob"};
const Name g_Path{"Path"};
const Name g_Utils{"_Utils"};
const Name g_datetime{"datetime"};
const Name g_AAKitField{"AAKitField"};

// ---------------------------------------------------------- small helpers ---

nb::object py_int(Py_ssize_t n) {
    PyObject* i = PyLong_FromSsize_t(n);
    if (!i) raise_already_set();
    return nb::steal(i);
}

nb::object float_object(double value) {
    PyObject* f = PyFloat_FromDouble(value);
    if (!f) raise_already_set();
    return nb::steal(f);
}

// RetType(RetCode.<code>, msg), its message logged at error level.
nb::object logged_error(const Log& log, const char* code, nb::handle msg) {
    nb::object ret = ret_error(code, msg);
    log.error(getattr(ret, k_RetMsg));
    return ret;
}

// The result of an exception caught by a public operation: logged with its
// traceback, returned with the exception's own text so the caller sees the cause.
nb::object exception_result(const Log& log, nb::handle exc) {
    nb::object text = py_str(exc);
    log.exception(text);
    return ret_error("ERROR_BF_AAKIT", text);
}

// The kit names the table currently lists, as getAAKitList() reports them (its
// data is None when the listing failed, and `name in None` raises, as in Python).
bool listed(nb::handle self, nb::handle name) {
    nb::object names = getattr(getattr(self, m_getAAKitList)(), k_RetData);
    return contains(names, name);
}

// ------------------------------------------------------ kit file names -----

// A kit's file is "AAKIT_" + name + ".csv" in the files directory. A name that
// holds a path separator or NUL would address a file somewhere else (or fail
// half-way), so the operations that touch kit files refuse it before touching
// anything. Names that are not text are left to fail as Python would.
bool unsafe_file_name(nb::handle name) {
    if (!PyUnicode_Check(name.ptr())) return false;
    nb::object os = global(g_os);
    const nb::object separators[] = {str("/"), str(std::string_view("\0", 1)), os.attr("sep"), os.attr("altsep")};
    for (const nb::object& sep : separators)
        if (!sep.is_none() && contains(name, sep)) return true;
    return false;
}

nb::object refuse_unsafe_name(const Log& log, nb::handle name) {
    nb::object msg = percent("AAKit name %r must not contain a path separator or NUL", nb::make_tuple(name));
    return logged_error(log, "ERROR_BF_AAKIT", msg);
}

nb::object kit_file_path(nb::handle self, nb::handle kit_name) {
    nb::object file_name = concat({str("AAKIT_"), kit_name, str(".csv")});
    PyObject* path = PyNumber_TrueDivide(getattr(self, a_default_dir).ptr(), file_name.ptr());
    if (!path) raise_already_set();
    return nb::steal(path);
}

// The bytes the file system sees for a path (os.fsencode).
std::string fs_bytes(nb::handle path) {
    nb::object encoded = global(g_os).attr("fsencode")(path);
    return std::string(bytes_view(encoded.ptr()));
}

// A path with NUL names no file (the system would read only the part before it).
bool file_exists(const std::string& path) {
    struct stat st;
    return path.find('\0') == std::string::npos && ::lstat(path.c_str(), &st) == 0;
}

bool same_file(const std::string& a, const std::string& b) {
    struct stat sa, sb;
    return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// The longest file name the files directory takes.
long name_max(const std::string& folder) {
    const long limit = ::pathconf(folder.c_str(), _PC_NAME_MAX);
    return limit > 0 ? limit : 255;
}

// ============================================================ constructor ===

nb::dict field_limits(nb::handle total_ch, nb::handle num_polar) {
    PyObject* offsets = PyNumber_Multiply(total_ch.ptr(), num_polar.ptr());
    if (!offsets) raise_already_set();
    nb::object offset_count = nb::steal(offsets);
    nb::dict limits;
    limits[k_SPACING.handle()] = 2;
    limits[k_STEERING_H.handle()] = 2;
    limits[k_STEERING_V.handle()] = 2;
    limits[k_OFFSET_TX.handle()] = offset_count;
    limits[k_OFFSET_RX.handle()] = offset_count;
    return limits;
}

// `path` is accepted for compatibility and unused: kit files always live in the
// SDK files directory.
void init(nb::handle self, nb::handle devtype, nb::handle total_ch, nb::handle path, nb::handle num_polar,
          nb::handle support_dev, nb::handle web_client_id) {
    setattr(self, a_logger, Log::named("AAKitTbl").logger());
    setattr(self, a_devtype, devtype);
    setattr(self, a_num_polarization, num_polar);
    setattr(self, a_support_devs, support_dev);
    setattr(self, a_totol_ch, total_ch);
    setattr(self, a_aakit_name, k_empty);
    bool web_mode = !web_client_id.is_none();
    setattr(self, a_web_mode, nb::bool_(web_mode));
    setattr(self, a_table, nb::dict());
    if (!web_mode) {
        nb::object files_dir = global(g_Utils).attr("_get_files_dir")();
        setattr(self, a_default_dir, global(g_Path)(files_dir));
    }
    setattr(self, a_field_limit, field_limits(total_ch, getattr(self, a_num_polarization)));
}

// ============================================================ kit files ====

// Paths of the kit files in the files directory, sorted. The directory is
// escaped so that brackets or stars in its own name are not taken as a pattern.
nb::object get_table_path(nb::handle self) {
    nb::object glob = global(g_glob);
    nb::object directory = glob.attr("escape")(py_str(getattr(self, a_default_dir)));
    nb::object pattern = global(g_os).attr("path").attr("join")(directory, "AAKIT_*.csv");
    nb::object files = glob.attr("glob")(pattern);
    files.attr("sort")();
    return files;
}

// ============================================================ parsing ======

// The cells of one CSV row, key first: views into the file text or into the
// CSV reader's current row, valid until the next row is read.
using Cells = std::vector<std::string_view>;

// What one kit file yields: its name ("" until a name row is read), its record,
// and whether a rule refused the file.
struct KitFile {
    nb::object name;
    nb::dict record;
    bool skipped = false;
};

enum class Rule { Name, DevType, Type, Spacing, Steering, Offset, Ignore };

// The rule a row key selects. Steering and offset rows are recognised by a
// substring test ("STEER" or "" count as steering rows), which the kit format
// has always accepted.
Rule rule_for(std::string_view key) {
    if (key == "AAKIT_NAME") return Rule::Name;
    if (key == "DEV_TYPE") return Rule::DevType;
    if (key == "TYPE") return Rule::Type;
    if (key == "SPACING") return Rule::Spacing;
    auto within = [&](std::string_view whole) { return whole.find(key) != std::string_view::npos; };
    if (within("STEERING_H") || within("STEERING_V")) return Rule::Steering;
    if (within("OFFSET_TX") || within("OFFSET_RX")) return Rule::Offset;
    return Rule::Ignore;
}

// The key as a Python str: the interned name for the usual keys.
nb::object key_object(std::string_view key) {
    for (const Name* known : {&k_STEERING_H, &k_STEERING_V, &k_OFFSET_TX, &k_OFFSET_RX})
        if (key == known->c_str()) return nb::borrow(known->handle());
    return str(key);
}

// row[1 + index] of the row after its key, with the IndexError Python raises.
std::string_view value_at(const Cells& row, size_t index) {
    if (index + 1 >= row.size()) raise(PyExc_IndexError, "list index out of range");
    return row[index + 1];
}

// int(text) with Python's rules (big values, underscores, blanks around).
nb::object int_object(std::string_view text) { return int_from_text(text); }

// [float(first value), float(second value)]; cells after the second are ignored.
nb::object float_pair(const Cells& row) {
    nb::object first = float_object(double_from_text(value_at(row, 0)));
    nb::object second = float_object(double_from_text(value_at(row, 1)));
    return pair_list(first, second);
}

// The interpreter keeps one shared object for each integer from -5 to 256 and
// hands it out for every such value; taking it from our own table saves a call
// per offset. The table holds its own references, so the objects stay valid.
constexpr long kSmallIntFirst = -5, kSmallIntLast = 256;

PyObject* small_int(long value) {
    static PyObject** table = [] {
        static PyObject* objects[kSmallIntLast - kSmallIntFirst + 1];
        for (long v = kSmallIntFirst; v <= kSmallIntLast; ++v) objects[v - kSmallIntFirst] = PyLong_FromLong(v);
        return objects;
    }();
    return table[value - kSmallIntFirst];
}

// int(text) for one offset cell, a new reference. Offsets are phase steps, a
// sign and a few digits: those are read here in one pass; any other text
// (blanks, underscores, long numbers, bad text) takes int()'s full way.
PyObject* offset_value(std::string_view text) {
    size_t i = 0;
    bool negative = false;
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) negative = text[i++] == '-';
    const size_t digits = text.size() - i;
    long value = 0;
    bool plain = digits >= 1 && digits <= 9;
    for (; plain && i < text.size(); ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - unsigned('0');
        plain = digit <= 9;
        value = value * 10 + static_cast<long>(digit);
    }
    if (!plain) return int_object(text).release().ptr();
    if (negative) value = -value;
    if (value >= kSmallIntFirst && value <= kSmallIntLast) return Py_NewRef(small_int(value));
    PyObject* number = PyLong_FromLong(value);
    if (!number) raise_already_set();
    return number;
}

// [int(v) for v in values]
nb::object offset_list(const Cells& row) {
    Py_ssize_t count = static_cast<Py_ssize_t>(row.size()) - 1;
    nb::object list = nb::steal(PyList_New(count));
    if (!list.is_valid()) raise_already_set();
    for (Py_ssize_t i = 0; i < count; ++i) list_fill(list.ptr(), i, offset_value(row[i + 1]));
    return list;
}

bool read_device_type(nb::handle self, const Log& log, nb::handle path, const Cells& row, KitFile& kit) {
    nb::object dev = int_object(value_at(row, 0));
    if (!contains(getattr(self, a_support_devs), dev)) {
        if (log.on(WARNING))
            log.warning(concat({str("Skip "), path, str(", due to dev type("), py_str(dev), str(") not match")}));
        return false;
    }
    if (PyDict_SetItem(kit.record.ptr(), k_DEV_TYPE.ptr(), dev.ptr()) < 0) {
        PyErr_Clear();
        log.error(
            concat({kit.name, str(" not support "), k_DEV_TYPE, str(": "), py_str(dev), str(", skip this file")}));
        return false;
    }
    return true;
}

bool read_kit_type(const Log& log, const Cells& row, KitFile& kit) {
    nb::object type = int_object(value_at(row, 0));
    if (compare(type, nb::int_(1), Py_GT)) {
        log.error(str("Unknown custom type: %d"), type);
        return false;
    }
    kit.record[k_TYPE.handle()] = type;
    return true;
}

bool read_offsets(nb::handle self, const Log& log, const Cells& row, KitFile& kit) {
    nb::object key = key_object(row[0]);
    nb::object count = py_int(static_cast<Py_ssize_t>(row.size()) - 1);
    nb::object total_ch = getattr(self, a_totol_ch);
    if (compare(count, total_ch, Py_NE)) {
        if (log.on(ERROR))
            log.error(concat(
                {key, str(": number of channel:"), py_str(count), str(" not equal to "), py_str(total_ch)}));
        return false;
    }
    kit.record[key] = offset_list(row);
    return true;
}

// Applies one non-empty row to the kit; false when the row makes the file skipped.
bool apply_row(nb::handle self, const Log& log, nb::handle path, const Cells& row, KitFile& kit) {
    std::string_view key = row[0];
    switch (rule_for(key)) {
    case Rule::Name: kit.name = str(value_at(row, 0)); return true;
    case Rule::DevType: return read_device_type(self, log, path, row, kit);
    case Rule::Type: return read_kit_type(log, row, kit);
    case Rule::Spacing: kit.record[k_SPACING.handle()] = float_pair(row); return true;
    case Rule::Steering: kit.record[key_object(key)] = float_pair(row); return true;
    case Rule::Offset: return read_offsets(self, log, row, kit);
    case Rule::Ignore: return true;
    }
    return true;
}

void read_kit_file(nb::handle self, const Log& log, nb::handle path, KitFile& kit) {
    std::string text = read_text_file(path);
    CsvTextRows rows(text, csv_field_size_limit(), /*drop_nul=*/false);
    Cells row;
    while (rows.next(row)) {
        if (row.empty()) continue;
        if (!apply_row(self, log, path, row, kit)) {
            kit.skipped = true;
            return;
        }
    }
    if (compare(kit.name, k_empty, Py_EQ)) {
        log.error(str("Skip %s due to unknown file"), path);
        kit.skipped = true;
    }
}

nb::object rename_aakit(nb::handle self, nb::handle old_name, nb::handle new_name, nb::handle callback,
                        nb::handle read_path = nb::handle());
bool check_time_format(nb::handle self, nb::handle time_str);

// Whether a kit of that name is in the table or has a file already.
bool name_taken(nb::handle self, nb::handle name) {
    return contains(getattr(self, a_table), name) || file_exists(fs_bytes(kit_file_path(self, name)));
}

// The stamped name for an old-format kit that no other kit has. Stamps count
// hundredths of a second, so two kits of one name migrated in one parse (a
// copied file still naming its original) would get the same name and the second
// would overwrite the first: the clock is given a few hundredths to move on.
nb::object free_stamped_name(nb::handle self, nb::handle name) {
    nb::object new_name = getattr(self, m_computeAAKitFullName)(name);
    for (int attempt = 0; attempt < 5 && name_taken(self, new_name); ++attempt) {
        {
            nb::gil_scoped_release unlocked;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        new_name = getattr(self, m_computeAAKitFullName)(name);
    }
    return new_name;
}

// A custom kit is named "<user name>_<stamp>". One with an older name gets a
// stamped name, in the table and on disk (the file is saved under the new name
// and the old one deleted). A rename that fails is logged and parsing goes on.
void migrate_custom_kit_name(nb::handle self, const Log& log, nb::handle name, nb::handle record,
                             nb::handle path) {
    nb::object parts = nb::steal(PyUnicode_Split(name.ptr(), str("_").ptr(), -1));
    if (!parts.is_valid()) raise_already_set();
    Py_ssize_t count = list_size(parts.ptr());
    if (count >= 2 && check_time_format(self, list_item(parts.ptr(), count - 1))) {
        log.debug(str("Valid custom AAKit name"));
        return;
    }
    log.info(str("Invalid custom AAKit name(old format): %s"), name);
    nb::object new_name = free_stamped_name(self, name);
    if (name_taken(self, new_name)) {
        log.error(percent("AAKit %s is not renamed: the new name %s is taken, the next parse tries again",
                          nb::make_tuple(name, new_name)));
        log.error(str("Rename file failed"));
        return;
    }
    setitem(getattr(self, a_table), new_name, record);
    log.info(str(" -> new custom AAKit name(new format): %s"), new_name);
    if (ret_failed(rename_aakit(self, name, new_name, nb::none(), path))) log.error(str("Rename file failed"));
}

void parse_kit_file(nb::handle self, const Log& log, nb::handle path) {
    KitFile kit;
    kit.name = nb::borrow(k_empty.handle());
    guard(
        [&]() -> nb::object {
            read_kit_file(self, log, path, kit);
            return nb::none();
        },
        [&](nb::handle) -> nb::object {
            log.exception(str("Skip %s due to parsing exception"), path);
            kit.skipped = true;
            return nb::none();
        });
    if (kit.skipped) return;
    setitem(getattr(self, a_table), kit.name, kit.record);
    if (log.on(INFO)) log.info(concat({str("Parsing ("), kit.name, str(")"), path, str(" done")}));
    // A record without "TYPE" raises KeyError here, out of parse: such a file is
    // not a kit file of any known format.
    if (compare(getitem(kit.record, k_TYPE), nb::int_(1), Py_EQ))
        migrate_custom_kit_name(self, log, kit.name, kit.record, path);
}

// A rename journal names the file a rename removes and the file it writes, one
// per line. It exists from before the new file is written until the old file is
// gone, so after a kill it tells which of the two files is the kit.
struct RenameJournal {
    std::string removed;
    std::string written;
};

bool read_journal(const std::string& path, RenameJournal& journal) {
    std::string text;
    if (FILE* f = std::fopen(path.c_str(), "rbe")) {
        char buffer[1024];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
        std::fclose(f);
    }
    const std::size_t first = text.find('\n');
    const std::size_t second = first == std::string::npos ? first : text.find('\n', first + 1);
    if (second == std::string::npos) return false;
    journal.removed = text.substr(0, first);
    journal.written = text.substr(first + 1, second - first - 1);
    auto plain_name = [](const std::string& name) {
        return !name.empty() && name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
    };
    return plain_name(journal.removed) && plain_name(journal.written);
}

// What a process killed while saving or renaming a kit left in the files
// directory: its temporaries are removed, and a rename it had begun is
// finished when its new file was written (the old file goes) or forgotten when
// not (the old file is still the kit). Journals of live processes are left to
// their owners.
void recover_files(nb::handle self, const Log& log) {
    const std::string folder = fs_bytes(getattr(self, a_default_dir));
    codec::remove_stale_temporaries(folder);
    bool changed = false;
    for (const codec::OwnedFile& owned : codec::owned_files(folder)) {
        if (owned.kind != "rename" || !owned.stale) continue;
        const std::string journal_path = folder + "/" + owned.name;
        RenameJournal journal;
        if (read_journal(journal_path, journal) && file_exists(folder + "/" + journal.written)) {
            const std::string removed = folder + "/" + journal.removed;
            if (file_exists(removed) && !same_file(removed, folder + "/" + journal.written) &&
                ::unlink(removed.c_str()) == 0)
                log.info(str("Finished an interrupted AAKit rename: removed %s, the kit is in %s"),
                         str(journal.removed), str(journal.written));
        }
        ::unlink(journal_path.c_str());
        changed = true;
    }
    if (changed) codec::sync_folder(folder);
}

nb::object no_kit_error(const Log& log, nb::handle msg) {
    nb::object ret = ret_error_named("ERROR_BF_NO_AAKIT", msg);
    log.error(getattr(ret, k_RetMsg));
    return ret;
}

nb::object parse(nb::handle self) {
    if (truthy(getattr(self, a_web_mode))) return ret_ok();
    Log log = logger_of(self, a_logger);
    recover_files(self, log);
    nb::object files = getattr(self, m_getAAKitTablePath)();
    if (!truthy(files))
        return no_kit_error(log, percent("'%s' does not exist any AAKit table", getattr(self, a_default_dir)));
    setattr(self, a_table, nb::dict());
    for (nb::handle path : files) parse_kit_file(self, log, path);
    if (!truthy(getattr(self, a_table))) return no_kit_error(log, str("No available AAKit table here"));
    return ret_ok();
}

// ============================================================ selection ====

// kit_name != "": a str answers by its length, anything else compares as Python would.
bool names_a_kit(nb::handle kit_name) {
    if (PyUnicode_CheckExact(kit_name.ptr())) return str_length(kit_name.ptr()) != 0;
    return compare(kit_name, k_empty, Py_NE);
}

nb::object select_aakit(nb::handle self, nb::handle kit_name) {
    if (names_a_kit(kit_name)) {
        nb::object kit = dict_get(getattr(self, a_table), kit_name);
        if (!kit.is_valid() || kit.is_none()) {
            nb::object msg = percent("There is NOT matched AAKit name: %s", kit_name);
            return logged_error(logger_of(self, a_logger), "ERROR_BF_NO_AAKIT", msg);
        }
    }
    setattr(self, a_aakit_name, kit_name);
    return ret_ok();
}

nb::object table_keys(nb::handle table) {
    PyObject* keys = PyMapping_Keys(table.ptr());
    if (!keys) raise_already_set();
    return nb::steal(keys);
}

nb::object get_aakit_list(nb::handle self, nb::handle force_refresh, nb::handle callback) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            if (truthy(callback)) {
                nb::object ret = nb::borrow(callback)(getattr(self, a_devtype), getattr(self, a_totol_ch),
                                                      getattr(self, a_support_devs));
                if (!ret_failed(ret)) setattr(self, a_table, getattr(ret, k_RetData));
            }
            if (truthy(force_refresh) || !truthy(getattr(self, a_table))) getattr(self, m_parse)();
            return ret_data(table_keys(getattr(self, a_table)));
        },
        [&](nb::handle) -> nb::object {
            log.exception(str("getAAKitList exception"));
            return ret_error("ERROR_BF_AAKIT", "getAAKitList exception");
        });
}

nb::object get_aakit_info(nb::handle self, nb::handle kit_name, nb::handle local) {
    static const Name k_not_selected{"Fail to getAAKitInfo, please call selectAAKit() first"};
    static const Name k_failed{"getAAKitInfo exception"};
    nb::object ret = ret_ok();
    // The logger is looked up only when there is something to log: this query is on
    // every beam switch.
    guard(
        [&]() -> nb::object {
            nb::object table = getattr(self, a_table);
            if (truthy(kit_name)) {
                setattr(ret, k_RetData, getitem(table, kit_name));
            } else if (truthy(local)) {
                setattr(ret, k_RetData, table);
            } else {
                nb::object selected = getattr(self, a_aakit_name);
                if (compare(selected, k_empty, Py_EQ)) {
                    setattr(ret, k_RetCode, RetCode("ERROR_BF_AAKIT"));
                    setattr(ret, k_RetMsg, k_not_selected);
                    logger_of(self, a_logger).error(getattr(ret, k_RetMsg));
                } else {
                    setattr(ret, k_RetData, getitem(table, selected));
                }
            }
            return nb::none();
        },
        [&](nb::handle) -> nb::object {
            setattr(ret, k_RetCode, RetCode("ERROR_BF_AAKIT"));
            setattr(ret, k_RetMsg, k_failed);
            logger_of(self, a_logger).exception(getattr(ret, k_RetMsg));
            return nb::none();
        });
    return ret;
}

// ========================================================== kit naming ====

// kitName + "_" + local time as YYYYmmddHHMMSS plus hundredths + UTC offset.
// The clock is read through the module's `datetime`, so a host can pin it.
nb::object compute_full_name(nb::handle self, nb::handle kit_name) {
    nb::object now = global(g_datetime).attr("now")().attr("astimezone")();
    nb::object full_stamp = now.attr("strftime")("%Y%m%d%H%M%S%f");
    nb::object drop_micro = nb::steal(PySlice_New(nullptr, nb::int_(-4).ptr(), nullptr));
    nb::object stamp = getitem(full_stamp, drop_micro);
    nb::object zone = now.attr("strftime")("%z");
    return concat({kit_name, str("_"), stamp, zone});
}

bool leap_year(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int days_in_month(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leap_year(year) ? 29 : days[month - 1];
}

// Exactly fourteen ASCII digits YYYYmmddHHMMSS forming a real date and time.
bool is_date_time_digits(nb::handle text) {
    Py_ssize_t size = 0;
    const char* s = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
    if (!s) raise_already_set();
    if (size != 14) return false;
    for (Py_ssize_t i = 0; i < size; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    auto number = [&](int from, int width) {
        int value = 0;
        for (int i = from; i < from + width; ++i) value = value * 10 + (s[i] - '0');
        return value;
    };
    int year = number(0, 4), month = number(4, 2), day = number(6, 2);
    int hour = number(8, 2), minute = number(10, 2), second = number(12, 2);
    if (year < 1 || month < 1 || month > 12) return false;
    if (day < 1 || day > days_in_month(year, month)) return false;
    return hour < 24 && minute < 60 && second < 60;
}

// True for "<14 date-time digits><2 more chars>+<UTC offset>", the stamp of a
// custom kit name. Only a "+" offset is recognised: stamps west of UTC fail.
bool check_time_format(nb::handle self, nb::handle time_str) {
    nb::object ok = guard(
        [&]() -> nb::object {
            nb::object parts = time_str.attr("split")("+");
            nb::object first = getitem(parts, Py_ssize_t(0));
            nb::object drop_hundredths = nb::steal(PySlice_New(nullptr, nb::int_(-2).ptr(), nullptr));
            nb::object date_time = getitem(first, drop_hundredths);
            if (!PyUnicode_Check(date_time.ptr()) || !is_date_time_digits(date_time)) return nb::bool_(false);
            nb::object zone = concat({str("+"), getitem(parts, Py_ssize_t(1))});
            global(g_datetime).attr("strptime")(zone, "%z");
            return nb::bool_(true);
        },
        [&](nb::handle) -> nb::object { return nb::bool_(false); });
    return ok.ptr() == Py_True;
}

bool check_time_format_method(nb::handle self, nb::handle time_str) { return check_time_format(self, time_str); }

// ============================================================ editing =====

// Whether `field` carries as many values as the kit field needs; a dict field
// (offsets per polarization) counts the values of all its lists together.
bool check_field(nb::handle self, nb::handle field_name, nb::handle field) {
    nb::object limit = getitem(getattr(self, a_field_limit), field_name);
    bool is_dict = PyDict_Check(field.ptr());
    Py_ssize_t count = 0;
    if (is_dict) {
        for (nb::handle values : nb::borrow<nb::dict>(field).values()) count += py_len(values);
    } else {
        count = py_len(field);
    }
    nb::object counted = py_int(count);
    if (!compare(counted, limit, Py_NE)) return true;
    Log log = logger_of(self, a_logger);
    if (log.on(ERROR)) {
        const char* kind = is_dict ? " of value for dict field: " : " of value for field: ";
        log.error(concat({str("setAAKitInfo: Wrong counts:"), py_str(counted), str(kind), field_name}));
    }
    return false;
}

void require_exact_type(nb::handle value, PyTypeObject* type, const char* arg_name) {
    if (Py_TYPE(value.ptr()) == type) return;
    PyErr_Format(PyExc_TypeError, "setAAKitInfo() argument '%s' must be %s, not %.200s", arg_name,
                 type_name(reinterpret_cast<PyObject*>(type)).c_str(), type_name_of(value.ptr()).c_str());
    raise_already_set();
}

// The first field that fails its count check, or an invalid object.
nb::object first_bad_field(nb::handle self, std::initializer_list<std::pair<const Name*, nb::handle>> fields) {
    for (const auto& [name, value] : fields)
        if (!check_field(self, name->handle(), value)) return nb::borrow(name->handle());
    return nb::object();
}

// An offset given per polarization is copied into a new dict; a list is kept.
nb::object offset_value(nb::handle offsets) {
    if (!PyDict_Check(offsets.ptr())) return nb::borrow(offsets);
    nb::dict copy;
    for (auto [polarization, values] : nb::borrow<nb::dict>(offsets)) copy[polarization] = values;
    return copy;
}

// Stores `record` under `kit_name` (or under a stamped name for a new custom kit)
// and returns the name the kit is now kept under.
nb::object store_kit(nb::handle self, const Log& log, nb::handle kit_name, nb::handle record, nb::handle custom,
                     nb::handle callback, nb::handle new_kit_name) {
    nb::object table = getattr(self, a_table);
    bool is_custom = compare(custom, nb::int_(1), Py_EQ);
    if (!contains(table, kit_name)) {
        if (!is_custom) {
            log.debug(str("WEB-VEX loaded official AAKit"));
            setitem(table, kit_name, record);
            return nb::borrow(kit_name);
        }
        log.debug(str("Set new AAKit"));
        nb::object full_name = getattr(self, m_computeAAKitFullName)(kit_name);
        setitem(table, full_name, record);
        return full_name;
    }
    if (!is_custom) {
        log.warning(str("Duplicated official AAKit case -> skip it"));
        return nb::borrow(kit_name);
    }
    log.debug(str("Exist the same AAKit -> just update"));
    nb::object existing = getitem(table, kit_name);
    existing.attr("update")(record);
    if (!truthy(new_kit_name)) return nb::borrow(kit_name);
    nb::object full_name = getattr(self, m_computeAAKitFullName)(new_kit_name);
    setitem(table, full_name, existing);
    if (ret_failed(rename_aakit(self, kit_name, full_name, callback))) log.error(str("Rename file failed"));
    return full_name;
}

nb::object set_aakit_info(nb::handle self, nb::handle kit_name, nb::handle spacing, nb::handle steering_h,
                          nb::handle steering_v, nb::handle offset_tx, nb::handle offset_rx, nb::handle custom,
                          nb::handle callback, nb::handle dev_type, nb::handle new_kit_name) {
    require_exact_type(kit_name, &PyUnicode_Type, "kitName");
    require_exact_type(spacing, &PyList_Type, "spacing");
    require_exact_type(steering_h, &PyList_Type, "steeringH");
    require_exact_type(steering_v, &PyList_Type, "steeringV");
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            nb::object failure = ret_error("ERROR_BF_AAKIT", "AAKit field checking failed");
            nb::object device = dev_type.is_none() ? getattr(self, a_devtype) : nb::borrow(dev_type);
            nb::dict record;
            record[k_DEV_TYPE.handle()] = device;
            record[k_TYPE.handle()] = custom;
            nb::object bad = first_bad_field(self, {{&k_SPACING, spacing},
                                                    {&k_STEERING_H, steering_h},
                                                    {&k_STEERING_V, steering_v},
                                                    {&k_OFFSET_TX, offset_tx},
                                                    {&k_OFFSET_RX, offset_rx}});
            if (bad.is_valid()) {
                setattr(failure, k_RetMsg, concat({getattr(failure, k_RetMsg), str(": "), bad}));
                return failure;
            }
            record[k_SPACING.handle()] = spacing;
            record[k_STEERING_H.handle()] = steering_h;
            record[k_STEERING_V.handle()] = steering_v;
            record[k_OFFSET_TX.handle()] = offset_value(offset_tx);
            record[k_OFFSET_RX.handle()] = offset_value(offset_rx);
            return ret_data(store_kit(self, log, kit_name, record, custom, callback, new_kit_name));
        },
        [&](nb::handle exc) -> nb::object { return exception_result(log, exc); });
}

std::string kit_file_text(nb::handle kit_name, nb::handle record);

// The kit file work of a rename, done so that the kit is on disk under its old
// or its new name at every instant and a kill at any point leaves one of the
// two for the next parse: the new file is written before the old one goes, and
// a journal names both while both exist. The calls a rename makes (delete the
// old kit, save the new) and their results stay as they are. `source` is the
// file the kit was read from when a parse migrates it: a copied file still
// naming another kit inside is the file that goes, never that other kit's file.
nb::object rename_kit_files(nb::handle self, const Log& log, nb::handle old_name, nb::handle new_name,
                            nb::handle source) {
    const std::string folder = fs_bytes(getattr(self, a_default_dir));
    nb::object old_path = kit_file_path(self, old_name);
    nb::object new_path = kit_file_path(self, new_name);
    const std::string new_file = fs_bytes(new_path);
    const std::string old_file = fs_bytes(old_path);
    const bool from_source = source.is_valid() && !source.is_none() && !same_file(fs_bytes(source), old_file);
    const std::string removed_file = from_source ? fs_bytes(source) : old_file;
    auto refuse = [&](const char* why, nb::handle detail) {
        nb::object msg =
            percent("AAKit %s is not renamed to %s: %s", nb::make_tuple(old_name, new_name, percent(why, detail)));
        return logged_error(log, "ERROR_BF_AAKIT", msg);
    };
    const std::string new_base = codec::base_of(new_file);
    if (static_cast<long>(new_base.size()) > name_max(folder))
        return refuse("its file name would be %d bytes long, more than the file system takes",
                      py_int(static_cast<Py_ssize_t>(new_base.size())));
    if (file_exists(new_file)) return refuse("%s exists already", new_path);
    // Nothing on disk to keep safe (a kit never saved): the plain steps, whose
    // delete reports the missing file.
    if (!file_exists(removed_file)) {
        nb::object deleted = getattr(self, m_deleteAAKitInfo)(old_name, nb::arg("callback") = nb::none());
        if (ret_failed(deleted)) return deleted;
        return getattr(self, m_saveAAKitFile)(new_name, nb::arg("callback") = nb::none(),
                                              nb::arg("check") = false);
    }
    // The new file's text first: a record that cannot be written (a field
    // missing) is refused before anything is on disk.
    const std::string text = kit_file_text(new_name, getitem(getattr(self, a_table), new_name));
    const std::string journal = folder + "/" + codec::owned_name("rename", "AAKIT");
    const std::string entries = codec::base_of(removed_file) + "\n" + new_base + "\n";
    int err = codec::write_file_atomic(journal, entries);
    if (err == 0) err = codec::write_file_atomic(new_file, text);
    if (err != 0) {
        ::unlink(journal.c_str());
        return refuse("%s", str(std::strerror(err)));
    }
    nb::object deleted;
    if (from_source) {
        // The kit read from `source` leaves the table and its file goes, as
        // deleteAAKitInfo would do for a file named after the kit.
        if (PyObject_DelItem(getattr(self, a_table).ptr(), old_name.ptr()) < 0) PyErr_Clear();
        deleted = ::unlink(removed_file.c_str()) == 0 ? ret_ok()
                                                      : ret_error("ERROR_BF_AAKIT", str(std::strerror(errno)));
        if (!ret_failed(deleted)) log.info(str("Deleted %s"), source);
    } else {
        deleted = getattr(self, m_deleteAAKitInfo)(old_name, nb::arg("callback") = nb::none());
    }
    // A delete that failed and left the old file: that file is still the kit.
    if (ret_failed(deleted) && file_exists(removed_file)) ::unlink(new_file.c_str());
    codec::sync_folder(folder);
    ::unlink(journal.c_str());
    if (ret_failed(deleted)) return deleted;
    return getattr(self, m_saveAAKitFile)(new_name, nb::arg("callback") = nb::none(), nb::arg("check") = false);
}

nb::object rename_aakit(nb::handle self, nb::handle old_name, nb::handle new_name, nb::handle callback,
                        nb::handle source) {
    Log log = logger_of(self, a_logger);
    log.debug(str("Rename AAKit -> delete old then add new one"));
    if (truthy(callback)) {
        nb::object deleted = getattr(self, m_deleteAAKitInfo)(old_name, nb::arg("callback") = callback);
        if (ret_failed(deleted)) return deleted;
        return getattr(self, m_saveAAKitFile)(new_name, nb::arg("callback") = callback, nb::arg("check") = false);
    }
    // Both names are checked first: deleting the old file and then refusing
    // the new name would lose the kit on disk.
    if (unsafe_file_name(old_name)) return refuse_unsafe_name(log, old_name);
    if (unsafe_file_name(new_name)) return refuse_unsafe_name(log, new_name);
    return guard([&]() -> nb::object { return rename_kit_files(self, log, old_name, new_name, source); },
                 [&](nb::handle exc) -> nb::object { return exception_result(log, exc); });
}

nb::object rename_aakit_method(nb::handle self, nb::handle old_name, nb::handle new_name, nb::handle callback) {
    return rename_aakit(self, old_name, new_name, callback);
}

nb::object delete_aakit_info(nb::handle self, nb::handle kit_name, nb::handle callback, nb::handle check) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            if (truthy(check) && !listed(self, kit_name))
                return logged_error(log, "ERROR_BF_AAKIT", percent("%s not exist in list", kit_name));
            nb::object table = getattr(self, a_table);
            if (compare(getitem(getitem(table, kit_name), k_TYPE), nb::int_(1), Py_NE))
                return logged_error(log, "ERROR_BF_AAKIT",
                                    percent("%s must be customized AAKit for deletion", kit_name));
            bool forward = truthy(callback);
            if (!forward && unsafe_file_name(kit_name)) return refuse_unsafe_name(log, kit_name);
            if (PyObject_DelItem(table.ptr(), kit_name.ptr()) < 0) raise_already_set();
            if (forward) {
                log.info(str("Forward to deleting AAKit"));
                return nb::borrow(callback)(nb::arg("func_name") = "deleteAAKitInfo",
                                            nb::arg("kitName") = kit_name, nb::arg("check") = false);
            }
            nb::object path = kit_file_path(self, kit_name);
            path.attr("unlink")();
            log.info(str("Deleted %s"), path);
            return ret_ok();
        },
        [&](nb::handle exc) -> nb::object { return exception_result(log, exc); });
}

// The CSV row of one record field: the field name followed by the values of a
// list (a new list: the record stays as it is), or by the single value.
nb::object kit_row(nb::handle record, nb::handle field) {
    nb::object value = getitem(record, field);
    if (!PyList_Check(value.ptr())) return pair_list(field, value);
    Py_ssize_t count = list_size(value.ptr());
    nb::object row = nb::steal(PyList_New(count + 1));
    if (!row.is_valid()) raise_already_set();
    list_fill(row.ptr(), 0, Py_NewRef(field.ptr()));
    for (Py_ssize_t i = 0; i < count; ++i) list_fill(row.ptr(), i + 1, Py_NewRef(list_item(value.ptr(), i)));
    return row;
}

void write_csv_row(nb::handle self, nb::handle writer, nb::handle record, nb::handle field) {
    writer.attr("writerow")(kit_row(record, field));
}

// The whole kit file as csv.writer writes it: the name row, then one row per
// AAKitField member after AAKIT_NAME, in the enumeration's order.
std::string kit_file_text(nb::handle kit_name, nb::handle record) {
    std::string text;
    nb::list name_row;
    name_row.append(k_AAKIT_NAME.handle());
    name_row.append(kit_name);
    csv_write_row(text, name_row);
    bool first = true;
    for (nb::handle member : global(g_AAKitField)) {
        if (first) {
            first = false;
            continue;
        }
        csv_write_row(text, kit_row(record, member.attr("name")));
    }
    return text;
}

nb::object save_to_callback(const Log& log, nb::handle callback, nb::handle kit_name, nb::handle record) {
    log.info(str("Forward to saving AAKit"));
    nb::object ret = nb::borrow(callback)(nb::arg("func_name") = "saveAAKitFile", nb::arg("kitName") = kit_name,
                                          nb::arg("check") = false, nb::arg("context") = record);
    return ret_failed(ret) ? ret : ret_ok();
}

// The file is written whole to a temporary file and renamed over the old one,
// so a failure (a field missing from the record, a full disk) leaves the
// previous file as it was.
nb::object save_to_file(nb::handle self, const Log& log, nb::handle kit_name) {
    nb::object path = kit_file_path(self, kit_name);
    log.info(str("Ready to save %s"), path);
    nb::object record = getitem(getattr(self, a_table), kit_name);
    write_file_atomic(path, kit_file_text(kit_name, record));
    return ret_ok();
}

// `context` is accepted and unused: the callback always receives the stored record.
nb::object save_aakit_file(nb::handle self, nb::handle kit_name_arg, nb::handle callback, nb::handle check,
                           nb::handle context) {
    Log log = logger_of(self, a_logger);
    return guard(
        [&]() -> nb::object {
            nb::object kit_name = nb::borrow(kit_name_arg);
            if (!truthy(kit_name)) {
                kit_name = getattr(self, a_aakit_name);
                if (compare(kit_name, k_empty, Py_EQ))
                    return logged_error(log, "ERROR_BF_AAKIT",
                                        str("Fail to save, please call selectAAKit() first or assign aakit name"));
            }
            if (truthy(check) && !listed(self, kit_name))
                return logged_error(log, "ERROR_BF_AAKIT", percent("%s not exist in list", kit_name));
            if (truthy(callback))
                return save_to_callback(log, callback, kit_name, getitem(getattr(self, a_table), kit_name));
            if (unsafe_file_name(kit_name)) return refuse_unsafe_name(log, kit_name);
            return save_to_file(self, log, kit_name);
        },
        [&](nb::handle exc) -> nb::object { return exception_result(log, exc); });
}

}  // namespace

void define_aakit_table_manager(nb::module_& m) {
    ClassBuilder cls(m, "AAKitTableManager", "Antenna-array-kit tables of one device type.");
    // One list shared by every manager made without `support_dev`, as a Python
    // default argument would be; the manager never modifies it.
    nb::list default_support_devs;
    cls.def("__init__", &init, arg("devtype"), arg("total_ch"), arg("path") = "files/", arg("num_polar") = 1,
            arg("support_dev") = default_support_devs, arg("web_client_id") = nb::none());
    cls.def("_getAAKitTablePath", &get_table_path);
    cls.def("parse", &parse);
    cls.def("_selectAAKit", &select_aakit, arg("kitName"));
    cls.def("getAAKitList", &get_aakit_list, arg("force_refresh") = false, arg("callback") = nb::none());
    cls.def("getAAKitInfo", &get_aakit_info, arg("kitName") = nb::none(), arg("local") = false);
    cls.def("computeAAKitFullName", &compute_full_name, arg("kitName"));
    cls.def_private("checkAAKitTimeFormat", &check_time_format_method, arg("time_str"));
    cls.def_private("checkAAKitField", &check_field, arg("field_name"), arg("field"));
    cls.def("setAAKitInfo", &set_aakit_info, arg("kitName"), arg("spacing"), arg("steeringH"), arg("steeringV"),
            arg("offsetTx"), arg("offsetRx"), arg("custom") = 1, arg("callback") = nb::none(),
            arg("dev_type") = nb::none(), arg("newKitName") = nb::none());
    cls.def_private("renameAAKit", &rename_aakit_method, arg("oldName"), arg("newName"),
                    arg("callback") = nb::none());
    cls.def("deleteAAKitInfo", &delete_aakit_info, arg("kitName"), arg("callback") = nb::none(),
            arg("check") = true);
    cls.def_private("writeCSVRow", &write_csv_row, arg("writer"), arg("table"), arg("field"));
    cls.def("saveAAKitFile", &save_aakit_file, arg("kitName") = nb::none(), arg("callback") = nb::none(),
            arg("check") = true, arg("context") = nb::none());
    cls.finish();
}

}  // namespace vex::tables
