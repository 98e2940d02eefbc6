/// Whether the operator has automatic FPD upgrade enabled.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_CONFIG_H
#define BRD_INTF_AUTO_FPD_UPGRADE_CONFIG_H

#include <cstddef>

/// Reads the stored setting into `enabled`: 1 enabled, any other value not. Returns 0, or the store's code with the
/// store's text in err_msg and `enabled` 1: a card whose setting cannot be read counts as enabled.
int get_auto_fpd_upgrade_config(int &enabled, char *err_msg, std::size_t err_len);

#endif
