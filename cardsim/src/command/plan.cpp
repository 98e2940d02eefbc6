#include "plan.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "file_text.h"
#include "printable.h"
#include "text_table.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

using fpd_log::Outcome;

constexpr const char *usual_startup = "bootup_fpd -c upgrade";
constexpr const char *marker_file = "scratch/bootup_fpd_marker.txt";

/// Keeps its time, by which the card knows whether an image is older than the one beside the description.
void copy_file(const StateDirectory &from, const fs::path &name, const fs::path &to) {
    const Descriptor source = from.open(name, O_RDONLY);
    fs::copy_file(source.name(), to / name);
    const timespec modified = from.status(name)->st_mtim;
    const timespec times[2] = {modified, modified};
    if (utimensat(AT_FDCWD, (to / name).c_str(), times, 0) != 0) throw system_error((to / name).string(), errno);
}

void copy_directory(const StateDirectory &from, const fs::path &name, const fs::path &to) {
    fs::create_directory(to / name);
    for (const fs::directory_entry &entry : fs::directory_iterator(from.path() / name)) {
        if (entry.is_regular_file()) copy_file(from, name / entry.path().filename(), to);
    }
}

void refuse_a_card_that_boots(const StateDirectory &state) {
    if (!state.has("power")) return;
    const Descriptor power = state.open("power", O_RDONLY);
    if (flock(power.get(), LOCK_SH | LOCK_NB) != 0) throw Error(state.path().string() + ": the card is booting");
}

/// All of a state that a boot's plan depends on; what follows from the description is made anew.
void copy_state(const fs::path &state, const fs::path &to) {
    const StateDirectory from(state);
    const StateLock lock(from);
    refuse_a_card_that_boots(from);
    from.check();
    fs::create_directory(to);
    for (const char *name : {state_file, "power", "reset_request"}) {
        if (from.has(name)) copy_file(from, name, to);
    }
    for (const char *name : {package_directory, "scratch"}) {
        if (from.has(name)) copy_directory(from, name, to);
    }
}

/// A directory that goes with its owner.
class CopyOfState {
  public:
    CopyOfState() {
        std::string name = (fs::temp_directory_path() / "cardsim-plan-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) throw system_error(name, errno);
        path_ = fs::canonical(name);
    }
    CopyOfState(const CopyOfState &) = delete;
    CopyOfState &operator=(const CopyOfState &) = delete;
    ~CopyOfState() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    fs::path state() const { return path_ / "state"; }

  private:
    fs::path path_;
};

/// The card with its state in `copy`, as it is now; without one it is made at the power-on.
CardPlace copied_card(const CardPlace &place, const CopyOfState &copy) {
    CardPlace copied = place;
    copied.state = copy.state();
    if (has_state(place)) copy_state(place.state, copied.state);
    return copied;
}

/// An open file in memory for what the tool prints.
Descriptor output_file() {
    Descriptor file(memfd_create("output", MFD_CLOEXEC));
    if (!file.is_open()) throw system_error("a file for the output", errno);
    return file;
}

std::string text_of(const Descriptor &output) {
    lseek(output.get(), 0, SEEK_SET);
    return read_text(output, "the tool's output");
}

struct Listed {
    uint32_t place;       ///< from 1
    std::string version;  ///< that it would be upgraded to
};

/// What `list_upgrade` printed, by name: a line of a heading, then name and version of each in the plan's order.
std::map<std::string, Listed> listed_upgrades(const std::string &text) {
    std::map<std::string, Listed> list;
    uint32_t place = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const std::size_t blank = line.rfind(' ');
        if (blank == std::string::npos || (place == 0 && list.empty() && line.starts_with("FPD name "))) continue;
        const std::size_t name_end = line.find_last_not_of(' ', blank);
        list[line.substr(0, name_end + 1)] = {++place, line.substr(blank + 1)};
    }
    return list;
}

/// The last run that knows the region: manufacturing plans in stages, and the last one that plans counts.
const fpd_log::Region *region_in(const std::vector<fpd_log::Run> &runs, const std::string &name) {
    for (auto run = runs.rbegin(); run != runs.rend(); ++run) {
        for (const fpd_log::Region &region : run->regions) {
            if (region.name == name) return &region;
        }
    }
    return nullptr;
}

RegionPlan region_plan(const RegionState &state, const fpd_log::Region *region,
                       const std::map<std::string, Listed> &listed) {
    RegionPlan plan;
    plan.fpd = state.fpd;
    plan.index = state.index;
    plan.name = state.name;
    plan.now = {state.running, state.programmed};
    plan.reason = "the tool did not look at it";
    if (region != nullptr) {
        plan.packaged = region->packaged;
        plan.outcome = region->outcome;
        plan.reason = region->reason;
    }
    const auto found = listed.find(tools_name(state.name));
    if (found == listed.end()) return plan;
    plan.place = found->second.place;
    plan.packaged = found->second.version;
    plan.outcome = Outcome::planned;
    if (region != nullptr) plan.queue = region->queue;
    plan.reason = "would be upgraded";
    return plan;
}

/// The FPD that the planned firmware of a region waits for; empty: none.
std::string dependency_of(const RegionPlan &plan, const CardDescription &card) {
    for (const FpdDescription &fpd : card.fpds) {
        if (fpd.id != plan.fpd) continue;
        for (const ImageDescription &image : fpd.regions[plan.index].images) {
            if (version_text(image.version) == plan.packaged) return image.depends_on;
        }
    }
    return {};
}

void tell_dependencies(std::vector<RegionPlan> &plans, const CardDescription &card,
                       const std::map<std::string, Listed> &listed) {
    for (RegionPlan &plan : plans) {
        const std::string dependency = plan.place == 0 ? std::string() : dependency_of(plan, card);
        if (listed.contains(dependency)) plan.reason += " after " + dependency;
    }
}

