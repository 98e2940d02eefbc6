#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "page.h"
#include "run_json.h"
#include "svg_timeline.h"
#include "writers.h"

namespace fpd_report {

Writer page_writer(Output *output) {
    const auto runs = std::make_shared<std::string>();
    const auto take = [=](const ReportedRun &reported) {
        if (!runs->empty()) *runs += json_document_separator();
        *runs += run_json(reported.run, reported.flash_events).dump();
    };
    const auto finish = [=] { output->write(html_page(json_document_begin() + *runs + json_document_end())); };
    return {take, finish};
}

Writer timeline_writer(Output *output) {
    const auto runs = std::make_shared<std::vector<fpd_log::Run>>();
    return {[=](const ReportedRun &reported) { runs->push_back(reported.run); },
            [=] { output->write(svg_timeline(*runs)); }};
}

}  // namespace fpd_report
