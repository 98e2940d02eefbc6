/// The linked queues of FPD records. Main thread only.
///
/// Results are 0 or positive errno numbers; err_msg may be null. A queue owns the records it holds.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_QUEUE_H
#define BRD_INTF_AUTO_FPD_UPGRADE_QUEUE_H

#include <cstddef>

#include "brd_intf_auto_fpd_upgrade_state.h"

/// The first record of a queue, linked through Fpd::next; null: empty.
using FpdQueue = Fpd *;

inline constexpr unsigned seq_queue_count = 16;

/// The queues of one card.
struct FpdCardQueues {
    FpdQueue seq_queues[seq_queue_count];  // the plan: a lower number is upgraded earlier
    FpdQueue fpd_queue;                    // every record that is not, or no longer, planned
};

/// A zeroed record in state 'FPD Created', to be released with free_fpd; null when there is no memory for it, with the
/// reason in err_msg.
Fpd *alloc_fpd(char *err_msg, std::size_t err_len);
/// Releases a record that is in no queue; null is allowed.
void free_fpd(Fpd *fpd);

/// Appends a record. EEXIST when its name is already there, EINVAL when it is linked in a queue (its tail excepted,
/// which cannot be told from an unlinked record).
int add_fpd_queue(FpdQueue *queue, Fpd *fpd, char *err_msg, std::size_t err_len);
/// Unlinks the record if it is the first, else the first record of its name after the head. EINVAL when the queue is
/// empty; ENOENT, with err_msg left alone, when there is none.
int rm_fpd_queue(FpdQueue *queue, Fpd *fpd, char *err_msg, std::size_t err_len);
/// Removes from one queue and appends to the other; failures are logged only, the result is always 0.
int move_fpd_between_queue(FpdQueue *from, FpdQueue *to, Fpd *fpd, char *err_msg, std::size_t err_len);

/// The first record of that name from `first` on; null when there is none.
Fpd *get_fpd_by_name_queue(Fpd *first, const char *name, char *err_msg, std::size_t err_len);
/// The same over fpd_queue, then the sequence queues from 0 up.
Fpd *get_fpd_by_name(const FpdCardQueues &queues, const char *name, char *err_msg, std::size_t err_len);

/// Releases every record and leaves the queue empty.
void free_fpd_queue(FpdQueue *queue);

#endif
