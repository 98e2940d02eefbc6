/// The platform-access library of the card: its group, FPDs, LEDs and FRU hardware layer.
///
/// Supplied with the card and resolved at load time. Every function returns 0 for success unless said otherwise.
/// Every byte of a record that has no field here is zero on the way in and ignored on the way out.
/// `err_msg` is the caller's buffer of `err_len` bytes for a one-line reason; the library may leave it alone.
#ifndef BRD_PLATFORM_ACCESS_H
#define BRD_PLATFORM_ACCESS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// One region of an FPD; 104 bytes.
typedef struct BrdFpdRegion {
    uint8_t reserved0;
    char name[103]; /* NUL-terminated */
} BrdFpdRegion;
static_assert(sizeof(BrdFpdRegion) == 104 && offsetof(BrdFpdRegion, name) == 1, "filled by the library");

/// What the platform knows of one FPD region; 256 bytes, of which those from 83 on belong to the library.
typedef struct BrdFpdInfo {
    char name[64]; /* NUL-terminated */
    uint16_t running_major;
    uint16_t running_minor;
    uint16_t running_debug;
    uint16_t programmed_major;
    uint16_t programmed_minor;
    uint16_t programmed_debug;
    uint8_t upgrade_type;    /* 1 upgradeable, 5 upgradeable in manufacturing only, else not upgradeable */
    uint8_t activation_kind; /* what a finished upgrade needs to take effect */
    uint8_t initial_seq;     /* default sequence number */
    uint8_t reserved79[3];
    uint8_t info_flag; /* handed on to the FPD description library as it is */
    uint8_t reserved83[173];
} BrdFpdInfo;
static_assert(sizeof(BrdFpdInfo) == 256 && offsetof(BrdFpdInfo, running_major) == 64 &&
                  offsetof(BrdFpdInfo, running_minor) == 66 && offsetof(BrdFpdInfo, running_debug) == 68 &&
                  offsetof(BrdFpdInfo, programmed_major) == 70 && offsetof(BrdFpdInfo, programmed_minor) == 72 &&
                  offsetof(BrdFpdInfo, programmed_debug) == 74 && offsetof(BrdFpdInfo, upgrade_type) == 76 &&
                  offsetof(BrdFpdInfo, activation_kind) == 77 && offsetof(BrdFpdInfo, initial_seq) == 78 &&
                  offsetof(BrdFpdInfo, info_flag) == 82,
              "filled by the library");

/// One upgrade of one region; 600 bytes. Valid for the length of the brd_fpd_upgrade call.
typedef struct BrdFpdUpgradeRequest {
    uint8_t region;
    uint8_t reserved1[7];
    void *context;                                /* handed to `progress` as it is */
    void (*progress)(void *context, int percent); /* called on the thread that called brd_fpd_upgrade */
    char directory[256];
    char file_name[256];
    uint8_t reserved536[64];
} BrdFpdUpgradeRequest;
static_assert(sizeof(BrdFpdUpgradeRequest) == 600 && offsetof(BrdFpdUpgradeRequest, context) == 8 &&
                  offsetof(BrdFpdUpgradeRequest, progress) == 16 && offsetof(BrdFpdUpgradeRequest, directory) == 24 &&
                  offsetof(BrdFpdUpgradeRequest, file_name) == 280,
              "handed to the library");

/// The identity of the card that the FRU hardware layer starts with; 104 bytes.
typedef struct FruHwData {
    uint32_t group_type; /* 3, 4 or 15 */
    uint32_t hw_major;
    uint32_t hw_minor;
    uint32_t pd_slot_num;
    char card_pid[64]; /* NUL-terminated */
    uint32_t board_type;
    uint8_t reserved84[12];
    uint8_t valid; /* 1 */
    uint8_t reserved97[7];
} FruHwData;
static_assert(sizeof(FruHwData) == 104 && offsetof(FruHwData, hw_major) == 4 && offsetof(FruHwData, hw_minor) == 8 &&
                  offsetof(FruHwData, pd_slot_num) == 12 && offsetof(FruHwData, card_pid) == 16 &&
                  offsetof(FruHwData, board_type) == 80 && offsetof(FruHwData, valid) == 96,
              "handed to the library");

int brd_sb_attribute_flag_set(int value);
int brd_local_card_group_id_get(uint32_t *group_id);

int brd_group_fpd_num_fpds_get(uint32_t group_id, uint32_t *count);
/// `ids` has room for as many ids as brd_group_fpd_num_fpds_get counted.
int brd_group_fpd_obj_id_list_get(uint32_t group_id, uint32_t *ids);
int brd_fpd_num_regions_get(uint32_t group_id, uint32_t obj_id, uint8_t *num_regions);
int brd_fpd_regions_get(uint32_t group_id, uint32_t obj_id, BrdFpdRegion *regions, uint8_t num_regions);
int brd_fpd_info_get(uint32_t group_id, uint32_t obj_id, uint8_t region, BrdFpdInfo *info, char *err_msg,
                     size_t err_len);
/// Programs the region and returns when it is done; takes seconds to minutes. Different regions may be upgraded by
/// different threads at the same time. A thread that reports nothing for too long is cancelled (deferred) in this call:
/// whatever it holds at a cancellation point has to be given back by cleanup handlers or destructors, and a callback's
/// unwinding must not be stopped.
int brd_fpd_upgrade(uint32_t group_id, uint32_t obj_id, BrdFpdUpgradeRequest *request, char *err_msg, size_t err_len);

int brd_group_led_init(uint32_t group_id);
int brd_group_led_num_leds_get(uint32_t group_id, uint32_t *count);
/// `ids` has room for as many ids as brd_group_led_num_leds_get counted.
int brd_group_led_obj_id_list_get(uint32_t group_id, uint32_t *ids);
int brd_led_type_get(uint32_t group_id, uint32_t obj_id, uint32_t *type);
int brd_led_name_get(uint32_t group_id, uint32_t obj_id, char *name, size_t size);
int brd_led_current_color_get(uint32_t group_id, uint32_t obj_id, uint32_t *color);
int brd_led_current_state_get(uint32_t group_id, uint32_t obj_id, uint32_t *state);
int brd_led_state_and_color_set(uint32_t group_id, uint32_t obj_id, uint32_t state, uint32_t color);

/// Registers the identity. Also succeeds with BRD_FRU_HW_DATA_PRESENT.
int brd_fru_hw_data_init(uint32_t reserved1, uint32_t reserved2, FruHwData *data, uint32_t *handle);
#define BRD_FRU_HW_DATA_PRESENT 0x10000408
int brd_fru_hw_init(uint32_t handle);

#ifdef __cplusplus
}
#endif

#endif
