#include "open_run.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace fpd_log {
namespace {

// Longer than the tool writes them; what is kept of a hostile log is bounded as a whole, besides.
constexpr std::size_t name_limit = 256;
constexpr std::size_t version_limit = 64;
constexpr std::size_t state_limit = 64;
constexpr std::size_t word_limit = 256;
constexpr std::size_t reason_limit = 1024;
// A real region has two; the last is the one that decides.
constexpr std::size_t max_attempts = 16;

std::string cut(std::string_view text, std::size_t limit) {
    return std::string(text.substr(0, limit));
}

/// Without the quotes around it.
std::string_view unquoted(std::string_view text) {
    if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'') return text.substr(1, text.size() - 2);
    return text;
}

template <class Number>
Number number_of(std::string_view digits, int base = 10) {
    if (base == 16 && digits.starts_with("0x")) digits.remove_prefix(2);
    Number number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
    return number;
}

/// Whether there is memory for so much more of the run.
bool afford(OpenRun &open, std::size_t bytes) {
    if (open.kept_bytes + bytes > open.limits.bytes) return false;
    open.kept_bytes += bytes;
    return true;
}

Line line_of(const Record &record, std::size_t text_limit) {
    return {record.number,
            record.time,
            record.process,
            record.thread,
            record.level,
            cut(record.component, word_limit),
            cut(record.tag, word_limit),
            cut(record.place, word_limit),
            cut(record.text, text_limit)};
}

std::size_t size_of(const Line &line) {
    return sizeof line + line.component.size() + line.tag.size() + line.place.size() + line.text.size();
}

void keep_error(OpenRun &open, const Record &record) {
    Line line = line_of(record, open.limits.text);
    if (open.run.errors.size() >= open.limits.errors || !afford(open, size_of(line)))
        ++open.run.left_out;
    else
        open.run.errors.push_back(std::move(line));
}

void keep_line(OpenRun &open, Region &region, const Record &record) {
    // A stage that is planned twice says the same again.
    for (const Line &line : region.lines)
        if (line.tag == record.tag && line.text == record.text && line.level != Level::error) return;
    Line line = line_of(record, open.limits.text);
    if (region.lines.size() >= open.limits.lines || !afford(open, size_of(line)))
        ++region.lines_left_out;
    else
        region.lines.push_back(std::move(line));
}

void keep_event(OpenRun &open, Time time, EventKind kind, std::string_view text) {
    Event event{time, kind, cut(text, open.limits.text)};
    if (open.run.events.size() >= open.limits.events || !afford(open, sizeof event + event.text.size()))
        ++open.run.left_out;
    else
        open.run.events.push_back(std::move(event));
}

void reach(OpenRun &open, Phase phase) {
    open.phase = std::max(open.phase, phase);
}

void begin_upgrading(OpenRun &open, Time time) {
    reach(open, Phase::upgrading);
    if (open.run.upgrades) return;
    open.run.upgrades = true;
    keep_event(open, time, EventKind::run_start, "");
}

void decide(RegionNotes &notes, Region &region, const Verdict &verdict) {
    notes.decided = true;
    region.outcome = verdict.outcome;
    region.reason = cut(verdict.reason, reason_limit);
    // One line, whatever the log's own words held.
    std::replace(region.reason.begin(), region.reason.end(), '\n', ' ');
}

// Attempts ------------------------------------------------------------------------------------------------------------

void begin_attempt(RegionNotes &notes, Region &region, Time time) {
    if (region.attempts.size() == max_attempts) {
        region.attempts.pop_back();
        notes.threads.pop_back();
    }
    region.attempts.push_back({});
    region.attempts.back().begin = time;
    notes.threads.push_back(std::exchange(notes.coming_thread, 0));
}

bool is_open(const Region &region) {
    return !region.attempts.empty() && region.attempts.back().how == AttemptEnd::unfinished;
}

/// The attempt that is on; where the log does not tell how it began, it begins unknown.
Attempt &open_attempt(RegionNotes &notes, Region &region) {
    if (!is_open(region)) begin_attempt(notes, region, 0);
    return region.attempts.back();
}

