/// Programming a region, with all that its description lets go wrong.
#ifndef CARDSIM_REGION_UPGRADE_H
#define CARDSIM_REGION_UPGRADE_H

#include "brd_platform_access.h"
#include "card.h"

namespace cardsim {

/// What one call of brd_fpd_upgrade works on; all of it outlives the call.
struct RegionUpgrade {
    uint32_t fpd;
    const RegionDescription &region;
    const ImageDescription &image;
    const BrdFpdUpgradeRequest &request;
};

/// Counts the attempt, reads the whole image, takes the described time in steps, reports each of them on this thread
/// and makes the image's version the programmed one. Throws Error with the code of the failure. Aborts the
/// process when the region is being programmed already.
/// Waits and reports are cancellation points; no lock is held in them, and a cancelled upgrade leaves the region as it
/// was and free for the next attempt.
void upgrade_region(const Call &call, const RegionUpgrade &upgrade);

}  // namespace cardsim

#endif
