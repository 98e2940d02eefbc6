#include "brd_intf_auto_fpd_upgrade_init.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "brd_intf_auto_fpd_bootstrap.h"
#include "brd_intf_auto_fpd_upgrade_brd.h"
#include "brd_intf_auto_fpd_upgrade_led.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"
#include "os_owner.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

bool interface_initialised = false;

}  // namespace

// The context of one run ---------------------------------------------------------------------------------------------

namespace {

int format_mq_name(LocalCard &card, char *err_msg, std::size_t err_len) {
    const int length = std::snprintf(card.mq_name, sizeof card.mq_name, "%s_localcard", fpd_mq_base_name);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof card.mq_name) return 0;
    return fail({here, "InitLocalCardTruncatedName"}, -EACCES, err_msg, err_len,
                "Truncates Auto FPD Upgrade message queue name %s, error %s", fpd_mq_base_name, std::strerror(errno));
}

int read_hw_version(LocalCard &card, char *err_msg, std::size_t err_len) {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    const int rc = bootstrap_hw_version_get(&major, &minor);
    if (rc != 0)
        return fail({here, "InitLocalCardPlatHwVerFail"}, -EACCES, err_msg, err_len,
                    "Local Card Platform card HW version get failed %d", rc);
    if (!fpd_version_make(major, minor, 0, &card.hw_version))
        return fail({here, "InitLocalCardHWVerMakeFail"}, -EACCES, err_msg, err_len,
                    "Local Card Failed to make fpd_version for HW major 0x%x minor ox%x", major, minor);
    return 0;
}

int prepare_card(LocalCard &card, char *err_msg, std::size_t err_len) {
    int rc = brd_card_init();
    if (rc != 0)
        return fail({here, "InitLocalCardBrdIntfInitFail"}, -EACCES, err_msg, err_len, "BRD init failed rc %d", rc);
    const int group_rc = brd_local_card_group_id_get(&card.group_id);
    if (group_rc != 0)
        return fail({here, "InitLocalCardGetBrdGrpIdFail"}, -EACCES, err_msg, err_len,
                    "Local Card BRD group get get failed %d", group_rc);
    rc = bootstrap_card_type_get(&card.board_type);
    if (rc != 0)
        return fail({here, "InitLocalCardPlatBoardTypeFail"}, -EACCES, err_msg, err_len,
                    "Local Card Platform HW board type get failed %d", rc);
    rc = read_hw_version(card, err_msg, err_len);
    if (rc != 0) return rc;
    // The text is that of the group id, and so is the number in it.
    if (upg_led_init(card.group_id, &card.led_obj_id, err_msg, err_len) != 0)
        return fail({here, "InitLocalCardGetLedBrdObjIdFail"}, -EACCES, err_msg, err_len,
                    "Local Card BRD group get get failed %d", group_rc);
    return 0;
}

}  // namespace

// Once per process, and before anything else of the platform is used; the front end would tell a failure.
int platform_interface_init() {
    interface_initialised = true;
    return interface_initialised ? 0 : -EACCES;
}

int context_init(LocalCard **card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    Allocated<LocalCard> made(static_cast<LocalCard *>(std::calloc(1, sizeof(LocalCard))));
    if (!made)
        return fail({here, "InitLocalCardMallocFail"}, -ENOMEM, err_msg, err_len,
                    "Initialize local card calloc() failed %s", std::strerror(errno));
    made->mq = -1;
    int rc = format_mq_name(*made, err_msg, err_len);
    if (rc == 0) rc = prepare_card(*made, err_msg, err_len);
    if (rc == 0) *card = made.release();
    return rc;
}

int context_deinit(LocalCard **card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    std::free(*card);
    *card = nullptr;
    return 0;
}

int free_queues(LocalCard &card) {
    if (card.queues.fpd_queue) free_fpd_queue(&card.queues.fpd_queue);
    for (FpdQueue &queue : card.queues.seq_queues)
        if (queue) free_fpd_queue(&queue);
    card.planned_count = 0;
    return 0;
}

