/// The calls of a run, in its order and with good arguments.
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <thread>

#include "check_libraries_calls.h"
#include "descriptor.h"
#include "error.h"

namespace cardsim {
namespace {

/// No card has as many objects; a number of that kind is one that was negative, or never set.
constexpr uint32_t most_objects = 65536;
constexpr uint32_t status_led_type = 1;

constexpr const char *no_context = "every card command fails";
constexpr const char *no_plan = "nothing can be planned";
constexpr const char *passed_over = "the tool passes it over";
constexpr const char *still_upgrades = "logged; the FPDs are upgraded all the same";

std::string object(const char *kind, uint32_t id) {
    return std::string(kind) + " " + std::to_string(id);
}

// ---- the card and its LEDs

void register_identity(Reporter &reporter, const FruHwData &identity, uint32_t &handle) {
    const std::string arguments = "group type " + std::to_string(identity.group_type) + ", slot " +
                                  std::to_string(identity.pd_slot_num) + ", " + identity.card_pid;
    call<decltype(brd_fru_hw_data_init)>(reporter, "brd_fru_hw_data_init", arguments,
                                         [&](auto &data_init, Records &records) {
                                             auto *const data = records.make<FruHwData>("data");
                                             auto *const given = records.make<uint32_t>("handle");
                                             *data = identity;
                                             const int rc = data_init(0, 0, data, given);
                                             handle = *given;
                                             if (rc == BRD_FRU_HW_DATA_PRESENT)
                                                 return Outcome{Verdict::ok, "known already", ""};
                                             return rc == 0 ? fine() : failed(rc, Verdict::fault, no_context);
                                         });
}

void start_hardware(Reporter &reporter, uint32_t handle) {
    call<decltype(brd_fru_hw_init)>(reporter, "brd_fru_hw_init", "the handle", [&](auto &init, Records &) {
        const int rc = init(handle);
        return rc == 0 ? fine() : failed(rc, Verdict::fault, no_context);
    });
}

Outcome judge_group(uint32_t group, const LibraryCheck &check) {
    Outcome outcome = fine("group " + std::to_string(group));
    const auto &expected = check.groups;
    if (!expected.empty() && std::find(expected.begin(), expected.end(), group) == expected.end()) {
        outcome = {Verdict::fault, outcome.result, "not the group that was asked for"};
    } else if (group == 0) {
        outcome = {Verdict::note, outcome.result, "group 0 is given no LED state"};
    }
    return outcome;
}

void find_group(const LibraryCheck &check, Reporter &reporter, Card &card) {
    call<decltype(brd_local_card_group_id_get)>(
        reporter, "brd_local_card_group_id_get", "", [&](auto &get, Records &records) {
            auto *const group = records.make<uint32_t>("group_id");
            const int rc = get(group);
            card.group = *group;
            return rc == 0 ? judge_group(*group, check) : failed(rc, Verdict::fault, no_context);
        });
}

template <class Function>
uint32_t count_objects(Reporter &reporter, const char *name, uint32_t group, const char *what_then) {
    uint32_t counted = 0;
    call<Function>(reporter, name, object("group", group), [&](auto &get, Records &records) {
        auto *const count = records.make<uint32_t>("count");
        const int rc = get(group, count);
        if (rc != 0) return failed(rc, Verdict::fault, what_then);
        if (*count > most_objects)
            return Outcome{Verdict::fault, fine(std::to_string(*count)).result, "no such number"};
        counted = *count;
        return fine(std::to_string(counted));
    });
    return counted;
}

template <class Function>
std::vector<uint32_t> list_objects(Reporter &reporter, const char *name, uint32_t group, uint32_t count,
                                   const char *what_then) {
    std::vector<uint32_t> listed;
    if (count == 0) return listed;
    const std::string arguments = object("group", group) + ", room for " + std::to_string(count);
    call<Function>(reporter, name, arguments, [&](auto &get, Records &records) {
        auto *const ids = records.make<uint32_t>("ids", count);
        const int rc = get(group, ids);
        if (rc != 0) return failed(rc, Verdict::fault, what_then);
        listed.assign(ids, ids + count);
        const bool distinct = std::set<uint32_t>(listed.begin(), listed.end()).size() == count;
        std::string text;
        for (const uint32_t id : listed) text += (text.empty() ? "" : " ") + std::to_string(id);
        return Outcome{distinct ? Verdict::ok : Verdict::fault, fine(text).result,
                       distinct ? "" : "the same one more than once"};
    });
    return listed;
}

bool is_status_type(Reporter &reporter, uint32_t group, uint32_t led) {
    bool is_it = false;
    call<decltype(brd_led_type_get)>(
        reporter, "brd_led_type_get", object("LED", led), [&](auto &get, Records &records) {
            auto *const type = records.make<uint32_t>("type");
            const int rc = get(group, led, type);
            is_it = rc == 0 && *type == status_led_type;
            return rc == 0 ? fine(std::to_string(*type)) : failed(rc, Verdict::fault, no_context);
        });
    return is_it;
}

bool is_status_name(Reporter &reporter, uint32_t group, uint32_t led) {
    constexpr std::size_t size = 64;
    bool is_it = false;
    call<decltype(brd_led_name_get)>(
        reporter, "brd_led_name_get", object("LED", led), [&](auto &get, Records &records) {
            auto *const name = records.make<char>("name", size);
            const int rc = get(group, led, name, size);
            if (rc != 0) return failed(rc, Verdict::fault, no_context);
            const std::string text = text_in(name, size);
            is_it = strcasecmp(text.c_str(), "Status") == 0;
            if (is_without_end(name, size))
                return Outcome{Verdict::note, fine(text).result, "no end: the tool cuts it"};
            return fine(text);
        });
    return is_it;
}

void find_status_led(Reporter &reporter, Card &card) {
    call<decltype(brd_group_led_init)>(
        reporter, "brd_group_led_init", object("group", card.group), [&](auto &init, Records &) {
            const int rc = init(card.group);
            return rc == 0 ? fine() : failed(rc, Verdict::note, "the tool takes no notice");
        });
    const uint32_t count = count_objects<decltype(brd_group_led_num_leds_get)>(reporter, "brd_group_led_num_leds_get",
                                                                               card.group, no_context);
    const std::vector<uint32_t> leds = list_objects<decltype(brd_group_led_obj_id_list_get)>(
        reporter, "brd_group_led_obj_id_list_get", card.group, count, no_context);
    for (const uint32_t led : leds) {
        if (!is_status_type(reporter, card.group, led) || !is_status_name(reporter, card.group, led)) continue;
        card.status_led = led;
        break;
    }
    reporter.call({.call = "(status LED)", .arguments = "type 1, name Status"}, [&](Records &) {
        if (card.status_led == 0) return Outcome{Verdict::fault, "none", no_context};
        return fine(object("LED", card.status_led));
    });
}

void read_mode(Reporter &reporter, Card &card) {
    call<decltype(brd_intf_fpd_upgrade_cookie_get_upgrade_mode)>(
        reporter, "brd_intf_fpd_upgrade_cookie_get_upgrade_mode", "", [&](auto &get, Records &records) {
            auto *const mode = records.make<int>("mode");
            char *const reason = records.make<char>("err_msg", reason_size);
            const int rc = get(mode, reason, reason_size);
            if (rc != 0) return failed(rc, Verdict::fault, no_context, reason);
            card.mode = static_cast<uint32_t>(*mode);
            if (*mode < 0 || *mode > 3) return Outcome{Verdict::fault, fine(std::to_string(*mode)).result, no_context};
            return fine(std::to_string(*mode));
        });
}

void read_configuration(Reporter &reporter) {
    call<decltype(brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config)>(
        reporter, "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config", "", [&](auto &get, Records &records) {
            auto *const value = records.make<int>("value");
            char *const reason = records.make<char>("err_msg", reason_size);
            const int rc = get(value, reason, reason_size);
            if (rc != 0) return failed(rc, Verdict::fault, "every command fails", reason);
            const bool is_known = *value == 0 || *value == 1;
            return Outcome{is_known ? Verdict::ok : Verdict::note, fine(std::to_string(*value)).result,
                           is_known ? "" : "told as 'Unknown'; the tool upgrades"};
        });
}

// ---- the FPDs

uint8_t count_regions(Reporter &reporter, uint32_t group, uint32_t id) {
    uint8_t counted = 0;
    call<decltype(brd_fpd_num_regions_get)>(
        reporter, "brd_fpd_num_regions_get", object("FPD", id), [&](auto &get, Records &records) {
            auto *const count = records.make<uint8_t>("num_regions");
            const int rc = get(group, id, count);
            if (rc != 0) return failed(rc, Verdict::fault, passed_over);
            counted = *count;
            if (counted == 0) return Outcome{Verdict::note, fine("0").result, "nothing of it is upgraded"};
            return fine(std::to_string(counted));
        });
    return counted;
}

/// What a name is worth to the tool: it is known by its first 63 characters, and none may have that of another.
Outcome judge_names(const Card &card, const FpdObject &fpd) {
    constexpr std::size_t most = sizeof(BrdFpdInfo::name) - 1;
    Outcome outcome = fine();
    std::string names;
    for (const Region &region : fpd.regions) {
        names += (names.empty() ? "" : ", ") + region.name;
        const auto same = [&](const Region &other) { return other.name == region.name; };
        if (card.has_region(region.name) || std::count_if(fpd.regions.begin(), fpd.regions.end(), same) > 1) {
            outcome = {Verdict::fault, "", "a name twice: the second is passed over"};
        } else if (region.name.size() > most) {
            outcome = {Verdict::note, "", "a name over 63 characters is cut"};
        }
    }
    outcome.result = fine(names).result;
    return outcome;
}

void name_regions(Reporter &reporter, const Card &card, FpdObject &fpd, uint8_t count) {
    if (count == 0) return;
    const std::string arguments = object("FPD", fpd.id) + ", room for " + std::to_string(count);
    call<decltype(brd_fpd_regions_get)>(reporter, "brd_fpd_regions_get", arguments, [&](auto &get, Records &records) {
        auto *const regions = records.make<BrdFpdRegion>("regions", count);
        const int rc = get(card.group, fpd.id, regions, count);
        if (rc != 0) return failed(rc, Verdict::fault, passed_over);
        bool ends = true;
        for (uint8_t i = 0; i < count; ++i) {
            Region region;
            region.index = i;
            region.name = text_in(regions[i].name, sizeof regions[i].name);
            ends = ends && !is_without_end(regions[i].name, sizeof regions[i].name);
            fpd.regions.push_back(region);
        }
        Outcome outcome = judge_names(card, fpd);
        if (!ends && outcome.verdict == Verdict::ok)
            outcome = {Verdict::note, outcome.result, "no end: the tool cuts it"};
        return outcome;
    });
}

void ask_capabilities(Reporter &reporter, const Card &card, const Region &region) {
    call<decltype(get_fpd_capability_info)>(
        reporter, "get_fpd_capability_info", region.name, [&](auto &get, Records &records) {
            char *const name = records.make<char>("name", region.name.size() + 1);
            region.name.copy(name, region.name.size());
            const uint32_t bits = get(name, card.board_type, card.hw_version);
            char text[16];
            std::snprintf(text, sizeof text, "0x%x", bits);
            const bool is_never = (bits & FPD_CAPABILITY_NO_AUTO_UPGRADE) != 0;
            const bool is_at_boot = (bits & FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE) != 0;
            const char *const remark = is_never ? "never upgraded" : is_at_boot ? "" : "not at boot, only with -b";
            return Outcome{*remark == '\0' ? Verdict::ok : Verdict::note, text, remark};
        });
}

bool is_version(unsigned major, unsigned debug) {
    return major <= UINT8_MAX && debug <= UINT8_MAX;
}

Outcome judge_info(const Card &card, const Region &region, const BrdFpdInfo &info) {
    const std::string name = text_in(info.name, sizeof info.name);
    const std::string result =
        fine("running " + version_text(info.running_major, info.running_minor, info.running_debug) + ", programmed " +
             version_text(info.programmed_major, info.programmed_minor, info.programmed_debug))
            .result;
    if (!is_version(info.running_major, info.running_debug) ||
        !is_version(info.programmed_major, info.programmed_debug)) {
        return {Verdict::fault, result, "beyond 255.65535.255: the tool cannot upgrade it"};
    }
    const std::string known = region.name.substr(0, sizeof info.name - 1);
    if (name != known && card.has_region(name)) return {Verdict::fault, result, "with the name of another: " + name};
    if (is_without_end(info.name, sizeof info.name)) return {Verdict::note, result, "no end: the tool cuts the name"};
    if (name != known) return {Verdict::note, result, "with another name, which the tool takes: " + name};
    return {Verdict::ok, result, ""};
}

void ask_info(Reporter &reporter, const Card &card, uint32_t id, Region &region) {
    call<decltype(brd_fpd_info_get)>(reporter, "brd_fpd_info_get", region.name, [&](auto &get, Records &records) {
        auto *const info = records.make<BrdFpdInfo>("info");
        char *const reason = records.make<char>("err_msg", reason_size);
        region.name.copy(info->name, sizeof info->name - 1);
        const int rc = get(card.group, id, region.index, info, reason, reason_size);
        if (rc != 0) return failed(rc, Verdict::fault, passed_over, reason);
        region.info = *info;
        region.has_info = true;
        return judge_info(card, region, *info);
    });
}

void find_fpds(Reporter &reporter, Card &card, bool whole) {
    const uint32_t count = count_objects<decltype(brd_group_fpd_num_fpds_get)>(reporter, "brd_group_fpd_num_fpds_get",
                                                                               card.group, no_plan);
    const std::vector<uint32_t> ids = list_objects<decltype(brd_group_fpd_obj_id_list_get)>(
        reporter, "brd_group_fpd_obj_id_list_get", card.group, count, no_plan);
    for (const uint32_t id : ids) {
        FpdObject fpd{.id = id, .regions = {}};
        name_regions(reporter, card, fpd, count_regions(reporter, card.group, id));
        card.fpds.push_back(std::move(fpd));
        if (!whole && !card.fpds.back().regions.empty()) return;
    }
}

// ---- images

Outcome judge_description(const Card &card, const FpdDesc &result) {
    const std::string dependency = text_in(result.dependency, sizeof result.dependency);
    const FpdVersion &version = result.packaged_version;
    std::string text = fine(version_text(version.major, version.minor, version.debug)).result;
    text += result.need_upgrade != 0 ? ", to be upgraded" : "";
    // Whatever it is, it is read as a text: here as there.
    if (result.status_msg != nullptr) text += ", \"" + std::string(result.status_msg) + "\"";
    const bool known_kind = version.kind == FPD_VERSION_NORMAL || version.kind == FPD_VERSION_NO_DEBUG ||
                            version.kind == FPD_VERSION_UNKNOWN;
    if (!known_kind)
        return {Verdict::note, text, "version of kind " + std::to_string(version.kind) + ", told as a plain one"};
    if (result.magic != FPD_DESC_MAGIC || result.version != FPD_DESC_VERSION) {
        return {Verdict::note, text, "the record's marks were changed; the tool does not look"};
    }
    if (!dependency.empty() && !card.has_region(dependency)) {
        return {Verdict::note, text, "depends on " + dependency + ", which the card does not have: refused"};
    }
    if (is_without_end(result.image, sizeof result.image) || is_without_end(result.md5, sizeof result.md5) ||
        is_without_end(result.dependency, sizeof result.dependency)) {
        return {Verdict::note, text, "a text without end: the tool cuts it"};
    }
    return {Verdict::ok, text, ""};
}

bool describe(Reporter &reporter, const Card &card, const Region &region, FpdDesc &description) {
    bool is_described = false;
    const std::string arguments = region.name + ", type " + std::to_string(asked_type(card));
    call<decltype(check_and_get_upgrade_image)>(reporter, "check_and_get_upgrade_image", arguments,
                                                [&](auto &get, Records &records) {
                                                    auto *const request = records.make<FpdDescRequest>("request");
                                                    auto *const result = records.make<FpdDesc>("result");
                                                    char *const reason = records.make<char>("err_msg", reason_size);
                                                    *request = description_request(card, region);
                                                    prepare(*result);
                                                    const int rc = get(request, result, reason, reason_size) & 0xff;
                                                    if (rc != 0) return failed(rc, Verdict::note, passed_over, reason);
                                                    is_described = true;
                                                    description = *result;
                                                    return judge_description(card, *result);
                                                });
    return is_described;
}

bool check_sum(Reporter &reporter, const FpdDesc &description) {
    bool is_right = false;
    const std::string image = text_in(description.image, sizeof description.image);
    call<decltype(brd_intf_fpd_image_md5_validate)>(
        reporter, "brd_intf_fpd_image_md5_validate", image, [&](auto &validate, Records &records) {
            char *const reason = records.make<char>("err_msg", reason_size);
            const std::string md5 = text_in(description.md5, sizeof description.md5);
            const int rc = validate(package_path, image.c_str(), md5.c_str(), reason, reason_size);
            is_right = rc == 0;
            return is_right ? fine() : failed(rc, Verdict::note, passed_over, reason);
        });
    return is_right;
}

// ---- settings

/// Stores what is stored.
template <class Get, class Set>
void store_again(Reporter &reporter, const char *get_name, const char *set_name) {
    auto *const get = closed_function<Get>(get_name);
    if (get == nullptr) return;
    call<Set>(reporter, set_name, "the stored value", [&](auto &set, Records &records) {
        auto *const value = records.make<int>("value");
        char *const reason = records.make<char>("err_msg", reason_size);
        if (get(value, reason, reason_size) != 0)
            return Outcome{Verdict::note, "not tried", "the value cannot be read"};
        std::memset(reason, 0, reason_size);
        const int rc = set(*value, reason, reason_size);
        return rc == 0 ? fine(std::to_string(*value))
                       : failed(rc, Verdict::fault, "the command that sets it fails", reason);
    });
}

struct Look {
    uint32_t color = 0;
    uint32_t state = 0;
    bool is_known = true;
};

template <class Function>
void read_look(Reporter &reporter, const char *name, const Card &card, uint32_t &value, bool &is_known) {
    const bool made = call<Function>(reporter, name, object("LED", card.status_led), [&](auto &get, Records &records) {
        auto *const given = records.make<uint32_t>("value");
        const int rc = get(card.group, card.status_led, given);
        value = *given;
        is_known = is_known && rc == 0;
        return rc == 0 ? fine(std::to_string(value)) : failed(rc, Verdict::note, still_upgrades);
    });
    is_known = is_known && made;
}

void show_look_again(Reporter &reporter, const Card &card) {
    if (card.status_led == 0) return;
    Look look;
    read_look<decltype(brd_led_current_color_get)>(reporter, "brd_led_current_color_get", card, look.color,
                                                   look.is_known);
    read_look<decltype(brd_led_current_state_get)>(reporter, "brd_led_current_state_get", card, look.state,
                                                   look.is_known);
    if (!look.is_known) return;
    call<decltype(brd_led_state_and_color_set)>(
        reporter, "brd_led_state_and_color_set", object("LED", card.status_led) + ", as it is",
        [&](auto &set, Records &) {
            const int rc = set(card.group, card.status_led, look.state, look.color);
            return rc == 0 ? fine() : failed(rc, Verdict::note, still_upgrades);
        });
}

// ---- the shell

struct Shell {
    int rc = -1;
    std::string output;
    std::size_t length = 0;
};

Shell run_shell(decltype(exec_shell_command) &run, Records &records, const std::string &command) {
    constexpr std::size_t size = 256;
    char *const output = records.make<char>("output", size);
    auto *const length = records.make<std::size_t>("output_len");
    char *const reason = records.make<char>("err_msg", reason_size);
    Shell shell;
    shell.rc = run(output, size, length, reason, reason_size, "%s", command.c_str());
    shell.output = text_in(output, size);
    shell.length = *length;
    return shell;
}

void run_good_command(Reporter &reporter) {
    call<decltype(exec_shell_command)>(reporter, "exec_shell_command", "printf abc", [](auto &run, Records &records) {
        const Shell shell = run_shell(run, records, "printf abc");
        if (shell.rc != 0) return failed(shell.rc, Verdict::fault, "no script is run");
        if (shell.output == "abc" && shell.length == 3) return fine("abc");
        return Outcome{Verdict::note, fine(shell.output + ", length " + std::to_string(shell.length)).result,
                       "the log shows no output"};
    });
}

void run_failing_command(Reporter &reporter) {
    call<decltype(exec_shell_command)>(reporter, "exec_shell_command", "exit 3", [](auto &run, Records &records) {
        const Shell shell = run_shell(run, records, "exit 3");
        if (shell.rc != 0) return Outcome{Verdict::ok, std::to_string(shell.rc), ""};
        return Outcome{Verdict::fault, "0", "a flash that is not mounted looks mounted"};
    });
}

void run_talkative_command(Reporter &reporter) {
    call<decltype(exec_shell_command)>(reporter, "exec_shell_command", "output beyond its room",
                                       [](auto &run, Records &records) {
                                           const Shell shell = run_shell(run, records, "printf %01000d 7");
                                           if (shell.rc != 0)
                                               return failed(shell.rc, Verdict::note, "such a script counts as failed");
                                           return fine(std::to_string(shell.output.size()) + " characters");
                                       });
}

/// A pipe whose ends commands reach by name.
struct NamedPipe {
    Descriptor reading;
    Descriptor writing;

    NamedPipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw system_error("a pipe", errno);
        reading = Descriptor(ends[0]);
        writing = Descriptor(ends[1]);
    }
    static std::string name(const Descriptor &end) {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(end.get());
    }
    void put() const { [[maybe_unused]] const ssize_t count = write(writing.get(), "x", 1); }
    void take() const {
        char byte = 0;
        [[maybe_unused]] const ssize_t count = read(reading.get(), &byte, 1);
    }
};

/// While the flash is mounted, which takes minutes, the watchdog has to be punched: a command that waits for another
/// one to be run, on another thread.
void run_two_commands(Reporter &reporter) {
    call<decltype(exec_shell_command)>(
        reporter, "exec_shell_command", "one command while another runs", [](auto &run, Records &records) {
            const NamedPipe started;
            const NamedPipe go;
            Records of_other;
            std::thread other([&] {
                const std::string tell = "printf x >" + NamedPipe::name(started.writing);
                run_shell(run, of_other, tell + "; head -c 1 <" + NamedPipe::name(go.reading));
                started.put();  // if it could not run
            });
            started.take();
            const Shell shell = run_shell(run, records, "printf x >" + NamedPipe::name(go.writing));
            if (shell.rc != 0) go.put();
            other.join();
            return shell.rc == 0 ? fine()
                                 : failed(shell.rc, Verdict::note, "it cannot write to a pipe of this process");
        });
}

}  // namespace

