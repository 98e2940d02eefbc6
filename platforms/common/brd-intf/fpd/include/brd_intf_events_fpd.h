/// Events that tell the rest of the system how the upgrade goes. Main thread; each runs the event script and waits.
#ifndef BRD_INTF_EVENTS_FPD_H
#define BRD_INTF_EVENTS_FPD_H

#include <cstddef>

#include "fpd_log.h"

enum AutoFpdUpgradeEvent : int {
    AUTO_FPD_UPGRADE_EVENT_STARTED = 1,
    AUTO_FPD_UPGRADE_EVENT_PROGRESS = 2,
    AUTO_FPD_UPGRADE_EVENT_ENDED = 3,
    AUTO_FPD_UPGRADE_EVENT_WARNING = 4,
    AUTO_FPD_UPGRADE_EVENT_ERROR = 5,
    AUTO_FPD_UPGRADE_EVENT_SW_FATAL = 6,
};

/// Raises the event of that kind. Returns the sender's result, or -EINVAL for a kind that is none. `message` goes
/// between double quotes into the script's command line as it stands.
int send_auto_fpd_upgrade_event(int kind, const char *message, char *err_msg, std::size_t err_len);

/// Raises the event with a formatted message, cut at 255 characters; a failure is logged at `site` and has no other
/// consequence.
[[gnu::format(printf, 3, 4)]] void raise_fpd_event(const LogSite &site, AutoFpdUpgradeEvent kind, const char *format,
                                                   ...);

/// One sender per kind. Each returns 0, or the utility library's code with its text in err_msg.
int send_auto_fpd_upgrade_started_event(const char *message, char *err_msg, std::size_t err_len);
int send_auto_fpd_upgrade_progress_event(const char *message, char *err_msg, std::size_t err_len);
int send_auto_fpd_upgrade_ended_event(const char *message, char *err_msg, std::size_t err_len);
int send_auto_fpd_upgrade_warning_event(const char *message, char *err_msg, std::size_t err_len);
int send_auto_fpd_upgrade_error_event(const char *message, char *err_msg, std::size_t err_len);
int send_auto_fpd_upgrade_sw_fatal_event(const char *message, char *err_msg, std::size_t err_len);

#endif
