/// The compact version of an FPD's firmware, shared with the FPD description library.
#ifndef FPD_VERSION_H
#define FPD_VERSION_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/// Kinds of a version. What this program makes is FPD_VERSION_NORMAL; the description library may return the others.
#define FPD_VERSION_NORMAL 0U
#define FPD_VERSION_NO_DEBUG 253U /* printed "%d.%d" */
#define FPD_VERSION_UNKNOWN 255U  /* printed "Unknown" */

/// 6 bytes. The last one has no meaning but is part of records that are handed out byte for byte: always zero.
typedef struct FpdVersion {
    uint8_t kind;
    uint8_t major;
    uint16_t minor;
    uint8_t debug;
    uint8_t reserved5;
} FpdVersion;
static_assert(sizeof(FpdVersion) == 6 && offsetof(FpdVersion, major) == 1 && offsetof(FpdVersion, minor) == 2 &&
                  offsetof(FpdVersion, debug) == 4,
              "handed to and from closed libraries");

#endif
