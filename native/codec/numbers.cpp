#include "codec/numbers.h"

#include <charconv>
#include <cmath>
#include <system_error>

namespace vex::codec {
namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

std::size_t skip_digits(std::string_view text, std::size_t i) {
    while (i < text.size() && is_digit(text[i])) ++i;
    return i;
}

// The exponent part "+XX" or "-XXX" of to_chars' scientific form.
int parse_exponent(const char* p, const char* end) {
    const bool negative = *p == '-';
    int value = 0;
    for (++p; p < end; ++p) value = value * 10 + (*p - '0');
    return negative ? -value : value;
}

// Values with at most three decimals below 1e9 (gains in 0.5 dB steps, phases
// in 1/8 degree steps: the bulk of every beam table), written from their scaled
// integer n. When n / 1000 reads back as exactly this double, the decimal n / 1000
// is also the shortest text that does (any other decimal of at most three places
// lies 0.001 or more away, far outside the value's rounding interval at this
// size), so it is what repr() prints. False for every other value.
bool append_short_decimal(std::string& out, double value) {
    if (!(value > -1e9 && value < 1e9)) return false;
    const double scaled = value * 1000.0;
    const long long n = static_cast<long long>(scaled);
    if (static_cast<double>(n) != scaled || static_cast<double>(n) / 1000.0 != value) return false;
    if (std::signbit(value)) out.push_back('-');   // also for -0.0
    const unsigned long long magnitude = static_cast<unsigned long long>(n < 0 ? -n : n);
    char buffer[24];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, magnitude / 1000).ptr;
    out.append(buffer, end);
    const unsigned fraction = static_cast<unsigned>(magnitude % 1000);
    const char decimals[4] = {'.', static_cast<char>('0' + fraction / 100),
                              static_cast<char>('0' + fraction / 10 % 10), static_cast<char>('0' + fraction % 10)};
    std::size_t length = 4;
    while (length > 2 && decimals[length - 1] == '0') --length;   // keeps one digit: "5.0"
    out.append(decimals, length);
    return true;
}

}  // namespace

bool parse_plain_int(std::string_view text, long long& value) {
    std::size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    const std::size_t digits = text.size() - i;
    // 18 digits always fit; longer text is rare and goes the general way.
    if (digits == 0 || digits > 18 || skip_digits(text, i) != text.size()) return false;
    long long v = 0;
    for (; i < text.size(); ++i) v = v * 10 + (text[i] - '0');
    value = negative ? -v : v;
    return true;
}

bool parse_plain_double(std::string_view text, double& value) {
    std::size_t i = 0;
    const std::size_t n = text.size();
    if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
    const std::size_t mantissa = i;
    const std::size_t int_end = skip_digits(text, i);
    std::size_t end = int_end;
    bool any_digit = int_end > mantissa;
    if (end < n && text[end] == '.') {
        const std::size_t frac_end = skip_digits(text, end + 1);
        any_digit = any_digit || frac_end > end + 1;
        end = frac_end;
    }
    if (!any_digit) return false;
    if (end < n && (text[end] == 'e' || text[end] == 'E')) {
        std::size_t e = end + 1;
        if (e < n && (text[e] == '+' || text[e] == '-')) ++e;
        const std::size_t exp_end = skip_digits(text, e);
        if (exp_end == e) return false;
        end = exp_end;
    }
    if (end != n) return false;
    // from_chars takes no '+' and reads the rest with the same grammar.
    const char* first = text.data() + (text[0] == '+' ? 1 : 0);
    const auto result = std::from_chars(first, text.data() + n, value);
    // Text beyond the double range is left to the fall-back (inf or a signed 0.0).
    return result.ec == std::errc() && result.ptr == text.data() + n;
}

void append_int(std::string& out, long long value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

void append_float_repr(std::string& out, double value) {
    if (append_short_decimal(out, value)) return;
    // Shortest round-trip digits and the decimal exponent, from scientific form
    // "-d.ddde+XX".
    char sci[40];
    const auto result = std::to_chars(sci, sci + sizeof sci, value, std::chars_format::scientific);
    const char* p = sci;
    if (*p == '-') {
        out.push_back('-');
        ++p;
    }
    char digits[20];
    int ndigits = 0;
    for (; *p != 'e'; ++p)
        if (*p != '.') digits[ndigits++] = *p;
    const int exponent = parse_exponent(p + 1, result.ptr);
    if (exponent < -4 || exponent >= 16) {
        out.push_back(digits[0]);
        if (ndigits > 1) {
            out.push_back('.');
            out.append(digits + 1, ndigits - 1);
        }
        out.push_back('e');
        out.push_back(exponent < 0 ? '-' : '+');
        const int magnitude = exponent < 0 ? -exponent : exponent;
        if (magnitude < 10) out.push_back('0');
        append_int(out, magnitude);
        return;
    }
    if (exponent < 0) {
        out.append("0.");
        out.append(static_cast<std::size_t>(-exponent - 1), '0');
        out.append(digits, ndigits);
        return;
    }
    const int int_digits = exponent + 1;
    if (ndigits <= int_digits) {
        out.append(digits, ndigits);
        out.append(static_cast<std::size_t>(int_digits - ndigits), '0');
        out.append(".0");
        return;
    }
    out.append(digits, int_digits);
    out.push_back('.');
    out.append(digits + int_digits, ndigits - int_digits);
}

}  // namespace vex::codec
