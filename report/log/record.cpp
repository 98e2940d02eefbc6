#include "record.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <optional>

namespace fpd_log {
namespace {

// Of a message that ends with its line break within: more would make the time quadratic.
constexpr int max_tries = 16;

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

/// Whether the text has a digit for each '0' of the shape, and its other characters.
bool has_shape(std::string_view text, std::string_view shape) {
    if (text.size() < shape.size()) return false;
    for (std::size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == '0' ? !is_digit(text[i]) : text[i] != shape[i]) return false;
    return true;
}

constexpr std::string_view date_shape = "0000-00-00 00:00:00";

int number_of(std::string_view digits) {
    int number = 0;
    for (const char digit : digits) number = number * 10 + (digit - '0');
    return number;
}

/// µs since 1970 of a date as date_shape has it; nullopt: there is no such date.
std::optional<Time> time_of(std::string_view date) {
    using namespace std::chrono;
    const year_month_day day{year{number_of(date.substr(0, 4))},
                             month{static_cast<unsigned>(number_of(date.substr(5, 2)))},
                             std::chrono::day{static_cast<unsigned>(number_of(date.substr(8, 2)))}};
    const int hour = number_of(date.substr(11, 2));
    const int minute = number_of(date.substr(14, 2));
    const int second = number_of(date.substr(17, 2));
    if (!day.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    const auto days = sys_days(day).time_since_epoch().count();
    return ((static_cast<Time>(days) * 24 + hour) * 60 + minute) * 60'000'000 + second * Time{1'000'000};
}

/// µs east of UTC, of a zone that is named by its offset ("+03", "-0330"); other names do not tell, and are taken for
/// UTC.
Time offset_of(std::string_view zone) {
    const bool hours_alone = zone.size() == 3;
    if ((!hours_alone && zone.size() != 5) || (zone[0] != '+' && zone[0] != '-')) return 0;
    if (!std::all_of(zone.begin() + 1, zone.end(), is_digit)) return 0;
    const int minutes = number_of(zone.substr(1, 2)) * 60 + (hours_alone ? 0 : number_of(zone.substr(3, 2)));
    return (zone[0] == '-' ? -1 : 1) * minutes * Time{60'000'000};
}

/// Takes "2026-11-22 06:02:23" off the front of the text.
bool take_second(std::string_view &text, DateCache &dates, Time *time) {
    if (text.size() < date_shape.size()) return false;
    if (std::memcmp(text.data(), dates.text, sizeof dates.text) != 0) {
        if (!has_shape(text, date_shape)) return false;
        const std::optional<Time> second = time_of(text.substr(0, date_shape.size()));
        if (!second) return false;
        std::memcpy(dates.text, text.data(), sizeof dates.text);
        dates.time = *second;
    }
    *time = dates.time;
    text.remove_prefix(date_shape.size());
    return true;
}

/// Takes " ZONE", or nothing: a long name is not written.
bool parse_zone(std::string_view text, Time *time) {
    if (text.empty()) return true;
    if (text.size() < 2 || text.size() > 13 || text[0] != ' ') return false;
    *time -= offset_of(text.substr(1));
    return true;
}

/// Takes "2026-11-22 06:02:23.MICROSECONDS[ ZONE]". The microseconds have no leading zeros: ".5" is 5 µs.
bool parse_time(std::string_view text, DateCache &dates, Time *time) {
    if (!take_second(text, dates, time) || text.size() < 2 || text[0] != '.' || !is_digit(text[1])) return false;
    const char *const end = text.data() + text.size();
    int microseconds = 0;
    const auto [rest, error] = std::from_chars(text.data() + 1, end, microseconds);
    if (error != std::errc() || microseconds > 999'999) return false;
    *time += microseconds;
    return parse_zone({rest, static_cast<std::size_t>(end - rest)}, time);
}

/// Takes "[FIELD]" off the front of the text.
bool take_field(std::string_view &text, std::string_view *field) {
    if (text.empty() || text[0] != '[') return false;
    const std::size_t end = text.find(']');
    if (end == std::string_view::npos) return false;
    *field = text.substr(1, end - 1);
    text.remove_prefix(end + 1);
    return true;
}

bool take_next_field(std::string_view &text, std::string_view *field) {
    if (text.empty() || text[0] != ' ') return false;
    text.remove_prefix(1);
    return take_field(text, field);
}

bool parse_ids(std::string_view text, int *process, int *thread) {
    const char *const end = text.data() + text.size();
    const auto [colon, error] = std::from_chars(text.data(), end, *process);
    if (error != std::errc() || colon == end || *colon != ':') return false;
    const auto [rest, thread_error] = std::from_chars(colon + 1, end, *thread);
    return thread_error == std::errc() && rest == end;
}

bool parse_level(std::string_view word, Level *level) {
    if (word == "DEBUG")
        *level = Level::debug;
    else if (word == "INFO")
        *level = Level::info;
    else if (word == "ERROR")
        *level = Level::error;
    else
        return false;
    return true;
}

/// Where the last record of the line begins that is not at its front: a line that was cut off by a power cut has the
/// next boot's first line right after it. 0: there is none.
std::size_t find_glued_record(std::string_view line, DateCache &dates) {
    std::size_t found = 0;
    for (std::size_t at = line.find('[', 1); at != std::string_view::npos; at = line.find('[', at + 1)) {
        // Cheap for what is almost always another bracket: fewer digits than a year has.
        if (!has_shape(line.substr(at + 1), "0000-")) continue;
        Record record;
        if (parse_header(line.substr(at), dates, &record)) found = at;
    }
    return found;
}

}  // namespace

bool parse_whole_seconds(std::string_view text, DateCache &dates, Time *time) {
    return take_second(text, dates, time) && parse_zone(text, time);
}

bool parse_header(std::string_view line, DateCache &dates, Record *record) {
    std::string_view field;
    if (!has_shape(line, "[0000-") || !take_field(line, &field) || !parse_time(field, dates, &record->time))
        return false;
    if (!take_next_field(line, &field) || !parse_ids(field, &record->process, &record->thread)) return false;
    if (!take_next_field(line, &record->component)) return false;
    if (!take_next_field(line, &field) || !parse_level(field, &record->level)) return false;
    if (!take_next_field(line, &record->tag) || !take_next_field(line, &record->place)) return false;
    if (!line.starts_with(" [")) return false;
    record->text = line.substr(2);
    return true;
}

void RecordReader::push(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view part = text.substr(0, end);
        if (end != std::string_view::npos && line_.empty() && !line_is_too_long_ && part.size() <= max_record_size) {
            take_line(part);
        } else {
            const std::size_t room = max_record_size - line_.size();
            line_is_too_long_ |= part.size() > room;
            line_ += part.substr(0, room);
            if (end != std::string_view::npos) {
                const std::string line = std::move(line_);
                line_.clear();
                take_line(line);
            }
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

void RecordReader::finish() {
    if (!line_.empty()) {
        const std::string line = std::move(line_);
        line_.clear();
        take_line(line);
    }
    end_record();
    number_ = 0;
}

void RecordReader::take_line(std::string_view line) {
    ++number_;
    if (line_is_too_long_) {
        line_is_too_long_ = false;
        end_record();
        sink_.unknown(line, 1);
        return;
    }
    if (line.ends_with('\r')) line.remove_suffix(1);
    const std::size_t glued = find_glued_record(line, dates_);
    if (glued != 0) take_piece(line.substr(0, glued));
    take_piece(line.substr(glued));
}

void RecordReader::take_piece(std::string_view piece) {
    Record record;
    if (parse_header(piece, dates_, &record)) {
        end_record();
        record.number = number_;
        begin_record(record, piece);
    } else if (!open_.empty()) {
        continue_record(piece);
    } else {
        sink_.unknown(piece, 1);
    }
}

void RecordReader::begin_record(const Record &record, std::string_view piece) {
    if (messages_of(record.tag).empty()) {
        sink_.unknown(piece, 1);
        return;
    }
    const bool complete = piece.ends_with(']');
    if (complete) {
        Record whole = record;
        whole.text.remove_suffix(1);
        if (hand_over(whole, true)) return;
    }
    open_ = piece;
    open_record_ = record;
    open_lines_ = 1;
    complete_size_ = complete ? open_.size() : 0;
    complete_lines_ = complete ? 1 : 0;
    tries_ = 0;
}

void RecordReader::continue_record(std::string_view piece) {
    ++open_lines_;
    if (open_.size() + 1 + piece.size() > max_record_size) return;
    open_ += '\n';
    open_ += piece;
    if (!piece.ends_with(']')) return;
    complete_size_ = open_.size();
    complete_lines_ = open_lines_;
    if (++tries_ <= max_tries && hand_over_open(complete_size_, true)) open_.clear();
}

/// Hands the record over if the table knows its message. `at_once`: with the next line still to come, so that only a
/// message that tells its own end can be known to be whole.
bool RecordReader::hand_over(const Record &record, bool at_once) {
    for (const Message &message : messages_of(record.tag)) {
        Captures captures;
        if ((at_once && has_open_end(message)) || !match(message, record.text, &captures)) continue;
        sink_.known(record, message, captures);
        return true;
    }
    return false;
}

/// The same for the first `size` bytes of what is open.
bool RecordReader::hand_over_open(std::size_t size, bool at_once) {
    Record record = open_record_;
    // Whole lines were added: the fields are where they were.
    if (!parse_header(std::string_view(open_).substr(0, size), dates_, &record)) return false;
    record.text.remove_suffix(1);
    record.lines = complete_lines_;
    return hand_over(record, at_once);
}

void RecordReader::end_record() {
    if (open_.empty()) return;
    std::string_view rest = open_;
    std::uint64_t lines = open_lines_;
    if (complete_size_ != 0 && hand_over_open(complete_size_, false)) {
        rest.remove_prefix(std::min(rest.size(), complete_size_ + 1));
        lines -= complete_lines_;
    }
    if (lines != 0) sink_.unknown(rest, lines);
    open_.clear();
}

}  // namespace fpd_log
