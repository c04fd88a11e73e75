// The Python-object side of the codecs: paths, str objects, exceptions and the
// walk over Python containers. The byte-level work is in native/codec/.
#include "py/codecs.h"
#include "py/capi.h"

#include "py/stdlib_messages.h"

#include "codec/atomic_file.h"
#include "codec/csv.h"
#include "codec/json.h"
#include "codec/numbers.h"
#include "codec/text.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <vector>

namespace vex::py {
namespace {

const Name k_csv{"csv"};
const Name k_Error{"Error"};
const Name k_dunder_class{"__class__"};
const Name k_dunder_name{"__name__"};
const Name k_items{"items"};

// ------------------------------------------------------------------ paths --

// A path as open() takes it: os.fspath(path) (kept as the filename of errors)
// and its file-system bytes.
struct FsPath {
    nb::object given;
    std::string bytes;
};

FsPath fs_path(nb::handle path) {
    FsPath result;
    PyObject* fspath = PyOS_FSPath(path.ptr());
    if (!fspath) raise_already_set();
    result.given = nb::steal(fspath);
    PyObject* encoded = nullptr;
    if (!PyUnicode_FSConverter(fspath, &encoded)) raise_already_set();
    nb::object owner = nb::steal(encoded);
    result.bytes.assign(bytes_view(encoded));
    return result;
}

// The OSError subclass open() raises for this errno, with errno, text and filename.
[[noreturn]] void raise_os_error(int err, nb::handle filename) {
    errno = err;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename.ptr());
    raise_already_set();
}

// ------------------------------------------------------------------- text --

// UTF-8 of a str object; lone surrogates are kept (encoded as such) when
// `keep_surrogates`, else they raise the UnicodeEncodeError a UTF-8 write raises.
std::string_view utf8_of(nb::handle s, nb::object& keeper, bool keep_surrogates) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(s.ptr(), &size);
    if (data) return {data, static_cast<std::size_t>(size)};
    if (!keep_surrogates) raise_already_set();
    PyErr_Clear();
    PyObject* bytes = PyUnicode_AsEncodedString(s.ptr(), "utf-8", "surrogatepass");
    if (!bytes) raise_already_set();
    keeper = nb::steal(bytes);
    return bytes_view(bytes);
}

// ---------------------------------------------------------------- csv.Error --

nb::object csv_error_type() { return getattr(global(k_csv), k_Error); }

[[noreturn]] void raise_csv_error(nb::handle message) {
    PyErr_SetObject(csv_error_type().ptr(), message.ptr());
    raise_already_set();
}

[[noreturn]] void raise_csv_error(const codec::CsvParser& parser) {
    if (parser.error() == codec::CsvError::field_too_large)
        raise_csv_error(nb::steal(PyUnicode_FromFormat("field larger than field limit (%ld)",
                                                       parser.field_limit())));
    raise_csv_error(str(stdlib_messages().csv_newline_in_unquoted_field));
}

}  // namespace

// ================================================================== text ===

std::string read_text_file(nb::handle path) {
    const FsPath where = fs_path(path);
    std::string raw;
    int err = 0;
    {
        nb::gil_scoped_release unlocked;
        err = codec::read_file_bytes(where.bytes.c_str(), raw);
    }
    if (err != 0) raise_os_error(err, where.given);
    if (codec::is_strict_utf8(raw)) {
        codec::translate_newlines(raw);
        return raw;
    }
    // The codec itself reports the bad bytes, so the error is the one open().read() gives.
    PyObject* decoded = PyUnicode_DecodeUTF8(raw.data(), static_cast<Py_ssize_t>(raw.size()), "strict");
    if (!decoded) raise_already_set();
    Py_DECREF(decoded);
    raise(PyExc_UnicodeError, "text could not be decoded as UTF-8");
}

// =============================================================== numbers ===

nb::object int_from_text(std::string_view text) {
    long long value = 0;
    if (codec::parse_plain_int(text, value)) return nb::steal(PyLong_FromLongLong(value));
    nb::object s = str(text);
    PyObject* result = int_from_str(s.ptr());
    if (!result) raise_already_set();
    return nb::steal(result);
}

nb::object float_from_text(std::string_view text) {
    double value = 0;
    if (codec::parse_plain_double(text, value)) return nb::steal(PyFloat_FromDouble(value));
    nb::object s = str(text);
    PyObject* result = PyFloat_FromString(s.ptr());
    if (!result) raise_already_set();
    return nb::steal(result);
}

double double_from_text(std::string_view text) {
    double value = 0;
    if (codec::parse_plain_double(text, value)) return value;
    return float_value(float_from_text(text).ptr());
}

