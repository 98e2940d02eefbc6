#include "brd_intf_auto_fpd_upgrade_queue.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fpd_log.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

const void *address(const FpdQueue *queue) {
    return queue;
}

bool same_name(const Fpd &a, const Fpd &b) {
    return std::strcmp(a.info.name, b.info.name) == 0;
}

}  // namespace

Fpd *alloc_fpd(char *err_msg, std::size_t err_len) {
    auto *fpd = static_cast<Fpd *>(std::calloc(1, sizeof(Fpd)));
    if (!fpd) {
        fail_unlogged(ENOMEM, err_msg, err_len, "Memory allocation failed err_msg %s", std::strerror(errno));
        return nullptr;
    }
    transition(*fpd, FpdState::created);
    return fpd;
}

void free_fpd(Fpd *fpd) {
    std::free(fpd);
}

int add_fpd_queue(FpdQueue *queue, Fpd *fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (fpd->next)
        return fail({here, "AddFpdQueueInvldParam"}, EINVAL, err_msg, err_len,
                    "FPD Upgrade msg already linked in a queue");
    if (!*queue) {
        *queue = fpd;
        log_info({here, "AddFpdQueueHead"}, "FPD %s added into upgrade queue head %p", fpd->info.name, address(queue));
        return 0;
    }
    Fpd *last = nullptr;
    for (Fpd *each = *queue; each; each = each->next) {
        if (same_name(*each, *fpd)) {
            log_error({here, "AddFpdQueueDupEntry"}, "adding a Duplicate FPD %s found", fpd->info.name);
            return fail_unlogged(EEXIST, err_msg, err_len, "Duplicate FPD %s found", fpd->info.name);
        }
        last = each;
    }
    last->next = fpd;
    log_info({here, "AddFpdQueueTail"}, "FPD %s added into a queue tail %p", fpd->info.name, address(queue));
    return 0;
}

int rm_fpd_queue(FpdQueue *queue, Fpd *fpd, char *err_msg, std::size_t err_len) {
    if (!*queue) return fail({here, "RmFpdQueueEmpty"}, EINVAL, err_msg, err_len, "queue is empty");
    if (*queue == fpd) {
        *queue = fpd->next;
        fpd->next = nullptr;
        log_info({here, "RmFpdQueueHead"}, "FPD %s removed from head %p", fpd->info.name, address(queue));
        return 0;
    }
    for (Fpd *previous = *queue; previous->next; previous = previous->next) {
        Fpd *const each = previous->next;
        if (!same_name(*each, *fpd)) continue;
        previous->next = each->next;
        each->next = nullptr;
        log_info({here, "RmFpdQueue"}, "FPD %s removed from queue head %p", fpd->info.name, address(queue));
        return 0;
    }
    log_error({here, "RmFpdQueueNotFound"}, "Couldn't find FPD %s in the queue head %p", fpd->info.name,
              address(queue));
    return ENOENT;
}

int move_fpd_between_queue(FpdQueue *from, FpdQueue *to, Fpd *fpd, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (rm_fpd_queue(from, fpd, err_msg, err_len) != 0)
        log_error({here, "MoveFpdBetweenQueueRm"}, "FPD %s failed remove from queue %p error %s", fpd->info.name,
                  address(from), err_msg ? err_msg : "");
    if (add_fpd_queue(to, fpd, err_msg, err_len) != 0)
        log_error({here, "MoveFpdBetweenQueueAdd"}, "FPD %s failed add into queue %p error %s", fpd->info.name,
                  address(from), err_msg ? err_msg : "");
    return 0;
}

Fpd *get_fpd_by_name_queue(Fpd *first, const char *name, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (!name) {
        fail({here, "GetFpdByNameQueueInvldParam"}, EINVAL, err_msg, err_len, "Invalid argument name %p",
             static_cast<const void *>(name));
        return nullptr;
    }
    for (Fpd *each = first; each; each = each->next)
        if (std::strcmp(each->info.name, name) == 0) return each;
    return nullptr;
}

Fpd *get_fpd_by_name(const FpdCardQueues &queues, const char *name, char *err_msg, std::size_t err_len) {
    if (!name) {
        fail({here, "GetFpdByNameInvldParam"}, EINVAL, err_msg, err_len, "Invalid argument name %p",
             static_cast<const void *>(name));
        return nullptr;
    }
    Fpd *found = get_fpd_by_name_queue(queues.fpd_queue, name, err_msg, err_len);
    for (unsigned i = 0; !found && i < seq_queue_count; ++i)
        found = get_fpd_by_name_queue(queues.seq_queues[i], name, err_msg, err_len);
    return found;
}

void free_fpd_queue(FpdQueue *queue) {
    for (Fpd *each = *queue; each;) {
        Fpd *const next = each->next;
        free_fpd(each);
        each = next;
    }
    *queue = nullptr;
}
