#include "codec/csv.h"

namespace vex::codec {

void CsvParser::reset() {
    used_fields_ = 0;
    field_.clear();
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
    field_.push_back(c);
    return true;
}

void CsvParser::save_field() {
    if (used_fields_ == fields_.size()) fields_.emplace_back();
    fields_[used_fields_++].swap(field_);
    field_.clear();
    field_chars_ = 0;
}

bool CsvParser::feed_line(std::string_view line) {
    for (char c : line)
        if (!process(c)) return false;
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
        if (c == '"') state_ = State::quote_in_quoted_field;
        else return add_char(c);
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
    case State::in_quoted_field:
        return true;
    case State::start_field:
    case State::in_field:
    case State::quote_in_quoted_field:
        save_field();
        state_ = State::start_record;
        return true;
    case State::eat_crnl:
        state_ = State::start_record;
        return true;
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
