#include "compare.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "life.h"
#include "printable.h"
#include "text_table.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

/// What is compared of a region, by what it is called in the table.
using Facts = std::vector<std::pair<const char *, std::string>>;

struct Remains {
    CardState state;
    std::vector<fpd_log::Run> runs;
    std::map<std::string, RegionFate> fates;  ///< by the tool's names
    std::map<std::string, int> queues;        ///< of the last run that planned the region
    std::vector<std::string> order;           ///< of the first attempts, by the tool's names
};

/// The regions of a run that were tried, in the order in which the first attempts began.
std::vector<const fpd_log::Region *> tried_in(const fpd_log::Run &run) {
    std::vector<const fpd_log::Region *> tried;
    for (const fpd_log::Region &region : run.regions) {
        if (!region.attempts.empty()) tried.push_back(&region);
    }
    std::stable_sort(tried.begin(), tried.end(), [](const fpd_log::Region *one, const fpd_log::Region *other) {
        return one->attempts.front().begin < other->attempts.front().begin;
    });
    return tried;
}

bool holds(const std::vector<std::string> &names, const std::string &name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

void add_run(Remains &remains, const fpd_log::Run &run) {
    for (const fpd_log::Region &region : run.regions) {
        remains.fates[region.name].go_on(region, 0);
        if (region.queue) remains.queues[region.name] = *region.queue;
    }
    for (const fpd_log::Region *region : tried_in(run)) {
        if (!holds(remains.order, region->name)) remains.order.push_back(region->name);
    }
}

Remains remains_of(const fs::path &directory) {
    if (!fs::is_directory(directory)) throw Error(directory.string() + ": no directory");
    const StateDirectory state(fs::canonical(directory));
    Remains remains;
    remains.state = load_saved_state(state);
    if (state.has(diagnostic_log)) remains.runs = runs_in_log(state, 0);
    for (const fpd_log::Run &run : remains.runs) add_run(remains, run);
    return remains;
}

/// The place of a region among those that both cards tried, from 1; empty: not one of them.
std::string place_of(const std::string &name, const Remains &own, const Remains &others) {
    if (!holds(others.order, name)) return {};
    std::size_t place = 0;
    for (const std::string &tried : own.order) {
        if (holds(others.order, tried)) ++place;
        if (tried == name) return std::to_string(place);
    }
    return {};
}

std::string queue_of(const std::string &name, const Remains &remains) {
    const auto found = remains.queues.find(name);
    return found == remains.queues.end() ? "none" : std::to_string(found->second);
}

RegionFate fate_of(const RegionState &region, const Remains &remains) {
    const auto found = remains.fates.find(tools_name(region.name));
    return found == remains.fates.end() ? RegionFate() : found->second;
}

Facts facts_of(const RegionState &region, const Remains &own, const Remains &others) {
    const std::string name = tools_name(region.name);
    const RegionFate fate = fate_of(region, own);
    return {{"running", version_text(region.running)},
            {"programmed", version_text(region.programmed)},
            {"outcome", fate.outcome ? fpd_log::outcome_text(*fate.outcome) : "no run"},
            {"attempts", std::to_string(fate.attempts)},
            {"queue", queue_of(name, own)},
            {"order", place_of(name, own, others)}};
}

Facts facts_of(const CardState &state) {
    return {{"boots", std::to_string(state.boot)},
            {"auto-upgrade", std::to_string(state.auto_upgrade)},
            {"upgrade mode", std::to_string(state.upgrade_mode)}};
}

void add_differences(std::vector<TableRow> &rows, const std::string &name, const Facts &one, const Facts &other) {
    for (std::size_t fact = 0; fact < one.size(); ++fact) {
        if (one[fact].second == other[fact].second) continue;
        rows.push_back({printable(name), one[fact].first, printable(one[fact].second), printable(other[fact].second)});
    }
}

/// Reasons of one and the same outcome may differ in the times that were measured.
void add_reasons(std::vector<TableRow> &rows, const std::string &name, const RegionFate &one, const RegionFate &other) {
    if (one.outcome == other.outcome) return;
    rows.push_back({printable(name), "reason", printable(one.reason), printable(other.reason)});
}

void add_region(std::vector<TableRow> &rows, const RegionState &region, const Remains &one, const Remains &other) {
    const RegionState *match = find_region(other.state, region.fpd, region.index);
    if (match == nullptr) {
        rows.push_back({printable(region.name), "region", "there", "not there"});
    } else if (match->name != region.name) {
        rows.push_back({printable(region.name), "name", printable(region.name), printable(match->name)});
    } else {
        add_differences(rows, region.name, facts_of(region, one, other), facts_of(*match, other, one));
        add_reasons(rows, region.name, fate_of(region, one), fate_of(*match, other));
    }
}

}  // namespace

std::string differences(const fs::path &one, const fs::path &other, std::size_t width) {
    const Remains a = remains_of(one);
    const Remains b = remains_of(other);
    std::vector<TableRow> rows = {{"REGION", "WHAT", "A", "B"}};
    add_differences(rows, "(card)", facts_of(a.state), facts_of(b.state));
    for (const RegionState &region : a.state.regions) add_region(rows, region, a, b);
    for (const RegionState &region : b.state.regions) {
        if (find_region(a.state, region.fpd, region.index) != nullptr) continue;
        rows.push_back({printable(region.name), "region", "not there", "there"});
    }
    return rows.size() == 1 ? std::string() : aligned(rows, width);
}

}  // namespace cardsim
