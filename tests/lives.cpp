#include "lives.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <regex>
#include <sstream>

#include "text_match.h"

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAreArray;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;

namespace card_tests {
namespace {

using Lines = std::vector<std::string>;

constexpr const char *progress_event = "progress: Auto FPD Upgrade Progressing";
constexpr const char *punch = "/usr/local/etc/punch-watchdog-once.sh";
constexpr const char *event_script = "/usr/local/etc/send_fpd_doorbell_event.sh";
constexpr const char *flash_command = "/usr/sbin/check-flash";

void append(Lines &lines, const Lines &more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

/// "FD|D" as "FD" and "D".
Lines runs_of(const std::string &attempts) {
    Lines runs;
    std::istringstream stream(attempts);
    for (std::string run; std::getline(stream, run, '|');) runs.push_back(run);
    return runs;
}

/// Percent at which an attempt fails or hangs; -1: before its first report.
int stops_at(char attempt) {
    if (attempt == 'G' || attempt == 'T') return 50;
    if (attempt == 'H' || attempt == 'U') return 100;
    return -1;
}
bool fails(char attempt) {
    return attempt == 'F' || attempt == 'G' || attempt == 'H';
}
bool hangs_unreported(char attempt) {
    return attempt == 'S' || attempt == 'X';
}
bool hangs(char attempt) {
    return hangs_unreported(attempt) || attempt == 'T' || attempt == 'U';
}

std::string fault_of(char attempt, std::size_t number) {
    const std::string keys =
        "attempt = " + std::to_string(number) + "\nat = " + std::to_string(stops_at(attempt)) + "\n";
    if (fails(attempt)) return region_fault("fail", keys + "code = 5\ntext = \"no acknowledge\"");
    if (attempt == 'X') return region_fault("hang", keys + "cancellable = false\nhang_time = 3600.0");
    return hangs(attempt) ? region_fault("hang", keys) : "";
}

/// What the card records of an attempt.
Lines calls_of(char attempt) {
    if (fails(attempt)) return {"begin", "-> 5"};
    if (attempt == 'X' || attempt == 'K') return {"begin"};
    return {"begin", hangs(attempt) ? "-> cancelled" : "-> 0"};
}

std::string stuck_where(char attempt) {
    return hangs_unreported(attempt) ? "started stuck" : "stuck progressing " + std::to_string(stops_at(attempt));
}

Lines events_of(const std::string &name, char attempt, bool retry) {
    Lines events = {std::string("warning: Auto FPD Upgrade ") + (retry ? "retrying" : "started") + " for '" + name +
                    "'"};
    if (attempt == 'D') events.push_back("warning: Auto FPD Upgrade completed for '" + name + "'");
    if (fails(attempt)) events.push_back("error: Auto FPD Upgrade failed for '" + name + "'");
    if (hangs(attempt)) {
        events.push_back("error: Auto FPD Upgrade worker " + stuck_where(attempt) + " forever and killing for '" +
                         name + "'");
    }
    return events;
}

Lines flash_lines_of(const Fate &fate, char attempt, bool retry) {
    const std::string fpd = "FPD '" + fate.name + "' ";
    const std::string cancels = fpd + "Canceling the upgrade to version " + fate.to + " since ";
    Lines lines = {fpd + (retry ? "Retry" : "Start") + " upgrading to version " + fate.to + " Run version " +
                       fate.from + " Programmed version " + fate.from,
                   fpd + "Started to upgrade version " + fate.to};
    if (attempt == 'D') lines.push_back(fpd + "Upgraded to version " + fate.to);
    if (fails(attempt)) lines.push_back(fpd + "Failed to upgrade version " + fate.to);
    if (hangs_unreported(attempt)) {
        lines.push_back(cancels + "worked not started within stipulated time");
    } else if (hangs(attempt)) {
        lines.push_back(cancels + "no progress made after " + std::to_string(stops_at(attempt)) +
                        "% within stipulated time");
    }
    return lines;
}

std::string error(const std::string &tag, const std::string &message) {
    return "[FPD] [ERROR] [" + tag + "] " + message;
}

/// '#' stands for the time that a worker was waited for.
Lines errors_of(const std::string &name, char attempt, bool retry) {
    if (fails(attempt))
        return {error("FpdUpgHdlUpgradeFail", "FPD " + name + " upgrade failed err_msg no acknowledge")};
    if (!hangs(attempt)) return {};
    const bool unreported = hangs_unreported(attempt);
    const std::string state = unreported ? "'FPD Upgrade Started'" : fate::progressing;
    const std::string limit = std::to_string((unreported ? 60'000'000 : 180'000'000) / life_speed);
    const std::string stuck =
        "FPD " + name + " Upgrade stuck in the state " + state + " since # time now vs. maximum " + limit + " time";
    Lines errors = {
        error(unreported ? "ChkFpdUpgStartedMaxTransTimeOut" : "ChkFpdUpgProgressingMaxTransTimeOut", stuck)};
    if (retry) {
        const std::string check = unreported ? "start" : "progressing";
        errors.push_back(error(unreported ? "FpdUpgProgressCheckStartedFail" : "FpdUpgProgressCheckProgressFail",
                               std::string("Checking FPD ") + name + " upgrade " + check + " failed error " + stuck));
    }
    return errors;
}

/// With '#' for what nobody can foretell: times, and sums of made-up images.
Lines foreseeable(Lines errors) {
    static const std::regex time("since [0-9]+ time now");
    static const std::regex sum("its MD5 sum is [0-9a-f]+");
    for (std::string &line : errors) {
        line = std::regex_replace(line, time, "since # time now");
        line = std::regex_replace(line, sum, "its MD5 sum is #");
    }
    return errors;
}

/// What follows from each attempt of a fate, in all runs one after the other, or in one.
template <typename Of>
Lines of_attempts(const Lines &runs, Of of) {
    Lines lines;
    for (const std::string &run : runs) {
        for (std::size_t i = 0; i < run.size(); ++i) append(lines, of(run[i], i != 0));
    }
    return lines;
}

Lines events_in_run(const Fate &fate, std::size_t run) {
    const Lines runs = runs_of(fate.attempts);
    if (run >= runs.size()) return {};
    return of_attempts({runs[run]}, [&](char attempt, bool retry) { return events_of(fate.name, attempt, retry); });
}

/// Whether the line speaks of 'name' in its single quotes.
bool is_about(const std::string &line, const std::string &name) {
    return line.find("'" + name + "'") != std::string::npos;
}

Lines lines_about(const Lines &lines, const std::string &name) {
    Lines some;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(some),
                 [&](const std::string &line) { return is_about(line, name); });
    return some;
}

/// The queue of whoever each event is about, in the order of the events.
std::vector<int> queues_of(const Lines &events, const std::vector<Fate> &fates) {
    std::vector<int> queues;
    for (const std::string &event : events) {
        for (const Fate &fate : fates) {
            if (is_about(event, fate.name)) queues.push_back(fate.queue);
        }
    }
    return queues;
}

/// Each run's events, its first and last one among them.
std::vector<Lines> split_into_runs(const Lines &events) {
    std::vector<Lines> runs;
    for (const std::string &event : events) {
        if (event.starts_with("started: ")) runs.emplace_back();
        if (runs.empty()) runs.emplace_back();
        runs.back().push_back(event);
    }
    return runs;
}

bool cut_off(RunEnd end) {
    return end == RunEnd::Killed || end == RunEnd::PowerLost;
}

/// What the scripts' record has after the events of a run.
Lines scripts_behind(RunEnd end) {
    const std::string grub_reboot = "/usr/sbin/grub-reboot 'KALDOR-latest'";
    const std::string reset = "/usr/local/etc/reset_board.sh";
    const std::string reason = " '-r' 'Auto FPD Upgrade activation' '-b' '36'";
    switch (end) {
        case RunEnd::GrubRefused:
            return {grub_reboot};
        case RunEnd::Reset:
            return {grub_reboot, reset + reason};
        case RunEnd::BigReset:
            return {grub_reboot, reset + " '-a'" + reason};
        case RunEnd::PowerLost:
            return {"watchdog expired"};
        default:
            return {};
    }
}

std::map<std::string, std::string> last_states(const std::vector<LogRecord> &log) {
    std::map<std::string, std::string> states;
    for (const LogRecord &record : with_tag(log, "UpdateFpdTransitionState")) {
        const Lines parts = match("FPD ([^ ]*) transitioning state from '.*' to ('.*') at [0-9]+", record.message);
        if (parts.size() == 3) states[parts[1]] = parts[2];
    }
    return states;
}

}  // namespace

Region with_attempts(Region region, const std::string &attempts) {
    const Lines runs = runs_of(attempts);
    for (std::size_t i = 0; !runs.empty() && i < runs.front().size(); ++i) {
        region.tables += fault_of(runs.front()[i], i + 1);
    }
    return region;
}

Lines given_up(const std::string &name, const std::string &dependency, const std::string &state) {
    const std::string reason =
        "FPD " + name + " can't be upgraded without dependecny FPD " + dependency + " upgrade state " + state;
    return {error("StartFpdUpgWorkerDepFpdFail", reason),
            error("FpdUpgProgressCheckStartUpgFail", "Starting FPD " + name + " upgrade failed error " + reason)};
}

void LifeTest::power_on(int first_boot, int last_boot) {
    const Result result = boot(life_speed);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    Lines told = lines_of(result.out);
    std::erase_if(told, [](const std::string &line) {
        return !match("boot [0-9]+: the start-up command ended with status 0 after .*", line).empty();
    });
    std::vector<testing::Matcher<std::string>> expected;
    for (int number = first_boot; number <= last_boot; ++number) {
        const std::string head = "boot " + std::to_string(number) + ": ";
        expected.push_back(StartsWith(head + (number == first_boot ? "power on: " : "reload: ")));
        expected.push_back("Auto FPD Upgrade done");
        if (number < last_boot) {
            expected.push_back(StartsWith(head + "reload requested: /usr/local/etc/reset_board.sh "));
        } else {
            expected.push_back(head + "the card is up");
        }
    }
    EXPECT_THAT(told, ElementsAreArray(expected));
}

void LifeTest::upgrade(const std::vector<std::string> &options) {
    std::vector<std::string> words = options;
    words.insert(words.end(), {"-c", "upgrade"});
    const Result result = tool(words, life_speed);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\n");
    EXPECT_EQ(result.err, "");
}

void LifeTest::expect_life(const Life &life) const {
    expect_regions(life);
    expect_errors(life);
    expect_scripts(life);
    expect_events(life);
    expect_punches(life);
    expect_flash_log(life);
    EXPECT_EQ(fs::exists(marker_file()), !life.marker.empty());
    EXPECT_EQ(read_file(marker_file()), life.marker);
    EXPECT_EQ(state().led(1), life.led);
    EXPECT_EQ(state().boot, life.boots);
}

void LifeTest::expect_regions(const Life &life) const {
    const std::map<std::string, std::string> states = last_states(log());
    std::map<std::string, int> queues;
    for (const std::string &line : plan()) {
        const std::size_t blank = line.rfind(' ');
        queues[line.substr(0, blank)] = std::stoi(line.substr(blank + 1));
    }
    ASSERT_EQ(state().regions.size(), life.fates.size());
    for (std::size_t i = 0; i < life.fates.size(); ++i) {
        const Fate &fate = life.fates[i];
        SCOPED_TRACE(fate.name);
        ASSERT_EQ(state().regions[i].first, fate.name);
        EXPECT_EQ(state().regions[i].second.running, fate.versions.running);
        EXPECT_EQ(state().regions[i].second.programmed, fate.versions.programmed);
        EXPECT_EQ(states.contains(fate.name) ? states.at(fate.name) : "never seen", fate.state);
        EXPECT_EQ(queues.contains(fate.name) ? queues.at(fate.name) : -1, fate.queue);
        expect_attempts(fate, i);
    }
}

void LifeTest::expect_attempts(const Fate &fate, std::size_t region) const {
    const std::string arguments = "group=3 obj=10 region=" + std::to_string(region) + " ";
    Lines outcomes;
    for (const CallRecord &call : of_function(calls(), "brd_fpd_upgrade")) {
        if (call.arguments.starts_with(arguments)) outcomes.push_back(call.outcome);
    }
    EXPECT_EQ(outcomes, of_attempts(runs_of(fate.attempts), [](char attempt, bool) { return calls_of(attempt); }));
}

void LifeTest::expect_errors(const Life &life) const {
    Lines expected = life.errors;
    for (const Fate &fate : life.fates) {
        append(expected, of_attempts(runs_of(fate.attempts),
                                     [&](char attempt, bool retry) { return errors_of(fate.name, attempt, retry); }));
    }
    EXPECT_THAT(foreseeable(errors()), UnorderedElementsAreArray(expected));
}

/// All scripts in their order, but those whose moment nobody can tell: of attempts, of mounting, and the periodic ones.
void LifeTest::expect_scripts(const Life &life) const {
    const std::string event = std::string(event_script) + " '-e' ";
    Lines expected;
    for (const RunEnd end : life.runs) {
        expected.push_back(event + "'started' '-m' 'Auto FPD Upgrade Operation Started'");
        if (!cut_off(end)) expected.push_back(event + "'ended' '-m' 'Auto FPD Upgrade Operation Ended'");
        append(expected, scripts_behind(end));
    }
    Lines called;
    Lines flash;
    for (const std::string &line : scripts()) {
        const Lines operation = match(std::string(flash_command) + " '(start|stop)' 'obfl'", line);
        if (!operation.empty()) {
            flash.push_back(operation[1]);
            const bool right_behind_the_end = !called.empty() && called.back().starts_with(event + "'ended'");
            EXPECT_TRUE(operation[1] == "start" || right_behind_the_end);
        } else if (line.starts_with(event + "'started'") || line.starts_with(event + "'ended'") ||
                   (line != punch && !line.starts_with(event))) {
            called.push_back(line);
        }
    }
    EXPECT_EQ(called, expected);
    EXPECT_EQ(flash, life.flash_commands);
}

/// Of each run: its FPDs' events in their order, and no queue before the one in front of it is through.
void LifeTest::expect_events(const Life &life) const {
    const std::vector<Lines> runs = split_into_runs(events_but_progress());
    ASSERT_EQ(runs.size(), life.runs.size());
    for (std::size_t run = 0; run < runs.size(); ++run) {
        SCOPED_TRACE("run " + std::to_string(run + 1));
        std::size_t expected = cut_off(life.runs[run]) ? 1 : 2;
        for (const Fate &fate : life.fates) {
            const Lines events = events_in_run(fate, run);
            EXPECT_EQ(lines_about(runs[run], fate.name), events);
            expected += events.size();
        }
        EXPECT_EQ(runs[run].size(), expected) << "events of nobody";
        const std::vector<int> queues = queues_of(runs[run], life.fates);
        EXPECT_TRUE(std::is_sorted(queues.begin(), queues.end())) << testing::PrintToString(queues);
    }
}

/// Punches of the watchdog while FPDs were upgraded, and those of a wait for the flash after the end of that.
struct Punches {
    std::ptrdiff_t upgrading = 0;
    std::ptrdiff_t waiting = 0;
};

Punches count_punches(const Lines &called) {
    Punches punches;
    bool ended = false;
    for (const std::string &line : called) {
        if (line.find("'-e' 'started'") != std::string::npos) ended = false;
        if (line.find("'-e' 'ended'") != std::string::npos) ended = true;
        if (line == punch) ++(ended ? punches.waiting : punches.upgrading);
    }
    return punches;
}

/// Each after an event, as long as FPDs are upgraded, and before a line in the log, unless the run was cut off between
/// them; one at least in every run.
void LifeTest::expect_punches(const Life &life) const {
    const Lines all = events();
    const Punches punches = count_punches(scripts());
    const auto announced = std::count(all.begin(), all.end(), progress_event);
    const auto logged = static_cast<std::ptrdiff_t>(tagged("AutoFpdUpgradeProgressWDPunch").size());
    const auto between = std::count_if(life.runs.begin(), life.runs.end(), cut_off);
    EXPECT_THAT(announced - punches.upgrading, AllOf(testing::Ge(0), testing::Le(between)));
    EXPECT_THAT(punches.upgrading + punches.waiting - logged, AllOf(testing::Ge(0), testing::Le(between)));
    EXPECT_GE(announced, std::ssize(life.runs));
    EXPECT_EQ(announced == 0, life.runs.empty());
}

void LifeTest::expect_flash_log(const Life &life) const {
    const Lines lines = life.flash_file == 0 ? temporary_flash_log() : flash_log(life.flash_file);
    std::size_t expected = 0;
    for (const Fate &fate : life.fates) {
        const Lines told = of_attempts(runs_of(fate.attempts),
                                       [&](char attempt, bool retry) { return flash_lines_of(fate, attempt, retry); });
        EXPECT_EQ(lines_about(lines, fate.name), told) << fate.name;
        expected += told.size();
    }
    EXPECT_EQ(lines.size(), expected) << "event lines of nobody";
    EXPECT_EQ(fs::exists(state_ / "log/fpd_obfl_log.txt"), life.flash_file == 0 && !lines.empty());
}

}  // namespace card_tests
