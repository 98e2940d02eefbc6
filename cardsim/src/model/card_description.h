/// A card as its author describes it in a TOML file: what it is made of, what is packaged for it, what goes wrong on
/// it.
#ifndef CARDSIM_CARD_DESCRIPTION_H
#define CARDSIM_CARD_DESCRIPTION_H

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "fpd_version.h"

namespace cardsim {

/// What may divide the times of a card: 1 to this.
inline constexpr uint32_t max_speed = 1'000'000;

/// What an FPD region reports of its firmware; parts may be too large for the compact FpdVersion, on purpose.
struct FirmwareVersion {
    uint16_t major = 0;
    uint16_t minor = 0;
    uint16_t debug = 0;

    bool operator==(const FirmwareVersion &) const = default;
    auto operator<=>(const FirmwareVersion &) const = default;
};

/// One packaged image of one region, for one requested upgrade type.
struct ImageDescription {
    uint32_t upgrade_type = 0;              ///< requested: 0 regular ... 4 dummy major
    FpdVersion version = {};                ///< kind FPD_VERSION_NORMAL, FPD_VERSION_NO_DEBUG or FPD_VERSION_UNKNOWN
    std::string depends_on;                 ///< name of another FPD, at most 16 characters; empty: none
    FpdVersion minimum = {};                ///< oldest running version that can be upgraded; 0.0.0: any
    std::string file;                       ///< name in the package directory, at most 254 characters, no '/'
    uint64_t size = 65536;                  ///< bytes to generate when the card brings no such file
    std::optional<std::string> md5;         ///< as the package states it; absent: the sum of the file as it lies there
    std::optional<bool> need_upgrade;       ///< absent: the programmed version differs from the packaged one
    std::optional<std::string> status_msg;  ///< absent: a text that fits the verdict
};

enum class RegionFaultKind { Fail, Hang, Slow, DoesNotStick };

/// What goes wrong with the upgrade of a region.
struct RegionFault {
    RegionFaultKind kind = RegionFaultKind::Fail;
    std::optional<uint32_t> attempt;  ///< 1 is the first of this boot; absent: every attempt
    int at = -1;                      ///< Fail, Hang: percent; -1: before anything was reported
    int code = 0;                     ///< Fail: what brd_fpd_upgrade returns, never 0
    std::string text;                 ///< Fail: its reason
    double every = 0.0;               ///< Slow: seconds between two reports
    bool cancellable = true;          ///< Hang: ended by pthread_cancel; otherwise it ends late, as a success
    double hang_time = 30.0;          ///< Hang that is not cancellable: its length in seconds
};

struct RegionDescription {
    std::string name;  ///< 1 to 102 characters
    FirmwareVersion running;
    FirmwareVersion programmed;
    uint8_t upgrade_type = 1;
    uint8_t activation = 0;
    uint8_t sequence = 0;
    uint8_t info_flag = 0;
    uint32_t capabilities = 0x8;
    double duration = 5.0;  ///< seconds an upgrade takes
    uint32_t reports = 10;  ///< progress reports of an upgrade, evenly spread, at most 100
    std::vector<ImageDescription> images;
    std::vector<RegionFault> faults;
};

struct FpdDescription {
    uint32_t id = 0;
    std::vector<RegionDescription> regions;  ///< in the order of their indices, at most 255
};

struct LedDescription {
    uint32_t id = 0;
    uint32_t type = 1;
    std::string name;
    uint32_t state = 0;
    uint32_t color = 0;
};

/// A call of a closed function that fails.
struct CallFault {
    std::string call;              ///< name of the function
    std::optional<uint32_t> nth;   ///< its n-th call in one process, from 1; absent: every call
    std::optional<uint32_t> boot;  ///< only on this boot, from 1; absent: every boot
    int64_t code = 0;              ///< what it returns: a signed or an unsigned 32-bit number
    std::optional<std::string> text;
};

/// Armed when it is there.
struct WatchdogDescription {
    double timeout = 60.0;  ///< seconds
};

struct ObflDescription {
    bool mounted = false;     ///< already when the start-up command starts
    double mount_time = 2.0;  ///< seconds
    bool mount_fails = false;
    bool unmount_fails = false;
};

/// Exit statuses of the card's scripts.
struct ScriptsDescription {
    int event = 0;
    int watchdog = 0;
    int reset = 0;
    int grub_reboot = 0;
};

struct CardDescription {
    std::filesystem::path file;  ///< where it was read from
    uint32_t group = 0;
    uint32_t board_type = 0;
    uint32_t hw_major = 0;
    uint32_t hw_minor = 0;
    uint32_t slot = 0;
    std::string pid;  ///< 1 to 63 characters, none of them blank or '='
    std::string startup = "bootup_fpd -c upgrade";
    std::optional<std::string> bootstrap;  ///< the key file as it stands
    int auto_upgrade = 1;
    int upgrade_mode = 0;
    bool allow_duplicate_names = false;
    std::optional<WatchdogDescription> watchdog;
    ObflDescription obfl;
    ScriptsDescription scripts;
    std::vector<LedDescription> leds;
    std::vector<FpdDescription> fpds;
    std::vector<CallFault> faults;
};

/// Reads and checks a card's description. Throws Error: "FILE:LINE: reason", FILE as given, one line, printable.
CardDescription load_card_description(const std::filesystem::path &file);

/// The card's bootstrap key file: the described text, or the one made from the card's fields.
std::string bootstrap_text(const CardDescription &card);

/// The triple that programming this image leaves in a region; an unknown version programs 0.0.0, one without a debug
/// part has debug 0.
FirmwareVersion firmware_version(const FpdVersion &version);

/// "1.2.3"
std::string version_text(const FirmwareVersion &version);
/// "1.2.3", "1.2" or "unknown", as the description writes it.
std::string version_text(const FpdVersion &version);

/// The packaged image of a region for a requested upgrade type; null: none.
const ImageDescription *find_image(const RegionDescription &region, uint32_t upgrade_type);

/// The upgrade type that a stored upgrade mode asks the packages for in the end; absent: there is no such mode.
std::optional<uint32_t> requested_type(int mode);
/// The packaged image of a region for a stored upgrade mode; null: none.
const ImageDescription *image_for_mode(const RegionDescription &region, int mode);

}  // namespace cardsim

#endif
