/// A run for a reader: what one pastes into a ticket.
#ifndef FPD_REPORT_RUN_TEXT_H
#define FPD_REPORT_RUN_TEXT_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "flash_log.h"
#include "run.h"
#include "terminal.h"

namespace fpd_report {

struct TextOptions {
    Style style;
    bool brief = false;     // the verdict only
    std::size_t lines = 8;  // of the log, for each region that is not well, and for the run; the last ones
};

/// The verdict, a table of the regions (those that are not well first, with their reasons and lines of the log), what
/// else went wrong. Each line ends with a line break.
std::string run_text(const fpd_log::Run &run, const std::optional<std::vector<fpd_log::FlashEvent>> &flash_events,
                     const TextOptions &options);

/// The colour of an outcome in every table.
Colour outcome_colour(fpd_log::Outcome outcome);

/// "0.8 s", "50m18s", "2h05m", for microseconds.
std::string duration_text(fpd_log::Time duration);

/// From the begin of the first attempt to the end of the last; nullopt: none has both.
std::optional<fpd_log::Time> upgrade_time(const fpd_log::Region &region);

}  // namespace fpd_report

#endif