// Discovery and evaluation of every FPD region ------------------------------------------------------------------------

int get_fpd_name(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t region, char *name, std::size_t name_len,
                 char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    std::uint8_t num_regions = 0;
    int rc = brd_fpd_num_regions_get(group_id, obj_id, &num_regions);
    if (rc != 0)
        return fail({here, "FpdNamgeGetNumRegionFail"}, rc, err_msg, err_len, "BRD GET FPD num of region failed rc %d",
                    rc);
    if (region >= num_regions)
        return fail({here, "FpdNameInvalidRegion"}, -EINVAL, err_msg, err_len, "Invalid region %d num_regions %d",
                    region, num_regions);
    const Allocated<BrdFpdRegion> regions(static_cast<BrdFpdRegion *>(std::calloc(num_regions, sizeof(BrdFpdRegion))));
    if (!regions) return fail({here, "FpdNameGetMallocFail"}, -ENOMEM, err_msg, err_len, "Memory alloc failed");
    rc = brd_fpd_regions_get(group_id, obj_id, regions.get(), num_regions);
    if (rc != 0)
        return fail({here, "FpdNameGetRegionsFail"}, rc, err_msg, err_len, "BRD GET FPD Region failed rc %d", rc);
    const BrdFpdRegion &wanted = regions.get()[region];
    std::snprintf(name, name_len, "%.*s", static_cast<int>(sizeof wanted.name), wanted.name);
    return 0;
}

namespace {

int make_versions(Fpd &fpd, char *err_msg, std::size_t err_len) {
    const BrdFpdInfo &info = fpd.info;
    if (!fpd_version_make(info.programmed_major, info.programmed_minor, info.programmed_debug, &fpd.programmed_version))
        return fail({here, "InfoGetMakeFpdVerFail"}, -EACCES, err_msg, err_len,
                    "Failed to make FPD Programmed version for name %s major 0x%x minor 0x%x debug 0x%x", info.name,
                    info.programmed_major, info.programmed_minor, info.programmed_debug);
    fpd_version_to_text(fpd.programmed_version, fpd.programmed_text, sizeof fpd.programmed_text);
    if (!fpd_version_make(info.running_major, info.running_minor, info.running_debug, &fpd.running_version))
        return fail({here, "InfoGetMakeFpdRunVerFail"}, -EACCES, err_msg, err_len,
                    "Failed to make FPD Running version for name %s major 0x%x minor 0x%x debug 0x%x", info.name,
                    info.running_major, info.running_minor, info.running_debug);
    fpd_version_to_text(fpd.running_version, fpd.running_text, sizeof fpd.running_text);
    return 0;
}

}  // namespace

int fpd_info_get(std::uint32_t group_id, Fpd &fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    // Into a record of its own, so that a failed call leaves the FPD its name.
    BrdFpdInfo info{};
    std::memcpy(info.name, fpd.info.name, sizeof info.name);
    const int rc = brd_fpd_info_get(group_id, fpd.obj_id, fpd.region, &info, err_msg, err_len);
    terminate_error(err_msg, err_len);
    if (rc != 0) return pass_on({here, "FpdInfoGetBrdFail"}, -EACCES, "Failed to get FPD info, error %s", err_msg);
    info.name[sizeof info.name - 1] = '\0';
    fpd.info = info;
    return make_versions(fpd, err_msg, err_len);
}

namespace {

bool another_has_the_name(const FpdQueue &queue, const Fpd &fpd) {
    for (const Fpd *each = queue; each; each = each->next)
        if (each != &fpd && std::strcmp(each->info.name, fpd.info.name) == 0) return true;
    return false;
}

}  // namespace

