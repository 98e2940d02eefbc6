/* A card's own libraries, all four in one: two FPDs, one of them waiting for the other, that are upgraded in an
 * instant.
 *
 * Made of the public headers alone, as a card's maker would. What it is asked is written to CALLS_FILE, a line a call.
 * It fills what is its own of every record with rubbish and complains when it comes back dirty.
 * FAKE_TIME_DIV in the environment is put into the tool's divisor when the library is loaded; with FAKE_ONE_PART there
 * is but the FPD that waits for none. With FAKE_HANG no upgrade ever ends, and the library does not end before its
 * upgrades. FAKE_STORE makes the store refuse what it names, "read" (the
 * configuration), "get" (the mode) or "set" (either): without a reason, or, with FAKE_FLOOD, with
 * one that fills the caller's buffer to its last byte; an answer that it does give leaves a text there. */
#define _GNU_SOURCE

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"
#include "fpd_version.h"

#define CALLS_FILE "/misc/scratch/platform_calls.txt"
#define GROUP 9U
#define STATUS_LED 77U
#define HANDLE 4711U
#define RUBBISH 0xee

extern uint32_t bootup_fpd_time_div;

struct part {
    uint32_t id;
    const char *name;
    const char *image;
    const char *depends_on;
    uint16_t programmed_minor;
};

static struct part parts[] = {
    {22, "EdgeCpld", "edge.bin", "CoreFpga", 0},
    {21, "CoreFpga", "core.bin", "", 0},
};
#define PART_COUNT (sizeof parts / sizeof parts[0])
static size_t first_part = 0;

static uint32_t led_state = 2;
static uint32_t led_color = 5;
static int stored_config = 1;
static int stored_mode = 0;
static atomic_int hanging_upgrades = 0;

__attribute__((format(printf, 1, 2))) static void record(const char *format, ...) {
    char line[1024];
    va_list values;
    va_start(values, format);
    const int length = vsnprintf(line, sizeof line, format, values);
    va_end(values);
    const int file = open(CALLS_FILE, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0 || write(file, line, (size_t)length) != length) abort();
    close(file);
}

static void expect_zero(const char *what, const void *bytes, size_t size) {
    const unsigned char *byte = bytes;
    for (size_t i = 0; i < size; ++i)
        if (byte[i] != 0) {
            record("dirty %s\n", what);
            return;
        }
}

static struct part *find_part(uint32_t id) {
    for (size_t i = 0; i < PART_COUNT; ++i)
        if (parts[i].id == id) return &parts[i];
    abort();
}

static struct part *find_named(const char *name) {
    for (size_t i = 0; i < PART_COUNT; ++i)
        if (strcmp(parts[i].name, name) == 0) return &parts[i];
    abort();
}

__attribute__((constructor)) static void read_environment(void) {
    if (getenv("FAKE_ONE_PART")) first_part = PART_COUNT - 1;
    const char *const text = getenv("FAKE_TIME_DIV");
    if (text) bootup_fpd_time_div = (uint32_t)strtoul(text, NULL, 10);
}

__attribute__((destructor)) static void await_upgrades(void) {
    while (hanging_upgrades != 0) pause();
}

static void hang(void) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, NULL);
    ++hanging_upgrades;
    for (;;) pause();
}

/* The tool's main loop sleeps by this: its period shows the divisor. */
int usleep(useconds_t microseconds) {
    record("usleep %u\n", (unsigned)microseconds);
    const struct timespec time = {(time_t)(microseconds / 1000000U), (long)(microseconds % 1000000U) * 1000};
    return nanosleep(&time, NULL);
}

/* The platform-access library. */

int brd_sb_attribute_flag_set(int value) {
    record("attribute %d\n", value);
    return 0;
}

int brd_local_card_group_id_get(uint32_t *group_id) {
    *group_id = GROUP;
    return 0;
}

int brd_group_fpd_num_fpds_get(uint32_t group_id, uint32_t *count) {
    *count = (uint32_t)(PART_COUNT - first_part);
    return group_id == GROUP ? 0 : ENODEV;
}

