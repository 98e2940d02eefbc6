/// Cards made up at random: what they are made of, what is packaged for them, what goes wrong on them.
#ifndef RANDOM_CARD_H
#define RANDOM_CARD_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace properties {

/// A version as a card states it.
struct Version {
    unsigned kind = 0;  ///< 0 major.minor.debug, 253 without a debug part, 255 unknown
    unsigned major = 0;
    unsigned minor = 0;
    unsigned debug = 0;
    bool operator==(const Version &) const = default;
};

/// What is packaged for a region and one requested upgrade type.
struct Image {
    unsigned type = 0;
    Version version;
    std::string depends_on = {};  ///< empty: nothing
    Version minimum = {};
    bool wrong_md5 = false;
    std::optional<bool> need_upgrade = {};  ///< absent: as the versions say
    bool operator==(const Image &) const = default;
};

/// What goes wrong with an upgrade of a region.
struct Trouble {
    enum class Kind { Fail, Hang, DoesNotStick } kind = Kind::Fail;
    std::optional<unsigned> attempt = {};  ///< of this boot, from 1; absent: every one
    int at = -1;                           ///< percent; -1: before anything was reported
    int code = 0;                          ///< of a failure
    bool operator==(const Trouble &) const = default;
};

struct Region {
    std::string name;
    Version running;
    Version programmed;
    unsigned upgrade_type = 1;
    unsigned activation = 0;
    unsigned sequence = 0;
    unsigned info_flag = 0;
    unsigned capabilities = 0x8;
    double duration = 0;  ///< seconds of the card's time
    unsigned reports = 0;
    std::vector<Image> images;
    std::vector<Trouble> troubles;
    bool operator==(const Region &) const = default;
};

struct Fpd {
    unsigned id = 0;
    std::vector<Region> regions;
    bool operator==(const Fpd &) const = default;
};

struct Led {
    unsigned id = 0;
    unsigned type = 1;
    std::string name;
    unsigned state = 0;
    unsigned color = 0;
    bool operator==(const Led &) const = default;
};

/// A closed function that fails.
struct CallFault {
    std::string call;
    std::optional<unsigned> nth = {};   ///< its n-th call in a process; absent: every one
    std::optional<unsigned> boot = {};  ///< absent: on every boot
    int64_t code = 0;
    bool operator==(const CallFault &) const = default;
};

/// The marker file that stands there before the first run, as compared to the marker of that run's plan.
enum class MarkerBefore { None, Same, SameAndMore, Other, Garbage, Empty };

struct Card {
    std::string command = "upgrade";  ///< after -c
    bool backend = false;
    bool lives = false;  ///< booted until it is up, otherwise the command is run once
    unsigned hw_major = 1;
    int auto_upgrade = 1;
    int upgrade_mode = 0;
    MarkerBefore marker = MarkerBefore::None;
    bool flash_mounted = false;
    double mount_time = 0;  ///< seconds of the card's time
    bool mount_fails = false;
    bool unmount_fails = false;
    unsigned event_status = 0;  ///< exit statuses of the card's scripts
    unsigned watchdog_status = 0;
    unsigned reset_status = 0;
    unsigned grub_status = 0;
    std::vector<Led> leds;
    std::vector<Fpd> fpds;
    std::vector<CallFault> faults;
    bool operator==(const Card &) const = default;
};

/// How often a card that is booted comes up, at most.
inline constexpr unsigned max_boots = 4;

/// The group of every card.
inline constexpr unsigned group = 3;

/// The reason that a failing closed function gives.
std::string fault_text(const CallFault &fault);

/// As a card's description writes it.
std::string version_text(const Version &version);

/// The name of an image's file; no two images of a card have the same.
std::string image_file(const Fpd &fpd, std::size_t region, const Image &image);

/// The card of a seed, always the same.
Card random_card(uint64_t seed);

/// The text of its card.toml. `marker`: what the marker file holds before the first run; absent: there is none.
std::string card_toml(const Card &card, const std::optional<std::string> &marker);

/// The shell command that a boot of the card runs.
std::string startup_command(const Card &card, const std::optional<std::string> &marker);

}  // namespace properties

#endif
