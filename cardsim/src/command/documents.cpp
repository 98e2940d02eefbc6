/// The accounts and plans for programs, in one file: the library's header takes long to compile.
#include <nlohmann/json.hpp>

#include "life.h"
#include "plan.h"
#include "run_json.h"

namespace cardsim {
namespace {

using Json = nlohmann::ordered_json;

constexpr int json_version = 1;  // of both documents

std::string text_of(const Json &document) {
    return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json versions_json(const RegionVersions &versions) {
    return {{"running", version_text(versions.running)}, {"programmed", version_text(versions.programmed)}};
}

Json region_json(const RegionLife &region) {
    return {{"name", region.name},
            {"fpd", region.fpd},
            {"region", region.index},
            {"before", versions_json(region.before)},
            {"after", versions_json(region.after)},
            {"packaged", region.packaged.empty() ? Json() : Json(region.packaged)},
            {"outcome", region.outcome ? Json(fpd_log::outcome_key(*region.outcome)) : Json()},
            {"reason", region.reason},
            {"boot", region.boot == 0 ? Json() : Json(region.boot)},
            {"attempts", region.attempts},
            {"due", region.is_due}};
}

Json boot_json(const BootLife &boot) {
    Json runs = Json::array();
    for (const fpd_log::Run &run : boot.runs) runs.push_back(fpd_report::run_json(run));
    return {{"number", boot.number},
            {"began", boot.began},
            {"ended", boot.ended},
            {"seconds", boot.seconds},
            {"no_log", boot.no_log ? Json(*boot.no_log) : Json()},
            {"runs", runs}};
}

Json region_json(const RegionPlan &region) {
    return {{"name", region.name},
            {"fpd", region.fpd},
            {"region", region.index},
            {"running", version_text(region.now.running)},
            {"programmed", version_text(region.now.programmed)},
            {"packaged", region.packaged.empty() ? Json() : Json(region.packaged)},
            {"outcome", fpd_log::outcome_key(region.outcome)},
            {"queue", region.queue ? Json(*region.queue) : Json()},
            {"place", region.place == 0 ? Json() : Json(region.place)},
            {"reason", region.reason}};
}

}  // namespace

std::string life_json(const Life &life) {
    Json boots = Json::array();
    for (const BootLife &boot : life.boots) boots.push_back(boot_json(boot));
    Json regions = Json::array();
    for (const RegionLife &region : life.regions) regions.push_back(region_json(region));
    const Json document = {{"schema", "cardsim-life"},
                           {"version", json_version},
                           {"pid", life.pid},
                           {"slot", life.slot},
                           {"status", life.status},
                           {"verdict", verdict(life)},
                           {"due", is_anything_due(life)},
                           {"boots", boots},
                           {"regions", regions},
                           {"faults_not_reached", life.faults_not_reached},
                           {"made_up_images", life.made_up_images},
                           {"made_up_files", life.made_up_files}};
    return text_of(document);
}

std::string plan_json(const Plan &plan) {
    Json regions = Json::array();
    for (const RegionPlan *region : in_order(plan)) regions.push_back(region_json(*region));
    const Json document = {{"schema", "cardsim-plan"}, {"version", json_version}, {"pid", plan.pid},
                           {"slot", plan.slot},        {"status", plan.status},   {"notes", plan.notes},
                           {"regions", regions}};
    return text_of(document);
}

}  // namespace cardsim
