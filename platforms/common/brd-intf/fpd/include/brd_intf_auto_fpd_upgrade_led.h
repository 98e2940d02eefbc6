/// The card's status LED during an upgrade: blinking green, and afterwards what it showed before. Main thread; keeps
/// what the process knows of the LED.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_LED_H
#define BRD_INTF_AUTO_FPD_UPGRADE_LED_H

#include <cstddef>
#include <cstdint>

enum class UpgLedRequest : int { upgrade_ended = 1, upgrade_started = 2 };

/// Prepares the group's LEDs once per process and finds the status LED. Returns 0 or -EACCES.
int upg_led_init(std::uint32_t group_id, std::uint32_t *obj_id, char *err_msg, std::size_t err_len);
/// Shows the start or the end of the upgrade. A repeated request only logs what the LED shows. Returns 0, -EINVAL for a
/// zero id, or -EACCES when the LED cannot be set, after which the same request may be tried again.
int upg_led_notify(std::uint32_t group_id, std::uint32_t obj_id, UpgLedRequest request, char *err_msg,
                   std::size_t err_len);

#endif
