#include "observation.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>

#include "card_records.h"
#include "files.h"
#include "subprocess.h"

namespace fs = std::filesystem;

namespace properties {
namespace {

using card_tests::LogRecord;

/// What a run may take beyond twice the time that the model gives the card.
constexpr std::chrono::seconds machine_slack{60};

/// A card that lives is booted; otherwise its start-up command is run once, which shows the exit status.
std::vector<std::string> command_of(const Card &card, unsigned speed, const fs::path &place,
                                    const std::string &startup) {
    std::vector<std::string> command = {
        CARDSIM_COMMAND, card.lives ? "boot" : "exec", (place / "card.toml").string(), "--speed", std::to_string(speed),
        "--state",       (place / "state").string()};
    const std::vector<std::string> rest =
        card.lives ? std::vector<std::string>{"--max-boots", std::to_string(max_boots), "--no-table"}
                   : std::vector<std::string>{"--", "sh", "-c", startup};
    command.insert(command.end(), rest.begin(), rest.end());
    return command;
}

/// What the tool wrote: without what cardsim tells of the boots, whose lines begin so.
std::string without_lines_of(const std::string &text, const std::string &begin) {
    std::string rest;
    for (const std::string &line : card_tests::lines_of(text)) {
        if (line.rfind(begin, 0) != 0) rest += line + "\n";
    }
    return rest;
}

// ---- the diagnostic log

/// The number of a state's name; 0 for the one before the first.
unsigned state_number(const std::string &name) {
    constexpr std::array names = {"'Unknown state 0'",
                                  "'FPD Created'",
                                  "'FPD INITIALIZED'",
                                  "'FPD Capability get Failed'",
                                  "'FPD Capability Received'",
                                  "'FPD Info get Failed'",
                                  "'FPD Info Received'",
                                  "'FPD Description Failed'",
                                  "'FPD Description Received'",
                                  "'FPD Can't be Upgraded'",
                                  "'FPD Dependency Failed'",
                                  "'FPD Upgrade Available'",
                                  "'FPD Dependent Upgrade required'",
                                  "'FPD Upgrade not needed'",
                                  "'FPD Queued for Upgrade'",
                                  "'FPD worker created for Upgrade'",
                                  "'FPD Upgrade Started'",
                                  "'FPD Upgrade Progressing'",
                                  "'FPD Upgrade Failed'",
                                  "'FPD Upgrade Done'"};
    const auto found = std::find(names.begin(), names.end(), name);
    return static_cast<unsigned>(found - names.begin());
}

/// The text between two others, from `at` on, which goes on after the second; nothing when they are not there.
std::optional<std::string> between(const std::string &text, const std::string &before, const std::string &behind,
                                   std::size_t &at) {
    const std::size_t begin = text.find(before, at);
    if (begin == text.npos) return std::nullopt;
    const std::size_t from = begin + before.size();
    const std::size_t end = text.find(behind, from);
    if (end == text.npos) return std::nullopt;
    at = end + behind.size();
    return text.substr(from, end - from);
}

struct Transition {
    std::string name;
    unsigned from;
    unsigned to;
};

std::optional<Transition> transition_of(const LogRecord &record) {
    if (record.tag != "UpdateFpdTransitionState") return std::nullopt;
    std::size_t at = 0;
    const auto name = between(record.message, "FPD ", " transitioning state", at);
    const auto from = between(record.message, " from ", " to ", at);
    at -= std::string(" to ").size();
    const auto to = between(record.message, " to ", " at ", at);
    if (!name || !from || !to) return Transition{"?" + record.message, 99, 99};
    return Transition{*name, state_number(*from), state_number(*to)};
}

bool is_decision(const std::string &tag) {
    constexpr std::array others = {"InitFpdGetNameFail", "InitFpdAddQFail", "InitFpdInfoGetFail", "InitFpdDescFail",
                                   "InitFpdMd5SumFailed"};
    const bool is_plan = tag.rfind("BuildQ", 0) == 0 && tag != "BuildQRevisitAfterDependFpd";
    return is_plan || tag.rfind("InitFpdSkip", 0) == 0 || std::find(others.begin(), others.end(), tag) != others.end();
}

void read_plan_line(const LogRecord &record, Facts &facts) {
    const std::string middle = " would be upgrade in the sequence queue # ";
    const std::size_t at = record.message.find(middle);
    if (record.level != "INFO" || at == record.message.npos || at < 4) return;
    facts["plan"].push_back(record.message.substr(4, at - 4) + " " + record.message.substr(at + middle.size()));
}

void read_log_facts(const std::vector<LogRecord> &log, Facts &facts) {
    for (const LogRecord &record : log) {
        if (const auto change = transition_of(record)) {
            facts["transitions " + change->name].push_back(std::to_string(change->from) + ">" +
                                                           std::to_string(change->to));
        }
        if (is_decision(record.tag)) facts["decisions"].push_back(record.tag);
        if (record.tag == "AutoFpdUpgMainLoopDone") facts["ends of the loop"].push_back("1");
        read_plan_line(record, facts);
    }
}

// ---- rules that hold without a model

/// Records go through their states without a gap, and none is done twice.
void check_chains(const std::vector<LogRecord> &log, std::vector<std::string> &broken) {
    std::map<std::string, unsigned> state;
    for (const LogRecord &record : log) {
        const auto change = transition_of(record);
        if (!change) continue;
        const bool is_new = change->from == 0 || (!change->name.empty() && change->from == 2);
        if (!is_new && state[change->name] != change->from) {
            broken.push_back("a gap in the states of FPD '" + change->name + "': " + record.message);
        }
        if (!is_new && change->from == 19) broken.push_back("FPD " + change->name + " was done and went on");
        state[change->name] = change->to;
    }
}

/// By the name of its file.
const Image *image_of(const Card &card, const std::string &file) {
    for (const Fpd &fpd : card.fpds) {
        for (std::size_t region = 0; region < fpd.regions.size(); ++region) {
            for (const Image &image : fpd.regions[region].images) {
                if (image_file(fpd, region, image) == file) return &image;
            }
        }
    }
    return nullptr;
}

/// No FPD gets a worker before what the image that was last found for it depends on is done, or needs nothing. One that
/// is planned only because another depends on it is not asked what it depends on itself.
void check_order(const Card &card, const std::vector<LogRecord> &log, std::vector<std::string> &broken) {
    std::map<std::string, unsigned> state;
    std::map<std::string, std::string> depends_on;
    for (const LogRecord &record : log) {
        std::size_t at = 0;
        const auto name =
            record.tag == "InitMd5CalInfo" ? between(record.message, "FPD: ", " Dir: ", at) : std::nullopt;
        const auto file = name ? between(record.message, " Image: ", " MD5: ", at) : std::nullopt;
        if (const Image *image = file ? image_of(card, *file) : nullptr) depends_on[*name] = image->depends_on;
        const auto change = transition_of(record);
        if (!change) continue;
        state[change->name] = change->to;
        if (change->from == 12) depends_on.erase(change->name);
        const std::string &base = depends_on[change->name];
        const bool is_fine = base.empty() || state[base] == 13 || state[base] == 19;
        if (change->to == 15 && !is_fine) {
            broken.push_back("FPD " + change->name + " started while " + base + " was in state " +
                             std::to_string(state[base]));
        }
    }
}

/// Everything that the workers reported was received, and nothing else.
void check_reports(const std::vector<LogRecord> &log, std::vector<std::string> &broken) {
    std::map<std::string, int> open;
    for (const LogRecord &record : log) {
        std::size_t at = 0;
        if (record.tag == "FpdUpgradeProgress") {
            ++open[between(record.message, "FPD ", " upgrade progressing", at).value_or("?")];
        } else if (record.tag == "FpdUpgResponse" &&
                   record.message.find("'FPD Upgrade Progressing'") != record.message.npos) {
            --open[between(record.message, "FPD ", " received response", at).value_or("?")];
        }
    }
    for (const auto &[name, count] : open) {
        if (count != 0) broken.push_back(std::to_string(count) + " reports of FPD " + name + " were not received");
    }
}

void check_tags(const std::vector<LogRecord> &log, std::vector<std::string> &broken) {
    constexpr std::array never = {
        "FpdUpgMsgRcvErr",        "FpdUpgMsgRcvInvSize",  "FpdUpgMsgRcvInvMagic",        "FpdUpgMsgRcvInvWorker",
        "FpdUpgResponseDflt",     "RmFpdQueueEmpty",      "RmFpdQueueNotFound",          "MoveFpdBetweenQueueRm",
        "MoveFpdBetweenQueueAdd", "DeinitFpdMQFail",      "FpdUpgProgressCheckInvState", "FpdUpgHdlMqOpenFail",
        "FpdUpgHdlMqSendFail",    "FpdUpgHdlMqSendFail1", "FpdUpgradeProgressMqSendFail"};
    for (const LogRecord &record : log) {
        if (std::find(never.begin(), never.end(), record.tag) != never.end()) {
            broken.push_back("[" + record.tag + "] " + record.message);
        }
    }
}

/// A region is upgraded with success once between two starts of the tool, at most.
void check_upgrades(const std::vector<card_tests::CallRecord> &calls, std::vector<std::string> &broken) {
    std::map<std::string, int> successes;
    for (const card_tests::CallRecord &call : calls) {
        if (call.function == "brd_fru_hw_init") successes.clear();
        if (call.function == "brd_fpd_upgrade" && call.outcome == "-> 0" && ++successes[call.arguments] > 1) {
            broken.push_back("upgraded again: " + call.arguments);
        }
    }
}

bool is_too_slow(const std::vector<LogRecord> &log, const std::map<std::string, unsigned> &time_outs) {
    constexpr std::array limits = {"ChkFpdUpgScheduleMaxTransTimeOut", "ChkFpdUpgStartedMaxTransTimeOut",
                                   "ChkFpdUpgProgressingMaxTransTimeOut"};
    return std::any_of(limits.begin(), limits.end(), [&](const char *tag) {
        const auto expected = time_outs.find(tag);
        return card_tests::with_tag(log, tag).size() > (expected == time_outs.end() ? 0 : expected->second);
    });
}

// ---- what else a card is left with

void read_calls(const Card &card, const std::vector<card_tests::CallRecord> &calls, Facts &facts) {
    std::map<std::string, std::string> names;  // by the arguments' beginning
    for (const Fpd &fpd : card.fpds) {
        for (std::size_t region = 0; region < fpd.regions.size(); ++region) {
            names["group=" + std::to_string(group) + " obj=" + std::to_string(fpd.id) +
                  " region=" + std::to_string(region)] = fpd.regions[region].name.substr(0, 63);
        }
    }
    for (const card_tests::CallRecord &call : calls) {
        if (call.function == "brd_sb_attribute_flag_set") add_text(facts, "flags", call.arguments.substr(6));
        // A worker that is cancelled may not come to its record any more: the tool does not wait for it.
        if (call.function != "brd_fpd_upgrade" || call.outcome == "-> cancelled") continue;
        const std::string who = call.arguments.substr(0, call.arguments.find(" directory="));
        facts["upgrades " + names[who]].push_back(call.outcome == "begin" ? "begin" : call.outcome.substr(3));
    }
}

/// An event is said of the FPD that its text names at its end.
void read_event(const std::string &line, Facts &facts) {
    std::string text = line;
    const std::string quote = R"('\'')";
    for (std::size_t at = text.find(quote); at != text.npos; at = text.find(quote, at)) text.replace(at, 4, "\"");
    std::size_t at = 0;
    const auto kind = between(text, "'-e' '", "'", at);
    const auto message = between(text, " '-m' '", "'", at);
    if (!kind || !message) return add_text(facts, "events", line);
    if (*kind == "progress") return;  // as often as the run's length gives
    std::size_t quoted = 0;
    const std::string about = between(*message, "\"", "\"", quoted).value_or("card");
    std::string shown = *kind + ": " + *message;
    std::replace(shown.begin(), shown.end(), '"', '\'');
    facts["events " + about].push_back(shown);
}

void read_scripts(const fs::path &file, Facts &facts) {
    for (const std::string &line : card_tests::lines_of(card_tests::read_file(file))) {
        const std::string script = line.substr(0, line.find(' '));
        if (script == "/usr/local/etc/punch-watchdog-once.sh") facts["watchdog"] = {"punched"};
        if (script == "/usr/local/etc/send_fpd_doorbell_event.sh") read_event(line, facts);
        if (script == "/usr/sbin/grub-reboot" || script == "/usr/local/etc/reset_board.sh") {
            facts["scripts"].push_back(line);
        }
    }
}

void read_event_log(const fs::path &file, const std::string &place, Facts &facts) {
    for (const std::string &line : card_tests::lines_of(card_tests::read_file(file))) {
        std::size_t at = 0;
        const std::size_t begin = line.find(" [Bootup FPD] ");
        const std::string text = begin == line.npos ? line : line.substr(begin + 14);
        facts[place + " " + between(text, "FPD '", "'", at).value_or("?")].push_back(text);
    }
}

void read_end_state(const fs::path &state, Facts &facts) {
    const card_tests::CardState end = card_tests::read_state(state / "state.toml");
    for (const auto &[name, region] : end.regions)
        facts["versions"].push_back(region.running + " " + region.programmed);
    for (const auto &[id, look] : end.leds) {
        facts["leds"].push_back(std::to_string(look.state) + " " + std::to_string(look.color));
    }
    facts["settings"].push_back(std::to_string(end.auto_upgrade) + " " + std::to_string(end.upgrade_mode));
    const fs::path marker = state / "scratch/bootup_fpd_marker.txt";
    if (fs::exists(marker)) facts["marker"].push_back(card_tests::read_file(marker));
}

void read_result(const Card &card, const card_tests::Result &result, Observation &seen) {
    seen.facts["status"].push_back(std::to_string(result.status));
    add_text(seen.facts, "stdout", card.lives ? without_lines_of(result.out, "boot ") : result.out);
    add_text(seen.facts, "stderr", card.lives ? without_lines_of(result.err, "cardsim: gave up") : result.err);
    if (result.timed_out) seen.broken_rules.emplace_back("the run did not end within its bound");
    const bool was_cut_short = result.out.find("the card was powered off after") != result.out.npos;
    const bool had_no_queue = result.err.find("msg queue err_msg Too many open files") != result.err.npos;
    seen.is_void = was_cut_short || had_no_queue;
}

}  // namespace

Observation observe(const Card &card, const Prediction &prediction, unsigned speed, const fs::path &place) {
    fs::create_directories(place);
    card_tests::write_file(place / "card.toml", card_toml(card, prediction.marker_before));
    const std::chrono::seconds limit =
        machine_slack + std::chrono::seconds(static_cast<int64_t>(2 * prediction.seconds / speed));
    const std::string startup = startup_command(card, prediction.marker_before);
    Observation seen;
    const card_tests::Result result = card_tests::run_program(command_of(card, speed, place, startup), place, limit);
    read_result(card, result, seen);
    const fs::path state = place / "state";
    if (!fs::exists(state / "state.toml")) {
        throw std::runtime_error("the card was not powered on: status " + std::to_string(result.status) +
                                 (result.timed_out ? ", ended by its bound: " : ": ") + result.out + result.err);
    }
    const std::vector<LogRecord> log = card_tests::read_log(state / "log/fpd.log");
    const std::vector<card_tests::CallRecord> calls = card_tests::read_calls(state / "calls.log");
    read_log_facts(log, seen.facts);
    read_calls(card, calls, seen.facts);
    read_scripts(state / "scripts.log", seen.facts);
    read_event_log(state / "flash/fpd_local_log_1.txt", "flash", seen.facts);
    read_event_log(state / "log/fpd_obfl_log.txt", "temporary log", seen.facts);
    read_end_state(state, seen.facts);
    add_text(seen.facts, "aborts", card_tests::read_file(state / "abort.log"));
    check_chains(log, seen.broken_rules);
    check_order(card, log, seen.broken_rules);
    check_reports(log, seen.broken_rules);
    check_tags(log, seen.broken_rules);
    check_upgrades(calls, seen.broken_rules);
    seen.is_void = seen.is_void || is_too_slow(log, prediction.time_outs);
    return seen;
}

std::string replay_command(const Card &card, unsigned speed, const fs::path &place) {
    return std::string(CARDSIM_COMMAND) + " boot " + (place / "card.toml").string() + " --speed " +
           std::to_string(speed) + " --max-boots " + std::to_string(card.lives ? max_boots : 1) + " --state " +
           (place / "again").string();
}

}  // namespace properties
