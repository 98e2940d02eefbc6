/// What the sources of planning share; for them alone.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_INIT_PLANNING_H
#define BRD_INTF_AUTO_FPD_UPGRADE_INIT_PLANNING_H

#include <cstddef>

#include "fpd_log.h"
#include "local_card.h"

/// The module as its log lines name it, whichever source they come from.
inline constexpr LogModule planning_log{"FPD", "brd_intf_auto_fpd_upgrade_init"};

/// The plan of one stage in the making: for which card and run, and where a failure leaves its reason.
struct Planning {
    RunLevel run_level;  // counts where FPDs are evaluated, not where they are queued
    UpgradeStage stage;
    LocalCard &card;
    char *err_msg;  // the caller's
    std::size_t err_len;
};

#endif
