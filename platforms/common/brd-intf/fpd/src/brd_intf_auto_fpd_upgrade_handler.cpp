#include "brd_intf_auto_fpd_upgrade_handler.h"

#include <mqueue.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "brd_intf_auto_fpd_obfl.h"
#include "brd_intf_auto_fpd_upgrade_activate.h"
#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_led.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "brd_intf_events_fpd.h"
#include "card_libraries.h"
#include "fpd_log.h"
#include "os_file.h"
#include "os_signal.h"
#include "os_time.h"
#include "worker_msg.h"

std::uint32_t bootup_fpd_time_div = 1;

// Time ----------------------------------------------------------------------------------------------------------------

namespace {

constexpr LogModule here{"FPD", __FILE__};
constexpr std::size_t error_size = 256;
// The mount command is ended after five minutes of real time, whatever divides the times of the run.
constexpr std::int64_t flash_mount_limit = 360'000'000;  // µs
constexpr std::uint32_t shortest_look_period = 1'000;    // µs
constexpr const char *watchdog_script = "/usr/local/etc/punch-watchdog-once.sh";

std::uint32_t scaled(std::uint32_t microseconds) {
    const std::uint32_t divisor = bootup_fpd_time_div;
    return microseconds / (divisor != 0 ? divisor : 1);
}

}  // namespace

std::uint32_t supervision_period() {
    return scaled(5'000'000);
}
std::uint32_t punch_period() {
    return scaled(10'000'000);
}
std::uint32_t main_loop_sleep() {
    return scaled(1'000'000);
}
std::uint32_t scheduling_limit() {
    return scaled(3'000'000);
}
std::uint32_t start_limit() {
    return scaled(60'000'000);
}
std::uint32_t progressing_limit() {
    return scaled(180'000'000);
}

// Reports of the workers ----------------------------------------------------------------------------------------------

