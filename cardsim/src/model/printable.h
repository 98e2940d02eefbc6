/// Text of somebody else on our terminal.
#ifndef CARDSIM_PRINTABLE_H
#define CARDSIM_PRINTABLE_H

#include <string>
#include <string_view>

namespace cardsim {

/// The text on one line, without anything that a terminal obeys: control characters, and bytes that are no UTF-8, as
/// "\n", "\t" or "\x1b".
std::string printable(std::string_view text);

}  // namespace cardsim

#endif
