/// Construction of the sequence queues: what is upgraded, and in which order.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_init_planning.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"

namespace {

constexpr LogModule here = planning_log;

constexpr std::uint8_t upgrade_type_always = 1;
constexpr std::uint8_t upgrade_type_mfg_only = 5;

/// What the two passes say of the same steps.
struct PassTexts {
    const char *upgradeable_tag;
    const char *upgradeable;
    const char *mfg_upgradeable_tag;
    const char *mfg_only_tag;
    const char *not_upgradeable_tag;
    const char *not_upgradeable;
    const char *move_failed_tag;
    const char *added_tag;
    const char *marker_failed_tag;
};

constexpr PassTexts direct_texts{
    .upgradeable_tag = "BuildQFpdUpgradeable",
    .upgradeable = "FPD %s is upgradeable",
    .mfg_upgradeable_tag = "BuildQFpdMfgUpgradeable",
    .mfg_only_tag = "BuildQFpdMfgOnlyUpgradeable",
    .not_upgradeable_tag = "BuildQFpdCantUpgraded",
    .not_upgradeable = "FPD %s with Upgrade type %d can't be upgraded ",
    .move_failed_tag = "BuildFpdUpgQueueMoveSeqQFail",
    .added_tag = "BuildFpdAddedSeqQueue",
    .marker_failed_tag = "AddFPDUpgMarkerFail",
};

constexpr PassTexts dependency_texts{
    .upgradeable_tag = "BuildQFpdDepUpgradeable",
    .upgradeable = "FPD %s is dependency upgradeable",
    .mfg_upgradeable_tag = "BuildQFpdDepMfgUpgradeable",
    .mfg_only_tag = "BuildQFpdDepMfgOnlyUpgradeable",
    .not_upgradeable_tag = "BuildQFpdDepCantUpgraded",
    .not_upgradeable = "FPD %s with Upgrade type %d can't be dependency upgraded ",
    .move_failed_tag = "BuildFpdDepUpgQueueMoveSeqQFail",
    .added_tag = "BuildFpdDepAddedSeqQueue",
    .marker_failed_tag = "AddFPDUpgMarkerFail2",
};

bool is_manufacturing_stage(UpgradeStage stage) {
    switch (stage) {
        case UpgradeStage::requires_golden_unlocked_primary:
        case UpgradeStage::can_unlock_golden:
        case UpgradeStage::manufacturing:
            return true;
        case UpgradeStage::regular:
        case UpgradeStage::dummy_minor:
        case UpgradeStage::dummy_major:
            return false;
    }
    return false;
}

/// Whether the FPD's upgrade type allows it to be upgraded in this stage; if not, it can't be upgraded.
bool check_upgrade_type(UpgradeStage stage, Fpd &fpd, const PassTexts &texts) {
    const std::uint8_t type = fpd.info.upgrade_type;
    if (type == upgrade_type_always) {
        log_debug({here, texts.upgradeable_tag}, texts.upgradeable, fpd.info.name);
        return true;
    }
    if (type == upgrade_type_mfg_only && is_manufacturing_stage(stage)) {
        log_debug({here, texts.mfg_upgradeable_tag}, "FPD %s is MFG Upgradeable", fpd.info.name);
        return true;
    }
    transition(fpd, FpdState::cant_be_upgraded);
    if (type == upgrade_type_mfg_only)
        log_debug({here, texts.mfg_only_tag}, "FPD %s with Upgrade type %d can only upgradeable in MFG", fpd.info.name,
                  type);
    else
        log_error({here, texts.not_upgradeable_tag}, texts.not_upgradeable, fpd.info.name, type);
    return false;
}

/// Plans the FPD into sequence queue # `seq`. Returns 0, also when it can't be upgraded there, or the result of a
/// failed addition to the marker.
int plan_fpd(const Planning &planning, Fpd &fpd, unsigned seq, const PassTexts &texts) {
    char *const err_msg = planning.err_msg;
    if (seq >= seq_queue_count) {
        log_error({here, "BuildQFpdSeqOutOfRange"}, "FPD %s sequence queue # %d is out of range", fpd.info.name,
                  static_cast<int>(seq));
        transition(fpd, FpdState::cant_be_upgraded);
        return 0;
    }
    if (enter_sequence_queue(planning.card, fpd, seq, err_msg, planning.err_len) != 0) {
        log_error({here, texts.move_failed_tag}, "FPD %s failed Move queue error %s", fpd.info.name, err_msg);
        transition(fpd, FpdState::cant_be_upgraded);
        return 0;
    }
    transition(fpd, FpdState::queued_for_upgrade);
    log_info({here, texts.added_tag}, "FPD %s would be upgrade in the sequence queue # %d", fpd.info.name,
             static_cast<int>(seq));
    const int rc = upg_marker_add_fpd(fpd, err_msg, planning.err_len);
    if (rc != 0)
        return pass_on({here, texts.marker_failed_tag}, rc, "Failed to add FPD %s into Upgrade Marker, error %s",
                       fpd.info.name, err_msg);
    return 0;
}

/// Whether the FPD is there and described well enough to be judged.
bool is_ready_for_planning(const Fpd &fpd) {
    if (fpd.state < FpdState::capability_received) {
        log_info({here, "BuildQFpdCapabilityNotAllowed"},
                 "FPD %s is not allowed to be auto upgraded in current upgrade level", fpd.info.name);
        return false;
    }
    if (fpd.state < FpdState::description_received) {
        log_info({here, "BuildQFpdNotReady"}, "FPD %s doesn't have a valid info or Description, state %s",
                 fpd.info.name, state_name(fpd.state));
        return false;
    }
    return true;
}

/// An FPD whose running version is too old to be upgraded by this tool.
bool is_too_old(Fpd &fpd) {
    if (fpd.desc.status != FPD_DESC_STATUS_REV_NOT_SUPPORTED) return false;
    char minimum[fpd_version_text_size];
    log_error({here, "BuildQRevNotSupportUpgrade"},
              "FPD %s current version %s doesn't support upgrade and supported version is %s and above", fpd.info.name,
              fpd.running_text, fpd_version_to_text(fpd.desc.minimum_version, minimum, sizeof minimum));
    transition(fpd, FpdState::cant_be_upgraded);
    return true;
}

/// An FPD that need not be upgraded by itself; another may still ask for it.
void leave_unplanned(Fpd &fpd) {
    const std::uint32_t programmed = fpd_version_packed(fpd.desc_req.programmed_version);
    const std::uint32_t packaged = fpd_version_packed(fpd.desc.packaged_version);
    if (programmed != packaged) {
        log_info({here, "BuildQFpdUpgAvailable"}, "FPD %s has minor down revision available swver 0x%x fwver 0x%x",
                 fpd.info.name, programmed, packaged);
        transition(fpd, FpdState::upgrade_available);
    } else {
        log_info({here, "BuildQFpdUpgNotNeeded"}, "FPD %s doesn't require an Upgrade", fpd.info.name);
        transition(fpd, FpdState::upgrade_not_needed);
    }
}

enum class Dependency {
    resolved,  // or there is none
    waiting,   // the FPD was moved to the tail, after what it depends on
    failed,
};

bool is_bad_dependency(FpdState state) {
    return state < FpdState::description_received || state == FpdState::cant_be_upgraded ||
           state == FpdState::dependency_failed || state == FpdState::upgrade_failed;
}

void refuse_circular(Fpd &fpd) {
    log_error({here, "BuildQFpdCircularDepend"}, "FPD %s has found a circular dependency FPD %s", fpd.info.name,
              fpd.desc.dependency);
    transition(fpd, FpdState::dependency_failed);
}

Dependency wait_for_dependency(const Planning &planning, Fpd &fpd) {
    FpdQueue &queue = planning.card.queues.fpd_queue;
    if (move_fpd_between_queue(&queue, &queue, &fpd, planning.err_msg, planning.err_len) != 0) {
        log_error({here, "BuildFpdUpgQueueMoveFail"}, "FPD %s failed Move queue error %s", fpd.info.name,
                  planning.err_msg);
        transition(fpd, FpdState::dependency_failed);
        return Dependency::failed;
    }
    log_info({here, "BuildQRevisitAfterDependFpd"}, "FPD %s would be revisted after dependency FPD %s resolved",
             fpd.info.name, fpd.dependency->info.name);
    return Dependency::waiting;
}

Dependency resolve_dependency(const Planning &planning, Fpd &fpd) {
    if (fpd.desc.dependency[0] == '\0') return Dependency::resolved;
    Fpd *const dep = get_fpd_by_name(planning.card.queues, fpd.desc.dependency, planning.err_msg, planning.err_len);
    if (!dep) {
        log_error({here, "BuildQFpdDependNotFound"},
                  "FPD %s has a Dependency FPD %s and couldn't find the dependency in the fpd queue", fpd.info.name,
                  fpd.desc.dependency);
        transition(fpd, FpdState::dependency_failed);
        return Dependency::failed;
    }
    fpd.dependency = dep;
    if (std::strcmp(dep->info.name, fpd.info.name) == 0) {
        refuse_circular(fpd);
        return Dependency::failed;
    }
    if (is_bad_dependency(dep->state)) {
        log_error({here, "BuildQDependFpdBad"}, "FPD %s can't be upgraded due to dependency FPD %s state %s",
                  fpd.info.name, dep->info.name, state_name(dep->state));
        transition(fpd, FpdState::dependency_failed);
        return Dependency::failed;
    }
    if (dep->state == FpdState::description_received) return wait_for_dependency(planning, fpd);
    if (dep->state == FpdState::upgrade_available) {
        log_info({here, "BuildQDepFpdUpgRequired"}, "FPD %s required corresponding dependent FPD %s to be upgraded",
                 fpd.info.name, dep->info.name);
        transition(*dep, FpdState::dependent_upgrade_required);
    }
    return Dependency::resolved;
}

/// The FPD's own sequence number, raised above that of what it depends on. Kept unbounded: the record holds 8 bits.
unsigned sequence_number(const Fpd &fpd) {
    const unsigned own = fpd.info.initial_seq;
    return fpd.dependency ? std::max(own, fpd.dependency->seq + 1U) : own;
}

/// Decides on one FPD of the first pass. *waiting: it has to be met again.
int plan_directly(const Planning &planning, Fpd &fpd, bool *waiting) {
    log_debug({here, "BuildFpdUpgQueue"}, "Constructing FPD %s for Upgrade", fpd.info.name);
    if (!is_ready_for_planning(fpd) || is_too_old(fpd)) return 0;
    fpd.seq = fpd.info.initial_seq;
    if (fpd.desc.need_upgrade == 0) {
        leave_unplanned(fpd);
        return 0;
    }
    const Dependency dependency = resolve_dependency(planning, fpd);
    *waiting = dependency == Dependency::waiting;
    if (dependency != Dependency::resolved) return 0;
    const unsigned seq = sequence_number(fpd);
    fpd.seq = static_cast<std::uint8_t>(std::min<unsigned>(seq, UINT8_MAX));
    if (!check_upgrade_type(planning.stage, fpd, direct_texts)) return 0;
    // A plan that is built anew over the same records meets those that were refused before.
    if (fpd.state != FpdState::description_received) return 0;
    return plan_fpd(planning, fpd, seq, direct_texts);
}

/// Those that still wait on one another wait for ever: their dependencies go round in a circle, or lead into one.
void refuse_undecided(const FpdQueue &queue) {
    for (Fpd *fpd = queue; fpd; fpd = fpd->next)
        if (fpd->state == FpdState::description_received) refuse_circular(*fpd);
}

/// First pass: what needs an upgrade itself.
int plan_needed(const Planning &planning) {
    const FpdQueue &queue = planning.card.queues.fpd_queue;
    // The first that had to wait since something was decided: met again, a whole lap has decided nothing.
    const Fpd *lap_start = nullptr;
    Fpd *next = nullptr;
    for (Fpd *fpd = queue; fpd && fpd != lap_start; fpd = next) {
        // Taken before the record may be moved to the tail, where the walk meets it again.
        next = fpd->next;
        const bool undecided = fpd->state == FpdState::description_received;
        bool waiting = false;
        const int rc = plan_directly(planning, *fpd, &waiting);
        if (rc != 0) return rc;
        if (waiting && !lap_start) lap_start = fpd;
        if (undecided && !waiting) lap_start = nullptr;
    }
    refuse_undecided(queue);
    return 0;
}

/// Second pass: what is upgraded only because another FPD depends on it.
int plan_dependencies(const Planning &planning) {
    Fpd *next = nullptr;
    for (Fpd *fpd = planning.card.queues.fpd_queue; fpd; fpd = next) {
        next = fpd->next;
        if (fpd->state != FpdState::dependent_upgrade_required) continue;
        if (!check_upgrade_type(planning.stage, *fpd, dependency_texts)) continue;
        const int rc = plan_fpd(planning, *fpd, fpd->seq, dependency_texts);
        if (rc != 0) return rc;
    }
    return 0;
}

}  // namespace

int build_upgrade_queue(UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const Planning planning{
        .run_level = RunLevel::boot, .stage = stage, .card = card, .err_msg = err_msg, .err_len = err_len};
    const int rc = plan_needed(planning);
    return rc != 0 ? rc : plan_dependencies(planning);
}
