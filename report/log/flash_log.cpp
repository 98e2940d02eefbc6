#include "flash_log.h"

#include <array>

#include "record.h"

namespace fpd_log {
namespace {

constexpr std::string_view sender = " [Bootup FPD] ";

/// What stands between the name and the version in the text of an event.
struct FlashRow {
    std::string_view words;
    FlashEventKind kind;
};

constexpr auto flash_rows = std::to_array<FlashRow>({
    {"' Start upgrading to version ", FlashEventKind::start},
    {"' Retry upgrading to version ", FlashEventKind::start},
    {"' Started to upgrade version ", FlashEventKind::started},
    {"' Upgraded to version ", FlashEventKind::upgraded},
    {"' Failed to upgrade version ", FlashEventKind::failed},
    {"' Canceling the upgrade to version ", FlashEventKind::failed},
});

/// The word at the front of the text; a version has no blanks.
std::string first_word(std::string_view text) {
    return std::string(text.substr(0, text.find(' ')));
}

/// The word after `label` in the text.
std::string word_after(std::string_view text, std::string_view label) {
    const std::size_t at = text.find(label);
    return at == std::string_view::npos ? "" : first_word(text.substr(at + label.size()));
}

/// Takes "FPD 'NAME' WORDS VERSION ...". A name may hold anything: it ends where the last of the known words begin.
void take_event(std::string_view text, FlashEvent *event) {
    constexpr std::string_view begin = "FPD '";
    if (!text.starts_with(begin)) return;
    text.remove_prefix(begin.size());
    std::size_t name_size = 0;
    const FlashRow *found = nullptr;
    for (const FlashRow &row : flash_rows) {
        const std::size_t at = text.rfind(row.words);
        if (at == std::string_view::npos || (found && at < name_size)) continue;
        name_size = at;
        found = &row;
    }
    if (!found) return;
    const std::string_view rest = text.substr(name_size + found->words.size());
    event->kind = found->kind;
    event->region = text.substr(0, name_size);
    event->version = first_word(rest);
    event->running = word_after(rest, " Run version ");
    event->programmed = word_after(rest, " Programmed version ");
}

}  // namespace

std::optional<FlashEvent> parse_flash_line(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    const std::size_t end = line.find(sender);
    FlashEvent event;
    DateCache dates;
    if (end == std::string_view::npos || !parse_whole_seconds(line.substr(0, end), dates, &event.time))
        return std::nullopt;
    event.text = line.substr(end + sender.size());
    take_event(event.text, &event);
    return event;
}

const char *flash_event_key(FlashEventKind kind) {
    switch (kind) {
        case FlashEventKind::start:
            return "start";
        case FlashEventKind::started:
            return "started";
        case FlashEventKind::upgraded:
            return "upgraded";
        case FlashEventKind::failed:
            return "failed";
        case FlashEventKind::other:
            return "other";
    }
    return "";
}

}  // namespace fpd_log
