/// The commands of the card that the tool runs by their absolute paths, as shell scripts that record their calls.
#ifndef CARDSIM_SCRIPTS_H
#define CARDSIM_SCRIPTS_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "card_description.h"

namespace cardsim {

/// Where the sandbox shows the card's state directory and the directory of its description.
inline constexpr const char *state_path_inside = "/.cardsim/state";
inline constexpr const char *card_path_inside = "/.cardsim/card";

struct Script {
    std::filesystem::path path;  ///< in the state directory, relative
    std::string text;
};

/// Files of a state directory that the scripts write.
///
/// One line a call: the script's path, then each argument in single quotes (one inside as '\''). A power-off by the
/// watchdog adds the line "watchdog expired".
inline constexpr const char *scripts_log = "scripts.log";
/// The lines of the reset script's calls since the last boot; the card reloads when there is one.
inline constexpr const char *reset_request = "reset_request";
/// One byte for each punch of the watchdog since the last boot.
inline constexpr const char *watchdog_punches = "watchdog_punches";

/// etc/ with the event, watchdog and reset scripts, bin/ with check-flash and grub-reboot. `speed` divides the time
/// that check-flash takes.
std::vector<Script> card_scripts(const CardDescription &card, uint32_t speed);

}  // namespace cardsim

#endif
