/// What the processes with the libraries find out about the card, and the functions that they call.
#ifndef CARDSIM_CHECK_LIBRARIES_CARD_H
#define CARDSIM_CHECK_LIBRARIES_CARD_H

#include <dlfcn.h>

#include <cstdint>
#include <string>
#include <vector>

#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"

namespace cardsim {

/// The function that the tool would call; null: there is none.
template <class Function>
Function *closed_function(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

struct Region {
    uint8_t index = 0;
    std::string name;
    BrdFpdInfo info{};
    bool has_info = false;
};

struct FpdObject {
    uint32_t id = 0;
    std::vector<Region> regions;
};

struct Card {
    uint32_t group = 0;
    uint32_t status_led = 0;  // 0: none
    uint32_t mode = 0;        // stored upgrade mode
    uint32_t board_type = 0;
    FpdVersion hw_version{};
    std::vector<FpdObject> fpds;

    bool has_region(const std::string &name) const;
};

/// The card's identity from its key file, as the tool hands it to the libraries. Throws Error of code 0 when there is
/// no such file, or a key is missing.
FruHwData read_identity();

/// The upgrade type that the tool asks the description library for in the stored mode.
uint32_t asked_type(const Card &card);

/// Zeroed but for its marks.
void prepare(FpdDesc &description);
FpdDescRequest description_request(const Card &card, const Region &region);

}  // namespace cardsim

#endif
