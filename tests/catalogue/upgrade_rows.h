/// What is logged by a run that upgrades: the driver, its workers, their messages, the activation.
#ifndef UPGRADE_ROWS_H
#define UPGRADE_ROWS_H

#include "message_row.h"

namespace catalogue {

using enum Level;

inline constexpr std::string_view checked_in_its_state = "an FPD meets the check of its own state alone";
inline constexpr std::string_view stuck_format =
    "FPD %s Upgrade stuck in the state %s since %ld time now vs. maximum %d time";

inline constexpr LogRow handler_rows[] = {
    // the run
    {error, "DeletePreUpgMarkerFail", "Failed to remove previously cached Upgrade Marker file, error %s"},
    {error, "UpgMarkerCheckFail", "Failed to check upgrade marker, error %s"},
    {info, "UpgMarkerCheck", "Skipping Upgrade since trying to upgrade same FPDs and Versions"},
    {error, "FpdUpgSendFpdStartedEventFail", "Sending FPD event is failed, error %s"},
    {error, "AutoFpdUpgStartLedOnFail", "Auto FPD Upgrade Started LED notification failed %s"},
    {debug, "AutoFpdUpgMailLoopClockFail", "Auto FPD Upgrade mainloop Clock get failed, error %s"},
    {debug, "AutoFpdUpgMailLoopClockFail1", "Auto FPD Upgrade mainloop Clock get failed, error %s"},
    {error, "AutoFpdUpgMainLoopSendFpdEventFail", "Sending FPD event is failed, error %s"},
    {error, "AutoFpdUpgradeProgressWDPunchFail", "Punching PD watchdog failed error %s"},
    {debug, "AutoFpdUpgradeProgressWDPunch", "Punching PD watchdog: %s"},
    {info, "AutoFpdUpgMainLoopDone", "No more FPD available in the sequence queue"},
    {error, "FpdUpgEndedSendFpdEventFail", "Sending FPD event is failed, error %s"},
    {error, "FpdUpgEndedLedOffFail", "Auto FPD Upgrade Ended LED notification failed %s"},
    {error, "FpdUpgActivationRequestFailed", "Auto FPD Upgrade Activation request failed %s"},
    // reports of the workers
    {error, "FpdUpgMsgRcvErr", "FPD Upgrade msgqueue received error %s"},
    {error, "FpdUpgMsgRcvInvSize", "FPD Upgrade msgqueue received an invalid size %ld(%ld) "},
    {error, "FpdUpgMsgRcvInvMagic", "FPD Upgrade msgqueue received an Invalid magic 0x%x(0x%x)"},
    {error, "FpdUpgMsgRcvInvWorker", "FPD Upgrade msgqueue received an unknown worker %p"},
    {debug, "FpdUpgResponse", "FPD %s received response state %s progress %d"},
    {info, "FpdUpgResponseStarted", "FPD %s state %s updated"},
    {debug, "FpdUpgResponseProgress", "FPD %s state %s updated upgrade progress %d"},
    {error, "FpdUpgSendFpdFailedEventFail", "Sending FPD event is failed, error %s"},
    {info, "FpdUpgFailRespRetry", "FPD %s would be queued to upgrade upg_retry %d"},
    {info, "FpdUpgResponseFailed", "FPD %s state %s updated in the sequence queue %d"},
    {error, "FpdUpgResponseFailQMoveFail", "FPD %s failed Move queue error %s"},
    {info, "FpdUpgResponseDone", "FPD %s state %s updated in the sequence queue %d"},
    {error, "FpdUpgResponseDoneQMoveFail", "FPD %s failed Move queue error %s"},
    {error, "FpdUpgSendFpdCompletedEventFail", "Sending FPD event is failed, error %s"},
    {error, "FpdUpgDoneInfoGetFail", "FPD %s Info get failed, error %s"},
    {error, "FpdUpgResponseDflt", "FPD %s response received an invalid state %s in the sequence queue %d"},
    // supervision
    {error, "FpdUpgProgressCheckStartUpgFail", "Starting FPD %s upgrade failed error %s"},
    {error, "FpdUpgProgressCheckScheduledFail", "Checking FPD %s upgrade scheduling failed error %s"},
    {error, "FpdUpgProgressCheckStartedFail", "Checking FPD %s upgrade start failed error %s"},
    {error, "FpdUpgProgressCheckProgressFail", "Checking FPD %s upgrade progressing failed error %s"},
    {error, "FpdUpgProgressCheckInvState", "FPD %s is stuck in an invalid state %s while checking Upgrade progressing"},
    {error, "ChkFpdUpgScheduleInvState", "Checking FPD %s Upgrade Scheduling from an invalid State %s",
     checked_in_its_state},
    {debug, "ChkFpdUpgScheduleClockGetFail", "Checking FPD %s upgrade Scheduling Clock get failed, error %s"},
    {error, "ChkFpdUpgScheduleMaxTransTimeOut", stuck_format},
    {error, "ChkFpdUpgScheduleMaxTransCancelThreadFail", "FPD %s cancelling worker thread failed Error %s"},
    {error, "FpdUpgSendFpdWorkerstuck", "Sending FPD event is failed, error %s"},
    {error, "ChkFpdUpgScheduleMaxTransQMoveFail", "FPD %s failed Move queue error %s"},
    {info, "ChkFpdUpgScheduleTransRetry", "FPD %s would be queued to upgrade upg_retry %d"},
    {error, "ChkFpdUpgStartedInvState", "Checking FPD %s Upgrade Started from an invalid State %s",
     checked_in_its_state},
    {debug, "ChkFpdUpgStartedClockGetFail", "Checking FPD %s upgrade started Clock get failed, error %s"},
    {error, "ChkFpdUpgStartedMaxTransTimeOut", stuck_format},
    {error, "ChkFpdUpgStartedMaxTransCancelThreadFail", "FPD %s cancelling worker thread failed Error %s"},
    {error, "FpdUpgSendFpdWorkerStuckStarted", "Sending FPD event is failed, error %s"},
    {error, "ChkFpdUpgStartedMaxTransQMoveFail", "FPD %s failed Move queue error %s"},
    {info, "ChkFpdUpgStartedTransRetry", "FPD %s would be queued to upgrade upg_retry %d"},
    {error, "ChkFpdUpgProgressingInvState", "Checking FPD %s Upgrade Progressing from an invalid State %s",
     checked_in_its_state},
    {debug, "ChkFpdUpgProgressingClockGetFail", "Checking FPD %s upgrade progressing Clock get failed, error %s"},
    {error, "ChkFpdUpgProgressingMaxTransTimeOut", stuck_format},
    {error, "ChkFpdUpgProgressingMaxTransCancelThreadFail", "FPD %s cancelling worker thread failed Error %s"},
    {error, "FpdUpgSendFpdWorkerStuckProgressing", "Sending FPD event is failed, error %s"},
    {error, "ChkFpdUpgProgressingMaxTransQMoveFail", "FPD %s failed Move queue error %s"},
    {info, "ChkFpdUpgProgressingTransRetry", "FPD %s would be queued to upgrade upg_retry %d"},
};

inline constexpr LogRow worker_rows[] = {
    {error, "StartFpdUpgWorkerDepFpdFail", "FPD %s can't be upgraded without dependecny FPD %s upgrade state %s"},
    {error, "StartFpdUpgWorkerQMoveFail", "FPD %s failed Move queue error %s"},
    {error, "StartFpdUpgWorkerAlreadyExist", "A worker context already created for this FPD %p"},
    {error, "WorkerCtxNoMem", "No memory available to create worker context error %s"},
    {error, "StartFpdUpgWorkerCreateCtxFail", "Creating Worker context failed %s"},
    {error, "StartFpdUpgradeThreadCreateFail", "Creating worker thread to upgrade FPD %s is failed err_msg %s"},
    {error, "FpdUpgSendFpdStartedEventMsgFail", "Sending FPD event is failed, error %s"},
    {info, "FpdUpgHdl", "Started Worker thread for FPD %s"},
    {debug, "FpdUpgHdlrWorkerMq", "Worker MQ id %d"},
    {error, "FpdUpgHdlMqOpenFail", "FPD %s Worker thread message queue open failed error %s"},
    {error, "FpdUpgHdlMqSendFail", "Sending worker thread FPD %s upgrade state failed error %s"},
    {error, "FpdUpgHdlUpgradeFail", "FPD %s upgrade failed err_msg %s"},
    {info, "FpdUpgHdlUpgradeSuccess", "FPD %s Upgrade state %s"},
    {error, "FpdUpgHdlMqSendFail1", "Sending worker thread FPD %s upgrade state failed error %s"},
    {error, "FpdUpgHdlMqCloseFail", "Worker thread message queue close failed error %s"},
    {debug, "FpdUpgradeProgress", "FPD %s upgrade progressing percent %d"},
    {error, "FpdUpgradeProgressMqSendFail", "Sending worker thread FPD %s upgrade progress failed error %s"},
};

inline constexpr LogRow msg_queue_rows[] = {
    {error, "FpdMQOpenFail", "Couldn't open FPD msg queue err_msg %s"},
    {error, "CreateFpdMqFail", "Creating Auto FPD Upgrade msg queue failed err_msg %s"},
    {error, "DeleteFpdMqFail", "Deleting Auto FPD Upgrade msg queue failed err_msg %s"},
    {error, "MQOpenFail", "Couldn't open FPD msg queue err_msg %s"},
    {error, "MQClodeFail", "Couldn't close FPD msg queue err_msg %s"},
};

inline constexpr LogRow activate_rows[] = {
    {error, "WriteUpgMarkerDataFail", "Failed to write Upgrade Marker Data, error %s"},
    {info, "FpdUpgActivate", "FPD Upgrade required a reload_type %d to activate"},
    {error, "AutoFpdActivateGrubRebootSetFail", "Auto FPD ACtivate GRUB Reboot setting failed error %s"},
    {error, "AutoFpdUpgradeActivateFail", "Auto FPD Upgrade Activation failed error %s"},
};

}  // namespace catalogue

#endif
