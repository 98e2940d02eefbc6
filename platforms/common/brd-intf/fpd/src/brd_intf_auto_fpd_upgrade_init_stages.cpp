/// The stages in which a run is planned, by the stored upgrade mode.
#include <cerrno>

#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_init_planning.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "card_libraries.h"

namespace {

constexpr LogModule here = planning_log;

int build_stage(Planning &planning, UpgradeStage stage) {
    char *const err_msg = planning.err_msg;
    planning.stage = stage;
    int rc = load_fpds(planning.run_level, planning.stage, planning.card, err_msg, planning.err_len);
    if (rc != 0) return pass_on({here, "LoadFpdsFail"}, rc, "Initializing FPDs failed err_msg %s", err_msg);
    rc = build_upgrade_queue(planning.stage, planning.card, err_msg, planning.err_len);
    if (rc != 0)
        return pass_on({here, "BuildingFpdQueueFail"}, rc, "Constructing FPD Upgrade queue failed err_msg %s", err_msg);
    return 0;
}

int clean_stage(Planning &planning) {
    const int rc = free_queues(planning.card);
    if (rc != 0)
        return fail({here, "FpdUpgdStageCleanupDeinitFpdFail"}, rc, planning.err_msg, planning.err_len,
                    "Failed to deinit fpd queues");
    // Nothing of a discarded plan may be written.
    upg_marker_release();
    return 0;
}

int build_golden_stage(Planning &planning, UpgradeStage stage, const LogSite &failure_site) {
    const int rc = build_stage(planning, stage);
    if (rc != 0)
        return pass_on(failure_site, rc, "FPD Upgrade stage %s check failed to build fpd upgrade, error %s",
                       stage_name(stage), planning.err_msg);
    return 0;
}

/// A locked Golden image has to be unlocked by one run before another can install the manufacturing firmware.
int plan_manufacturing(Planning &planning) {
    constexpr UpgradeStage stage_1a = UpgradeStage::requires_golden_unlocked_primary;
    int rc = build_golden_stage(planning, stage_1a, {here, "FpdUpgdStageCheckReqGlndUnlckPrimaryFail"});
    if (rc != 0) return rc;
    if (planning.card.planned_count == 0) return build_stage(planning, stage_1a);

    log_debug({here, "FpdUpgdStageReqGoldenUnlock"}, "Building FPDs to unlock Golden");
    rc = clean_stage(planning);
    if (rc != 0) return pass_on({here, "FpdUpgdStageCleanUpFail"}, rc, "Failed to clean Stage 1.a) fpd upgrade");
    rc =
        build_golden_stage(planning, UpgradeStage::can_unlock_golden, {here, "FpdUpgdStageCheckCanUnlckGlndUnlckFail"});
    if (rc != 0 || planning.card.planned_count != 0) return rc;

    rc = clean_stage(planning);
    if (rc != 0) return pass_on({here, "FpdUpgdStage1BCleanUpFail"}, rc, "Failed to clean Stage 1.b) fpd upgrade");
    return build_stage(planning, UpgradeStage::manufacturing);
}

}  // namespace

int plan_upgrade(RunLevel run_level, LocalCard &card, char *err_msg, std::size_t err_len) {
    int mode;
    const int rc = card_upgrade_mode_get(mode, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "FpdUpgdCookieGetModeFail"}, rc, "Failed to get FPD Upgrade Mode, error %s", err_msg);
    Planning planning{
        .run_level = run_level, .stage = UpgradeStage::regular, .card = card, .err_msg = err_msg, .err_len = err_len};
    switch (static_cast<UpgradeMode>(mode)) {
        case UpgradeMode::regular:
            return build_stage(planning, UpgradeStage::regular);
        case UpgradeMode::manufacturing:
            return plan_manufacturing(planning);
        case UpgradeMode::dummy_minor_version:
            return build_stage(planning, UpgradeStage::dummy_minor);
        case UpgradeMode::dummy_major_version:
            return build_stage(planning, UpgradeStage::dummy_major);
    }
    return fail({here, "FpdUpgdModeUnknown"}, EINVAL, err_msg, err_len, "Unknown FPD Upgrade mode %d", mode);
}
