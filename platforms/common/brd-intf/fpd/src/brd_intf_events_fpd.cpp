#include "brd_intf_events_fpd.h"

#include <array>
#include <cerrno>

#include "fpd_log.h"
#include "fpd_utility.h"

namespace {

constexpr LogModule here{"EVENTS", __FILE__};
constexpr const char *event_script = "/usr/local/etc/send_fpd_doorbell_event.sh";

using Sender = int (*)(const char *message, char *err_msg, std::size_t err_len);

struct EventRow {
    AutoFpdUpgradeEvent kind;
    const char *command;  // format of the script's path and the message
    const char *tag;      // of a failure
    const char *failure;  // format of the error text
    Sender sender;
};

// Indexed by kind - 1.
constexpr auto events = std::to_array<EventRow>({
    {AUTO_FPD_UPGRADE_EVENT_STARTED, "%s  -e started -m \"%s\"", "AutoFpdUpgradeStartedEvent",
     "Sending Auto FPD Started Event failed error %s", send_auto_fpd_upgrade_started_event},
    {AUTO_FPD_UPGRADE_EVENT_PROGRESS, "%s  -e progress -m \"%s\"", "AutoFpdUpgradeProgressEvent",
     "Sending Auto FPD Progressing Event failed error %s", send_auto_fpd_upgrade_progress_event},
    {AUTO_FPD_UPGRADE_EVENT_ENDED, "%s  -e ended -m \"%s\"", "AutoFpdUpgradeEndedEvent",
     "Sending Auto FPD Ended Event failed error %s", send_auto_fpd_upgrade_ended_event},
    {AUTO_FPD_UPGRADE_EVENT_WARNING, "%s  -e warning -m \"%s\"", "AutoFpdUpgradeEventWarning",
     "Sending Auto FPD Event warning message failed error %s", send_auto_fpd_upgrade_warning_event},
    {AUTO_FPD_UPGRADE_EVENT_ERROR, "%s  -e error -m \"%s\"", "AutoFpdUpgradeEventError",
     "Sending Auto FPD Event error message failed error %s", send_auto_fpd_upgrade_error_event},
    {AUTO_FPD_UPGRADE_EVENT_SW_FATAL, "%s  -e sw_fatal -m \"%s\"", "AutoFpdUpgradeEventFatal",
     "Sending Auto FPD Event Fatal message failed error %s", send_auto_fpd_upgrade_sw_fatal_event},
});

constexpr bool events_are_indexed_by_kind() {
    for (std::size_t i = 0; i < events.size(); ++i)
        if (events[i].kind != static_cast<int>(i) + 1) return false;
    return events.size() == AUTO_FPD_UPGRADE_EVENT_SW_FATAL;
}
static_assert(events_are_indexed_by_kind());

int send_event(AutoFpdUpgradeEvent kind, const char *message, char *err_msg, std::size_t err_len) {
    const EventRow &event = events[static_cast<std::size_t>(kind) - 1];
    clear_error(err_msg, err_len);
    char output[256] = "";
    std::size_t output_len = 0;
    const int rc =
        exec_shell_command(output, sizeof output, &output_len, err_msg, err_len, event.command, event_script, message);
    terminate_error(err_msg, err_len);
    if (rc != 0) log_error({here, event.tag}, event.failure, err_msg ? err_msg : "");
    return rc;
}

}  // namespace

int send_auto_fpd_upgrade_event(int kind, const char *message, char *err_msg, std::size_t err_len) {
    if (kind < 1 || kind > static_cast<int>(events.size()))
        return fail({here, "SendUnknownEvent"}, -EINVAL, err_msg, err_len, "Unknown Auto FPD Upgrade event");
    return events[static_cast<std::size_t>(kind) - 1].sender(message, err_msg, err_len);
}

void raise_fpd_event(LogSite site, AutoFpdUpgradeEvent kind, const char *format, ...) {
    char message[256];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    char err_msg[256] = "";
    if (send_auto_fpd_upgrade_event(kind, message, err_msg, sizeof err_msg) != 0)
        log_error(site, "Sending FPD event is failed, error %s", err_msg);
}

int send_auto_fpd_upgrade_started_event(const char *message, char *err_msg, std::size_t err_len) {
    return send_event(AUTO_FPD_UPGRADE_EVENT_STARTED, message, err_msg, err_len);
}

int send_auto_fpd_upgrade_progress_event(const char *message, char *err_msg, std::size_t err_len) {
    return send_event(AUTO_FPD_UPGRADE_EVENT_PROGRESS, message, err_msg, err_len);
}

int send_auto_fpd_upgrade_ended_event(const char *message, char *err_msg, std::size_t err_len) {
    return send_event(AUTO_FPD_UPGRADE_EVENT_ENDED, message, err_msg, err_len);
}

int send_auto_fpd_upgrade_warning_event(const char *message, char *err_msg, std::size_t err_len) {
    return send_event(AUTO_FPD_UPGRADE_EVENT_WARNING, message, err_msg, err_len);
}

int send_auto_fpd_upgrade_error_event(const char *message, char *err_msg, std::size_t err_len) {
    return send_event(AUTO_FPD_UPGRADE_EVENT_ERROR, message, err_msg, err_len);
}

int send_auto_fpd_upgrade_sw_fatal_event(const char *message, char *err_msg, std::size_t err_len) {
    return send_event(AUTO_FPD_UPGRADE_EVENT_SW_FATAL, message, err_msg, err_len);
}
