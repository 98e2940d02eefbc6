#include "run_samples.h"

namespace fpd_report {

using fpd_log::Outcome;

fpd_log::Region sample_region(const std::string &name, Outcome outcome, const std::string &reason,
                              const std::string &packaged) {
    constexpr fpd_log::Time second = 1'000'000;
    fpd_log::Region region;
    region.name = name;
    region.running = region.programmed = "1.0.0";
    region.packaged = packaged;
    region.outcome = outcome;
    region.reason = reason;
    if (outcome == Outcome::upgraded) {
        region.attempts = {{sample_begin, sample_begin + 12 * second, 100, fpd_log::AttemptEnd::done, ""}};
    }
    if (outcome == Outcome::failed) {
        region.attempts = {
            {sample_begin, sample_begin + 10 * second, 40, fpd_log::AttemptEnd::failed, reason},
            {sample_begin + 20 * second, sample_begin + 90 * second, 41, fpd_log::AttemptEnd::failed, reason}};
    }
    if (!fpd_log::is_well(outcome)) {
        region.lines = {
            {7, sample_begin, 3, 3, fpd_log::Level::info, "FPD", "FirstTag", "f:1", "first of " + name},
            {9, sample_begin + 15'791, 3, 3, fpd_log::Level::error, "FPD", "LastTag", "f:2", "last of " + name}};
    }
    return region;
}

fpd_log::Run sample_run(const std::vector<fpd_log::Region> &regions) {
    fpd_log::Run run;
    run.source = "fpd.log";
    run.number = 1;
    run.process = 3;
    run.begin = sample_begin;
    run.end = sample_begin + 100'000'000;
    run.finished = true;
    run.regions = regions;
    run.lines = 10;
    return run;
}

}  // namespace fpd_report
