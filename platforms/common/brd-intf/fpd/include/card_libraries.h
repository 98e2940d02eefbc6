/// The calls of the card's closed libraries that fill a text or a record: here, its buffers are readied before a call
/// and ended after it, as a library may leave them alone or fill them to the last byte. Callable from every thread.
///
/// Results are the libraries' own. err_msg is empty when a library gives no reason; it may be null.
#ifndef CARD_LIBRARIES_H
#define CARD_LIBRARIES_H

#include <cstddef>
#include <cstdint>

#include "brd_platform_access.h"
#include "fpd_description.h"

/// What a command printed; what is longer is cut.
using CommandOutput = char[256];

/// Runs a command line in the card's shell and waits for it. printf-style.
[[gnu::format(printf, 3, 4)]] int run_command(char *err_msg, std::size_t err_len, const char *format, ...);
/// The same, of a finished command line, with what it prints.
int run_command(const char *command, CommandOutput &output, char *err_msg, std::size_t err_len);

/// The names of an FPD's regions; `regions` has room for `count`.
int card_fpd_regions_get(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdRegion *regions, std::uint8_t count);
/// Reads the region's information into `info`, whose name may be the region's known one; a failed call leaves it alone.
int card_fpd_info_get(std::uint32_t group_id, std::uint32_t obj_id, std::uint8_t region, BrdFpdInfo &info,
                      char *err_msg, std::size_t err_len);
/// Programs a region. Worker thread; may be cancelled.
int card_fpd_upgrade(std::uint32_t group_id, std::uint32_t obj_id, BrdFpdUpgradeRequest &request, char *err_msg,
                     std::size_t err_len);

/// Asks for the packaged image and its verdict; the low 8 bits of the library's result.
int card_fpd_description_get(FpdDescRequest &request, FpdDesc &description, char *err_msg, std::size_t err_len);
/// Compares the MD5 sum of a packaged image.
int card_fpd_image_validate(const char *directory, const FpdDesc &description, char *err_msg, std::size_t err_len);

using LedName = char[64];
/// The LED's name, cut to its buffer.
int card_led_name_get(std::uint32_t group_id, std::uint32_t obj_id, LedName &name);

/// The upgrade configuration store; a value that it does not give is 0.
int card_auto_upgrade_get(int &enabled, char *err_msg, std::size_t err_len);
int card_auto_upgrade_set(int enabled, char *err_msg, std::size_t err_len);
int card_upgrade_mode_get(int &mode, char *err_msg, std::size_t err_len);
int card_upgrade_mode_set(int mode, char *err_msg, std::size_t err_len);

#endif
