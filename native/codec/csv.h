// A CSV reader and writer for the default dialect (delimiter ",", quote '"',
// doubled quotes, no escape character, no initial-space skipping, not strict).
//
// The reader is the same character-by-character state machine as the standard
// csv.reader: it is fed one line at a time and decides per character, so the
// same input gives the same records and the same errors. Text is UTF-8; every
// character the machine looks at is ASCII, so it can walk bytes, counting code
// points only for the field size limit.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vex::codec {

enum class CsvError {
    none,
    field_too_large,    // "field larger than field limit (N)"
    newline_in_field,   // a character after "\r" or "\n" outside quotes
};

class CsvParser {
public:
    explicit CsvParser(long field_limit) : field_limit_(field_limit) {}

    // Starts a new record: clears the fields gathered so far.
    void reset();
    // Feeds one line (normally ending in "\n"), then the end-of-line mark.
    // Returns false on an error, see error().
    bool feed_line(std::string_view line);
    // True when the fed lines completed a record.
    bool record_done() const { return state_ == State::start_record; }
    // At the end of the input: keeps a last field left open (an unterminated
    // quoted field) and tells whether there is a record to hand out.
    bool finish();

    // The fields of the record handed out: views into the parser's buffer,
    // valid until the next reset().
    std::size_t field_count() const { return field_ends_.size(); }
    std::string_view field(std::size_t i) const {
        const std::size_t begin = i == 0 ? 0 : field_ends_[i - 1];
        return std::string_view(record_).substr(begin, field_ends_[i] - begin);
    }
    CsvError error() const { return error_; }
    long field_limit() const { return field_limit_; }

private:
    enum class State {
        start_record,
        start_field,
        in_field,
        in_quoted_field,
        quote_in_quoted_field,
        eat_crnl,
    };
    bool process(char c);
    bool process_end_of_line();
    bool add_char(char c);
    bool add_run(std::string_view run);
    void save_field();
    bool fail(CsvError e) {
        error_ = e;
        return false;
    }

    long field_limit_;
    State state_ = State::start_record;
    // All fields of the record back to back; field_ends_ marks where each ends.
    // One buffer reused record after record: no allocation per field.
    std::string record_;
    std::vector<std::size_t> field_ends_;
    long field_chars_ = 0;      // code points in the open field, what the limit counts
    CsvError error_ = CsvError::none;
};

// Appends one field as the writer writes it with minimal quoting: quoted when it
// holds the delimiter, the quote or a line-end character, quotes doubled.
void csv_append_field(std::string& out, std::string_view field, bool first);
// Ends a record that began at out[record_start] with `fields` fields: a record
// that is one empty field is written as "" so that it reads back as a field;
// then "\r\n".
void csv_end_record(std::string& out, std::size_t record_start, std::size_t fields);

}  // namespace vex::codec
