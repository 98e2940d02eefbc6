#include "life.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "file_text.h"
#include "run_reader.h"
#include "scripts.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

using fpd_log::Outcome;

bool is_upgraded(const std::optional<Outcome> &outcome) {
    return outcome == Outcome::upgraded || outcome == Outcome::upgraded_at_second_attempt;
}

/// What a region has when a later run has nothing to say of it stays.
bool says_nothing_new(const std::optional<Outcome> &before, Outcome now) {
    if (now == Outcome::not_considered) return before.has_value();
    return now == Outcome::current && is_upgraded(before);
}

const fpd_log::Region *region_of(const fpd_log::Run &run, const std::string &name) {
    const auto found = std::find_if(run.regions.begin(), run.regions.end(),
                                    [&](const fpd_log::Region &region) { return region.name == name; });
    return found == run.regions.end() ? nullptr : &*found;
}

RegionFate fate_in(const std::vector<BootLife> &boots, const std::string &name) {
    RegionFate fate;
    for (const BootLife &boot : boots) {
        for (const fpd_log::Run &run : boot.runs) {
            if (const fpd_log::Region *region = region_of(run, tools_name(name))) fate.go_on(*region, boot.number);
        }
    }
    return fate;
}

std::string reason_without_a_run(const std::vector<BootLife> &boots) {
    for (const BootLife &boot : boots) {
        if (boot.no_log) return "boot " + std::to_string(boot.number) + ": " + *boot.no_log;
    }
    return "no run of the tool looked at it";
}

/// What the versions add to what the log says.
std::string reason_with_versions(const RegionFate &fate, const RegionLife &region) {
    std::string reason = fate.reason;
    if (region.after.programmed != region.after.running) {
        reason += "; " + version_text(region.after.programmed) + " is programmed and not running";
    } else if (is_upgraded(fate.outcome) && region.is_due) {
        reason += "; it runs " + version_text(region.after.running) + " again";
    }
    return reason;
}

bool wants_upgrade(const RegionDescription &region, const CardState &state, const FirmwareVersion &running) {
    const ImageDescription *image = image_for_mode(region, state.upgrade_mode);
    return image != nullptr && image->need_upgrade.value_or(true) && running != firmware_version(image->version);
}

std::string packaged_version(const RegionDescription &region, const CardState &state) {
    const ImageDescription *image = image_for_mode(region, state.upgrade_mode);
    return image == nullptr ? std::string() : version_text(image->version);
}

RegionVersions versions_of(const RegionState *state) {
    return state == nullptr ? RegionVersions{} : RegionVersions{state->running, state->programmed};
}

RegionLife region_life(const RegionDescription &region, const RegionState &after, const CardState &state,
                       const RegionState *before, const std::vector<BootLife> &boots) {
    RegionLife life;
    life.fpd = after.fpd;
    life.index = after.index;
    life.name = region.name;
    life.before = versions_of(before);
    life.after = versions_of(&after);
    life.packaged = packaged_version(region, state);
    const RegionFate fate = fate_in(boots, region.name);
    life.outcome = fate.outcome;
    if (!life.outcome && std::none_of(boots.begin(), boots.end(), [](const BootLife &boot) { return boot.no_log; })) {
        life.outcome = Outcome::not_considered;
    }
    life.boot = fate.boot;
    life.attempts = fate.attempts;
    life.is_due = fate.outcome != Outcome::not_considered && wants_upgrade(region, state, after.running);
    life.reason = fate.outcome ? reason_with_versions(fate, life) : reason_without_a_run(boots);
    return life;
}

std::vector<RegionLife> region_lives(const CardDescription &card, const CardState &before, const CardState &after,
                                     const std::vector<BootLife> &boots) {
    std::vector<RegionLife> regions;
    for (const FpdDescription &fpd : card.fpds) {
        for (std::size_t index = 0; index < fpd.regions.size(); ++index) {
            const auto number = static_cast<uint8_t>(index);
            regions.push_back(region_life(fpd.regions[index], *find_region(after, fpd.id, number), after,
                                          find_region(before, fpd.id, number), boots));
        }
    }
    return regions;
}

// ---- faults that were not met

std::string kind_text(const RegionFault &fault) {
    constexpr const char *kinds[] = {"fail", "hang", "slow", "does_not_stick"};
    return kinds[static_cast<std::size_t>(fault.kind)] +
           (fault.attempt ? " at attempt " + std::to_string(*fault.attempt) : std::string());
}

std::string call_text(const CallFault &fault) {
    return fault.call + (fault.nth ? ", call " + std::to_string(*fault.nth) : std::string()) +
           (fault.boot ? ", boot " + std::to_string(*fault.boot) : std::string());
}

