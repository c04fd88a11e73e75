#include "codec/text.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vex::codec {
namespace {

// Length of the valid UTF-8 sequence starting at raw[i], or 0 when it is not
// valid. Follows the well-formed byte sequences table of Unicode, which is the
// exact set the strict 'utf-8' codec accepts.
std::size_t utf8_sequence_length(std::string_view raw, std::size_t i) {
    const auto at = [&](std::size_t k) -> unsigned { return static_cast<unsigned char>(raw[k]); };
    const std::size_t left = raw.size() - i;
    const unsigned b0 = at(i);
    if (b0 < 0x80) return 1;
    const auto cont = [&](std::size_t k) { return k < left && (at(i + k) & 0xC0) == 0x80; };
    if (b0 >= 0xC2 && b0 <= 0xDF) return cont(1) ? 2 : 0;
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (left < 2) return 0;
        const unsigned b1 = at(i + 1);
        const unsigned lo = b0 == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
        const unsigned hi = b0 == 0xED ? 0x9F : 0xBF;   // no surrogates
        if (b1 < lo || b1 > hi) return 0;
        return cont(2) ? 3 : 0;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (left < 2) return 0;
        const unsigned b1 = at(i + 1);
        const unsigned lo = b0 == 0xF0 ? 0x90 : 0x80;   // no overlong forms
        const unsigned hi = b0 == 0xF4 ? 0x8F : 0xBF;   // nothing above U+10FFFF
        if (b1 < lo || b1 > hi) return 0;
        return cont(2) && cont(3) ? 4 : 0;
    }
    return 0;
}

}  // namespace

bool is_strict_utf8(std::string_view raw) {
    const std::size_t n = raw.size();
    for (std::size_t i = 0; i < n;) {
        // Skip plain ASCII eight bytes at a time: nearly all of a table file.
        while (i + 8 <= n) {
            std::uint64_t word;
            std::memcpy(&word, raw.data() + i, 8);
            if (word & 0x8080808080808080ULL) break;
            i += 8;
        }
        if (i >= n) break;
        const std::size_t len = utf8_sequence_length(raw, i);
        if (len == 0) return false;
        i += len;
    }
    return true;
}

void translate_newlines(std::string& text) {
    std::size_t write = text.find('\r');
    if (write == std::string::npos) return;
    for (std::size_t read = write; read < text.size(); ++read) {
        const char c = text[read];
        if (c != '\r') {
            text[write++] = c;
            continue;
        }
        text[write++] = '\n';
        if (read + 1 < text.size() && text[read + 1] == '\n') ++read;
    }
    text.resize(write);
}

std::size_t count_code_points(std::string_view utf8) {
    std::size_t n = 0;
    for (char c : utf8) n += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return n;
}

int read_file_bytes(const char* path, std::string& out) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    struct stat st;
    int err = ::fstat(fd, &st) != 0 ? errno : 0;
    if (err == 0 && S_ISDIR(st.st_mode)) err = EISDIR;
    // Read straight into the result; the size is only a hint, the loop reads to
    // the end whatever the file's length is by then.
    std::size_t used = out.size();
    if (err == 0) out.resize(used + (st.st_size > 0 ? static_cast<std::size_t>(st.st_size) : 0) + 1);
    while (err == 0) {
        if (used == out.size()) out.resize(out.size() * 2 + 4096);
        const ssize_t got = ::read(fd, &out[used], out.size() - used);
        if (got == 0) break;
        if (got < 0) {
            if (errno != EINTR) err = errno;
            continue;
        }
        used += static_cast<std::size_t>(got);
    }
    out.resize(used);
    ::close(fd);
    return err;
}

}  // namespace vex::codec
