#include "show.h"

#include <algorithm>
#include <array>
#include <vector>

#include "printable.h"

namespace cardsim {
namespace {

using Row = std::array<std::string, 6>;

std::string mode_name(int mode) {
    constexpr std::array<const char *, 4> names = {"regular", "mfg", "dummy-minor-version", "dummy-major-version"};
    if (mode >= 0 && static_cast<std::size_t>(mode) < names.size()) return names[static_cast<std::size_t>(mode)];
    return "unknown mode " + std::to_string(mode);
}

/// The upgrade type that a mode asks the packages for in the end; a manufacturing card with a locked Golden image asks
/// for the unlocking one (2) before.
uint32_t requested_type(int mode) {
    if (mode == 1) return 1;
    if (mode == 2) return 3;
    if (mode == 3) return 4;
    return 0;
}

bool too_old(const RegionState &region, const ImageDescription &image) {
    return region.running < firmware_version(image.minimum);
}

bool needs_upgrade(const RegionState &region, const ImageDescription &image) {
    return image.need_upgrade.value_or(region.programmed != firmware_version(image.version));
}

Row region_row(const RegionDescription &region, const RegionState &state, uint32_t type) {
    const ImageDescription *image = find_image(region, type);
    Row row = {printable(region.name), version_text(state.running), version_text(state.programmed), "-", "no", ""};
    if (image == nullptr) return row;
    row[3] = version_text(image->version);
    if (needs_upgrade(state, *image)) row[4] = too_old(state, *image) ? "too old" : "yes";
    if (!image->depends_on.empty()) row[5] = printable(image->depends_on);
    return row;
}

std::vector<Row> region_rows(const CardDescription &card, const CardState &state) {
    std::vector<Row> rows = {{"REGION", "RUNNING", "PROGRAMMED", "PACKAGED", "UPGRADE", "DEPENDS ON"}};
    for (const FpdDescription &fpd : card.fpds) {
        for (std::size_t index = 0; index < fpd.regions.size(); ++index) {
            const RegionState *region = find_region(state, fpd.id, static_cast<uint8_t>(index));
            if (region != nullptr) {
                rows.push_back(region_row(fpd.regions[index], *region, requested_type(state.upgrade_mode)));
            }
        }
    }
    return rows;
}

std::string aligned(const std::vector<Row> &rows) {
    std::array<std::size_t, std::tuple_size_v<Row>> widths = {};
    for (const Row &row : rows) {
        for (std::size_t at = 0; at < row.size(); ++at) widths[at] = std::max(widths[at], row[at].size());
    }
    std::string text;
    for (const Row &row : rows) {
        std::string line;
        for (std::size_t at = 0; at < row.size(); ++at)
            line += row[at] + std::string(widths[at] + 2 - row[at].size(), ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

std::string led_line(const LedDescription &led, const LedState &state) {
    constexpr std::array<const char *, 4> states = {"", "off", "steady", "blinking"};
    constexpr std::array<const char *, 6> colors = {"", "red", "green", "blue", "amber", "yellow"};
    std::string text = "LED " + printable(led.name) + ":";
    text += " " + (state.state > 0 && state.state < states.size() ? states[state.state]
                                                                  : "state " + std::to_string(state.state));
    text += " " + (state.color > 0 && state.color < colors.size() ? colors[state.color]
                                                                  : "color " + std::to_string(state.color));
    return text + "\n";
}

}  // namespace

std::string card_table(const CardDescription &card, const CardState &state) {
    std::string text = printable(card.pid) + " in slot " + std::to_string(card.slot) + ", boot " +
                       std::to_string(state.boot) + ", auto-upgrade " +
                       (state.auto_upgrade == 1 ? "enabled" : "disabled") + ", upgrade mode " +
                       mode_name(state.upgrade_mode) + "\n\n" + aligned(region_rows(card, state)) + "\n";
    for (const LedDescription &led : card.leds) {
        const auto found = std::find_if(state.leds.begin(), state.leds.end(),
                                        [&led](const LedState &candidate) { return candidate.id == led.id; });
        if (found != state.leds.end()) text += led_line(led, *found);
    }
    return text;
}

}  // namespace cardsim