namespace {

/// Receives one report without waiting; false when there is none, or what there is is malformed.
bool receive_report(int mq, WorkerMsg &msg) {
    const ssize_t size =
        uninterrupted([&] { return mq_receive(mq, reinterpret_cast<char *>(&msg), sizeof msg, nullptr); });
    if (size < 0) {
        if (errno != EAGAIN)
            log_error({here, "FpdUpgMsgRcvErr"}, "FPD Upgrade msgqueue received error %s", std::strerror(errno));
        return false;
    }
    if (size != sizeof msg) {
        log_error({here, "FpdUpgMsgRcvInvSize"}, "FPD Upgrade msgqueue received an invalid size %ld(%ld) ",
                  static_cast<long>(size), static_cast<long>(sizeof msg));
        return false;
    }
    if (msg.magic != worker_msg_magic) {
        log_error({here, "FpdUpgMsgRcvInvMagic"}, "FPD Upgrade msgqueue received an Invalid magic 0x%x(0x%x)",
                  msg.magic, worker_msg_magic);
        return false;
    }
    return true;
}

/// The FPD that this worker upgrades now; null for a stranger, whose pointer is only ever compared.
Fpd *fpd_of_running_worker(const LocalCard &card, const FpdWorkerCtx *worker) {
    if (!worker) return nullptr;
    for (Fpd *const queue : card.queues.seq_queues)
        for (Fpd *fpd = queue; fpd; fpd = fpd->next)
            if (fpd->worker == worker) return fpd;
    return nullptr;
}

void handle_started(Fpd &fpd) {
    transition(fpd, FpdState::upgrade_started);
    fpd.progress = 0;
    log_info({here, "FpdUpgResponseStarted"}, "FPD %s state %s updated", fpd.info.name, state_name(fpd.state));
    fpd_obfl_log("FPD '%s' Started to upgrade version %s", fpd.info.name, fpd.packaged_text);
}

void handle_progressing(Fpd &fpd, std::uint32_t progress) {
    transition(fpd, FpdState::upgrade_progressing);
    fpd.progress = static_cast<std::uint8_t>(progress);
    log_debug({here, "FpdUpgResponseProgress"}, "FPD %s state %s updated upgrade progress %d", fpd.info.name,
              state_name(fpd.state), static_cast<int>(progress));
}

void queue_for_retry(Fpd &fpd, const LogSite &site) {
    ++fpd.retries;
    transition(fpd, FpdState::queued_for_upgrade);
    log_info(site, "FPD %s would be queued to upgrade upg_retry %d", fpd.info.name, fpd.retries);
}

void handle_failed(LocalCard &card, Fpd &fpd, std::uint32_t progress) {
    fpd.progress = static_cast<std::uint8_t>(progress);
    raise_fpd_event({here, "FpdUpgSendFpdFailedEventFail"}, AUTO_FPD_UPGRADE_EVENT_ERROR,
                    "Auto FPD Upgrade failed for '%s'", fpd.info.name);
    retire_worker(card, fpd, true);
    fpd_obfl_log("FPD '%s' Failed to upgrade version %s", fpd.info.name, fpd.packaged_text);
    if (fpd.retries == 0) {
        queue_for_retry(fpd, {here, "FpdUpgFailRespRetry"});
        return;
    }
    transition(fpd, FpdState::upgrade_failed);
    log_info({here, "FpdUpgResponseFailed"}, "FPD %s state %s updated in the sequence queue %d", fpd.info.name,
             state_name(fpd.state), fpd.seq);
    leave_sequence_queue(card, fpd, {here, "FpdUpgResponseFailQMoveFail"});
}

void handle_done(LocalCard &card, Fpd &fpd) {
    transition(fpd, FpdState::upgrade_done);
    fpd.progress = 100;
    log_info({here, "FpdUpgResponseDone"}, "FPD %s state %s updated in the sequence queue %d", fpd.info.name,
             state_name(fpd.state), fpd.seq);
    leave_sequence_queue(card, fpd, {here, "FpdUpgResponseDoneQMoveFail"});
    raise_fpd_event({here, "FpdUpgSendFpdCompletedEventFail"}, AUTO_FPD_UPGRADE_EVENT_WARNING,
                    "Auto FPD Upgrade completed for '%s'", fpd.info.name);
    retire_worker(card, fpd, true);
    char err_msg[error_size] = "";
    if (fpd_info_refresh(card, fpd, err_msg, sizeof err_msg) != 0)
        log_error({here, "FpdUpgDoneInfoGetFail"}, "FPD %s Info get failed, error %s", fpd.info.name, err_msg);
    fpd_obfl_log("FPD '%s' Upgraded to version %s", fpd.info.name, fpd.programmed_text);
}

void handle_report(LocalCard &card, Fpd &fpd, const WorkerMsg &msg) {
    log_debug({here, "FpdUpgResponse"}, "FPD %s received response state %s progress %d", fpd.info.name,
              state_name(msg.state), static_cast<int>(msg.progress));
    // The state comes over a queue: it may be any number.
    if (msg.state == FpdState::upgrade_started)
        handle_started(fpd);
    else if (msg.state == FpdState::upgrade_progressing)
        handle_progressing(fpd, msg.progress);
    else if (msg.state == FpdState::upgrade_failed)
        handle_failed(card, fpd, msg.progress);
    else if (msg.state == FpdState::upgrade_done)
        handle_done(card, fpd);
    else
        log_error({here, "FpdUpgResponseDflt"}, "FPD %s response received an invalid state %s in the sequence queue %d",
                  fpd.info.name, state_name(msg.state), fpd.seq);
}

void handle_message(LocalCard &card, const WorkerMsg &msg) {
    Fpd *const fpd = fpd_of_running_worker(card, msg.worker);
    if (fpd)
        handle_report(card, *fpd, msg);
    else
        log_error({here, "FpdUpgMsgRcvInvWorker"}, "FPD Upgrade msgqueue received an unknown worker %p",
                  static_cast<const void *>(msg.worker));
}

/// Time that the reports of a flood have; without a clock they have none.
struct FloodTime {
    bool is_up() {
        timespec now{};
        const bool now_is_known = clock_gettime(CLOCK_MONOTONIC_RAW, &now) == 0;
        if (!begun) began = now;
        begun = true;
        return !now_is_known || elapsed(began, now) > std::int64_t{supervision_period()};
    }

