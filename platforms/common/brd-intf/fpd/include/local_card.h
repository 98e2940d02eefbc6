/// The context of one run: what it knows of its card, how it was asked for, and how many FPDs it still has to upgrade.
/// Main thread only.
#ifndef LOCAL_CARD_H
#define LOCAL_CARD_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <type_traits>

#include "brd_intf_auto_fpd_upgrade_queue.h"
#include "brd_intf_auto_fpd_upgrade_state.h"
#include "fpd_log.h"

struct FpdWorkerCtx;

inline constexpr const char *packaged_firmware_directory = "/pkg/fpd/ucode";

/// How the run was asked for.
enum class RunLevel : int {
    boot = 1,     // by the start-up scripts
    backend = 2,  // by hand: the card is not reloaded
};

/// All that a run knows of its card; owns every Fpd in its queues and every worker context.
struct LocalCard {
    std::uint32_t group_id;
    std::uint32_t led_obj_id;
    std::uint32_t board_type;
    FpdVersion hw_version;
    char mq_name[64];  // of the queue on which workers report
    int mq;            // its receiving end
    FpdCardQueues queues;
    std::uint32_t planned_count;  // records in the sequence queues: FPDs still to be upgraded

    timespec last_check_time;       // of the last supervision pass, CLOCK_MONOTONIC_RAW
    timespec last_punch_time;       // of the last watchdog punch, CLOCK_MONOTONIC_RAW
    FpdWorkerCtx *retired_workers;  // off their FPDs, to be released when the run is over
    unsigned hanging_threads;       // that were still in the platform library then
};
static_assert(std::is_trivial_v<LocalCard>, "taken with calloc");

/// Plans a record of fpd_queue: moves it to the tail of sequence queue # `seq`, which has to be one. A failure to move
/// it is the result, and leaves it unplanned.
int enter_sequence_queue(LocalCard &card, Fpd &fpd, unsigned seq, char *err_msg, std::size_t err_len);
/// Moves a planned record from its sequence queue to the tail of fpd_queue; a failure is logged at `site`.
void leave_sequence_queue(LocalCard &card, Fpd &fpd, const LogSite &site);

#endif
