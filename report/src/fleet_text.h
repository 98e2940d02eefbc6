/// The table of a fleet.
#ifndef FPD_REPORT_FLEET_TEXT_H
#define FPD_REPORT_FLEET_TEXT_H

#include <string>

#include "fleet.h"
#include "terminal.h"

namespace fpd_report {

/// One line on the whole, then a row per group: those that stand out with their cards and reasons, then the rest.
std::string fleet_text(const FleetSummary &summary, const Style &style);

}  // namespace fpd_report

#endif
