/// What a diagnostic log tells about one run of the tool: the regions it looked at, what became of each, and why.
///
/// Plain data, made by RunReader and owned by whoever takes it. Every text is as the log has it, control characters
/// included: whoever shows one escapes it for where it is shown. Times are of the card's real-time clock (UTC), in
/// microseconds since 1970; 0: the log does not say.
#ifndef FPD_LOG_RUN_H
#define FPD_LOG_RUN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fpd_log {

using Time = std::int64_t;  // microseconds since 1970-01-01 00:00:00 UTC; 0: unknown

enum class Level { error, info, debug };

/// What became of a region in one run.
enum class Outcome {
    not_considered,  // not for this run: no automatic upgrade, not at boot, not of this stage or mode
    current,         // judged, and nothing newer is packaged for it
    planned,         // would be upgraded; the run only answered, or the marker stopped it
    upgraded,        // at the first attempt
    upgraded_at_second_attempt,
    failed,      // the upgrade itself reported a failure, at the last attempt too
    given_up,    // no worker, a worker that was stuck, or a dependency that was not upgraded
    refused,     // planning refused it: checksum, minimum version, dependency, nothing packaged, ...
    unfinished,  // the log ends, or the next run begins, while it waited or was upgraded
};

/// How one attempt to upgrade a region ended.
enum class AttemptEnd { done, failed, stuck, not_started, unfinished };

/// One worker's life.
struct Attempt {
    Time begin = 0;    // the worker was created
    Time end = 0;      // done, failed, or found stuck; 0: unfinished
    int progress = 0;  // percent, the last that was reported
    AttemptEnd how = AttemptEnd::unfinished;
    std::string reason;  // of a failure, as the worker or the supervision gave it
};

/// A region entered a state of the state model.
struct Transition {
    Time time = 0;
    std::string from, to;    // the state texts, without quotes: "FPD Queued for Upgrade"
    std::int64_t clock = 0;  // s, the card's monotonic clock
};

/// One line of the log, kept as evidence.
struct Line {
    std::uint64_t number = 0;  // 1 is the first of the input it stands in
    Time time = 0;
    int process = 0, thread = 0;
    Level level = Level::debug;
    std::string component;  // "FPD"
    std::string tag;        // "FpdUpgResponseDone"
    std::string place;      // "brd_intf_auto_fpd_upgrade_handler:153"
    std::string text;       // the message; it may hold line breaks
};

struct Region {
    std::string name;
    std::string running, programmed, packaged;  // versions as the log has them; empty: not told
    std::string image, md5;                     // of the packaged firmware
    std::string verdict;                        // what the package said ("status_msg")
    std::optional<bool> upgrade_needed;
    std::optional<std::uint32_t> capabilities;
    std::optional<int> queue;  // sequence queue it was planned for
    std::string dependency;    // the FPD it waits for; empty: none told
    std::string state;         // the last state entered
    int retries = 0;
    std::vector<Attempt> attempts;
    std::vector<Transition> transitions;  // the first `RunLimits::transitions`
    Outcome outcome = Outcome::not_considered;
    std::string reason;                // one line for a reader, never empty in a finished run
    std::vector<Line> lines;           // that tell it: errors and what decided the outcome, at most RunLimits::lines
    std::uint64_t lines_left_out = 0;  // of those, over the limit
};

/// What happened to the card rather than to a region.
enum class EventKind {
    stage,           // a manufacturing stage begins
    marker_skip,     // the same FPDs and versions as before: the run was skipped
    run_start,       // the announcement of the start or the first worker
    led,             // text: the LED's state and colour
    watchdog_punch,  // counted in Run, only the first and the last are kept as events
    watchdog_punch_failed,
    event_failed,  // an event could not be sent
    flash_mounted,
    flash_failed,
    flash_released,
    run_end,     // nothing left in the sequence queues
    activation,  // text: the reload type
    activation_failed,
};

struct Event {
    Time time = 0;
    EventKind kind = EventKind::run_start;
    std::string text;
};

/// One process of the tool.
struct Run {
    std::string source;        // the file it was read from; the first, if it goes over several
    std::uint64_t number = 0;  // 1 is the first of its source
    int process = 0;
    Time begin = 0, end = 0;  // of its first and last line
    bool upgrades = false;    // it started to upgrade; otherwise it only looked, or had nothing to do
    bool finished = false;    // it came to its end, be it an error: the log was not cut off before
    bool reload_requested = false;
    bool skipped_by_marker = false;
    bool disabled = false;        // automatic upgrade is switched off on the system
    std::string stage;            // "1.a", "1.b", "2" when the log tells; empty: regular
    std::string failure;          // the error that ended the run as a whole; empty: none
    std::vector<Region> regions;  // in the order of discovery, at most RunLimits::regions
    std::vector<Event> events;
    std::vector<Line> errors;  // of no region
    std::uint64_t lines = 0, unknown_lines = 0, watchdog_punches = 0;
    std::uint64_t left_out = 0;        // regions, events and errors over a limit
    std::vector<std::string> unknown;  // lines that the table does not know, the first RunLimits::unknown
};

/// What one run may keep, whatever a log holds: the bound of the memory.
struct RunLimits {
    std::size_t regions = 4096, transitions = 64, lines = 64, events = 1024, errors = 256, unknown = 16, text = 4096;
    std::size_t bytes = 32 << 20;  // of all that together
};

/// A word for an outcome, in lower case, as tables and documents have it: "upgraded at the second attempt".
const char *outcome_text(Outcome outcome);
/// One word with underscores, for documents read by machines: "upgraded_at_second_attempt".
const char *outcome_key(Outcome outcome);
const char *attempt_end_key(AttemptEnd end);
const char *event_key(EventKind kind);
const char *level_key(Level level);

/// Everything is well: the region runs, or after the reload will run, what is packaged, or was not for this run.
bool is_well(Outcome outcome);

}  // namespace fpd_log

#endif
