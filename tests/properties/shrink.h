/// Makes a failing card small enough to be understood.
#ifndef SHRINK_H
#define SHRINK_H

#include <functional>

#include "random_card.h"

namespace properties {

/// Drops and simplifies what the card has for as long as `fails` holds of the rest, which is tried `most_tries` times
/// at most. Returns a card of which it holds, given that it does of `card`.
Card shrunk(Card card, const std::function<bool(const Card &)> &fails, unsigned most_tries);

}  // namespace properties

#endif