long long longlong_from_text(std::string_view text) {
    long long value = 0;
    if (codec::parse_plain_int(text, value)) return value;
    nb::object number = int_from_text(text);
    value = PyLong_AsLongLong(number.ptr());
    if (value == -1 && PyErr_Occurred()) raise_already_set();
    return value;
}

// =================================================================== CSV ===

struct CsvReader::Impl {
    explicit Impl(bool drop) : parser(csv_field_size_limit()), drop_nul(drop) {}

    codec::CsvParser parser;
    bool drop_nul;
    long line_num = 0;
    // Source: in-memory text, or an iterator of str.
    std::string_view text;
    std::size_t text_pos = 0;
    nb::object iterator;
    // The current line when it had to be copied (NUL removal, surrogates).
    std::string line_copy;
    nb::object line_object;

    bool next_line(std::string_view& line);
    bool next_text_line(std::string_view& line);
    bool next_iterated_line(std::string_view& line);
    std::string_view without_nul(std::string_view line);
};

std::string_view CsvReader::Impl::without_nul(std::string_view line) {
    if (!drop_nul || line.find('\0') == std::string_view::npos) return line;
    // `line` may itself point into line_copy (a line that had to be copied to
    // UTF-8 first), so the result is built aside before it replaces the copy.
    std::string kept;
    kept.reserve(line.size());
    for (char c : line)
        if (c != '\0') kept.push_back(c);
    line_copy = std::move(kept);
    return line_copy;
}

// The next line of the text: up to and including "\n", or the rest.
bool CsvReader::Impl::next_text_line(std::string_view& line) {
    if (text_pos >= text.size()) return false;
    const std::size_t newline = text.find('\n', text_pos);
    const std::size_t end = newline == std::string_view::npos ? text.size() : newline + 1;
    line = text.substr(text_pos, end - text_pos);
    text_pos = end;
    return true;
}

bool CsvReader::Impl::next_iterated_line(std::string_view& line) {
    PyObject* item = PyIter_Next(iterator.ptr());
    if (!item) {
        if (PyErr_Occurred()) raise_already_set();
        return false;
    }
    line_object = nb::steal(item);
    if (!PyUnicode_Check(item)) {
        raise_csv_error(nb::steal(PyUnicode_FromFormat(
            "iterator should return strings, not %.200s (the file should be opened in text mode)",
            type_name_of(item).c_str())));
    }
    nb::object keeper;
    line = utf8_of(line_object, keeper, true);
    if (keeper.is_valid()) {
        line_copy.assign(line.data(), line.size());
        line = line_copy;
    }
    return true;
}

bool CsvReader::Impl::next_line(std::string_view& line) {
    const bool got = iterator.is_valid() ? next_iterated_line(line) : next_text_line(line);
    if (got) line = without_nul(line);
    return got;
}

CsvReader::CsvReader(std::string_view text, bool drop_nul) : impl_(new Impl(drop_nul)) {
    impl_->text = text;
}

CsvReader::CsvReader(nb::handle iterable_of_lines, bool drop_nul) : impl_(nullptr) {
    PyObject* it = PyObject_GetIter(iterable_of_lines.ptr());
    if (!it) raise_already_set();
    nb::object iterator = nb::steal(it);
    impl_ = new Impl(drop_nul);
    impl_->iterator = std::move(iterator);
}

CsvReader::~CsvReader() { delete impl_; }

long CsvReader::line_num() const { return impl_->line_num; }

// Feeds lines until a record is complete or the input ends.
bool CsvReader::next_record() {
    Impl& s = *impl_;
    s.parser.reset();
    std::string_view line;
    for (;;) {
        if (!s.next_line(line)) return s.parser.finish();
        ++s.line_num;
        if (!s.parser.feed_line(line)) raise_csv_error(s.parser);
        if (s.parser.record_done()) return true;
    }
}

bool CsvReader::next(CsvRow& row) {
    if (!next_record()) return false;
    const codec::CsvParser& s = impl_->parser;
    const std::size_t count = s.field_count();
    row.resize(count);
    for (std::size_t i = 0; i < count; ++i) row[i].assign(s.field(i));
    return true;
}

bool CsvReader::next(CsvFields& fields) {
    if (!next_record()) return false;
    const codec::CsvParser& parser = impl_->parser;
    fields.resize(parser.field_count());
    for (std::size_t i = 0; i < fields.size(); ++i) fields[i] = parser.field(i);
    return true;
}