int brd_group_fpd_obj_id_list_get(uint32_t group_id, uint32_t *ids) {
    for (size_t i = first_part; i < PART_COUNT; ++i) ids[i - first_part] = parts[i].id;
    return group_id == GROUP ? 0 : ENODEV;
}

int brd_fpd_num_regions_get(uint32_t group_id, uint32_t obj_id, uint8_t *num_regions) {
    find_part(obj_id);
    *num_regions = 1;
    return group_id == GROUP ? 0 : ENODEV;
}

int brd_fpd_regions_get(uint32_t group_id, uint32_t obj_id, BrdFpdRegion *regions, uint8_t num_regions) {
    expect_zero("regions", regions, num_regions * sizeof *regions);
    memset(regions, RUBBISH, num_regions * sizeof *regions);
    strcpy(regions[0].name, find_part(obj_id)->name);
    return group_id == GROUP && num_regions == 1 ? 0 : ENODEV;
}

int brd_fpd_info_get(uint32_t group_id, uint32_t obj_id, uint8_t region, BrdFpdInfo *info, char *err_msg,
                     size_t err_len) {
    const struct part *const part = find_part(obj_id);
    (void)err_msg;
    (void)err_len;
    expect_zero("info79", info->reserved79, sizeof info->reserved79);
    expect_zero("info83", info->reserved83, sizeof info->reserved83);
    memset(info, RUBBISH, sizeof *info);
    strcpy(info->name, part->name);
    info->running_major = 1;
    info->running_minor = 0;
    info->running_debug = 0;
    info->programmed_major = 1;
    info->programmed_minor = part->programmed_minor;
    info->programmed_debug = 0;
    info->upgrade_type = 1;
    info->activation_kind = 3;
    info->initial_seq = 0;
    info->info_flag = 6;
    return group_id == GROUP && region == 0 ? 0 : ENODEV;
}

int brd_fpd_upgrade(uint32_t group_id, uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg, size_t err_len) {
    struct part *const part = find_part(obj_id);
    (void)err_msg;
    (void)err_len;
    record("upgrade group=%u obj=%u region=%d %s/%s\n", group_id, obj_id, request->region, request->directory,
           request->file_name);
    expect_zero("request1", request->reserved1, sizeof request->reserved1);
    expect_zero("request536", request->reserved536, sizeof request->reserved536);
    if (getenv("FAKE_HANG")) hang();
    request->progress(request->context, 50);
    part->programmed_minor = 7;
    return 0;
}

int brd_group_led_init(uint32_t group_id) {
    return group_id == GROUP ? 0 : ENODEV;
}

int brd_group_led_num_leds_get(uint32_t group_id, uint32_t *count) {
    *count = 1;
    return group_id == GROUP ? 0 : ENODEV;
}

int brd_group_led_obj_id_list_get(uint32_t group_id, uint32_t *ids) {
    ids[0] = STATUS_LED;
    return group_id == GROUP ? 0 : ENODEV;
}

int brd_led_type_get(uint32_t group_id, uint32_t obj_id, uint32_t *type) {
    *type = 1;
    return group_id == GROUP && obj_id == STATUS_LED ? 0 : ENODEV;
}

int brd_led_name_get(uint32_t group_id, uint32_t obj_id, char *name, size_t size) {
    snprintf(name, size, "status");
    return group_id == GROUP && obj_id == STATUS_LED ? 0 : ENODEV;
}

int brd_led_current_color_get(uint32_t group_id, uint32_t obj_id, uint32_t *color) {
    *color = led_color;
    return group_id == GROUP && obj_id == STATUS_LED ? 0 : ENODEV;
}

int brd_led_current_state_get(uint32_t group_id, uint32_t obj_id, uint32_t *state) {
    *state = led_state;
    return group_id == GROUP && obj_id == STATUS_LED ? 0 : ENODEV;
}

int brd_led_state_and_color_set(uint32_t group_id, uint32_t obj_id, uint32_t state, uint32_t color) {
    record("led state=%u color=%u\n", state, color);
    led_state = state;
    led_color = color;
    return group_id == GROUP && obj_id == STATUS_LED ? 0 : ENODEV;
}

