#include "brd_intf_auto_fpd_upgrade_msg_queue.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "fpd_log.h"
#include "os_file.h"
#include "os_time.h"
#include "worker_msg.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

int open_queue(const char *name) {
    return uninterrupted([name] { return mq_open(name, O_RDONLY | O_NONBLOCK); });
}

/// A queue of that name that nobody made before; -1 with errno.
int make_queue(const char *name) {
    mq_attr attributes{};
    attributes.mq_maxmsg = fpd_mq_max_messages;
    attributes.mq_msgsize = sizeof(WorkerMsg);
    return uninterrupted([&] { return mq_open(name, O_RDONLY | O_CREAT | O_EXCL | O_NONBLOCK, 0770, &attributes); });
}

/// The lock of the run that the queue belongs to; it lasts as long as a descriptor of this opening. False: another run
/// has it. A system that knows no locks must not keep the card from its upgrade.
bool lock_queue(int mqd) {
    return uninterrupted([mqd] { return flock(mqd, LOCK_EX | LOCK_NB); }) == 0 || errno != EWOULDBLOCK;
}

bool is_our_own(int mqd) {
    struct stat status {};
    return fstat(mqd, &status) == 0 && status.st_uid == geteuid();
}

bool is_queue_of_name(int mqd, const char *name) {
    const Descriptor now(open_queue(name));
    struct stat ours {};
    struct stat theirs {};
    return now.fd >= 0 && fstat(mqd, &ours) == 0 && fstat(now.fd, &theirs) == 0 && ours.st_ino == theirs.st_ino;
}

/// Removes a queue that an ended run or a stranger left: 0, EBUSY when a run is on, or why it cannot be looked at.
/// Removing may fail, and another may make a new one at once: the next try to make our own tells.
int remove_queue_left_behind(const char *name) {
    const Descriptor left(open_queue(name));
    const int error = left.fd < 0 ? errno : 0;
    if (error == ENOENT) return 0;
    if (error != 0 && error != EACCES) return error;
    const bool a_strangers = error == EACCES || !is_our_own(left.fd);
    if (!a_strangers && !lock_queue(left.fd)) return EBUSY;
    // Between opening and locking, its run may have removed it, and another may have made its own. With the lock on the
    // queue that has the name, nobody else removes it.
    if (error == EACCES || is_queue_of_name(left.fd, name)) mq_unlink(name);
    return 0;
}

/// One try to get a queue of our own: 0, or why not, EEXIST when there is one that is not ours.
int try_own_queue(const char *name, int *mqd) {
    const int error = remove_queue_left_behind(name);
    if (error != 0) return error;
    const int made = make_queue(name);
    if (made < 0) return errno;
    // Another run that saw it before it was locked took it for one left behind.
    if (!lock_queue(made) || !is_queue_of_name(made, name)) {
        mq_close(made);
        return EBUSY;
    }
    *mqd = made;
    return 0;
}

/// Time to win the name from somebody who makes a queue again and again.
bool time_is_up(const timespec &began) {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC_RAW, &now) != 0) return true;
    return elapsed(began, now) >= 1'000'000;
}

int create_queue(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    timespec began{};
    const bool timed = clock_gettime(CLOCK_MONOTONIC_RAW, &began) == 0;
    *mqd = no_mq;
    int error = try_own_queue(name, mqd);
    while (error == EEXIST && timed && !time_is_up(began)) error = try_own_queue(name, mqd);
    if (error != 0)
        return fail({here, "FpdMQOpenFail"}, -EIO, err_msg, err_len, "Couldn't open FPD msg queue err_msg %s",
                    std::strerror(error));
    return 0;
}

int delete_queue(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    // Keeps the lock until the name is gone: else it could be that of the next run's queue by then.
    const Descriptor locked(fcntl(*mqd, F_DUPFD_CLOEXEC, *mqd));
    const int rc = close_fpd_mq(*mqd, err_msg, err_len);
    if (rc < 0) return rc;
    *mqd = no_mq;
    mq_unlink(name);
    return 0;
}

}  // namespace

int create_fpd_mq(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const int rc = create_queue(name, mqd, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "CreateFpdMqFail"}, rc, "Creating Auto FPD Upgrade msg queue failed err_msg %s",
                       err_msg ? err_msg : "");
    return 0;
}

int delete_fpd_mq(const char *name, int *mqd, char *err_msg, std::size_t err_len) {
    const int rc = delete_queue(name, mqd, err_msg, err_len);
    if (rc != 0)
        return pass_on({here, "DeleteFpdMqFail"}, rc, "Deleting Auto FPD Upgrade msg queue failed err_msg %s",
                       err_msg ? err_msg : "");
    return 0;
}

int open_fpd_mq(const char *name, FpdWorkerCtx &worker, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    worker.mq = uninterrupted([name] { return mq_open(name, O_WRONLY); });
    if (worker.mq < 0)
        return fail({here, "MQOpenFail"}, -EIO, err_msg, err_len, "Couldn't open FPD msg queue err_msg %s",
                    std::strerror(errno));
    return 0;
}

int close_fpd_mq(int mqd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    const CancelHold hold;
    if (mq_close(mqd) != 0)
        return fail({here, "MQClodeFail"}, -EIO, err_msg, err_len, "Couldn't close FPD msg queue err_msg %s",
                    std::strerror(errno));
    return 0;
}
