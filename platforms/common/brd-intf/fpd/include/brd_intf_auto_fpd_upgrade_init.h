/// The context of one run, and the plan of what it upgrades. Main thread.
///
/// Results are 0, negative errno numbers, or what a callee or the platform returned; err_msg says why.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_INIT_H
#define BRD_INTF_AUTO_FPD_UPGRADE_INIT_H

#include <cstddef>
#include <cstdint>

#include "local_card.h"

/// Readies the platform interface of this process; cannot fail.
int platform_interface_init();

/// Makes the context of a run in *card, with the card's identity and its status LED. -ENOMEM or -EACCES, with *card
/// left alone.
int context_init(LocalCard **card, char *err_msg, std::size_t err_len);
/// Frees the context and sets *card to null. Always 0.
int context_deinit(LocalCard **card, char *err_msg, std::size_t err_len);
/// Frees every record and the plan with them. Always 0.
int free_queues(LocalCard &card);

/// Creates the message queue and plans the run.
int interface_init(RunLevel run_level, LocalCard &card, char *err_msg, std::size_t err_len);
/// Frees the plan and removes the message queue. The workers stay: they are released after it.
int interface_deinit(LocalCard &card, char *err_msg, std::size_t err_len);

/// Plans the run in the stages of the stored upgrade mode. EINVAL (positive) for a mode that is none.
int plan_upgrade(RunLevel run_level, LocalCard &card, char *err_msg, std::size_t err_len);
/// Loads every FPD region of the card and evaluates it for the stage, into fpd_queue. -ENOMEM or -EACCES; what fails
/// for one region only shows in that region's state.
int load_fpds(RunLevel run_level, UpgradeStage stage, LocalCard &card, char *err_msg, std::size_t err_len);
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
