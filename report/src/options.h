/// The command line of fpd-report.
#ifndef FPD_REPORT_OPTIONS_H
#define FPD_REPORT_OPTIONS_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace fpd_report {

enum class Format { text, json, json_lines, prometheus, page, timeline };

/// Of the program.
inline constexpr int status_well = 0, status_not_well = 1, status_error = 2;

struct Options {
    std::vector<std::string> logs;
    Format format = Format::text;
    std::string output;  // empty: standard output
    std::string flash;   // empty: none
    bool last = false, brief = false, fleet = false;
    std::size_t lines = 8;
};

/// Returns the exit status where the program is to end at once: the help or the version was asked for, and is printed,
/// or the command line is wrong, which is said on standard error.
std::optional<int> parse_options(int argc, char **argv, Options *options);

}  // namespace fpd_report

#endif
