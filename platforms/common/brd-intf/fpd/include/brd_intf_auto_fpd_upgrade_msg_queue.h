/// The message queue on which workers report to the driver: its two ends.
///
/// Results are 0 or -EIO with a text in err_msg, which may be null.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_MSG_QUEUE_H
#define BRD_INTF_AUTO_FPD_UPGRADE_MSG_QUEUE_H

#include <cstddef>

struct FpdWorkerCtx;

inline constexpr const char *fpd_mq_base_name = "/auto_fpd_upg_mq";
/// Reports that may be pending; a worker with another waits.
inline constexpr long fpd_mq_max_messages = 256;

/// Makes an empty queue of that name and opens it for receiving without waiting. It belongs to this run until it is
/// deleted or the process ends: that of a run that is on is left alone (EBUSY in the text), one that an ended run left
/// is removed, and so is a stranger's, for a second at most (EEXIST). Main thread.
int create_fpd_mq(const char *name, int *mqd, char *err_msg, std::size_t err_len);
/// Closes the receiving end, sets *mqd to -1 and removes the queue; all is left as it was when closing fails.
/// Main thread.
int delete_fpd_mq(const char *name, int *mqd, char *err_msg, std::size_t err_len);

/// Opens a sending end, which waits while the queue is full, into the worker's context. Worker thread.
int open_fpd_mq(const char *name, FpdWorkerCtx &worker, char *err_msg, std::size_t err_len);
/// Closes either end. Any thread; holds cancellation off.
int close_fpd_mq(int mqd, char *err_msg, std::size_t err_len);

#endif