    bool begun = false;
    timespec began{};
};

}  // namespace

void drain_worker_messages(LocalCard &card) {
    // What may wait at this moment: a queue full, and a report of each worker that waits for room. Whoever sent one of
    // these must not look stuck to the supervision. After them, reports without end must not keep it from its work.
    const std::int64_t waiting = std::int64_t{fpd_mq_max_messages} + card.planned_count;
    FloodTime flood;
    for (std::int64_t count = 1;; ++count) {
        WorkerMsg msg{};
        if (!receive_report(card.mq, msg)) return;
        handle_message(card, msg);
        if (count >= waiting && flood.is_up()) return;
    }
}

// Supervision ---------------------------------------------------------------------------------------------------------

namespace {

/// The check of one state against its time limit.
struct ProgressCheck {
    FpdState state;
    std::uint32_t (*limit)();  // µs
    const char *invalid_state_tag;
    const char *invalid_state;
    const char *clock_tag;
    const char *clock;
    const char *time_out_tag;
    const char *cancel_tag;
    const char *move_tag;
    const char *retry_tag;
    const char *event_tag;     // of a failure to send it
    const char *event;         // takes the name; in 'FPD Upgrade Progressing' the progress before it
    const char *cancel_event;  // OBFL text; takes name and packaged version, and the progress after them
    const char *failure_tag;   // of the pass
    const char *failure;
};

constexpr auto progress_checks = std::to_array<ProgressCheck>({
    {
        .state = FpdState::worker_created,
        .limit = scheduling_limit,
        .invalid_state_tag = "ChkFpdUpgScheduleInvState",
        .invalid_state = "Checking FPD %s Upgrade Scheduling from an invalid State %s",
        .clock_tag = "ChkFpdUpgScheduleClockGetFail",
        .clock = "Checking FPD %s upgrade Scheduling Clock get failed, error %s",
        .time_out_tag = "ChkFpdUpgScheduleMaxTransTimeOut",
        .cancel_tag = "ChkFpdUpgScheduleMaxTransCancelThreadFail",
        .move_tag = "ChkFpdUpgScheduleMaxTransQMoveFail",
        .retry_tag = "ChkFpdUpgScheduleTransRetry",
        .event_tag = "FpdUpgSendFpdWorkerstuck",
        .event = "Auto FPD Upgrade worker stuck forever and killing for '%s'",
        .cancel_event =
            "FPD '%s' Canceling the upgrade to version %s since worked not scheduled within stipulated time",
        .failure_tag = "FpdUpgProgressCheckScheduledFail",
        .failure = "Checking FPD %s upgrade scheduling failed error %s",
    },
    {
        .state = FpdState::upgrade_started,
        .limit = start_limit,
        .invalid_state_tag = "ChkFpdUpgStartedInvState",
        .invalid_state = "Checking FPD %s Upgrade Started from an invalid State %s",
        .clock_tag = "ChkFpdUpgStartedClockGetFail",
        .clock = "Checking FPD %s upgrade started Clock get failed, error %s",
        .time_out_tag = "ChkFpdUpgStartedMaxTransTimeOut",
        .cancel_tag = "ChkFpdUpgStartedMaxTransCancelThreadFail",
        .move_tag = "ChkFpdUpgStartedMaxTransQMoveFail",
        .retry_tag = "ChkFpdUpgStartedTransRetry",
        .event_tag = "FpdUpgSendFpdWorkerStuckStarted",
        .event = "Auto FPD Upgrade worker started stuck forever and killing for '%s'",
        .cancel_event = "FPD '%s' Canceling the upgrade to version %s since worked not started within stipulated time",
        .failure_tag = "FpdUpgProgressCheckStartedFail",
        .failure = "Checking FPD %s upgrade start failed error %s",
    },
    {
        .state = FpdState::upgrade_progressing,
        .limit = progressing_limit,
        .invalid_state_tag = "ChkFpdUpgProgressingInvState",
        .invalid_state = "Checking FPD %s Upgrade Progressing from an invalid State %s",
        .clock_tag = "ChkFpdUpgProgressingClockGetFail",
        .clock = "Checking FPD %s upgrade progressing Clock get failed, error %s",
        .time_out_tag = "ChkFpdUpgProgressingMaxTransTimeOut",
        .cancel_tag = "ChkFpdUpgProgressingMaxTransCancelThreadFail",
        .move_tag = "ChkFpdUpgProgressingMaxTransQMoveFail",
        .retry_tag = "ChkFpdUpgProgressingTransRetry",
        .event_tag = "FpdUpgSendFpdWorkerStuckProgressing",
        .event = "Auto FPD Upgrade worker stuck progressing %d forever and killing for '%s'",
        .cancel_event =
            "FPD '%s' Canceling the upgrade to version %s since no progress made after %d%% within stipulated time",
        .failure_tag = "FpdUpgProgressCheckProgressFail",
        .failure = "Checking FPD %s upgrade progressing failed error %s",
    },
});

void raise_stuck_event(const ProgressCheck &check, const Fpd &fpd) {
    const LogSite failure_site{here, check.event_tag};
    if (check.state == FpdState::upgrade_progressing)
        raise_fpd_event(failure_site, AUTO_FPD_UPGRADE_EVENT_ERROR, check.event, fpd.progress, fpd.info.name);
    else
        raise_fpd_event(failure_site, AUTO_FPD_UPGRADE_EVENT_ERROR, check.event, fpd.info.name);
}

void cancel_worker(const ProgressCheck &check, LocalCard &card, Fpd &fpd) {
    const int rc = pthread_cancel(fpd.worker_thread);
    if (rc != 0)
        log_error({here, check.cancel_tag}, "FPD %s cancelling worker thread failed Error %s", fpd.info.name,
                  std::strerror(rc));
    fpd.worker_thread = 0;
    retire_worker(card, fpd, false);
}

/// Ends the stuck worker. Whether the FPD is queued again; it is given up when its retry is spent.
bool end_stuck_worker(const ProgressCheck &check, LocalCard &card, Fpd &fpd) {
    cancel_worker(check, card, fpd);
    raise_stuck_event(check, fpd);
    fpd_obfl_log(check.cancel_event, fpd.info.name, fpd.packaged_text, fpd.progress);
    if (fpd.retries == 0) {
        queue_for_retry(fpd, {here, check.retry_tag});
        return true;
    }
    transition(fpd, FpdState::cant_be_upgraded);
    leave_sequence_queue(card, fpd, {here, check.move_tag});
    return false;
}

/// µs that the FPD has been in its state; false when the clock cannot be read.
bool time_in_state(const Fpd &fpd, std::int64_t *time) {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC_RAW, &now) != 0) return false;
    *time = elapsed(fpd.state_time, now);
    return true;
}

