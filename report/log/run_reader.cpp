#include "run_reader.h"

#include <optional>
#include <utility>

#include "open_run.h"
#include "record.h"

namespace fpd_log {
namespace {

// A wall clock that is set while a run is on goes back by less; so does local time at the end of summer.
constexpr Time wall_clock_slack = Time{2} * 3600 * 1'000'000;
// Of a region that has no name yet: a few states, and why its name could not be read.
constexpr std::size_t max_held = 16;

bool is_main(const Record &record) {
    return record.process == record.thread;
}

bool is_nameless_transition(const Message &message, const Captures &captures) {
    return message.meaning == Meaning::transition && captures[0].empty();
}

/// The first transition of a record that was just made.
bool is_birth(const Message &message, const Captures &captures) {
    return is_nameless_transition(message, captures) && captures[2] == "'FPD Created'";
}

/// Whether the main thread's clocks say that the machine was started anew, or that lines are missing in between.
bool clocks_go_back(OpenRun &open, const Record &record, const Message &message, const Captures &captures) {
    if (record.time + wall_clock_slack < open.main_time) return true;
    if (message.meaning == Meaning::clock_failed) open.clock_failed = true;
    if (message.meaning != Meaning::transition) return false;
    const bool known = !std::exchange(open.clock_failed, false);
    if (!known) return false;  // the state has the time of another
    std::int64_t clock = 0;
    for (const char digit : captures[3].substr(0, 18))
        if (digit != '-') clock = clock * 10 + (digit - '0');
    const bool back = open.clock_known && clock < open.clock;
    open.clock_known = true;
    open.clock = clock;
    return back;
}

/// Whether this is what a process says first, after what the run has said already.
bool is_a_start(const OpenRun &open, const Message &message) {
    switch (message.meaning) {
        case Meaning::disabled:
        case Meaning::config_failed:
            return true;
        case Meaning::start_note:
        case Meaning::start_failed:
            return open.phase > Phase::start || !open.run.failure.empty();
        default:
            return false;
    }
}

/// Whether nothing more is to be expected of the run: it has nothing to upgrade, or is through.
bool is_over(const OpenRun &open) {
    return open.phase == Phase::ended || open.phase == Phase::start || !open.run.failure.empty() ||
           (open.phase == Phase::planning && !open.planned_here);
}

HeldRecord held(const Record &record, const Message &message) {
    HeldRecord kept;
    kept.record = record;
    kept.component = record.component;
    kept.tag = record.tag;
    kept.place = record.place;
    kept.text = record.text;
    kept.message = &message;
    return kept;
}

Record record_of(const HeldRecord &kept) {
    Record record = kept.record;
    record.component = kept.component;
    record.tag = kept.tag;
    record.place = kept.place;
    record.text = kept.text;
    return record;
}

}  // namespace

struct RunReader::State {
    State(TakeRun take_run, RunLimits run_limits)
        : take(std::move(take_run)),
          limits(run_limits),
          records({[this](const Record &record, const Message &message, const Captures &captures) {
                       take_known(record, message, captures);
                   },
                   [this](std::string_view text, std::uint64_t lines) { take_foreign(text, lines); }}) {}

    void hand_over(std::optional<OpenRun> &run) {
        if (run) take(closed(std::move(*run)));
        run.reset();
    }

    void finish() {
        records.finish();
        if (current) end_hold(Meaning::note, {});
        hand_over(suspended);
        hand_over(current);
        unknown_before.clear();
        unknown_lines_before = 0;
        number = 0;
    }

    void begin(const Record &record) {
        current = begin_run(limits, source, ++number, record);
        for (const std::string &text : unknown_before) take_unknown(*current, text, 0);
        current->run.lines += unknown_lines_before;
        current->run.unknown_lines += unknown_lines_before;
        unknown_before.clear();
        unknown_lines_before = 0;
    }

    /// The run that goes on in another process's lines is over, or is put aside: only one run upgrades at a time, but
    /// another that finds it at work, and gives up, has lines among its own.
    void begin_after_current(const Record &record, bool may_go_on) {
        end_hold(Meaning::note, {});
        if (may_go_on && !is_over(*current)) {
            hand_over(suspended);
            suspended = std::exchange(current, std::nullopt);
        } else {
            hand_over(current);
        }
        begin(record);
    }

    void switch_process(const Record &record, const Message &message) {
        if (suspended && suspended->run.process == record.process) {
            end_hold(Meaning::note, {});
            hand_over(current);
            current = std::exchange(suspended, std::nullopt);
            // It was cut short, and its number is that of another process by now.
            if (is_main(record) && is_a_start(*current, message)) begin_after_current(record, false);
        } else {
            begin_after_current(record, true);
        }
    }

    void take_foreign(std::string_view text, std::uint64_t lines) {
        if (current) {
            take_unknown(*current, text, lines);
            return;
        }
        unknown_lines_before += lines;
        if (unknown_before.size() < limits.unknown) unknown_before.emplace_back(text.substr(0, limits.text));
    }

