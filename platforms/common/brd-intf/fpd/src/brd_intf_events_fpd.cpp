#include "brd_intf_events_fpd.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "card_libraries.h"
#include "fpd_log.h"

namespace {

constexpr LogModule here{"EVENTS", __FILE__};
constexpr const char *event_script = "/usr/local/etc/send_fpd_doorbell_event.sh";

struct EventRow {
    AutoFpdUpgradeEvent kind;
    const char *word;     // of the script's option
    const char *tag;      // of a failure
    const char *failure;  // format of the error text
};

// Indexed by kind - 1.
constexpr auto events = std::to_array<EventRow>({
    {AUTO_FPD_UPGRADE_EVENT_STARTED, "started", "AutoFpdUpgradeStartedEvent",
     "Sending Auto FPD Started Event failed error %s"},
    {AUTO_FPD_UPGRADE_EVENT_PROGRESS, "progress", "AutoFpdUpgradeProgressEvent",
     "Sending Auto FPD Progressing Event failed error %s"},
    {AUTO_FPD_UPGRADE_EVENT_ENDED, "ended", "AutoFpdUpgradeEndedEvent", "Sending Auto FPD Ended Event failed error %s"},
    {AUTO_FPD_UPGRADE_EVENT_WARNING, "warning", "AutoFpdUpgradeEventWarning",
     "Sending Auto FPD Event warning message failed error %s"},
    {AUTO_FPD_UPGRADE_EVENT_ERROR, "error", "AutoFpdUpgradeEventError",
     "Sending Auto FPD Event error message failed error %s"},
    {AUTO_FPD_UPGRADE_EVENT_SW_FATAL, "sw_fatal", "AutoFpdUpgradeEventFatal",
     "Sending Auto FPD Event Fatal message failed error %s"},
});

constexpr bool events_are_indexed_by_kind() {
    for (std::size_t i = 0; i < events.size(); ++i)
        if (events[i].kind != static_cast<int>(i) + 1) return false;
    return events.size() == AUTO_FPD_UPGRADE_EVENT_SW_FATAL;
}
static_assert(events_are_indexed_by_kind());

int send_event(AutoFpdUpgradeEvent kind, const char *message, char *err_msg, std::size_t err_len) {
    const EventRow &event = events[static_cast<std::size_t>(kind) - 1];
    const int rc = run_command(err_msg, err_len, "%s  -e %s -m \"%s\"", event_script, event.word, message);
    if (rc != 0) log_error({here, event.tag}, event.failure, err_msg ? err_msg : "");
    return rc;
}

}  // namespace

int send_auto_fpd_upgrade_event(int kind, const char *message, char *err_msg, std::size_t err_len) {
    if (kind < 1 || kind > static_cast<int>(events.size()))
        return fail({here, "SendUnknownEvent"}, -EINVAL, err_msg, err_len, "Unknown Auto FPD Upgrade event");
    return send_event(static_cast<AutoFpdUpgradeEvent>(kind), message, err_msg, err_len);
}

void raise_fpd_event(const LogSite &site, AutoFpdUpgradeEvent kind, const char *format, ...) {
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
