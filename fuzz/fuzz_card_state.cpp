/// The simulated card's state file: any text is refused with one line, or gives a state of the described card that is
/// the same when it was written and read again.
#include <toml++/toml.h>

#include "card_fixture.h"

namespace {

using Number = std::int64_t;

void require_number(const toml::table &table, const char *key, Number found) {
    require(table[key].value_exact<Number>() == found, key);
}

void require_version(const toml::table &table, const char *key, const cardsim::FirmwareVersion &found) {
    const toml::array *const parts = table[key].as_array();
    require(parts && parts->size() == 3 && (*parts)[0].value_exact<Number>() == found.major &&
                (*parts)[1].value_exact<Number>() == found.minor && (*parts)[2].value_exact<Number>() == found.debug,
            key);
}

/// The first table of the array with these numbers; null: none.
const toml::table *table_with(const toml::table &root, const char *array, const char *key, Number value,
                              const char *other_key, Number other_value) {
    const toml::array *const tables = root[array].as_array();
    for (std::size_t i = 0; tables && i < tables->size(); ++i) {
        const toml::table *const table = (*tables)[i].as_table();
        if ((*table)[key].value_exact<Number>() == value && (*table)[other_key].value_exact<Number>() == other_value)
            return table;
    }
    return nullptr;
}

/// The state has the numbers that stand in the text, and those of the description where the text has none.
void require_as_written(std::string_view text, const cardsim::CardState &state, const cardsim::CardState &initial) {
    const toml::table root = toml::parse(text);
    require_number(root, "boot", state.boot);
    require_number(root, "auto_upgrade", state.auto_upgrade);
    require_number(root, "upgrade_mode", state.upgrade_mode);
    for (std::size_t i = 0; i < state.regions.size(); ++i) {
        const cardsim::RegionState &region = state.regions[i];
        const toml::table *const table = table_with(root, "region", "fpd", region.fpd, "region", region.index);
        const bool is_known = table && (*table)["name"].value_exact<std::string>() == region.name;
        if (!is_known) {
            require(region.programmed == initial.regions[i].programmed, "the version of a region that is not known");
            continue;
        }
        require_version(*table, "running", region.running);
        require_version(*table, "programmed", region.programmed);
        require(table->contains("falls_back") == region.falls_back.has_value(), "what a region falls back to");
        if (region.falls_back) require_version(*table, "falls_back", *region.falls_back);
        require_number(*table, "attempts", region.attempts);
    }
    for (const cardsim::LedState &led : state.leds) {
        const toml::table *const table = table_with(root, "led", "id", led.id, "id", led.id);
        if (!table) continue;
        require_number(*table, "state", led.state);
        require_number(*table, "color", led.color);
    }
}

/// Two FPDs, one of them with two regions, and two LEDs.
cardsim::CardDescription make_card() {
    cardsim::CardDescription card;
    for (const std::uint32_t id : {1U, 4294967295U}) {
        cardsim::FpdDescription fpd;
        fpd.id = id;
        fpd.regions.resize(id == 1 ? 2 : 1);
        for (cardsim::RegionDescription &region : fpd.regions)
            region.name = "Fpd" + std::to_string(card.fpds.size()) + std::to_string(&region - fpd.regions.data());
        card.fpds.push_back(fpd);
        card.leds.push_back({.id = id, .type = 1, .name = "Status", .state = 2, .color = 2});
    }
    return card;
}

void check_reload(const cardsim::CardDescription &card, cardsim::CardState state) {
    const cardsim::CardState before = state;
    cardsim::reload(state);
    require_equal(state.boot, before.boot + 1, "the boot after a reload");
    for (std::size_t i = 0; i < state.regions.size(); ++i) {
        const cardsim::RegionState &was = before.regions[i];
        const cardsim::RegionState &is = state.regions[i];
        require(is.running == was.falls_back.value_or(was.programmed) && is.programmed == is.running &&
                    !is.falls_back && is.attempts == 0,
                "a region after a reload");
    }
    // The last boot of all has no number after it that could be read.
    if (state.boot != 0) require_round_trip(card, state);
}

}  // namespace

void run_input(std::string_view text) {
    static const cardsim::CardDescription card = make_card();
    const std::string path = state_directory().path() / cardsim::state_file;
    write_file(path.c_str(), text);
    cardsim::CardState state;
    try {
        state = cardsim::load_state(state_directory(), card);
    } catch (const cardsim::Error &reason) {
        require_one_line(reason.what(), path);
        return;
    }
    const cardsim::CardState initial = cardsim::initial_state(card);
    require(state.regions.size() == initial.regions.size() && state.leds.size() == initial.leds.size(),
            "a state of another card");
    for (std::size_t i = 0; i < state.regions.size(); ++i)
        require(state.regions[i].fpd == initial.regions[i].fpd && state.regions[i].index == initial.regions[i].index &&
                    state.regions[i].name == initial.regions[i].name,
                "a region of another card");
    require_as_written(text, state, initial);
    require_round_trip(card, state);
    check_reload(card, state);
}
