#include "show.h"

#include <algorithm>
#include <array>
#include <vector>

#include "life.h"
#include "printable.h"
#include "text_table.h"

namespace cardsim {
namespace {

std::string mode_name(int mode) {
    constexpr std::array<const char *, 4> names = {"regular", "mfg", "dummy-minor-version", "dummy-major-version"};
    if (mode >= 0 && static_cast<std::size_t>(mode) < names.size()) return names[static_cast<std::size_t>(mode)];
    return "unknown mode " + std::to_string(mode);
}

/// A number other than 0 and 1 is no word of the tool, but upgrades are not disabled.
std::string auto_upgrade_name(int auto_upgrade) {
    if (auto_upgrade == 0) return "disabled";
    return auto_upgrade == 1 ? "enabled" : std::to_string(auto_upgrade) + ", taken as enabled";
}

std::string programmed(const RegionState &state) {
    const std::string version = version_text(state.programmed);
    return state.falls_back ? version + ", falls back to " + version_text(*state.falls_back) : version;
}

/// What is packaged for the stored mode; on the manufacturing line also what unlocks the Golden image before.
std::string packaged(const RegionDescription &region, int mode) {
    constexpr uint32_t unlocking_type = 2;
    constexpr uint32_t can_unlock = 0x800;
    const ImageDescription *image = image_for_mode(region, mode);
    std::string text = image == nullptr ? "-" : version_text(image->version);
    const ImageDescription *unlocking = find_image(region, unlocking_type);
    if (requested_type(mode) == 1U && unlocking != nullptr && (region.capabilities & can_unlock) != 0) {
        text += ", to unlock " + version_text(unlocking->version);
    }
    return text;
}

std::string dependency(const RegionDescription &region, int mode) {
    const ImageDescription *image = image_for_mode(region, mode);
    return image == nullptr ? "" : printable(image->depends_on);
}

std::vector<TableRow> region_rows(const CardDescription &card, const CardState &state) {
    std::vector<TableRow> rows = {{"REGION", "RUNNING", "PROGRAMMED", "PACKAGED", "DEPENDS ON"}};
    for (const FpdDescription &fpd : card.fpds) {
        for (std::size_t index = 0; index < fpd.regions.size(); ++index) {
            const RegionDescription &region = fpd.regions[index];
            const RegionState *now = find_region(state, fpd.id, static_cast<uint8_t>(index));
            if (now == nullptr) continue;
            rows.push_back({printable(region.name), version_text(now->running), programmed(*now),
                            packaged(region, state.upgrade_mode), dependency(region, state.upgrade_mode)});
        }
    }
    return rows;
}

}  // namespace

std::string led_text(const LedState &led) {
    constexpr std::array<const char *, 4> states = {"", "off", "steady", "blinking"};
    constexpr std::array<const char *, 6> colors = {"", "red", "green", "blue", "amber", "yellow"};
    const auto word = [](const auto &words, const char *what, uint32_t number) {
        return number > 0 && number < words.size() ? words[number] : what + std::to_string(number);
    };
    return word(states, "state ", led.state) + " " + word(colors, "color ", led.color);
}

std::string card_table(const CardDescription &card, const CardState &state, std::size_t width) {
    std::string text = printable(card.pid) + " in slot " + std::to_string(card.slot) + ", boot " +
                       std::to_string(state.boot) + ", auto-upgrade " + auto_upgrade_name(state.auto_upgrade) +
                       ", upgrade mode " + mode_name(state.upgrade_mode) + "\n\n" +
                       aligned(region_rows(card, state), width) + "\n";
    for (const LedDescription &led : card.leds) {
        const auto found = std::find_if(state.leds.begin(), state.leds.end(),
                                        [&led](const LedState &candidate) { return candidate.id == led.id; });
        if (found != state.leds.end()) text += "LED " + printable(led.name) + ": " + led_text(*found) + "\n";
    }
    return text;
}

}  // namespace cardsim