int fpd_info_refresh(const LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    char known_name[sizeof fpd.info.name];
    std::memcpy(known_name, fpd.info.name, sizeof known_name);
    const int rc = fpd_info_get(card.group_id, fpd, err_msg, err_len);
    bool taken = another_has_the_name(card.queues.fpd_queue, fpd);
    for (const FpdQueue &queue : card.queues.seq_queues) taken = taken || another_has_the_name(queue, fpd);
    if (!taken) return rc;
    const int duplicate =
        rc != 0 ? rc : fail_unlogged(-EEXIST, err_msg, err_len, "Duplicate FPD %s found", fpd.info.name);
    std::memcpy(fpd.info.name, known_name, sizeof known_name);
    return duplicate;
}

namespace {

/// Whether this run passes the FPD over by its capabilities.
bool skipped_by_capability(RunLevel run_level, UpgradeStage stage, const Fpd &fpd) {
    const char *const name = fpd.info.name;
    if (fpd.capabilities & FPD_CAPABILITY_NO_AUTO_UPGRADE) {
        log_info({here, "InitFpdSkipAutoFpdUpgNotSupported"}, "FPD %s Auto upgrade is not supported", name);
        return true;
    }
    if (run_level == RunLevel::boot && !(fpd.capabilities & FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE)) {
        log_info({here, "InitFpdSkipAutoFpdUpgNotBootUp"}, "FPD %s Bootup Auto upgrade is not supported", name);
        return true;
    }
    if (stage == UpgradeStage::requires_golden_unlocked_primary &&
        !(fpd.capabilities & FPD_CAPABILITY_REQUIRES_GOLDEN_UNLOCKED_PRIMARY)) {
        log_info({here, "InitFpdSkipNotAUpgdReqGoldenUnlockPrimary"},
                 "FPD upgrade stage %s is looking for FPDs that are required Golden unlock primary and FPD %s is not "
                 "marked for this stage",
                 stage_name(stage), name);
        return true;
    }
    if (stage == UpgradeStage::can_unlock_golden && !(fpd.capabilities & FPD_CAPABILITY_CAN_UNLOCK_GOLDEN)) {
        log_info({here, "InitFpdSkipNotACanUnlockGolden"},
                 "FPD upgrade stage %s is looking for FPDs that can unlock Golden and FPD %s is not marked for this",
                 stage_name(stage), name);
        return true;
    }
    return false;
}

void fill_description_request(const LocalCard &card, UpgradeStage stage, Fpd &fpd) {
    FpdDescRequest &request = fpd.desc_req;
    fpd_desc_init(request);
    request.board_type = card.board_type;
    request.hw_version = card.hw_version;
    request.programmed_version = fpd.programmed_version;
    request.running_version = fpd.running_version;
    std::snprintf(request.name, sizeof request.name, "%.*s", static_cast<int>(sizeof request.name - 1), fpd.info.name);
    request.info_flag = fpd.info.info_flag;
    request.upgrade_type = stage_upgrade_type(stage);
}

/// Asks the description library for the packaged image and its verdict.
int get_description(Fpd &fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    fpd_desc_init(fpd.desc);
    // Only the low 8 bits of the library's result count.
    const auto rc = static_cast<std::uint8_t>(check_and_get_upgrade_image(&fpd.desc_req, &fpd.desc, err_msg, err_len));
    terminate_error(err_msg, err_len);
    fpd.desc.dependency[sizeof fpd.desc.dependency - 1] = '\0';
    fpd.desc.image[sizeof fpd.desc.image - 1] = '\0';
    fpd.desc.md5[sizeof fpd.desc.md5 - 1] = '\0';
    if (rc != 0)
        return pass_on({here, "InitFpdDescFail"}, rc, "Does not have a Firmware packaged for FPD %s err_msg %s",
                       fpd.info.name, err_msg);
    return 0;
}

int validate_image(const Fpd &fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    log_info({here, "InitMd5CalInfo"}, "FPD: %s Dir: %s Image: %s MD5: %s", fpd.info.name, packaged_firmware_directory,
             fpd.desc.image, fpd.desc.md5);
    const int rc =
        brd_intf_fpd_image_md5_validate(packaged_firmware_directory, fpd.desc.image, fpd.desc.md5, err_msg, err_len);
    terminate_error(err_msg, err_len);
    if (rc != 0) return pass_on({here, "InitFpdMd5SumFailed"}, rc, "md5 checksum validation failed, %s", err_msg);
    return 0;
}

/// Evaluates a discovered FPD for the stage; what comes of it is its state.
void evaluate_fpd(RunLevel run_level, UpgradeStage stage, const LocalCard &card, Fpd &fpd, char *err_msg,
                  std::size_t err_len) {
    fpd.capabilities = get_fpd_capability_info(fpd.info.name, card.board_type, card.hw_version);
    transition(fpd, FpdState::capability_received);
    log_debug({here, "InitFpdCapabilities"}, "FPD %s capabilities 0x%x", fpd.info.name, fpd.capabilities);
    if (skipped_by_capability(run_level, stage, fpd)) return;

    if (fpd_info_refresh(card, fpd, err_msg, err_len) != 0) {
        log_error({here, "InitFpdInfoGetFail"}, "Failed to get FPD info, error %s", err_msg);
        transition(fpd, FpdState::info_get_failed);
        return;
    }
    transition(fpd, FpdState::info_received);
    fill_description_request(card, stage, fpd);
    if (get_description(fpd, err_msg, err_len) != 0 || validate_image(fpd, err_msg, err_len) != 0) {
        transition(fpd, FpdState::description_failed);
        return;
    }
    fpd_version_to_text(fpd.desc.packaged_version, fpd.packaged_text, sizeof fpd.packaged_text);
    log_info({here, "InitFpdVerion"},
             "FPD %s run version %s program verson %s packaged version %s need_upgrade %d status_msg %s", fpd.info.name,
             fpd.running_text, fpd.programmed_text, fpd.packaged_text, fpd.desc.need_upgrade,
             fpd.desc.status_msg ? fpd.desc.status_msg : "");
    transition(fpd, FpdState::description_received);
}

/// Makes the record of one region and puts it into fpd_queue. -ENOMEM; a region that has no name or a known one is no
/// failure: *fpd is null then.
int discover_fpd(LocalCard &card, std::uint32_t obj_id, std::uint8_t region, Fpd **fpd, char *err_msg,
                 std::size_t err_len) {
    *fpd = nullptr;
    Fpd *const made = alloc_fpd(err_msg, err_len);
    if (!made) return pass_on({here, "InitNewFpdNoMem"}, -ENOMEM, "Failed to create new FPD err_msg %s", err_msg);
    made->obj_id = obj_id;
    made->region = region;
    transition(*made, FpdState::initialized);
    if (get_fpd_name(card.group_id, obj_id, region, made->info.name, sizeof made->info.name, err_msg, err_len) != 0) {
        log_error({here, "InitFpdGetNameFail"}, "Failed to get FPD name for group id %d fpd obj id %d region %d",
                  static_cast<int>(card.group_id), static_cast<int>(obj_id), region);
        transition(*made, FpdState::capability_get_failed);
        free_fpd(made);
        return 0;
    }
    if (add_fpd_queue(&card.queues.fpd_queue, made, err_msg, err_len) != 0) {
        log_error({here, "InitFpdAddQFail"}, "Failed to add FPD into upg_queue.queue err_msg %s", err_msg);
        free_fpd(made);
        return 0;
    }
    *fpd = made;
    return 0;
}

/// Loads every region of one FPD object. -ENOMEM.
int load_fpd_object(RunLevel run_level, UpgradeStage stage, LocalCard &card, std::uint32_t obj_id, char *err_msg,
                    std::size_t err_len) {
    std::uint8_t num_regions = 0;
    if (brd_fpd_num_regions_get(card.group_id, obj_id, &num_regions) != 0) {
        log_error({here, "LoadFpdsBrdNumRegionGetFail"}, "Failed to get No. of Regions for group id %d fpd obj id %d",
                  static_cast<int>(card.group_id), static_cast<int>(obj_id));
        return 0;
    }
    for (unsigned region = 0; region < num_regions; ++region) {
        Fpd *fpd = nullptr;
        const int rc = discover_fpd(card, obj_id, static_cast<std::uint8_t>(region), &fpd, err_msg, err_len);
        if (rc != 0) return rc;
        if (fpd) evaluate_fpd(run_level, stage, card, *fpd, err_msg, err_len);
    }
    return 0;
}

}  // namespace

