/// The event log on the card's flash: one event in a line, whole seconds, UTC.
#ifndef FPD_LOG_FLASH_LOG_H
#define FPD_LOG_FLASH_LOG_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "run.h"

namespace fpd_log {

enum class FlashEventKind { start, started, upgraded, failed, other };

struct FlashEvent {
    Time time = 0;
    FlashEventKind kind = FlashEventKind::other;
    std::string region, version, running, programmed;  // empty: the line does not tell
    std::string text;                                  // what follows "[Bootup FPD] "
};

/// One line without its line break; nullopt: not a line of a flash log.
std::optional<FlashEvent> parse_flash_line(std::string_view line);
const char *flash_event_key(FlashEventKind kind);

}  // namespace fpd_log

#endif
