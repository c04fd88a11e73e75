// Text, CSV, number and JSON codecs with CPython-exact results, and atomic file
// writing: the Python-facing side of native/codec/.
//
// Every function gives the same values, the same bytes and the same exceptions
// (type and message) as the Python spelled out in its comment. Failures raise
// nb::python_error carrying that Python exception, so a manager's guard catches
// and logs them exactly as it would catch Python's own.
#pragma once

#include "py/bridge.h"
#include "py/pyops.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vex::py {

// ------------------------------------------------------------------ text ---

// open(path).read() in text mode with UTF-8 and universal newlines ("\r\n" and
// "\r" become "\n"). `path` is a str or an os.PathLike. Raises the OSError that
// open() raises (FileNotFoundError, IsADirectoryError, PermissionError, ... with
// errno and filename) or UnicodeDecodeError for invalid UTF-8. Returns UTF-8.
std::string read_text_file(nb::handle path);

// --------------------------------------------------------------- numbers ---

// int(text) and float(text) for a str cell: same value, same ValueError.
nb::object int_from_text(std::string_view text);
nb::object float_from_text(std::string_view text);
// float(text) as a C double (same acceptance and errors as float_from_text).
double double_from_text(std::string_view text);
// int(text) as a C long long; raises ValueError as int() does for bad text and
// OverflowError when the value does not fit.
long long longlong_from_text(std::string_view text);

// ------------------------------------------------------------------- CSV ---

using CsvRow = std::vector<std::string>;   // UTF-8 fields of one record
using CsvFields = std::vector<std::string_view>;   // the same, as views into the reader

// Rows exactly as csv.reader(lines) yields them with the default dialect, where
// `lines` are the lines of the text (split after each "\n", as iterating a text
// file gives them) or the items of a Python iterable of str (a file object,
// io.StringIO, a list of lines). With drop_nul, every NUL character is removed
// from each line before the reader sees it (line.replace("\0", "")).
// Errors raise csv.Error with the running interpreter's own message (the
// new-line message changed between releases: stdlib_messages.cpp holds each
// wording; a long field gives "field larger than field limit (131072)"); an
// iterable item that is not a str raises csv.Error as csv.reader does.
class CsvReader {
public:
    CsvReader(std::string_view text, bool drop_nul = false);   // text must outlive the reader
    CsvReader(nb::handle iterable_of_lines, bool drop_nul = false);
    ~CsvReader();
    CsvReader(const CsvReader&) = delete;
    CsvReader& operator=(const CsvReader&) = delete;

    // Fills `row` with the next record; false at the end. Empty lines give an
    // empty row, as csv.reader does.
    bool next(CsvRow& row);
    // The same without copying: the views stay valid until the next call.
    bool next(CsvFields& fields);
    // csv.reader's line_num: source lines read so far.
    long line_num() const;

    struct Impl;

private:
    bool next_record();
    Impl* impl_;
};

// Rows of a decoded text (newlines already "\n") exactly as CsvReader(text,
// drop_nul) yields them, for table files that are nearly all plain names and
// numbers between commas. A line without quote, NUL or CR, too short to hold an
// oversized field, is split at its commas straight from the text without
// copying; any other line starts the CSV reader there for the record it begins
// (a record always starts at a line start, so the rows are the same).
class CsvTextRows {
public:
    CsvTextRows(std::string_view text, long field_limit, bool drop_nul)   // text must outlive the rows
        : text_(text), field_limit_(field_limit), drop_nul_(drop_nul) {}

    // The next row into `cells` (empty for a blank line); false at the end. The
    // views stay valid until the next call.
    bool next(CsvFields& cells);

private:
    bool split_plain(std::string_view line, CsvFields& cells) const;
    bool read_record(CsvFields& cells);

    std::string_view text_;
    long field_limit_;
    bool drop_nul_;
    size_t pos_ = 0;
    std::optional<CsvReader> csv_;   // holds the record its cells view
};

// Appends one row as csv.writer(f).writerow(row) writes it with the default
// dialect (QUOTE_MINIMAL, '"' doubled, "\r\n" line end). Items are Python objects
// converted as the writer converts them: str as is, None as "", float by repr,
// any other object by str(); a row that is not iterable raises csv.Error.
void csv_write_row(std::string& out, nb::handle row);

// ------------------------------------------------------------------ JSON ---

// Appends json.dumps(obj, ensure_ascii=False, indent=indent) (UTF-8). Raises
// TypeError and ValueError as json.dumps does (unsupported types, bad keys,
// circular references, NaN is written as NaN). Strings holding lone surrogates
// raise the UnicodeEncodeError that writing them to a UTF-8 file would raise.
void json_dumps(nb::handle obj, int indent, std::string& out);

// json.loads(text): the same objects (key order, duplicate keys last wins, ints
// and floats, NaN/Infinity) and json.JSONDecodeError on the same inputs.
nb::object json_loads(std::string_view text);

// json.loads(open(path).read()) through the module's `json` global, as table
// loading code reads a JSON file. While that global's loads is the standard
// library's, the native decoder reads the file's UTF-8 directly (same objects,
// same errors, no str copy of the text); a host that replaced the module's
// `json` or its `loads` gets its replacement called with the text.
nb::object load_json_file(nb::handle path);

// Remembers the standard library's json.loads, taken when the module starts.
void remember_standard_json_loads(nb::handle loads);

// ------------------------------------------------------- bulk building ---

// ------------------------------------------------------------ file writes --

// Replaces the file at `path` (str or os.PathLike) with `data` atomically: the
// bytes go to a temporary file in the same folder, are flushed, and the temporary
// file is renamed over the target. On any failure the previous file is untouched,
// no temporary file remains, and the OSError that open()/write() would raise is
// raised (errno and filename set). A new file gets the mode open() would give it;
// an existing file keeps its mode.
void write_file_atomic(nb::handle path, std::string_view data);

// json.dump(obj, f, ensure_ascii=False, indent=indent) into the file at `path`,
// replaced atomically as write_file_atomic does. The text goes to the temporary
// file in pieces as it is encoded, so a table of hundreds of MB never exists
// as one string. The target is checked and the temporary file made first, as
// open() comes before json.dump; an encoding error afterwards (TypeError,
// ValueError, UnicodeEncodeError) leaves the previous file whole and removes the
// temporary one.
void dump_json_file_atomic(nb::handle obj, int indent, nb::handle path);

// ------------------------------------------------------------ internals ---

// Shared by the codec files (codecs.cpp, json.cpp).

// A path as open() takes it: os.fspath(path) (kept as the filename of errors)
// and its file-system bytes.
struct FsPath {
    nb::object given;
    std::string bytes;
};
FsPath fs_path(nb::handle path);

// The OSError subclass open() raises for this errno, with errno, text and filename.
[[noreturn]] void raise_os_error(int err, nb::handle filename);

// UTF-8 of a str object; lone surrogates are kept (encoded as such) when
// `keep_surrogates`, else they raise the UnicodeEncodeError a UTF-8 write raises.
std::string_view utf8_of(nb::handle s, nb::object& keeper, bool keep_surrogates);

// Defines the internal submodule `_codec` of `m`: thin wrappers over the
// functions above, for the package's own tools (the table tool, the web front
// end's beam store) and the tests and benchmarks. Not part of the public API.
void define_codec_submodule(nb::module_& m);

}  // namespace vex::py