/// The attempt of a worker's thread; null: none is known.
Attempt *attempt_of(const RegionNotes &notes, Region &region, int thread) {
    for (std::size_t i = region.attempts.size(); i-- > 0;)
        if (notes.threads[i] == thread) return &region.attempts[i];
    return nullptr;
}

void end_attempt(RegionNotes &notes, Region &region, Time time, AttemptEnd how) {
    Attempt &attempt = open_attempt(notes, region);
    attempt.end = time;
    attempt.how = how;
    if (how == AttemptEnd::done) attempt.progress = 100;
}

void report_progress(Attempt &attempt, std::string_view percent) {
    attempt.progress = std::clamp(number_of<int>(percent), attempt.progress, 100);
}

// Messages about a region ---------------------------------------------------------------------------------------------

struct AboutRegion {
    OpenRun &open;
    const Record &record;
    const Captures &captures;
    Region &region;
    RegionNotes &notes;
};

void take_transition(const AboutRegion &about) {
    Region &region = about.region;
    RegionNotes &notes = about.notes;
    const std::string_view from = unquoted(about.captures[1]);
    const std::string_view to = unquoted(about.captures[2]);
    region.state = cut(to, state_limit);
    Transition transition{about.record.time, cut(from, state_limit), cut(to, state_limit),
                          number_of<std::int64_t>(about.captures[3])};
    if (region.transitions.size() < about.open.limits.transitions &&
        afford(about.open, sizeof transition + transition.from.size() + transition.to.size()))
        region.transitions.push_back(std::move(transition));

    if (to == "FPD Queued for Upgrade") {
        notes.undecided.step = Undecided::Step::queued;
        notes.decided = false;
        about.open.planned_here = true;
    } else if (to == "FPD worker created for Upgrade") {
        begin_attempt(notes, region, about.record.time);
        notes.undecided.step = Undecided::Step::working;
        notes.decided = false;
        begin_upgrading(about.open, about.record.time);
    } else if (to == "FPD Upgrade Started" || to == "FPD Upgrade Progressing") {
        open_attempt(notes, region);
        notes.undecided.step = Undecided::Step::working;
        notes.decided = false;
        begin_upgrading(about.open, about.record.time);
    } else if (to == "FPD Dependent Upgrade required") {
        notes.decided = false;
    } else {
        if (to == "FPD Upgrade Done" && (is_open(region) || region.attempts.empty()))
            end_attempt(notes, region, about.record.time, AttemptEnd::done);
        if (to == "FPD Upgrade Failed" && (is_open(region) || region.attempts.empty()))
            end_attempt(notes, region, about.record.time, AttemptEnd::failed);
        if (notes.decided) return;
        if (std::optional<Verdict> verdict = verdict_of_state(to, about.open.phase >= Phase::upgrading, region))
            decide(notes, region, *verdict);
    }
}

void take_versions(const AboutRegion &about) {
    Region &region = about.region;
    region.running = cut(about.captures[1], version_limit);
    region.programmed = cut(about.captures[2], version_limit);
    region.packaged = cut(about.captures[3], version_limit);
    region.upgrade_needed = about.captures[4] != "0";
    region.verdict = cut(about.captures[5], reason_limit);
}

void take_response(const AboutRegion &about) {
    const std::string_view state = unquoted(about.captures[1]);
    if (state == "FPD Upgrade Progressing")
        report_progress(open_attempt(about.notes, about.region), about.captures[2]);
    else if (state == "FPD Upgrade Done")
        end_attempt(about.notes, about.region, about.record.time, AttemptEnd::done);
    else if (state == "FPD Upgrade Failed")
        end_attempt(about.notes, about.region, about.record.time, AttemptEnd::failed);
    begin_upgrading(about.open, about.record.time);
}

void take_stuck(const AboutRegion &about) {
    end_attempt(about.notes, about.region, about.record.time, AttemptEnd::stuck);
    Attempt &attempt = about.region.attempts.back();
    attempt.reason = cut(stuck_reason(about.captures[1], attempt.progress, number_of<std::int64_t>(about.captures[2]),
                                      number_of<std::int64_t>(about.captures[3])),
                         reason_limit);
}

