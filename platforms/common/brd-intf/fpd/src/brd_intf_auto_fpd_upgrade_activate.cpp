#include "brd_intf_auto_fpd_upgrade_activate.h"

#include <algorithm>
#include <cerrno>

#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "brd_platform_access.h"
#include "card_libraries.h"
#include "fpd_log.h"
#include "local_card.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

constexpr const char *boot_loader_command = "grub-reboot KALDOR-latest";
constexpr const char *reset_script = "/usr/local/etc/reset_board.sh";
constexpr int reset_reason = 36;
constexpr int attribute_flag_resetting = 2;

/// Higher wins.
enum ReloadType : int { reload_none = 0, reload_reset = 1, reload_reset_all = 2 };

ReloadType reload_type_of(std::uint8_t activation_kind) {
    switch (activation_kind) {
        case 1:
        case 3:
        case 4:
        case 6:
            return reload_reset_all;
        case 5:
            return reload_reset;
        default:
            return reload_none;
    }
}

ReloadType reload_type_needed(const LocalCard &card) {
    ReloadType needed = reload_none;
    for (const Fpd *fpd = card.queues.fpd_queue; fpd && needed != reload_reset_all; fpd = fpd->next) {
        if (fpd->state != FpdState::upgrade_done) continue;
        needed = std::max(needed, reload_type_of(fpd->info.activation_kind));
    }
    return needed;
}

int set_boot_entry(char *err_msg, std::size_t err_len) {
    if (run_command(err_msg, err_len, "%s", boot_loader_command) == 0) return 0;
    log_error({here, "AutoFpdActivateGrubRebootSetFail"}, "Auto FPD ACtivate GRUB Reboot setting failed error %s",
              err_msg);
    return -ENOSYS;
}

int reset_card(ReloadType reload_type, char *err_msg, std::size_t err_len) {
    if (run_command(err_msg, err_len, "%s %s -r \"Auto FPD Upgrade activation\" -b %d", reset_script,
                    reload_type == reload_reset_all ? "-a" : "", reset_reason) == 0)
        return 0;
    log_error({here, "AutoFpdUpgradeActivateFail"}, "Auto FPD Upgrade Activation failed error %s", err_msg);
    return -ENOSYS;
}

}  // namespace

int auto_fpd_upgrade_activate(const LocalCard &card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const ReloadType reload_type = reload_type_needed(card);
    if (reload_type == reload_none) return 0;
    if (upg_marker_write(err_msg, err_len) != 0)
        log_error({here, "WriteUpgMarkerDataFail"}, "Failed to write Upgrade Marker Data, error %s", err_msg);
    log_info({here, "FpdUpgActivate"}, "FPD Upgrade required a reload_type %d to activate", reload_type);
    const int rc = set_boot_entry(err_msg, err_len);
    if (rc != 0) return rc;
    brd_sb_attribute_flag_set(attribute_flag_resetting);
    return reset_card(reload_type, err_msg, err_len);
}
