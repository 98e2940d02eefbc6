/// The upgrade run: starts workers, receives their reports and supervises them until nothing is left to upgrade.
/// Main thread.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_HANDLER_H
#define BRD_INTF_AUTO_FPD_UPGRADE_HANDLER_H

#include <cstdint>

#include "local_card.h"

/// Divides every period and limit of the run; 0 counts as 1. For the platform to set.
extern "C" [[gnu::visibility("default")]] std::uint32_t bootup_fpd_time_div;

/// Periods and limits, µs, as the divisor has them now.
std::uint32_t supervision_period();
std::uint32_t punch_period();
std::uint32_t main_loop_sleep();
std::uint32_t scheduling_limit();
std::uint32_t start_limit();
std::uint32_t progressing_limit();

/// Carries out the planned upgrade, and in a boot-time run asks for the reload it needs. Returns 0 once the upgrade was
/// begun, whatever becomes of single FPDs; else the failed marker operation's code.
int run_fpd_upgrade(LocalCard &card, RunLevel run_level);

/// Receives and handles the workers' reports until there are none, or a malformed one. A flood of them ends after one
/// supervision period, but not before all that were sent when it began.
void drain_worker_messages(LocalCard &card);
/// One supervision pass over the lowest sequence queue that is not empty: starts workers for queued FPDs, and ends
/// those that stay too long in one state.
void supervise_fpd_upgrades(LocalCard &card);

#endif
