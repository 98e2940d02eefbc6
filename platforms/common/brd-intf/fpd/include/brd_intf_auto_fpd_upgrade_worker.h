/// The worker: the thread that upgrades one FPD region and reports to the driver.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_WORKER_H
#define BRD_INTF_AUTO_FPD_UPGRADE_WORKER_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "brd_intf_auto_fpd_upgrade_state.h"

struct LocalCard;

/// Context of one worker. The main thread makes it, retires it and, when the thread can no longer touch it, releases
/// it. The thread reads the copies in it and nothing of the card or the record: those may be gone, or about another
/// upgrade of the same FPD, when a worker that was given up on wakes up.
struct FpdWorkerCtx {
    int mq;           // worker's sending end; the thread's own
    Fpd *fpd;         // main thread only; for whoever looks at a hanging worker
    LocalCard *card;  // main thread only; likewise

    std::uint32_t group_id;
    std::uint32_t obj_id;
    std::uint8_t region;
    char name[sizeof(BrdFpdInfo::name)];
    char image[sizeof(FpdDesc::image)];  // file name below the packaged firmware directory
    char mq_name[64];

    bool ended;          // set by the thread as the last thing it does; atomic access only
    bool reported_end;   // main thread only: its Done or Failed arrived
    pthread_t thread;    // main thread only
    FpdWorkerCtx *next;  // main thread only: in the card's list of retired workers
};
static_assert(std::is_trivial_v<FpdWorkerCtx>, "taken with calloc");

inline constexpr std::uint32_t worker_msg_magic = 0xA670F9D4;

/// A worker's report. The record is zeroed before it is filled: its padding is sent too.
struct WorkerMsg {
    std::uint32_t magic;
    FpdWorkerCtx *worker;    // the sender
    std::uint32_t progress;  // percent
    FpdState state;          // upgrade_started, _progressing, _failed or _done
};
static_assert(sizeof(WorkerMsg) == 24 && offsetof(WorkerMsg, magic) == 0 && offsetof(WorkerMsg, worker) == 8 &&
              offsetof(WorkerMsg, progress) == 16 && offsetof(WorkerMsg, state) == 20);

static_assert(sizeof(BrdFpdUpgradeRequest) == 600);
static_assert(offsetof(BrdFpdUpgradeRequest, region) == 0 && offsetof(BrdFpdUpgradeRequest, context) == 8 &&
              offsetof(BrdFpdUpgradeRequest, progress) == 16 && offsetof(BrdFpdUpgradeRequest, directory) == 24 &&
              offsetof(BrdFpdUpgradeRequest, file_name) == 280);

/// Starts the upgrade of a queued FPD in a thread of its own. Returns 0; -EBADR when the FPD it depends on was not
/// upgraded, and the FPD is given up; -EEXIST when it has a worker already; -ENOMEM, or the result of the thread's
/// creation, and the FPD stays queued. Main thread.
int start_fpd_upgrade_worker(LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len);

/// Takes the worker off its FPD. From here on its reports are a stranger's. Main thread.
/// @param reported_end its last report arrived, so that its thread is about to end
void retire_worker(LocalCard &card, Fpd &fpd, bool reported_end);
/// Joins and releases the retired workers whose thread has ended or is about to, for which all of them have a second.
/// One that still runs then, or hangs in the platform library, keeps its context until the process ends, and is counted
/// in card.hanging_threads. Not before the last drain: until then no address of a retired worker may be handed out
/// again. Main thread.
void release_retired_workers(LocalCard &card);

/// Entry of the worker thread. Returns 0, or -EIO as a pointer-sized integer when its queue cannot be opened.
extern "C" [[gnu::visibility("default")]] void *fpd_upg_handler(void *worker_context);

#endif