void csv_write_row(std::string& out, nb::handle row) {
    PyObject* it = PyObject_GetIter(row.ptr());
    if (!it) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) raise_already_set();
        PyErr_Clear();
        raise_csv_error(nb::steal(PyUnicode_FromFormat("iterable expected, not %.200s",
                                                       type_name_of(row.ptr()).c_str())));
    }
    nb::object iterator = nb::steal(it);
    const std::size_t start = out.size();
    std::size_t fields = 0;
    try {
        while (PyObject* raw_item = PyIter_Next(it)) {
            nb::object item = nb::steal(raw_item);
            std::string_view text;
            nb::object text_obj, keeper;
            if (PyUnicode_Check(raw_item)) {
                text = utf8_of(item, keeper, false);
            } else if (raw_item != Py_None) {
                PyObject* s = PyObject_Str(raw_item);
                if (!s) raise_already_set();
                text_obj = nb::steal(s);
                text = utf8_of(text_obj, keeper, false);
            }
            codec::csv_append_field(out, text, fields == 0);
            ++fields;
        }
        if (PyErr_Occurred()) raise_already_set();
    } catch (...) {
        out.resize(start);   // no half row is left behind
        throw;
    }
    codec::csv_end_record(out, start, fields);
}

// ================================================================== JSON ===

namespace {

// The walk of json's pure-Python encoder (_make_iterencode), writing into one
// buffer. Type checks run in the encoder's order: str, None, True, False, int,
// float, list/tuple, dict; anything else is refused as the default hook does.
class JsonEncoder {
public:
    // Where a streaming encoder hands its text: take() consumes the buffer's
    // content (and raises on failure).
    struct Sink {
        virtual void take(std::string& buffer) = 0;

    protected:
        ~Sink() = default;   // never deleted through this interface
    };

    JsonEncoder(std::string& out, int indent) : out_(out), indent_(indent > 0 ? indent : 0) {}
    // Hands the text to `sink` whenever `chunk` bytes have gathered, so a large
    // table never exists as one string; the caller hands over the rest at the end.
    JsonEncoder(std::string& out, int indent, Sink& sink, std::size_t chunk)
        : out_(out), indent_(indent > 0 ? indent : 0), sink_(&sink), chunk_(chunk) {}

    // o.__class__.__name__, the name json's default() gives an object it refuses
    // (and, before 3.13, the pure-Python indenting encoder a key it refuses):
    // "datetime", where C code says "datetime.datetime".
    static nb::object class_name(PyObject* o) {
        return getattr(getattr(o, k_dunder_class), k_dunder_name);
    }

    void value(PyObject* o, std::size_t level) {
        if (scalar(o)) return;
        if (PyList_Check(o) || PyTuple_Check(o)) return sequence(o, level);
        if (PyDict_Check(o)) return mapping(o, level);
        // The encoder marks the object before calling its default hook, which refuses it.
        PyErr_Format(PyExc_TypeError, "Object of type %S is not JSON serializable", class_name(o).ptr());
        raise_already_set();
    }

private:
    // Writes str, None, bool, int and float values; false for anything else.
    bool scalar(PyObject* o) {
        if (PyUnicode_Check(o)) {
            string(o);
        } else if (o == Py_None) {
            out_.append("null");
        } else if (o == Py_True) {
            out_.append("true");
        } else if (o == Py_False) {
            out_.append("false");
        } else if (PyLong_Check(o)) {
            integer(o);
        } else if (PyFloat_Check(o)) {
            codec::append_json_float(out_, float_value(o));
        } else {
            return false;
        }
        return true;
    }

    void string(PyObject* s) {
        nb::object keeper;
        codec::append_json_string(out_, utf8_of(nb::handle(s), keeper, false));
    }

    // int.__repr__, also for int subclasses (IntEnum members are written as numbers).
    void integer(PyObject* o) {
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
        if (!overflow) {
            if (v == -1 && PyErr_Occurred()) raise_already_set();
            codec::append_int(out_, v);
            return;
        }
        PyObject* text = reinterpret_cast<reprfunc>(PyType_GetSlot(&PyLong_Type, Py_tp_repr))(o);
        if (!text) raise_already_set();
        nb::object keeper = nb::steal(text);
        Py_ssize_t size = 0;
        const char* data = PyUnicode_AsUTF8AndSize(text, &size);
        if (!data) raise_already_set();
        out_.append(data, static_cast<std::size_t>(size));
    }

