/// What a boot would do to a card, asked of the upgrade tool itself on a copy of the card's state.
#ifndef CARDSIM_PLAN_H
#define CARDSIM_PLAN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "life.h"
#include "power.h"

namespace cardsim {

struct RegionPlan {
    uint32_t fpd = 0;   ///< object id
    uint8_t index = 0;  ///< of the region in its FPD
    std::string name;
    RegionVersions now;        ///< as the boot finds them
    std::string packaged;      ///< of the firmware that was looked at; empty: none
    std::optional<int> queue;  ///< sequence queue; absent: not planned
    uint32_t place = 0;        ///< in the order of the plan, from 1; 0: not planned
    fpd_log::Outcome outcome = fpd_log::Outcome::not_considered;
    std::string reason;  ///< one line, never empty
};

struct Plan {
    std::string pid;
    uint32_t slot = 0;
    int status = 0;                   ///< of the tool
    std::vector<std::string> notes;   ///< what a boot would do besides, one line each
    std::vector<RegionPlan> regions;  ///< in the order of the description
};

/// The plan of the next boot. The card's own state stays as it is, to the byte, and need not be there. With `rehearse`
/// the copy is booted as well, and a region has the outcome and the reason that it had there. Throws as boot_card;
/// Error while the card is booting.
Plan plan_boot(const CardPlace &place, const Power &power, bool rehearse);

/// Planned regions in the order of the plan, then the others in that of the description.
std::vector<const RegionPlan *> in_order(const Plan &plan);
/// Planned regions in the order of their queues, then the others with the reason; printable.
std::string plan_text(const Plan &plan, std::size_t width);
/// The document for programs; ends with a line break.
std::string plan_json(const Plan &plan);

}  // namespace cardsim

#endif