void look_at_card(const LibraryCheck &check, Reporter &reporter, Card &card, bool whole) {
    const FruHwData identity = read_identity();
    card.board_type = identity.board_type;
    card.hw_version = {FPD_VERSION_NORMAL, static_cast<uint8_t>(identity.hw_major),
                       static_cast<uint16_t>(identity.hw_minor), 0, 0};
    read_configuration(reporter);
    uint32_t handle = 0;
    register_identity(reporter, identity, handle);
    start_hardware(reporter, handle);
    find_group(check, reporter, card);
    find_status_led(reporter, card);
    read_mode(reporter, card);
    find_fpds(reporter, card, whole);
    if (!whole) return;
    for (FpdObject &fpd : card.fpds) {
        for (Region &region : fpd.regions) {
            ask_capabilities(reporter, card, region);
            ask_info(reporter, card, fpd.id, region);
        }
    }
}

bool look_at_image(Reporter &reporter, const Card &card, const Region &region, FpdDesc &description) {
    return describe(reporter, card, region, description) && check_sum(reporter, description);
}

void use_settings(Reporter &reporter, const Card &card) {
    show_look_again(reporter, card);
    store_again<decltype(brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config),
                decltype(brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config)>(
        reporter, "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config",
        "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config");
    store_again<decltype(brd_intf_fpd_upgrade_cookie_get_upgrade_mode),
                decltype(brd_intf_fpd_upgrade_cookie_set_upgrade_mode)>(
        reporter, "brd_intf_fpd_upgrade_cookie_get_upgrade_mode", "brd_intf_fpd_upgrade_cookie_set_upgrade_mode");
}

void use_shell(Reporter &reporter) {
    run_good_command(reporter);
    run_failing_command(reporter);
    run_talkative_command(reporter);
    run_two_commands(reporter);
}

}  // namespace cardsim
