/* Functions of the closed libraries with one fault each, to stand in front of a card's own: which one this library has
   is chosen when it is built. */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_utility.h"

#if defined FAULT_writes_before || defined FAULT_has_no_end
int brd_fpd_info_get(uint32_t group_id, uint32_t obj_id, uint8_t region, BrdFpdInfo *info, char *err_msg,
                     size_t err_len) {
    (void)group_id, (void)obj_id, (void)region, (void)err_msg, (void)err_len;
#ifdef FAULT_writes_before
    ((volatile char *)info)[-1] = 0;
#else
    memset(info->name, 'x', sizeof info->name);
#endif
    return region < 2 ? 0 : EINVAL;
}
#endif

#if defined FAULT_writes_beyond
int brd_fpd_regions_get(uint32_t group_id, uint32_t obj_id, BrdFpdRegion *regions, uint8_t num_regions) {
    (void)group_id, (void)obj_id;
    for (uint8_t i = 0; i < num_regions; ++i) sprintf(regions[i].name, "Part%d", i);
    ((volatile char *)&regions[num_regions])[0] = 0;
    return 0;
}
#endif

#if defined FAULT_never_returns
int brd_group_led_init(uint32_t group_id) {
    (void)group_id;
    for (;;) pause();
}
#endif

#if defined FAULT_crashes
int brd_led_current_color_get(uint32_t group_id, uint32_t obj_id, uint32_t *color) {
    (void)group_id, (void)obj_id, (void)color;
    raise(SIGSEGV);
    return 0;
}
#endif

#if defined FAULT_makes_a_wrong_version || defined FAULT_changes_the_marks || defined FAULT_has_a_wild_text
int check_and_get_upgrade_image(FpdDescRequest *request, FpdDesc *result, char *err_msg, size_t err_len) {
    (void)request, (void)err_msg, (void)err_len;
    strcpy(result->image, "io.img");
#if defined FAULT_makes_a_wrong_version
    result->packaged_version.kind = 7;
#elif defined FAULT_changes_the_marks
    result->version = 2;
#else
    result->status_msg = (const char *)16;
#endif
    return 0;
}
#endif

#if defined FAULT_counts_negative
int brd_group_fpd_num_fpds_get(uint32_t group_id, uint32_t *count) {
    (void)group_id;
    *count = (uint32_t)-1;
    return 0;
}
#endif

#if defined FAULT_ignores_err_len || defined FAULT_takes_any_sum
int brd_intf_fpd_image_md5_validate(const char *directory, const char *image, const char *md5, char *err_msg,
                                    size_t err_len) {
    (void)directory, (void)image, (void)md5, (void)err_len;
#ifdef FAULT_ignores_err_len
    strcpy(err_msg, "the sum is not the one of the package");
    return EBADMSG;
#else
    (void)err_msg;
    return 0;
#endif
}
#endif

#if defined FAULT_runs_one_command_at_a_time || defined FAULT_forgets_the_status
int exec_shell_command(char *output, size_t output_size, size_t *output_len, char *err_msg, size_t err_len,
                       const char *format, ...) {
#ifdef FAULT_runs_one_command_at_a_time
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
#endif
    char command[512];
    va_list values;
    (void)output, (void)output_size, (void)output_len, (void)err_msg, (void)err_len;
    va_start(values, format);
    vsnprintf(command, sizeof command, format, values);
    va_end(values);
#ifdef FAULT_runs_one_command_at_a_time
    pthread_mutex_lock(&lock);
    const int status = system(command);
    pthread_mutex_unlock(&lock);
    return status;
#else
    return system(command) == -1;
#endif
}
#endif

#if defined FAULT_needs_what_is_not_there
int no_library_has_this(void);
int brd_group_led_init(uint32_t group_id) {
    (void)group_id;
    return no_library_has_this();
}
#endif

#if defined FAULT_hangs_at_its_end
__attribute__((destructor)) static void end(void) {
    if (getenv("CARDSIM_CARD") && strcmp(program_invocation_short_name, "cardsim") == 0) pause();
}
#endif

#if defined FAULT_reports_elsewhere || defined FAULT_reports_nothing || defined FAULT_reports_backwards || \
    defined FAULT_upgrades_for_ever || defined FAULT_upgrades_anything
static void *report(void *request) {
    const BrdFpdUpgradeRequest *const upgrade = request;
    upgrade->progress(upgrade->context, 50);
    return NULL;
}

int brd_fpd_upgrade(uint32_t group_id, uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg, size_t err_len) {
    (void)group_id, (void)obj_id, (void)err_msg, (void)err_len;
#ifndef FAULT_upgrades_anything
    if (strcmp(request->file_name, "io.img") != 0) return ENOENT;
#endif
#if defined FAULT_reports_elsewhere
    pthread_t thread;
    pthread_create(&thread, NULL, report, request);
    pthread_join(thread, NULL);
#elif defined FAULT_reports_backwards
    report(request);
    request->progress(request->context, 20);
#elif defined FAULT_upgrades_for_ever
    report(request);
    for (;;) pause();
#else
    (void)report, (void)request;
#endif
    return 0;
}
#endif
