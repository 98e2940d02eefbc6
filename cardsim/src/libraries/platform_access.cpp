#include "brd_platform_access.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "card.h"
#include "region_upgrade.h"

using namespace cardsim;

static_assert(sizeof(BrdFpdRegion) == 104);
static_assert(sizeof(BrdFpdInfo) == 256);
static_assert(sizeof(BrdFpdUpgradeRequest) == 600);
static_assert(sizeof(FruHwData) == 104);

namespace {

/// What brd_fru_hw_data_init hands out and brd_fru_hw_init wants back; any number that nobody makes up.
constexpr uint32_t identity_handle = 0x1d0c0de5;

std::string fpd_arguments(uint32_t group_id, uint32_t obj_id) {
    return formatted("group=%u obj=%u", group_id, obj_id);
}

std::string region_arguments(uint32_t group_id, uint32_t obj_id, uint8_t region) {
    return fpd_arguments(group_id, obj_id) + formatted(" region=%d", region);
}

void require_hardware(const Call &call) {
    bool is_started = false;
    {
        const std::lock_guard guard(call.card.lock);
        is_started = call.card.hardware_started;
    }
    require(call, is_started, "called before the hardware layer was started");
}

const FpdDescription &required_fpd(const Call &call, uint32_t group_id, uint32_t obj_id) {
    require_hardware(call);
    require_group(call, group_id);
    const auto &fpds = call.card.description.fpds;
    const auto found =
        std::find_if(fpds.begin(), fpds.end(), [&](const FpdDescription &fpd) { return fpd.id == obj_id; });
    require(call, found != fpds.end(), formatted("unknown FPD object %u", obj_id));
    return *found;
}

const RegionDescription &required_region(const Call &call, uint32_t group_id, uint32_t obj_id, uint8_t region) {
    const FpdDescription &fpd = required_fpd(call, group_id, obj_id);
    require(call, region < fpd.regions.size(), formatted("FPD object %u has no region %d", obj_id, region));
    return fpd.regions[region];
}

const LedDescription &required_led(const Call &call, uint32_t group_id, uint32_t obj_id) {
    require_group(call, group_id);
    const auto &leds = call.card.description.leds;
    const auto found =
        std::find_if(leds.begin(), leds.end(), [&](const LedDescription &led) { return led.id == obj_id; });
    require(call, found != leds.end(), formatted("unknown LED object %u", obj_id));
    return *found;
}

LedState led_state(const Call &call, uint32_t obj_id) {
    CardState state = state_of(call);
    return *find_led(state, obj_id);
}

/// What the library does not fill in is still as the caller must hand it in.
void require_clean_info(const Call &call, const BrdFpdInfo &info) {
    require_zero(call, "info: reserved79", info.reserved79, sizeof info.reserved79);
    require_zero(call, "info: reserved83", info.reserved83, sizeof info.reserved83);
}

void fill_info(const RegionDescription &region, const RegionState &state, BrdFpdInfo &info) {
    info = {};
    write_text(info.name, sizeof info.name, region.name);
    info.running_major = state.running.major;
    info.running_minor = state.running.minor;
    info.running_debug = state.running.debug;
    info.programmed_major = state.programmed.major;
    info.programmed_minor = state.programmed.minor;
    info.programmed_debug = state.programmed.debug;
    info.upgrade_type = region.upgrade_type;
    info.activation_kind = region.activation;
    info.initial_seq = region.sequence;
    info.info_flag = region.info_flag;
}

bool is_directory(const std::string &path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool is_regular_file(const std::string &path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

void require_upgrade_request(const Call &call, const BrdFpdUpgradeRequest &request) {
    require_zero(call, "request: reserved1", request.reserved1, sizeof request.reserved1);
    require_zero(call, "request: reserved536", request.reserved536, sizeof request.reserved536);
    require(call, request.progress != nullptr, "request: no progress callback");
    require_clean_text(call, "request: directory", request.directory, sizeof request.directory);
    require_clean_text(call, "request: file_name", request.file_name, sizeof request.file_name);
    require(call, is_directory(request.directory), "request: no directory " + quoted(request.directory));
    require(call, std::strchr(request.file_name, '/') == nullptr, "request: file_name holds a '/'");
    require(call, is_regular_file(std::string(request.directory) + "/" + request.file_name),
            "request: no file " + quoted(request.file_name) + " in " + quoted(request.directory));
}

const ImageDescription &required_image(const Call &call, const RegionDescription &region, const std::string &file) {
    const auto found = std::find_if(region.images.begin(), region.images.end(),
                                    [&](const ImageDescription &image) { return image.file == file; });
    require(call, found != region.images.end(), quoted(file) + " is not packaged for " + quoted(region.name));
    return *found;
}

void require_upgradeable(const Call &call, const RegionDescription &region) {
    require(call, region.upgrade_type == 1 || region.upgrade_type == 5,
            quoted(region.name) + formatted(" is of upgrade type %d and cannot be upgraded", region.upgrade_type));
}

void require_identity(const Call &call, const FruHwData &data) {
    const CardDescription &card = call.card.description;
    const bool is_known_type = data.group_type == 3 || data.group_type == 4 || data.group_type == 15;
    require(call, is_known_type, formatted("data: unknown group type %u", data.group_type));
    require(call, data.hw_major == card.hw_major && data.hw_minor == card.hw_minor,
            formatted("data: hardware version %u.%u is not the card's", data.hw_major, data.hw_minor));
    require(call, data.pd_slot_num == card.slot, formatted("data: slot %u is not the card's", data.pd_slot_num));
    require_clean_text(call, "data: card_pid", data.card_pid, sizeof data.card_pid);
    require(call, data.card_pid == card.pid, "data: PID " + quoted(data.card_pid) + " is not the card's");
    require(call, data.board_type == card.board_type,
            formatted("data: board type %u is not the card's", data.board_type));
    require_zero(call, "data: reserved84", data.reserved84, sizeof data.reserved84);
    require(call, data.valid == 1, formatted("data: valid is %d", data.valid));
    require_zero(call, "data: reserved97", data.reserved97, sizeof data.reserved97);
}

/// Remembers that the identity is known; whether it was before.
bool register_identity(Card &card) {
    const std::lock_guard guard(card.lock);
    return std::exchange(card.identity_registered, true);
}

}  // namespace

CARDSIM_EXPORT int brd_sb_attribute_flag_set(int value) {
    Call call("brd_sb_attribute_flag_set", Callers::OneThread);
    call.arguments = formatted("value=%d", value);
    require(call, value == 1 || value == 2, formatted("unknown value %d", value));
    return call.answer([] {});
}

CARDSIM_EXPORT int brd_local_card_group_id_get(uint32_t *group_id) {
    Call call("brd_local_card_group_id_get", Callers::OneThread);
    require(call, group_id != nullptr, "no place for the group");
    return call.answer([&] { *group_id = call.card.description.group; });
}

CARDSIM_EXPORT int brd_group_fpd_num_fpds_get(uint32_t group_id, uint32_t *count) {
    Call call("brd_group_fpd_num_fpds_get", Callers::OneThread);
    call.arguments = formatted("group=%u", group_id);
    require(call, count != nullptr, "no place for the count");
    require_hardware(call);
    require_group(call, group_id);
    return call.answer([&] { *count = static_cast<uint32_t>(call.card.description.fpds.size()); });
}

CARDSIM_EXPORT int brd_group_fpd_obj_id_list_get(uint32_t group_id, uint32_t *ids) {
    Call call("brd_group_fpd_obj_id_list_get", Callers::OneThread);
    call.arguments = formatted("group=%u", group_id);
    require(call, ids != nullptr, "no room for the ids");
    require_hardware(call);
    require_group(call, group_id);
    return call.answer([&] {
        for (const FpdDescription &fpd : call.card.description.fpds) {
            *ids++ = fpd.id;
        }
    });
}

CARDSIM_EXPORT int brd_fpd_num_regions_get(uint32_t group_id, uint32_t obj_id, uint8_t *num_regions) {
    Call call("brd_fpd_num_regions_get", Callers::OneThread);
    call.arguments = fpd_arguments(group_id, obj_id);
    require(call, num_regions != nullptr, "no place for the count");
    const FpdDescription &fpd = required_fpd(call, group_id, obj_id);
    return call.answer([&] { *num_regions = static_cast<uint8_t>(fpd.regions.size()); });
}

CARDSIM_EXPORT int brd_fpd_regions_get(uint32_t group_id, uint32_t obj_id, BrdFpdRegion *regions, uint8_t num_regions) {
    Call call("brd_fpd_regions_get", Callers::OneThread);
    call.arguments = fpd_arguments(group_id, obj_id) + formatted(" num_regions=%d", num_regions);
    require(call, regions != nullptr, "no room for the regions");
    const FpdDescription &fpd = required_fpd(call, group_id, obj_id);
    require(call, num_regions == fpd.regions.size(),
            formatted("asked for %d regions of %zu", num_regions, fpd.regions.size()));
    require_zero(call, "regions", regions, num_regions * sizeof *regions);
    return call.answer([&] {
        for (const RegionDescription &region : fpd.regions) {
            write_text(regions->name, sizeof regions->name, region.name);
            ++regions;
        }
    });
}

CARDSIM_EXPORT int brd_fpd_info_get(uint32_t group_id, uint32_t obj_id, uint8_t region, BrdFpdInfo *info, char *err_msg,
                                    size_t err_len) {
    Call call("brd_fpd_info_get", Callers::OneThread);
    call.arguments = region_arguments(group_id, obj_id, region);
    require(call, info != nullptr, "no room for the information");
    require_error_buffer(call, err_msg, err_len);
    const RegionDescription &described = required_region(call, group_id, obj_id, region);
    require_clean_info(call, *info);
    return call.answer(
        [&] {
            const CardState state = state_of(call);
            fill_info(described, *find_region(state, obj_id, region), *info);
        },
        err_msg, err_len);
}

CARDSIM_EXPORT int brd_fpd_upgrade(uint32_t group_id, uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg,
                                   size_t err_len) {
    Call call("brd_fpd_upgrade", Callers::AnyThread);
    require(call, request != nullptr, "no request");
    require_error_buffer(call, err_msg, err_len);
    const RegionDescription &region = required_region(call, group_id, obj_id, request->region);
    require_upgrade_request(call, *request);
    require_upgradeable(call, region);
    const ImageDescription &image = required_image(call, region, request->file_name);
    call.arguments = region_arguments(group_id, obj_id, request->region) + " directory=" + quoted(request->directory) +
                     " file=" + quoted(request->file_name);
    call.begin();
    return call.answer([&] { upgrade_region(call, {obj_id, region, image, *request}); }, err_msg, err_len);
}

CARDSIM_EXPORT int brd_group_led_init(uint32_t group_id) {
    Call call("brd_group_led_init", Callers::OneThread);
    call.arguments = formatted("group=%u", group_id);
    require_group(call, group_id);
    return call.answer([] {});
}

CARDSIM_EXPORT int brd_group_led_num_leds_get(uint32_t group_id, uint32_t *count) {
    Call call("brd_group_led_num_leds_get", Callers::OneThread);
    call.arguments = formatted("group=%u", group_id);
    require(call, count != nullptr, "no place for the count");
    require_group(call, group_id);
    return call.answer([&] { *count = static_cast<uint32_t>(call.card.description.leds.size()); });
}

CARDSIM_EXPORT int brd_group_led_obj_id_list_get(uint32_t group_id, uint32_t *ids) {
    Call call("brd_group_led_obj_id_list_get", Callers::OneThread);
    call.arguments = formatted("group=%u", group_id);
    require(call, ids != nullptr, "no room for the ids");
    require_group(call, group_id);
    return call.answer([&] {
        for (const LedDescription &led : call.card.description.leds) {
            *ids++ = led.id;
        }
    });
}

CARDSIM_EXPORT int brd_led_type_get(uint32_t group_id, uint32_t obj_id, uint32_t *type) {
    Call call("brd_led_type_get", Callers::OneThread);
    call.arguments = fpd_arguments(group_id, obj_id);
    require(call, type != nullptr, "no place for the type");
    const LedDescription &led = required_led(call, group_id, obj_id);
    return call.answer([&] { *type = led.type; });
}

CARDSIM_EXPORT int brd_led_name_get(uint32_t group_id, uint32_t obj_id, char *name, size_t size) {
    Call call("brd_led_name_get", Callers::OneThread);
    call.arguments = fpd_arguments(group_id, obj_id) + formatted(" size=%zu", size);
    require(call, name != nullptr && size > 0, "no room for the name");
    const LedDescription &led = required_led(call, group_id, obj_id);
    return call.answer([&] { write_text(name, size, led.name); });
}

CARDSIM_EXPORT int brd_led_current_color_get(uint32_t group_id, uint32_t obj_id, uint32_t *color) {
    Call call("brd_led_current_color_get", Callers::OneThread);
    call.arguments = fpd_arguments(group_id, obj_id);
    require(call, color != nullptr, "no place for the color");
    required_led(call, group_id, obj_id);
    return call.answer([&] { *color = led_state(call, obj_id).color; });
}

CARDSIM_EXPORT int brd_led_current_state_get(uint32_t group_id, uint32_t obj_id, uint32_t *state) {
    Call call("brd_led_current_state_get", Callers::OneThread);
    call.arguments = fpd_arguments(group_id, obj_id);
    require(call, state != nullptr, "no place for the state");
    required_led(call, group_id, obj_id);
    return call.answer([&] { *state = led_state(call, obj_id).state; });
}

CARDSIM_EXPORT int brd_led_state_and_color_set(uint32_t group_id, uint32_t obj_id, uint32_t state, uint32_t color) {
    Call call("brd_led_state_and_color_set", Callers::OneThread);
    call.arguments = fpd_arguments(group_id, obj_id) + formatted(" state=%u color=%u", state, color);
    required_led(call, group_id, obj_id);
    return call.answer([&] {
        change_state(call, [&](CardState &saved) {
            LedState &led = *find_led(saved, obj_id);
            led.state = state;
            led.color = color;
        });
    });
}

CARDSIM_EXPORT int brd_fru_hw_data_init(uint32_t reserved1, uint32_t reserved2, FruHwData *data, uint32_t *handle) {
    Call call("brd_fru_hw_data_init", Callers::OneThread);
    require(call, reserved1 == 0 && reserved2 == 0, "a reserved argument is not 0");
    require(call, data != nullptr, "no data");
    require(call, handle != nullptr, "no place for the handle");
    require_identity(call, *data);
    call.arguments = formatted("group_type=%u hw=%u.%u slot=%u pid=%s board_type=%u", data->group_type, data->hw_major,
                               data->hw_minor, data->pd_slot_num, quoted(data->card_pid).c_str(), data->board_type);
    const CallFault *fault = fault_of(call);
    if (fault != nullptr && fault->code != BRD_FRU_HW_DATA_PRESENT) {
        return call.end(static_cast<int>(fault->code));
    }
    // A card may say that it knew the identity already: a success by another name.
    const bool is_present = register_identity(call.card) || fault != nullptr;
    *handle = identity_handle;
    return call.end(is_present ? BRD_FRU_HW_DATA_PRESENT : 0);
}

CARDSIM_EXPORT int brd_fru_hw_init(uint32_t handle) {
    Call call("brd_fru_hw_init", Callers::OneThread);
    call.arguments = formatted("handle=0x%x", handle);
    bool is_registered = false;
    {
        const std::lock_guard guard(call.card.lock);
        is_registered = call.card.identity_registered;
    }
    require(call, is_registered, "called before the card's identity was registered");
    require(call, handle == identity_handle, formatted("unknown handle 0x%x", handle));
    return call.answer([&] {
        const std::lock_guard guard(call.card.lock);
        call.card.hardware_started = true;
    });
}
