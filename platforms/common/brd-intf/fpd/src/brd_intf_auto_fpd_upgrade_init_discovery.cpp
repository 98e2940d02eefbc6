/// Discovery and evaluation of every FPD region.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_init_planning.h"
#include "brd_platform_access.h"
#include "card_libraries.h"
#include "fpd_description.h"
#include "os_owner.h"

namespace {

constexpr LogModule here = planning_log;

}  // namespace

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
    rc = card_fpd_regions_get(group_id, obj_id, regions.get(), num_regions);
    if (rc != 0)
        return fail({here, "FpdNameGetRegionsFail"}, rc, err_msg, err_len, "BRD GET FPD Region failed rc %d", rc);
    std::snprintf(name, name_len, "%s", regions.get()[region].name);
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
    const int rc = card_fpd_info_get(group_id, fpd.obj_id, fpd.region, fpd.info, err_msg, err_len);
    if (rc != 0) return pass_on({here, "FpdInfoGetBrdFail"}, -EACCES, "Failed to get FPD info, error %s", err_msg);
    return make_versions(fpd, err_msg, err_len);
}

namespace {

bool another_has_the_name(const FpdQueue &queue, const Fpd &fpd) {
    for (const Fpd *each = queue; each; each = each->next)
        if (each != &fpd && std::strcmp(each->info.name, fpd.info.name) == 0) return true;
    return false;
}

/// Whether another record of the card has the FPD's name.
bool is_taken(const FpdCardQueues &queues, const Fpd &fpd) {
    bool taken = another_has_the_name(queues.fpd_queue, fpd);
    for (const FpdQueue &queue : queues.seq_queues) taken = taken || another_has_the_name(queue, fpd);
    return taken;
}

}  // namespace

int fpd_info_refresh(const LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    char known_name[sizeof fpd.info.name];
    std::memcpy(known_name, fpd.info.name, sizeof known_name);
    const int rc = fpd_info_get(card.group_id, fpd, err_msg, err_len);
    // The known name is no other's: only a new one need be looked for.
    if (std::string_view(fpd.info.name) == known_name || !is_taken(card.queues, fpd)) return rc;
    const int duplicate =
        rc != 0 ? rc : fail_unlogged(-EEXIST, err_msg, err_len, "Duplicate FPD %s found", fpd.info.name);
    std::memcpy(fpd.info.name, known_name, sizeof known_name);
    return duplicate;
}