/// Names of the faults that were recorded from `begin` on.
std::set<std::string> faults_reached(const StateDirectory &state, std::uintmax_t begin) {
    if (state.size(faults_log) <= begin) return {};
    const Descriptor file = state.open(faults_log, O_RDONLY);
    lseek(file.get(), static_cast<off_t>(begin), SEEK_SET);
    const std::string text = read_text(file, state.path() / faults_log);
    std::set<std::string> reached;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        const std::size_t name = line.find(": ");
        if (name != std::string::npos) reached.insert(line.substr(name + 2));
        at = end + 1;
    }
    return reached;
}

std::vector<std::string> faults_not_reached(const CardDescription &card, const std::set<std::string> &reached) {
    std::vector<std::string> missing;
    for (const FpdDescription &fpd : card.fpds) {
        for (std::size_t index = 0; index < fpd.regions.size(); ++index) {
            const RegionDescription &region = fpd.regions[index];
            for (std::size_t fault = 0; fault < region.faults.size(); ++fault) {
                if (reached.contains(region_fault_name(fpd.id, static_cast<uint8_t>(index), fault))) continue;
                missing.push_back(region.name + ": " + kind_text(region.faults[fault]));
            }
        }
    }
    for (std::size_t fault = 0; fault < card.faults.size(); ++fault) {
        if (!reached.contains(call_fault_name(fault))) missing.push_back(call_text(card.faults[fault]));
    }
    return missing;
}

// ---- what nobody brought

std::vector<std::string> made_up_images(const CardPlace &place) {
    std::set<std::string> names;
    for (const FpdDescription &fpd : place.description.fpds) {
        for (const RegionDescription &region : fpd.regions) {
            for (const ImageDescription &image : region.images) {
                if (!fs::exists(place.images / image.file)) names.insert(image.file);
            }
        }
    }
    return {names.begin(), names.end()};
}

std::vector<std::string> made_up_files(const CardDescription &card) {
    std::vector<std::string> names;
    if (!card.bootstrap) names.emplace_back("kd_bootstrap");
    for (const Script &script : card_scripts(card, 1)) names.push_back(script.path.string());
    return names;
}

}  // namespace

void RegionFate::go_on(const fpd_log::Region &region, uint32_t boot_number) {
    attempts += static_cast<uint32_t>(region.attempts.size());
    if (says_nothing_new(outcome, region.outcome)) return;
    outcome = region.outcome;
    reason = region.reason;
    boot = boot_number;
}

std::string tools_name(const std::string &name) {
    constexpr std::size_t most = 63;
    return name.substr(0, most);
}

std::vector<fpd_log::Run> runs_in_log(const StateDirectory &state, std::uintmax_t begin) {
    const fs::path path = state.path() / diagnostic_log;
    const Descriptor file = state.open(diagnostic_log, O_RDONLY);
    if (lseek(file.get(), static_cast<off_t>(begin), SEEK_SET) < 0) throw system_error(path.string(), errno);
    std::vector<fpd_log::Run> runs;
    fpd_log::RunReader reader([&](fpd_log::Run &&run) { runs.push_back(std::move(run)); });
    reader.begin_source("fpd.log");
    read_pieces(file, path, [&](std::string_view piece) { reader.push(piece); });
    reader.finish();
    return runs;
}

std::uintmax_t log_size(const StateDirectory &state) {
    try {
        return state.size(diagnostic_log);
    } catch (const std::exception &) {
        return 0;  // whoever reads it will say what is wrong
    }
}

LifeRecord::LifeRecord(const CardPlace &place, const StateDirectory &state)
    : place_(place),
      state_(state),
      before_(load_state(state, place.description)),
      faults_begin_(state.size(faults_log)) {
    life_.pid = place.description.pid;
    life_.slot = place.description.slot;
}

void LifeRecord::begin_boot(uint32_t number, const std::string &began) {
    BootLife boot;
    boot.number = number;
    boot.began = began;
    life_.boots.push_back(std::move(boot));
    log_begin_ = log_size(state_);
}

void LifeRecord::end_boot(const std::string &ended, double seconds) {
    BootLife &boot = life_.boots.back();
    boot.ended = ended;
    boot.seconds = seconds;
    try {
        if (!state_.has(diagnostic_log)) {
            boot.no_log = "there is no diagnostic log";
        } else if (state_.size(diagnostic_log) < log_begin_) {
            boot.no_log = "the diagnostic log is shorter than before the boot";
        } else {
            boot.runs = runs_in_log(state_, log_begin_);
        }
    } catch (const std::exception &reason) {
        boot.no_log = reason.what();
    }
}

Life LifeRecord::finish(int status) {
    const CardState after = load_state(state_, place_.description);
    life_.status = status;
    life_.regions = region_lives(place_.description, before_, after, life_.boots);
    life_.faults_not_reached = faults_not_reached(place_.description, faults_reached(state_, faults_begin_));
    life_.made_up_images = made_up_images(place_);
    life_.made_up_files = made_up_files(place_.description);
    return std::move(life_);
}

bool is_anything_due(const Life &life) {
    return std::any_of(life.regions.begin(), life.regions.end(),
                       [](const RegionLife &region) { return region.is_due; });
}

}  // namespace cardsim