int brd_fru_hw_data_init(uint32_t reserved1, uint32_t reserved2, FruHwData *data, uint32_t *handle) {
    record("identity group_type=%u hw=%u.%u slot=%u pid=%s board_type=%u valid=%d\n", data->group_type, data->hw_major,
           data->hw_minor, data->pd_slot_num, data->card_pid, data->board_type, data->valid);
    expect_zero("identity84", data->reserved84, sizeof data->reserved84);
    expect_zero("identity97", data->reserved97, sizeof data->reserved97);
    *handle = HANDLE;
    return reserved1 == 0 && reserved2 == 0 ? BRD_FRU_HW_DATA_PRESENT : EINVAL;
}

int brd_fru_hw_init(uint32_t handle) {
    return handle == HANDLE ? 0 : EINVAL;
}

/* The FPD description library. */

uint32_t get_fpd_capability_info(const char *name, uint32_t board_type, FpdVersion hw_version) {
    record("capabilities %s board_type=%u hw=%d.%d.%d\n", name, board_type, hw_version.major, hw_version.minor,
           hw_version.debug);
    return FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE;
}

int check_and_get_upgrade_image(FpdDescRequest *request, FpdDesc *result, char *err_msg, size_t err_len) {
    const struct part *const part = find_named(request->name);
    (void)err_msg;
    (void)err_len;
    if (request->magic != FPD_DESC_MAGIC || request->version != FPD_DESC_VERSION) record("no magic in the request\n");
    if (result->magic != FPD_DESC_MAGIC || result->version != FPD_DESC_VERSION) record("no magic in the result\n");
    record("image %s programmed=%d.%d.%d type=%u flag=%d\n", request->name, request->programmed_version.major,
           request->programmed_version.minor, request->programmed_version.debug, request->upgrade_type,
           request->info_flag);
    memset(result, RUBBISH, sizeof *result);
    strcpy(result->dependency, part->depends_on);
    strcpy(result->image, part->image);
    strcpy(result->md5, "any");
    result->need_upgrade = 0x80;
    result->packaged_version.kind = FPD_VERSION_NO_DEBUG;
    result->packaged_version.major = 1;
    result->packaged_version.minor = 7;
    result->packaged_version.debug = 0;
    result->status_msg = NULL;
    result->status = 0;
    /* Only the low 8 bits count. */
    return 0x1200;
}

/* The FPD utility library. */

int exec_shell_command(char *output, size_t output_size, size_t *output_len, char *err_msg, size_t err_len,
                       const char *format, ...) {
    char command[512];
    va_list values;
    va_start(values, format);
    vsnprintf(command, sizeof command, format, values);
    va_end(values);
    /* Nothing is written to the output: the caller's buffer is empty already. */
    (void)output;
    (void)output_size;
    (void)output_len;
    (void)err_msg;
    (void)err_len;
    record("shell %s\n", command);
    return 0;
}

int brd_intf_fpd_image_md5_validate(const char *directory, const char *image, const char *md5, char *err_msg,
                                    size_t err_len) {
    (void)err_msg;
    (void)err_len;
    record("md5 %s/%s %s\n", directory, image, md5);
    return 0;
}

/* The upgrade configuration store. */

static int answer(const char *operation, char *err_msg, size_t err_len) {
    const char *const refused = getenv("FAKE_STORE");
    if (!refused || strcmp(refused, operation) != 0) {
        snprintf(err_msg, err_len, "all is well");
        return 0;
    }
    if (getenv("FAKE_FLOOD")) memset(err_msg, 'x', err_len);
    return EIO;
}

int brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(int *value, char *err_msg, size_t err_len) {
    *value = stored_config;
    return answer("read", err_msg, err_len);
}

int brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(int value, char *err_msg, size_t err_len) {
    stored_config = value;
    return answer("set", err_msg, err_len);
}

int brd_intf_fpd_upgrade_cookie_get_upgrade_mode(int *mode, char *err_msg, size_t err_len) {
    *mode = stored_mode;
    return answer("get", err_msg, err_len);
}

int brd_intf_fpd_upgrade_cookie_set_upgrade_mode(int mode, char *err_msg, size_t err_len) {
    stored_mode = mode;
    return answer("set", err_msg, err_len);
}
