#include "outcome.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace fpd_log {
namespace {

struct VerdictRow {
    Meaning meaning;
    Outcome outcome;
    std::string_view
        reason;  // {0} is the message's first conversion; {programmed}, {packaged} are the region's versions
};

constexpr auto verdicts = std::to_array<VerdictRow>({
    {Meaning::not_automatic, Outcome::not_considered, "automatic upgrade is not supported"},
    {Meaning::not_at_boot, Outcome::not_considered, "not upgraded at boot"},
    {Meaning::not_of_stage_1a, Outcome::not_considered, "stage 1.a upgrades what needs an unlocked Golden image only"},
    {Meaning::not_of_stage_1b, Outcome::not_considered, "stage 1.b upgrades what can unlock the Golden image only"},
    {Meaning::manufacturing_only, Outcome::not_considered, "upgrade type {1} is upgraded in manufacturing only"},
    {Meaning::info_failed, Outcome::refused, "its versions cannot be read: {0}"},
    {Meaning::no_firmware, Outcome::refused, "no firmware packaged: {1}"},
    {Meaning::checksum_wrong, Outcome::refused, "md5 checksum validation failed, {0}"},
    {Meaning::too_old, Outcome::refused, "running {1} is older than {2}, the oldest that can be upgraded"},
    {Meaning::not_asked_for, Outcome::current,
     "{programmed} is programmed and {packaged} packaged, which does not ask for the upgrade"},
    {Meaning::not_needed, Outcome::current, "{programmed} is programmed and packaged"},
    {Meaning::dependency_unknown, Outcome::refused, "waits for FPD {1}, which is not known"},
    {Meaning::dependency_circular, Outcome::refused, "waits for FPD {1}, in a circle of dependencies"},
    {Meaning::dependency_bad, Outcome::refused, "waits for FPD {1}, which is in state {2}"},
    {Meaning::dependency_move_failed, Outcome::refused, "cannot be moved after its dependency: {1}"},
    {Meaning::type_refused, Outcome::refused, "the firmware's upgrade type {1} cannot be upgraded"},
    {Meaning::queue_out_of_range, Outcome::refused, "there is no sequence queue {1}"},
    {Meaning::queue_move_failed, Outcome::refused, "cannot be moved into its sequence queue: {1}"},
});

/// Why a region that another one waited for was not upgraded, by the state that it was found in.
struct DependencyRow {
    std::string_view state;
    std::string_view fate;
};

constexpr auto dependency_fates = std::to_array<DependencyRow>({
    {"'FPD Upgrade Failed'", "which failed"},
    {"'FPD Can't be Upgraded'", "which was given up"},
    {"'FPD Dependency Failed'", "whose own dependency failed"},
});

std::string or_unknown(const std::string &version) {
    return version.empty() ? "a version that the log does not tell" : version;
}

/// What stands for "{NAME}" in a reason.
std::string value_of(std::string_view name, const Captures &captures, const Region &region) {
    if (name == "programmed") return or_unknown(region.programmed);
    if (name == "packaged") return or_unknown(region.packaged);
    return std::string(captures[static_cast<std::size_t>(name[0] - '0')]);
}

std::string filled_in(std::string_view pattern, const Captures &captures, const Region &region) {
    std::string text;
    while (true) {
        const std::size_t open = pattern.find('{');
        text += pattern.substr(0, open);
        if (open == std::string_view::npos) return text;
        const std::size_t close = pattern.find('}', open);
        text += value_of(pattern.substr(open + 1, close - open - 1), captures, region);
        pattern.remove_prefix(close + 1);
    }
}

std::string dependency_reason(std::string_view name, std::string_view state) {
    const std::string reason = "waits for FPD " + std::string(name) + ", ";
    for (const DependencyRow &row : dependency_fates)
        if (row.state == state) return reason + std::string(row.fate);
    return reason + "which is in state " + std::string(state);
}

std::string attempt_text(const Attempt &attempt) {
    switch (attempt.how) {
        case AttemptEnd::failed:
            return attempt.reason.empty() ? "failed" : "failed: " + attempt.reason;
        case AttemptEnd::stuck:
            return attempt.reason.empty() ? "was stuck" : "was " + attempt.reason;
        case AttemptEnd::not_started:
            return "had no worker: " + attempt.reason;
        case AttemptEnd::done:
        case AttemptEnd::unfinished:
            break;
    }
    return "did not end";
}

/// "; the first attempt failed: sector erase timed out", or nothing.
std::string first_attempt_text(const Region &region) {
    if (region.attempts.size() < 2) return "";
    return "; the first attempt " + attempt_text(region.attempts.front());
}

std::string upgraded_reason(const Region &region) {
    return or_unknown(region.packaged) + " was programmed over " + or_unknown(region.programmed) +
           first_attempt_text(region);
}

std::string failed_reason(const Region &region) {
    if (region.attempts.empty() || region.attempts.back().reason.empty()) return "the worker reported a failure";
    return region.attempts.back().reason;
}

std::string given_up_reason(const Region &region) {
    if (region.attempts.empty()) return "it cannot be upgraded";
    const Attempt &last = region.attempts.back();
    if (last.reason.empty()) return "it cannot be upgraded";
    const bool twice = region.attempts.size() == 2 && region.attempts.front().how == last.how;
    return last.reason + (twice ? ", twice" : first_attempt_text(region));
}

Verdict verdict_of_queued(const Region &region, const Run &run) {
    if (!region.attempts.empty() && region.attempts.back().how == AttemptEnd::not_started)
        return {Outcome::given_up, "no worker: " + region.attempts.back().reason};
    const std::string plan = "would be upgraded to " + or_unknown(region.packaged);
    if (run.skipped_by_marker) return {Outcome::planned, "the same FPDs and versions were tried on the boot before"};
    if (!run.failure.empty()) return {Outcome::planned, plan + ", but the run failed: " + run.failure};
    if (!run.upgrades) return {Outcome::planned, plan};
    const std::string waited = "the log ends while it waited for its ";
    if (region.attempts.empty()) return {Outcome::unfinished, waited + "upgrade"};
    return {Outcome::unfinished, waited + "second attempt; the first attempt " + attempt_text(region.attempts.front())};
}

}  // namespace

