#include "log_text.h"

#include <algorithm>
#include <ctime>
#include <sstream>
#include <stdexcept>

namespace log_tests {

using fpd_log::Region;
using fpd_log::Run;

LogText &LogText::say(std::string_view tag, std::string_view message, std::string_view level) {
    const std::time_t second = time / 1'000'000;
    std::tm utc{};
    gmtime_r(&second, &utc);
    char date[32];
    std::strftime(date, sizeof date, "%F %T", &utc);
    std::ostringstream line;
    line << '[' << date << '.' << time % 1'000'000 << " UTC] [" << process << ':' << (thread != 0 ? thread : process)
         << "] [FPD] [" << level << "] [" << tag << "] [a_module:1] [" << message << "]\n";
    text += line.str();
    time += 1000;
    return *this;
}

LogText &LogText::transition(std::string_view name, std::string_view from, std::string_view to) {
    std::ostringstream message;
    message << "FPD " << name << " transitioning state from '" << from << "' to '" << to << "' at " << clock;
    return say("UpdateFpdTransitionState", message.str(), "DEBUG");
}

LogText &LogText::discover(std::string_view name, bool first) {
    transition("", "Unknown state 0", "FPD Created");
    transition("", "FPD Created", "FPD INITIALIZED");
    if (first)
        say("AddFpdQueueHead", "FPD " + std::string(name) + " added into upgrade queue head 0x1234");
    else
        say("AddFpdQueueTail", "FPD " + std::string(name) + " added into a queue tail 0x1234");
    transition(name, "FPD INITIALIZED", "FPD Capability Received");
    return say("InitFpdCapabilities", "FPD " + std::string(name) + " capabilities 0x8", "DEBUG");
}

LogText &LogText::describe(std::string_view name, std::string_view programmed, std::string_view packaged, bool first) {
    discover(name, first);
    transition(name, "FPD Capability Received", "FPD Info Received");
    std::ostringstream image;
    image << "FPD: " << name << " Dir: /pkg/fpd/ucode Image: an.img MD5: 00ff";
    say("InitMd5CalInfo", image.str());
    std::ostringstream versions;
    versions << "FPD " << name << " run version " << programmed << " program verson " << programmed
             << " packaged version " << packaged << " need_upgrade " << (programmed == packaged ? 0 : 1)
             << " status_msg the package's word";
    say("InitFpdVerion", versions.str());
    return transition(name, "FPD Info Received", "FPD Description Received");
}

LogText &LogText::judge(std::string_view name) {
    return say("BuildFpdUpgQueue", "Constructing FPD " + std::string(name) + " for Upgrade", "DEBUG");
}

LogText &LogText::plan(std::string_view name, int queue) {
    judge(name);
    transition(name, "FPD Description Received", "FPD Queued for Upgrade");
    return say("BuildFpdAddedSeqQueue",
               "FPD " + std::string(name) + " would be upgrade in the sequence queue # " + std::to_string(queue));
}

LogText &LogText::not_needed(std::string_view name) {
    judge(name);
    say("BuildQFpdUpgNotNeeded", "FPD " + std::string(name) + " doesn't require an Upgrade");
    return transition(name, "FPD Description Received", "FPD Upgrade not needed");
}

LogText &LogText::begin_attempt(std::string_view name, int worker_thread) {
    transition(name, "FPD Queued for Upgrade", "FPD worker created for Upgrade");
    thread = worker_thread;
    say("FpdUpgHdl", "Started Worker thread for FPD " + std::string(name));
    thread = 0;
    respond(name, "FPD Upgrade Started", 0);
    return transition(name, "FPD worker created for Upgrade", "FPD Upgrade Started");
}

LogText &LogText::respond(std::string_view name, std::string_view state, int progress) {
    std::ostringstream message;
    message << "FPD " << name << " received response state '" << state << "' progress " << progress;
    return say("FpdUpgResponse", message.str(), "DEBUG");
}

LogText &LogText::upgrade(std::string_view name, int worker_thread) {
    begin_attempt(name, worker_thread);
    respond(name, "FPD Upgrade Done", 100);
    return transition(name, "FPD Upgrade Started", "FPD Upgrade Done");
}

LogText &LogText::end() {
    return say("AutoFpdUpgMainLoopDone", "No more FPD available in the sequence queue");
}

std::vector<Run> runs_of(std::string_view text, std::size_t piece, fpd_log::RunLimits limits) {
    std::vector<Run> runs;
    fpd_log::RunReader reader([&runs](Run &&run) { runs.push_back(std::move(run)); }, limits);
    reader.begin_source("a.log");
    if (piece == 0) piece = std::max<std::size_t>(text.size(), 1);
    for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) reader.push(text.substr(0, piece));
    reader.finish();
    return runs;
}

Run run_of(std::string_view text, fpd_log::RunLimits limits) {
    std::vector<Run> runs = runs_of(text, 0, limits);
    if (runs.size() != 1) throw std::runtime_error("not one run but " + std::to_string(runs.size()));
    return std::move(runs.front());
}

const Region &region_of(const Run &run, std::string_view name) {
    for (const Region &region : run.regions)
        if (region.name == name) return region;
    throw std::runtime_error("the run has no region " + std::string(name));
}

std::vector<std::string> outcomes(const Run &run) {
    std::vector<std::string> all;
    for (const Region &region : run.regions) all.push_back(region.name + " " + outcome_text(region.outcome));
    return all;
}

std::string told(const Run &run) {
    std::ostringstream out;
    out << "run " << run.number << " of " << run.source << ' ' << run.process << ' ' << run.begin << '-' << run.end
        << ' ' << run.upgrades << run.finished << run.reload_requested << run.skipped_by_marker << run.disabled << ' '
        << run.stage << '|' << run.failure << '|' << run.lines << ' ' << run.unknown_lines << ' '
        << run.watchdog_punches << ' ' << run.left_out << '\n';
    for (const Region &region : run.regions) {
        out << region.name << '|' << region.running << '|' << region.programmed << '|' << region.packaged << '|'
            << region.image << '|' << region.md5 << '|' << region.verdict << '|' << region.dependency << '|'
            << region.state << '|' << region.queue.value_or(-1) << ' ' << region.upgrade_needed.value_or(false) << ' '
            << region.capabilities.value_or(0) << ' ' << region.retries << ' ' << outcome_text(region.outcome) << '|'
            << region.reason << '\n';
        for (const fpd_log::Attempt &attempt : region.attempts)
            out << "  attempt " << attempt.begin << '-' << attempt.end << ' ' << attempt.progress << ' '
                << attempt_end_key(attempt.how) << ' ' << attempt.reason << '\n';
        for (const fpd_log::Transition &transition : region.transitions)
            out << "  " << transition.time << ' ' << transition.from << " > " << transition.to << ' '
                << transition.clock << '\n';
        for (const fpd_log::Line &line : region.lines)
            out << "  " << line.number << ' ' << line.time << ' ' << line.process << ':' << line.thread << ' '
                << level_key(line.level) << ' ' << line.component << ' ' << line.tag << ' ' << line.place << ' '
                << line.text << '\n';
    }
    for (const fpd_log::Event &event : run.events)
        out << event.time << ' ' << event_key(event.kind) << ' ' << event.text << '\n';
    for (const fpd_log::Line &line : run.errors) out << line.number << ' ' << line.tag << ' ' << line.text << '\n';
    for (const std::string &text : run.unknown) out << "unknown " << text << '\n';
    return out.str();
}

std::string told(const std::vector<Run> &runs) {
    std::string text;
    for (const Run &run : runs) text += told(run);
    return text;
}

}  // namespace log_tests
