// The internal submodule `_codec`: the codec functions reachable from Python so
// that tests can compare them with the standard library and benchmarks can time
// them. Drivers never use it.
#include "py/codecs.h"
#include "codec/atomic_file.h"
#include "py/capi.h"

#include <cerrno>

#include <nanobind/stl/string.h>

namespace vex::py {
namespace {

// UTF-8 of a str, lone surrogates kept, as a C++ caller would hand it over.
std::string utf8_arg(nb::handle s) {
    if (!PyUnicode_Check(s.ptr())) raise(PyExc_TypeError, "a str is required");
    PyObject* bytes = PyUnicode_AsEncodedString(s.ptr(), "utf-8", "surrogatepass");
    if (!bytes) raise_already_set();
    nb::object owner = nb::steal(bytes);
    return std::string(bytes_view(bytes));
}

nb::object rows_as_lists(CsvReader& reader) {
    nb::list rows;
    CsvRow row;
    while (reader.next(row)) {
        nb::list fields;
        for (const std::string& field : row) fields.append(str(field));
        rows.append(fields);
    }
    return rows;
}

// csv_rows(source, drop_nul=False): source is a str (split into lines here) or
// an iterable of lines. Returns (rows, line_num).
nb::object csv_rows(nb::handle source, nb::handle drop_nul) {
    const bool drop = PyObject_IsTrue(drop_nul.ptr()) == 1;
    if (PyUnicode_Check(source.ptr())) {
        const std::string text = utf8_arg(source);
        CsvReader reader(std::string_view(text), drop);
        nb::object rows = rows_as_lists(reader);
        return nb::make_tuple(rows, reader.line_num());
    }
    CsvReader reader(source, drop);
    nb::object rows = rows_as_lists(reader);
    return nb::make_tuple(rows, reader.line_num());
}

// csv_text(rows): the text csv.writer writes for these rows.
nb::object csv_text(nb::handle rows) {
    std::string out;
    for (nb::handle row : rows) csv_write_row(out, row);
    return str(out);
}

nb::object json_text(nb::handle obj, nb::handle indent) {
    std::string out;
    json_dumps(obj, nb::cast<int>(indent), out);
    return str(out);
}

// csv_file_numbers(path, int_columns): the rows of a CSV file with the first
// cell kept as text and every other cell converted, by int() in the listed
// columns and by float() elsewhere; empty rows are skipped. The work a table
// parser does, for the benchmark against csv.reader with int()/float().
nb::object csv_file_numbers(nb::handle path, nb::handle int_columns) {
    std::vector<bool> is_int;
    for (nb::handle column : int_columns) {
        const std::size_t index = nb::cast<std::size_t>(column);
        if (index >= is_int.size()) is_int.resize(index + 1, false);
        is_int[index] = true;
    }
    const std::string text = read_text_file(path);
    CsvReader reader{std::string_view(text)};
    GcPause no_collection;
    nb::list rows;
    CsvFields row;
    while (reader.next(row)) {
        if (row.empty()) continue;
        nb::list converted = nb::steal<nb::list>(PyList_New(static_cast<Py_ssize_t>(row.size())));
        list_fill(converted.ptr(), 0, str(row[0]).release().ptr());
        for (std::size_t i = 1; i < row.size(); ++i) {
            nb::object value = i < is_int.size() && is_int[i] ? int_from_text(row[i]) : float_from_text(row[i]);
            list_fill(converted.ptr(), static_cast<Py_ssize_t>(i), value.release().ptr());
        }
        rows.append(converted);
    }
    return rows;
}

void write_atomic(nb::handle path, nb::handle data) {
    if (PyBytes_Check(data.ptr())) {
        write_file_atomic(path, bytes_view(data.ptr()));
        return;
    }
    write_file_atomic(path, utf8_arg(data));
}

std::string bytes_arg(nb::handle b) {
    if (!PyBytes_Check(b.ptr())) raise(PyExc_TypeError, "a bytes path is required");
    return std::string(bytes_view(b.ptr()));
}

// The writer as it works where the file system refuses unnamed temporary files.
void write_atomic_named(nb::handle path, nb::handle data) {
    const std::string where = bytes_arg(path);
    const std::string content = bytes_arg(data);
    if (const int err = codec::write_file_atomic(where, content, codec::Staging::Named)) {
        errno = err;
        PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, path.ptr());
        raise_already_set();
    }
}

// (name, kind, pid, host, local, stale) of each file the module owns in a folder.
nb::list owned_files(nb::handle folder) {
    nb::list found;
    for (const codec::OwnedFile& f : codec::owned_files(bytes_arg(folder)))
        found.append(
            nb::make_tuple(nb::bytes(f.name.data(), f.name.size()), f.kind, f.pid, f.host, f.local, f.stale));
    return found;
}

}  // namespace

void define_codec_submodule(nb::module_& m) {
    nb::module_ c = m.def_submodule("_codec",
                                    "Internal: the module's native codecs (JSON, CSV, numbers, atomic file "
                                    "writing) for the package's own tools: the table tool, the web front end's "
                                    "beam store, the tests and benchmarks. Not part of the public API.");
    c.def("read_text_file", [](nb::handle path) { return str(read_text_file(path)); }, arg("path"));
    c.def("int_from_text", [](nb::handle s) { return int_from_text(utf8_arg(s)); }, arg("text"));
    c.def("float_from_text", [](nb::handle s) { return float_from_text(utf8_arg(s)); }, arg("text"));
    c.def("double_from_text", [](nb::handle s) { return double_from_text(utf8_arg(s)); }, arg("text"));
    c.def("longlong_from_text", [](nb::handle s) { return longlong_from_text(utf8_arg(s)); }, arg("text"));
    c.def("csv_rows", &csv_rows, arg("source"), arg("drop_nul") = false);
    c.def("csv_text", &csv_text, arg("rows"));
    c.def("csv_file_numbers", &csv_file_numbers, arg("path"), arg("int_columns"));
    c.def("json_dumps", &json_text, arg("obj"), arg("indent"));
    c.def("json_loads", [](nb::handle s) { return json_loads(utf8_arg(s)); }, arg("text"));
    c.def("json_load_file", [](nb::handle path) { return json_loads(read_text_file(path)); }, arg("path"));
    c.def("write_file_atomic", &write_atomic, arg("path"), arg("data"));
    c.def(
        "dump_json_file_atomic",
        [](nb::handle obj, nb::handle indent, nb::handle path) {
            dump_json_file_atomic(obj, nb::cast<int>(indent), path);
        },
        arg("obj"), arg("indent"), arg("path"));
    // Paths as bytes (os.fsencode): the staging and owned-file helpers of the
    // atomic writer, for the table tool's check and for tests.
    c.def("write_file_atomic_named", &write_atomic_named, arg("path"), arg("data"));
    c.def("owned_files", &owned_files, arg("folder"));
    c.def(
        "remove_stale_temporaries",
        [](nb::handle folder) { return codec::remove_stale_temporaries(bytes_arg(folder)); }, arg("folder"));
}

}  // namespace vex::py
