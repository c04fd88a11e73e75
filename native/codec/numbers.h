// Fast conversions of the plain number forms that fill table cells. Anything
// else (whitespace, underscores, inf/nan words, non-ASCII digits, errors) is left
// to the caller's fall-back, which gives Python's own results for it.
#pragma once

#include <string>
#include <string_view>

namespace vex::codec {

// [+-]?[0-9]+ fitting in a long long: true and the value.
bool parse_plain_int(std::string_view text, long long& value);

// [+-]?([0-9]+(\.[0-9]*)?|\.[0-9]+)([eE][+-]?[0-9]+)?: true and the correctly
// rounded double, the value float() gives for the same text.
bool parse_plain_double(std::string_view text, double& value);

// Appends repr(float) for a finite value: the shortest digits that read back
// as the same double, in exponent form ("1e-05", "1.5e+16") when the decimal
// exponent is below -4 or at least 16, else in positional form with ".0" added
// to whole numbers.
void append_float_repr(std::string& out, double value);

// Appends the decimal text of an integer.
void append_int(std::string& out, long long value);

}  // namespace vex::codec
