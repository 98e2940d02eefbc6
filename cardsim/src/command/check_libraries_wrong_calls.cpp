/// Calls that a robust library refuses. Of what the tool itself never does they are good manners, so that accepting one
/// is a note; where the tool relies on the refusal, or hands in the size of a room, it is a fault.
#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "check_libraries_calls.h"

namespace cardsim {
namespace {

constexpr uint32_t unknown_object = 0x5a5a5a5a;
constexpr uint32_t other_group_bits = 0x5a5a0000;
constexpr const char *never_asked = "the tool never asks";
constexpr const char *another_sum = "00000000000000000000000000000000";
constexpr const char *no_file = "check-libraries-has-no-such-image";
constexpr std::size_t narrow = 4;  // bytes of a room that is too small

Outcome refusal(int result, Verdict when_accepted, const char *what_then) {
    if (result != 0) return {Verdict::ok, "refused: " + std::to_string(result), ""};
    return {when_accepted, "0", what_then};
}

/// A wrong call that the tool never makes.
Begun manners(const char *name, const char *arguments) {
    return {.call = name, .arguments = arguments, .when_it_dies = Verdict::note, .may_abort = true};
}

/// One on whose refusal the tool relies.
Begun needed(const char *name, const char *arguments) {
    return {.call = name, .arguments = arguments, .when_it_dies = Verdict::fault, .may_abort = true};
}

uint32_t other_group(const Card &card) {
    return card.group ^ other_group_bits;
}

const FpdObject *first_fpd(const Card &card) {
    return card.fpds.empty() || card.fpds.back().regions.empty() ? nullptr : &card.fpds.back();
}

std::string any_image() {
    std::error_code failure;
    for (const auto &entry : std::filesystem::directory_iterator(package_path, failure)) {
        if (entry.is_regular_file(failure)) return entry.path().filename();
    }
    return {};
}

using WrongCall = void (*)(Reporter &, const Card &);

void region_count_of_unknown_fpd(Reporter &reporter, const Card &card) {
    call<decltype(brd_fpd_num_regions_get)>(
        reporter, manners("brd_fpd_num_regions_get", "unknown FPD"), [&](auto &get, Records &records) {
            auto *const count = records.make<uint8_t>("num_regions");
            return refusal(get(card.group, unknown_object, count), Verdict::note, never_asked);
        });
}

template <class Function>
void in_other_group(Reporter &reporter, const Card &card, const char *name) {
    call<Function>(reporter, manners(name, "unknown group"), [&](auto &get, Records &records) {
        return refusal(get(other_group(card), records.make<uint32_t>("room for one")), Verdict::note, never_asked);
    });
}
void fpds_of_other_group(Reporter &reporter, const Card &card) {
    in_other_group<decltype(brd_group_fpd_num_fpds_get)>(reporter, card, "brd_group_fpd_num_fpds_get");
}
void fpd_ids_of_other_group(Reporter &reporter, const Card &card) {
    in_other_group<decltype(brd_group_fpd_obj_id_list_get)>(reporter, card, "brd_group_fpd_obj_id_list_get");
}
void leds_of_other_group(Reporter &reporter, const Card &card) {
    in_other_group<decltype(brd_group_led_num_leds_get)>(reporter, card, "brd_group_led_num_leds_get");
}
void led_ids_of_other_group(Reporter &reporter, const Card &card) {
    in_other_group<decltype(brd_group_led_obj_id_list_get)>(reporter, card, "brd_group_led_obj_id_list_get");
}

void regions_of_unknown_fpd(Reporter &reporter, const Card &card) {
    call<decltype(brd_fpd_regions_get)>(
        reporter, manners("brd_fpd_regions_get", "unknown FPD"), [&](auto &get, Records &records) {
            auto *const regions = records.make<BrdFpdRegion>("regions");
            return refusal(get(card.group, unknown_object, regions, 1), Verdict::note, never_asked);
        });
}

void regions_into_too_little(Reporter &reporter, const Card &card) {
    const FpdObject *const fpd = first_fpd(card);
    if (fpd == nullptr || fpd->regions.size() < 2) return;
    call<decltype(brd_fpd_regions_get)>(reporter, needed("brd_fpd_regions_get", "room for one less"),
                                        [&](auto &get, Records &records) {
                                            const auto less = static_cast<uint8_t>(fpd->regions.size() - 1);
                                            auto *const regions = records.make<BrdFpdRegion>("regions", less);
                                            return refusal(get(card.group, fpd->id, regions, less), Verdict::ok, "");
                                        });
}

void info_of_unknown_fpd(Reporter &reporter, const Card &card) {
    call<decltype(brd_fpd_info_get)>(
        reporter, manners("brd_fpd_info_get", "unknown FPD"), [&](auto &get, Records &records) {
            auto *const info = records.make<BrdFpdInfo>("info");
            char *const reason = records.make<char>("err_msg", reason_size);
            return refusal(get(card.group, unknown_object, 0, info, reason, reason_size), Verdict::note, never_asked);
        });
}

/// The region after the last.
void info_beyond(Reporter &reporter, const Card &card, const Begun &begun, std::size_t room) {
    const FpdObject *const fpd = first_fpd(card);
    if (fpd == nullptr) return;
    call<decltype(brd_fpd_info_get)>(reporter, begun, [&](auto &get, Records &records) {
        auto *const info = records.make<BrdFpdInfo>("info");
        char *const reason = records.make<char>("err_msg", room);
        const auto beyond = static_cast<uint8_t>(fpd->regions.size());
        return refusal(get(card.group, fpd->id, beyond, info, reason, room), Verdict::note, never_asked);
    });
}
void info_of_unknown_region(Reporter &reporter, const Card &card) {
    info_beyond(reporter, card, manners("brd_fpd_info_get", "region out of range"), reason_size);
}
void info_with_little_room(Reporter &reporter, const Card &card) {
    info_beyond(reporter, card, needed("brd_fpd_info_get", "region out of range, err_len 4"), narrow);
}

void info_without_room(Reporter &reporter, const Card &card) {
    const FpdObject *const fpd = first_fpd(card);
    if (fpd == nullptr) return;
    call<decltype(brd_fpd_info_get)>(
        reporter, manners("brd_fpd_info_get", "no err_msg"), [&](auto &get, Records &records) {
            return Outcome{Verdict::ok,
                           std::to_string(get(card.group, fpd->id, 0, records.make<BrdFpdInfo>("info"), nullptr, 0)),
                           ""};
        });
}

void type_of_unknown_led(Reporter &reporter, const Card &card) {
    call<decltype(brd_led_type_get)>(
        reporter, manners("brd_led_type_get", "unknown LED"), [&](auto &get, Records &records) {
            return refusal(get(card.group, unknown_object, records.make<uint32_t>("type")), Verdict::note, never_asked);
        });
}

void color_of_unknown_led(Reporter &reporter, const Card &card) {
    call<decltype(brd_led_current_color_get)>(
        reporter, manners("brd_led_current_color_get", "unknown LED"), [&](auto &get, Records &records) {
            return refusal(get(card.group, unknown_object, records.make<uint32_t>("color")), Verdict::note,
                           never_asked);
        });
}

void led_name_into_too_little(Reporter &reporter, const Card &card) {
    if (card.status_led == 0) return;
    call<decltype(brd_led_name_get)>(reporter, needed("brd_led_name_get", "size 4"), [&](auto &get, Records &records) {
        return refusal(get(card.group, card.status_led, records.make<char>("name", narrow), narrow), Verdict::ok, "");
    });
}

void capabilities_of_unknown_fpd(Reporter &reporter, const Card &card) {
    call<decltype(get_fpd_capability_info)>(
        reporter, manners("get_fpd_capability_info", "unknown FPD"), [&](auto &get, Records &) {
            return Outcome{Verdict::ok, std::to_string(get("NoSuchFpd", card.board_type, card.hw_version)), ""};
        });
}

void description_of(Reporter &reporter, const Card &card, const Begun &begun, uint32_t magic, std::size_t room) {
    call<decltype(check_and_get_upgrade_image)>(reporter, begun, [&](auto &get, Records &records) {
        auto *const request = records.make<FpdDescRequest>("request");
        auto *const result = records.make<FpdDesc>("result");
        char *const reason = records.make<char>("err_msg", room);
        Region unknown;
        unknown.name = "NoSuchFpd";
        *request = description_request(card, unknown);
        prepare(*result);
        request->magic = magic;
        return refusal(get(request, result, reason, room) & 0xff, Verdict::note, "an image for what it does not know");
    });
}
void description_of_unknown_fpd(Reporter &reporter, const Card &card) {
    description_of(reporter, card, manners("check_and_get_upgrade_image", "unknown FPD"), FPD_DESC_MAGIC, reason_size);
}
void description_with_little_room(Reporter &reporter, const Card &card) {
    description_of(reporter, card, needed("check_and_get_upgrade_image", "unknown FPD, err_len 4"), FPD_DESC_MAGIC,
                   narrow);
}
void description_without_marks(Reporter &reporter, const Card &card) {
    description_of(reporter, card, manners("check_and_get_upgrade_image", "wrong magic"), ~FPD_DESC_MAGIC, reason_size);
}

void wrong_sum(Reporter &reporter, const std::string &image, const Begun &begun, std::size_t room,
               const char *what_then) {
    if (image.empty()) return;
    call<decltype(brd_intf_fpd_image_md5_validate)>(reporter, begun, [&](auto &validate, Records &records) {
        char *const reason = records.make<char>("err_msg", room);
        return refusal(validate(package_path, image.c_str(), another_sum, reason, room), Verdict::fault, what_then);
    });
}
void sum_of_another(Reporter &reporter, const Card &) {
    wrong_sum(reporter, any_image(), needed("brd_intf_fpd_image_md5_validate", "another sum"), reason_size,
              "a broken image is programmed");
}
void sum_of_no_file(Reporter &reporter, const Card &) {
    wrong_sum(reporter, no_file, needed("brd_intf_fpd_image_md5_validate", "no such file"), reason_size,
              "an upgrade without an image is planned");
}
void sum_with_little_room(Reporter &reporter, const Card &) {
    wrong_sum(reporter, no_file, needed("brd_intf_fpd_image_md5_validate", "no such file, err_len 4"), narrow,
              "an upgrade without an image is planned");
}

void shell_in_narrow_rooms(Reporter &reporter, const char *arguments, const char *command, std::size_t output_room,
                           std::size_t reason_room) {
    call<decltype(exec_shell_command)>(
        reporter, needed("exec_shell_command", arguments), [&](auto &run, Records &records) {
            char *const output = records.make<char>("output", output_room);
            char *const reason = records.make<char>("err_msg", reason_room);
            auto *const length = records.make<std::size_t>("output_len");
            const int rc = run(output, output_room, length, reason, reason_room, "%s", command);
            return Outcome{Verdict::ok, std::to_string(rc), ""};
        });
}
void shell_with_little_output(Reporter &reporter, const Card &) {
    shell_in_narrow_rooms(reporter, "output_size 4", "printf 0123456789", narrow, reason_size);
}
void shell_with_little_reason(Reporter &reporter, const Card &) {
    shell_in_narrow_rooms(reporter, "a command that fails, err_len 4", "exit 3", reason_size, narrow);
}

void mode_without_room(Reporter &reporter, const Card &) {
    call<decltype(brd_intf_fpd_upgrade_cookie_get_upgrade_mode)>(
        reporter, manners("brd_intf_fpd_upgrade_cookie_get_upgrade_mode", "no err_msg"),
        [](auto &get, Records &records) {
            return Outcome{Verdict::ok, std::to_string(get(records.make<int>("mode"), nullptr, 0)), ""};
        });
}

constexpr auto wrong_calls = std::to_array<WrongCall>({
    fpds_of_other_group,
    fpd_ids_of_other_group,
    region_count_of_unknown_fpd,
    regions_of_unknown_fpd,
    regions_into_too_little,
    info_of_unknown_fpd,
    info_of_unknown_region,
    info_with_little_room,
    info_without_room,
    leds_of_other_group,
    led_ids_of_other_group,
    type_of_unknown_led,
    color_of_unknown_led,
    led_name_into_too_little,
    capabilities_of_unknown_fpd,
    description_of_unknown_fpd,
    description_with_little_room,
    description_without_marks,
    sum_of_another,
    sum_of_no_file,
    sum_with_little_room,
    shell_with_little_output,
    shell_with_little_reason,
    mode_without_room,
});

}  // namespace

bool make_wrong_call(Reporter &reporter, const Card &card, unsigned number) {
    if (number >= wrong_calls.size()) return false;
    wrong_calls.at(number)(reporter, card);
    return true;
}

}  // namespace cardsim
