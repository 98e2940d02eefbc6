/// From the text of a log to its records: lines put together, their fields taken apart.
#ifndef FPD_LOG_RECORD_H
#define FPD_LOG_RECORD_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "message_table.h"
#include "run.h"

namespace fpd_log {

/// A message of the tool with what the log says about it; views into the text that it was read from.
struct Record {
    std::uint64_t number = 0;  // of its first line, 1 is the first of the source
    std::uint64_t lines = 1;   // that it goes over
    Time time = 0;
    int process = 0, thread = 0;
    Level level = Level::debug;
    std::string_view component, tag, place, text;
};

/// Longer lines, and longer messages of several lines, are not understood.
inline constexpr std::size_t max_record_size = 65536;  // bytes

/// Reads dates once a second of the log.
struct DateCache {
    char text[19] = "";  // "2026-11-22 06:02:23"
    Time time = 0;       // of that second, if it were UTC
};

/// Takes "2026-11-22 06:02:23[ ZONE]"; false: the text is another.
bool parse_whole_seconds(std::string_view text, DateCache &dates, Time *time);

/// The fields of a line that begins a record; its text is the rest of the line, the closing bracket included.
/// False: the line does not begin one.
bool parse_header(std::string_view line, DateCache &dates, Record *record);

/// Cuts a text into records. What is in none is unknown. Takes the text in pieces cut anywhere; memory is bounded by
/// max_record_size.
class RecordReader {
  public:
    struct Sink {
        /// A record that the table knows.
        std::function<void(const Record &, const Message &, const Captures &)> known;
        /// Lines that belong to no such record, joined by line breaks; a part of them where they are very long.
        std::function<void(std::string_view text, std::uint64_t lines)> unknown;
    };

    explicit RecordReader(Sink sink) : sink_(std::move(sink)) {}

    void push(std::string_view text);
    /// The text ends. The reader can begin another, whose first line is line 1.
    void finish();

  private:
    void take_line(std::string_view line);
    void take_piece(std::string_view piece);
    void begin_record(const Record &record, std::string_view piece);
    void continue_record(std::string_view piece);
    bool hand_over(const Record &record, bool at_once);
    bool hand_over_open(std::size_t size, bool at_once);
    void end_record();

    Sink sink_;
    DateCache dates_;
    std::uint64_t number_ = 0;  // of the line that is being read
    std::string line_;          // begun, its end is still to come
    bool line_is_too_long_ = false;

    // The record whose end is not known yet: the next line may go on with its message.
    std::string open_;    // empty: there is none
    Record open_record_;  // its views are those of the line that began it, and not valid
    std::uint64_t open_lines_ = 0;
    std::size_t complete_size_ = 0;  // of open_ up to the last line that ended with a bracket; 0: none
    std::uint64_t complete_lines_ = 0;
    int tries_ = 0;
};

}  // namespace fpd_log

#endif
