/// The FPD description library: which packaged image fits an FPD, and whether it must be upgraded.
///
/// Supplied with the packaged firmware and resolved at load time. Every byte of a record that has no field here is zero
/// on the way in and ignored on the way out.
#ifndef FPD_DESCRIPTION_H
#define FPD_DESCRIPTION_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "fpd_version.h"

#ifdef __cplusplus
extern "C" {
#endif

#define FPD_DESC_MAGIC 0xf9dde5c1U
#define FPD_DESC_VERSION 3U

/// FpdDesc.status: the running version is too old to be upgraded by this tool.
#define FPD_DESC_STATUS_REV_NOT_SUPPORTED 6U

/// Capability bits of an FPD.
#define FPD_CAPABILITY_NO_AUTO_UPGRADE 0x1U
#define FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE 0x8U
#define FPD_CAPABILITY_CAN_UNLOCK_GOLDEN 0x800U
#define FPD_CAPABILITY_REQUIRES_GOLDEN_UNLOCKED_PRIMARY 0x1000U

/// What is asked of one FPD; 56 bytes.
typedef struct FpdDescRequest {
    uint32_t board_type;
    FpdVersion hw_version;
    FpdVersion programmed_version;
    FpdVersion running_version;
    char name[17]; /* cut to 16 characters, NUL-terminated */
    uint8_t info_flag;
    uint8_t reserved40;
    uint8_t reserved41[3];
    uint32_t magic;  /* FPD_DESC_MAGIC */
    uint8_t version; /* FPD_DESC_VERSION */
    uint8_t reserved49[3];
    uint32_t upgrade_type; /* requested: 0 regular, 1 manufacturing, 2 unlocks Golden, 3 dummy minor, 4 dummy major */
} FpdDescRequest;
static_assert(sizeof(FpdDescRequest) == 56 && offsetof(FpdDescRequest, hw_version) == 4 &&
                  offsetof(FpdDescRequest, programmed_version) == 10 &&
                  offsetof(FpdDescRequest, running_version) == 16 && offsetof(FpdDescRequest, name) == 22 &&
                  offsetof(FpdDescRequest, info_flag) == 39 && offsetof(FpdDescRequest, magic) == 44 &&
                  offsetof(FpdDescRequest, version) == 48 && offsetof(FpdDescRequest, upgrade_type) == 52,
              "handed to the library");

/// The answer; 576 bytes. The caller sets magic and version, the library the rest.
typedef struct FpdDesc {
    char dependency[17];  /* name of the FPD this one depends on; empty: none */
    char image[255];      /* file name of the packaged image */
    char md5[255];        /* expected MD5 sum of the image as hex text */
    uint8_t need_upgrade; /* non-zero: must be upgraded */
    FpdVersion packaged_version;
    uint8_t reserved534[2];
    const char *status_msg; /* text of the verdict, owned by the library; may be null */
    uint32_t status;
    uint8_t reserved548[8];
    uint32_t magic;  /* FPD_DESC_MAGIC */
    uint8_t version; /* FPD_DESC_VERSION */
    uint8_t reserved561[3];
    FpdVersion minimum_version; /* oldest running version from which an upgrade is supported */
    uint8_t reserved570[6];
} FpdDesc;
static_assert(sizeof(FpdDesc) == 576 && offsetof(FpdDesc, image) == 17 && offsetof(FpdDesc, md5) == 272 &&
                  offsetof(FpdDesc, need_upgrade) == 527 && offsetof(FpdDesc, packaged_version) == 528 &&
                  offsetof(FpdDesc, status_msg) == 536 && offsetof(FpdDesc, status) == 544 &&
                  offsetof(FpdDesc, magic) == 556 && offsetof(FpdDesc, version) == 560 &&
                  offsetof(FpdDesc, minimum_version) == 564,
              "filled by the library");

/// Capability bits of the FPD of this name on this board; cannot fail.
uint32_t get_fpd_capability_info(const char *name, uint32_t board_type, FpdVersion hw_version);

/// Only the low 8 bits of the result count; 0 is success.
int check_and_get_upgrade_image(FpdDescRequest *request, FpdDesc *result, char *err_msg, size_t err_len);

#ifdef __cplusplus
}
#endif

#endif
