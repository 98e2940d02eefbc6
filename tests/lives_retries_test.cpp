/// Attempts that fail or fall silent at every point of an upgrade, once and twice, one after the other, side by side.
///
/// The longest of them waits twice for the limit of 180 s, nine seconds here; all the others fit in beside it.

#include "lives.h"

using namespace card_tests;

namespace {

/// A region whose last attempt decides.
Fate settled(const std::string &name, const std::string &attempts, int queue) {
    Fate fate{.name = name, .attempts = attempts, .versions = programmed, .queue = queue};
    if (attempts.back() != 'D') {
        const bool reported = std::string("FGH").find(attempts.back()) != std::string::npos;
        fate.state = reported ? fate::failed : fate::refused;
        fate.versions = old;
    }
    return fate;
}

class Retries : public LifeTest {
  protected:
    void add(const Fate &fate, const std::string &dependency = {}) {
        const std::string sequence = "sequence = " + std::to_string(fate.queue) + "\n";
        Region region{.name = fate.name, .keys = "activation = 5\n" + sequence + duration(2)};
        if (!dependency.empty()) region.image_keys = depends_on(dependency);
        regions_.push_back(with_attempts(region, fate.attempts));
        life_.fates.push_back(fate);
        life_.marker += marker_line(fate.name, fate.to);
    }
    /// A region that waits for one in the first queue: it comes to nothing where that one does.
    void add_waiting(const Fate &base) {
        if (base.state == fate::done) {
            add(settled("On" + base.name, "D", 1), base.name);
            return;
        }
        add({.name = "On" + base.name, .state = fate::refused, .versions = old, .queue = 1}, base.name);
        for (const std::string &error : given_up("On" + base.name, base.name, base.state)) {
            life_.errors.push_back(error);
        }
    }

    Life life_{.runs = {RunEnd::Reset}};
    std::vector<Region> regions_;
};

TEST_F(Retries, EveryRegionHasOneWhereverItFailsOrHangs) {
    for (const char *attempts : {
             "D",                                                         // nothing to be retried
             "FD", "FF", "GD", "GG", "HD", "HH",                          // failures
             "SD", "SS", "TD", "TT", "UD", "UU",                          // hangs
             "FS", "SF", "FT", "SG", "HU", "TH", "FH", "ST", "GS", "UF",  // one after the other
             "XD", "XX", "XF",                                            // hangs that cannot be ended
         }) {
        add(settled(std::string("Phy") + attempts, attempts, 0));
    }
    for (const char *attempts : {"GD", "D", "FF"}) add(settled(std::string("Next") + attempts, attempts, 1));
    for (const char *attempts : {"D", "SD", "SS", "TT", "XD", "XF"}) {
        add_waiting(settled(std::string("Phy") + attempts, attempts, 0));
    }
    describe({.tables = "[obfl]\nmounted = true\n", .fpds = fpd(10, regions_)});
    upgrade();
    expect_life(life_);
    // Six minutes of the card's time and more, with a punch every 10 s whatever the workers do.
    EXPECT_GE(tagged("AutoFpdUpgradeProgressWDPunch").size(), 15U);
}

}  // namespace
