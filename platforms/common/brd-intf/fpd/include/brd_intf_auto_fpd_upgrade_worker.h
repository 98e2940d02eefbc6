/// The worker: the thread that upgrades one FPD region and reports to the driver.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_WORKER_H
#define BRD_INTF_AUTO_FPD_UPGRADE_WORKER_H

#include <cstddef>

#include "local_card.h"

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