    void take_known(const Record &record, const Message &message, const Captures &captures) {
        if (!current)
            begin(record);
        else if (record.process != current->run.process)
            switch_process(record, message);
        else if (is_main(record) && (is_a_start(*current, message)))
            begin_after_current(record, false);
        if (is_main(record) && clocks_go_back(*current, record, message, captures))
            begin_again(record, message, captures);
        if (is_main(record) && hold(record, message, captures)) return;
        take_record(*current, record, message, captures);
    }

    void begin_again(const Record &record, const Message &message, const Captures &captures) {
        begin_after_current(record, false);
        clocks_go_back(*current, record, message, captures);  // the new run's first clock
    }

    // A region has no name in its first lines, with which a run, a stage or just another region may begin. They are
    // held until the line comes that tells.

    /// Whether the record is held, or was taken with those that were.
    bool hold(const Record &record, const Message &message, const Captures &captures) {
        const bool birth = is_birth(message, captures);
        if (birth || message.meaning == Meaning::discovery) {
            if (birth) end_hold(Meaning::note, {});
            current->held.push_back(fpd_log::held(record, message));
            if (current->held.size() >= max_held) end_hold(Meaning::note, {});
            return true;
        }
        if (current->held.empty()) return false;
        const bool named = message.meaning == Meaning::added_first || message.meaning == Meaning::added ||
                           message.meaning == Meaning::duplicate;
        const bool nameless = is_nameless_transition(message, captures) || message.subject == nobody;
        if (!named && nameless && current->held.size() < max_held) {
            current->held.push_back(fpd_log::held(record, message));
            return true;
        }
        end_hold(named ? message.meaning : Meaning::note, named ? captures[0] : std::string_view());
        return false;
    }

    /// Where the held lines belong, `by` which message it is told, with the name in it.
    void end_hold(Meaning by, std::string_view name) {
        if (current->held.empty()) return;
        const std::vector<HeldRecord> lines = std::exchange(current->held, {});
        begin_discovery(record_of(lines.front()), by, name);
        const bool is_its_own = by == Meaning::added || by == Meaning::added_first;
        for (const HeldRecord &line : lines) {
            const Record record = record_of(line);
            Captures captures;
            match(*line.message, record.text, &captures);
            take_record(*current, record, *line.message, captures);
            if (is_its_own && is_nameless_transition(*line.message, captures))
                take_early_transition(*current, name, record, captures);
        }
        if (is_its_own) note_discovered(name);
        current->found_nameless |= by == Meaning::note && lines.back().message->meaning == Meaning::transition;
    }

    void note_discovered(std::string_view name) {
        const std::size_t index = region_of(*current, name);
        if (index == no_region) {
            ++current->run.left_out;
            return;
        }
        current->notes[index].discovered = true;
        ++current->discovered_here;
    }

    bool is_discovered(std::string_view name) const {
        const auto found = current->by_name.find(name);
        return found != current->by_name.end() && current->notes[found->second].discovered;
    }

    /// A region is discovered: by this run, in this stage or its next, or by the next run.
    void begin_discovery(const Record &first, Meaning by, std::string_view name) {
        // The queue of the tool is locked: whoever discovers is alone.
        hand_over(suspended);
        // The records of this run are still there: a stage is planned twice, as the first one is with nothing to do.
        if (by == Meaning::duplicate && current->phase == Phase::planning) {
            conclude_stage(*current, "1.a", first.time);
        } else if (current->phase == Phase::planning && current->stage == "1.b" && !current->planned_here &&
                   current->run.failure.empty()) {
            begin_stage(*current, "2", first.time);
        } else if (current->phase > Phase::discovery || !current->run.failure.empty() ||
                   (by == Meaning::added_first && current->discovered_here != 0) ||
                   (by == Meaning::added && is_discovered(name))) {
            const bool clock_known = current->clock_known;
            const std::int64_t clock = current->clock;
            hand_over(current);
            begin(first);
            current->clock_known = clock_known;
            current->clock = clock;
        }
        current->phase = Phase::discovery;
    }

    TakeRun take;
    RunLimits limits;
    RecordReader records;
    std::string source;
    std::uint64_t number = 0;  // of the last run
    std::optional<OpenRun> current;
    std::optional<OpenRun> suspended;         // of a process that may go on
    std::vector<std::string> unknown_before;  // the first run
    std::uint64_t unknown_lines_before = 0;
};

RunReader::RunReader(TakeRun take, RunLimits limits) : state_(std::make_unique<State>(std::move(take), limits)) {}

RunReader::~RunReader() = default;

void RunReader::begin_source(std::string_view name) {
    state_->finish();
    state_->source = name;
}

void RunReader::push(std::string_view text) {
    state_->records.push(text);
}

void RunReader::finish() {
    state_->finish();
}

const Run *RunReader::open_run() const {
    if (!state_->current) return nullptr;
    settle(*state_->current);
    return &state_->current->run;
}

}  // namespace fpd_log
