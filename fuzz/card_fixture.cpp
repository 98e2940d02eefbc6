#include "card_fixture.h"

#include <algorithm>

const cardsim::StateDirectory &state_directory() {
    static const cardsim::StateDirectory directory("/misc/scratch");
    return directory;
}

void require_one_line(const std::string &error, const std::string &file) {
    require(error.starts_with(file + ":"), "a reason that does not name its file");
    const auto is_control = [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f; };
    require(std::none_of(error.begin(), error.end(), is_control), "a reason with a control character");
    require(error.size() > file.size() + 3, "a reason that tells nothing");
}

void require_same(const cardsim::CardState &found, const cardsim::CardState &expected) {
    require_equal(found.boot, expected.boot, "the number of the boot");
    require_equal(found.auto_upgrade, expected.auto_upgrade, "the stored setting");
    require_equal(found.upgrade_mode, expected.upgrade_mode, "the stored mode");
    require(found.regions.size() == expected.regions.size(), "the number of regions");
    require(found.leds.size() == expected.leds.size(), "the number of LEDs");
    for (std::size_t i = 0; i < found.regions.size(); ++i) {
        const cardsim::RegionState &one = found.regions[i];
        const cardsim::RegionState &other = expected.regions[i];
        require(one.fpd == other.fpd && one.index == other.index, "a region's place");
        require_equal(one.name, other.name, "a region's name");
        require(one.running == other.running && one.programmed == other.programmed, "a region's versions");
        require(one.falls_back == other.falls_back, "what a region falls back to");
        require_equal(one.attempts, other.attempts, "a region's attempts");
    }
    for (std::size_t i = 0; i < found.leds.size(); ++i) {
        const cardsim::LedState &one = found.leds[i];
        const cardsim::LedState &other = expected.leds[i];
        require(one.id == other.id && one.state == other.state && one.color == other.color, "an LED");
    }
}

void require_round_trip(const cardsim::CardDescription &card, const cardsim::CardState &state) {
    cardsim::save_state(state_directory(), state);
    require_same(cardsim::load_state(state_directory(), card), state);
}
