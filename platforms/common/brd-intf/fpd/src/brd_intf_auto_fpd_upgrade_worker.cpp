#include "brd_intf_auto_fpd_upgrade_worker.h"

#include <mqueue.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "brd_intf_auto_fpd_obfl.h"
#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "brd_intf_events_fpd.h"
#include "card_libraries.h"
#include "fpd_log.h"
#include "os_file.h"
#include "os_thread.h"
#include "worker_msg.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};
constexpr std::size_t error_size = 256;
// All threads that are about to end have a second together.
constexpr unsigned join_looks = 100;
constexpr timespec join_look_period{0, 10'000'000};

/// Tells the main thread, at the very end of the worker's thread and however it ends, that it is through with its
/// context.
struct EndOfWorker {
    explicit EndOfWorker(FpdWorkerCtx &ended_worker) : worker(ended_worker) {}
    ~EndOfWorker() { std::atomic_ref(worker.ended).store(true, std::memory_order_release); }
    EndOfWorker(const EndOfWorker &) = delete;
    EndOfWorker &operator=(const EndOfWorker &) = delete;
    FpdWorkerCtx &worker;
};

/// Closes the worker's sending end when the thread is cancelled.
struct SendingEnd {
    explicit SendingEnd(FpdWorkerCtx &sending_worker) : worker(sending_worker) {}
    ~SendingEnd() {
        if (worker.mq < 0) return;
        CancelHold hold;
        mq_close(worker.mq);
    }
    SendingEnd(const SendingEnd &) = delete;
    SendingEnd &operator=(const SendingEnd &) = delete;
    FpdWorkerCtx &worker;
};

bool dependency_is_met(const Fpd &fpd) {
    return !fpd.dependency || fpd.dependency->state == FpdState::upgrade_not_needed ||
           fpd.dependency->state == FpdState::upgrade_done;
}

int give_up_for_dependency(LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    const int rc = fail({here, "StartFpdUpgWorkerDepFpdFail"}, -EBADR, err_msg, err_len,
                        "FPD %s can't be upgraded without dependecny FPD %s upgrade state %s", fpd.info.name,
                        fpd.dependency->info.name, state_name(fpd.dependency->state));
    transition(fpd, FpdState::cant_be_upgraded);
    leave_sequence_queue(card, fpd, {here, "StartFpdUpgWorkerQMoveFail"});
    return rc;
}

FpdWorkerCtx *create_worker_context(LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    auto *const worker = static_cast<FpdWorkerCtx *>(std::calloc(1, sizeof(FpdWorkerCtx)));
    if (!worker) {
        fail({here, "WorkerCtxNoMem"}, -ENOMEM, err_msg, err_len,
             "No memory available to create worker context error %s", std::strerror(errno));
        return nullptr;
    }
    worker->mq = no_mq;
    worker->fpd = &fpd;
    worker->card = &card;
    worker->group_id = card.group_id;
    worker->obj_id = fpd.obj_id;
    worker->region = fpd.region;
    std::snprintf(worker->name, sizeof worker->name, "%s", fpd.info.name);
    std::snprintf(worker->image, sizeof worker->image, "%s", fpd.desc.image);
    std::snprintf(worker->mq_name, sizeof worker->mq_name, "%s", card.mq_name);
    return worker;
}

void announce_start(const Fpd &fpd) {
    const bool retry = fpd.retries != 0;
    raise_fpd_event({here, "FpdUpgSendFpdStartedEventMsgFail"}, AUTO_FPD_UPGRADE_EVENT_WARNING,
                    "Auto FPD Upgrade %s for '%s'", retry ? "retrying" : "started", fpd.info.name);
    fpd_obfl_log("FPD '%s' %s upgrading to version %s Run version %s Programmed version %s", fpd.info.name,
                 retry ? "Retry" : "Start", fpd.packaged_text, fpd.running_text, fpd.programmed_text);
}

/// Sends a report; -errno when that fails. Waits while the queue is full; a cancellation point.
int send_report(FpdWorkerCtx &worker, FpdState state, std::uint32_t progress) {
    WorkerMsg msg;
    std::memset(&msg, 0, sizeof msg);
    msg.magic = worker_msg_magic;
    msg.worker = &worker;
    msg.progress = progress;
    msg.state = state;
    const auto send = [&] { return mq_send(worker.mq, reinterpret_cast<const char *>(&msg), sizeof msg, 0); };
    return uninterrupted(send) == 0 ? 0 : -errno;
}

void report_state(FpdWorkerCtx &worker, FpdState state, std::uint32_t progress, const LogSite &failure_site) {
    const int rc = send_report(worker, state, progress);
    if (rc != 0)
        log_error(failure_site, "Sending worker thread FPD %s upgrade state failed error %s", worker.name,
                  std::strerror(-rc));
}

void report_progress(void *context, int percent) {
    FpdWorkerCtx &worker = *static_cast<FpdWorkerCtx *>(context);
    log_debug({here, "FpdUpgradeProgress"}, "FPD %s upgrade progressing percent %d", worker.name, percent);
    const int rc = send_report(worker, FpdState::upgrade_progressing, static_cast<std::uint32_t>(percent));
    if (rc != 0)
        log_error({here, "FpdUpgradeProgressMqSendFail"},
                  "Sending worker thread FPD %s upgrade progress failed error %s", worker.name, std::strerror(-rc));
}

