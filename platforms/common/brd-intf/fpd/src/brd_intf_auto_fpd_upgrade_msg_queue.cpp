#include "brd_intf_auto_fpd_upgrade_msg_queue.h"

#include <fcntl.h>
#include <mqueue.h>

#include <cerrno>
#include <cstring>

#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "fpd_log.h"
#include "os_owner.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

int create_queue(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    // A queue of an earlier run would bring its stale reports and its own attributes.
    mq_unlink(name);
    mq_attr attributes{};
    attributes.mq_maxmsg = fpd_mq_max_messages;
    attributes.mq_msgsize = sizeof(WorkerMsg);
    *mqd = mq_open(name, O_RDONLY | O_CREAT | O_NONBLOCK, 0770, &attributes);
    if (*mqd < 0)
        return fail({here, "FpdMQOpenFail"}, -EIO, err_msg, err_len, "Couldn't open FPD msg queue err_msg %s",
                    std::strerror(errno));
    return 0;
}

int delete_queue(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    const int rc = close_fpd_mq(*mqd, err_msg, err_len);
    if (rc < 0) return rc;
    *mqd = -1;
    mq_unlink(name);
    return 0;
}

}  // namespace

int create_fpd_mq(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const int rc = create_queue(name, mqd, err_msg, err_len);
    if (rc != 0)
        return fail({here, "CreateFpdMqFail"}, rc, err_msg, err_len,
                    "Creating Auto FPD Upgrade msg queue failed err_msg %s", err_msg ? err_msg : "");
    return 0;
}

int delete_fpd_mq(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const int rc = delete_queue(name, mqd, err_msg, err_len);
    if (rc != 0)
        return fail({here, "DeleteFpdMqFail"}, rc, err_msg, err_len,
                    "Deleting Auto FPD Upgrade msg queue failed err_msg %s", err_msg ? err_msg : "");
    return 0;
}

int open_fpd_mq(const char *name, FpdWorkerCtx &worker, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    worker.mq = mq_open(name, O_WRONLY);
    if (worker.mq < 0)
        return fail({here, "MQOpenFail"}, -EIO, err_msg, err_len, "Couldn't open FPD msg queue err_msg %s",
                    std::strerror(errno));
    return 0;
}

int close_fpd_mq(int mqd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    CancelHold hold;
    if (mq_close(mqd) != 0)
        return fail({here, "MQClodeFail"}, -EIO, err_msg, err_len, "Couldn't close FPD msg queue err_msg %s",
                    std::strerror(errno));
    return 0;
}