int load_fpds(RunLevel run_level, UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    std::uint32_t count = 0;
    if (brd_group_fpd_num_fpds_get(card.group_id, &count) != 0)
        return fail({here, "LoadFpdsNumFpdsGetFail"}, -EACCES, err_msg, err_len,
                    "Failed to get No. of FPDs for group id %d", static_cast<int>(card.group_id));
    if (count == 0) {
        log_info({here, "LoadFpdsNoFpds"}, "No FPDs Defined");
        return fail_unlogged(0, err_msg, err_len, "No FPDs Defined");
    }
    const Allocated<std::uint32_t> ids(static_cast<std::uint32_t *>(std::calloc(count, sizeof(std::uint32_t))));
    if (!ids) return fail({here, "LoadFpdsMemoryNotAvail"}, -ENOMEM, err_msg, err_len, "Memory alloc failed");
    if (brd_group_fpd_obj_id_list_get(card.group_id, ids.get()) != 0)
        return fail({here, "LoadFpdsBrdObjGetFail"}, -EACCES, err_msg, err_len, "Failed to get FPD object ids");
    for (std::uint32_t i = 0; i < count; ++i) {
        const int rc = load_fpd_object(run_level, stage, card, ids.get()[i], err_msg, err_len);
        if (rc != 0) return rc;
    }
    return 0;
}