/// Upgrades the region; the state it ends in.
FpdState upgrade_region(FpdWorkerCtx &worker) {
    BrdFpdUpgradeRequest request;
    std::memset(&request, 0, sizeof request);
    request.region = worker.region;
    request.context = &worker;
    request.progress = report_progress;
    std::snprintf(request.directory, sizeof request.directory, "%s", packaged_firmware_directory);
    std::snprintf(request.file_name, sizeof request.file_name, "%s", worker.image);
    char err_msg[error_size] = "";
    if (card_fpd_upgrade(worker.group_id, worker.obj_id, request, err_msg, sizeof err_msg) == 0)
        return FpdState::upgrade_done;
    log_error({here, "FpdUpgHdlUpgradeFail"}, "FPD %s upgrade failed err_msg %s", worker.name, err_msg);
    return FpdState::upgrade_failed;
}

void close_sending_end(FpdWorkerCtx &worker) {
    const int mq = worker.mq;
    worker.mq = no_mq;
    char err_msg[error_size] = "";
    if (close_fpd_mq(mq, err_msg, sizeof err_msg) != 0)
        log_error({here, "FpdUpgHdlMqCloseFail"}, "Worker thread message queue close failed error %s", err_msg);
}

}  // namespace

int start_fpd_upgrade_worker(LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (!dependency_is_met(fpd)) return give_up_for_dependency(card, fpd, err_msg, err_len);
    if (fpd.worker)
        return fail({here, "StartFpdUpgWorkerAlreadyExist"}, -EEXIST, err_msg, err_len,
                    "A worker context already created for this FPD %p", static_cast<const void *>(fpd.worker));
    FpdWorkerCtx *const worker = create_worker_context(card, fpd, err_msg, err_len);
    if (!worker)
        return pass_on({here, "StartFpdUpgWorkerCreateCtxFail"}, -ENOMEM, "Creating Worker context failed %s", err_msg);
    const int rc = os_thread_create(&fpd.worker_thread, nullptr, fpd_upg_handler, worker);
    if (rc != 0) {
        std::free(worker);
        return fail({here, "StartFpdUpgradeThreadCreateFail"}, rc, err_msg, err_len,
                    "Creating worker thread to upgrade FPD %s is failed err_msg %s", fpd.info.name, std::strerror(rc));
    }
    worker->thread = fpd.worker_thread;
    fpd.worker = worker;
    transition(fpd, FpdState::worker_created);
    announce_start(fpd);
    return 0;
}

void retire_worker(LocalCard &card, Fpd &fpd, bool reported_end) {
    FpdWorkerCtx *const worker = fpd.worker;
    if (!worker) return;
    worker->reported_end = reported_end;
    worker->next = card.retired_workers;
    card.retired_workers = worker;
    fpd.worker = nullptr;
}

namespace {

/// Whether the worker is through with the platform library, and its thread should end any moment.
bool is_ending(FpdWorkerCtx &worker) {
    return worker.reported_end || std::atomic_ref(worker.ended).load(std::memory_order_acquire);
}

/// Joins the thread if it ends; each look at one that still runs takes one of the looks that are left. A thread may be
/// held up for ever even after the worker's last line: by what the platform library does at the end of a thread.
bool join(pthread_t thread, unsigned &looks_left) {
    while (pthread_tryjoin_np(thread, nullptr) == EBUSY) {
        if (looks_left == 0) return false;
        --looks_left;
        nanosleep(&join_look_period, nullptr);
    }
    return true;
}

}  // namespace

void release_retired_workers(LocalCard &card) {
    unsigned looks_left = join_looks;
    while (FpdWorkerCtx *const worker = card.retired_workers) {
        card.retired_workers = worker->next;
        if (is_ending(*worker) && join(worker->thread, looks_left)) {
            std::free(worker);
            continue;
        }
        pthread_detach(worker->thread);
        ++card.hanging_threads;
    }
}

void *fpd_upg_handler(void *worker_context) {
    FpdWorkerCtx &worker = *static_cast<FpdWorkerCtx *>(worker_context);
    const EndOfWorker end(worker);
    const SendingEnd sending_end(worker);
    log_info({here, "FpdUpgHdl"}, "Started Worker thread for FPD %s", worker.name);
    char err_msg[error_size] = "";
    const int rc = open_fpd_mq(worker.mq_name, worker, err_msg, sizeof err_msg);
    log_debug({here, "FpdUpgHdlrWorkerMq"}, "Worker MQ id %d", worker.mq);
    if (rc != 0) {
        // The context stays the main thread's, which ends this attempt when it sees nothing of it.
        log_error({here, "FpdUpgHdlMqOpenFail"}, "FPD %s Worker thread message queue open failed error %s", worker.name,
                  err_msg);
        return reinterpret_cast<void *>(std::intptr_t{-EIO});
    }
    report_state(worker, FpdState::upgrade_started, 0, {here, "FpdUpgHdlMqSendFail"});
    const FpdState result = upgrade_region(worker);
    log_info({here, "FpdUpgHdlUpgradeSuccess"}, "FPD %s Upgrade state %s", worker.name, state_name(result));
    report_state(worker, result, result == FpdState::upgrade_done ? 100 : 0, {here, "FpdUpgHdlMqSendFail1"});
    close_sending_end(worker);
    return nullptr;
}
