#include "codec/json.h"

#include "codec/numbers.h"

#include <cmath>

namespace vex::codec {
namespace {

// Whether the byte must be written as an escape.
inline bool needs_escape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }

void append_escape(std::string& out, unsigned char c) {
    static const char hex[] = "0123456789abcdef";
    switch (c) {
    case '"': out.append("\\\""); return;
    case '\\': out.append("\\\\"); return;
    case '\n': out.append("\\n"); return;
    case '\r': out.append("\\r"); return;
    case '\t': out.append("\\t"); return;
    case '\b': out.append("\\b"); return;
    case '\f': out.append("\\f"); return;
    default:
        out.append("\\u00");
        out.push_back(hex[c >> 4]);
        out.push_back(hex[c & 0xF]);
    }
}

}  // namespace

void append_json_string(std::string& out, std::string_view utf8) {
    out.push_back('"');
    std::size_t run_start = 0;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(utf8[i]);
        if (!needs_escape(c)) continue;
        out.append(utf8.data() + run_start, i - run_start);
        append_escape(out, c);
        run_start = i + 1;
    }
    out.append(utf8.data() + run_start, utf8.size() - run_start);
    out.push_back('"');
}

void append_json_float(std::string& out, double value) {
    if (std::isnan(value))
        out.append("NaN");
    else if (std::isinf(value))
        out.append(value > 0 ? "Infinity" : "-Infinity");
    else
        append_float_repr(out, value);
}

void append_newline_indent(std::string& out, std::size_t spaces) {
    out.push_back('\n');
    out.append(spaces, ' ');
}

}  // namespace vex::codec
