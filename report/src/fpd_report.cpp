/// fpd-report: what became of a card's FPDs, told from diagnostic logs.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fleet_text.h"
#include "inputs.h"
#include "options.h"
#include "output.h"
#include "reading.h"
#include "shown_text.h"
#include "verdict.h"
#include "writers.h"

namespace fpd_report {
namespace {

struct Findings {
    std::size_t runs = 0, not_well = 0;
    std::vector<std::string> errors;  // of files
};

void print_error(const std::string &text) {
    std::fprintf(stderr, "fpd-report: %s\n", shown(text).c_str());
}

int exit_status(const Findings &findings) {
    for (const std::string &error : findings.errors) print_error(error);
    if (!findings.errors.empty()) return status_error;
    if (findings.runs == 0) {
        print_error("no run of the tool was found");
        return status_error;
    }
    return findings.not_well > 0 ? status_not_well : status_well;
}

Style output_style(const Options &options) {
    return options.output.empty() ? style_of(STDOUT_FILENO) : Style();
}

Writer writer_of(const Options &options, bool name_sources, Output *output) {
    switch (options.format) {
        case Format::json:
            return json_writer(output);
        case Format::json_lines:
            return json_lines_writer(output);
        case Format::prometheus:
            return metrics_writer(output);
        case Format::page:
            return page_writer(output);
        case Format::timeline:
            return timeline_writer(output);
        case Format::text:
            break;
    }
    return text_writer(output, {output_style(options), options.brief, options.lines}, name_sources);
}

/// Counts what reaches the writer: with --last, an earlier run does not decide the status.
Writer counting(const Writer &writer, Findings *findings) {
    const auto take = [take = writer.take, findings](const ReportedRun &reported) {
        ++findings->runs;
        if (!is_well(reported.run)) ++findings->not_well;
        take(reported);
    };
    return {take, writer.finish};
}

std::size_t count_logs(const std::vector<Card> &cards) {
    std::size_t count = 0;
    for (const Card &card : cards) count += card.logs.size();
    return count;
}

void report_runs(const Options &options, const std::vector<Card> &cards, Output *output, Findings *findings) {
    std::vector<fpd_log::FlashEvent> flash_events;
    if (!options.flash.empty()) flash_events = read_flash_log(options.flash, &findings->errors);
    Writer writer = counting(writer_of(options, count_logs(cards) > 1, output), findings);
    if (options.last || options.format == Format::prometheus) writer = last_of_each_log(std::move(writer));
    const auto take = [&](fpd_log::Run &&run) {
        ReportedRun reported = {std::move(run), std::nullopt};
        if (!options.flash.empty()) reported.flash_events = events_of_run(flash_events, reported.run);
        writer.take(reported);
    };
    for (const Card &card : cards) {
        for (const Log &log : card.logs) read_log(log, take, &findings->errors);
    }
    writer.finish();
}

void report_fleet(const Options &options, const std::vector<Card> &cards, Output *output, Findings *findings) {
    const bool show_progress = isatty(STDERR_FILENO) != 0;
    const FleetSummary summary = read_fleet(cards, show_progress, &findings->errors).summary();
    findings->runs = summary.runs;
    findings->not_well = summary.cards - summary.well;
    output->write(fleet_text(summary, output_style(options)));
}

int report(const Options &options, Output *output) {
    Findings findings;
    const Inputs inputs = find_inputs(options.logs, options.output);
    findings.errors = inputs.errors;
    const bool is_fleet = options.format == Format::text && (options.fleet || inputs.has_directory);
    if (!options.flash.empty() && (is_fleet || count_logs(inputs.cards) != 1)) {
        print_error("--flash goes with one log");
        return status_error;
    }
    (is_fleet ? report_fleet : report_runs)(options, inputs.cards, output, &findings);
    const std::string error = output->finish();
    if (!error.empty()) findings.errors.push_back(error);
    return exit_status(findings);
}

int run_program(int argc, char **argv) {
    Options options;
    if (const auto status = parse_options(argc, argv, &options)) return *status;
    if (options.output.empty()) {
        Output output;
        return report(options, &output);
    }
    Output output(options.output);
    return report(options, &output);
}

}  // namespace
}  // namespace fpd_report

int main(int argc, char **argv) {
    try {
        return fpd_report::run_program(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "fpd-report: %s\n", error.what());
        return fpd_report::status_error;
    }
}
