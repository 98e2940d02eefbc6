/// The forms of a report, each taking runs one by one.
#ifndef FPD_REPORT_WRITERS_H
#define FPD_REPORT_WRITERS_H

#include <functional>
#include <optional>
#include <vector>

#include "flash_log.h"
#include "output.h"
#include "run.h"
#include "run_text.h"

namespace fpd_report {

/// The run and, where a flash log was given, its events.
struct ReportedRun {
    fpd_log::Run run;
    std::optional<std::vector<fpd_log::FlashEvent>> flash_events;
};

/// What takes each run in its order, and is told of the end. It refers to the output it was made with.
struct Writer {
    std::function<void(const ReportedRun &)> take;
    std::function<void()> finish;
};

/// For a reader; with `name_sources` each log's name before its runs.
Writer text_writer(Output *output, const TextOptions &options, bool name_sources);
Writer json_writer(Output *output);
Writer json_lines_writer(Output *output);
/// Wants the last run of each log alone.
Writer metrics_writer(Output *output);
/// The HTML page, drawn from the JSON document, which it keeps.
Writer page_writer(Output *output);
/// The timeline, drawn from all runs, which it keeps.
Writer timeline_writer(Output *output);

/// Hands on the run of each log that tells the card's present state.
Writer last_of_each_log(Writer writer);

}  // namespace fpd_report

#endif
