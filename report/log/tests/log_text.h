/// Text of logs as the tool writes them, for tests.
#ifndef LOG_TEXT_H
#define LOG_TEXT_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "run_reader.h"

namespace log_tests {

/// 2026-11-22 06:00:00 UTC, in µs since 1970.
inline constexpr fpd_log::Time first_time = 1'795'327'200'000'000;

/// Writes lines, each a millisecond after the one before.
struct LogText {
    int process = 100;
    int thread = 0;            // 0: the main thread
    std::int64_t clock = 500;  // s, of transitions
    fpd_log::Time time = first_time;
    std::string text;

    LogText &say(std::string_view tag, std::string_view message, std::string_view level = "INFO");
    LogText &fail(std::string_view tag, std::string_view message) { return say(tag, message, "ERROR"); }
    LogText &transition(std::string_view name, std::string_view from, std::string_view to);
    /// From its birth to its capabilities; `first`: of its queue.
    LogText &discover(std::string_view name, bool first = false);
    /// As discovered, with versions and firmware.
    LogText &describe(std::string_view name, std::string_view programmed, std::string_view packaged,
                      bool first = false);
    LogText &judge(std::string_view name);
    LogText &plan(std::string_view name, int queue = 0);
    LogText &not_needed(std::string_view name);
    LogText &begin_attempt(std::string_view name, int worker_thread);
    LogText &respond(std::string_view name, std::string_view state, int progress);
    LogText &upgrade(std::string_view name, int worker_thread);
    LogText &end();
};

/// The runs of a text, pushed in pieces of `piece` bytes; 0: in one.
std::vector<fpd_log::Run> runs_of(std::string_view text, std::size_t piece = 0, fpd_log::RunLimits limits = {});
/// The one run of a text.
fpd_log::Run run_of(std::string_view text, fpd_log::RunLimits limits = {});
/// The region of that name; throws std::runtime_error when there is none.
const fpd_log::Region &region_of(const fpd_log::Run &run, std::string_view name);
/// "IoFpga upgraded" of each.
std::vector<std::string> outcomes(const fpd_log::Run &run);
/// All that a run tells, as text, to compare.
std::string told(const fpd_log::Run &run);
std::string told(const std::vector<fpd_log::Run> &runs);

}  // namespace log_tests

#endif
