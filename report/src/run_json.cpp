#include "run_json.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "shown_text.h"
#include "verdict.h"

namespace fpd_report {
namespace {

using Json = nlohmann::ordered_json;

template <typename Items, typename ToJson>
Json array_of(const Items &items, ToJson to_json) {
    Json result = Json::array();
    for (const auto &item : items) result.push_back(to_json(item));
    return result;
}

template <typename Value>
Json or_null(const std::optional<Value> &value) {
    return value ? Json(*value) : Json(nullptr);
}

Json attempt_json(const fpd_log::Attempt &attempt) {
    return {{"begin", attempt.begin},
            {"end", attempt.end},
            {"progress", attempt.progress},
            {"how", fpd_log::attempt_end_key(attempt.how)},
            {"reason", valid_utf8(attempt.reason)}};
}

Json transition_json(const fpd_log::Transition &transition) {
    return {{"time", transition.time},
            {"from", valid_utf8(transition.from)},
            {"to", valid_utf8(transition.to)},
            {"clock", transition.clock}};
}

Json line_json(const fpd_log::Line &line) {
    return {{"number", line.number},
            {"time", line.time},
            {"process", line.process},
            {"thread", line.thread},
            {"level", fpd_log::level_key(line.level)},
            {"component", valid_utf8(line.component)},
            {"tag", valid_utf8(line.tag)},
            {"place", valid_utf8(line.place)},
            {"text", valid_utf8(line.text)}};
}

Json event_json(const fpd_log::Event &event) {
    return {{"time", event.time}, {"kind", fpd_log::event_key(event.kind)}, {"text", valid_utf8(event.text)}};
}

Json flash_event_json(const fpd_log::FlashEvent &event) {
    return {{"time", event.time},
            {"kind", fpd_log::flash_event_key(event.kind)},
            {"region", valid_utf8(event.region)},
            {"version", valid_utf8(event.version)},
            {"running", valid_utf8(event.running)},
            {"programmed", valid_utf8(event.programmed)},
            {"text", valid_utf8(event.text)}};
}

Json region_json(const fpd_log::Region &region) {
    return {{"name", valid_utf8(region.name)},
            {"running", valid_utf8(region.running)},
            {"programmed", valid_utf8(region.programmed)},
            {"packaged", valid_utf8(region.packaged)},
            {"image", valid_utf8(region.image)},
            {"md5", valid_utf8(region.md5)},
            {"verdict", valid_utf8(region.verdict)},
            {"upgrade_needed", or_null(region.upgrade_needed)},
            {"capabilities", or_null(region.capabilities)},
            {"queue", or_null(region.queue)},
            {"dependency", valid_utf8(region.dependency)},
            {"state", valid_utf8(region.state)},
            {"retries", region.retries},
            {"attempts", array_of(region.attempts, attempt_json)},
            {"transitions", array_of(region.transitions, transition_json)},
            {"outcome", fpd_log::outcome_key(region.outcome)},
            {"reason", valid_utf8(region.reason)},
            {"lines", array_of(region.lines, line_json)},
            {"lines_left_out", region.lines_left_out}};
}

}  // namespace

Json run_json(const fpd_log::Run &run, const std::optional<std::vector<fpd_log::FlashEvent>> &flash_events) {
    Json result = {{"verdict", valid_utf8(verdict(run))},
                   {"well", is_well(run)},
                   {"source", valid_utf8(run.source)},
                   {"number", run.number},
                   {"process", run.process},
                   {"begin", run.begin},
                   {"end", run.end},
                   {"upgrades", run.upgrades},
                   {"finished", run.finished},
                   {"reload_requested", run.reload_requested},
                   {"skipped_by_marker", run.skipped_by_marker},
                   {"disabled", run.disabled},
                   {"stage", valid_utf8(run.stage)},
                   {"failure", valid_utf8(run.failure)},
                   {"regions", array_of(run.regions, region_json)},
                   {"events", array_of(run.events, event_json)},
                   {"errors", array_of(run.errors, line_json)},
                   {"lines", run.lines},
                   {"unknown_lines", run.unknown_lines},
                   {"watchdog_punches", run.watchdog_punches},
                   {"left_out", run.left_out},
                   {"unknown", array_of(run.unknown, valid_utf8)}};
    if (flash_events) result["flash_events"] = array_of(*flash_events, flash_event_json);
    return result;
}

Json json_document(std::vector<Json> runs) {
    return {{"schema", json_schema}, {"version", json_version}, {"runs", std::move(runs)}};
}

std::string json_document_begin() {
    return std::string("{\"schema\":\"") + json_schema + "\",\"version\":" + std::to_string(json_version) +
           ",\"runs\":[\n";
}
std::string json_document_separator() {
    return ",\n";
}
std::string json_document_end() {
    return "\n]}\n";
}

}  // namespace fpd_report