/// Ends the FPD's worker if it has been in the check's state for the limit or longer. Returns 0, -EINVAL, or -ESTALE
/// when the FPD is given up.
int check_progress(const ProgressCheck &check, LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (fpd.state != check.state)
        return fail({here, check.invalid_state_tag}, -EINVAL, err_msg, err_len, check.invalid_state, fpd.info.name,
                    state_name(fpd.state));
    std::int64_t time = 0;
    if (!time_in_state(fpd, &time)) {
        const int error = errno;
        log_debug({here, check.clock_tag}, check.clock, fpd.info.name, std::strerror(error));
        return fail_unlogged(-EINVAL, err_msg, err_len, check.clock, fpd.info.name, std::strerror(error));
    }
    const std::int64_t limit = check.limit();
    if (time < limit) return 0;
    // The scripts of this pass took their time: what the worker reported meanwhile still waits.
    drain_worker_messages(card);
    if (fpd.state != check.state || !time_in_state(fpd, &time) || time < limit) return 0;
    const int stuck = fail({here, check.time_out_tag}, -ESTALE, err_msg, err_len,
                           "FPD %s Upgrade stuck in the state %s since %ld time now vs. maximum %d time", fpd.info.name,
                           state_name(fpd.state), static_cast<long>(time), static_cast<int>(limit));
    return end_stuck_worker(check, card, fpd) ? 0 : stuck;
}

