/// Attempts that fail or fall silent at every point of an upgrade, once and twice, one after the other, side by side.
///
/// The longest of them waits twice for the limit of 180 s, nine seconds here; all the others fit in beside it.

#include "lives.h"

using namespace card_tests;

namespace {

using Retries = LifeTest;

/// A region whose last attempt decides.
Fate settled(const std::string &attempts, int queue) {
    Fate fate{.name = "Phy" + attempts, .attempts = attempts, .versions = programmed, .queue = queue};
    if (attempts.back() != 'D') {
        const bool reported = std::string("FGH").find(attempts.back()) != std::string::npos;
        fate.state = reported ? fate::failed : fate::refused;
        fate.versions = old;
    }
    return fate;
}

Region part(const Fate &fate) {
    return with_attempts(
        {.name = fate.name, .keys = "activation = 5\nsequence = " + std::to_string(fate.queue) + "\n" + duration(2)},
        fate.attempts);
}

TEST_F(Retries, EveryRegionHasOneRetryWhereverItFailsOrHangs) {
    const std::vector<std::string> in_first_queue = {
        "D",                                                         // nothing to be retried
        "FD", "FF", "GD", "GG", "HD", "HH",                          // failures
        "SD", "SS", "TD", "TT", "UD", "UU",                          // hangs
        "FS", "SF", "FT", "SG", "HU", "TH", "FH", "ST", "GS", "UF",  // one behind the other
        "XD", "XX", "XF",                                            // hangs that cannot be ended
    };
    Life life{.runs = {RunEnd::Reset}};
    for (const std::string &attempts : in_first_queue) life.fates.push_back(settled(attempts, 0));
    for (const char *attempts : {"GD", "D", "FF"}) {  // a queue that asks for nothing of the one in front of it
        life.fates.push_back(settled(attempts, 1));
        life.fates.back().name += "Next";
    }
    std::vector<Region> regions;
    for (const Fate &fate : life.fates) {
        regions.push_back(part(fate));
        life.marker += marker_line(fate.name, fate.to);
    }
    describe({.tables = "[obfl]\nmounted = true\n", .fpds = fpd(10, regions)});
    upgrade();
    expect_life(life);
    // Six minutes of the card's time and more, with a punch every 10 s whatever the workers do.
    EXPECT_GE(tagged("AutoFpdUpgradeProgressWDPunch").size(), 15U);
}

}  // namespace
