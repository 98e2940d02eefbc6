/// What of a card outlasts a run: versions, LEDs and the stored configuration, in one file of its state directory.
#ifndef CARDSIM_CARD_STATE_H
#define CARDSIM_CARD_STATE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "card_description.h"
#include "state_directory.h"

namespace cardsim {

struct RegionState {
    uint32_t fpd = 0;   ///< object id
    uint8_t index = 0;  ///< of the region in its FPD
    std::string name;
    FirmwareVersion running;
    FirmwareVersion programmed;
    std::optional<FirmwareVersion> falls_back;  ///< what the next reload finds programmed; absent: `programmed`
    uint32_t attempts = 0;                      ///< upgrades begun on this boot
};

struct LedState {
    uint32_t id = 0;
    uint32_t state = 0;
    uint32_t color = 0;
};

struct CardState {
    std::string pid;    ///< of the card that it is the state of; empty: of whichever
    uint32_t boot = 1;  ///< number of this boot; the first power-on is 1
    int auto_upgrade = 1;
    int upgrade_mode = 0;
    std::vector<RegionState> regions;  ///< in the order of the description
    std::vector<LedState> leds;        ///< in the order of the description
};

/// Files of a state directory that the library itself writes or reads.
inline constexpr const char *state_file = "state.toml";
inline constexpr const char *calls_log = "calls.log";
inline constexpr const char *abort_log = "abort.log";
inline constexpr const char *package_directory = "pkg";
/// One line "boot N: FAULT" for each described fault that was reached, at least once a process: FAULT as below.
inline constexpr const char *faults_log = "faults.log";

/// What names a described fault, by its place in its list of the description, from 0.
std::string call_fault_name(std::size_t fault);
std::string region_fault_name(uint32_t fpd, uint8_t index, std::size_t fault);

/// The card as described, on its first boot.
CardState initial_state(const CardDescription &card);

/// Reads the state of the described card. A directory without a state file holds a card on its first boot; a region or
/// LED that the file does not know starts as described, one that the card no longer has is dropped. Throws Error, as
/// "FILE:LINE: reason", also for the state of a card with another product id.
CardState load_state(const StateDirectory &directory, const CardDescription &card);

/// Reads the state of a card whose description is not at hand, as it was saved. Throws Error, also when there is none.
CardState load_saved_state(const StateDirectory &directory);

/// Writes the state file whole or not at all, under a StateLock. Not a cancellation point. Throws Error; the earlier
/// file is untouched then.
void save_state(const StateDirectory &directory, const CardState &state);

/// The card reloads: programmed versions become the running ones (those that did not stick fall back first), no
/// upgrade was attempted yet, the boot count is one more.
void reload(CardState &state);

/// The state of a region; null when the card has no such region.
RegionState *find_region(CardState &state, uint32_t fpd, uint8_t index);
const RegionState *find_region(const CardState &state, uint32_t fpd, uint8_t index);
/// The state of an LED; null when the card has no such LED.
LedState *find_led(CardState &state, uint32_t id);

}  // namespace cardsim

#endif
