/// What came of a card: the tool is run on it, and what it left there is read.
#ifndef OBSERVATION_H
#define OBSERVATION_H

#include <filesystem>
#include <string>
#include <vector>

#include "facts.h"
#include "model.h"
#include "random_card.h"

namespace properties {

struct Observation {
    Facts facts;
    std::vector<std::string> broken_rules;  ///< what must never be seen, whatever the model says
    /// The machine was too slow for the speed: a limit of the tool was met that the card does not run into. Or it had
    /// no message queue left, which all of a user's cards share. What else was seen says nothing then.
    bool is_void = false;
};

/// Runs the card, its time `speed` times as fast, in a new directory `place`: its description is left there as
/// card.toml, its state in state/. Throws std::runtime_error when the state cannot be read.
Observation observe(const Card &card, const Prediction &prediction, unsigned speed, const std::filesystem::path &place);

/// What to say to a shell to see the card in `place` once more.
std::string replay_command(const Card &card, unsigned speed, const std::filesystem::path &place);

}  // namespace properties

#endif
