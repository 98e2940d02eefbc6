/// The tool on one card, compared with what the model says of it.
#ifndef CHECK_H
#define CHECK_H

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "random_card.h"

namespace properties {

struct Verdict {
    std::vector<std::string> mismatches;              ///< empty: the card is as it must be
    unsigned voids = 0;                               ///< runs that were repeated because the machine was too slow
    std::map<std::string, std::uint64_t> happenings;  ///< what the model saw happen
};

/// No card is run more slowly: one that is void even so is a mismatch.
inline constexpr unsigned slowest_speed = 4;

/// The card without the faults whose effect only the order of the tool's threads would tell.
Card settled(Card card);

/// Runs the card in `place`, which is emptied before, at half the speed as often as the machine is too slow.
Verdict check(const Card &card, unsigned speed, const std::filesystem::path &place);

}  // namespace properties

#endif