    // A dict key as the encoder coerces it, or a TypeError.
    void key(PyObject* k) {
        if (PyUnicode_Check(k)) return string(k);
        std::string text;
        if (PyFloat_Check(k)) codec::append_json_float(text, float_value(k));
        else if (k == Py_True) text = "true";
        else if (k == Py_False) text = "false";
        else if (k == Py_None) text = "null";
        else if (PyLong_Check(k)) {
            std::swap(text, out_);
            try { integer(k); } catch (...) { std::swap(text, out_); throw; }
            std::swap(text, out_);
        } else {
            nb::object type = stdlib_messages().json_key_refusal_names_c_type
                                  ? str(type_name_of(k)) : class_name(k);
            PyErr_Format(PyExc_TypeError, "keys must be str, int, float, bool or None, not %S", type.ptr());
            raise_already_set();
        }
        codec::append_json_string(out_, text);
    }

    // The encoder's marker for containers on the current path. The path is a
    // stack no deeper than the recursion limit, and table files are a few levels
    // deep, so a linear search beats hashing.
    struct Marker {
        Marker(JsonEncoder& e, PyObject* o) : enc(e) {
            for (PyObject* open : enc.path_) {
                if (open == o) {
                    PyErr_SetString(PyExc_ValueError, "Circular reference detected");
                    raise_already_set();
                }
            }
            if (Py_EnterRecursiveCall(" while encoding a JSON object")) raise_already_set();
            enc.path_.push_back(o);
        }
        ~Marker() {
            enc.path_.pop_back();
            Py_LeaveRecursiveCall();
        }
        JsonEncoder& enc;
    };

    // `not container`, through __len__/__bool__ for subclasses as Python does.
    static bool is_empty(PyObject* o) {
        const int truth = PyObject_IsTrue(o);
        if (truth < 0) raise_already_set();
        return truth == 0;
    }

    void hand_over_full_chunk() {
        if (out_.size() >= chunk_) sink_->take(out_);
    }

    void open_item(bool first, std::size_t level) {
        if (!first) out_.push_back(',');
        newline(level);
    }

    // "\n" and the indentation of `level`, appended from a prepared run of spaces.
    void newline(std::size_t level) {
        const std::size_t width = 1 + level * indent_;
        if (newline_.size() < width) newline_.append(width - newline_.size() + 64, ' ');
        out_.append(newline_.data(), width);
    }

    void sequence(PyObject* o, std::size_t level) {
        if (is_empty(o)) {
            out_.append("[]");
            return;
        }
        Marker mark(*this, o);
        out_.push_back('[');
        if (PyList_CheckExact(o) || PyTuple_CheckExact(o)) {
            for (Py_ssize_t i = 0; i < list_or_tuple_size(o); ++i) {
                open_item(i == 0, level + 1);
                nb::object item = nb::borrow(list_or_tuple_item(o, i));
                value(item.ptr(), level + 1);
                hand_over_full_chunk();
            }
        } else {
            nb::object it = nb::steal(PyObject_GetIter(o));
            if (!it.is_valid()) raise_already_set();
            bool first = true;
            while (PyObject* raw = PyIter_Next(it.ptr())) {
                nb::object item = nb::steal(raw);
                open_item(first, level + 1);
                first = false;
                value(raw, level + 1);
                hand_over_full_chunk();
            }
            if (PyErr_Occurred()) raise_already_set();
        }
        newline(level);
        out_.push_back(']');
    }

    void member(PyObject* k, PyObject* v, bool first, std::size_t level) {
        open_item(first, level);
        key(k);
        out_.append(": ");
        value(v, level);
        hand_over_full_chunk();
    }

    void mapping(PyObject* o, std::size_t level) {
        if (is_empty(o)) {
            out_.append("{}");
            return;
        }
        Marker mark(*this, o);
        out_.push_back('{');
        if (PyDict_CheckExact(o)) {
            Py_ssize_t pos = 0;
            PyObject *k, *v;
            bool first = true;
            while (PyDict_Next(o, &pos, &k, &v)) {
                nb::object hold_k = nb::borrow(k), hold_v = nb::borrow(v);
                member(k, v, first, level + 1);
                first = false;
            }
        } else {
            // A dict subclass is walked through its own items(), as the encoder does.
            nb::object items = getattr(nb::handle(o), k_items)();
            nb::object it = nb::steal(PyObject_GetIter(items.ptr()));
            if (!it.is_valid()) raise_already_set();
            bool first = true;
            while (PyObject* raw = PyIter_Next(it.ptr())) {
                nb::object pair = nb::steal(raw);
                nb::object k = getitem(pair, 0), v = getitem(pair, 1);
                member(k.ptr(), v.ptr(), first, level + 1);
                first = false;
            }
            if (PyErr_Occurred()) raise_already_set();
        }
        newline(level);
        out_.push_back('}');
    }

    std::string& out_;
    std::size_t indent_;
    Sink* sink_ = nullptr;
    std::size_t chunk_ = SIZE_MAX;
    std::string newline_ = "\n";
    std::vector<PyObject*> path_;
};

}  // namespace

