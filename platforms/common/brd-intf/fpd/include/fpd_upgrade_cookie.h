/// The upgrade configuration store: what persists of the operator's settings. Each function returns 0, or a non-zero
/// code with the reason in the caller's `err_msg` of `err_len` bytes.
#ifndef FPD_UPGRADE_COOKIE_H
#define FPD_UPGRADE_COOKIE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// 1 enabled, 0 disabled.
int brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(int *value, char *err_msg, size_t err_len);
int brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(int value, char *err_msg, size_t err_len);

/// 0 regular, 1 manufacturing, 2 dummy minor version, 3 dummy major version.
int brd_intf_fpd_upgrade_cookie_get_upgrade_mode(int *mode, char *err_msg, size_t err_len);
int brd_intf_fpd_upgrade_cookie_set_upgrade_mode(int mode, char *err_msg, size_t err_len);

#ifdef __cplusplus
}
#endif

#endif
