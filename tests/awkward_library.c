/* Stands in front of the card's libraries, for the tool and not for what the tool runs.
   The environment says what it does:
   AWKWARD_THREAD_END    a thread that upgraded something hangs in what is cleaned up at its end
   AWKWARD_EXIT=FILE     writes FILE at the ordinary end of the process
   AWKWARD_DEVICE=FILE   opens FILE before the program begins, and keeps it open */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "brd_platform_access.h"

static pthread_key_t at_thread_end;

static const char *asked_for(const char *name) {
    return strcmp(program_invocation_short_name, "bootup_fpd") == 0 ? getenv(name) : NULL;
}

static void hang(void *unused) {
    (void)unused;
    for (;;) pause();
}

__attribute__((constructor)) static void begin(void) {
    const char *const device = asked_for("AWKWARD_DEVICE");
    if (device && open(device, O_WRONLY | O_CREAT | O_APPEND, 0600) < 0) abort();
    if (asked_for("AWKWARD_THREAD_END")) pthread_key_create(&at_thread_end, hang);
}

__attribute__((destructor)) static void end(void) {
    const char *const file = asked_for("AWKWARD_EXIT");
    if (file && open(file, O_WRONLY | O_CREAT, 0600) < 0) abort();
}

typedef int (*upgrade_function)(uint32_t, uint32_t, BrdFpdUpgradeRequest *, char *, size_t);

int brd_fpd_upgrade(uint32_t group_id, uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg, size_t err_len) {
    if (asked_for("AWKWARD_THREAD_END")) pthread_setspecific(at_thread_end, request);
    upgrade_function real = (upgrade_function)dlsym(RTLD_NEXT, "brd_fpd_upgrade");
    return real(group_id, obj_id, request, err_msg, err_len);
}
