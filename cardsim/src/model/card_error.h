/// What the user of a card has to put right.
#ifndef CARDSIM_CARD_ERROR_H
#define CARDSIM_CARD_ERROR_H

#include <stdexcept>

namespace cardsim {

/// A broken card file, or a directory that is not a card's. One line, which may hold any bytes of a file or of a name:
/// see printable().
struct CardError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace cardsim

#endif
