/// What a card is made of and what is packaged for it, as a table for people.
#ifndef CARDSIM_SHOW_H
#define CARDSIM_SHOW_H

#include <cstddef>
#include <string>

#include "card_description.h"
#include "card_state.h"

namespace cardsim {

/// A line for the card, a table with one line per region, a line per LED, in `width` columns (0: as many as it takes).
/// Packaged versions are those that the stored upgrade mode asks for. What a boot would do with them is `plan`'s to
/// say.
std::string card_table(const CardDescription &card, const CardState &state, std::size_t width);

/// "blinking amber"
std::string led_text(const LedState &led);

}  // namespace cardsim

#endif
