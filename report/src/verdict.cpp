#include "verdict.h"

#include <algorithm>
#include <array>
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

bool has_event(const fpd_log::Run &run, fpd_log::EventKind kind) {
    return std::any_of(run.events.begin(), run.events.end(),
                       [kind](const fpd_log::Event &event) { return event.kind == kind; });
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

bool is_well(const fpd_log::Run &run) {
    return run.failure.empty() && run.finished && !has_event(run, fpd_log::EventKind::activation_failed) &&
           std::all_of(run.regions.begin(), run.regions.end(),
                       [](const fpd_log::Region &region) { return fpd_log::is_well(region.outcome); });
}

std::string verdict(const fpd_log::Run &run) {
    std::string result = "run " + std::to_string(run.number) + ", " + time_text(run.begin) + ", ";
    if (!run.stage.empty()) result += "stage " + run.stage + ", ";
    result += regions_text(run);
    if (!run.failure.empty()) result += "; ended by an error: " + run.failure;
    if (run.skipped_by_marker) result += "; skipped, tried on the boot before";
    if (has_event(run, fpd_log::EventKind::activation_failed)) {
        result += "; reload failed";
    } else if (run.reload_requested) {
        result += "; reload requested";
    }
    if (!run.finished) result += "; the log ends before the run does";
    return result;
}

std::string time_text(fpd_log::Time time) {
    if (time == 0) return "no time";
    const std::time_t seconds = time / 1'000'000 - (time % 1'000'000 < 0 ? 1 : 0);
    std::tm parts{};
    char text[64];
    if (gmtime_r(&seconds, &parts) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return "no time";
    }
    return text;
}

}  // namespace fpd_report
