#include "run.h"

#include <array>

namespace fpd_log {
namespace {

struct OutcomeRow {
    Outcome outcome;
    const char *text;
    const char *key;
    bool well;
};

// Indexed by outcome.
constexpr auto outcomes = std::to_array<OutcomeRow>({
    {Outcome::not_considered, "not considered", "not_considered", true},
    {Outcome::current, "current", "current", true},
    {Outcome::planned, "planned", "planned", false},
    {Outcome::upgraded, "upgraded", "upgraded", true},
    {Outcome::upgraded_at_second_attempt, "upgraded at the second attempt", "upgraded_at_second_attempt", true},
    {Outcome::failed, "failed", "failed", false},
    {Outcome::given_up, "given up", "given_up", false},
    {Outcome::refused, "refused", "refused", false},
    {Outcome::unfinished, "unfinished", "unfinished", false},
});

constexpr bool outcomes_are_whole() {
    for (std::size_t i = 0; i < outcomes.size(); ++i)
        if (static_cast<std::size_t>(outcomes[i].outcome) != i) return false;
    return outcomes.size() == static_cast<std::size_t>(Outcome::unfinished) + 1;
}
static_assert(outcomes_are_whole());

const OutcomeRow &row_of(Outcome outcome) {
    return outcomes[static_cast<std::size_t>(outcome)];
}

}  // namespace

const char *outcome_text(Outcome outcome) {
    return row_of(outcome).text;
}

const char *outcome_key(Outcome outcome) {
    return row_of(outcome).key;
}

bool is_well(Outcome outcome) {
    return row_of(outcome).well;
}

const char *attempt_end_key(AttemptEnd end) {
    switch (end) {
        case AttemptEnd::done:
            return "done";
        case AttemptEnd::failed:
            return "failed";
        case AttemptEnd::stuck:
            return "stuck";
        case AttemptEnd::not_started:
            return "not_started";
        case AttemptEnd::unfinished:
            return "unfinished";
    }
    return "";
}

const char *event_key(EventKind kind) {
    switch (kind) {
        case EventKind::stage:
            return "stage";
        case EventKind::marker_skip:
            return "marker_skip";
        case EventKind::run_start:
            return "run_start";
        case EventKind::led:
            return "led";
        case EventKind::watchdog_punch:
            return "watchdog_punch";
        case EventKind::watchdog_punch_failed:
            return "watchdog_punch_failed";
        case EventKind::event_failed:
            return "event_failed";
        case EventKind::flash_mounted:
            return "flash_mounted";
        case EventKind::flash_failed:
            return "flash_failed";
        case EventKind::flash_released:
            return "flash_released";
        case EventKind::run_end:
            return "run_end";
        case EventKind::activation:
            return "activation";
        case EventKind::activation_failed:
            return "activation_failed";
    }
    return "";
}

const char *level_key(Level level) {
    switch (level) {
        case Level::error:
            return "error";
        case Level::info:
            return "info";
        case Level::debug:
            return "debug";
    }
    return "";
}

}  // namespace fpd_log
