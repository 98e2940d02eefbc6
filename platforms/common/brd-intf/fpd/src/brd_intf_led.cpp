#include "brd_intf_led.h"

#include <strings.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "brd_platform_access.h"
#include "card_libraries.h"
#include "fpd_log.h"
#include "os_owner.h"

namespace {

constexpr LogModule here{"LED", __FILE__};

constexpr std::uint32_t status_led_type = 1;
constexpr const char *status_led_name = "Status";

// Indexed by value; 0 and what lies beyond the tables is unknown.
constexpr std::array<const char *, 4> state_names = {"'Unknown'", "'OFF'", "'STEADY'", "'BLINK'"};
constexpr std::array<const char *, 6> color_names = {"'Unknown'", "'RED'", "'GREEN'", "'BLUE'", "'AMBER'", "'YELLOW'"};

/// This layer and the platform library number alike, so one conversion serves both directions.
constexpr std::uint32_t known_state(std::uint32_t value) {
    return value < state_names.size() ? value : 0;
}
constexpr std::uint32_t known_color(std::uint32_t value) {
    return value < color_names.size() ? value : 0;
}

/// Sets *found when this LED is the status LED. 0, or the platform library's code.
int look_at_led(std::uint32_t group_id, std::uint32_t obj_id, bool *found, char *err_msg, std::size_t err_len) {
    std::uint32_t type = 0;
    int rc = brd_led_type_get(group_id, obj_id, &type);
    if (rc != 0)
        return fail({here, "LedObjTypeGetFail"}, rc, err_msg, err_len, "Failed to get led_type from obj_id, rc:%d", rc);
    if (type != status_led_type) return 0;
    LedName name;
    rc = card_led_name_get(group_id, obj_id, name);
    if (rc != 0)
        return fail({here, "LedObjNameGetFail"}, rc, err_msg, err_len, "Failed to get led_name from obj_id, rc:%d", rc);
    *found = strcasecmp(name, status_led_name) == 0;
    return 0;
}

}  // namespace

const char *led_state_name(LedState state) {
    return state_names[known_state(static_cast<std::uint32_t>(state))];
}

const char *led_color_name(LedColor color) {
    return color_names[known_color(static_cast<std::uint32_t>(color))];
}

int led_group_init(std::uint32_t group_id, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const int rc = brd_group_led_init(group_id);
    // A card whose LEDs cannot be prepared is upgraded all the same.
    if (rc != 0) fail_unlogged(rc, err_msg, err_len, "Group LED Feature init failed rc: %d", rc);
    return 0;
}

int led_status_obj_id_get(std::uint32_t group_id, std::uint32_t *obj_id, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    *obj_id = 0;
    std::uint32_t count = 0;
    int rc = brd_group_led_num_leds_get(group_id, &count);
    if (rc != 0)
        return fail({here, "NumLedGetFail"}, -EINVAL, err_msg, err_len, "Failed to get number of LEDs for group rc %d",
                    rc);
    const Allocated<std::uint32_t> ids(
        static_cast<std::uint32_t *>(std::calloc(count ? count : 1, sizeof(std::uint32_t))));
    if (!ids)
        return fail({here, "LedObjMemoryAllocFail"}, -ENOMEM, err_msg, err_len,
                    "Failed to allocated memory for LED object error %s", std::strerror(errno));
    rc = brd_group_led_obj_id_list_get(group_id, ids.get());
    if (rc != 0) return fail({here, "LedObjGetFail"}, rc, err_msg, err_len, "Failed to get led_obj_id_list, rc:%d", rc);
    for (std::uint32_t i = 0; i < count; ++i) {
        bool found = false;
        rc = look_at_led(group_id, ids.get()[i], &found, err_msg, err_len);
        if (rc != 0) return rc;
        if (!found) continue;
        *obj_id = ids.get()[i];
        return *obj_id != 0 ? 0 : -ENOENT;
    }
    return -ENOENT;
}

int led_state_and_color_get(std::uint32_t group_id, std::uint32_t obj_id, LedState *state, LedColor *color,
                            char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (!state || !color)
        return fail({here, "GetLedStateAndColorInvalArg"}, -EINVAL, err_msg, err_len,
                    "Invalid argument state_p %p color_p %p", static_cast<const void *>(state),
                    static_cast<const void *>(color));
    std::uint32_t platform_color = 0;
    int rc = brd_led_current_color_get(group_id, obj_id, &platform_color);
    if (rc != 0)
        return fail({here, "GetLedColorFailed"}, -ENOSYS, err_msg, err_len, "Getting LED color failed rc:%d", rc);
    std::uint32_t platform_state = 0;
    rc = brd_led_current_state_get(group_id, obj_id, &platform_state);
    if (rc != 0)
        return fail({here, "GetLedStateFailed"}, -ENOSYS, err_msg, err_len, "Getting LED state failed rc:%d", rc);
    *state = static_cast<LedState>(known_state(platform_state));
    *color = static_cast<LedColor>(known_color(platform_color));
    log_info({here, "GetLedStateAndColor"}, "LED State %s and Color %s", led_state_name(*state),
             led_color_name(*color));
    return 0;
}

int led_state_and_color_set(std::uint32_t group_id, std::uint32_t obj_id, LedState state, LedColor color, char *err_msg,
                            std::size_t err_len) {
    clear_error(err_msg, err_len);
    log_info({here, "SetLedStateAndColor"}, "Setting LED State %s and Color %s", led_state_name(state),
             led_color_name(color));
    const int rc = brd_led_state_and_color_set(group_id, obj_id, known_state(static_cast<std::uint32_t>(state)),
                                               known_color(static_cast<std::uint32_t>(color)));
    if (rc != 0)
        return fail({here, "SetLedStateAndColorFailed"}, -ENOSYS, err_msg, err_len,
                    "Setting LED state and color failed rc:%d", rc);
    return 0;
}