void take_no_worker(const AboutRegion &about) {
    Region &region = about.region;
    if (about.notes.decided) return;  // it was given up, and not for want of a worker
    // Tried again at every look: one attempt as long as the reason is the same.
    if (!region.attempts.empty() && region.attempts.back().how == AttemptEnd::not_started &&
        region.attempts.back().reason == cut(about.captures[1], reason_limit)) {
        region.attempts.back().end = about.record.time;
        return;
    }
    begin_attempt(about.notes, region, about.record.time);
    region.attempts.back().end = about.record.time;
    region.attempts.back().how = AttemptEnd::not_started;
    region.attempts.back().reason = cut(about.captures[1], reason_limit);
}

void take_worker_start(const AboutRegion &about) {
    if (is_open(about.region) && about.notes.threads.back() == 0)
        about.notes.threads.back() = about.record.thread;
    else
        about.notes.coming_thread = about.record.thread;
}

void take_worker_failure(const AboutRegion &about) {
    Attempt *attempt = attempt_of(about.notes, about.region, about.record.thread);
    if (!attempt && !about.region.attempts.empty()) attempt = &about.region.attempts.back();
    if (attempt && attempt->how != AttemptEnd::stuck) attempt->reason = cut(about.captures[1], reason_limit);
}

void take_worker_progress(const AboutRegion &about) {
    Attempt *const attempt = attempt_of(about.notes, about.region, about.record.thread);
    if (attempt && attempt->how == AttemptEnd::unfinished) report_progress(*attempt, about.captures[1]);
}

/// What the message tells about the region; whether it is one of those that tell its story.
bool take_region_message(const AboutRegion &about, Meaning meaning) {
    Region &region = about.region;
    switch (meaning) {
        case Meaning::transition:
            take_transition(about);
            return false;
        case Meaning::capabilities:
            region.capabilities = number_of<std::uint32_t>(about.captures[1], 16);
            return false;
        case Meaning::image:
            region.image = cut(about.captures[2], word_limit);
            region.md5 = cut(about.captures[3], word_limit);
            return false;
        case Meaning::versions:
            take_versions(about);
            return true;
        case Meaning::judged:
            reach(about.open, Phase::planning);
            return false;
        case Meaning::not_ready:
            if (!about.notes.decided)
                decide(about.notes, region, {Outcome::refused, "it has no valid versions or firmware"});
            return false;
        case Meaning::dependency_unknown:
        case Meaning::dependency_circular:
        case Meaning::dependency_bad:
        case Meaning::dependency_waits:
        case Meaning::dependency_joins:
        case Meaning::dependency_not_upgraded:
            region.dependency = cut(about.captures[1], name_limit);
            return true;
        case Meaning::queued:
            region.queue = number_of<int>(about.captures[1]);
            return true;
        case Meaning::response:
            take_response(about);
            return false;
        case Meaning::progress_reported:
            take_worker_progress(about);
            return false;
        case Meaning::retry:
            region.retries = number_of<int>(about.captures[1]);
            return true;
        case Meaning::stuck:
            take_stuck(about);
            return true;
        case Meaning::not_started:
            take_no_worker(about);
            return true;
        case Meaning::worker_started:
            take_worker_start(about);
            return false;
        case Meaning::worker_failed:
            take_worker_failure(about);
            return true;
        default:
            return false;
    }
}

std::size_t subject_of(OpenRun &open, const Record &record, const Message &message, const Captures &captures) {
    if (message.subject >= 0) {
        const std::size_t index = region_of(open, captures[static_cast<std::size_t>(message.subject)]);
        // What a process has of threads is bounded by its regions.
        if (index != no_region &&
            (open.in_hand.size() < 2 * open.limits.regions || open.in_hand.contains(record.thread)))
            open.in_hand[record.thread] = index;
        return index;
    }
    if (message.subject == nobody) return no_region;
    const auto found = open.in_hand.find(record.thread);
    return found == open.in_hand.end() ? no_region : found->second;
}

