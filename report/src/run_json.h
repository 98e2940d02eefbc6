/// Runs as JSON, for programs and for the page; docs/report-json.md has the shape.
#ifndef FPD_REPORT_RUN_JSON_H
#define FPD_REPORT_RUN_JSON_H

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "flash_log.h"
#include "run.h"

namespace fpd_report {

/// Of the document; grows when a key changes its meaning or goes, not when one comes.
inline constexpr int json_version = 1;
inline constexpr const char *json_schema = "fpd-report";

/// The run with its verdict, and the events of the flash log where one was given. Every text is valid UTF-8.
nlohmann::ordered_json run_json(const fpd_log::Run &run,
                                const std::optional<std::vector<fpd_log::FlashEvent>> &flash_events = std::nullopt);

/// The whole document, with `runs` as run_json made them.
nlohmann::ordered_json json_document(std::vector<nlohmann::ordered_json> runs);

/// The same in three parts, for runs that come one by one: begin, runs with a separator between them, end.
std::string json_document_begin();
std::string json_document_separator();
std::string json_document_end();

}  // namespace fpd_report

#endif
