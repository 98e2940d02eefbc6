/// What must come of a card, said beforehand and without the tool.
#ifndef MODEL_H
#define MODEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "facts.h"
#include "random_card.h"

namespace properties {

struct Prediction {
    Facts facts;
    std::optional<std::string> marker_before;         ///< content of the marker file before the first run
    std::map<std::string, unsigned> time_outs;        ///< by the log's tag: workers that are ended for their silence
    double seconds = 0;                               ///< of the card's time, all lives together; it takes no longer
    std::map<std::string, std::uint64_t> happenings;  ///< what happens on the card, and how often
    /// Faults of closed functions, by index, that the tool's threads race for: whom they hit is anybody's guess.
    std::set<std::size_t> undecided_faults;
};

Prediction predict(const Card &card);

}  // namespace properties

#endif
