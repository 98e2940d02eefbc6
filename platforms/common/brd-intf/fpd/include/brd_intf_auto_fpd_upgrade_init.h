/// The context of one run, and the plan of what it upgrades. Main thread.
///
/// Results are 0, negative errno numbers, or what a callee or the platform returned; err_msg says why.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_INIT_H
#define BRD_INTF_AUTO_FPD_UPGRADE_INIT_H

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "brd_intf_auto_fpd_upgrade_queue.h"
#include "brd_intf_auto_fpd_upgrade_state.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "fpd_log.h"

inline constexpr const char *packaged_firmware_directory = "/pkg/fpd/ucode";

/// How the run was asked for.
inline constexpr unsigned run_level_boot = 1;     // by the start-up scripts
inline constexpr unsigned run_level_backend = 2;  // by hand: the card is not reloaded

/// All that a run knows of its card; owns every Fpd in its queues and every worker context.
struct LocalCard {
    std::uint32_t group_id;
    std::uint32_t led_obj_id;
    std::uint32_t board_type;
    FpdVersion hw_version;
    char mq_name[64];  // of the queue on which workers report
    int mq;            // its receiving end
    FpdCardQueues queues;
    std::uint32_t planned_count;  // FPDs still to be upgraded

    timespec last_check_time;       // of the last supervision pass, CLOCK_MONOTONIC_RAW
    timespec last_punch_time;       // of the last watchdog punch, CLOCK_MONOTONIC_RAW
    FpdWorkerCtx *retired_workers;  // off their FPDs, to be released when the run is over
    unsigned hanging_threads;       // that were still in the platform library then
};
static_assert(std::is_trivial_v<LocalCard>, "taken with calloc");

/// Readies the platform interface of this process; cannot fail.
int platform_interface_init();

/// Makes the context of a run in *card, with the card's identity and its status LED. -ENOMEM or -EACCES, with *card
/// left alone.
int context_init(LocalCard **card, char *err_msg, std::size_t err_len);
/// Frees the context and sets *card to null. Always 0.
int context_deinit(LocalCard **card, char *err_msg, std::size_t err_len);
/// Frees every record and the plan with them. Always 0.
int free_queues(LocalCard &card);

/// Moves a planned record from its sequence queue to the tail of fpd_queue; a failure is logged at `site`. The count of
/// planned FPDs is the caller's.
void leave_sequence_queue(LocalCard &card, Fpd &fpd, LogSite site);

/// Creates the message queue and plans the run.
int interface_init(unsigned run_level, LocalCard &card, char *err_msg, std::size_t err_len);
/// Frees the plan, removes the message queue and releases the workers, also when the queue cannot be removed;
/// card.hanging_threads tells how many are beyond release.
int interface_deinit(LocalCard &card, char *err_msg, std::size_t err_len);

/// Plans the run in the stages of the stored upgrade mode. EINVAL (positive) for a mode that is none.
int plan_upgrade(unsigned run_level, LocalCard &card, char *err_msg, std::size_t err_len);
/// Loads every FPD region of the card and evaluates it for the stage, into fpd_queue. -ENOMEM or -EACCES; what fails
/// for one region only shows in that region's state.
int load_fpds(unsigned run_level, UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len);
/// Moves what is to be upgraded from fpd_queue into the sequence queues, dependencies first. Returns 0 or the result of
/// a failed addition to the upgrade marker.
int build_upgrade_queue(UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len);

/// Name of a region as the platform has it, cut to name_len bytes with its NUL. -EINVAL for a region that is none,
/// -ENOMEM, or the platform's code.
int get_fpd_name(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t region, char *name, std::size_t name_len,
                 char *err_msg, std::size_t err_len);
/// Reads what the platform knows of the region, its versions above all, into the record. -EACCES.
int fpd_info_get(std::uint32_t group_id, Fpd &fpd, char *err_msg, std::size_t err_len);
/// The same for a record in one of the card's queues. -EEXIST when the platform now gives it the name of another
/// record: names are what the queues tell their records apart by, so it keeps the one it had.
int fpd_info_refresh(const LocalCard &card, Fpd &fpd, char *err_msg, std::size_t err_len);

#endif
