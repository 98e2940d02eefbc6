#include "run_text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "shown_text.h"
#include "table.h"
#include "verdict.h"

namespace fpd_report {
namespace {

using fpd_log::Outcome;
using fpd_log::Region;
using fpd_log::Run;

constexpr std::size_t table_indent = 2, below_indent = 4;

/// The attempts have a column of their own.
std::string outcome_word(Outcome outcome) {
    return fpd_log::outcome_text(outcome == Outcome::upgraded_at_second_attempt ? Outcome::upgraded : outcome);
}

bool was_tried(const Region &region) {
    return !region.attempts.empty();
}

std::string attempts_text(const Region &region) {
    if (!was_tried(region)) return {};
    const std::size_t count = region.attempts.size();
    return std::to_string(count) + (count == 1 ? " attempt" : " attempts");
}

std::string time_of(const Region &region) {
    const auto time = upgrade_time(region);
    return time ? duration_text(*time) : "";
}

/// The reason stands in the row of a region that was not tried, where it fits; "current" and "upgraded" say it all.
bool reason_is_told(const Region &region) {
    return !region.reason.empty() && region.outcome != Outcome::current && region.outcome != Outcome::upgraded;
}

Row region_row(const Region &region) {
    return {{region.name},
            {region.running},
            {region.programmed},
            {region.packaged},
            {outcome_word(region.outcome), outcome_colour(region.outcome)},
            {attempts_text(region)},
            {time_of(region)}};
}

const Row &heading_row() {
    static const Row row = {{"REGION", Colour::heading},
                            {"RUNNING", Colour::heading},
                            {"PROGRAMMED", Colour::heading},
                            {"PACKAGED", Colour::heading},
                            {"OUTCOME", Colour::heading},
                            {"", Colour::none},
                            {"", Colour::none}};
    return row;
}

std::vector<const Region *> worst_first(const Run &run) {
    std::vector<const Region *> regions;
    for (const Region &region : run.regions) regions.push_back(&region);
    std::stable_sort(regions.begin(), regions.end(), [](const Region *one, const Region *other) {
        return outcome_rank(one->outcome) < outcome_rank(other->outcome);
    });
    return regions;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char letter) { return std::toupper(letter); });
    return text;
}

/// "06:02:13.287626 ERROR FpdUpgResponseFail: text"
std::string line_text(const fpd_log::Line &line) {
    std::string result = clock_text(line.time) + " " + upper(fpd_log::level_key(line.level)) + " ";
    if (!line.tag.empty()) result += line.tag + ": ";
    return result + line.text;
}

/// The last lines, as many as are wanted, and how many are not there.
std::string lines_text(const std::vector<fpd_log::Line> &lines, std::uint64_t left_out, const TextOptions &options) {
    const std::size_t count = std::min(lines.size(), options.lines);
    if (count == 0) return {};
    std::string result;
    const std::uint64_t earlier = lines.size() - count + left_out;
    if (earlier > 0) {
        result +=
            paragraph("(" + std::to_string(earlier) + " more of the log)", below_indent, Colour::faint, options.style);
    }
    for (auto line = lines.end() - static_cast<std::ptrdiff_t>(count); line != lines.end(); ++line) {
        result += paragraph(line_text(*line), below_indent, Colour::faint, options.style);
    }
    return result;
}

/// What does not fit into the region's row.
std::string below_region(const Region &region, const TextOptions &options) {
    std::string result;
    if (reason_is_told(region)) result += paragraph(region.reason, below_indent, Colour::none, options.style);
    if (!fpd_log::is_well(region.outcome)) result += lines_text(region.lines, region.lines_left_out, options);
    return result;
}

std::string regions_text(const Run &run, const TextOptions &options) {
    const std::vector<const Region *> regions = worst_first(run);
    std::vector<Row> rows = {heading_row()};
    for (const Region *region : regions) rows.push_back(region_row(*region));
    const std::vector<std::string> lines = table_lines(rows, table_indent, options.style);
    std::string result = lines.front() + "\n";
    for (std::size_t at = 0; at < regions.size(); ++at) {
        result += lines[at + 1] + "\n" + below_region(*regions[at], options);
    }
    return result;
}

std::string errors_text(const Run &run, const TextOptions &options) {
    if (run.errors.empty() || options.lines == 0) return {};
    return paragraph("errors of no region:", table_indent, Colour::none, options.style) +
           lines_text(run.errors, 0, options);
}

std::string counts_text(const Run &run, const TextOptions &options) {
    std::string result;
    if (run.unknown_lines > 0) {
        result += paragraph(std::to_string(run.unknown_lines) + " of " + std::to_string(run.lines) +
                                " lines are not known to this program" +
                                (run.unknown.empty() ? "" : ", the first: " + run.unknown.front().substr(0, 200)),
                            table_indent, Colour::none, options.style);
    }
    if (run.left_out > 0) {
        result += paragraph(std::to_string(run.left_out) + " more regions, events and errors are left out",
                            table_indent, Colour::none, options.style);
    }
    return result;
}

std::string flash_text(const std::vector<fpd_log::FlashEvent> &events, const TextOptions &options) {
    std::string result;
    if (!events.empty()) result += paragraph("the flash log:", table_indent, Colour::none, options.style);
    for (const fpd_log::FlashEvent &event : events) {
        result += paragraph(time_text(event.time) + " " + event.text, below_indent, Colour::faint, options.style);
    }
    return result;
}

}  // namespace

std::string run_text(const Run &run, const std::optional<std::vector<fpd_log::FlashEvent>> &flash_events,
                     const TextOptions &options) {
    std::string result = paragraph(verdict(run), 0, is_well(run) ? Colour::good : Colour::bad, options.style);
    if (options.brief) return result;
    if (!run.regions.empty()) result += regions_text(run, options);
    result += errors_text(run, options) + counts_text(run, options);
    if (flash_events) result += flash_text(*flash_events, options);
    return result;
}

Colour outcome_colour(Outcome outcome) {
    switch (outcome) {
        case Outcome::failed:
        case Outcome::given_up:
        case Outcome::unfinished:
            return Colour::bad;
        case Outcome::refused:
        case Outcome::planned:
            return Colour::doubtful;
        case Outcome::upgraded:
        case Outcome::upgraded_at_second_attempt:
            return Colour::good;
        case Outcome::current:
        case Outcome::not_considered:
            break;
    }
    return Colour::none;
}

std::string duration_text(fpd_log::Time duration) {
    const long long seconds = duration / 1'000'000;
    char text[48];
    if (seconds < 60) {
        std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(duration) / 1e6);
    } else if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%lldm%02llds", seconds / 60, seconds % 60);
    } else {
        std::snprintf(text, sizeof text, "%lldh%02lldm", seconds / 3600, seconds / 60 % 60);
    }
    return text;
}

std::optional<fpd_log::Time> upgrade_time(const Region &region) {
    if (region.attempts.empty()) return std::nullopt;
    const fpd_log::Time begin = region.attempts.front().begin;
    const fpd_log::Time end = region.attempts.back().end;
    if (begin == 0 || end < begin) return std::nullopt;
    return end - begin;
}

}  // namespace fpd_report
