#include "card_description.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "closed_functions.h"
#include "file_text.h"
#include "printable.h"
#include "toml_reader.h"

namespace cardsim {

namespace {

constexpr int64_t max_u8 = std::numeric_limits<uint8_t>::max();
constexpr int64_t max_u16 = std::numeric_limits<uint16_t>::max();
constexpr int64_t max_u32 = std::numeric_limits<uint32_t>::max();
constexpr int64_t min_int = std::numeric_limits<int>::min();
constexpr int64_t max_int = std::numeric_limits<int>::max();

constexpr size_t max_region_name = sizeof(char[103]) - 1;
/// The description library is asked by so many characters of a name.
constexpr size_t description_name_length = 16;

/// Where each name of a region was first met, and by which line.
struct KnownNames {
    bool may_repeat = false;
    std::map<std::string, uint32_t> lines;  ///< name cut as the description library cuts it
};

/// Numbers between dots, each of digits only and at most `most` of its place; empty: not so.
std::vector<uint32_t> version_parts(std::string_view text, const std::array<uint32_t, 3> &most) {
    std::vector<uint32_t> parts;
    while (parts.size() < most.size()) {
        const size_t dot = text.find('.');
        const std::string_view digits = text.substr(0, dot);
        uint32_t value = 0;
        const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (failure != std::errc() || end != digits.data() + digits.size() || value > most[parts.size()]) {
            return {};
        }
        parts.push_back(value);
        if (dot == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(dot + 1);
    }
    return {};
}

std::optional<FirmwareVersion> firmware_version_key(TableReader &reader, const char *key) {
    const auto text = reader.text(key);
    if (!text) {
        return std::nullopt;
    }
    const auto parts = version_parts(*text, {max_u16, max_u16, max_u16});
    if (parts.size() != 3) {
        reader.fail(key, "expected \"major.minor.debug\", each from 0 to 65535");
    }
    return FirmwareVersion{static_cast<uint16_t>(parts[0]), static_cast<uint16_t>(parts[1]),
                           static_cast<uint16_t>(parts[2])};
}

std::optional<FpdVersion> packaged_version_key(TableReader &reader, const char *key) {
    const auto text = reader.text(key);
    if (!text) {
        return std::nullopt;
    }
    FpdVersion version = {};
    if (*text == "unknown") {
        version.kind = FPD_VERSION_UNKNOWN;
        return version;
    }
    const auto parts = version_parts(*text, {max_u8, max_u16, max_u8});
    if (parts.size() < 2) {
        reader.fail(key, "expected \"major.minor.debug\", at most \"255.65535.255\", \"major.minor\" or \"unknown\"");
    }
    version.kind = parts.size() == 3 ? FPD_VERSION_NORMAL : FPD_VERSION_NO_DEBUG;
    version.major = static_cast<uint8_t>(parts[0]);
    version.minor = static_cast<uint16_t>(parts[1]);
    version.debug = static_cast<uint8_t>(parts.size() == 3 ? parts[2] : 0);
    return version;
}

/// A file name that stays in its directory.
std::string file_name_key(TableReader &reader, const char *key) {
    const std::string name = reader.need(key, reader.line(key, sizeof(char[255]) - 1));
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
        reader.fail(key, "expected the name of a file, without a directory");
    }
    return name;
}

/// A key that says "auto" or is a T; absent is "auto" too.
bool is_auto(TableReader &reader, const char *key) {
    const toml::node *node = reader.node(key);
    return node == nullptr || (node->is_string() && node->as_string()->get() == "auto");
}

ImageDescription read_image(const toml::table &table) {
    TableReader reader(table, "[[fpd.region.image]]");
    ImageDescription image;
    image.upgrade_type = static_cast<uint32_t>(reader.need("type", reader.whole("type", 0, 4)));
    image.version = reader.need("version", packaged_version_key(reader, "version"));
    image.depends_on = reader.line("depends_on", description_name_length).value_or("");
    image.minimum = packaged_version_key(reader, "minimum").value_or(FpdVersion{});
    if (image.minimum.kind == FPD_VERSION_UNKNOWN) {
        reader.fail("minimum", "expected a version, found \"unknown\"");
    }
    image.file = file_name_key(reader, "file");
    image.size = static_cast<uint64_t>(reader.whole("size", 0, int64_t{1} << 30).value_or(65536));
    if (!is_auto(reader, "md5")) {
        image.md5 = reader.line("md5", sizeof(char[255]) - 1);
    }
    if (!is_auto(reader, "need_upgrade")) {
        image.need_upgrade = reader.flag("need_upgrade");
    }
    image.status_msg = reader.line("status_msg", 255);
    reader.finish();
    return image;
}

RegionFaultKind fault_kind(TableReader &reader) {
    const std::map<std::string, RegionFaultKind> kinds = {{"fail", RegionFaultKind::Fail},
                                                          {"hang", RegionFaultKind::Hang},
                                                          {"slow", RegionFaultKind::Slow},
                                                          {"does_not_stick", RegionFaultKind::DoesNotStick}};
    const auto found = kinds.find(reader.need("kind", reader.text("kind")));
    if (found == kinds.end()) {
        reader.fail("kind", "expected \"fail\", \"hang\", \"slow\" or \"does_not_stick\"");
    }
    return found->second;
}

void read_slow_fault(TableReader &reader, const RegionDescription &region, RegionFault &fault) {
    fault.every = reader.need("every", reader.seconds("every"));
    if (region.reports == 0) {
        reader.fail("needs a region that reports: its 'reports' is 0");
    }
}

RegionFault read_region_fault(const toml::table &table, const RegionDescription &region) {
    TableReader reader(table, "[[fpd.region.fault]]");
    RegionFault fault;
    fault.kind = fault_kind(reader);
    if (const auto attempt = reader.whole("attempt", 1, max_u32)) {
        fault.attempt = static_cast<uint32_t>(*attempt);
    }
    // Only the keys that mean something to the kind are asked for, so that the others are refused.
    if (fault.kind == RegionFaultKind::Fail || fault.kind == RegionFaultKind::Hang) {
        fault.at = static_cast<int>(reader.whole("at", -1, 100).value_or(-1));
    }
    if (fault.kind == RegionFaultKind::Fail) {
        fault.code = static_cast<int>(reader.need("code", reader.whole("code", min_int, max_int)));
        if (fault.code == 0) {
            reader.fail("code", "0 is success");
        }
        fault.text = reader.line("text", 1000).value_or("upgrade failed");
    }
    if (fault.kind == RegionFaultKind::Hang) {
        fault.cancellable = reader.flag("cancellable").value_or(true);
        fault.hang_time = reader.seconds("hang_time").value_or(fault.hang_time);
    }
    if (fault.kind == RegionFaultKind::Slow) {
        read_slow_fault(reader, region, fault);
    }
    reader.finish();
    return fault;
}

void check_images(const toml::table &table, const RegionDescription &region) {
    const TableReader reader(table, "[[fpd.region]]");
    for (size_t later = 0; later < region.images.size(); ++later) {
        for (size_t earlier = 0; earlier < later; ++earlier) {
            const ImageDescription &a = region.images[earlier];
            const ImageDescription &b = region.images[later];
            if (a.upgrade_type == b.upgrade_type) {
                reader.fail("has two images for upgrade type " + std::to_string(a.upgrade_type));
            }
            if (a.file == b.file && firmware_version(a.version) != firmware_version(b.version)) {
                reader.fail("has two versions in the one file '" + a.file + "'");
            }
        }
    }
}

void check_region_name(const TableReader &reader, uint32_t line, const std::string &name, KnownNames &known) {
    if (name.empty()) {
        reader.fail("name", "is empty");
    }
    const auto [other, is_new] = known.lines.emplace(name.substr(0, description_name_length), line);
    if (!is_new && !known.may_repeat) {
        reader.fail("name", "'" + name + "' is the same in its first " + std::to_string(description_name_length) +
                                " characters as the name of the region in line " + std::to_string(other->second));
    }
}

RegionDescription read_region(const toml::table &table, KnownNames &known) {
    TableReader reader(table, "[[fpd.region]]");
    RegionDescription region;
    region.name = reader.need("name", reader.line("name", max_region_name));
    check_region_name(reader, line_of(table), region.name, known);
    region.running = reader.need("running", firmware_version_key(reader, "running"));
    region.programmed = firmware_version_key(reader, "programmed").value_or(region.running);
    region.upgrade_type = static_cast<uint8_t>(reader.whole("upgrade_type", 0, max_u8).value_or(region.upgrade_type));
    region.activation = static_cast<uint8_t>(reader.whole("activation", 0, max_u8).value_or(region.activation));
    region.sequence = static_cast<uint8_t>(reader.whole("sequence", 0, max_u8).value_or(region.sequence));
    region.info_flag = static_cast<uint8_t>(reader.whole("info_flag", 0, max_u8).value_or(region.info_flag));
    region.capabilities = static_cast<uint32_t>(reader.whole("capabilities", 0, max_u32).value_or(region.capabilities));
    region.duration = reader.seconds("duration").value_or(region.duration);
    region.reports = static_cast<uint32_t>(reader.whole("reports", 0, 100).value_or(region.reports));
    for (const toml::table *image : reader.tables("image")) {
        region.images.push_back(read_image(*image));
    }
    for (const toml::table *fault : reader.tables("fault")) {
        region.faults.push_back(read_region_fault(*fault, region));
    }
    reader.finish();
    check_images(table, region);
    return region;
}

FpdDescription read_fpd(const toml::table &table, KnownNames &known) {
    TableReader reader(table, "[[fpd]]");
    FpdDescription fpd;
    fpd.id = static_cast<uint32_t>(reader.need("id", reader.whole("id", 0, max_u32)));
    for (const toml::table *region : reader.tables("region")) {
        fpd.regions.push_back(read_region(*region, known));
    }
    if (fpd.regions.size() > static_cast<size_t>(max_u8)) {
        reader.fail("has more than 255 regions");
    }
    reader.finish();
    return fpd;
}

LedDescription read_led(const toml::table &table) {
    TableReader reader(table, "[[led]]");
    LedDescription led;
    led.id = static_cast<uint32_t>(reader.need("id", reader.whole("id", 0, max_u32)));
    led.type = static_cast<uint32_t>(reader.whole("type", 0, max_u32).value_or(led.type));
    led.name = reader.need("name", reader.line("name", 255));
    led.state = static_cast<uint32_t>(reader.whole("state", 0, max_u32).value_or(led.state));
    led.color = static_cast<uint32_t>(reader.whole("color", 0, max_u32).value_or(led.color));
    reader.finish();
    return led;
}

CallFault read_call_fault(const toml::table &table) {
    TableReader reader(table, "[[fault]]");
    CallFault fault;
    fault.call = reader.need("call", reader.text("call"));
    if (std::find(closed_functions.begin(), closed_functions.end(), fault.call) == closed_functions.end()) {
        reader.fail("call", "no closed library has a function '" + fault.call + "'");
    }
    if (const auto nth = reader.whole("nth", 1, max_u32)) {
        fault.nth = static_cast<uint32_t>(*nth);
    }
    if (const auto boot = reader.whole("boot", 1, max_u32)) {
        fault.boot = static_cast<uint32_t>(*boot);
    }
    fault.code = reader.need("code", reader.whole("code", min_int, max_u32));
    if (fault.code == 0 && fault.call != "get_fpd_capability_info") {
        reader.fail("code", "0 is success");
    }
    fault.text = reader.line("text", 1000);
    reader.finish();
    return fault;
}

int read_upgrade_mode(TableReader &reader) {
    const std::array names = {"regular", "mfg", "dummy-minor-version", "dummy-major-version"};
    const toml::node *node = reader.node("upgrade_mode");
    if (node == nullptr || !node->is_string()) {
        return static_cast<int>(reader.whole("upgrade_mode", min_int, max_int).value_or(0));
    }
    const auto found = std::find(names.begin(), names.end(), node->as_string()->get());
    if (found == names.end()) {
        reader.fail("upgrade_mode",
                    "expected \"regular\", \"mfg\", \"dummy-minor-version\", \"dummy-major-version\" or a number");
    }
    return static_cast<int>(found - names.begin());
}

void read_hw_version(TableReader &reader, CardDescription &card) {
    const toml::node *node = reader.node("hw_version");
    const toml::array *parts = node == nullptr ? nullptr : node->as_array();
    const auto part = [&](size_t index) {
        const auto value = parts->get(index)->value_exact<int64_t>();
        return value && *value >= 0 && *value <= max_u32 ? value : std::nullopt;
    };
    if (parts == nullptr || parts->size() != 2 || !part(0) || !part(1)) {
        reader.fail("hw_version", "expected [major, minor], each from 0 to 4294967295");
    }
    card.hw_major = static_cast<uint32_t>(*part(0));
    card.hw_minor = static_cast<uint32_t>(*part(1));
}

std::string read_pid(TableReader &reader) {
    const std::string pid = reader.need("pid", reader.line("pid", sizeof(char[64]) - 1));
    if (pid.empty() || pid.find_first_of(" =") != std::string::npos) {
        reader.fail("pid", "expected 1 to 63 characters, none of them a blank or '='");
    }
    return pid;
}

void read_card(const toml::table &table, CardDescription &card) {
    TableReader reader(table, "[card]");
    card.group = static_cast<uint32_t>(reader.need("group", reader.whole("group", 1, max_u32)));
    card.board_type = static_cast<uint32_t>(reader.need("board_type", reader.whole("board_type", 0, max_u32)));
    read_hw_version(reader, card);
    card.slot = static_cast<uint32_t>(reader.need("slot", reader.whole("slot", 0, max_u32)));
    card.pid = read_pid(reader);
    card.startup = reader.text("startup").value_or(card.startup);
    card.bootstrap = reader.text("bootstrap");
    card.auto_upgrade = static_cast<int>(reader.whole("auto_upgrade", min_int, max_int).value_or(card.auto_upgrade));
    card.upgrade_mode = read_upgrade_mode(reader);
    card.allow_duplicate_names = reader.flag("allow_duplicate_names").value_or(false);
    reader.finish();
}

WatchdogDescription read_watchdog(const toml::table &table) {
    TableReader reader(table, "[watchdog]");
    WatchdogDescription watchdog;
    watchdog.timeout = reader.seconds("timeout").value_or(watchdog.timeout);
    if (watchdog.timeout <= 0) {
        reader.fail("timeout", "expected more than 0 seconds");
    }
    reader.finish();
    return watchdog;
}

ObflDescription read_obfl(const toml::table &table) {
    TableReader reader(table, "[obfl]");
    ObflDescription obfl;
    obfl.mounted = reader.flag("mounted").value_or(obfl.mounted);
    obfl.mount_time = reader.seconds("mount_time").value_or(obfl.mount_time);
    obfl.mount_fails = reader.flag("mount_fails").value_or(obfl.mount_fails);
    obfl.unmount_fails = reader.flag("unmount_fails").value_or(obfl.unmount_fails);
    reader.finish();
    return obfl;
}

ScriptsDescription read_scripts(const toml::table &table) {
    TableReader reader(table, "[scripts]");
    ScriptsDescription scripts;
    scripts.event = static_cast<int>(reader.whole("event", 0, max_u8).value_or(0));
    scripts.watchdog = static_cast<int>(reader.whole("watchdog", 0, max_u8).value_or(0));
    scripts.reset = static_cast<int>(reader.whole("reset", 0, max_u8).value_or(0));
    scripts.grub_reboot = static_cast<int>(reader.whole("grub_reboot", 0, max_u8).value_or(0));
    reader.finish();
    return scripts;
}

/// Reads one table for every heading and refuses two with one id.
template <typename Described, typename Read>
std::vector<Described> read_with_ids(TableReader &reader, const char *key, Read read) {
    std::vector<Described> result;
    std::set<uint32_t> ids;
    for (const toml::table *table : reader.tables(key)) {
        result.push_back(read(*table));
        if (!ids.insert(result.back().id).second) {
            TableReader(*table, "[[" + std::string(key) + "]]")
                .fail("id", "another one has " + std::to_string(result.back().id) + " already");
        }
    }
    return result;
}

CardDescription read_description(const toml::table &root, const std::filesystem::path &file) {
    TableReader reader(root, "the card");
    CardDescription card;
    card.file = file;
    const toml::table *identity = reader.table("card");
    if (identity == nullptr) {
        reader.fail("needs a table [card]");
    }
    read_card(*identity, card);
    if (const toml::table *watchdog = reader.table("watchdog")) {
        card.watchdog = read_watchdog(*watchdog);
    }
    if (const toml::table *obfl = reader.table("obfl")) {
        card.obfl = read_obfl(*obfl);
    }
    if (const toml::table *scripts = reader.table("scripts")) {
        card.scripts = read_scripts(*scripts);
    }
    KnownNames known{card.allow_duplicate_names, {}};
    card.leds = read_with_ids<LedDescription>(reader, "led", read_led);
    card.fpds =
        read_with_ids<FpdDescription>(reader, "fpd", [&](const toml::table &table) { return read_fpd(table, known); });
    for (const toml::table *fault : reader.tables("fault")) {
        card.faults.push_back(read_call_fault(*fault));
    }
    reader.finish();
    return card;
}

}  // namespace

CardDescription load_card_description(const std::filesystem::path &file) {
    constexpr size_t most = size_t{1} << 20;
    try {
        // Not to wait for somebody to write into a FIFO.
        return read_description(parse_toml(open_to_read(file, O_NONBLOCK | O_NOCTTY), file, most), file);
    } catch (const Error &reason) {
        // A description that cannot be read is its user's to put right, too.
        throw Error(printable(reason.what()));
    }
}

std::string bootstrap_text(const CardDescription &card) {
    if (card.bootstrap) {
        return *card.bootstrap;
    }
    return "PD_CARD_TYPE=" + std::to_string(card.board_type) + "\n" +
           "HW_MAJOR_VERSION=" + std::to_string(card.hw_major) + "\n" +
           "HW_MINOR_VERSION=" + std::to_string(card.hw_minor) + "\n" + "PD_SLOT_NUM=" + std::to_string(card.slot) +
           "\n" + "MY_CARD_PID=" + card.pid + "\n";
}

FirmwareVersion firmware_version(const FpdVersion &version) {
    return {version.major, version.minor, version.debug};
}

std::string version_text(const FirmwareVersion &version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." + std::to_string(version.debug);
}

std::string version_text(const FpdVersion &version) {
    if (version.kind == FPD_VERSION_UNKNOWN) {
        return "unknown";
    }
    const std::string text = std::to_string(version.major) + "." + std::to_string(version.minor);
    return version.kind == FPD_VERSION_NO_DEBUG ? text : text + "." + std::to_string(version.debug);
}

const ImageDescription *find_image(const RegionDescription &region, uint32_t upgrade_type) {
    const auto found = std::find_if(region.images.begin(), region.images.end(),
                                    [&](const ImageDescription &image) { return image.upgrade_type == upgrade_type; });
    return found == region.images.end() ? nullptr : &*found;
}

std::optional<uint32_t> requested_type(int mode) {
    // A manufacturing card with a locked Golden image asks for the unlocking type (2) before.
    constexpr std::array<uint32_t, 4> types = {0, 1, 3, 4};
    if (mode < 0 || static_cast<size_t>(mode) >= types.size()) return std::nullopt;
    return types[static_cast<size_t>(mode)];
}

const ImageDescription *image_for_mode(const RegionDescription &region, int mode) {
    const std::optional<uint32_t> type = requested_type(mode);
    return type ? find_image(region, *type) : nullptr;
}

}  // namespace cardsim