// Construction of the sequence queues ---------------------------------------------------------------------------------

namespace {

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
int plan_fpd(LocalCard &card, Fpd &fpd, unsigned seq, const PassTexts &texts, char *err_msg, std::size_t err_len) {
    if (seq >= seq_queue_count) {
        log_error({here, "BuildQFpdSeqOutOfRange"}, "FPD %s sequence queue # %d is out of range", fpd.info.name,
                  static_cast<int>(seq));
        transition(fpd, FpdState::cant_be_upgraded);
        return 0;
    }
    if (enter_sequence_queue(card, fpd, seq, err_msg, err_len) != 0) {
        log_error({here, texts.move_failed_tag}, "FPD %s failed Move queue error %s", fpd.info.name, err_msg);
        transition(fpd, FpdState::cant_be_upgraded);
        return 0;
    }
    transition(fpd, FpdState::queued_for_upgrade);
    log_info({here, texts.added_tag}, "FPD %s would be upgrade in the sequence queue # %d", fpd.info.name,
             static_cast<int>(seq));
    const int rc = upg_marker_add_fpd(fpd, err_msg, err_len);
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
    waiting,   // the FPD was moved to the tail, behind what it depends on
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

Dependency wait_for_dependency(LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    if (move_fpd_between_queue(&card.queues.fpd_queue, &card.queues.fpd_queue, &fpd, err_msg, err_len) != 0) {
        log_error({here, "BuildFpdUpgQueueMoveFail"}, "FPD %s failed Move queue error %s", fpd.info.name, err_msg);
        transition(fpd, FpdState::dependency_failed);
        return Dependency::failed;
    }
    log_info({here, "BuildQRevisitAfterDependFpd"}, "FPD %s would be revisted after dependency FPD %s resolved",
             fpd.info.name, fpd.dependency->info.name);
    return Dependency::waiting;
}

Dependency resolve_dependency(LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    if (fpd.desc.dependency[0] == '\0') return Dependency::resolved;
    Fpd *const dep = get_fpd_by_name(card.queues, fpd.desc.dependency, err_msg, err_len);
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
    if (dep->state == FpdState::description_received) return wait_for_dependency(card, fpd, err_msg, err_len);
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
int plan_directly(UpgradeStage stage, LocalCard &card, Fpd &fpd, bool *waiting, char *err_msg, std::size_t err_len) {
    *waiting = false;
    log_debug({here, "BuildFpdUpgQueue"}, "Constructing FPD %s for Upgrade", fpd.info.name);
    if (!is_ready_for_planning(fpd) || is_too_old(fpd)) return 0;
    fpd.seq = fpd.info.initial_seq;
    if (fpd.desc.need_upgrade == 0) {
        leave_unplanned(fpd);
        return 0;
    }
    const Dependency dependency = resolve_dependency(card, fpd, err_msg, err_len);
    *waiting = dependency == Dependency::waiting;
    if (dependency != Dependency::resolved) return 0;
    const unsigned seq = sequence_number(fpd);
    fpd.seq = static_cast<std::uint8_t>(std::min<unsigned>(seq, UINT8_MAX));
    if (!check_upgrade_type(stage, fpd, direct_texts)) return 0;
    // A plan that is built anew over the same records meets those that were refused before.
    if (fpd.state != FpdState::description_received) return 0;
    return plan_fpd(card, fpd, seq, direct_texts, err_msg, err_len);
}

/// Those that still wait on one another wait for ever: their dependencies go round in a circle, or lead into one.
void refuse_undecided(const FpdQueue &queue) {
    for (Fpd *fpd = queue; fpd; fpd = fpd->next)
        if (fpd->state == FpdState::description_received) refuse_circular(*fpd);
}

/// First pass: what needs an upgrade itself.
int plan_needed(UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len) {
    // The first that had to wait since something was decided: met again, a whole lap has decided nothing.
    const Fpd *lap_start = nullptr;
    Fpd *next = nullptr;
    for (Fpd *fpd = card.queues.fpd_queue; fpd && fpd != lap_start; fpd = next) {
        // Taken before the record may be moved to the tail, where the walk meets it again.
        next = fpd->next;
        const bool undecided = fpd->state == FpdState::description_received;
        bool waiting = false;
        const int rc = plan_directly(stage, card, *fpd, &waiting, err_msg, err_len);
        if (rc != 0) return rc;
        if (waiting && !lap_start) lap_start = fpd;
        if (undecided && !waiting) lap_start = nullptr;
    }
    refuse_undecided(card.queues.fpd_queue);
    return 0;
}

/// Second pass: what is upgraded only because another FPD depends on it.
int plan_dependencies(UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len) {
    Fpd *next = nullptr;
    for (Fpd *fpd = card.queues.fpd_queue; fpd; fpd = next) {
        next = fpd->next;
        if (fpd->state != FpdState::dependent_upgrade_required) continue;
        if (!check_upgrade_type(stage, *fpd, dependency_texts)) continue;
        const int rc = plan_fpd(card, *fpd, fpd->seq, dependency_texts, err_msg, err_len);
        if (rc != 0) return rc;
    }
    return 0;
}

}  // namespace

int build_upgrade_queue(UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const int rc = plan_needed(stage, card, err_msg, err_len);
    return rc != 0 ? rc : plan_dependencies(stage, card, err_msg, err_len);
}

// Stages of the stored upgrade mode -----------------------------------------------------------------------------------

namespace {

int build_stage(RunLevel run_level, UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len) {
    int rc = load_fpds(run_level, stage, card, err_msg, err_len);
    if (rc != 0) return pass_on({here, "LoadFpdsFail"}, rc, "Initializing FPDs failed err_msg %s", err_msg);
    rc = build_upgrade_queue(stage, card, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "BuildingFpdQueueFail"}, rc, "Constructing FPD Upgrade queue failed err_msg %s", err_msg);
    return 0;
}

int clean_stage(LocalCard &card, char *err_msg, std::size_t err_len) {
    const int rc = free_queues(card);
    if (rc != 0)
        return fail({here, "FpdUpgdStageCleanupDeinitFpdFail"}, rc, err_msg, err_len, "Failed to deinit fpd queues");
    // Nothing of a discarded plan may be written.
    upg_marker_release();
    return 0;
}

int build_golden_stage(RunLevel run_level, UpgradeStage stage, LogSite failure_site, LocalCard &card, char *err_msg,
                       std::size_t err_len) {
    const int rc = build_stage(run_level, stage, card, err_msg, err_len);
    if (rc != 0)
        return pass_on(failure_site, rc, "FPD Upgrade stage %s check failed to build fpd upgrade, error %s",
                       stage_name(stage), err_msg);
    return 0;
}

/// A locked Golden image has to be unlocked by one run before another can install the manufacturing firmware.
int plan_manufacturing(RunLevel run_level, LocalCard &card, char *err_msg, std::size_t err_len) {
    constexpr UpgradeStage stage_1a = UpgradeStage::requires_golden_unlocked_primary;
    int rc = build_golden_stage(run_level, stage_1a, {here, "FpdUpgdStageCheckReqGlndUnlckPrimaryFail"}, card, err_msg,
                                err_len);
    if (rc != 0) return rc;
    if (card.planned_count == 0) return build_stage(run_level, stage_1a, card, err_msg, err_len);

    log_debug({here, "FpdUpgdStageReqGoldenUnlock"}, "Building FPDs to unlock Golden");
    rc = clean_stage(card, err_msg, err_len);
    if (rc != 0) return pass_on({here, "FpdUpgdStageCleanUpFail"}, rc, "Failed to clean Stage 1.a) fpd upgrade");
    rc = build_golden_stage(run_level, UpgradeStage::can_unlock_golden,
                            {here, "FpdUpgdStageCheckCanUnlckGlndUnlckFail"}, card, err_msg, err_len);
    if (rc != 0 || card.planned_count != 0) return rc;

    rc = clean_stage(card, err_msg, err_len);
    if (rc != 0) return pass_on({here, "FpdUpgdStage1BCleanUpFail"}, rc, "Failed to clean Stage 1.b) fpd upgrade");
    return build_stage(run_level, UpgradeStage::manufacturing, card, err_msg, err_len);
}

}  // namespace

int plan_upgrade(RunLevel run_level, LocalCard &card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    int mode = 0;
    const int rc = brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&mode, err_msg, err_len);
    terminate_error(err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "FpdUpgdCookieGetModeFail"}, rc, "Failed to get FPD Upgrade Mode, error %s", err_msg);
    switch (static_cast<UpgradeMode>(mode)) {
        case UpgradeMode::regular:
            return build_stage(run_level, UpgradeStage::regular, card, err_msg, err_len);
        case UpgradeMode::manufacturing:
            return plan_manufacturing(run_level, card, err_msg, err_len);
        case UpgradeMode::dummy_minor_version:
            return build_stage(run_level, UpgradeStage::dummy_minor, card, err_msg, err_len);
        case UpgradeMode::dummy_major_version:
            return build_stage(run_level, UpgradeStage::dummy_major, card, err_msg, err_len);
    }
    return fail({here, "FpdUpgdModeUnknown"}, EINVAL, err_msg, err_len, "Unknown FPD Upgrade mode %d", mode);
}

int interface_init(RunLevel run_level, LocalCard &card, char *err_msg, std::size_t err_len) {
    const int rc = create_fpd_mq(card.mq_name, &card.mq, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "InitMQFail"}, rc, "Initializing Auto FPD Upgrade msg queue failed err_msg %s", err_msg);
    return plan_upgrade(run_level, card, err_msg, err_len);
}

int interface_deinit(LocalCard &card, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    int rc = free_queues(card);
    if (rc != 0) return fail({here, "DeinitFpdFail"}, rc, err_msg, err_len, "Deinitializing FPDs failed");
    rc = delete_fpd_mq(card.mq_name, &card.mq, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "DeinitFpdMQFail"}, rc, "Deinitializing FPD msg queue failed err_msg %s", err_msg);
    return 0;
}
