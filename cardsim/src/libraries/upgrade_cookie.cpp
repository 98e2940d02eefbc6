#include "fpd_upgrade_cookie.h"

#include <cerrno>

#include "card.h"

using namespace cardsim;

namespace {

/// Reads one of the stored settings.
int get_setting(Call &call, int CardState::*setting, int *value, char *err_msg, size_t err_len) {
    require(call, value != nullptr, "no place for the value");
    require_error_buffer(call, err_msg, err_len);
    return call.answer([&] { *value = state_of(call).*setting; }, err_msg, err_len);
}

/// Stores one of the settings, which is at most `most`.
int set_setting(Call &call, int CardState::*setting, int value, int most, char *err_msg, size_t err_len) {
    call.arguments = formatted("value=%d", value);
    require_error_buffer(call, err_msg, err_len);
    const auto store = [&] {
        if (value < 0 || value > most) {
            throw Error(formatted("%d is not a value from 0 to %d", value, most), EINVAL);
        }
        change_state(call, [&](CardState &state) { state.*setting = value; });
    };
    return call.answer(store, err_msg, err_len);
}

}  // namespace

CARDSIM_EXPORT int brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(int *value, char *err_msg, size_t err_len) {
    Call call("brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config", Callers::OneThread);
    return get_setting(call, &CardState::auto_upgrade, value, err_msg, err_len);
}

CARDSIM_EXPORT int brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(int value, char *err_msg, size_t err_len) {
    Call call("brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config", Callers::OneThread);
    return set_setting(call, &CardState::auto_upgrade, value, 1, err_msg, err_len);
}

CARDSIM_EXPORT int brd_intf_fpd_upgrade_cookie_get_upgrade_mode(int *mode, char *err_msg, size_t err_len) {
    Call call("brd_intf_fpd_upgrade_cookie_get_upgrade_mode", Callers::OneThread);
    return get_setting(call, &CardState::upgrade_mode, mode, err_msg, err_len);
}

CARDSIM_EXPORT int brd_intf_fpd_upgrade_cookie_set_upgrade_mode(int mode, char *err_msg, size_t err_len) {
    Call call("brd_intf_fpd_upgrade_cookie_set_upgrade_mode", Callers::OneThread);
    return set_setting(call, &CardState::upgrade_mode, mode, 3, err_msg, err_len);
}
