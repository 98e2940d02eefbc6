/// Logs of the command line, run by run or card by card.
#ifndef FPD_REPORT_READING_H
#define FPD_REPORT_READING_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "flash_log.h"
#include "fleet.h"
#include "inputs.h"
#include "run.h"

namespace fpd_report {

/// Hands over each run of the log of which the reader knows at least one line. A file that cannot be read, or not to
/// its end, is noted in `errors` ("PATH: reason").
void read_log(const Log &log, const std::function<void(fpd_log::Run &&)> &take, std::vector<std::string> *errors);

/// Whether a run after `before` tells more of the card's present state: one that looked at no region, such as one that
/// only changed the configuration, does not.
bool tells_more(const fpd_log::Run &before, const fpd_log::Run &run);

/// Reads the cards by two threads; memory does not grow with what a log holds. With `show_progress`, a bar on standard
/// error meanwhile.
Fleet read_fleet(const std::vector<Card> &cards, bool show_progress, std::vector<std::string> *errors);

/// The events of a flash log, in its order; the first 100,000.
std::vector<fpd_log::FlashEvent> read_flash_log(const std::string &path, std::vector<std::string> *errors);

/// Those from the second in which the run begins to that in which it ends.
std::vector<fpd_log::FlashEvent> events_of_run(const std::vector<fpd_log::FlashEvent> &events, const fpd_log::Run &run);

}  // namespace fpd_report

#endif
