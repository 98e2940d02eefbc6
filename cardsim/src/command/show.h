/// What a card is made of and what is packaged for it, as a table for people.
#ifndef CARDSIM_SHOW_H
#define CARDSIM_SHOW_H

#include <string>

#include "card_description.h"
#include "card_state.h"

namespace cardsim {

/// A line for the card, a table with one line per region, a line per LED. Packaged versions are those that the stored
/// upgrade mode asks for.
std::string card_table(const CardDescription &card, const CardState &state);

}  // namespace cardsim

#endif
