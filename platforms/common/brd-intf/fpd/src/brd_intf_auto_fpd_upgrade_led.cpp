#include "brd_intf_auto_fpd_upgrade_led.h"

#include <cerrno>

#include "brd_intf_led.h"
#include "fpd_log.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

/// What the process knows of the LED.
struct UpgradeLed {
    bool group_initialised = false;
    UpgLedRequest last_request = UpgLedRequest::upgrade_ended;  // applied
    LedState saved_state = LedState::unknown;                   // read just before the upgrade began
    LedColor saved_color = LedColor::unknown;
};

UpgradeLed led;

struct LedLook {
    LedState state;
    LedColor color;
};

constexpr LedLook upgrading{LedState::blink, LedColor::green};

void log_current_look(std::uint32_t group_id, std::uint32_t obj_id, char *err_msg, std::size_t err_len) {
    LedLook now{};
    if (led_state_and_color_get(group_id, obj_id, &now.state, &now.color, err_msg, err_len) != 0)
        log_error({here, "BrdIntfLedStateColorGetFail"}, "BRD LED state and color get failed error %s", err_msg);
    else
        log_debug({here, "BrdIntfLedStateColorGet"}, "Current LED state %s and color %s", led_state_name(now.state),
                  led_color_name(now.color));
}

void save_look(std::uint32_t group_id, std::uint32_t obj_id, char *err_msg, std::size_t err_len) {
    if (led_state_and_color_get(group_id, obj_id, &led.saved_state, &led.saved_color, err_msg, err_len) != 0)
        log_error({here, "BrdIntfOrgLedStateColorGetFail"}, "BRD LED state and color get failed error %s", err_msg);
    else
        log_info({here, "BrdIntfLedStateColorGet2"}, "Original LED state %s and color %s",
                 led_state_name(led.saved_state), led_color_name(led.saved_color));
}

}  // namespace

int upg_led_init(std::uint32_t group_id, std::uint32_t *obj_id, char *err_msg, std::size_t err_len) {
    if (!led.group_initialised) {
        if (led_group_init(group_id, err_msg, err_len) != 0)
            return pass_on({here, "LedGroupInitFail"}, -EACCES, "BRD LED Group Init failed error %s", err_msg);
        led.group_initialised = true;
    }
    if (led_status_obj_id_get(group_id, obj_id, err_msg, err_len) != 0)
        return pass_on({here, "GetLedObjIdFail"}, -EACCES, "BRD status LED Object id get failed error %s", err_msg);
    return 0;
}

int upg_led_notify(std::uint32_t group_id, std::uint32_t obj_id, UpgLedRequest request, char *err_msg,
                   std::size_t err_len) {
    if (group_id == 0 || obj_id == 0)
        return fail({here, "BrdIntfLenInvalidObjId"}, -EINVAL, err_msg, err_len,
                    "Does not have valid Group id %d obj id %d to send LED state", static_cast<int>(group_id),
                    static_cast<int>(obj_id));
    if (request == led.last_request) {
        log_current_look(group_id, obj_id, err_msg, err_len);
        return 0;
    }
    LedLook look{LedState::unknown, LedColor::unknown};
    if (request == UpgLedRequest::upgrade_started) {
        save_look(group_id, obj_id, err_msg, err_len);
        look = upgrading;
    } else if (request == UpgLedRequest::upgrade_ended) {
        look = {led.saved_state, led.saved_color};
    }
    if (led_state_and_color_set(group_id, obj_id, look.state, look.color, err_msg, err_len) != 0)
        return pass_on({here, "BrdIntfLedStateColorSetFail"}, -EACCES, "BRD LED state and color get failed error %s",
                       err_msg);
    led.last_request = request;
    return 0;
}
