/// What passes between a worker and the main thread: the worker's context, and its reports.
#ifndef WORKER_MSG_H
#define WORKER_MSG_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "brd_intf_auto_fpd_upgrade_state.h"

struct LocalCard;

/// The number of no message queue.
inline constexpr int no_mq = -1;

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

#endif
