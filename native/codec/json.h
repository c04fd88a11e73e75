// Pieces of JSON text written exactly as the standard json encoder writes them
// with ensure_ascii false.
#pragma once

#include <string>
#include <string_view>

namespace vex::codec {

// Appends a JSON string literal: the text in double quotes with '"', '\\' and the
// control characters below U+0020 escaped (short forms \n \r \t \b \f where they
// exist, else \u00XX in lower-case hex); everything else, non-ASCII included, as is.
void append_json_string(std::string& out, std::string_view utf8);

// Appends a float as the encoder writes it: NaN, Infinity, -Infinity, or repr.
void append_json_float(std::string& out, double value);

// Appends "\n" and `spaces` spaces.
void append_newline_indent(std::string& out, std::size_t spaces);

}  // namespace vex::codec