void json_dumps(nb::handle obj, int indent, std::string& out) {
    const std::size_t start = out.size();
    try {
        JsonEncoder(out, indent).value(obj.ptr(), 0);
    } catch (...) {
        out.resize(start);
        throw;
    }
}

namespace {

// The temporary file of an atomic replacement as the encoder's sink; a failed
// write raises the OSError open().write() would raise for the target.
struct AtomicFileSink : JsonEncoder::Sink {
    AtomicFileSink(codec::AtomicFile& f, nb::handle name) : file(f), filename(name) {}
    void take(std::string& buffer) override {
        const int err = file.write(buffer);
        if (err != 0) raise_os_error(err, filename);
        buffer.clear();
    }
    codec::AtomicFile& file;
    nb::handle filename;
};

// Big enough that writes cost little per byte, small enough to stay in cache.
constexpr std::size_t kJsonChunk = 1 << 20;

}  // namespace

void dump_json_file_atomic(nb::handle obj, int indent, nb::handle path) {
    const FsPath where = fs_path(path);
    codec::AtomicFile file;
    if (const int err = file.open(where.bytes)) raise_os_error(err, where.given);
    AtomicFileSink sink(file, where.given);
    std::string buffer;
    buffer.reserve(kJsonChunk + kJsonChunk / 4);
    JsonEncoder(buffer, indent, sink, kJsonChunk).value(obj.ptr(), 0);
    sink.take(buffer);
    int err = 0;
    {
        nb::gil_scoped_release unlocked;
        err = file.commit();
    }
    if (err != 0) raise_os_error(err, where.given);
}

namespace {
PyObject* g_standard_json_loads = nullptr;   // kept for the life of the process
}  // namespace

void remember_standard_json_loads(nb::handle loads) {
    Py_XDECREF(g_standard_json_loads);
    g_standard_json_loads = Py_NewRef(loads.ptr());
}

nb::object load_json_file(nb::handle path) {
    static const Name k_json{"json"};
    static const Name k_loads{"loads"};
    nb::object loads = getattr(global(k_json), k_loads);
    if (loads.ptr() == g_standard_json_loads) return json_loads(read_text_file(path));
    return loads(str(read_text_file(path)));
}

// ======================================================== plain CSV rows ==

namespace {

// What a character means to the plain-line split: a comma ends a cell; a quote,
// NUL or CR needs the CSV reader.
enum class CharClass : unsigned char { plain, comma, special };

constexpr std::array<CharClass, 256> char_classes() {
    std::array<CharClass, 256> classes{};
    classes[','] = CharClass::comma;
    classes['"'] = classes['\0'] = classes['\r'] = CharClass::special;
    return classes;
}

constexpr std::array<CharClass, 256> k_char_class = char_classes();

}  // namespace

bool CsvTextRows::next(CsvFields& cells) {
    cells.clear();
    if (pos_ >= text_.size()) return false;
    const size_t newline = text_.find('\n', pos_);
    const size_t end = newline == std::string_view::npos ? text_.size() : newline;
    if (split_plain(text_.substr(pos_, end - pos_), cells)) {
        pos_ = end + 1;
        return true;
    }
    return read_record(cells);
}

bool CsvTextRows::split_plain(std::string_view line, CsvFields& cells) const {
    if (static_cast<long>(line.size()) > field_limit_) return false;
    size_t start = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const CharClass kind = k_char_class[static_cast<unsigned char>(line[i])];
        if (kind == CharClass::plain) continue;
        if (kind == CharClass::special) {
            cells.clear();
            return false;
        }
        cells.push_back(line.substr(start, i - start));
        start = i + 1;
    }
    if (!line.empty()) cells.push_back(line.substr(start));
    return true;
}

// One record read by the CSV reader from this line on; it tells how many lines
// the record took.
bool CsvTextRows::read_record(CsvFields& cells) {
    csv_.emplace(text_.substr(pos_), drop_nul_);
    const bool got = csv_->next(cells);
    for (long lines = csv_->line_num(); lines > 0 && pos_ < text_.size(); --lines) {
        const size_t newline = text_.find('\n', pos_);
        pos_ = newline == std::string_view::npos ? text_.size() : newline + 1;
    }
    return got;
}

// ============================================================ file writes ==

void write_file_atomic(nb::handle path, std::string_view data) {
    const FsPath where = fs_path(path);
    int err = 0;
    {
        nb::gil_scoped_release unlocked;
        err = codec::write_file_atomic(where.bytes, data);
    }
    if (err != 0) raise_os_error(err, where.given);
}

}  // namespace vex::py
