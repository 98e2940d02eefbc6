/// Where a card lies: its description, its images and the directory that holds its state.
#ifndef CARDSIM_CARD_PLACE_H
#define CARDSIM_CARD_PLACE_H

#include <cstdint>
#include <filesystem>

#include "card_description.h"
#include "card_state.h"
#include "descriptor.h"
#include "state_directory.h"

namespace cardsim {

struct CardPlace {
    std::filesystem::path file;    ///< absolute
    std::filesystem::path images;  ///< directory beside the file, which may not exist
    std::filesystem::path state;   ///< absolute, free of symbolic links; exists once the card was powered on
    CardDescription description;
};

/// Reads the card that `card` names: a description or the directory of a card.toml. The state directory is `state` or,
/// when that is empty, "state" beside the description. Nothing is written. Throws Error.
CardPlace find_card(const std::filesystem::path &card, const std::filesystem::path &state);

/// True once the card's state directory was made.
bool has_state(const CardPlace &place);

/// Makes the state directory, whole or not at all, with everything in it that follows from the description; nothing is
/// done when there is one. Throws Error, or another std::exception when the system refuses.
void make_state(const CardPlace &place, uint32_t speed);

/// Brings the key file, the scripts and missing or changed images up to date, under a StateLock. `speed` divides the
/// times of the scripts. Throws as make_state.
void update_state(const CardPlace &place, const StateDirectory &state, uint32_t speed);

/// Holds a card while it is in use: one boot, or any number of other commands. Where nobody else does, what earlier
/// ones left unfinished is removed. Throws Error when the card is taken, or when its state is nothing that a card
/// leaves.
class CardInUse {
  public:
    enum class For { Boot, Command };
    CardInUse(const StateDirectory &state, For what);

    /// The number of the last boot that was begun; 0: none.
    uint32_t last_boot() const;
    void set_last_boot(uint32_t boot) const;

  private:
    Descriptor file_;
};

}  // namespace cardsim

#endif
