#include "message_table.h"

#include <algorithm>

namespace fpd_log {
namespace {

using enum Meaning;

constexpr std::size_t conversion_length(std::string_view format) {
    for (const std::string_view conversion : {"%s", "%d", "%ld", "%x", "%p"})
        if (format.starts_with(conversion)) return conversion.size();
    return 0;
}

constexpr Message rows[] = {
    // bootstrap file
    {"BootstrapFileNotFound", "Bootstrap File %s is not found error %s", start_note, nobody},
    {"BootstrapFileOpenFail", "Bootstrap File %s is not found error %s", start_note, nobody},
    {"KeyLengthTooLong", "Failed parsing, key length is too long", start_note, nobody},
    {"FieldisNotFound", "Bootstrp field %s is not found", start_note, nobody},
    // card platform
    {"BoardTypeGetFail", "Failed to get Card Board Type", start_note, nobody},
    {"BrdInitGroupTypeGetFail", "Failed to get Card BRD Group Type rc %d", start_note, nobody},
    {"BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc %d", start_note, nobody},
    {"BrdInitPdSlotNumGetFail", "Failed to get PD slot num rc %d", start_note, nobody},
    {"BrdInitMyCardPIDGetFail", "Failed to get my Card PID rc %d", start_note, nobody},
    {"BrdInitHwBoardTyepGetFail", "Failed to get HW Board Type Type", start_note, nobody},
    // configuration
    {"BrdIntfFpdUpgCfg", "BRD interface auto FPD upgrade config get failed err_msg %s", config_failed, nobody},
    {"AutoFpdUpgCfgNotEna", "Auto FPD Upgrade is not enabled on the system", disabled, nobody},
    // context, discovery, evaluation, construction, stages
    {"InitLocalCardMallocFail", "Initialize local card calloc() failed %s", start_failed, nobody},
    {"InitLocalCardTruncatedName", "Truncates Auto FPD Upgrade message queue name %s, error %s", start_note, nobody},
    {"InitLocalCardBrdIntfInitFail", "BRD init failed rc %d", start_failed, nobody},
    {"InitLocalCardGetBrdGrpIdFail", "Local Card BRD group get get failed %d", start_failed, nobody},
    {"InitLocalCardPlatBoardTypeFail", "Local Card Platform HW board type get failed %d", start_failed, nobody},
    {"InitLocalCardPlatHwVerFail", "Local Card Platform card HW version get failed %d", start_failed, nobody},
    {"InitLocalCardHWVerMakeFail", "Local Card Failed to make fpd_version for HW major 0x%x minor ox%x", start_failed,
     nobody},
    {"InitLocalCardGetLedBrdObjIdFail", "Local Card BRD group get get failed %d", start_failed, nobody},
    {"FpdNamgeGetNumRegionFail", "BRD GET FPD num of region failed rc %d", note, nobody},
    {"FpdNameInvalidRegion", "Invalid region %d num_regions %d", note, nobody},
    {"FpdNameGetMallocFail", "Memory alloc failed", note, nobody},
    {"FpdNameGetRegionsFail", "BRD GET FPD Region failed rc %d", note, nobody},
    {"LoadFpdsNumFpdsGetFail", "Failed to get No. of FPDs for group id %d", run_failed, nobody},
    {"LoadFpdsNoFpds", "No FPDs Defined", discovery, nobody},
    {"LoadFpdsMemoryNotAvail", "Memory alloc failed", run_failed, nobody},
    {"LoadFpdsBrdObjGetFail", "Failed to get FPD object ids", run_failed, nobody},
    {"LoadFpdsBrdNumRegionGetFail", "Failed to get No. of Regions for group id %d fpd obj id %d", discovery, nobody},
    {"InitNewFpdNoMem", "Failed to create new FPD err_msg %s", run_failed, nobody},
    {"InitFpdGetNameFail", "Failed to get FPD name for group id %d fpd obj id %d region %d", note, nobody},
    {"InitFpdAddQFail", "Failed to add FPD into upg_queue.queue err_msg %s", not_added, in_hand},
    {"InitFpdCapabilities", "FPD %s capabilities 0x%x", capabilities, 0},
    {"InitFpdSkipAutoFpdUpgNotSupported", "FPD %s Auto upgrade is not supported", not_automatic, 0},
    {"InitFpdSkipAutoFpdUpgNotBootUp", "FPD %s Bootup Auto upgrade is not supported", not_at_boot, 0},
    {"InitFpdSkipNotAUpgdReqGoldenUnlockPrimary",
     "FPD upgrade stage %s is looking for FPDs that are required Golden unlock primary and FPD %s is not marked for "
     "this stage",
     not_of_stage_1a, 1},
    {"InitFpdSkipNotACanUnlockGolden",
     "FPD upgrade stage %s is looking for FPDs that can unlock Golden and FPD %s is not marked for this",
     not_of_stage_1b, 1},
    {"FpdInfoGetBrdFail", "Failed to get FPD info, error %s", note, in_hand},
    {"InfoGetMakeFpdVerFail", "Failed to make FPD Programmed version for name %s major 0x%x minor 0x%x debug 0x%x",
     note, 0},
    {"InfoGetMakeFpdRunVerFail", "Failed to make FPD Running version for name %s major 0x%x minor 0x%x debug 0x%x",
     note, 0},
    {"InitFpdInfoGetFail", "Failed to get FPD info, error %s", info_failed, in_hand},
    {"InitFpdDescFail", "Does not have a Firmware packaged for FPD %s err_msg %s", no_firmware, 0},
    {"InitMd5CalInfo", "FPD: %s Dir: %s Image: %s MD5: %s", image, 0},
    {"InitFpdMd5SumFailed", "md5 checksum validation failed, %s", checksum_wrong, in_hand},
    {"InitFpdVerion", "FPD %s run version %s program verson %s packaged version %s need_upgrade %d status_msg %s",
     versions, 0},
    {"BuildFpdUpgQueue", "Constructing FPD %s for Upgrade", judged, 0},
    {"BuildQFpdCapabilityNotAllowed", "FPD %s is not allowed to be auto upgraded in current upgrade level", not_ready,
     0},
    {"BuildQFpdNotReady", "FPD %s doesn't have a valid info or Description, state %s", not_ready, 0},
    {"BuildQRevNotSupportUpgrade",
     "FPD %s current version %s doesn't support upgrade and supported version is %s and above", too_old, 0},
    {"BuildQFpdUpgAvailable", "FPD %s has minor down revision available swver 0x%x fwver 0x%x", not_asked_for, 0},
    {"BuildQFpdUpgNotNeeded", "FPD %s doesn't require an Upgrade", not_needed, 0},
    {"BuildQFpdDependNotFound", "FPD %s has a Dependency FPD %s and couldn't find the dependency in the fpd queue",
     dependency_unknown, 0},
    {"BuildQFpdCircularDepend", "FPD %s has found a circular dependency FPD %s", dependency_circular, 0},
    {"BuildQDependFpdBad", "FPD %s can't be upgraded due to dependency FPD %s state %s", dependency_bad, 0},
    {"BuildFpdUpgQueueMoveFail", "FPD %s failed Move queue error %s", dependency_move_failed, 0},
    {"BuildQRevisitAfterDependFpd", "FPD %s would be revisted after dependency FPD %s resolved", dependency_waits, 0},
    {"BuildQDepFpdUpgRequired", "FPD %s required corresponding dependent FPD %s to be upgraded", dependency_joins, 0},
    {"BuildQFpdUpgradeable", "FPD %s is upgradeable", note, 0},
    {"BuildQFpdMfgUpgradeable", "FPD %s is MFG Upgradeable", note, 0},
    {"BuildQFpdMfgOnlyUpgradeable", "FPD %s with Upgrade type %d can only upgradeable in MFG", manufacturing_only, 0},
    {"BuildQFpdCantUpgraded", "FPD %s with Upgrade type %d can't be upgraded ", type_refused, 0},
    {"BuildQFpdSeqOutOfRange", "FPD %s sequence queue # %d is out of range", queue_out_of_range, 0},
    {"BuildFpdUpgQueueMoveSeqQFail", "FPD %s failed Move queue error %s", queue_move_failed, 0},
    {"BuildFpdAddedSeqQueue", "FPD %s would be upgrade in the sequence queue # %d", queued, 0},
    {"AddFPDUpgMarkerFail", "Failed to add FPD %s into Upgrade Marker, error %s", run_failed, 0},
    {"BuildQFpdDepUpgradeable", "FPD %s is dependency upgradeable", note, 0},
    {"BuildQFpdDepMfgUpgradeable", "FPD %s is MFG Upgradeable", note, 0},
    {"BuildQFpdDepMfgOnlyUpgradeable", "FPD %s with Upgrade type %d can only upgradeable in MFG", manufacturing_only,
     0},
    {"BuildQFpdDepCantUpgraded", "FPD %s with Upgrade type %d can't be dependency upgraded ", type_refused, 0},
    {"BuildFpdDepUpgQueueMoveSeqQFail", "FPD %s failed Move queue error %s", queue_move_failed, 0},
    {"BuildFpdDepAddedSeqQueue", "FPD %s would be upgrade in the sequence queue # %d", queued, 0},
    {"AddFPDUpgMarkerFail2", "Failed to add FPD %s into Upgrade Marker, error %s", run_failed, 0},
    {"InitMQFail", "Initializing Auto FPD Upgrade msg queue failed err_msg %s", start_failed, nobody},
    {"DeinitFpdFail", "Deinitializing FPDs failed", note, nobody},
    {"DeinitFpdMQFail", "Deinitializing FPD msg queue failed err_msg %s", note, nobody},
    {"FpdUpgdCookieGetModeFail", "Failed to get FPD Upgrade Mode, error %s", start_failed, nobody},
    {"FpdUpgdStageCheckReqGlndUnlckPrimaryFail", "FPD Upgrade stage %s check failed to build fpd upgrade, error %s",
     run_failed, nobody},
    {"FpdUpgdStageReqGoldenUnlock", "Building FPDs to unlock Golden", stage_1b, nobody},
    {"FpdUpgdStageCleanUpFail", "Failed to clean Stage 1.a) fpd upgrade", run_failed, nobody},
    {"FpdUpgdStageCheckCanUnlckGlndUnlckFail", "FPD Upgrade stage %s check failed to build fpd upgrade, error %s",
     run_failed, nobody},
    {"FpdUpgdStage1BCleanUpFail", "Failed to clean Stage 1.b) fpd upgrade", run_failed, nobody},
    {"FpdUpgdModeUnknown", "Unknown FPD Upgrade mode %d", start_failed, nobody},
    {"LoadFpdsFail", "Initializing FPDs failed err_msg %s", run_failed, nobody},
    {"BuildingFpdQueueFail", "Constructing FPD Upgrade queue failed err_msg %s", run_failed, nobody},
    {"FpdUpgdStageCleanupDeinitFpdFail", "Failed to deinit fpd queues", run_failed, nobody},
    // states
    {"UpdateFpdTransitionStateTimeFail", "Updating FPD %s state transition Clock get failed, error %s", clock_failed,
     0},
    {"UpdateFpdTransitionState", "FPD %s transitioning state from %s to %s at %ld", transition, 0},
    // queues
    {"AddFpdQueueInvldParam", "FPD Upgrade msg already linked in a queue", note, nobody},
    {"AddFpdQueueDupEntry", "adding a Duplicate FPD %s found", duplicate, 0},
    {"AddFpdQueueHead", "FPD %s added into upgrade queue head %p", added_first, 0},
    {"AddFpdQueueTail", "FPD %s added into a queue tail %p", added, 0},
    {"RmFpdQueueEmpty", "queue is empty", note, nobody},
    {"RmFpdQueueHead", "FPD %s removed from head %p", note, 0},
    {"RmFpdQueue", "FPD %s removed from queue head %p", note, 0},
    {"RmFpdQueueNotFound", "Couldn't find FPD %s in the queue head %p", note, 0},
    {"MoveFpdBetweenQueueRm", "FPD %s failed remove from queue %p error %s", note, 0},
    {"MoveFpdBetweenQueueAdd", "FPD %s failed add into queue %p error %s", note, 0},
    {"GetFpdByNameQueueInvldParam", "Invalid argument name %p", note, nobody},
    {"GetFpdByNameInvldParam", "Invalid argument name %p", note, nobody},
    // upgrade marker
    {"UpgMarkerCallocFail", "Unable to allocate memory for upgrade marker, error %s", note, nobody},
    {"UpgMarkerReallocFail", "Unable to allocate memory for upgrade marker, error %s", note, nobody},
    {"AddFpdInfoUpgMarkerOOB", "Out of buffer to add FPD info for %s", note, 0},
    {"UpgMarkerCheck", "Previous Marked FPDs to Upgrade\n%s\nCurren Upgrading FPDs\n%s", note, nobody},
    {"WriteUpgMarkerData", "Writing Upgrade Marker Data\n%s", note, nobody},
    // run, reports, supervision
    {"DeletePreUpgMarkerFail", "Failed to remove previously cached Upgrade Marker file, error %s", run_failed, nobody},
    {"UpgMarkerCheckFail", "Failed to check upgrade marker, error %s", run_failed, nobody},
    {"UpgMarkerCheck", "Skipping Upgrade since trying to upgrade same FPDs and Versions", marker_same, nobody},
    {"FpdUpgSendFpdStartedEventFail", "Sending FPD event is failed, error %s", announced, nobody},
    {"AutoFpdUpgStartLedOnFail", "Auto FPD Upgrade Started LED notification failed %s", announced, nobody},
    {"AutoFpdUpgMailLoopClockFail", "Auto FPD Upgrade mainloop Clock get failed, error %s", note, nobody},
    {"AutoFpdUpgMailLoopClockFail1", "Auto FPD Upgrade mainloop Clock get failed, error %s", note, nobody},
    {"AutoFpdUpgMainLoopSendFpdEventFail", "Sending FPD event is failed, error %s", note, nobody},
    {"AutoFpdUpgradeProgressWDPunchFail", "Punching PD watchdog failed error %s", punch_failed, nobody},
    {"AutoFpdUpgradeProgressWDPunch", "Punching PD watchdog: %s", punched, nobody},
    {"AutoFpdUpgMainLoopDone", "No more FPD available in the sequence queue", main_loop_done, nobody},
    {"FpdUpgEndedSendFpdEventFail", "Sending FPD event is failed, error %s", note, nobody},
    {"FpdUpgEndedLedOffFail", "Auto FPD Upgrade Ended LED notification failed %s", note, nobody},
    {"FpdUpgActivationRequestFailed", "Auto FPD Upgrade Activation request failed %s", note, nobody},
    {"FpdUpgMsgRcvErr", "FPD Upgrade msgqueue received error %s", note, nobody},
    {"FpdUpgMsgRcvInvSize", "FPD Upgrade msgqueue received an invalid size %ld(%ld) ", note, nobody},
    {"FpdUpgMsgRcvInvMagic", "FPD Upgrade msgqueue received an Invalid magic 0x%x(0x%x)", note, nobody},
    {"FpdUpgMsgRcvInvWorker", "FPD Upgrade msgqueue received an unknown worker %p", note, nobody},
    {"FpdUpgResponse", "FPD %s received response state %s progress %d", response, 0},
    {"FpdUpgResponseStarted", "FPD %s state %s updated", note, 0},
    {"FpdUpgResponseProgress", "FPD %s state %s updated upgrade progress %d", note, 0},
    {"FpdUpgSendFpdFailedEventFail", "Sending FPD event is failed, error %s", note, nobody},
    {"FpdUpgFailRespRetry", "FPD %s would be queued to upgrade upg_retry %d", retry, 0},
    {"FpdUpgResponseFailed", "FPD %s state %s updated in the sequence queue %d", note, 0},
    {"FpdUpgResponseFailQMoveFail", "FPD %s failed Move queue error %s", note, 0},
    {"FpdUpgResponseDone", "FPD %s state %s updated in the sequence queue %d", note, 0},
    {"FpdUpgResponseDoneQMoveFail", "FPD %s failed Move queue error %s", note, 0},
    {"FpdUpgSendFpdCompletedEventFail", "Sending FPD event is failed, error %s", note, nobody},
    {"FpdUpgDoneInfoGetFail", "FPD %s Info get failed, error %s", note, 0},
    {"FpdUpgResponseDflt", "FPD %s response received an invalid state %s in the sequence queue %d", note, 0},
    {"FpdUpgProgressCheckStartUpgFail", "Starting FPD %s upgrade failed error %s", not_started, 0},
    {"FpdUpgProgressCheckScheduledFail", "Checking FPD %s upgrade scheduling failed error %s", note, 0},
    {"FpdUpgProgressCheckStartedFail", "Checking FPD %s upgrade start failed error %s", note, 0},
    {"FpdUpgProgressCheckProgressFail", "Checking FPD %s upgrade progressing failed error %s", note, 0},
    {"FpdUpgProgressCheckInvState", "FPD %s is stuck in an invalid state %s while checking Upgrade progressing", note,
     0},
    {"ChkFpdUpgScheduleInvState", "Checking FPD %s Upgrade Scheduling from an invalid State %s", note, 0},
    {"ChkFpdUpgScheduleClockGetFail", "Checking FPD %s upgrade Scheduling Clock get failed, error %s", note, 0},
    {"ChkFpdUpgScheduleMaxTransTimeOut", "FPD %s Upgrade stuck in the state %s since %ld time now vs. maximum %d time",
     stuck, 0},
    {"ChkFpdUpgScheduleMaxTransCancelThreadFail", "FPD %s cancelling worker thread failed Error %s", note, 0},
    {"FpdUpgSendFpdWorkerstuck", "Sending FPD event is failed, error %s", note, nobody},
    {"ChkFpdUpgScheduleMaxTransQMoveFail", "FPD %s failed Move queue error %s", note, 0},
    {"ChkFpdUpgScheduleTransRetry", "FPD %s would be queued to upgrade upg_retry %d", retry, 0},
    {"ChkFpdUpgStartedInvState", "Checking FPD %s Upgrade Started from an invalid State %s", note, 0},
    {"ChkFpdUpgStartedClockGetFail", "Checking FPD %s upgrade started Clock get failed, error %s", note, 0},
    {"ChkFpdUpgStartedMaxTransTimeOut", "FPD %s Upgrade stuck in the state %s since %ld time now vs. maximum %d time",
     stuck, 0},
    {"ChkFpdUpgStartedMaxTransCancelThreadFail", "FPD %s cancelling worker thread failed Error %s", note, 0},
    {"FpdUpgSendFpdWorkerStuckStarted", "Sending FPD event is failed, error %s", note, nobody},
    {"ChkFpdUpgStartedMaxTransQMoveFail", "FPD %s failed Move queue error %s", note, 0},
    {"ChkFpdUpgStartedTransRetry", "FPD %s would be queued to upgrade upg_retry %d", retry, 0},
    {"ChkFpdUpgProgressingInvState", "Checking FPD %s Upgrade Progressing from an invalid State %s", note, 0},
    {"ChkFpdUpgProgressingClockGetFail", "Checking FPD %s upgrade progressing Clock get failed, error %s", note, 0},
    {"ChkFpdUpgProgressingMaxTransTimeOut",
     "FPD %s Upgrade stuck in the state %s since %ld time now vs. maximum %d time", stuck, 0},
    {"ChkFpdUpgProgressingMaxTransCancelThreadFail", "FPD %s cancelling worker thread failed Error %s", note, 0},
    {"FpdUpgSendFpdWorkerStuckProgressing", "Sending FPD event is failed, error %s", note, nobody},
    {"ChkFpdUpgProgressingMaxTransQMoveFail", "FPD %s failed Move queue error %s", note, 0},
    {"ChkFpdUpgProgressingTransRetry", "FPD %s would be queued to upgrade upg_retry %d", retry, 0},
    // workers
    {"StartFpdUpgWorkerDepFpdFail", "FPD %s can't be upgraded without dependecny FPD %s upgrade state %s",
     dependency_not_upgraded, 0},
    {"StartFpdUpgWorkerQMoveFail", "FPD %s failed Move queue error %s", note, 0},
    {"StartFpdUpgWorkerAlreadyExist", "A worker context already created for this FPD %p", note, in_hand},
    {"WorkerCtxNoMem", "No memory available to create worker context error %s", note, in_hand},
    {"StartFpdUpgWorkerCreateCtxFail", "Creating Worker context failed %s", note, in_hand},
    {"StartFpdUpgradeThreadCreateFail", "Creating worker thread to upgrade FPD %s is failed err_msg %s", note, 0},
    {"FpdUpgSendFpdStartedEventMsgFail", "Sending FPD event is failed, error %s", note, nobody},
    {"FpdUpgHdl", "Started Worker thread for FPD %s", worker_started, 0},
    {"FpdUpgHdlrWorkerMq", "Worker MQ id %d", note, in_hand},
    {"FpdUpgHdlMqOpenFail", "FPD %s Worker thread message queue open failed error %s", note, 0},
    {"FpdUpgHdlMqSendFail", "Sending worker thread FPD %s upgrade state failed error %s", note, 0},
    {"FpdUpgHdlUpgradeFail", "FPD %s upgrade failed err_msg %s", worker_failed, 0},
    {"FpdUpgHdlUpgradeSuccess", "FPD %s Upgrade state %s", note, 0},
    {"FpdUpgHdlMqSendFail1", "Sending worker thread FPD %s upgrade state failed error %s", note, 0},
    {"FpdUpgHdlMqCloseFail", "Worker thread message queue close failed error %s", note, in_hand},
    {"FpdUpgradeProgress", "FPD %s upgrade progressing percent %d", progress_reported, 0},
    {"FpdUpgradeProgressMqSendFail", "Sending worker thread FPD %s upgrade progress failed error %s", note, 0},
    // message queue
    {"FpdMQOpenFail", "Couldn't open FPD msg queue err_msg %s", start_note, nobody},
    {"CreateFpdMqFail", "Creating Auto FPD Upgrade msg queue failed err_msg %s", start_note, nobody},
    {"DeleteFpdMqFail", "Deleting Auto FPD Upgrade msg queue failed err_msg %s", note, nobody},
    {"MQOpenFail", "Couldn't open FPD msg queue err_msg %s", note, in_hand},
    {"MQClodeFail", "Couldn't close FPD msg queue err_msg %s", note, nobody},
    // events
    {"AutoFpdUpgradeStartedEvent", "Sending Auto FPD Started Event failed error %s", event_failed, nobody},
    {"AutoFpdUpgradeProgressEvent", "Sending Auto FPD Progressing Event failed error %s", event_failed, nobody},
    {"AutoFpdUpgradeEndedEvent", "Sending Auto FPD Ended Event failed error %s", event_failed, nobody},
    {"AutoFpdUpgradeEventWarning", "Sending Auto FPD Event warning message failed error %s", event_failed, nobody},
    {"AutoFpdUpgradeEventError", "Sending Auto FPD Event error message failed error %s", event_failed, nobody},
    {"AutoFpdUpgradeEventFatal", "Sending Auto FPD Event Fatal message failed error %s", event_failed, nobody},
    {"SendUnknownEvent", "Unknown Auto FPD Upgrade event", event_failed, nobody},
    // LED
    {"NumLedGetFail", "Failed to get number of LEDs for group rc %d", start_note, nobody},
    {"LedObjMemoryAllocFail", "Failed to allocated memory for LED object error %s", start_note, nobody},
    {"LedObjGetFail", "Failed to get led_obj_id_list, rc:%d", start_note, nobody},
    {"LedObjTypeGetFail", "Failed to get led_type from obj_id, rc:%d", start_note, nobody},
    {"LedObjNameGetFail", "Failed to get led_name from obj_id, rc:%d", start_note, nobody},
    {"GetLedStateAndColorInvalArg", "Invalid argument state_p %p color_p %p", note, nobody},
    {"GetLedColorFailed", "Getting LED color failed rc:%d", note, nobody},
    {"GetLedStateFailed", "Getting LED state failed rc:%d", note, nobody},
    {"GetLedStateAndColor", "LED State %s and Color %s", note, nobody},
    {"SetLedStateAndColor", "Setting LED State %s and Color %s", led_set, nobody},
    {"SetLedStateAndColorFailed", "Setting LED state and color failed rc:%d", note, nobody},
    // LED of the upgrade
    {"LedGroupInitFail", "BRD LED Group Init failed error %s", start_note, nobody},
    {"GetLedObjIdFail", "BRD status LED Object id get failed error %s", start_note, nobody},
    {"BrdIntfLenInvalidObjId", "Does not have valid Group id %d obj id %d to send LED state", note, nobody},
    {"BrdIntfLedStateColorGetFail", "BRD LED state and color get failed error %s", note, nobody},
    {"BrdIntfLedStateColorGet", "Current LED state %s and color %s", note, nobody},
    {"BrdIntfOrgLedStateColorGetFail", "BRD LED state and color get failed error %s", announced, nobody},
    {"BrdIntfLedStateColorGet2", "Original LED state %s and color %s", announced, nobody},
    {"BrdIntfLedStateColorSetFail", "BRD LED state and color get failed error %s", note, nobody},
    // flash
    {"ObflLog", "Failed to open FPD OBFL log file %s, error %s", flash_failed, nobody},
    {"GetFpdObflLogFilename", "Failed to get FPD OBFL Filename, error '%s'", flash_failed, nobody},
    {"CopyTempObflLogIntoLatestFlashFileFail", "Failed to copy temporary OBFL log into latest flash file, error '%s'",
     flash_failed, nobody},
    {"StartObflMountThreadFail", "Failed to start OBFL flash mount thread, error '%s;", flash_failed, nobody},
    {"CopyTempObflLogIntoLatestFlashFileFaile", "Failed to copy temporary OBFL log into latest flash file, error '%s'",
     flash_failed, nobody},
    {"ObflMountThreadHdlr", "OBFL Mount Thread Hanlder", note, nobody},
    {"ObflMountThreadHdlrFlashOperFail", "Failed to mount OBFL Flash, error '%s'", flash_failed, nobody},
    {"ObflUnknownOperation", "OBFL Flash Unknown Operation %d", note, nobody},
    {"ObflOperCmdFail", "%s", note, nobody},
    {"ObflOperCmd", "Executed OBFL Flashoperation command '%s' output '%s'", flash_operation, nobody},
    {"ObflMountPointNotExist", "OBFL Flash mountpoint '%s' doesn't exist, '%s'", note, nobody},
    {"ObflMountPointExist", "OBFL Flash mountpoint '%s' exist, output '%s'", flash_found, nobody},
    {"ObflFlushFlashOperFail", "Failed to unmount OBFL Flash, error '%s'", flash_failed, nobody},
    // activation
    {"WriteUpgMarkerDataFail", "Failed to write Upgrade Marker Data, error %s", note, nobody},
    {"FpdUpgActivate", "FPD Upgrade required a reload_type %d to activate", activation, nobody},
    {"AutoFpdActivateGrubRebootSetFail", "Auto FPD ACtivate GRUB Reboot setting failed error %s", activation_failed,
     nobody},
    {"AutoFpdUpgradeActivateFail", "Auto FPD Upgrade Activation failed error %s", activation_failed, nobody},
};

constexpr auto by_tag = [] {
    std::array<Message, std::size(rows)> sorted{};
    std::copy(std::begin(rows), std::end(rows), sorted.begin());
    std::sort(sorted.begin(), sorted.end(),
              [](const Message &a, const Message &b) { return a.tag != b.tag ? a.tag < b.tag : a.format < b.format; });
    return sorted;
}();

/// A format taken apart: literal, conversion, literal, ..., literal; the literals around may be empty.
struct Pattern {
    std::array<std::string_view, max_conversions + 1> literals;
    std::array<char, max_conversions> conversions;  // 's', 'd', 'x', 'p'
    std::size_t count;
    bool open_end;
};

/// Not well formed is a format with more conversions than there is room for, one of another kind, or two side by side.
constexpr bool is_well_formed(std::string_view format) {
    std::size_t count = 0;
    std::size_t literal = 1;
    while (!format.empty()) {
        if (format[0] != '%') {
            ++literal;
            format.remove_prefix(1);
            continue;
        }
        const std::size_t length = conversion_length(format);
        if (length == 0 || literal == 0 || ++count > max_conversions) return false;
        literal = 0;
        format.remove_prefix(length);
    }
    return true;
}
static_assert(std::all_of(std::begin(rows), std::end(rows),
                          [](const Message &message) { return is_well_formed(message.format); }));

constexpr Pattern pattern_of(std::string_view format) {
    Pattern pattern{};
    while (true) {
        const std::size_t percent = format.find('%');
        pattern.literals[pattern.count] = format.substr(0, percent);
        if (percent == std::string_view::npos) break;
        format.remove_prefix(percent);
        const std::size_t length = conversion_length(format);
        pattern.conversions[pattern.count++] = format[length - 1];
        format.remove_prefix(length);
    }
    pattern.open_end =
        pattern.count > 0 && pattern.conversions[pattern.count - 1] == 's' && pattern.literals[pattern.count].empty();
    return pattern;
}

constexpr auto patterns = [] {
    std::array<Pattern, std::size(rows)> all{};
    std::transform(by_tag.begin(), by_tag.end(), all.begin(),
                   [](const Message &message) { return pattern_of(message.format); });
    return all;
}();

const Pattern &pattern(const Message &message) {
    return patterns[static_cast<std::size_t>(&message - by_tag.data())];
}

bool are_digits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char digit) { return digit >= '0' && digit <= '9'; });
}