const ProgressCheck *check_for(FpdState state) {
    for (const ProgressCheck &check : progress_checks)
        if (check.state == state) return &check;
    return nullptr;
}

void supervise_fpd(LocalCard &card, Fpd &fpd) {
    char err_msg[error_size] = "";
    if (fpd.state == FpdState::queued_for_upgrade) {
        if (start_fpd_upgrade_worker(card, fpd, err_msg, sizeof err_msg) != 0)
            log_error({here, "FpdUpgProgressCheckStartUpgFail"}, "Starting FPD %s upgrade failed error %s",
                      fpd.info.name, err_msg);
    } else if (const ProgressCheck *const check = check_for(fpd.state)) {
        if (check_progress(*check, card, fpd, err_msg, sizeof err_msg) != 0)
            log_error({here, check->failure_tag}, check->failure, fpd.info.name, err_msg);
    } else {
        log_error({here, "FpdUpgProgressCheckInvState"},
                  "FPD %s is stuck in an invalid state %s while checking Upgrade progressing", fpd.info.name,
                  state_name(fpd.state));
    }
}

bool is_in(const FpdQueue &queue, const Fpd &fpd) {
    const Fpd *each = queue;
    while (each && each != &fpd) each = each->next;
    return each;
}

void supervise_queue(LocalCard &card, const FpdQueue &queue) {
    for (Fpd *fpd = queue; fpd; fpd = fpd->next) {
        const FpdState before = fpd->state;
        supervise_fpd(card, *fpd);
        // A record that left the queue is in another: the walk ends there and goes on in the next pass.
        if (fpd->state != before && !is_in(queue, *fpd)) return;
    }
}

}  // namespace

void supervise_fpd_upgrades(LocalCard &card) {
    for (const FpdQueue &queue : card.queues.seq_queues) {
        if (!queue) continue;
        supervise_queue(card, queue);
        return;
    }
}

// The run -------------------------------------------------------------------------------------------------------------

