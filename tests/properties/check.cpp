#include "check.h"

#include <algorithm>
#include <exception>

#include "model.h"
#include "observation.h"

namespace fs = std::filesystem;

namespace properties {
namespace {

std::vector<std::string> mismatches_of(const Prediction &prediction, const Observation &seen) {
    std::vector<std::string> found = differences(prediction.facts, seen.facts);
    found.insert(found.end(), seen.broken_rules.begin(), seen.broken_rules.end());
    return found;
}

}  // namespace

Card settled(Card card) {
    for (Prediction prediction = predict(card); !prediction.undecided_faults.empty(); prediction = predict(card)) {
        const auto last = static_cast<std::ptrdiff_t>(*prediction.undecided_faults.rbegin());
        card.faults.erase(card.faults.begin() + last);
    }
    return card;
}

Verdict check(const Card &card, unsigned speed, const fs::path &place) {
    const Prediction prediction = predict(card);
    Verdict verdict;
    verdict.happenings = prediction.happenings;
    try {
        for (;; speed = std::max(speed / 2, slowest_speed), ++verdict.voids) {
            fs::remove_all(place);
            const Observation seen = observe(card, prediction, speed, place);
            if (seen.is_void && speed > slowest_speed) continue;
            verdict.mismatches = mismatches_of(prediction, seen);
            if (seen.is_void) verdict.mismatches.emplace_back("void: limits met even at the slowest speed");
            return verdict;
        }
    } catch (const std::exception &reason) {
        verdict.mismatches.emplace_back(reason.what());
    }
    return verdict;
}

}  // namespace properties
