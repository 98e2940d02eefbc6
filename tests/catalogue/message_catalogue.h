/// The message catalogue: every line that the tool can log and every text that it can print.
///
/// It is written down here by itself, and neither made from the tool's sources nor used by them; catalogue_tests holds
/// the two against each other, and against what the other tests compare. It lists for each row the tests that do, in
/// the directory "messages" beside its objects.
#ifndef MESSAGE_CATALOGUE_H
#define MESSAGE_CATALOGUE_H

#include <algorithm>

#include "front_end_rows.h"
#include "message_row.h"
#include "planning_rows.h"
#include "platform_rows.h"
#include "record_rows.h"
#include "upgrade_rows.h"

namespace catalogue {

inline constexpr LogModuleRows log_modules[] = {
    {"PLATFORM", "brd_intf_auto_fpd_bootstrap", bootstrap_rows},
    {"FPD", "brd_intf_auto_fpd_obfl", obfl_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_activate", activate_rows},
    {"BRD", "brd_intf_auto_fpd_upgrade_brd", brd_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_config", config_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_handler", handler_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_init", init_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_led", upgrade_led_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_marker", marker_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_msg_queue", msg_queue_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_queue", queue_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_state", state_rows},
    {"FPD", "brd_intf_auto_fpd_upgrade_worker", worker_rows},
    {"EVENTS", "brd_intf_events_fpd", events_rows},
    {"LED", "brd_intf_led", led_rows},
};

/// The length of the conversion that `format` begins with, of those that the rows use; 0: it is another.
constexpr std::size_t conversion_length(std::string_view format) {
    for (const std::string_view conversion : {"%s", "%d", "%ld", "%x", "%p", "%-16s"})
        if (format.starts_with(conversion)) return conversion.size();
    return 0;
}

constexpr bool conversions_are_known(std::string_view format) {
    for (std::size_t at = format.find('%'); at != std::string_view::npos; at = format.find('%', at + 1))
        if (conversion_length(format.substr(at)) == 0) return false;
    return !format.empty();
}

constexpr bool is_letter_or_digit(char character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
           (character >= '0' && character <= '9');
}

constexpr bool log_rows_are_well_formed() {
    for (const LogModuleRows &module : log_modules)
        for (const LogRow &row : module.rows)
            if (row.tag.empty() || !std::all_of(row.tag.begin(), row.tag.end(), is_letter_or_digit) ||
                !conversions_are_known(row.format))
                return false;
    return true;
}
static_assert(log_rows_are_well_formed());

constexpr bool no_log_row_stands_twice() {
    for (const LogModuleRows &module : log_modules)
        for (const LogRow &row : module.rows)
            if (std::count_if(module.rows.begin(), module.rows.end(), [&row](const LogRow &other) {
                    return other.tag == row.tag && other.format == row.format;
                }) != 1)
                return false;
    return true;
}
static_assert(no_log_row_stands_twice());

constexpr bool no_module_stands_twice() {
    return std::adjacent_find(std::begin(log_modules), std::end(log_modules),
                              [](const LogModuleRows &a, const LogModuleRows &b) { return a.file >= b.file; }) ==
           std::end(log_modules);
}
static_assert(no_module_stands_twice());

constexpr bool no_answer_stands_twice() {
    for (const AnswerRow &row : front_end_rows)
        if (!conversions_are_known(row.format) ||
            std::count_if(std::begin(front_end_rows), std::end(front_end_rows), [&row](const AnswerRow &other) {
                return other.stream == row.stream && other.format == row.format;
            }) != 1)
            return false;
    return true;
}
static_assert(no_answer_stands_twice());

}  // namespace catalogue

#endif
