/// A first card for somebody who describes a new design.
#ifndef CARDSIM_TEMPLATE_H
#define CARDSIM_TEMPLATE_H

#include <filesystem>

namespace cardsim {

/// Makes `directory` with a commented card.toml and the images it names. Throws Error when something is there already
/// (an empty directory is taken), or when the system refuses.
void make_card(const std::filesystem::path &directory);

}  // namespace cardsim

#endif
