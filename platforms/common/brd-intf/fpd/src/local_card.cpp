#include "local_card.h"

int enter_sequence_queue(LocalCard &card, Fpd &fpd, unsigned seq, char *err_msg, std::size_t err_len) {
    const int rc = move_fpd_between_queue(&card.queues.fpd_queue, &card.queues.seq_queues[seq], &fpd, err_msg, err_len);
    if (rc == 0) ++card.planned_count;
    return rc;
}

void leave_sequence_queue(LocalCard &card, Fpd &fpd, const LogSite &site) {
    char err_msg[256] = "";
    if (move_fpd_between_queue(&card.queues.seq_queues[fpd.seq], &card.queues.fpd_queue, &fpd, err_msg,
                               sizeof err_msg) != 0)
        log_error(site, "FPD %s failed Move queue error %s", fpd.info.name, err_msg);
    --card.planned_count;
}
