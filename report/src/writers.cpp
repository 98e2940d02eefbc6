#include "writers.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "metrics.h"
#include "reading.h"
#include "run_json.h"
#include "table.h"

namespace fpd_report {
namespace {

std::string json_text(const ReportedRun &reported) {
    return run_json(reported.run, reported.flash_events).dump();
}

void nothing() {}

}  // namespace

Writer text_writer(Output *output, const TextOptions &options, bool name_sources) {
    const auto source = std::make_shared<std::optional<std::string>>();
    const auto take = [=](const ReportedRun &reported) {
        const bool is_first = !*source;
        if (!is_first && !options.brief) output->write("\n");
        if (name_sources && *source != reported.run.source) {
            output->write(paragraph(reported.run.source + ":", 0, Colour::heading, options.style));
        }
        *source = reported.run.source;
        output->write(run_text(reported.run, reported.flash_events, options));
    };
    return {take, nothing};
}

Writer json_writer(Output *output) {
    const auto is_first = std::make_shared<bool>(true);
    output->write(json_document_begin());
    const auto take = [=](const ReportedRun &reported) {
        if (!std::exchange(*is_first, false)) output->write(json_document_separator());
        output->write(json_text(reported));
    };
    return {take, [=] { output->write(json_document_end()); }};
}

Writer json_lines_writer(Output *output) {
    return {[=](const ReportedRun &reported) { output->write(json_text(reported) + "\n"); }, nothing};
}

Writer metrics_writer(Output *output) {
    const auto metrics = std::make_shared<Metrics>();
    return {[=](const ReportedRun &reported) { metrics->add(reported.run.source, reported.run); },
            [=] { output->write(metrics->text()); }};
}

Writer last_of_each_log(Writer writer) {
    const auto last = std::make_shared<std::optional<ReportedRun>>();
    const auto next = std::make_shared<Writer>(std::move(writer));
    const auto hand_on = [=] {
        if (*last) next->take(**last);
        last->reset();
    };
    const auto take = [=](const ReportedRun &reported) {
        if (*last && (*last)->run.source != reported.run.source) hand_on();
        if (!*last || tells_more((*last)->run, reported.run)) *last = reported;
    };
    const auto finish = [=] {
        hand_on();
        next->finish();
    };
    return {take, finish};
}

}  // namespace fpd_report