std::optional<Verdict> verdict_of(Meaning meaning, const Captures &captures, const Region &region) {
    if (meaning == Meaning::dependency_not_upgraded)
        return Verdict{Outcome::given_up, dependency_reason(captures[1], captures[2])};
    for (const VerdictRow &row : verdicts)
        if (row.meaning == meaning) return Verdict{row.outcome, filled_in(row.reason, captures, region)};
    return std::nullopt;
}

std::optional<Verdict> verdict_of_state(std::string_view state, bool upgrading, const Region &region) {
    if (state == "FPD Upgrade Done")
        return Verdict{
            region.attempts.size() > 1 || region.retries > 0 ? Outcome::upgraded_at_second_attempt : Outcome::upgraded,
            upgraded_reason(region)};
    if (state == "FPD Upgrade Failed") return Verdict{Outcome::failed, failed_reason(region)};
    if (state == "FPD Can't be Upgraded")
        return Verdict{upgrading ? Outcome::given_up : Outcome::refused, given_up_reason(region)};
    if (state == "FPD Dependency Failed") return Verdict{Outcome::refused, "its dependency cannot be upgraded"};
    if (state == "FPD Info get Failed") return Verdict{Outcome::refused, "its versions cannot be read"};
    if (state == "FPD Description Failed") return Verdict{Outcome::refused, "it has no valid firmware packaged"};
    if (state == "FPD Upgrade not needed" || state == "FPD Upgrade Available")
        return Verdict{Outcome::current, or_unknown(region.programmed) + " need not be upgraded"};
    return std::nullopt;
}

Verdict verdict_of_undecided(Undecided undecided, const Region &region, const Run &run) {
    switch (undecided.step) {
        case Undecided::Step::queued:
            return verdict_of_queued(region, run);
        case Undecided::Step::working:
            return {
                Outcome::unfinished,
                "the log ends while it was upgraded" +
                    (region.attempts.empty() ? "" : ", at " + std::to_string(region.attempts.back().progress) + " %") +
                    first_attempt_text(region)};
        case Undecided::Step::found:
            break;
    }
    if (!run.failure.empty()) return {Outcome::unfinished, "not judged, as the run failed: " + run.failure};
    return {Outcome::unfinished, "the log ends before it was judged"};
}

namespace {

/// "180.25 s", with as many digits as tell something.
std::string seconds_text(std::int64_t microseconds) {
    char text[40];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(microseconds) / 1e6);
    std::string seconds = text;
    while (seconds.ends_with('0')) seconds.pop_back();
    if (seconds.ends_with('.')) seconds.pop_back();
    return seconds + " s";
}

}  // namespace

std::string stuck_reason(std::string_view state, int progress, std::int64_t time, std::int64_t limit) {
    std::string reason = "stuck in " + std::string(state);
    if (progress > 0) reason += " at " + std::to_string(progress) + " %";
    return reason + " for " + seconds_text(time) + " (limit " + seconds_text(limit) + ")";
}

}  // namespace fpd_log
