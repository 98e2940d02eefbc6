/// A run that is being read: what the messages told so far, and what is needed to understand the next.
#ifndef FPD_LOG_OPEN_RUN_H
#define FPD_LOG_OPEN_RUN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "message_table.h"
#include "outcome.h"
#include "record.h"
#include "run.h"

namespace fpd_log {

/// How far the run is. It never goes back but for a stage, which begins with a discovery.
enum class Phase { start, discovery, planning, upgrading, ended };

/// What is known of a region besides what is told of it.
struct RegionNotes {
    bool discovered = false;  // in this stage
    bool decided = false;     // its outcome and reason are set
    Undecided undecided;
    int coming_thread = 0;     // of the worker whose first line stands before that of its creation; 0: none
    std::vector<int> threads;  // of the attempts, 0: not known
};

struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

/// A record that waits until it is known what it belongs to.
struct HeldRecord {
    Record record;  // its views are those of the text
    std::string component, tag, place, text;
    const Message *message = nullptr;
};

inline constexpr std::size_t no_region = static_cast<std::size_t>(-1);

struct OpenRun {
    Run run;
    RunLimits limits;
    Phase phase = Phase::start;
    std::string stage;                // begun, told or concluded: "1.a", "1.b", "2"; empty: none, or not known yet
    std::size_t discovered_here = 0;  // regions of this stage
    bool planned_here = false;        // something, in this stage
    std::vector<RegionNotes> notes;   // of each region
    std::unordered_map<std::string, std::size_t, TextHash, std::equal_to<>> by_name;
    std::unordered_map<int, std::size_t> in_hand;  // by thread: the region of its last message with a name
    std::vector<HeldRecord> held;                  // of a region that has no name yet
    bool found_nameless = false;                   // a region of which nothing says why it got no name
    std::size_t kept_bytes = 0;
    bool clock_known = false, clock_failed = false;
    std::int64_t clock = 0;  // s, the last of the run
    Time main_time = 0;      // of the main thread's last line
    Time last_punch = 0;
    bool flash_is_mounted = false;
};

/// A run that begins with this record.
OpenRun begin_run(const RunLimits &limits, std::string_view source, std::uint64_t number, const Record &record);

/// What a record tells about its run. `belongs_to_named`: of the records of a region's life before it had a name.
void take_record(OpenRun &open, const Record &record, const Message &message, const Captures &captures);
/// A transition that a region made before it had a name.
void take_early_transition(OpenRun &open, std::string_view name, const Record &record, const Captures &captures);
/// Counts a record of the run, and keeps its time.
void count_record(OpenRun &open, const Record &record);
void take_unknown(OpenRun &open, std::string_view text, std::uint64_t lines);

/// The next stage of manufacturing: every region is looked at anew.
void begin_stage(OpenRun &open, std::string_view stage, Time time);
/// The stage that the run turns out to have been in.
void conclude_stage(OpenRun &open, std::string_view stage, Time time);

/// Index of the region in the run, made where there is none; no_region: over the limit.
std::size_t region_of(OpenRun &open, std::string_view name);

/// Gives every region an outcome and a reason, as far as the log told. Can be called again when it told more.
void settle(OpenRun &open);
/// The run as its taker gets it.
Run closed(OpenRun &&open);

}  // namespace fpd_log

#endif
