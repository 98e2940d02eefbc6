/// Runs as a reader would make them.
#ifndef FPD_REPORT_TESTS_RUN_SAMPLES_H
#define FPD_REPORT_TESTS_RUN_SAMPLES_H

#include <string>
#include <vector>

#include "run.h"

namespace fpd_report {

inline constexpr fpd_log::Time sample_begin = 1'795'327'333'015'791;  // 2026-11-22 06:02:13.015791

/// A region at 1.0.0 for which `packaged` is packaged, with two lines of the log where it was not well.
fpd_log::Region sample_region(const std::string &name, fpd_log::Outcome outcome, const std::string &reason = "",
                              const std::string &packaged = "2.0.0");

/// A finished run, the first of "fpd.log".
fpd_log::Run sample_run(const std::vector<fpd_log::Region> &regions);

}  // namespace fpd_report

#endif
