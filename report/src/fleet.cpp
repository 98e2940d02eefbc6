#include "fleet.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "verdict.h"

namespace fpd_report {
namespace {

using fpd_log::Outcome;
using fpd_log::Region;
using fpd_log::Run;

/// Of a text of a log; no more of it is kept.
constexpr std::size_t longest_text = 256;
/// What so many times fewer cards have than the usual is unusual.
constexpr std::size_t unusual_factor = 4;

bool is_unusual(std::size_t cards, std::size_t usual) {
    return cards * unusual_factor <= usual;
}

std::string bounded(const std::string &text) {
    return text.substr(0, longest_text);
}

/// The same for reasons that differ in times, counts and addresses only.
std::string without_numbers(const std::string &text) {
    std::string result;
    for (const char letter : text) {
        const bool is_digit = letter >= '0' && letter <= '9';
        if (!is_digit) {
            result += letter;
        } else if (result.empty() || result.back() != '#') {
            result += '#';
        }
    }
    return result;
}

Oddness oddness_of(Outcome outcome) {
    if (outcome == Outcome::failed || outcome == Outcome::given_up) return Oddness::failed;
    return fpd_log::is_well(outcome) ? Oddness::none : Oddness::not_well;
}

std::string version_after(const Region &region) {
    const bool is_new = region.outcome == Outcome::upgraded || region.outcome == Outcome::upgraded_at_second_attempt;
    if (is_new) return region.packaged;
    return region.programmed.empty() ? region.running : region.programmed;
}

FleetGroup whole_run(Oddness oddness, const char *outcome, const std::string &reason) {
    FleetGroup group;
    group.oddness = oddness;
    group.outcome = outcome;
    group.reason = bounded(reason);
    return group;
}

using VersionCounts = std::map<std::string, std::map<std::string, std::size_t>>;

/// By region, the cards of each version where the region is well.
VersionCounts count_versions(const std::vector<FleetGroup> &groups) {
    VersionCounts counts;
    for (const FleetGroup &group : groups) {
        if (group.oddness == Oddness::none) counts[group.region][group.version] += group.cards;
    }
    return counts;
}

void mark_unusual_versions(std::vector<FleetGroup> *groups) {
    const VersionCounts counts = count_versions(*groups);
    for (FleetGroup &group : *groups) {
        if (group.oddness != Oddness::none) continue;
        const auto &versions = counts.at(group.region);
        const auto usual = std::max_element(versions.begin(), versions.end(), [](const auto &one, const auto &other) {
            return one.second < other.second;
        });
        if (!is_unusual(versions.at(group.version), usual->second)) continue;
        group.oddness = Oddness::unusual;
        group.reason = "unusual: " + std::to_string(usual->second) + " cards have " +
                       (usual->first.empty() ? "no version" : usual->first);
    }
}

void add_example(std::set<std::string> *examples, const std::string &card) {
    if (examples->size() == Fleet::examples_kept && card > *examples->rbegin()) return;
    examples->insert(card);
    if (examples->size() > Fleet::examples_kept) examples->erase(std::prev(examples->end()));
}

/// The odd ones first, the many before the few.
bool stands_before(const FleetGroup &one, const FleetGroup &other) {
    if (one.oddness != other.oddness) return one.oddness < other.oddness;
    if (one.oddness == Oddness::none && one.region != other.region) return one.region < other.region;
    if (one.cards != other.cards) return one.cards > other.cards;
    return std::tie(one.region, one.outcome, one.version, one.packaged, one.examples) <
           std::tie(other.region, other.outcome, other.version, other.packaged, other.examples);
}

}  // namespace

void Fleet::add_card(const std::string &name, const Run *last, std::uint64_t runs, const std::string &why_not) {
    ++cards_;
    runs_ += runs;
    if (last == nullptr) {
        count(name, whole_run(Oddness::failed, "no run", why_not));
        return;
    }
    if (is_well(*last)) ++well_;
    count_run(name, *last);
    for (const Region &region : last->regions) count_region(name, region);
    note_regions(name, *last);
}

void Fleet::count_run(const std::string &card, const Run &run) {
    if (!run.failure.empty()) count(card, whole_run(Oddness::failed, "ended by an error", run.failure));
    if (reload_failed(run)) count(card, whole_run(Oddness::failed, "reload failed", ""));
    const bool is_told = std::any_of(run.regions.begin(), run.regions.end(),
                                     [](const Region &region) { return region.outcome == Outcome::unfinished; });
    if (run.regions.empty() && run.failure.empty()) {
        count(card, whole_run(Oddness::unusual, "no regions", run.disabled ? "automatic upgrade is switched off" : ""));
    }
    if (!run.finished && !is_told && run.failure.empty()) {
        count(card, whole_run(Oddness::not_well, "unfinished", "the log ends before the run does"));
    }
}

void Fleet::count_region(const std::string &card, const Region &region) {
    FleetGroup group;
    group.oddness = oddness_of(region.outcome);
    group.region = bounded(region.name);
    group.outcome = fpd_log::outcome_text(region.outcome);
    group.version = bounded(version_after(region));
    group.packaged = bounded(region.packaged);
    if (group.oddness != Oddness::none) group.reason = bounded(region.reason);
    count(card, std::move(group));
}

void Fleet::count(const std::string &card, FleetGroup group) {
    Key key = {group.region, group.outcome, group.version, group.packaged, without_numbers(group.reason)};
    auto place = groups_.find(key);
    if (place == groups_.end()) {
        if (groups_.size() == groups_kept) {
            ++left_out_;
            return;
        }
        place = groups_.emplace(std::move(key), FleetGroup()).first;
    }
    FleetGroup &known = place->second;
    const bool is_first = known.examples.empty() || card < *known.examples.begin();
    group.cards = known.cards + 1;
    group.examples = std::move(known.examples);
    if (!is_first) group.reason = std::move(known.reason);  // whichever card came first, the first by name speaks
    known = std::move(group);
    add_example(&known.examples, card);
}

void Fleet::note_regions(const std::string &card, const Run &run) {
    Regions regions;
    for (const Region &region : run.regions) {
        const std::string name = bounded(region.name);
        if (region_numbers_.size() == groups_kept && !region_numbers_.contains(name)) continue;
        const auto number = static_cast<std::uint32_t>(region_numbers_.size());
        regions.push_back(region_numbers_.try_emplace(name, number).first->second);
    }
    std::sort(regions.begin(), regions.end());
    regions.erase(std::unique(regions.begin(), regions.end()), regions.end());
    Kind &kind = kinds_[regions];
    ++kind.cards;
    add_example(&kind.examples, card);
}

/// The regions of a kind of which there are so many more cards that the few are likely meant to be the same: those with
/// half of its regions or more. Null: there is none.
const Fleet::Regions *Fleet::usual_of(const Regions &regions, std::size_t cards) const {
    const Regions *usual = nullptr;
    std::size_t most = 0;
    for (const auto &[others, kind] : kinds_) {
        if (!is_unusual(cards, kind.cards) || kind.cards <= most) continue;
        Regions common;
        std::set_intersection(regions.begin(), regions.end(), others.begin(), others.end(), std::back_inserter(common));
        if (common.size() * 2 < others.size()) continue;
        usual = &others;
        most = kind.cards;
    }
    return usual;
}

/// Cards without a region that nearly all of their like have.
void Fleet::add_missing_regions(std::vector<FleetGroup> *groups) const {
    std::map<std::uint32_t, FleetGroup> missing;
    for (const auto &[regions, kind] : kinds_) {
        const Regions *const usual = usual_of(regions, kind.cards);
        if (usual == nullptr) continue;
        Regions lacking;
        std::set_difference(usual->begin(), usual->end(), regions.begin(), regions.end(), std::back_inserter(lacking));
        for (const std::uint32_t number : lacking) {
            const std::string reason = "unusual: " + std::to_string(kinds_.at(*usual).cards) + " cards like it have it";
            FleetGroup &group =
                missing.try_emplace(number, whole_run(Oddness::unusual, "not there", reason)).first->second;
            group.cards += kind.cards;
            for (const std::string &card : kind.examples) add_example(&group.examples, card);
        }
    }
    for (const auto &[name, number] : region_numbers_) {
        const auto place = missing.find(number);
        if (place == missing.end()) continue;
        place->second.region = name;
        groups->push_back(place->second);
    }
}

FleetSummary Fleet::summary() const {
    FleetSummary result = {cards_, well_, runs_, left_out_, {}};
    for (const auto &[key, group] : groups_) result.groups.push_back(group);
    mark_unusual_versions(&result.groups);
    add_missing_regions(&result.groups);
    std::sort(result.groups.begin(), result.groups.end(), stands_before);
    return result;
}

}  // namespace fpd_report
