#include "codec/csv.h"
#include "codec/text.h"

namespace vex::codec {

void CsvParser::reset() {
    record_.clear();
    field_ends_.clear();
    field_chars_ = 0;
    state_ = State::start_record;
    error_ = CsvError::none;
}

bool CsvParser::add_char(char c) {
    const bool starts_code_point = (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    if (starts_code_point) {
        if (field_chars_ >= field_limit_) return fail(CsvError::field_too_large);
        ++field_chars_;
    }
    record_.push_back(c);
    return true;
}

void CsvParser::save_field() {
    field_ends_.push_back(record_.size());
    field_chars_ = 0;
}

namespace {

// Where the run of characters that only extend the field ends: the machine
// would add each of them in turn, so they are added in one go.
std::size_t run_end(std::string_view line, std::size_t i, bool quoted) {
    const std::size_t n = line.size();
    if (quoted) {
        const std::size_t quote = line.find('"', i);
        return quote == std::string_view::npos ? n : quote;
    }
    while (i < n && line[i] != ',' && line[i] != '\n' && line[i] != '\r') ++i;
    return i;
}

}  // namespace

bool CsvParser::add_run(std::string_view run) {
    const std::size_t chars = count_code_points(run);
    if (field_chars_ + static_cast<long>(chars) > field_limit_) return fail(CsvError::field_too_large);
    field_chars_ += static_cast<long>(chars);
    record_.append(run);
    return true;
}

bool CsvParser::feed_line(std::string_view line) {
    std::size_t i = 0;
    while (i < line.size()) {
        if (state_ == State::in_field || state_ == State::in_quoted_field) {
            const std::size_t end = run_end(line, i, state_ == State::in_quoted_field);
            if (end > i && !add_run(line.substr(i, end - i))) return false;
            i = end;
            if (i == line.size()) break;
        }
        if (!process(line[i++])) return false;
    }
    return process_end_of_line();
}

bool CsvParser::process(char c) {
    switch (state_) {
    case State::start_record:
        if (c == '\n' || c == '\r') {
            state_ = State::eat_crnl;
            return true;
        }
        state_ = State::start_field;
        [[fallthrough]];
    case State::start_field:
        if (c == '\n' || c == '\r') {
            save_field();
            state_ = State::eat_crnl;
        } else if (c == '"') {
            state_ = State::in_quoted_field;
        } else if (c == ',') {
            save_field();
        } else {
            if (!add_char(c)) return false;
            state_ = State::in_field;
        }
        return true;
    case State::in_field:
        if (c == '\n' || c == '\r') {
            save_field();
            state_ = State::eat_crnl;
        } else if (c == ',') {
            save_field();
            state_ = State::start_field;
        } else {
            return add_char(c);
        }
        return true;
    case State::in_quoted_field:
        if (c == '"')
            state_ = State::quote_in_quoted_field;
        else
            return add_char(c);
        return true;
    case State::quote_in_quoted_field:
        if (c == '"') {
            if (!add_char(c)) return false;
            state_ = State::in_quoted_field;
        } else if (c == ',') {
            save_field();
            state_ = State::start_field;
        } else if (c == '\n' || c == '\r') {
            save_field();
            state_ = State::eat_crnl;
        } else {
            // Not strict: text after a closing quote joins the field.
            if (!add_char(c)) return false;
            state_ = State::in_field;
        }
        return true;
    case State::eat_crnl:
        if (c == '\n' || c == '\r') return true;
        return fail(CsvError::newline_in_field);
    }
    return true;
}

// The end of a line: ends the record unless a quoted field is open.
bool CsvParser::process_end_of_line() {
    switch (state_) {
    case State::start_record:
    case State::in_quoted_field: return true;
    case State::start_field:
    case State::in_field:
    case State::quote_in_quoted_field:
        save_field();
        state_ = State::start_record;
        return true;
    case State::eat_crnl: state_ = State::start_record; return true;
    }
    return true;
}

bool CsvParser::finish() {
    if (field_chars_ != 0 || state_ == State::in_quoted_field) {
        save_field();
        return true;
    }
    return false;
}

void csv_append_field(std::string& out, std::string_view field, bool first) {
    if (!first) out.push_back(',');
    bool needs_quotes = false;
    for (char c : field) {
        if (c == ',' || c == '"' || c == '\r' || c == '\n') {
            needs_quotes = true;
            break;
        }
    }
    if (!needs_quotes) {
        out.append(field);
        return;
    }
    out.push_back('"');
    for (char c : field) {
        if (c == '"') out.push_back('"');
        out.push_back(c);
    }
    out.push_back('"');
}

void csv_end_record(std::string& out, std::size_t record_start, std::size_t fields) {
    if (fields > 0 && out.size() == record_start) out.append("\"\"");
    out.append("\r\n");
}

}  // namespace vex::codec
