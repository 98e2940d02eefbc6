/// A card under power: its boots and the commands that run on it.
#ifndef CARDSIM_POWER_H
#define CARDSIM_POWER_H

#include <cstdint>
#include <string>
#include <vector>

#include "card_place.h"
#include "life.h"

namespace cardsim {

/// The status of a life. A caught SIGINT, SIGTERM or SIGHUP n gives 128 + n.
inline constexpr int boot_is_up = 0;
inline constexpr int boot_command_failed = 1;  ///< the last boot's start-up command ended with a status other than 0
inline constexpr int boot_limit_reached = 3;   ///< the last allowed boot asked for a reload as well
inline constexpr int boot_aborted = 4;         ///< a call that the card does not forgive, or a signal
inline constexpr int boot_left_due = 5;        ///< up, but a region is due: what --strict makes of boot_is_up

/// How a card is powered.
struct Power {
    uint32_t speed = 1;                    ///< divides the times of the card
    std::vector<std::string> environment;  ///< variables for the card: "NAME=VALUE", or "NAME" for the caller's value
    bool host_network = false;             ///< see SandboxLayout
    bool live = false;                     ///< a boot is shown live where standard output is a terminal that can
};

/// Powers the card on and boots it, again for every reload, at most `max_boots` times. A card that was booted before is
/// reloaded first. Tells on stdout (after the live view, if there is one) what happens, on stderr what went wrong; the
/// start-up command's output goes there as well. The life has the status. Throws Error, or another std::exception when
/// the system refuses something; where there can be no sandbox nothing was written.
Life boot_card(const CardPlace &place, const Power &power, uint32_t max_boots);

/// Begins a boot as boot_card does, with `command` in the place of the start-up command and its standard output in the
/// open file `output`; no reload follows. Its exit status, as of exec_on_card. Throws as boot_card.
int run_at_boot(const CardPlace &place, const Power &power, const std::vector<std::string> &command, int output);

/// Runs a command, found as execvp finds it, on the powered card; no boot is counted and no reload follows. The
/// command's exit status, 128 + n when signal n killed it, 126 or 127 when it cannot be run or found. Throws as
/// boot_card.
int exec_on_card(const CardPlace &place, const Power &power, const std::vector<std::string> &command);

/// Powers on a card that this machine plays with its whole system, without a sandbox: what `boot_card` does before the
/// start-up command. A card that was powered on before is reloaded. When this returns, the state outlasts a power cut.
/// Tells on stdout the number of the boot. Throws as find_card and make_state.
void power_on_machine(const CardPlace &place, uint32_t speed);

}  // namespace cardsim

#endif
