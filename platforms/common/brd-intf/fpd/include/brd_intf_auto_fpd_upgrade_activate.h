/// Reload of the card when upgraded firmware needs one to take effect.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_ACTIVATE_H
#define BRD_INTF_AUTO_FPD_UPGRADE_ACTIVATE_H

#include <cstddef>

struct LocalCard;

/// Asks for the reload that the finished upgrades in the card's fpd_queue need, if any: writes the upgrade marker, sets
/// the boot loader and runs the reset script. Returns 0 (asked, or not needed) or -ENOSYS with the failed command's
/// text in err_msg. Main thread.
int auto_fpd_upgrade_activate(const LocalCard &card, char *err_msg, std::size_t err_len);

#endif
