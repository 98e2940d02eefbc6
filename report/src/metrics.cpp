#include "metrics.h"

#include <cstdio>
#include <iterator>
#include <set>
#include <utility>
#include <vector>

#include "run_text.h"
#include "shown_text.h"
#include "verdict.h"

namespace fpd_report {
namespace {

using Labels = std::vector<std::pair<const char *, std::string>>;

enum Metric : std::size_t {
    run_number,
    run_begin,
    run_duration,
    run_well,
    run_finished,
    run_reload_requested,
    run_skipped,
    run_disabled,
    run_regions,
    run_unknown_lines,
    run_watchdog_punches,
    region_well,
    region_outcome,
    region_attempts,
    region_upgrade_duration,
};

struct Description {
    const char *name, *help;
};

/// In the order of Metric.
constexpr Description descriptions[] = {
    {"fpd_run_number", "Number of the last run in its log, from 1."},
    {"fpd_run_begin_timestamp_seconds", "When the last run began, by the card's real-time clock."},
    {"fpd_run_duration_seconds", "From the first line of the last run to its last."},
    {"fpd_run_well", "1: the last run ended well, and so did each of its regions."},
    {"fpd_run_finished", "1: the last run came to its end."},
    {"fpd_run_reload_requested", "1: the last run asked for a reload of the card."},
    {"fpd_run_skipped_by_marker", "1: the last run was skipped, as it would have repeated the one before."},
    {"fpd_run_disabled", "1: the last run did nothing, as automatic upgrade is switched off."},
    {"fpd_run_regions", "Regions of the last run by outcome."},
    {"fpd_run_unknown_lines", "Lines of the last run that the reader does not know."},
    {"fpd_run_watchdog_punches", "How often the last run told the watchdog to wait."},
    {"fpd_region_well", "1: the region runs, or after the reload will run, what is packaged, or was not for this run."},
    {"fpd_region_outcome", "1, with the outcome and the versions as labels."},
    {"fpd_region_attempts", "Attempts to upgrade the region."},
    {"fpd_region_upgrade_duration_seconds", "From the begin of the first attempt to the end of the last."},
};

std::string seconds_text(fpd_log::Time time) {
    char text[48];
    std::snprintf(text, sizeof text, "%.6f", static_cast<double>(time) / 1e6);
    return text;
}

std::string sample(Metric metric, const Labels &labels, const std::string &value) {
    std::string result = descriptions[metric].name;
    const char *separator = "{";
    for (const auto &[name, text] : labels) {
        result += std::string(separator) + name + "=\"" + label_value(text) + "\"";
        separator = ",";
    }
    return result + "} " + value + "\n";
}

std::string flag_text(bool flag) {
    return flag ? "1" : "0";
}

}  // namespace

void Metrics::add(const std::string &log, const fpd_log::Run &run) {
    static_assert(std::size(descriptions) == metric_count && region_upgrade_duration + 1 == metric_count);
    const auto put = [this](Metric metric, const Labels &labels, const std::string &value) {
        samples_[metric] += sample(metric, labels, value);
    };
    put(run_number, {{"log", log}}, std::to_string(run.number));
    if (run.begin != 0) put(run_begin, {{"log", log}}, seconds_text(run.begin));
    if (run.begin != 0 && run.end >= run.begin) put(run_duration, {{"log", log}}, seconds_text(run.end - run.begin));
    put(run_well, {{"log", log}}, flag_text(is_well(run)));
    put(run_finished, {{"log", log}}, flag_text(run.finished));
    put(run_reload_requested, {{"log", log}}, flag_text(run.reload_requested));
    put(run_skipped, {{"log", log}}, flag_text(run.skipped_by_marker));
    put(run_disabled, {{"log", log}}, flag_text(run.disabled));
    put(run_unknown_lines, {{"log", log}}, std::to_string(run.unknown_lines));
    put(run_watchdog_punches, {{"log", log}}, std::to_string(run.watchdog_punches));
    for (const OutcomeCount &count : count_outcomes(run)) {
        put(run_regions, {{"log", log}, {"outcome", fpd_log::outcome_key(count.outcome)}},
            std::to_string(count.regions));
    }
    std::set<std::string> names;  // a sample that is there twice makes the whole file invalid
    for (const fpd_log::Region &region : run.regions) {
        if (!names.insert(region.name).second) continue;
        const Labels labels = {{"log", log}, {"region", region.name}};
        put(region_well, labels, flag_text(fpd_log::is_well(region.outcome)));
        put(region_outcome,
            {{"log", log},
             {"region", region.name},
             {"outcome", fpd_log::outcome_key(region.outcome)},
             {"running", region.running},
             {"programmed", region.programmed},
             {"packaged", region.packaged}},
            "1");
        put(region_attempts, labels, std::to_string(region.attempts.size()));
        if (const auto time = upgrade_time(region)) put(region_upgrade_duration, labels, seconds_text(*time));
    }
}

std::string Metrics::text() const {
    std::string result;
    for (std::size_t metric = 0; metric < metric_count; ++metric) {
        if (samples_[metric].empty()) continue;
        const Description &description = descriptions[metric];
        result += std::string("# HELP ") + description.name + " " + description.help + "\n# TYPE " + description.name +
                  " gauge\n" + samples_[metric];
    }
    return result;
}

}  // namespace fpd_report
