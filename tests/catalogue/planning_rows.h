/// What is logged while the card is made known, its FPDs are judged and their upgrade is planned.
#ifndef PLANNING_ROWS_H
#define PLANNING_ROWS_H

#include "message_row.h"

namespace catalogue {

using enum Level;

inline constexpr std::string_view freeing_never_fails = "freeing the queues gives 0 in every case";

inline constexpr LogRow init_rows[] = {
    // the context
    {error, "InitLocalCardMallocFail", "Initialize local card calloc() failed %s"},
    {error, "InitLocalCardTruncatedName", "Truncates Auto FPD Upgrade message queue name %s, error %s",
     "the name of the queue is a constant that fits"},
    {error, "InitLocalCardBrdIntfInitFail", "BRD init failed rc %d"},
    {error, "InitLocalCardGetBrdGrpIdFail", "Local Card BRD group get get failed %d"},
    {error, "InitLocalCardPlatBoardTypeFail", "Local Card Platform HW board type get failed %d"},
    {error, "InitLocalCardPlatHwVerFail", "Local Card Platform card HW version get failed %d"},
    {error, "InitLocalCardHWVerMakeFail", "Local Card Failed to make fpd_version for HW major 0x%x minor ox%x"},
    {error, "InitLocalCardGetLedBrdObjIdFail", "Local Card BRD group get get failed %d"},
    // discovery
    {error, "FpdNamgeGetNumRegionFail", "BRD GET FPD num of region failed rc %d"},
    {error, "FpdNameInvalidRegion", "Invalid region %d num_regions %d"},
    {error, "FpdNameGetMallocFail", "Memory alloc failed"},
    {error, "FpdNameGetRegionsFail", "BRD GET FPD Region failed rc %d"},
    {error, "LoadFpdsNumFpdsGetFail", "Failed to get No. of FPDs for group id %d"},
    {info, "LoadFpdsNoFpds", "No FPDs Defined"},
    {error, "LoadFpdsMemoryNotAvail", "Memory alloc failed"},
    {error, "LoadFpdsBrdObjGetFail", "Failed to get FPD object ids"},
    {error, "LoadFpdsBrdNumRegionGetFail", "Failed to get No. of Regions for group id %d fpd obj id %d"},
    {error, "InitNewFpdNoMem", "Failed to create new FPD err_msg %s"},
    {error, "InitFpdGetNameFail", "Failed to get FPD name for group id %d fpd obj id %d region %d"},
    {error, "InitFpdAddQFail", "Failed to add FPD into upg_queue.queue err_msg %s"},
    // evaluation
    {debug, "InitFpdCapabilities", "FPD %s capabilities 0x%x"},
    {info, "InitFpdSkipAutoFpdUpgNotSupported", "FPD %s Auto upgrade is not supported"},
    {info, "InitFpdSkipAutoFpdUpgNotBootUp", "FPD %s Bootup Auto upgrade is not supported"},
    {info, "InitFpdSkipNotAUpgdReqGoldenUnlockPrimary",
     "FPD upgrade stage %s is looking for FPDs that are required Golden unlock primary and FPD %s is not marked for "
     "this "
     "stage"},
    {info, "InitFpdSkipNotACanUnlockGolden",
     "FPD upgrade stage %s is looking for FPDs that can unlock Golden and FPD %s is not marked for this"},
    {error, "FpdInfoGetBrdFail", "Failed to get FPD info, error %s"},
    {error, "InfoGetMakeFpdVerFail",
     "Failed to make FPD Programmed version for name %s major 0x%x minor 0x%x debug 0x%x"},
    {error, "InfoGetMakeFpdRunVerFail",
     "Failed to make FPD Running version for name %s major 0x%x minor 0x%x debug 0x%x"},
    {error, "InitFpdInfoGetFail", "Failed to get FPD info, error %s"},
    {error, "InitFpdDescFail", "Does not have a Firmware packaged for FPD %s err_msg %s"},
    {info, "InitMd5CalInfo", "FPD: %s Dir: %s Image: %s MD5: %s"},
    {error, "InitFpdMd5SumFailed", "md5 checksum validation failed, %s"},
    {info, "InitFpdVerion",
     "FPD %s run version %s program verson %s packaged version %s need_upgrade %d status_msg %s"},
    // construction, first pass
    {debug, "BuildFpdUpgQueue", "Constructing FPD %s for Upgrade"},
    {info, "BuildQFpdCapabilityNotAllowed", "FPD %s is not allowed to be auto upgraded in current upgrade level"},
    {info, "BuildQFpdNotReady", "FPD %s doesn't have a valid info or Description, state %s"},
    {error, "BuildQRevNotSupportUpgrade",
     "FPD %s current version %s doesn't support upgrade and supported version is %s and above"},
    {info, "BuildQFpdUpgAvailable", "FPD %s has minor down revision available swver 0x%x fwver 0x%x"},
    {info, "BuildQFpdUpgNotNeeded", "FPD %s doesn't require an Upgrade"},
    {error, "BuildQFpdDependNotFound",
     "FPD %s has a Dependency FPD %s and couldn't find the dependency in the fpd queue"},
    {error, "BuildQFpdCircularDepend", "FPD %s has found a circular dependency FPD %s"},
    {error, "BuildQDependFpdBad", "FPD %s can't be upgraded due to dependency FPD %s state %s"},
    {error, "BuildFpdUpgQueueMoveFail", "FPD %s failed Move queue error %s"},
    {info, "BuildQRevisitAfterDependFpd", "FPD %s would be revisted after dependency FPD %s resolved"},
    {info, "BuildQDepFpdUpgRequired", "FPD %s required corresponding dependent FPD %s to be upgraded"},
    {debug, "BuildQFpdUpgradeable", "FPD %s is upgradeable"},
    {debug, "BuildQFpdMfgUpgradeable", "FPD %s is MFG Upgradeable"},
    {debug, "BuildQFpdMfgOnlyUpgradeable", "FPD %s with Upgrade type %d can only upgradeable in MFG"},
    {error, "BuildQFpdCantUpgraded", "FPD %s with Upgrade type %d can't be upgraded "},
    {error, "BuildQFpdSeqOutOfRange", "FPD %s sequence queue # %d is out of range"},
    {error, "BuildFpdUpgQueueMoveSeqQFail", "FPD %s failed Move queue error %s"},
    {info, "BuildFpdAddedSeqQueue", "FPD %s would be upgrade in the sequence queue # %d"},
    {error, "AddFPDUpgMarkerFail", "Failed to add FPD %s into Upgrade Marker, error %s"},
    // construction, second pass
    {debug, "BuildQFpdDepUpgradeable", "FPD %s is dependency upgradeable"},
    {debug, "BuildQFpdDepMfgUpgradeable", "FPD %s is MFG Upgradeable"},
    {debug, "BuildQFpdDepMfgOnlyUpgradeable", "FPD %s with Upgrade type %d can only upgradeable in MFG"},
    {error, "BuildQFpdDepCantUpgraded", "FPD %s with Upgrade type %d can't be dependency upgraded "},
    {error, "BuildFpdDepUpgQueueMoveSeqQFail", "FPD %s failed Move queue error %s"},
    {info, "BuildFpdDepAddedSeqQueue", "FPD %s would be upgrade in the sequence queue # %d"},
    {error, "AddFPDUpgMarkerFail2", "Failed to add FPD %s into Upgrade Marker, error %s"},
    // stages
    {error, "InitMQFail", "Initializing Auto FPD Upgrade msg queue failed err_msg %s"},
    {error, "DeinitFpdFail", "Deinitializing FPDs failed", freeing_never_fails},
    {error, "DeinitFpdMQFail", "Deinitializing FPD msg queue failed err_msg %s"},
    {error, "FpdUpgdCookieGetModeFail", "Failed to get FPD Upgrade Mode, error %s"},
    {error, "FpdUpgdStageCheckReqGlndUnlckPrimaryFail",
     "FPD Upgrade stage %s check failed to build fpd upgrade, error %s"},
    {debug, "FpdUpgdStageReqGoldenUnlock", "Building FPDs to unlock Golden"},
    {error, "FpdUpgdStageCleanUpFail", "Failed to clean Stage 1.a) fpd upgrade", freeing_never_fails},
    {error, "FpdUpgdStageCheckCanUnlckGlndUnlckFail",
     "FPD Upgrade stage %s check failed to build fpd upgrade, error %s"},
    {error, "FpdUpgdStage1BCleanUpFail", "Failed to clean Stage 1.b) fpd upgrade", freeing_never_fails},
    {error, "FpdUpgdModeUnknown", "Unknown FPD Upgrade mode %d"},
    {error, "LoadFpdsFail", "Initializing FPDs failed err_msg %s"},
    {error, "BuildingFpdQueueFail", "Constructing FPD Upgrade queue failed err_msg %s"},
    {error, "FpdUpgdStageCleanupDeinitFpdFail", "Failed to deinit fpd queues", freeing_never_fails},
};

inline constexpr LogRow state_rows[] = {
    {error, "UpdateFpdTransitionStateTimeFail", "Updating FPD %s state transition Clock get failed, error %s"},
    {debug, "UpdateFpdTransitionState", "FPD %s transitioning state from %s to %s at %ld"},
};

inline constexpr LogRow queue_rows[] = {
    {error, "AddFpdQueueInvldParam", "FPD Upgrade msg already linked in a queue"},
    {error, "AddFpdQueueDupEntry", "adding a Duplicate FPD %s found"},
    {info, "AddFpdQueueHead", "FPD %s added into upgrade queue head %p"},
    {info, "AddFpdQueueTail", "FPD %s added into a queue tail %p"},
    {error, "RmFpdQueueEmpty", "queue is empty"},
    {info, "RmFpdQueueHead", "FPD %s removed from head %p"},
    {info, "RmFpdQueue", "FPD %s removed from queue head %p"},
    {error, "RmFpdQueueNotFound", "Couldn't find FPD %s in the queue head %p"},
    {error, "MoveFpdBetweenQueueRm", "FPD %s failed remove from queue %p error %s"},
    {error, "MoveFpdBetweenQueueAdd", "FPD %s failed add into queue %p error %s"},
    {error, "GetFpdByNameQueueInvldParam", "Invalid argument name %p"},
    {error, "GetFpdByNameInvldParam", "Invalid argument name %p"},
};

inline constexpr LogRow config_rows[] = {
    {error, "BrdIntfFpdUpgCfg", "BRD interface auto FPD upgrade config get failed err_msg %s"},
    {info, "AutoFpdUpgCfgNotEna", "Auto FPD Upgrade is not enabled on the system"},
};

}  // namespace catalogue

#endif
