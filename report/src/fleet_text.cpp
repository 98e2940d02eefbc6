#include "fleet_text.h"

#include "table.h"

namespace fpd_report {
namespace {

constexpr std::size_t below_indent = 7;

std::string counted(std::uint64_t count, const char *one, const char *more) {
    return std::to_string(count) + " " + (count == 1 ? one : more);
}

std::string verdict_of(const FleetSummary &summary) {
    const std::size_t not_well = summary.cards - summary.well;
    std::string result = counted(summary.cards, "card", "cards") + ", " + counted(summary.runs, "run", "runs") +
                         "; after the last run of each ";
    if (not_well == 0) return result + "all is well";
    return result + std::to_string(summary.well) + (summary.well == 1 ? " is well, " : " are well, ") +
           std::to_string(not_well) + (not_well == 1 ? " is not" : " are not");
}

Colour colour_of(Oddness oddness) {
    switch (oddness) {
        case Oddness::failed:
            return Colour::bad;
        case Oddness::not_well:
        case Oddness::unusual:
            return Colour::doubtful;
        case Oddness::none:
            break;
    }
    return Colour::none;
}

Row heading_row() {
    return {{"CARDS", Colour::heading, true},
            {"REGION", Colour::heading},
            {"OUTCOME", Colour::heading},
            {"VERSION", Colour::heading},
            {"PACKAGED", Colour::heading}};
}

Row group_row(const FleetGroup &group) {
    return {{std::to_string(group.cards), Colour::none, true},
            {group.region.empty() ? "(the run)" : group.region},
            {group.outcome, colour_of(group.oddness)},
            {group.version},
            {group.packaged}};
}

/// "card1, card2, card3 and 7 more: reason"
std::string cards_text(const FleetGroup &group) {
    std::string result;
    for (const std::string &card : group.examples) result += (result.empty() ? "" : ", ") + card;
    const std::size_t more = group.cards - group.examples.size();
    if (more > 0) result += " and " + std::to_string(more) + " more";
    return group.reason.empty() ? result : result + ": " + group.reason;
}

}  // namespace

std::string fleet_text(const FleetSummary &summary, const Style &style) {
    const bool all_well = summary.well == summary.cards;
    std::string result = paragraph(verdict_of(summary), 0, all_well ? Colour::good : Colour::bad, style) + "\n";
    std::vector<Row> rows = {heading_row()};
    for (const FleetGroup &group : summary.groups) rows.push_back(group_row(group));
    const std::vector<std::string> lines = table_lines(rows, 0, style);
    result += lines.front() + "\n";
    bool told_the_rest = false;
    for (std::size_t at = 0; at < summary.groups.size(); ++at) {
        const FleetGroup &group = summary.groups[at];
        const bool stands_out = group.oddness != Oddness::none;
        if (!stands_out && !told_the_rest && at > 0) result += "\n";
        told_the_rest = told_the_rest || !stands_out;
        result += lines[at + 1] + "\n";
        if (stands_out) result += paragraph(cards_text(group), below_indent, Colour::none, style);
    }
    if (summary.left_out > 0) {
        result += paragraph(std::to_string(summary.left_out) + " outcomes more are left out", 0, Colour::none, style);
    }
    return result;
}

}  // namespace fpd_report
