/// A run in one line.
#ifndef FPD_REPORT_VERDICT_H
#define FPD_REPORT_VERDICT_H

#include <cstddef>
#include <string>
#include <vector>

#include "run.h"

namespace fpd_report {

/// 0 is the worst outcome; what is not well comes before what is.
std::size_t outcome_rank(fpd_log::Outcome outcome);

/// How many regions of a run had each outcome, the ones that are not well first, none with zero.
struct OutcomeCount {
    fpd_log::Outcome outcome;
    std::size_t regions;
};
std::vector<OutcomeCount> count_outcomes(const fpd_log::Run &run);

/// Every region is well, the run came to its end, no error ended it and what it asked for was accepted.
bool is_well(const fpd_log::Run &run);

/// The reload that the run asked for was not accepted.
bool reload_failed(const fpd_log::Run &run);

/// "run 1, 2026-11-22 06:02:13, 8 regions: 1 given up, 1 refused, 6 upgraded; reload requested". Texts of the log in it
/// (the failure of the run) are as the log has them.
std::string verdict(const fpd_log::Run &run);

/// "2026-11-22 06:02:13" (UTC), "no time" for 0.
std::string time_text(fpd_log::Time time);
/// "06:02:13.015791" (UTC).
std::string clock_text(fpd_log::Time time);

}  // namespace fpd_report

#endif
