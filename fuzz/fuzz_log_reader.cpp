/// The reader of the diagnostic log: any text gives the same runs in whichever pieces, within the limits.
#include <algorithm>
#include <sstream>

#include "flash_log.h"
#include "run_reader.h"
#include "target.h"

namespace {

using fpd_log::Region;
using fpd_log::Run;

constexpr fpd_log::RunLimits limits{
    .regions = 4, .transitions = 5, .lines = 3, .events = 4, .errors = 3, .unknown = 2, .text = 64, .bytes = 20'000};

void check_region(const Region &region, bool *unfinished) {
    require(!region.name.empty(), "a region has a name");
    require(!region.reason.empty(), "a region has a reason");
    require(region.reason.find('\n') == std::string::npos, "a reason is one line");
    require(region.transitions.size() <= limits.transitions, "transitions within the limit");
    require(region.lines.size() <= limits.lines, "lines within the limit");
    for (const fpd_log::Line &line : region.lines) require(line.text.size() <= limits.text, "text within the limit");
    *unfinished = *unfinished || region.outcome == fpd_log::Outcome::unfinished;
}

void check_run(const Run &run) {
    require(run.regions.size() <= limits.regions, "regions within the limit");
    require(run.events.size() <= limits.events, "events within the limit");
    require(run.errors.size() <= limits.errors, "errors within the limit");
    require(run.unknown.size() <= limits.unknown, "unknown lines within the limit");
    require(run.unknown_lines <= run.lines, "unknown lines are lines");
    require(run.begin <= run.end, "a run ends after it begins");
    bool unfinished = false;
    for (const Region &region : run.regions) check_region(region, &unfinished);
    require(run.finished == !unfinished, "finished is without unfinished regions");
}

/// What the runs of the text tell, in short; it is pushed in pieces of `piece` bytes.
std::string runs_of(std::string_view text, std::size_t piece, bool look) {
    std::ostringstream told;
    std::uint64_t lines = 0;
    const auto text_lines = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    fpd_log::RunReader reader(
        [&](Run &&run) {
            check_run(run);
            lines += run.lines;
            told << run.number << ' ' << run.process << ' ' << run.lines << ' ' << run.unknown_lines << ' ' << run.stage
                 << ' ' << run.failure << ' ' << run.left_out << '\n';
            for (const Region &region : run.regions)
                told << region.name << ' ' << outcome_key(region.outcome) << ' ' << region.reason << ' '
                     << region.attempts.size() << ' ' << region.transitions.size() << '\n';
        },
        limits);
    for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
        reader.push(text.substr(0, piece));
        if (look && reader.open_run()) require(!reader.open_run()->source.size(), "the source has no name");
    }
    reader.finish();
    require(reader.open_run() == nullptr, "nothing is open at the end");
    // A line that was cut off counts twice: for what was cut, and for the record that is glued to it.
    require(lines <= 2 * text_lines, "no line is counted that is not there");
    return told.str();
}

}  // namespace

void run_input(std::string_view input) {
    const std::string whole = runs_of(input, std::max<std::size_t>(input.size(), 1), false);
    require_equal(runs_of(input, 1, false), whole, "byte by byte");
    require_equal(runs_of(input, 61, true), whole, "in pieces, and looked at");
    fpd_log::parse_flash_line(input);
}