/// The marker that a run of this plan compares with the one of the last run that reloaded the card.
std::vector<std::string> marker_lines(const Plan &plan) {
    std::vector<std::string> lines;
    for (const RegionPlan &region : plan.regions) {
        if (region.place == 0) continue;
        char line[256];
        std::snprintf(line, sizeof line, "FPD: %-16s | Version: %-12s", tools_name(region.name).c_str(),
                      region.packaged.c_str());
        lines.emplace_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<std::string> lines_of_marker(const StateDirectory &state) {
    if (!state.has(marker_file)) return {};
    std::vector<std::string> lines;
    const std::string text = read_text(state.open(marker_file, O_RDONLY), state.path() / marker_file);
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<std::string> notes_on(const Plan &plan, const CardDescription &card, const std::string &output,
                                  const StateDirectory &state, const std::vector<fpd_log::Run> &runs) {
    std::vector<std::string> notes;
    if (plan.status != 0) notes.push_back("the tool cannot plan: it ended with status " + std::to_string(plan.status));
    for (const fpd_log::Run &run : runs) {
        if (!run.failure.empty()) notes.push_back("the run failed: " + run.failure);
    }
    if (output.starts_with("Auto FPD Upgrade is Disabled")) notes.emplace_back("automatic upgrade is disabled");
    const std::vector<std::string> marker = marker_lines(plan);
    if (!marker.empty() && marker == lines_of_marker(state)) {
        notes.emplace_back("a boot would skip it all: the upgrade marker names the same FPDs and versions");
    }
    if (card.startup != usual_startup) notes.push_back("this card starts with: " + card.startup);
    return notes;
}

std::vector<RegionPlan> region_plans(const CardState &state, const std::vector<fpd_log::Run> &runs,
                                     const std::map<std::string, Listed> &listed) {
    std::vector<RegionPlan> regions;
    for (const RegionState &region : state.regions) {
        regions.push_back(region_plan(region, region_in(runs, tools_name(region.name)), listed));
    }
    return regions;
}

std::vector<fpd_log::Run> runs_of(const StateDirectory &state) {
    return state.has(diagnostic_log) ? runs_in_log(state, 0) : std::vector<fpd_log::Run>();
}

/// Gives planned regions what becomes of them in a boot of another copy. Not of the one that made the plan, which has
/// begun its boot: the next would be one more.
void rehearse_boot(Plan &plan, const CardPlace &place, const Power &power) {
    const CopyOfState copy;
    const CardPlace copied = copied_card(place, copy);
    const Descriptor output = output_file();
    run_at_boot(copied, power, {"bootup_fpd", "-c", "upgrade"}, output.get());
    const std::vector<fpd_log::Run> runs = runs_of(StateDirectory(copied.state));
    for (RegionPlan &region : plan.regions) {
        const fpd_log::Region *const seen = region_in(runs, tools_name(region.name));
        if (region.place == 0 || seen == nullptr || seen->outcome == Outcome::upgraded) continue;
        region.outcome = seen->outcome;
        region.reason = seen->reason;
    }
}

std::string told(const RegionPlan &region) {
    std::string text = region.reason;
    if (region.outcome != Outcome::planned) text = fpd_log::outcome_text(region.outcome) + (": " + text);
    if (region.now.programmed != region.now.running) {
        text += "; " + version_text(region.now.programmed) + " is programmed and not running";
    }
    return text;
}

TableRow row_of(const RegionPlan &region) {
    return {printable(region.name), version_text(region.now.running),
            region.packaged.empty() ? "-" : printable(region.packaged),
            region.queue ? std::to_string(*region.queue) : "", printable(told(region))};
}

}  // namespace

Plan plan_boot(const CardPlace &place, const Power &power, bool rehearse) {
    const CopyOfState copy;
    const CardPlace copied = copied_card(place, copy);
    const Descriptor output = output_file();
    Plan plan;
    plan.pid = place.description.pid;
    plan.slot = place.description.slot;
    plan.status = run_at_boot(copied, power, {"bootup_fpd", "-c", "list_upgrade"}, output.get());
    const StateDirectory state(copied.state);
    const std::vector<fpd_log::Run> runs = runs_of(state);
    const std::string text = text_of(output);
    const std::map<std::string, Listed> listed = listed_upgrades(text);
    plan.regions = region_plans(load_state(state, place.description), runs, listed);
    tell_dependencies(plan.regions, place.description, listed);
    plan.notes = notes_on(plan, place.description, text, state, runs);
    if (rehearse) rehearse_boot(plan, place, power);
    return plan;
}

std::vector<const RegionPlan *> in_order(const Plan &plan) {
    std::vector<const RegionPlan *> regions;
    for (const RegionPlan &region : plan.regions) regions.push_back(&region);
    std::stable_sort(regions.begin(), regions.end(), [](const RegionPlan *one, const RegionPlan *other) {
        return one->place - 1 < other->place - 1;  // 0, not planned, is last
    });
    return regions;
}

std::string plan_text(const Plan &plan, std::size_t width) {
    std::vector<TableRow> rows = {{"REGION", "RUNNING", "PACKAGED", "QUEUE", "PLAN"}};
    for (const RegionPlan *region : in_order(plan)) rows.push_back(row_of(*region));
    std::string text = printable(plan.pid) + " in slot " + std::to_string(plan.slot) + ", the next boot\n\n";
    text += aligned(rows, width);
    for (const std::string &note : plan.notes) text += "\n" + wrapped(printable(note), width, 4);
    return text;
}

}  // namespace cardsim
