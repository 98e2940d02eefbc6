/// What many cards have in common, and what one has not: counted card by card, without keeping their runs.
#ifndef FPD_REPORT_FLEET_H
#define FPD_REPORT_FLEET_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "run.h"

namespace fpd_report {

/// How a group of cards stands out, the worst first. `failed`: failed or given up, by a region or by the whole run.
enum class Oddness { failed, not_well, unusual, none };

/// Cards on which the same became of the same region.
struct FleetGroup {
    Oddness oddness = Oddness::none;
    std::string region;              // empty: the run or the log as a whole
    std::string outcome;             // as tables have it
    std::string version, packaged;   // what is programmed after the run, and what is packaged
    std::string reason;              // of one of the cards; the others' differ in numbers only
    std::size_t cards = 0;           // that are in it
    std::set<std::string> examples;  // the first of their names, at most Fleet::examples_kept
};

struct FleetSummary {
    std::size_t cards = 0, well = 0;
    std::uint64_t runs = 0;
    std::uint64_t left_out = 0;      // outcomes over Fleet::groups_kept
    std::vector<FleetGroup> groups;  // the odd ones first
};

/// Memory grows with the kinds of outcomes, which are bounded, and with a few bytes for each card and region. Used by
/// one thread at a time.
class Fleet {
  public:
    static constexpr std::size_t examples_kept = 3, groups_kept = 20'000;

    /// `last` is the run that tells the card's present state, of `runs`; null: none, for the reason `why_not`.
    void add_card(const std::string &name, const fpd_log::Run *last, std::uint64_t runs, const std::string &why_not);
    FleetSummary summary() const;

  private:
    using Key = std::tuple<std::string, std::string, std::string, std::string, std::string>;
    using Regions = std::vector<std::uint32_t>;  // their numbers, in order
    /// Cards that have the same regions.
    struct Kind {
        std::size_t cards = 0;
        std::set<std::string> examples;
    };

    void count(const std::string &card, FleetGroup group);
    void count_run(const std::string &card, const fpd_log::Run &run);
    void count_region(const std::string &card, const fpd_log::Region &region);
    void note_regions(const std::string &card, const fpd_log::Run &run);
    void add_missing_regions(std::vector<FleetGroup> *groups) const;
    const Regions *usual_of(const Regions &regions, std::size_t cards) const;

    std::size_t cards_ = 0, well_ = 0;
    std::uint64_t runs_ = 0, left_out_ = 0;
    std::map<Key, FleetGroup> groups_;
    std::map<std::string, std::uint32_t> region_numbers_;
    std::map<Regions, Kind> kinds_;
};

}  // namespace fpd_report

#endif
