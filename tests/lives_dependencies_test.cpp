/// FPDs that wait for one another: every shape of dependency, and the fate of whoever waits for one that never comes.
///
/// The regions of all shapes stand on one card, where they do not disturb each other.

#include "lives.h"

using namespace card_tests;

namespace {

/// A region, its dependency and its fate; the rest is in the card's words.
struct Member {
    std::string name;
    std::string depends = {};
    Fate fate = {};  ///< its name and attempts come from here
    std::string keys = {};
    std::string image_keys = {};
    std::string packaged = "1.1.0";
};

struct Shape {
    const char *what;
    std::vector<Member> members;
    std::vector<std::string> errors = {};
};

Fate in_queue(int queue, const std::string &attempts = "D") {
    return {.name = {}, .attempts = attempts, .queue = queue};
}
Fate failing_in_queue(int queue) {
    return {.name = {}, .attempts = "FF", .state = fate::failed, .versions = old, .queue = queue};
}
/// Planned, but given up when its turn came.
Fate given_up_in_queue(int queue) {
    return {.name = {}, .state = fate::refused, .versions = old, .queue = queue};
}
Fate stays(const std::string &state) {
    return {.name = {}, .state = state, .versions = old};
}

Region region_of(const Member &member) {
    Region region{.name = member.name,
                  .running = member.fate.from,
                  .packaged = member.packaged,
                  .keys = duration(0.5) + member.keys,
                  .image_keys = member.image_keys};
    if (!member.depends.empty()) region.image_keys += depends_on(member.depends);
    return with_attempts(region, member.fate.attempts);
}

const std::string no_need = "need_upgrade = false\n";

std::string sequence(int number) {
    return "sequence = " + std::to_string(number) + "\n";
}

std::string bad_dependency(const std::string &name, const std::string &dependency, const std::string &state) {
    return "[FPD] [ERROR] [BuildQDependFpdBad] FPD " + name + " can't be upgraded due to dependency FPD " + dependency +
           " state " + state;
}
std::string circle(const std::string &name, const std::string &dependency) {
    return "[FPD] [ERROR] [BuildQFpdCircularDepend] FPD " + name + " has found a circular dependency FPD " + dependency;
}
std::string out_of_range(const std::string &name) {
    return "[FPD] [ERROR] [BuildQFpdSeqOutOfRange] FPD " + name + " sequence queue # 16 is out of range";
}

std::vector<std::string> both(std::vector<std::string> errors, const std::vector<std::string> &more) {
    errors.insert(errors.end(), more.begin(), more.end());
    return errors;
}

const std::string large_version =
    "Failed to make FPD Programmed version for name Large major 0x100 minor 0x1 debug 0x0";
const Fate too_large = {
    .name = {}, .state = "'FPD Info get Failed'", .versions = {"256.1.0", "256.1.0"}, .from = "256.1.0"};

class Dependencies : public LifeTest {
  protected:
    void live(const std::vector<Shape> &shapes) {
        Life life{.runs = {RunEnd::NoReset}};
        std::vector<Region> regions;
        for (const Shape &shape : shapes) {
            for (const Member &member : shape.members) {
                life.fates.push_back(member.fate);
                life.fates.back().name = member.name;
                regions.push_back(region_of(member));
            }
            life.errors.insert(life.errors.end(), shape.errors.begin(), shape.errors.end());
        }
        describe({.tables = "[obfl]\nmounted = true\n", .fpds = fpd(10, regions)});
        upgrade();
        expect_life(life);
    }
};

/// Case 4, without the faults.
TEST_F(Dependencies, AreUpgradedBeforeWhateverWaitsForThem) {
    live({
        {.what = "a chain in the best order",
         .members = {{"Best1", "", in_queue(0)},
                     {"Best2", "Best1", in_queue(1)},
                     {"Best3", "Best2", in_queue(2)},
                     {"Best4", "Best3", in_queue(3)}}},
        {.what = "a chain in the worst order",
         .members = {{"Worst4", "Worst3", in_queue(3)},
                     {"Worst3", "Worst2", in_queue(2)},
                     {"Worst2", "Worst1", in_queue(1)},
                     {"Worst1", "", in_queue(0)}}},
        {.what = "a diamond with a tip on each of its sides",
         .members = {{"TipLeft", "Left", in_queue(2)},
                     {"Left", "Foot", in_queue(1)},
                     {"Foot", "", in_queue(0)},
                     {"Right", "Foot", in_queue(1)},
                     {"TipRight", "Right", in_queue(2)}}},
        {.what = "three that wait for one",
         .members = {{"Leaf1", "Root", in_queue(1)},
                     {"Root", "", in_queue(0)},
                     {"Leaf2", "Root", in_queue(1)},
                     {"Leaf3", "Root", in_queue(3), sequence(3)}}},
        {.what = "an update that is only available",
         .members = {{"Asked", "", in_queue(0), "", no_need},
                     {"Asking", "Asked", in_queue(1)},
                     {"Unasked", "", stays(fate::available), "", no_need}}},
        {.what = "an update that is only available, and what it would wait for itself",
         .members = {{"Low", "", stays(fate::available), "", no_need},
                     {"Middle", "Low", in_queue(0), "", no_need},
                     {"High", "Middle", in_queue(1)}}},
        {.what = "an update that is asked for by one that cannot be upgraded",
         .members = {{"Pulled", "", in_queue(0), "", no_need},
                     {"Puller", "Pulled", stays(fate::refused), "upgrade_type = 2\n"}},
         .errors = {"[FPD] [ERROR] [BuildQFpdCantUpgraded] FPD Puller with Upgrade type 2 can't be upgraded "}},
        {.what = "a dependency that is current",
         .members = {{"Recent", "", stays(fate::current), sequence(2), "", "1.0.0"},
                     {"OnRecent", "Recent", in_queue(3)}}},
        {.what = "a dependency that needs its retry",
         .members = {{"Flaky", "", in_queue(0, "GD")}, {"OnFlaky", "Flaky", in_queue(1)}}},
    });
}

/// Case 4, and every other way not to come.
TEST_F(Dependencies, ThatNeverComeTakeWhateverWaitsForThemAlong) {
    live({
        {.what = "it fails",
         .members = {{"Broken", "", failing_in_queue(0)},
                     {"OnBroken", "Broken", given_up_in_queue(1)},
                     {"TipOnBroken", "OnBroken", given_up_in_queue(2)}},
         .errors =
             both(given_up("OnBroken", "Broken", fate::failed), given_up("TipOnBroken", "OnBroken", fate::refused))},
        {.what = "it fails, and was only upgraded for the one that waits",
         .members = {{"OnAsked", "Asked", given_up_in_queue(1)}, {"Asked", "", failing_in_queue(0), "", no_need}},
         .errors = given_up("OnAsked", "Asked", fate::failed)},
        {.what = "it is not there",
         .members = {{"OnNobody", "Nobody", stays(fate::no_dependency)},
                     {"TipOnNobody", "OnNobody", stays(fate::no_dependency)}},
         .errors = {"[FPD] [ERROR] [BuildQFpdDependNotFound] FPD OnNobody has a Dependency FPD Nobody and couldn't "
                    "find the dependency in the fpd queue",
                    bad_dependency("TipOnNobody", "OnNobody", fate::no_dependency)}},
        {.what = "it is of a type that cannot be upgraded",
         .members = {{"Fixed", "", stays(fate::refused), "upgrade_type = 2\n"},
                     {"OnFixed", "Fixed", stays(fate::no_dependency)}},
         .errors = {"[FPD] [ERROR] [BuildQFpdCantUpgraded] FPD Fixed with Upgrade type 2 can't be upgraded ",
                    bad_dependency("OnFixed", "Fixed", fate::refused)}},
        {.what = "it is of a type that cannot be upgraded, and only available",
         .members = {{"AskedFixed", "", stays(fate::refused), "upgrade_type = 0\n", no_need},
                     {"OnAskedFixed", "AskedFixed", given_up_in_queue(1)}},
         .errors = both({"[FPD] [ERROR] [BuildQFpdDepCantUpgraded] FPD AskedFixed with Upgrade type 0 can't be "
                         "dependency upgraded "},
                        given_up("OnAskedFixed", "AskedFixed", fate::refused))},
        {.what = "it is for manufacturing",
         .members = {{"Mfg", "", stays(fate::refused), "upgrade_type = 5\n"},
                     {"OnMfg", "Mfg", stays(fate::no_dependency)}},
         .errors = {bad_dependency("OnMfg", "Mfg", fate::refused)}},
        {.what = "it is for manufacturing, and only available",
         .members = {{"AskedMfg", "", stays(fate::refused), "upgrade_type = 5\n", no_need},
                     {"OnAskedMfg", "AskedMfg", given_up_in_queue(1)}},
         .errors = given_up("OnAskedMfg", "AskedMfg", fate::refused)},
        {.what = "it is never upgraded by itself",
         .members = {{"Never", "", stays(fate::received), "capabilities = 0x9\n"},
                     {"OnNever", "Never", stays(fate::no_dependency)}},
         .errors = {bad_dependency("OnNever", "Never", fate::received)}},
        {.what = "it is not upgraded at boot",
         .members = {{"OnByHand", "ByHand", stays(fate::no_dependency)},
                     {"ByHand", "", stays(fate::received), "capabilities = 0x0\n"}},
         .errors = {bad_dependency("OnByHand", "ByHand", fate::received)}},
        {.what = "nothing is packaged for it",
         .members = {{"Bare", "", stays(fate::no_image), "", "", ""}, {"OnBare", "Bare", stays(fate::no_dependency)}},
         .errors = {"[FPD] [ERROR] [InitFpdDescFail] Does not have a Firmware packaged for FPD Bare err_msg no image "
                    "packaged for upgrade type 0",
                    bad_dependency("OnBare", "Bare", fate::no_image)}},
        {.what = "its image is another than the one that was packaged",
         .members = {{"OnTorn", "Torn", stays(fate::no_dependency)},
                     {"Torn", "", stays(fate::no_image), "", "md5 = \"0123456789abcdef0123456789abcdef\"\n"}},
         .errors = {"[FPD] [ERROR] [InitFpdMd5SumFailed] md5 checksum validation failed, /pkg/fpd/ucode/torn.img: its "
                    "MD5 sum is #, not '0123456789abcdef0123456789abcdef'",
                    bad_dependency("OnTorn", "Torn", fate::no_image)}},
        {.what = "its version is too large to be told",
         .members = {{"Large", "", too_large}, {"OnLarge", "Large", stays(fate::no_dependency)}},
         .errors = {"[FPD] [ERROR] [InfoGetMakeFpdVerFail] " + large_version,
                    "[FPD] [ERROR] [InitFpdInfoGetFail] Failed to get FPD info, error " + large_version,
                    bad_dependency("OnLarge", "Large", too_large.state)}},
        {.what = "it is too old",
         .members = {{"Ancient", "", stays(fate::refused), "", "minimum = \"1.0.1\"\n"},
                     {"OnAncient", "Ancient", stays(fate::no_dependency)}},
         .errors = {"[FPD] [ERROR] [BuildQRevNotSupportUpgrade] FPD Ancient current version 1.0.0 doesn't support "
                    "upgrade and supported version is 1.0.1 and above",
                    bad_dependency("OnAncient", "Ancient", fate::refused)}},
        {.what = "it waits for itself",
         .members = {{"OnSelf", "Self", stays(fate::no_dependency)}, {"Self", "Self", stays(fate::no_dependency)}},
         .errors = {circle("Self", "Self"), bad_dependency("OnSelf", "Self", fate::no_dependency)}},
        {.what = "it is of a circle of two or three",
         .members = {{"Two1", "Two2", stays(fate::no_dependency)},
                     {"Two2", "Two1", stays(fate::no_dependency)},
                     {"Three1", "Three2", stays(fate::no_dependency)},
                     {"Three2", "Three3", stays(fate::no_dependency)},
                     {"Three3", "Three1", stays(fate::no_dependency)},
                     {"OnThree", "Three1", stays(fate::no_dependency)}},
         .errors = {circle("Two1", "Two2"), circle("Two2", "Two1"), circle("Three1", "Three2"),
                    circle("Three2", "Three3"), circle("Three3", "Three1"), circle("OnThree", "Three1")}},
        {.what = "it is in the last queue, so that there is none after it",
         .members = {{"Last", "", in_queue(15), sequence(15)},
                     {"OnLast", "Last", stays(fate::refused)},
                     {"TipOnLast", "OnLast", stays(fate::no_dependency)},
                     {"Beyond", "", stays(fate::refused), sequence(16)}},
         .errors = {out_of_range("OnLast"), bad_dependency("TipOnLast", "OnLast", fate::refused),
                    out_of_range("Beyond")}},
        {.what = "it comes all the same, to those beside them",
         .members = {{"Sound", "", in_queue(0)}, {"OnSound", "Sound", in_queue(1)}}},
    });
}

}  // namespace
