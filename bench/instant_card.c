/* A card whose libraries answer at once: nothing but the tool's own work is left to measure.
 *
 * BENCH_REGIONS in the environment is the number of its FPD regions, four of them an FPD; all are current unless
 * BENCH_OLD is set. Nothing can be upgraded: what needs it can only be listed. */
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"

#define GROUP 3U
#define REGIONS_OF_AN_FPD 4U
#define STATUS_LED 1U
#define HANDLE 1U

static uint32_t region_count = 24;
static int is_old;

__attribute__((constructor)) static void read_environment(void) {
    const char *const text = getenv("BENCH_REGIONS");
    if (text) region_count = (uint32_t)strtoul(text, NULL, 10);
    is_old = getenv("BENCH_OLD") != NULL;
}

static uint32_t fpd_count(void) {
    return (region_count + REGIONS_OF_AN_FPD - 1) / REGIONS_OF_AN_FPD;
}

/* "Fpd0007": seven characters, as such names go, and of one length so that every region costs the same. */
static void write_name(char *name, uint32_t number) {
    memcpy(name, "Fpd0000", sizeof "Fpd0000");
    for (char *digit = name + 6; number != 0; --digit, number /= 10) *digit = (char)('0' + number % 10);
}

/* The platform-access library. */

int brd_sb_attribute_flag_set(int value) {
    return 0;
}

int brd_local_card_group_id_get(uint32_t *group_id) {
    *group_id = GROUP;
    return 0;
}

int brd_group_fpd_num_fpds_get(uint32_t group_id, uint32_t *count) {
    *count = fpd_count();
    return 0;
}

int brd_group_fpd_obj_id_list_get(uint32_t group_id, uint32_t *ids) {
    for (uint32_t i = 0; i < fpd_count(); ++i) ids[i] = i;
    return 0;
}

int brd_fpd_num_regions_get(uint32_t group_id, uint32_t obj_id, uint8_t *num_regions) {
    const uint32_t left = region_count - obj_id * REGIONS_OF_AN_FPD; /* the last FPD may have less */
    *num_regions = left < REGIONS_OF_AN_FPD ? (uint8_t)left : REGIONS_OF_AN_FPD;
    return 0;
}

int brd_fpd_regions_get(uint32_t group_id, uint32_t obj_id, BrdFpdRegion *regions, uint8_t num_regions) {
    for (uint8_t i = 0; i < num_regions; ++i) write_name(regions[i].name, obj_id * REGIONS_OF_AN_FPD + i);
    return 0;
}

int brd_fpd_info_get(uint32_t group_id, uint32_t obj_id, uint8_t region, BrdFpdInfo *info, char *err_msg,
                     size_t err_len) {
    write_name(info->name, obj_id * REGIONS_OF_AN_FPD + region);
    info->running_major = info->programmed_major = 1;
    info->running_minor = info->programmed_minor = 12;
    info->upgrade_type = 1;
    info->activation_kind = 3;
    return 0;
}

int brd_fpd_upgrade(uint32_t group_id, uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg, size_t err_len) {
    abort(); /* nothing is upgraded */
}

int brd_group_led_init(uint32_t group_id) {
    return 0;
}

int brd_group_led_num_leds_get(uint32_t group_id, uint32_t *count) {
    *count = 1;
    return 0;
}

int brd_group_led_obj_id_list_get(uint32_t group_id, uint32_t *ids) {
    ids[0] = STATUS_LED;
    return 0;
}

int brd_led_type_get(uint32_t group_id, uint32_t obj_id, uint32_t *type) {
    *type = 1;
    return 0;
}

int brd_led_name_get(uint32_t group_id, uint32_t obj_id, char *name, size_t size) {
    memcpy(name, "Status", sizeof "Status");
    return 0;
}

int brd_led_current_color_get(uint32_t group_id, uint32_t obj_id, uint32_t *color) {
    *color = 2;
    return 0;
}

int brd_led_current_state_get(uint32_t group_id, uint32_t obj_id, uint32_t *state) {
    *state = 2;
    return 0;
}

int brd_led_state_and_color_set(uint32_t group_id, uint32_t obj_id, uint32_t state, uint32_t color) {
    return 0;
}

int brd_fru_hw_data_init(uint32_t reserved1, uint32_t reserved2, FruHwData *data, uint32_t *handle) {
    *handle = HANDLE;
    return 0;
}

int brd_fru_hw_init(uint32_t handle) {
    return 0;
}

/* The FPD description library. */

uint32_t get_fpd_capability_info(const char *name, uint32_t board_type, FpdVersion hw_version) {
    return FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE;
}

int check_and_get_upgrade_image(FpdDescRequest *request, FpdDesc *result, char *err_msg, size_t err_len) {
    memcpy(result->image, "firmware.img", sizeof "firmware.img");
    memcpy(result->md5, "eda5b582607664a036cf43ca522b2d05", sizeof "eda5b582607664a036cf43ca522b2d05");
    result->packaged_version = request->programmed_version;
    result->packaged_version.minor += is_old;
    result->need_upgrade = is_old;
    result->status_msg = is_old ? "upgrade needed" : "no upgrade needed";
    return 0;
}

/* The FPD utility library. */

int exec_shell_command(char *output, size_t output_size, size_t *output_len, char *err_msg, size_t err_len,
                       const char *format, ...) {
    abort(); /* nothing is upgraded */
}

int brd_intf_fpd_image_md5_validate(const char *directory, const char *image, const char *md5, char *err_msg,
                                    size_t err_len) {
    return 0;
}

/* The upgrade configuration store. */

int brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(int *value, char *err_msg, size_t err_len) {
    *value = 1;
    return 0;
}

int brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(int value, char *err_msg, size_t err_len) {
    return 0;
}

int brd_intf_fpd_upgrade_cookie_get_upgrade_mode(int *mode, char *err_msg, size_t err_len) {
    *mode = 0;
    return 0;
}

int brd_intf_fpd_upgrade_cookie_set_upgrade_mode(int mode, char *err_msg, size_t err_len) {
    return 0;
}
