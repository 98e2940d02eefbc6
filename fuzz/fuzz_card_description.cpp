/// The simulated card's description: any text is refused with one line or gives a card within its limits, whose state
/// is what it was when it was written and read again.
#include <algorithm>
#include <set>

#include <toml++/toml.h>

#include "card_description.h"
#include "card_fixture.h"

namespace {

constexpr const char *description_path = "/misc/scratch/card.toml";

bool has_control_character(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char each) { return static_cast<unsigned char>(each) < 0x20; });
}

void check_image(const cardsim::ImageDescription &image) {
    require(image.upgrade_type <= 4, "an upgrade type");
    require(image.depends_on.size() <= 16 && !has_control_character(image.depends_on), "what an image depends on");
    require(!image.file.empty() && image.file.size() <= 254 && image.file.find('/') == std::string::npos,
            "an image's file");
    require(!image.md5 || image.md5->size() <= 254, "a checksum");
    require(image.minimum.kind != FPD_VERSION_UNKNOWN, "an oldest version that is unknown");
    cardsim::firmware_version(image.version);
    require(!cardsim::version_text(image.version).empty(), "a version's text");
}

void check_fault(const cardsim::RegionFault &fault) {
    require(!fault.attempt || *fault.attempt > 0, "an attempt");
    require(fault.at >= -1 && fault.at <= 100, "a percentage");
    require(fault.kind != cardsim::RegionFaultKind::Fail || fault.code != 0, "a failure that succeeds");
    require(fault.every >= 0 && fault.hang_time >= 0, "a time");
}

void check_region(const cardsim::RegionDescription &region) {
    require(!region.name.empty() && region.name.size() <= 102 && !has_control_character(region.name),
            "a region's name");
    require(region.reports <= 100 && region.duration >= 0, "a region's reports");
    std::set<std::uint32_t> types;
    for (const cardsim::ImageDescription &image : region.images) {
        require(types.insert(image.upgrade_type).second, "two images for one upgrade type");
        require(cardsim::find_image(region, image.upgrade_type) == &image, "an image that is found");
        check_image(image);
    }
    for (const cardsim::RegionFault &fault : region.faults) check_fault(fault);
}

void check_names(const cardsim::CardDescription &card) {
    if (card.allow_duplicate_names) return;
    std::set<std::string> names;
    for (const cardsim::FpdDescription &fpd : card.fpds)
        for (const cardsim::RegionDescription &region : fpd.regions)
            require(names.insert(region.name.substr(0, 16)).second, "two regions of one name");
}

void check_card(const cardsim::CardDescription &card) {
    require(card.group > 0, "a group");
    require(!card.pid.empty() && card.pid.size() <= 63 && card.pid.find_first_of(" =") == std::string::npos, "a pid");
    require(!card.watchdog || card.watchdog->timeout > 0, "a watchdog");
    std::set<std::uint32_t> ids;
    for (const cardsim::FpdDescription &fpd : card.fpds) {
        require(ids.insert(fpd.id).second, "two FPDs of one id");
        require(fpd.regions.size() <= 255, "the number of regions");
        for (const cardsim::RegionDescription &region : fpd.regions) check_region(region);
    }
    check_names(card);
    const std::string text = cardsim::bootstrap_text(card);
    require(card.bootstrap ? text == *card.bootstrap : text.ends_with("MY_CARD_PID=" + card.pid + "\n"),
            "its key file");
}

/// A state that the card may come to, with numbers that follow from the text.
cardsim::CardState some_state(const cardsim::CardDescription &card, std::string_view text) {
    cardsim::CardState state = cardsim::initial_state(card);
    std::uint32_t number = static_cast<std::uint32_t>(std::hash<std::string_view>()(text));
    const auto next = [&number] { return number = number * 1664525 + 1013904223; };
    const auto version = [&] {
        return cardsim::FirmwareVersion{static_cast<std::uint16_t>(next() >> 16),
                                        static_cast<std::uint16_t>(next() >> 16),
                                        static_cast<std::uint16_t>(next() >> 16)};
    };
    state.boot = next() | 1;
    state.auto_upgrade = static_cast<int>(next());
    state.upgrade_mode = static_cast<int>(next());
    for (cardsim::RegionState &region : state.regions) {
        region.running = version();
        region.programmed = version();
        if (next() >> 31) region.falls_back = version();
        region.attempts = next();
    }
    for (cardsim::LedState &led : state.leds) led = {led.id, next(), next()};
    return state;
}

std::size_t depth_of(const toml::node &node) {
    std::size_t depth = 0;
    if (const toml::table *const table = node.as_table())
        for (const auto &[key, value] : *table) depth = std::max(depth, depth_of(value));
    if (const toml::array *const array = node.as_array())
        for (const toml::node &value : *array) depth = std::max(depth, depth_of(value));
    return depth + 1;
}

/// What nests deep enough to end the reader's stack is refused for that. Texts here are too short to do it.
void require_shallow(std::string_view text) {
    constexpr std::size_t most = 64;
    try {
        require(depth_of(toml::parse(text)) <= most, "a text that nests deep and is not refused for it");
    } catch (const toml::parse_error &) {
        // No table came of it.
    }
}

}  // namespace

void run_input(std::string_view text) {
    write_file(description_path, text);
    cardsim::CardDescription card;
    try {
        card = cardsim::load_card_description(description_path);
    } catch (const cardsim::Error &reason) {
        const std::string error = reason.what();
        require_one_line(error, description_path);
        if (error.find("nested deeper") == std::string::npos) require_shallow(text);
        return;
    }
    check_card(card);
    require_round_trip(card, cardsim::initial_state(card));
    require_round_trip(card, some_state(card, text));
}
