#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "shown_text.h"

namespace fpd_report {
namespace {

constexpr const char *what_it_is =
    "Tells from diagnostic logs of bootup_fpd what became of a card's FPDs, and why.\n"
    "A directory is a fleet: each entry is a card, and one table tells which\n"
    "differ from the others.";

constexpr const char *exit_statuses =
    "Exit status: 0 all is well; 1 something is not; 2 a file cannot be read or\n"
    "written, no run was found, or the command line is wrong.";

struct Extension {
    const char *text;
    Format format;
};

/// What a report's file name asks for where no option does.
constexpr Extension extensions[] = {
    {".txt", Format::text},        {".json", Format::json}, {".jsonl", Format::json_lines},
    {".prom", Format::prometheus}, {".html", Format::page}, {".svg", Format::timeline},
};

std::optional<Format> format_of(const std::string &path) {
    for (const Extension &extension : extensions) {
        if (path.ends_with(extension.text)) return extension.format;
    }
    return std::nullopt;
}

std::string known_extensions() {
    std::string result;
    for (const Extension &extension : extensions) result += (result.empty() ? "" : ", ") + std::string(extension.text);
    return result;
}

int usage_error(const std::string &text) {
    std::fprintf(stderr, "fpd-report: %s\nTry 'fpd-report --help'.\n", shown(text).c_str());
    return status_error;
}

/// What the parser does not look at; empty: nothing is wrong.
std::string contradiction(const Options &options, bool format_is_given) {
    if (!options.output.empty() && !format_is_given && !format_of(options.output)) {
        return options.output + ": the name does not tell what to write; it ends in none of " + known_extensions();
    }
    if (options.fleet && options.format != Format::text)
        return "a fleet's table is text: --fleet goes with no other form";
    return {};
}

}  // namespace

std::optional<int> parse_options(int argc, char **argv, Options *options) {
    CLI::App app(what_it_is, "fpd-report");
    app.footer(exit_statuses);
    app.set_version_flag("--version", "fpd-report " FPD_REPORT_VERSION, "print the version and exit");
    app.set_help_flag("-h,--help", "print this help and exit");
    app.get_formatter()->column_width(22);
    bool json = false, json_lines = false, prometheus = false;
    app.add_option("LOG", options->logs, "logs (gzipped ones too), directories; \"-\": standard input")
        ->required()
        ->type_name("")
        ->option_text("...");
    app.add_flag("--json", json, "one JSON document instead of text");
    app.add_flag("--json-lines", json_lines, "JSON, one run per line");
    app.add_flag("--prometheus", prometheus, "metrics of each log's last run");
    app.add_option("-o,--output", options->output,
                   "write FILE; the end of its name tells the form:\n" + known_extensions())
        ->type_name("FILE");
    app.add_option("--flash", options->flash, "add the events of the card's flash log FILE")->type_name("FILE");
    app.add_flag("--last", options->last, "each log's last run only");
    app.add_flag("--brief", options->brief, "text: one line for each run");
    app.add_option("--lines", options->lines, "text: lines of the log for what is not well (8)")->type_name("N");
    app.add_flag("--fleet", options->fleet, "one table, also of logs that are named themselves");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &success) {
        app.exit(success);
        return status_well;
    } catch (const CLI::ParseError &error) {
        return usage_error(error.what());
    }
    if (json + json_lines + prometheus > 1) return usage_error("--json, --json-lines, --prometheus: only one of them");
    const bool format_is_given = json || json_lines || prometheus;
    if (json) options->format = Format::json;
    if (json_lines) options->format = Format::json_lines;
    if (prometheus) options->format = Format::prometheus;
    if (!format_is_given && !options->output.empty()) {
        options->format = format_of(options->output).value_or(Format::text);
    }
    const std::string wrong = contradiction(*options, format_is_given);
    if (!wrong.empty()) return usage_error(wrong);
    return std::nullopt;
}

}  // namespace fpd_report