// Messages about the run ----------------------------------------------------------------------------------------------

void take_punch(OpenRun &open, Time time) {
    if (++open.run.watchdog_punches == 1) keep_event(open, time, EventKind::watchdog_punch, "");
    open.last_punch = time;
}

void take_flash_mounted(OpenRun &open, Time time) {
    if (std::exchange(open.flash_is_mounted, true)) return;
    keep_event(open, time, EventKind::flash_mounted, "");
}

void take_flash_operation(OpenRun &open, Time time, std::string_view command) {
    if (command.find(" start ") != std::string_view::npos) {
        take_flash_mounted(open, time);
    } else {
        open.flash_is_mounted = false;
        keep_event(open, time, EventKind::flash_released, "");
    }
}

std::string led_text(const Captures &captures) {
    return std::string(unquoted(captures[0])) + " " + std::string(unquoted(captures[1]));
}

void take_run_message(OpenRun &open, const Record &record, Meaning meaning, const Captures &captures) {
    const Time time = record.time;
    switch (meaning) {
        case Meaning::disabled:
            open.run.disabled = true;
            break;
        case Meaning::discovery:
            reach(open, Phase::discovery);
            break;
        case Meaning::start_failed:
        case Meaning::config_failed:
        case Meaning::run_failed:
            open.run.failure = cut(record.text, open.limits.text);
            break;
        case Meaning::not_of_stage_1a:
            conclude_stage(open, "1.a", time);
            break;
        case Meaning::stage_1b:
            conclude_stage(open, "1.a", time);
            begin_stage(open, "1.b", time);
            break;
        case Meaning::marker_same:
            open.run.skipped_by_marker = true;
            reach(open, Phase::ended);
            keep_event(open, time, EventKind::marker_skip, record.text);
            break;
        case Meaning::announced:
            begin_upgrading(open, time);
            break;
        case Meaning::event_failed:
            keep_event(open, time, EventKind::event_failed, record.text);
            break;
        case Meaning::led_set:
            begin_upgrading(open, time);
            keep_event(open, time, EventKind::led, led_text(captures));
            break;
        case Meaning::punched:
            take_punch(open, time);
            break;
        case Meaning::punch_failed:
            keep_event(open, time, EventKind::watchdog_punch_failed, captures[0]);
            break;
        case Meaning::main_loop_done:
            begin_upgrading(open, time);
            reach(open, Phase::ended);
            keep_event(open, time, EventKind::run_end, "");
            break;
        case Meaning::flash_found:
            take_flash_mounted(open, time);
            break;
        case Meaning::flash_operation:
            take_flash_operation(open, time, captures[0]);
            break;
        case Meaning::flash_failed:
            keep_event(open, time, EventKind::flash_failed, record.text);
            break;
        case Meaning::activation:
            open.run.reload_requested = true;
            reach(open, Phase::ended);
            keep_event(open, time, EventKind::activation, "reload type " + std::string(captures[0]));
            break;
        case Meaning::activation_failed:
            open.run.reload_requested = false;
            keep_event(open, time, EventKind::activation_failed, captures[0]);
            break;
        default:
            break;
    }
}

void take_about_region(OpenRun &open, std::size_t index, const Record &record, const Message &message,
                       const Captures &captures) {
    Region &region = open.run.regions[index];
    RegionNotes &notes = open.notes[index];
    const bool tells = take_region_message({open, record, captures, region, notes}, message.meaning);
    std::optional<Verdict> verdict = verdict_of(message.meaning, captures, region);
    const bool decides = verdict.has_value();
    if (verdict) decide(notes, region, *verdict);
    if (tells || decides || record.level == Level::error) keep_line(open, region, record);
}

bool is_after(const Event &event, Time time) {
    return event.time > time;
}

/// Only the first punch was kept as an event when it came.
void keep_last_punch(OpenRun &open) {
    if (open.run.watchdog_punches < 2 || open.run.events.size() >= open.limits.events) return;
    auto &events = open.run.events;
    auto at = events.end();
    while (at != events.begin() && is_after(*(at - 1), open.last_punch)) --at;
    events.insert(at, {open.last_punch, EventKind::watchdog_punch, ""});
}

}  // namespace

