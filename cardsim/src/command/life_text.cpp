/// The end of `cardsim boot`, for people.
#include <algorithm>
#include <cstdio>
#include <map>

#include "life.h"
#include "power.h"
#include "printable.h"
#include "text_table.h"

namespace cardsim {
namespace {

std::string seconds_text(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f s", seconds);
    return text;
}

std::string outcome_of(const RegionLife &region) {
    if (region.outcome) return fpd_log::outcome_text(*region.outcome);
    return "unknown";
}

std::string region_table(const Life &life, std::size_t width) {
    std::vector<TableRow> rows = {{"REGION", "BEFORE", "AFTER", "OUTCOME"}};
    for (const RegionLife &region : life.regions) {
        rows.push_back({printable(region.name), version_text(region.before.running), version_text(region.after.running),
                        outcome_of(region) + ": " + printable(region.reason)});
    }
    return aligned(rows, width);
}

std::string boot_table(const Life &life, std::size_t width) {
    std::vector<TableRow> rows = {{"BOOT", "BEGAN", "CARD'S TIME", "ENDED"}};
    for (const BootLife &boot : life.boots) {
        const std::string log = boot.no_log ? "; " + *boot.no_log : std::string();
        rows.push_back(
            {std::to_string(boot.number), boot.began, seconds_text(boot.seconds), printable(boot.ended + log)});
    }
    return aligned(rows, width);
}

std::string joined(const std::vector<std::string> &texts) {
    std::string line;
    for (const std::string &text : texts) line += (line.empty() ? "" : ", ") + text;
    return line;
}

/// The first few of many.
std::string some_of(const std::vector<std::string> &texts) {
    constexpr std::size_t few = 5;
    if (texts.size() <= few) return joined(texts);
    const auto end = texts.begin() + few;
    return joined({texts.begin(), end}) + " and " + std::to_string(texts.size() - few) + " more";
}

std::string faults_line(const Life &life, std::size_t width) {
    if (life.faults_not_reached.empty()) return {};
    return wrapped("Described and never reached: " + printable(joined(life.faults_not_reached)), width, 4);
}

std::string made_up_line(const Life &life, std::size_t width) {
    std::string text = "Made up: " + some_of(life.made_up_files);
    if (!life.made_up_images.empty()) {
        text += "; " + std::to_string(life.made_up_images.size()) + " images: " + some_of(life.made_up_images);
    }
    return wrapped(printable(text), width, 4);
}

}  // namespace

std::string verdict(const Life &life) {
    std::map<std::string, int> counts;
    std::vector<std::string> order;
    std::vector<std::string> due;
    for (const RegionLife &region : life.regions) {
        const std::string outcome = outcome_of(region);
        if (counts[outcome]++ == 0) order.push_back(outcome);
        if (region.is_due) due.push_back(region.name);
    }
    std::vector<std::string> parts;
    parts.reserve(order.size());
    for (const std::string &outcome : order) parts.push_back(std::to_string(counts[outcome]) + " " + outcome);
    if (parts.empty()) parts.emplace_back("no regions");
    const std::size_t boots = life.boots.size();
    std::string text = std::to_string(boots) + (boots == 1 ? " boot: " : " boots: ") + joined(parts);
    const bool is_up = life.status == boot_is_up || life.status == boot_left_due;
    if (!is_up) text += "; the card is not up";
    if (!due.empty()) return text + "; not current: " + joined(due);
    return is_up ? text + "; nothing is left to upgrade" : text;
}

std::string life_text(const Life &life, std::size_t width) {
    std::string text = "\n" + region_table(life, width) + "\n" + boot_table(life, width);
    text += "\n" + faults_line(life, width) + made_up_line(life, width);
    return text + "\n" + wrapped(printable(verdict(life)), width, 4);
}

}  // namespace cardsim
