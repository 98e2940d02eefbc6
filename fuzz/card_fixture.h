/// What the targets of the simulated card share.
#ifndef BOOTUP_FPD_FUZZ_CARD_FIXTURE_H
#define BOOTUP_FPD_FUZZ_CARD_FIXTURE_H

#include <string>

#include "card_state.h"
#include "target.h"

/// Where the state is written.
const cardsim::StateDirectory &state_directory();

/// Requires that it is "FILE:..." and one line that a terminal can show.
void require_one_line(const std::string &error, const std::string &file);
/// Requires that two states are the same.
void require_same(const cardsim::CardState &found, const cardsim::CardState &expected);
/// Writes the state, reads it, and requires that it is the same.
void require_round_trip(const cardsim::CardDescription &card, const cardsim::CardState &state);

#endif
