#include "brd_intf_auto_fpd_upgrade_config.h"

#include "card_libraries.h"
#include "fpd_log.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

}  // namespace

int get_auto_fpd_upgrade_config(int &enabled, char *err_msg, std::size_t err_len) {
    enabled = 1;
    int value;
    const int rc = card_auto_upgrade_get(value, err_msg, err_len);
    if (rc != 0) {
        log_error({here, "BrdIntfFpdUpgCfg"}, "BRD interface auto FPD upgrade config get failed err_msg %s", err_msg);
        return rc;
    }
    enabled = value;
    if (enabled != 1) log_info({here, "AutoFpdUpgCfgNotEna"}, "Auto FPD Upgrade is not enabled on the system");
    return 0;
}
