// JSON for Python objects, both ways.
//
// Decoding: json.loads for UTF-8 text, building the same objects as the
// standard decoder's C scanner: the same grammar walk, the same error messages
// and positions (in characters), keys memoized so equal keys share one str.
// It is faster than the scanner because it reads UTF-8 directly (no str of the
// whole document unless an error must be reported), converts numbers without an
// intermediate object, and sizes every list once.
//
// Encoding: json.dumps as the pure-Python encoder walks, into one buffer or
// streamed into an atomically replaced file.
#include "py/codecs.h"
#include "py/capi.h"

#include "codec/atomic_file.h"
#include "codec/json.h"
#include "codec/numbers.h"
#include "codec/text.h"
#include "py/stdlib_messages.h"

#include <charconv>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

namespace vex::py {
namespace {

// A new reference that is released unless handed on.
struct Ref {
    PyObject* p = nullptr;
    explicit Ref(PyObject* o = nullptr) : p(o) {}
    ~Ref() { Py_XDECREF(p); }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    PyObject* release() {
        PyObject* o = p;
        p = nullptr;
        return o;
    }
};

PyObject* checked(PyObject* o) {
    if (!o) raise_already_set();
    return o;
}

bool is_whitespace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// A failure found while scanning: the message and the byte offset, turned into
// a JSONDecodeError (which counts characters) by the caller.
struct ScanError {
    const char* message;
    std::size_t offset;
};

// A str from UTF-8: ASCII is copied straight into a new compact str.
PyObject* make_str(const char* data, std::size_t size, bool ascii) {
    if (ascii) {
        return checked(ascii_str(data, size));
    }
    return checked(PyUnicode_DecodeUTF8(data, static_cast<Py_ssize_t>(size), "surrogatepass"));
}

void append_utf8(std::string& out, unsigned cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {   // lone surrogates too, read back with surrogatepass
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

class JsonDecoder {
public:
    explicit JsonDecoder(std::string_view text) : text_(text) {
        nb::module_ decoder = nb::module_::import_("json.decoder");
        // The decoder hands out its own NaN and infinities, so repeated ones are one object.
        nan_ = decoder.attr("NaN");
        inf_ = decoder.attr("PosInf");
        neg_inf_ = decoder.attr("NegInf");
    }
    ~JsonDecoder() {
        for (PyObject* o : stack_) Py_DECREF(o);
        for (auto& entry : memo_) Py_DECREF(entry.second);
    }

    PyObject* document() {
        std::size_t i = skip_whitespace(0);
        Ref value(scan_value(i, i));
        i = skip_whitespace(i);
        if (i != text_.size()) throw ScanError{"Extra data", i};
        return value.release();
    }

private:
    std::size_t skip_whitespace(std::size_t i) const {
        while (i < text_.size() && is_whitespace(text_[i])) ++i;
        return i;
    }
    bool at(std::size_t i, char c) const { return i < text_.size() && text_[i] == c; }
    bool matches(std::size_t i, std::string_view word) const { return text_.compare(i, word.size(), word) == 0; }

    // One value starting at i (no whitespace before it); `next` gets the offset after it.
    PyObject* scan_value(std::size_t i, std::size_t& next) {
        if (i >= text_.size()) throw ScanError{"Expecting value", i};
        switch (text_[i]) {
        case '"': return scan_string(i + 1, next, false);
        case '{':
            return nested(" while decoding a JSON object from a unicode string",
                          [&] { return scan_object(i + 1, next); });
        case '[':
            return nested(" while decoding a JSON array from a unicode string",
                          [&] { return scan_array(i + 1, next); });
        case 'n':
            if (matches(i, "null")) {
                next = i + 4;
                Py_RETURN_NONE;
            }
            break;
        case 't':
            if (matches(i, "true")) {
                next = i + 4;
                Py_RETURN_TRUE;
            }
            break;
        case 'f':
            if (matches(i, "false")) {
                next = i + 5;
                Py_RETURN_FALSE;
            }
            break;
        case 'N':
            if (matches(i, "NaN")) {
                next = i + 3;
                return nan_.inc_ref().ptr();
            }
            break;
        case 'I':
            if (matches(i, "Infinity")) {
                next = i + 8;
                return inf_.inc_ref().ptr();
            }
            break;
        case '-':
            if (matches(i, "-Infinity")) {
                next = i + 9;
                return neg_inf_.inc_ref().ptr();
            }
            break;
        }
        return scan_number(i, next);
    }

    template <class F>
    PyObject* nested(const char* where, F&& scan) {
        if (Py_EnterRecursiveCall(where)) raise_already_set();
        struct Leave {
            ~Leave() { Py_LeaveRecursiveCall(); }
        } leave;
        return scan();
    }

    // The number grammar of the scanner: -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][-+]?[0-9]+)?
    // where a fraction or exponent that does not complete is left unread.
    PyObject* scan_number(std::size_t start, std::size_t& next) {
        const std::size_t n = text_.size();
        std::size_t i = start;
        if (text_[i] == '-' && ++i >= n) throw ScanError{"Expecting value", start};
        if (text_[i] >= '1' && text_[i] <= '9') {
            while (++i < n && is_digit(text_[i])) {}
        } else if (text_[i] == '0') {
            ++i;
        } else {
            throw ScanError{"Expecting value", start};
        }
        bool is_float = false;
        if (i + 1 < n && text_[i] == '.' && is_digit(text_[i + 1])) {
            is_float = true;
            i += 2;
            while (i < n && is_digit(text_[i])) ++i;
        }
        if (i + 1 < n && (text_[i] == 'e' || text_[i] == 'E')) {
            const std::size_t e_start = i++;
            if (i + 1 < n && (text_[i] == '-' || text_[i] == '+')) ++i;
            while (i < n && is_digit(text_[i])) ++i;
            if (is_digit(text_[i - 1]))
                is_float = true;
            else
                i = e_start;
        }
        next = i;
        return is_float ? make_float(start, i) : make_int(start, i);
    }

    PyObject* make_float(std::size_t start, std::size_t end) {
        double value = 0;
        const char* first = text_.data() + start;
        const char* last = text_.data() + end;
        const auto result = std::from_chars(first, last, value);
        if (result.ec == std::errc() && result.ptr == last) return checked(PyFloat_FromDouble(value));
        // Beyond the double range: float() gives inf or a signed zero.
        Ref s(checked(PyUnicode_FromStringAndSize(first, static_cast<Py_ssize_t>(end - start))));
        return checked(PyFloat_FromString(s.p));
    }

    PyObject* make_int(std::size_t start, std::size_t end) {
        if (end - start <= 18) {
            long long value = 0;
            std::from_chars(text_.data() + start, text_.data() + end, value);
            return checked(PyLong_FromLongLong(value));
        }
        std::string digits(text_.substr(start, end - start));
        return checked(PyLong_FromString(digits.c_str(), nullptr, 10));
    }

    // A string whose opening quote is at start - 1. Keys go through the memo.
    PyObject* scan_string(std::size_t start, std::size_t& next, bool is_key) {
        const std::size_t n = text_.size();
        std::size_t i = start;
        bool ascii = true;
        while (i < n) {
            const unsigned char c = static_cast<unsigned char>(text_[i]);
            if (c == '"' || c == '\\') break;
            if (c <= 0x1f) throw ScanError{"Invalid control character at", i};
            ascii = ascii && c < 0x80;
            ++i;
        }
        if (i >= n) throw ScanError{"Unterminated string starting at", start - 1};
        if (text_[i] == '"') {
            next = i + 1;
            return finish_string(text_.substr(start, i - start), ascii, is_key);
        }
        std::string decoded(text_.substr(start, i - start));
        i = unescape(start, i, decoded);
        next = i;
        return finish_string(decoded, false, is_key);
    }

    PyObject* finish_string(std::string_view utf8, bool ascii, bool is_key) {
        if (!is_key) return make_str(utf8.data(), utf8.size(), ascii);
        auto found = memo_.find(utf8);
        if (found != memo_.end()) {
            Py_INCREF(found->second);
            return found->second;
        }
        PyObject* key = make_str(utf8.data(), utf8.size(), ascii);
        // The memo's view must outlive the scan: text views do, decoded keys are kept.
        std::string_view stable = utf8;
        if (utf8.data() < text_.data() || utf8.data() >= text_.data() + text_.size())
            stable = decoded_keys_.emplace_back(utf8);
        memo_.emplace(stable, key);
        Py_INCREF(key);
        return key;
    }

    // Reads the rest of a string from the backslash at i, appending to `out`;
    // returns the offset after the closing quote.
    std::size_t unescape(std::size_t start, std::size_t i, std::string& out) {
        const std::size_t n = text_.size();
        for (;;) {
            // text_[i] is '"' or '\\' here.
            if (text_[i] == '"') return i + 1;
            if (i + 1 >= n) throw ScanError{"Unterminated string starting at", start - 1};
            const char e = text_[i + 1];
            if (e == 'u') {
                i = unicode_escape(i, out);
            } else {
                const char c = simple_escape(e);
                if (!c) throw ScanError{"Invalid \\escape", i};
                out.push_back(c);
                i += 2;
            }
            while (i < n) {
                const unsigned char c = static_cast<unsigned char>(text_[i]);
                if (c == '"' || c == '\\') break;
                if (c <= 0x1f) throw ScanError{"Invalid control character at", i};
                out.push_back(static_cast<char>(c));
                ++i;
            }
            if (i >= n) throw ScanError{"Unterminated string starting at", start - 1};
        }
    }

    static char simple_escape(char e) {
        switch (e) {
        case '"': return '"';
        case '\\': return '\\';
        case '/': return '/';
        case 'b': return '\b';
        case 'f': return '\f';
        case 'n': return '\n';
        case 'r': return '\r';
        case 't': return '\t';
        default: return 0;
        }
    }

    // Four hex digits at i; -1 when one is not a hex digit.
    long hex4(std::size_t i) const {
        long value = 0;
        for (std::size_t k = i; k < i + 4; ++k) {
            const char d = text_[k];
            value <<= 4;
            if (d >= '0' && d <= '9')
                value |= d - '0';
            else if (d >= 'a' && d <= 'f')
                value |= d - 'a' + 10;
            else if (d >= 'A' && d <= 'F')
                value |= d - 'A' + 10;
            else
                return -1;
        }
        return value;
    }

    // "\uXXXX" at i (the backslash), joined with a following "\uXXXX" low
    // surrogate into one character as the scanner does; returns the offset after.
    std::size_t unicode_escape(std::size_t i, std::string& out) {
        const std::size_t n = text_.size();
        // The scanner wants a character after the four digits (the string must go on).
        if (i + 6 >= n) throw ScanError{"Invalid \\uXXXX escape", i + 1};
        long cp = hex4(i + 2);
        if (cp < 0) throw ScanError{"Invalid \\uXXXX escape", i + 1};
        i += 6;
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 6 < n && text_[i] == '\\' && text_[i + 1] == 'u') {
            const long low = hex4(i + 2);
            if (low < 0) throw ScanError{"Invalid \\uXXXX escape", i + 1};
            if (low >= 0xDC00 && low <= 0xDFFF) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                i += 6;
            }
        }
        append_utf8(out, static_cast<unsigned>(cp));
        return i;
    }

    // The position of the next item after the comma at `comma`. A closing bracket
    // there is refused at the comma by interpreters that name the trailing comma;
    // older ones fail on the bracket itself, as a missing item.
    std::size_t after_comma(std::size_t comma, char closing, const char* trailing_comma) {
        const std::size_t i = skip_whitespace(comma + 1);
        if (at(i, closing) && stdlib_messages().json_names_trailing_comma) throw ScanError{trailing_comma, comma};
        return i;
    }

    PyObject* scan_object(std::size_t i, std::size_t& next) {
        Ref dict(checked(PyDict_New()));
        i = skip_whitespace(i);
        if (!at(i, '}')) {
            for (;;) {
                if (!at(i, '"')) throw ScanError{"Expecting property name enclosed in double quotes", i};
                Ref key(scan_string(i + 1, i, true));
                i = skip_whitespace(i);
                if (!at(i, ':')) throw ScanError{"Expecting ':' delimiter", i};
                i = skip_whitespace(i + 1);
                Ref value(scan_value(i, i));
                if (PyDict_SetItem(dict.p, key.p, value.p) < 0) raise_already_set();
                i = skip_whitespace(i);
                if (at(i, '}')) break;
                if (!at(i, ',')) throw ScanError{"Expecting ',' delimiter", i};
                i = after_comma(i, '}', "Illegal trailing comma before end of object");
            }
        }
        next = i + 1;
        return dict.release();
    }

    // Items gather on a shared stack, so each list is made once at its final size.
    PyObject* scan_array(std::size_t i, std::size_t& next) {
        const std::size_t base = stack_.size();
        i = skip_whitespace(i);
        if (!at(i, ']')) {
            for (;;) {
                stack_.push_back(scan_value(i, i));
                i = skip_whitespace(i);
                if (at(i, ']')) break;
                if (!at(i, ',')) throw ScanError{"Expecting ',' delimiter", i};
                i = after_comma(i, ']', "Illegal trailing comma before end of array");
            }
        }
        const std::size_t count = stack_.size() - base;
        PyObject* list = checked(PyList_New(static_cast<Py_ssize_t>(count)));
        for (std::size_t k = 0; k < count; ++k) list_fill(list, static_cast<Py_ssize_t>(k), stack_[base + k]);
        stack_.resize(base);
        next = i + 1;
        return list;
    }

    std::string_view text_;
    nb::object nan_, inf_, neg_inf_;
    std::vector<PyObject*> stack_;   // owned references of unfinished lists
    std::unordered_map<std::string_view, PyObject*> memo_;   // owned keys
    std::deque<std::string> decoded_keys_;
};

[[noreturn]] void raise_decode_error(std::string_view text, const char* message, std::size_t offset) {
    nb::object document = str(text);
    const std::size_t position = codec::count_code_points(text.substr(0, offset));
    nb::object error_type = nb::module_::import_("json.decoder").attr("JSONDecodeError");
    PyErr_SetObject(error_type.ptr(), error_type(message, document, position).ptr());
    raise_already_set();
}

}  // namespace

nb::object json_loads(std::string_view text) {
    if (text.substr(0, 3) == "\xEF\xBB\xBF")
        raise_decode_error(text, "Unexpected UTF-8 BOM (decode using utf-8-sig)", 0);
    // Fresh containers cannot form cycles: collecting while building only costs time.
    GcPause no_collection;
    try {
        JsonDecoder decoder(text);
        return nb::steal(decoder.document());
    } catch (const ScanError& e) {
        raise_decode_error(text, e.message, e.offset);
    }
}

// ============================================================= encoding ===

namespace {

const Name k_dunder_class{"__class__"};
const Name k_dunder_name{"__name__"};
const Name k_items{"items"};

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
    static nb::object class_name(PyObject* o) { return getattr(getattr(o, k_dunder_class), k_dunder_name); }

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
        if (PyFloat_Check(k))
            codec::append_json_float(text, float_value(k));
        else if (k == Py_True)
            text = "true";
        else if (k == Py_False)
            text = "false";
        else if (k == Py_None)
            text = "null";
        else if (PyLong_Check(k)) {
            std::swap(text, out_);
            try {
                integer(k);
            } catch (...) {
                std::swap(text, out_);
                throw;
            }
            std::swap(text, out_);
        } else {
            nb::object type =
                stdlib_messages().json_key_refusal_names_c_type ? str(type_name_of(k)) : class_name(k);
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
    static const Name g_json{"json"};
    static const Name k_loads{"loads"};
    nb::object loads = getattr(global(g_json), k_loads);
    if (loads.ptr() == g_standard_json_loads) return json_loads(read_text_file(path));
    return loads(str(read_text_file(path)));
}

}  // namespace vex::py