bool are_hexadecimal(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char digit) {
        return (digit >= '0' && digit <= '9') || (digit >= 'a' && digit <= 'f');
    });
}

bool can_be(char conversion, std::string_view text) {
    switch (conversion) {
        case 'd':
            return are_digits(text.starts_with('-') ? text.substr(1) : text);
        case 'x':
            return are_hexadecimal(text);
        case 'p':
            return text == "(nil)" || (text.starts_with("0x") && are_hexadecimal(text.substr(2)));
        default:
            return true;
    }
}

bool split_from_left(const Pattern &pattern, std::string_view text, Captures *captures) {
    for (std::size_t i = 0; i + 1 < pattern.count; ++i) {
        const std::string_view literal = pattern.literals[i + 1];
        const std::size_t at = text.find(literal);
        if (at == std::string_view::npos) return false;
        captures->texts[i] = text.substr(0, at);
        text.remove_prefix(at + literal.size());
    }
    captures->texts[pattern.count - 1] = text;
    return true;
}

bool split_from_right(const Pattern &pattern, std::string_view text, Captures *captures) {
    for (std::size_t i = pattern.count - 1; i > 0; --i) {
        const std::string_view literal = pattern.literals[i];
        const std::size_t at = text.rfind(literal);
        if (at == std::string_view::npos) return false;
        captures->texts[i] = text.substr(at + literal.size());
        text = text.substr(0, at);
    }
    captures->texts[0] = text;
    return true;
}

}  // namespace

std::span<const Message> messages() {
    return by_tag;
}

std::span<const Message> messages_of(std::string_view tag) {
    const auto first = std::lower_bound(by_tag.begin(), by_tag.end(), tag,
                                        [](const Message &message, std::string_view key) { return message.tag < key; });
    auto end = first;
    while (end != by_tag.end() && end->tag == tag) ++end;
    return {first, end};
}

bool match(const Message &message, std::string_view text, Captures *captures) {
    const Pattern &format = pattern(message);
    const std::string_view begin = format.literals[0];
    if (format.count == 0) return text == begin;
    const std::string_view end = format.literals[format.count];
    if (text.size() < begin.size() + end.size() || !text.starts_with(begin) || !text.ends_with(end)) return false;
    const std::string_view between = text.substr(begin.size(), text.size() - begin.size() - end.size());
    const bool split =
        format.open_end ? split_from_left(format, between, captures) : split_from_right(format, between, captures);
    if (!split) return false;
    for (std::size_t i = 0; i < format.count; ++i)
        if (!can_be(format.conversions[i], captures->texts[i])) return false;
    return true;
}

bool has_open_end(const Message &message) {
    return pattern(message).open_end;
}

}  // namespace fpd_log
