#include "brd_intf_auto_fpd_upgrade_config.h"

#include "fpd_log.h"
#include "fpd_upgrade_cookie.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

}  // namespace

int get_auto_fpd_upgrade_config(int &enabled, char *err_msg, std::size_t err_len) {
    enabled = 1;
    clear_error(err_msg, err_len);
    int value = 0;
    const int rc = brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, err_msg, err_len);
    terminate_error(err_msg, err_len);
    if (rc != 0) {
        log_error({here, "BrdIntfFpdUpgCfg"}, "BRD interface auto FPD upgrade config get failed err_msg %s", err_msg);
        return rc;
    }
    enabled = value;
    if (enabled != 1) log_info({here, "AutoFpdUpgCfgNotEna"}, "Auto FPD Upgrade is not enabled on the system");
    return 0;
}
