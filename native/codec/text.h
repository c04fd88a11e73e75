// Decoding file bytes the way Python's text mode does with UTF-8 and universal
// newlines, without any Python object.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vex::codec {

// True when `raw` is strict UTF-8.
bool is_strict_utf8(std::string_view raw);

// Turns "\r\n" and lone "\r" into "\n" in place.
void translate_newlines(std::string& text);

// The number of code points in valid UTF-8 text.
std::size_t count_code_points(std::string_view utf8);

// Reads the whole file. Returns 0 or the errno of the failing step; a directory
// gives EISDIR, as opening one for reading in Python does.
int read_file_bytes(const char* path, std::string& out);

}  // namespace vex::codec
