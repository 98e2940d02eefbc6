#include "random_card.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <random>

namespace properties {
namespace {

/// The language fixes what std::mt19937_64 gives, but not what the distributions of the library make of it.
class Dice {
  public:
    explicit Dice(uint64_t seed) : engine_(seed) {}
    unsigned below(std::size_t count) { return static_cast<unsigned>(engine_() % count); }
    unsigned between(unsigned least, unsigned most) { return least + below(most - least + 1); }
    bool percent(unsigned chance) { return below(100) < chance; }
    template <typename T>
    T one_of(std::initializer_list<T> some) {
        return some.begin()[below(some.size())];
    }
    template <typename T>
    const T &one_of(const std::vector<T> &some) {
        return some[below(some.size())];
    }

  private:
    std::mt19937_64 engine_;
};

constexpr int manufacturing = 1;

// ---- versions

Version triple(unsigned major, unsigned minor, unsigned debug) {
    return {0, major, minor, debug};
}

/// Few, so that they often meet again; some have more digits than the tool shows.
Version usual_version(Dice &dice) {
    return triple(dice.between(1, 2), dice.one_of({0U, 1U, 12U}), dice.percent(15) ? 7 : 0);
}

Version reported_version(Dice &dice) {
    if (dice.percent(2)) return dice.one_of({triple(256, 0, 0), triple(1, 0, 256), triple(65535, 65535, 65535)});
    if (dice.percent(3)) return dice.one_of({triple(255, 65535, 255), triple(10, 10000, 100), triple(0, 0, 0)});
    return usual_version(dice);
}

Version packaged_version(Dice &dice, const Version &programmed) {
    if (dice.percent(4)) return {255, 0, 0, 0};
    if (dice.percent(3)) return triple(255, 65535, 255);
    if (dice.percent(8)) return {253, dice.between(1, 2), dice.one_of({0U, 12U, 65535U}), 0};
    const bool can_be_packaged = programmed.major <= 255 && programmed.debug <= 255;
    if (dice.percent(25) && can_be_packaged) return programmed;
    return usual_version(dice);
}

// ---- regions

std::string region_name(Dice &dice, unsigned number, bool long_names) {
    const std::string digits = std::to_string(number);
    if (long_names && dice.percent(35)) return "R" + digits + std::string(dice.one_of({16U, 22U, 60U, 66U}), 'x');
    if (dice.percent(10)) return "R" + digits + std::string(15 - digits.size(), 'y');
    return dice.one_of<std::string>({"IoFpga", "Bios", "Phy-", "Cpu_"}) + digits;
}

std::vector<Trouble> random_troubles(Dice &dice, const Card &card) {
    std::vector<Trouble> troubles;
    const int at = dice.one_of({-1, -1, 0, 50, 100});
    const int code = dice.one_of({1, -5, 22});
    if (dice.percent(8)) troubles.push_back({Trouble::Kind::Fail, 1, at, code});
    if (dice.percent(3)) troubles.push_back({Trouble::Kind::Fail, 2, at, code});
    if (dice.percent(4)) troubles.push_back({Trouble::Kind::Fail, {}, at, code});
    if (dice.percent(card.lives ? 12 : 2)) troubles.push_back({Trouble::Kind::DoesNotStick, {}, -1, 0});
    return troubles;
}

std::vector<unsigned> image_types(Dice &dice, int mode) {
    std::vector<unsigned> types;
    for (unsigned type = 0; type <= 4; ++type) {
        const bool is_asked_for = mode == 0               ? type == 0
                                  : mode == manufacturing ? type == 1 || type == 2
                                                          : static_cast<int>(type) == mode + 1;
        if (dice.percent(is_asked_for ? 92 : 8)) types.push_back(type);
    }
    return types;
}

Image random_image(Dice &dice, unsigned type, const Region &region) {
    Image image;
    image.type = type;
    image.version = packaged_version(dice, region.programmed);
    if (dice.percent(6)) image.minimum = usual_version(dice);
    image.wrong_md5 = dice.percent(3);
    if (dice.percent(30)) image.need_upgrade = dice.percent(50);
    return image;
}

unsigned random_capabilities(Dice &dice, int mode) {
    unsigned bits = dice.percent(92) ? 0x8 : 0;
    if (dice.percent(4)) bits |= 0x1;
    if (dice.percent(mode == manufacturing ? 30 : 5)) bits |= 0x800;
    if (dice.percent(mode == manufacturing ? 60 : 5)) bits |= 0x1000;
    if (dice.percent(5)) bits |= 0xf00;
    return bits;
}

Region random_region(Dice &dice, const Card &card, unsigned number, bool long_names) {
    Region region;
    region.name = region_name(dice, number, long_names);
    region.running = reported_version(dice);
    region.programmed = dice.percent(75) ? region.running : reported_version(dice);
    region.upgrade_type = dice.percent(72) ? 1 : dice.one_of({5U, 5U, 5U, 5U, 0U, 2U, 4U, 255U});
    region.activation = dice.one_of({0U, 0U, 0U, 1U, 2U, 3U, 4U, 5U, 5U, 5U, 6U, 7U, 255U});
    region.sequence = dice.percent(75)   ? 0
                      : dice.percent(80) ? dice.between(1, 4)
                                         : dice.one_of({9U, 14U, 15U, 15U, 16U, 254U, 255U});
    region.info_flag = dice.below(3);
    region.capabilities = random_capabilities(dice, card.upgrade_mode);
    region.duration = dice.below(9) / 2.0;
    region.reports = dice.one_of({0U, 1U, 2U, 3U, 7U});
    for (const unsigned type : image_types(dice, card.upgrade_mode)) {
        region.images.push_back(random_image(dice, type, region));
    }
    region.troubles = random_troubles(dice, card);
    return region;
}

unsigned region_count(Dice &dice) {
    const unsigned size = dice.below(100);
    if (size < 2) return 0;
    if (size < 55) return dice.between(1, 6);
    if (size < 88) return dice.between(7, 16);
    if (size < 97) return dice.between(17, 32);
    return dice.between(33, 64);
}

std::vector<Fpd> random_fpds(Dice &dice, const Card &card) {
    std::vector<Fpd> fpds;
    const bool long_names = dice.percent(10);
    const unsigned count = region_count(dice);
    for (unsigned number = 1; number <= count; ++number) {
        if (fpds.empty() || dice.percent(40)) fpds.push_back({10 + number * 3, {}});
        fpds.back().regions.push_back(random_region(dice, card, number, long_names));
    }
    if (dice.percent(2)) fpds.push_back({9, {}});
    return fpds;
}

std::vector<Region *> regions_of(Card &card) {
    std::vector<Region *> regions;
    for (Fpd &fpd : card.fpds) {
        for (Region &region : fpd.regions) regions.push_back(&region);
    }
    return regions;
}

// ---- dependencies

/// Upgraded only when another region asks for it.
void leave_to_dependents(Region &region, unsigned type) {
    for (Image &image : region.images) {
        if (image.type == type) image.need_upgrade = false;
    }
}

/// Without circles: each region depends on an earlier one of a random order, often on the one just before it.
void add_dependencies(Dice &dice, Card &card) {
    std::vector<Region *> order = regions_of(card);
    for (std::size_t at = order.size(); at > 1; --at) std::swap(order[at - 1], order[dice.below(at)]);
    const unsigned chance = dice.one_of({0U, 20U, 50U, 90U});
    const bool chains = dice.percent(30);
    const bool circles = dice.percent(8);
    for (std::size_t at = 0; at < order.size(); ++at) {
        for (Image &image : order[at]->images) {
            if (!dice.percent(chance) || at == 0) continue;
            std::size_t base = chains && dice.percent(80) ? at - 1 : dice.below(at);
            if (circles && dice.percent(30)) base = dice.below(order.size());
            image.depends_on = order[base]->name.substr(0, 16);
            if (dice.percent(20)) leave_to_dependents(*order[base], image.type);
            if (dice.percent(2)) image.depends_on = dice.percent(50) ? "Nowhere" : order[at]->name.substr(0, 16);
        }
    }
}

// ---- what goes wrong

void add_hangs(Dice &dice, Card &card) {
    const std::vector<Region *> regions = regions_of(card);
    if (regions.empty()) return;
    const Trouble hang = {Trouble::Kind::Hang, dice.percent(70) ? std::optional(1U) : std::nullopt,
                          dice.one_of({-1, -1, 0, 50}), 0};
    for (int count = 0; count < 2; ++count) {
        std::vector<Trouble> &troubles = dice.one_of(regions)->troubles;
        troubles.insert(troubles.begin(), hang);
    }
}

/// How a closed function may fail: by its n-th call, or 0: every one.
struct Failing {
    const char *call;
    unsigned most_nth;
    unsigned chance;  ///< as compared to the others
};

/// Those whose calls come in an order that the tool's threads do not decide.
constexpr std::array failings = {
    Failing{"brd_fpd_info_get", 12, 6},
    Failing{"brd_fpd_regions_get", 6, 6},
    Failing{"brd_fpd_num_regions_get", 9, 6},
    Failing{"brd_intf_fpd_image_md5_validate", 6, 5},
    Failing{"check_and_get_upgrade_image", 6, 4},
    Failing{"get_fpd_capability_info", 6, 3},
    Failing{"brd_fpd_upgrade", 0, 2},
    Failing{"exec_shell_command", 2, 4},
    Failing{"brd_led_state_and_color_set", 2, 5},
    Failing{"brd_led_current_color_get", 2, 3},
    Failing{"brd_led_current_state_get", 2, 3},
    Failing{"brd_led_type_get", 3, 1},
    Failing{"brd_led_name_get", 2, 1},
    Failing{"brd_group_led_init", 1, 1},
    Failing{"brd_group_led_num_leds_get", 1, 1},
    Failing{"brd_group_led_obj_id_list_get", 1, 1},
    Failing{"brd_sb_attribute_flag_set", 2, 3},
    Failing{"brd_local_card_group_id_get", 2, 1},
    Failing{"brd_group_fpd_num_fpds_get", 3, 2},
    Failing{"brd_group_fpd_obj_id_list_get", 3, 2},
    Failing{"brd_fru_hw_data_init", 1, 2},
    Failing{"brd_fru_hw_init", 1, 1},
    Failing{"brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config", 1, 1},
    Failing{"brd_intf_fpd_upgrade_cookie_get_upgrade_mode", 1, 1},
    Failing{"brd_intf_fpd_upgrade_cookie_set_upgrade_mode", 1, 1},
    Failing{"brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config", 1, 1},
};

int64_t random_code(Dice &dice, const std::string &call) {
    if (call == "get_fpd_capability_info") return dice.one_of<int64_t>({0, 0x1, 0x1808});
    if (call == "brd_fru_hw_data_init" && dice.percent(50)) return 0x10000408;
    return dice.one_of<int64_t>({1, 5, 256, -13});
}

CallFault random_fault(Dice &dice, const Card &card) {
    std::vector<const Failing *> urn;
    for (const Failing &failing : failings) urn.insert(urn.end(), failing.chance, &failing);
    const Failing &failing = *dice.one_of(urn);
    CallFault fault;
    fault.call = failing.call;
    const unsigned nth = failing.most_nth == 0 || dice.percent(10) ? 0 : dice.between(1, failing.most_nth);
    if (nth != 0) fault.nth = nth;
    if (card.lives && dice.percent(40)) fault.boot = dice.between(1, 2);
    fault.code = random_code(dice, fault.call);
    return fault;
}

/// Two regions of one name. Which of them the card means by it is certain only as long as both can be named.
void add_duplicate_name(Dice &dice, Card &card) {
    const std::vector<Region *> regions = regions_of(card);
    if (regions.size() < 2) return;
    const unsigned later = dice.between(1, static_cast<unsigned>(regions.size() - 1));
    regions[later]->name = regions[dice.below(later)]->name;
    std::erase_if(card.faults,
                  [](const CallFault &fault) { return fault.call.find("regions_get") != fault.call.npos; });
}

unsigned script_status(Dice &dice) {
    return dice.percent(8) ? dice.one_of({1U, 3U, 255U}) : 0;
}

void add_settings(Dice &dice, Card &card) {
    if (dice.percent(1)) card.hw_major = 300;
    if (dice.percent(4)) card.auto_upgrade = dice.one_of({0, 0, 2, -1});
    card.flash_mounted = dice.percent(30);
    card.mount_time = dice.below(5);
    card.mount_fails = dice.percent(10);
    card.unmount_fails = dice.percent(10);
    card.event_status = script_status(dice);
    card.watchdog_status = script_status(dice);
    card.reset_status = script_status(dice);
    card.grub_status = script_status(dice);
    if (dice.percent(40)) {
        card.marker = dice.one_of({MarkerBefore::Same, MarkerBefore::Same, MarkerBefore::SameAndMore,
                                   MarkerBefore::Other, MarkerBefore::Garbage, MarkerBefore::Empty});
    }
}

std::vector<Led> random_leds(Dice &dice) {
    const Led status = {dice.percent(1) ? 0 : dice.between(1, 4), 1, dice.one_of<std::string>({"Status", "STATUS"}),
                        dice.below(5), dice.below(7)};
    std::vector<Led> leds;
    if (dice.percent(20)) leds.push_back({7, 2, "Status", 2, 1});
    if (dice.percent(20)) leds.push_back({8, 1, "Power", 2, 2});
    if (dice.percent(99)) leds.push_back(status);
    if (dice.percent(20)) leds.push_back({9, 1, "status", 1, 0});
    return leds;
}

int random_mode(Dice &dice) {
    if (dice.percent(3)) return dice.one_of({4, 7, -1});
    return dice.one_of({0, 0, 0, 0, 0, 1, 1, 1, 2, 3});
}

void choose_command(Dice &dice, Card &card) {
    card.backend = dice.percent(30);
    if (dice.percent(80)) {
        card.lives = !card.backend && dice.percent(30);
        return;
    }
    card.command = dice.one_of<std::string>({"check_upgrade", "check_upgrade", "list_upgrade", "list_upgrade",
                                             "list_upgrade", "get_config", "set_config=enable", "set_config=disable",
                                             "get_upgrade_mode", "set_upgrade_mode=mfg"});
}

// ---- the description

/// A line of the description; texts here hold nothing that a double quote would have to protect.
template <typename T>
std::string line(const char *key, const T &value) {
    if constexpr (std::is_same_v<T, bool>) return std::string(key) + " = " + (value ? "true" : "false") + "\n";
    if constexpr (std::is_arithmetic_v<T>) return std::string(key) + " = " + std::to_string(value) + "\n";
    if constexpr (!std::is_arithmetic_v<T>) return std::string(key) + " = \"" + value + "\"\n";
}

template <typename T>
std::string line_if(const char *key, const std::optional<T> &value) {
    return value ? line(key, *value) : "";
}

/// Nothing for what a card has anyhow.
template <typename T>
std::string line_unless(const char *key, const T &value, const T &usual) {
    return value == usual ? "" : line(key, value);
}

std::string image_text(const Fpd &fpd, std::size_t region, const Image &image) {
    std::string text = "[[fpd.region.image]]\n" + line("type", image.type) +
                       line("version", version_text(image.version)) + line("file", image_file(fpd, region, image)) +
                       line("size", 64) + line_if("need_upgrade", image.need_upgrade);
    if (!image.depends_on.empty()) text += line("depends_on", image.depends_on);
    if (image.minimum != Version{}) text += line("minimum", version_text(image.minimum));
    if (image.wrong_md5) text += line("md5", "00112233445566778899aabbccddeeff");
    return text;
}

std::string trouble_text(const Trouble &trouble) {
    constexpr std::array kinds = {"fail", "hang", "does_not_stick"};
    std::string text = "[[fpd.region.fault]]\n" + line("kind", kinds[static_cast<std::size_t>(trouble.kind)]) +
                       line_if("attempt", trouble.attempt);
    if (trouble.kind != Trouble::Kind::DoesNotStick) text += line("at", trouble.at);
    if (trouble.kind == Trouble::Kind::Fail) text += line("code", trouble.code);
    return text;
}

std::string region_text(const Fpd &fpd, std::size_t index) {
    const Region &region = fpd.regions[index];
    const Region usual;
    std::string text =
        "\n[[fpd.region]]\n" + line("name", region.name) + line("running", version_text(region.running)) +
        line("programmed", version_text(region.programmed)) + line("duration", region.duration) +
        line("reports", region.reports) + line_unless("upgrade_type", region.upgrade_type, usual.upgrade_type) +
        line_unless("activation", region.activation, usual.activation) +
        line_unless("sequence", region.sequence, usual.sequence) +
        line_unless("info_flag", region.info_flag, usual.info_flag) +
        line_unless("capabilities", region.capabilities, usual.capabilities);
    for (const Image &image : region.images) text += image_text(fpd, index, image);
    for (const Trouble &trouble : region.troubles) text += trouble_text(trouble);
    return text;
}

std::string led_text(const Led &led) {
    return "\n[[led]]\n" + line("id", led.id) + line("type", led.type) + line("name", led.name) +
           line("state", led.state) + line("color", led.color);
}

std::string fault_table(const CallFault &fault) {
    return "\n[[fault]]\n" + line("call", fault.call) + line_if("nth", fault.nth) + line_if("boot", fault.boot) +
           line("code", fault.code) + line("text", fault_text(fault));
}

std::string identity_text(const Card &card, std::string startup) {
    for (std::size_t at = startup.find('\\'); at != startup.npos; at = startup.find('\\', at + 2)) {
        startup.insert(at, "\\");
    }
    return "[card]\n" + line("group", group) + line("board_type", 0x3110) + "hw_version = [" +
           std::to_string(card.hw_major) + ", 2]\n" + line("slot", 4) + line("pid", "SIM-RANDOM") +
           line("auto_upgrade", card.auto_upgrade) + line("upgrade_mode", card.upgrade_mode) +
           line("allow_duplicate_names", true) + "startup = \"\"\"" + startup + "\"\"\"\n";
}

std::string surroundings_text(const Card &card) {
    return "\n[obfl]\n" + line("mount_time", card.mount_time) + line_unless("mounted", card.flash_mounted, false) +
           line_unless("mount_fails", card.mount_fails, false) +
           line_unless("unmount_fails", card.unmount_fails, false) + "\n[scripts]\n" +
           line_unless("event", card.event_status, 0U) + line_unless("watchdog", card.watchdog_status, 0U) +
           line_unless("reset", card.reset_status, 0U) + line_unless("grub_reboot", card.grub_status, 0U);
}

/// For the format of printf in the shell, between single quotes.
std::string printf_format(const std::string &text) {
    std::string format;
    for (const char byte : text) {
        format += byte == '\n' ? "\\n" : byte == '\0' ? "\\0" : byte == '%' ? "%%" : std::string(1, byte);
    }
    return format;
}

}  // namespace

std::string version_text(const Version &version) {
    if (version.kind == 255) return "unknown";
    const std::string two = std::to_string(version.major) + "." + std::to_string(version.minor);
    return version.kind == 253 ? two : two + "." + std::to_string(version.debug);
}

std::string fault_text(const CallFault &fault) {
    return fault.call + " fails";
}

std::string image_file(const Fpd &fpd, std::size_t region, const Image &image) {
    return std::to_string(fpd.id) + "-" + std::to_string(region) + "-" + std::to_string(image.type) + ".img";
}

Card random_card(uint64_t seed) {
    Dice dice(seed);
    Card card;
    choose_command(dice, card);
    card.upgrade_mode = random_mode(dice);
    add_settings(dice, card);
    card.leds = random_leds(dice);
    card.fpds = random_fpds(dice, card);
    add_dependencies(dice, card);
    if (dice.percent(12)) add_hangs(dice, card);
    while (dice.percent(22)) card.faults.push_back(random_fault(dice, card));
    if (dice.percent(3)) add_duplicate_name(dice, card);
    return card;
}

std::string startup_command(const Card &card, const std::optional<std::string> &marker) {
    const std::string tool = std::string("bootup_fpd ") + (card.backend ? "-b " : "") + "-c " + card.command;
    if (!marker) return tool;
    return "[ -e /misc/scratch/begun ] || printf '" + printf_format(*marker) +
           "' >/misc/scratch/bootup_fpd_marker.txt; : >/misc/scratch/begun; " + tool;
}

std::string card_toml(const Card &card, const std::optional<std::string> &marker) {
    std::string text = identity_text(card, startup_command(card, marker)) + surroundings_text(card);
    for (const Led &led : card.leds) text += led_text(led);
    for (const Fpd &fpd : card.fpds) {
        text += "\n[[fpd]]\n" + line("id", fpd.id);
        for (std::size_t index = 0; index < fpd.regions.size(); ++index) text += region_text(fpd, index);
    }
    for (const CallFault &fault : card.faults) text += fault_table(fault);
    return text;
}

}  // namespace properties