namespace {

int delete_previous_marker(char *err_msg, std::size_t err_len) {
    const int rc = upg_marker_delete(err_msg, err_len);
    if (rc != 0)
        log_error({here, "DeletePreUpgMarkerFail"}, "Failed to remove previously cached Upgrade Marker file, error %s",
                  err_msg);
    return rc;
}

/// Whether this plan was carried out before the last reload already.
int check_marker(bool *same, char *err_msg, std::size_t err_len) {
    const int rc = upg_marker_check(same, err_msg, err_len);
    if (rc != 0)
        log_error({here, "UpgMarkerCheckFail"}, "Failed to check upgrade marker, error %s", err_msg);
    else if (*same)
        log_info({here, "UpgMarkerCheck"}, "Skipping Upgrade since trying to upgrade same FPDs and Versions");
    return rc;
}

void announce_start(const LocalCard &card, char *err_msg, std::size_t err_len) {
    raise_fpd_event({here, "FpdUpgSendFpdStartedEventFail"}, AUTO_FPD_UPGRADE_EVENT_STARTED,
                    "Auto FPD Upgrade Operation Started");
    if (upg_led_notify(card.group_id, card.led_obj_id, UpgLedRequest::upgrade_started, err_msg, err_len) != 0)
        log_error({here, "AutoFpdUpgStartLedOnFail"}, "Auto FPD Upgrade Started LED notification failed %s", err_msg);
}

void announce_end(const LocalCard &card, char *err_msg, std::size_t err_len) {
    raise_fpd_event({here, "FpdUpgEndedSendFpdEventFail"}, AUTO_FPD_UPGRADE_EVENT_ENDED,
                    "Auto FPD Upgrade Operation Ended");
    if (upg_led_notify(card.group_id, card.led_obj_id, UpgLedRequest::upgrade_ended, err_msg, err_len) != 0)
        log_error({here, "FpdUpgEndedLedOffFail"}, "Auto FPD Upgrade Ended LED notification failed %s", err_msg);
}

bool read_loop_clock(timespec &time, const char *failure_tag) {
    if (clock_gettime(CLOCK_MONOTONIC_RAW, &time) == 0) return true;
    log_debug({here, failure_tag}, "Auto FPD Upgrade mainloop Clock get failed, error %s", std::strerror(errno));
    return false;
}

void punch_watchdog() {
    CommandOutput output;
    char err_msg[error_size];
    if (run_command(watchdog_script, output, err_msg, sizeof err_msg) != 0) {
        log_error({here, "AutoFpdUpgradeProgressWDPunchFail"}, "Punching PD watchdog failed error %s", err_msg);
        return;
    }
    log_debug({here, "AutoFpdUpgradeProgressWDPunch"}, "Punching PD watchdog: %s", output);
}

void show_progress(LocalCard &card, const timespec &now) {
    raise_fpd_event({here, "AutoFpdUpgMainLoopSendFpdEventFail"}, AUTO_FPD_UPGRADE_EVENT_PROGRESS,
                    "Auto FPD Upgrade Progressing");
    punch_watchdog();
    card.last_punch_time = now;
}

void run_main_loop(LocalCard &card) {
    while (card.planned_count != 0) {
        drain_worker_messages(card);
        timespec now{};
        const bool now_is_known = read_loop_clock(now, "AutoFpdUpgMailLoopClockFail");
        // Without a clock, supervising too often is better than not at all.
        if (!now_is_known || elapsed(card.last_check_time, now) > std::int64_t{supervision_period()}) {
            supervise_fpd_upgrades(card);
            card.last_check_time = {};
            read_loop_clock(card.last_check_time, "AutoFpdUpgMailLoopClockFail1");
        }
        if (now_is_known && elapsed(card.last_punch_time, now) > std::int64_t{punch_period()}) show_progress(card, now);
        sleep_for(main_loop_sleep());
    }
    log_info({here, "AutoFpdUpgMainLoopDone"}, "No more FPD available in the sequence queue");
}

/// Waits for the thread that mounts the flash, which may take minutes: the watchdog has to be fed meanwhile, or the
/// card reloads, and mounts, and reloads. False when the thread does not come back.
bool wait_for_flash_mount(LocalCard &card) {
    const std::uint32_t look_period = std::max(main_loop_sleep(), shortest_look_period);
    for (std::int64_t left = flash_mount_limit; !obfl_mount_is_over(); left -= look_period) {
        if (left < 0) return false;
        timespec now{};
        const bool now_is_known = clock_gettime(CLOCK_MONOTONIC_RAW, &now) == 0;
        // Without a clock, punching too often is better than not at all.
        if (!now_is_known || elapsed(card.last_punch_time, now) > std::int64_t{punch_period()}) {
            punch_watchdog();
            card.last_punch_time = now;
        }
        sleep_for(look_period);
    }
    return true;
}

void flush_flash_log(LocalCard &card) {
    if (wait_for_flash_mount(card)) {
        obfl_flash_release();
        return;
    }
    obfl_flash_abandon();
    ++card.hanging_threads;
}

void upgrade_planned_fpds(LocalCard &card, char *err_msg, std::size_t err_len) {
    const UnwantedSignalsHeld held;
    announce_start(card, err_msg, err_len);
    run_main_loop(card);
    announce_end(card, err_msg, err_len);
}

}  // namespace

int run_fpd_upgrade(LocalCard &card, RunLevel run_level) {
    char err_msg[error_size] = "";
    if (card.planned_count == 0) return delete_previous_marker(err_msg, sizeof err_msg);
    bool same = false;
    int rc = check_marker(&same, err_msg, sizeof err_msg);
    if (rc != 0 || same) return rc;
    rc = delete_previous_marker(err_msg, sizeof err_msg);
    if (rc != 0) return rc;

    upgrade_planned_fpds(card, err_msg, sizeof err_msg);
    flush_flash_log(card);
    if (run_level == RunLevel::boot && auto_fpd_upgrade_activate(card, err_msg, sizeof err_msg) != 0)
        log_error({here, "FpdUpgActivationRequestFailed"}, "Auto FPD Upgrade Activation request failed %s", err_msg);
    return 0;
}
