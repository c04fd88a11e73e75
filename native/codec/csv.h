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

    std::vector<std::string>& fields() { return fields_; }
    CsvError error() const { return error_; }
    long field_limit() const { return field_limit_; }

private:
    enum class State {
        start_record, start_field, in_field, in_quoted_field,
        quote_in_quoted_field, eat_crnl,
    };
    bool process(char c);
    bool process_end_of_line();
    bool add_char(char c);
    void save_field();
    bool fail(CsvError e) { error_ = e; return false; }

    long field_limit_;
    State state_ = State::start_record;
    std::string field_;
    long field_chars_ = 0;      // code points in field_, what the limit counts
    std::vector<std::string> fields_;
    std::size_t used_fields_ = 0;   // fields_ keeps its strings to reuse their storage
    CsvError error_ = CsvError::none;

public:
    // The fields of the current record (fields_ may hold spare strings beyond).
    std::size_t field_count() const { return used_fields_; }
};

// Appends one field as the writer writes it with minimal quoting: quoted when it
// holds the delimiter, the quote or a line-end character, quotes doubled.
void csv_append_field(std::string& out, std::string_view field, bool first);
// Ends a record that began at out[record_start] with `fields` fields: a record
// that is one empty field is written as "" so that it reads back as a field;
// then "\r\n".
void csv_end_record(std::string& out, std::size_t record_start, std::size_t fields);

}  // namespace vex::codec
