#include "verdict.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace fpd_report {
namespace {

using fpd_log::Outcome;

/// From the worst to what is not worth a word.
constexpr std::array outcome_order = {
    Outcome::failed,     Outcome::given_up, Outcome::refused,
    Outcome::unfinished, Outcome::planned,  Outcome::upgraded_at_second_attempt,
    Outcome::upgraded,   Outcome::current,  Outcome::not_considered,
};

constexpr const char *no_time = "no time";
constexpr fpd_log::Time second = 1'000'000;

std::time_t whole_seconds(fpd_log::Time time) {
    return time / second - (time % second < 0 ? 1 : 0);
}

std::string formatted(fpd_log::Time time, const char *format) {
    if (time == 0) return no_time;
    const std::time_t seconds = whole_seconds(time);
    std::tm parts{};
    char text[64];
    if (gmtime_r(&seconds, &parts) == nullptr || strftime(text, sizeof text, format, &parts) == 0) return no_time;
    return text;
}

std::string counted(std::size_t count, const char *one, const char *more) {
    return std::to_string(count) + " " + (count == 1 ? one : more);
}

std::string regions_text(const fpd_log::Run &run) {
    if (run.regions.empty()) return "no regions";
    std::string result = counted(run.regions.size(), "region", "regions");
    const char *separator = ": ";
    for (const OutcomeCount &count : count_outcomes(run)) {
        result += separator + std::to_string(count.regions) + " " + fpd_log::outcome_text(count.outcome);
        separator = ", ";
    }
    return result;
}

}  // namespace

std::size_t outcome_rank(Outcome outcome) {
    const auto *const at = std::find(outcome_order.begin(), outcome_order.end(), outcome);
    return static_cast<std::size_t>(at - outcome_order.begin());
}

std::vector<OutcomeCount> count_outcomes(const fpd_log::Run &run) {
    std::vector<OutcomeCount> result;
    for (const Outcome outcome : outcome_order) {
        const auto regions = static_cast<std::size_t>(
            std::count_if(run.regions.begin(), run.regions.end(),
                          [outcome](const auto &region) { return region.outcome == outcome; }));
        if (regions > 0) result.push_back({outcome, regions});
    }
    return result;
}

bool reload_failed(const fpd_log::Run &run) {
    return std::any_of(run.events.begin(), run.events.end(),
                       [](const fpd_log::Event &event) { return event.kind == fpd_log::EventKind::activation_failed; });
}

bool is_well(const fpd_log::Run &run) {
    return run.failure.empty() && run.finished && !reload_failed(run) &&
           std::all_of(run.regions.begin(), run.regions.end(),
                       [](const fpd_log::Region &region) { return fpd_log::is_well(region.outcome); });
}

std::string verdict(const fpd_log::Run &run) {
    std::string result = "run " + std::to_string(run.number) + ", " + time_text(run.begin) + ", ";
    if (!run.stage.empty()) result += "stage " + run.stage + ", ";
    result += regions_text(run);
    if (!run.failure.empty()) result += "; ended by an error: " + run.failure;
    if (run.disabled) result += "; automatic upgrade is switched off";
    if (run.skipped_by_marker) result += "; skipped, tried on the boot before";
    if (reload_failed(run)) {
        result += "; reload failed";
    } else if (run.reload_requested) {
        result += "; reload requested";
    }
    if (!run.finished) result += "; the log ends before the run does";
    return result;
}

std::string time_text(fpd_log::Time time) {
    return formatted(time, "%Y-%m-%d %H:%M:%S");
}

std::string clock_text(fpd_log::Time time) {
    if (time == 0) return no_time;
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%06d", static_cast<int>(time - whole_seconds(time) * second));
    return formatted(time, "%H:%M:%S") + fraction;
}

}  // namespace fpd_report