namespace {

/// Whether this run passes the FPD over by its capabilities.
bool skipped_by_capability(const Planning &planning, const Fpd &fpd) {
    const UpgradeStage stage = planning.stage;
    const char *const name = fpd.info.name;
    if (fpd.capabilities & FPD_CAPABILITY_NO_AUTO_UPGRADE) {
        log_info({here, "InitFpdSkipAutoFpdUpgNotSupported"}, "FPD %s Auto upgrade is not supported", name);
        return true;
    }
    if (planning.run_level == RunLevel::boot && !(fpd.capabilities & FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE)) {
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

void fill_description_request(const Planning &planning, Fpd &fpd) {
    FpdDescRequest &request = fpd.desc_req;
    fpd_desc_init(request);
    request.board_type = planning.card.board_type;
    request.hw_version = planning.card.hw_version;
    request.programmed_version = fpd.programmed_version;
    request.running_version = fpd.running_version;
    std::string_view(fpd.info.name).copy(request.name, sizeof request.name - 1);
    request.info_flag = fpd.info.info_flag;
    request.upgrade_type = stage_upgrade_type(planning.stage);
}

/// Asks the description library for the packaged image and its verdict.
int get_description(const Planning &planning, Fpd &fpd) {
    fpd_desc_init(fpd.desc);
    const int rc = card_fpd_description_get(fpd.desc_req, fpd.desc, planning.err_msg, planning.err_len);
    if (rc != 0)
        return pass_on({here, "InitFpdDescFail"}, rc, "Does not have a Firmware packaged for FPD %s err_msg %s",
                       fpd.info.name, planning.err_msg);
    return 0;
}

int validate_image(const Planning &planning, const Fpd &fpd) {
    log_info({here, "InitMd5CalInfo"}, "FPD: %s Dir: %s Image: %s MD5: %s", fpd.info.name, packaged_firmware_directory,
             fpd.desc.image, fpd.desc.md5);
    const int rc = card_fpd_image_validate(packaged_firmware_directory, fpd.desc, planning.err_msg, planning.err_len);
    if (rc != 0)
        return pass_on({here, "InitFpdMd5SumFailed"}, rc, "md5 checksum validation failed, %s", planning.err_msg);
    return 0;
}

/// Evaluates a discovered FPD for the stage; what comes of it is its state.
void evaluate_fpd(const Planning &planning, Fpd &fpd) {
    const LocalCard &card = planning.card;
    fpd.capabilities = get_fpd_capability_info(fpd.info.name, card.board_type, card.hw_version);
    transition(fpd, FpdState::capability_received);
    log_debug({here, "InitFpdCapabilities"}, "FPD %s capabilities 0x%x", fpd.info.name, fpd.capabilities);
    if (skipped_by_capability(planning, fpd)) return;

    if (fpd_info_refresh(card, fpd, planning.err_msg, planning.err_len) != 0) {
        log_error({here, "InitFpdInfoGetFail"}, "Failed to get FPD info, error %s", planning.err_msg);
        transition(fpd, FpdState::info_get_failed);
        return;
    }
    transition(fpd, FpdState::info_received);
    fill_description_request(planning, fpd);
    if (get_description(planning, fpd) != 0 || validate_image(planning, fpd) != 0) {
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

/// Makes the record of one region, puts it into fpd_queue and evaluates it. -ENOMEM; a region that has no name, or a
/// known one, is no failure.
int load_region(const Planning &planning, std::uint32_t obj_id, std::uint8_t region) {
    LocalCard &card = planning.card;
    char *const err_msg = planning.err_msg;
    Fpd *const fpd = alloc_fpd(err_msg, planning.err_len);
    if (!fpd) return pass_on({here, "InitNewFpdNoMem"}, -ENOMEM, "Failed to create new FPD err_msg %s", err_msg);
    fpd->obj_id = obj_id;
    fpd->region = region;
    transition(*fpd, FpdState::initialized);
    if (get_fpd_name(card.group_id, obj_id, region, fpd->info.name, sizeof fpd->info.name, err_msg, planning.err_len) !=
        0) {
        log_error({here, "InitFpdGetNameFail"}, "Failed to get FPD name for group id %d fpd obj id %d region %d",
                  static_cast<int>(card.group_id), static_cast<int>(obj_id), region);
        transition(*fpd, FpdState::capability_get_failed);
        free_fpd(fpd);
        return 0;
    }
    if (add_fpd_queue(&card.queues.fpd_queue, fpd, err_msg, planning.err_len) != 0) {
        log_error({here, "InitFpdAddQFail"}, "Failed to add FPD into upg_queue.queue err_msg %s", err_msg);
        free_fpd(fpd);
        return 0;
    }
    evaluate_fpd(planning, *fpd);
    return 0;
}

/// Loads every region of one FPD object. -ENOMEM.
int load_fpd_object(const Planning &planning, std::uint32_t obj_id) {
    const std::uint32_t group_id = planning.card.group_id;
    std::uint8_t num_regions = 0;
    if (brd_fpd_num_regions_get(group_id, obj_id, &num_regions) != 0) {
        log_error({here, "LoadFpdsBrdNumRegionGetFail"}, "Failed to get No. of Regions for group id %d fpd obj id %d",
                  static_cast<int>(group_id), static_cast<int>(obj_id));
        return 0;
    }
    for (unsigned region = 0; region < num_regions; ++region) {
        const int rc = load_region(planning, obj_id, static_cast<std::uint8_t>(region));
        if (rc != 0) return rc;
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
    const Planning planning{
        .run_level = run_level, .stage = stage, .card = card, .err_msg = err_msg, .err_len = err_len};
    for (std::uint32_t i = 0; i < count; ++i) {
        const int rc = load_fpd_object(planning, ids.get()[i]);
        if (rc != 0) return rc;
    }
    return 0;
}
