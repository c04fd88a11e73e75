// The Python-object side of the codecs: paths, str objects, numbers, CSV
// reading and writing, and atomic file writes. JSON is in json.cpp; the
// byte-level work is in native/codec/.
#include "py/codecs.h"
#include "py/capi.h"

#include "py/stdlib_messages.h"

#include "codec/atomic_file.h"
#include "codec/csv.h"
#include "codec/numbers.h"
#include "codec/text.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <vector>

namespace vex::py {
namespace {

const Name g_csv{"csv"};
const Name k_Error{"Error"};

}  // namespace

// ------------------------------------------------------------------ paths --

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

[[noreturn]] void raise_os_error(int err, nb::handle filename) {
    errno = err;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename.ptr());
    raise_already_set();
}

// ------------------------------------------------------------------- text --

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

namespace {

// ---------------------------------------------------------------- csv.Error --

nb::object csv_error_type() { return getattr(global(g_csv), k_Error); }

[[noreturn]] void raise_csv_error(nb::handle message) {
    PyErr_SetObject(csv_error_type().ptr(), message.ptr());
    raise_already_set();
}

[[noreturn]] void raise_csv_error(const codec::CsvParser& parser) {
    if (parser.error() == codec::CsvError::field_too_large)
        raise_csv_error(
            nb::steal(PyUnicode_FromFormat("field larger than field limit (%ld)", parser.field_limit())));
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

CsvReader::CsvReader(std::string_view text, bool drop_nul) : impl_(new Impl(drop_nul)) { impl_->text = text; }

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
        raise_csv_error(
            nb::steal(PyUnicode_FromFormat("iterable expected, not %.200s", type_name_of(row.ptr()).c_str())));
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