OpenRun begin_run(const RunLimits &limits, std::string_view source, std::uint64_t number, const Record &record) {
    OpenRun open;
    open.limits = limits;
    open.run.source = source;
    open.run.number = number;
    open.run.process = record.process;
    open.run.begin = record.time;
    open.run.end = record.time;
    return open;
}

void count_record(OpenRun &open, const Record &record) {
    open.run.lines += record.lines;
    open.run.end = std::max(open.run.end, record.time);
    if (record.process == record.thread) open.main_time = record.time;
}

void take_unknown(OpenRun &open, std::string_view text, std::uint64_t lines) {
    open.run.lines += lines;
    open.run.unknown_lines += lines;
    if (open.run.unknown.size() < open.limits.unknown && afford(open, text.size()))
        open.run.unknown.push_back(cut(text, open.limits.text));
}

void begin_stage(OpenRun &open, std::string_view stage, Time time) {
    open.stage = stage;
    open.run.stage = stage;
    keep_event(open, time, EventKind::stage, stage);
    open.phase = Phase::discovery;
    open.discovered_here = 0;
    open.planned_here = false;
    for (RegionNotes &notes : open.notes) {
        notes.discovered = false;
        notes.decided = false;
        notes.undecided = {};
    }
    for (Region &region : open.run.regions) {
        region.queue.reset();
        region.dependency.clear();
    }
}

void conclude_stage(OpenRun &open, std::string_view stage, Time time) {
    if (!open.stage.empty()) return;
    open.stage = stage;
    open.run.stage = stage;
    keep_event(open, time, EventKind::stage, stage);
}

std::size_t region_of(OpenRun &open, std::string_view name) {
    name = name.substr(0, name_limit);
    if (name.empty()) return no_region;
    const auto found = open.by_name.find(name);
    if (found != open.by_name.end()) return found->second;
    if (open.run.regions.size() >= open.limits.regions ||
        !afford(open, sizeof(Region) + sizeof(RegionNotes) + name.size()))
        return no_region;
    const std::size_t index = open.run.regions.size();
    open.run.regions.push_back({});
    open.run.regions.back().name = name;
    open.notes.push_back({});
    open.by_name.emplace(name, index);
    return index;
}

void take_record(OpenRun &open, const Record &record, const Message &message, const Captures &captures) {
    count_record(open, record);
    take_run_message(open, record, message.meaning, captures);
    const std::size_t index = subject_of(open, record, message, captures);
    if (index != no_region)
        take_about_region(open, index, record, message, captures);
    else if (record.level == Level::error)
        keep_error(open, record);
}

void take_early_transition(OpenRun &open, std::string_view name, const Record &record, const Captures &captures) {
    const std::size_t index = region_of(open, name);
    if (index == no_region) return;
    take_transition({open, record, captures, open.run.regions[index], open.notes[index]});
}

namespace {

/// Whether lines are to come even where each region is decided: more regions and their plan, or the end of the upgrade.
bool is_cut_short(const OpenRun &open) {
    if (!open.run.failure.empty()) return false;
    const bool discovers = open.phase == Phase::discovery && (open.discovered_here > 0 || open.found_nameless);
    return discovers || open.phase == Phase::upgrading;
}

}  // namespace

void settle(OpenRun &open) {
    open.run.finished = !is_cut_short(open);
    for (std::size_t i = 0; i < open.run.regions.size(); ++i) {
        Region &region = open.run.regions[i];
        RegionNotes &notes = open.notes[i];
        if (!notes.decided) {
            decide(notes, region, verdict_of_undecided(notes.undecided, region, open.run));
            notes.decided = false;
        }
        if (region.outcome == Outcome::unfinished) open.run.finished = false;
    }
}

Run closed(OpenRun &&open) {
    settle(open);
    keep_last_punch(open);
    return std::move(open.run);
}

}  // namespace fpd_log
