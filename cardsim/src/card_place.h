/// Where a card lies: its description, its images and the directory that holds its state.
#ifndef CARDSIM_CARD_PLACE_H
#define CARDSIM_CARD_PLACE_H

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "card_description.h"
#include "card_state.h"

namespace cardsim {

/// What the user has to put right: a broken card file or a directory that is not a card's. One line.
struct CardError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct CardPlace {
    std::filesystem::path file;    ///< absolute
    std::filesystem::path images;  ///< directory beside the file, which may not exist
    std::filesystem::path state;   ///< absolute; exists once the card was powered on
    CardDescription description;
};

/// Reads the card that `card` names: a description or the directory of a card.toml. The state directory is `state` or,
/// when that is empty, "state" beside the description. Nothing is written. Throws CardError.
CardPlace find_card(const std::filesystem::path &card, const std::filesystem::path &state);

/// True once the card's state directory was made.
bool has_state(const CardPlace &place);

/// The state directory with everything that follows from the description: made whole or not at all when there is none
/// yet; otherwise its key file, scripts and missing or changed images are brought up to date. `speed` divides the times
/// of the scripts. Throws CardError, or std::exception when the system refuses.
void prepare_state(const CardPlace &place, uint32_t speed);

/// Holds a card while it is in use: one boot, or any number of other commands. Throws CardError when it is taken.
class CardInUse {
  public:
    enum class For { Boot, Command };
    CardInUse(const CardPlace &place, For what);
    CardInUse(const CardInUse &) = delete;
    CardInUse &operator=(const CardInUse &) = delete;
    ~CardInUse();

    /// The number of the last boot that was begun; 0: none.
    uint32_t last_boot() const;
    void set_last_boot(uint32_t boot) const;

  private:
    int file_;
};

}  // namespace cardsim

#endif
