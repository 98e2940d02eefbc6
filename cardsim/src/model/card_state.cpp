#include "card_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <sstream>
#include <utility>

#include "cancellation.h"
#include "file_text.h"
#include "toml_reader.h"

namespace cardsim {

namespace {

constexpr int64_t max_u32 = std::numeric_limits<uint32_t>::max();

RegionState initial_region(const FpdDescription &fpd, size_t index) {
    const RegionDescription &region = fpd.regions[index];
    return {fpd.id, static_cast<uint8_t>(index), region.name, region.running, region.programmed, std::nullopt, 0};
}

toml::array version_array(const FirmwareVersion &version) {
    return toml::array{version.major, version.minor, version.debug};
}

std::optional<FirmwareVersion> version_key(TableReader &reader, const char *key) {
    const toml::node *node = reader.node(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    uint16_t parts[3] = {};
    const toml::array *array = node->as_array();
    bool is_version = array != nullptr && array->size() == 3;
    for (size_t index = 0; is_version && index < 3; ++index) {
        const auto part = array->get(index)->value_exact<int64_t>();
        is_version = part && *part >= 0 && *part <= std::numeric_limits<uint16_t>::max();
        parts[index] = static_cast<uint16_t>(part.value_or(0));
    }
    if (!is_version) {
        reader.fail(key, "expected [major, minor, debug], each from 0 to 65535");
    }
    return FirmwareVersion{parts[0], parts[1], parts[2]};
}

RegionState read_region(const toml::table &table) {
    TableReader reader(table, "[[region]]");
    RegionState region;
    region.fpd = static_cast<uint32_t>(reader.need("fpd", reader.whole("fpd", 0, max_u32)));
    region.index = static_cast<uint8_t>(reader.need("region", reader.whole("region", 0, 255)));
    region.name = reader.need("name", reader.text("name"));
    region.running = reader.need("running", version_key(reader, "running"));
    region.programmed = reader.need("programmed", version_key(reader, "programmed"));
    region.falls_back = version_key(reader, "falls_back");
    region.attempts = static_cast<uint32_t>(reader.need("attempts", reader.whole("attempts", 0, max_u32)));
    reader.finish();
    return region;
}

LedState read_led(const toml::table &table) {
    TableReader reader(table, "[[led]]");
    LedState led;
    led.id = static_cast<uint32_t>(reader.need("id", reader.whole("id", 0, max_u32)));
    led.state = static_cast<uint32_t>(reader.need("state", reader.whole("state", 0, max_u32)));
    led.color = static_cast<uint32_t>(reader.need("color", reader.whole("color", 0, max_u32)));
    reader.finish();
    return led;
}

CardState read_state(const toml::table &root) {
    constexpr int64_t min_int = std::numeric_limits<int>::min();
    constexpr int64_t max_int = std::numeric_limits<int>::max();
    TableReader reader(root, "the state");
    CardState state;
    state.pid = reader.text("pid").value_or("");
    state.boot = static_cast<uint32_t>(reader.need("boot", reader.whole("boot", 1, max_u32)));
    state.auto_upgrade = static_cast<int>(reader.need("auto_upgrade", reader.whole("auto_upgrade", min_int, max_int)));
    state.upgrade_mode = static_cast<int>(reader.need("upgrade_mode", reader.whole("upgrade_mode", min_int, max_int)));
    for (const toml::table *region : reader.tables("region")) {
        state.regions.push_back(read_region(*region));
    }
    for (const toml::table *led : reader.tables("led")) {
        state.leds.push_back(read_led(*led));
    }
    reader.finish();
    return state;
}

/// The saved state of the parts that the card has, in the description's order; what was never saved as described.
CardState fitted_to(const CardDescription &card, const CardState &saved) {
    CardState state = initial_state(card);
    state.boot = saved.boot;
    state.auto_upgrade = saved.auto_upgrade;
    state.upgrade_mode = saved.upgrade_mode;
    for (RegionState &region : state.regions) {
        const RegionState *known = find_region(saved, region.fpd, region.index);
        if (known != nullptr && known->name == region.name) {
            region = *known;
        }
    }
    for (LedState &led : state.leds) {
        const auto known = std::find_if(saved.leds.begin(), saved.leds.end(),
                                        [&](const LedState &other) { return other.id == led.id; });
        led = known == saved.leds.end() ? led : *known;
    }
    return state;
}

toml::table region_table(const RegionState &region) {
    toml::table table{{"fpd", static_cast<int64_t>(region.fpd)},
                      {"region", static_cast<int64_t>(region.index)},
                      {"name", region.name},
                      {"running", version_array(region.running)},
                      {"programmed", version_array(region.programmed)},
                      {"attempts", static_cast<int64_t>(region.attempts)}};
    if (region.falls_back) {
        table.insert("falls_back", version_array(*region.falls_back));
    }
    return table;
}

std::string state_text(const CardState &state) {
    toml::array regions;
    for (const RegionState &region : state.regions) {
        regions.push_back(region_table(region));
    }
    toml::array leds;
    for (const LedState &led : state.leds) {
        leds.push_back(toml::table{{"id", static_cast<int64_t>(led.id)},
                                   {"state", static_cast<int64_t>(led.state)},
                                   {"color", static_cast<int64_t>(led.color)}});
    }
    std::ostringstream text;
    text << toml::table{{"pid", state.pid},
                        {"boot", static_cast<int64_t>(state.boot)},
                        {"auto_upgrade", static_cast<int64_t>(state.auto_upgrade)},
                        {"upgrade_mode", static_cast<int64_t>(state.upgrade_mode)},
                        {"region", regions},
                        {"led", leds}}
         << "\n";
    return text.str();
}

/// Makes a rename in the directory outlast a loss of power; a file system that cannot do that is no failure.
void sync_directory(const StateDirectory &directory) {
    fsync(directory.open(".", O_RDONLY | O_DIRECTORY).get());
}

}  // namespace

std::string call_fault_name(std::size_t fault) {
    return "[[fault]] " + std::to_string(fault + 1);
}

std::string region_fault_name(uint32_t fpd, uint8_t index, std::size_t fault) {
    return "FPD " + std::to_string(fpd) + " region " + std::to_string(index) + " [[fpd.region.fault]] " +
           std::to_string(fault + 1);
}

CardState initial_state(const CardDescription &card) {
    CardState state;
    state.pid = card.pid;
    state.auto_upgrade = card.auto_upgrade;
    state.upgrade_mode = card.upgrade_mode;
    for (const FpdDescription &fpd : card.fpds) {
        for (size_t index = 0; index < fpd.regions.size(); ++index) {
            state.regions.push_back(initial_region(fpd, index));
        }
    }
    for (const LedDescription &led : card.leds) {
        state.leds.push_back({led.id, led.state, led.color});
    }
    return state;
}

CardState load_saved_state(const StateDirectory &directory) {
    // Sixteen times the size of a description has room for the state of all that it can describe.
    constexpr size_t most = size_t{16} << 20;
    return read_state(parse_toml(directory.open(state_file, O_RDONLY), directory.path() / state_file, most));
}

CardState load_state(const StateDirectory &directory, const CardDescription &card) {
    if (!directory.has(state_file)) {
        return initial_state(card);
    }
    const CardState saved = load_saved_state(directory);
    if (!saved.pid.empty() && saved.pid != card.pid) {
        throw Error((directory.path() / state_file).string() + ": the state of another card, " + saved.pid +
                    "; name a directory of its own for that of " + card.pid + " by --state");
    }
    return fitted_to(card, saved);
}

void save_state(const StateDirectory &directory, const CardState &state) {
    const CancellationGuard uncancelled(PTHREAD_CANCEL_DISABLE);
    directory.replace(state_file, 0644, [&](const Descriptor &file) {
        const std::filesystem::path path = directory.path() / state_file;
        write_all(file, path, state_text(state));
        if (fsync(file.get()) != 0) throw system_error(path.string() + ": cannot be written", errno);
    });
    sync_directory(directory);
}

void reload(CardState &state) {
    for (RegionState &region : state.regions) {
        region.programmed = region.falls_back.value_or(region.programmed);
        region.falls_back.reset();
        region.running = region.programmed;
        region.attempts = 0;
    }
    ++state.boot;
}

const RegionState *find_region(const CardState &state, uint32_t fpd, uint8_t index) {
    const auto found = std::find_if(state.regions.begin(), state.regions.end(), [&](const RegionState &region) {
        return region.fpd == fpd && region.index == index;
    });
    return found == state.regions.end() ? nullptr : &*found;
}

RegionState *find_region(CardState &state, uint32_t fpd, uint8_t index) {
    return const_cast<RegionState *>(find_region(std::as_const(state), fpd, index));
}

LedState *find_led(CardState &state, uint32_t id) {
    const auto found =
        std::find_if(state.leds.begin(), state.leds.end(), [&](const LedState &led) { return led.id == id; });
    return found == state.leds.end() ? nullptr : &*found;
}

}  // namespace cardsim
