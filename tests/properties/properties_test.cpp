#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "check.h"
#include "facts.h"
#include "files.h"
#include "happenings.h"
#include "model.h"
#include "random_card.h"
#include "shrink.h"
#include "subprocess.h"

namespace fs = std::filesystem;

namespace {

using namespace properties;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Lines = std::vector<std::string>;

/// An FPD that is to go from 1.0.0 to 1.1.0 by a regular upgrade, and a reset.
Region outdated(const std::string &name, const std::string &depends_on = "") {
    Region region;
    region.name = name;
    region.running = region.programmed = {0, 1, 0, 0};
    region.activation = 5;
    region.images = {{.version = {0, 1, 1, 0}, .depends_on = depends_on}};
    return region;
}

Card card_of(const std::vector<Region> &regions) {
    Card card;
    card.leds = {{.id = 1, .name = "Status", .state = 2, .color = 4}};
    card.fpds = {{.id = 10, .regions = regions}};
    return card;
}

Lines lines_about(const Card &card, const std::string &what) {
    return predict(card).facts[what];
}

// ---- the model, by cards whose end a reader can tell

TEST(Model, PlansADependencyBeforeItsDependent) {
    EXPECT_THAT(lines_about(card_of({outdated("Top", "Base"), outdated("Base")}), "plan"),
                ElementsAre("Base 0", "Top 1"));
}

TEST(Model, PlansNothingOfACircle) {
    const Card card = card_of({outdated("A", "B"), outdated("B", "A"), outdated("Other")});
    EXPECT_THAT(lines_about(card, "plan"), ElementsAre("Other 0"));
    EXPECT_THAT(lines_about(card, "transitions A"), Contains("8>10"));
}

TEST(Model, PlansNothingBeyondTheLastQueue) {
    Card card = card_of({outdated("Last"), outdated("Beyond")});
    card.fpds[0].regions[0].sequence = 15;
    card.fpds[0].regions[1].sequence = 16;
    EXPECT_THAT(lines_about(card, "plan"), ElementsAre("Last 15"));
}

TEST(Model, GoesOnFromTheReloadUntilTheCardIsUp) {
    Card card = card_of({outdated("Base")});
    card.lives = true;
    const Prediction prediction = predict(card);
    EXPECT_EQ(prediction.facts.at("versions"), Lines{"1.1.0 1.1.0"});
    EXPECT_EQ(prediction.facts.at("status"), Lines{"0"});
    EXPECT_THAT(prediction.facts.at("scripts"), SizeIs(2));
    EXPECT_FALSE(prediction.facts.contains("marker"));
}

TEST(Model, LetsTheMarkerStopFirmwareThatDoesNotStick) {
    Card card = card_of({outdated("Base")});
    card.lives = true;
    card.fpds[0].regions[0].troubles = {{.kind = Trouble::Kind::DoesNotStick}};
    const Prediction prediction = predict(card);
    EXPECT_EQ(prediction.facts.at("status"), Lines{"0"});
    EXPECT_EQ(prediction.happenings.at("runs that the marker skips"), 1U);
    EXPECT_EQ(prediction.facts.at("marker"), Lines{"FPD: Base             | Version: 1.1.0       \n"});
}

TEST(Model, RetriesAFailureOnceAndEndsASilentWorker) {
    Card card = card_of({outdated("Bad"), outdated("Mute")});
    card.fpds[0].regions[0].troubles = {{.kind = Trouble::Kind::Fail, .attempt = 1, .code = 5}};
    card.fpds[0].regions[1].troubles = {{.kind = Trouble::Kind::Hang}};
    const Prediction prediction = predict(card);
    EXPECT_THAT(prediction.facts.at("upgrades Bad"), ElementsAre("begin", "5", "begin", "0"));
    EXPECT_THAT(prediction.facts.at("upgrades Mute"), ElementsAre("begin", "begin"));
    EXPECT_THAT(prediction.facts.at("transitions Mute"), Contains("16>9"));
    EXPECT_EQ(prediction.time_outs.at("ChkFpdUpgStartedMaxTransTimeOut"), 2U);
}

TEST(Model, KnowsWhatItCannotKnow) {
    Card card = card_of({outdated("One"), outdated("Two")});
    card.faults = {{.call = "brd_fpd_info_get", .nth = 3, .code = 1}};
    EXPECT_THAT(predict(card).undecided_faults, ElementsAre(0U));
    EXPECT_THAT(settled(card).faults, IsEmpty());
    card.faults[0].nth = 2;
    EXPECT_THAT(settled(card).faults, SizeIs(1));
}

// ---- the comparison

TEST(Differences, AreSaidOfEachThingOnceWithItsFirstLine) {
    const Facts model = {{"plan", {"A 0", "B 1"}}, {"stdout", {"same"}}, {"marker", {}}};
    EXPECT_THAT(differences(model, {{"plan", {"A 0", "B 2"}}, {"stdout", {"same"}}}),
                ElementsAre("plan, line 2: model \"B 1\", tool \"B 2\""));
    EXPECT_THAT(differences(model, {{"plan", {"A 0", "B 1"}}, {"stdout", {"same"}}, {"scripts", {"reset"}}}),
                ElementsAre("scripts, line 1: model nothing, tool \"reset\""));
    EXPECT_THAT(differences(model, model), IsEmpty());
}

// ---- the generator

TEST(Generator, MakesTheSameCardOfTheSameSeed) {
    for (uint64_t seed = 1; seed <= 50; ++seed) {
        EXPECT_EQ(random_card(seed), random_card(seed));
        EXPECT_NE(random_card(seed), random_card(seed + 1));
    }
}

TEST(Generator, ReachesEverythingThatMustHappen) {
    Happenings happenings;
    for (uint64_t seed = 1; seed <= 1000; ++seed) {
        for (const auto &[what, count] : predict(settled(random_card(seed))).happenings) happenings[what] += count;
    }
    EXPECT_THAT(missing(happenings), IsEmpty());
    EXPECT_GT(happenings.at("planned FPDs"), 1000U);
    EXPECT_THAT(missing({}), Contains("hangs half-way"));
}

TEST(Generator, WritesCardsThatTheSimulatorTakes) {
    const card_tests::TemporaryDirectory directory("random-card");
    for (uint64_t seed = 1; seed <= 60; ++seed) {
        const fs::path file = directory.path() / "card.toml";
        const Card card = random_card(seed);
        card_tests::write_file(file, card_toml(card, predict(card).marker_before));
        const auto shown = card_tests::run_program({CARDSIM_COMMAND, "show", file.string()}, directory.path(),
                                                   std::chrono::seconds(20));
        EXPECT_EQ(shown.status, 0) << "seed " << seed << ": " << shown.err;
    }
}

TEST(Generator, WritesTheMarkerForTheShell) {
    const std::string startup = startup_command({}, std::string("FPD: 100%\nA\0B", 13));
    EXPECT_THAT(startup, HasSubstr(R"(printf 'FPD: 100%%\nA\0B' >/misc/scratch/bootup_fpd_marker.txt)"));
    EXPECT_EQ(startup_command({}, {}), "bootup_fpd -c upgrade");
}

// ---- the shrinker

std::vector<Region> regions_of(const Card &card) {
    std::vector<Region> regions;
    for (const Fpd &fpd : card.fpds) regions.insert(regions.end(), fpd.regions.begin(), fpd.regions.end());
    return regions;
}

Card big_card() {
    std::vector<Region> regions;
    for (int number = 0; number < 40; ++number) {
        regions.push_back(outdated("R" + std::to_string(number), number == 0 ? "" : "R0"));
        regions.back().troubles = {{.kind = Trouble::Kind::Fail, .attempt = 1, .code = 1}};
        regions.back().sequence = 3;
    }
    Card card = card_of(regions);
    card.fpds.push_back({.id = 11, .regions = {outdated("Last")}});
    card.faults = {{.call = "brd_fpd_info_get", .nth = 9, .code = 1}, {.call = "exec_shell_command", .code = 1}};
    card.lives = true;
    card.event_status = 1;
    return card;
}

bool has(const Card &card, const std::string &name) {
    const std::vector<Region> regions = regions_of(card);
    return std::any_of(regions.begin(), regions.end(), [&](const Region &region) { return region.name == name; });
}

TEST(Shrinker, LeavesOnlyWhatTheFailureNeeds) {
    const auto fails = [](const Card &card) {
        return has(card, "R7") && has(card, "Last") && !card.faults.empty() && card.faults[0].code == 1;
    };
    const Card small = shrunk(big_card(), fails, 1000);
    EXPECT_TRUE(fails(small));
    const std::vector<Region> regions = regions_of(small);
    ASSERT_THAT(regions, SizeIs(2));
    for (const Region &region : regions) {
        EXPECT_THAT(region.troubles, IsEmpty());
        EXPECT_THAT(region.images, IsEmpty());
        EXPECT_EQ(region.sequence, 0U);
        EXPECT_EQ(region.activation, 0U);
    }
    EXPECT_THAT(small.faults, SizeIs(1));
    EXPECT_THAT(small.leds, IsEmpty());
    EXPECT_FALSE(small.lives);
    EXPECT_EQ(small.event_status, 0U);
}

TEST(Shrinker, KeepsWhatTheFailureNeedsOfARegion) {
    const auto fails = [](const Card &card) {
        const std::vector<Region> regions = regions_of(card);
        return std::any_of(regions.begin(), regions.end(), [](const Region &region) {
            return !region.images.empty() && region.images[0].depends_on == "R0" && region.sequence == 3;
        });
    };
    const Card small = shrunk(big_card(), fails, 1000);
    EXPECT_TRUE(fails(small));
    ASSERT_THAT(regions_of(small), SizeIs(1));
    EXPECT_EQ(regions_of(small)[0].images[0].depends_on, "R0");
    EXPECT_THAT(regions_of(small)[0].troubles, IsEmpty());
}

TEST(Shrinker, TriesNoCardTwiceAndNoMoreThanItMay) {
    std::vector<Card> tried;
    const auto fails = [&](const Card &card) {
        EXPECT_EQ(std::count(tried.begin(), tried.end(), card), 0);
        tried.push_back(card);
        return tried.size() == 20;
    };
    shrunk(big_card(), fails, 50);
    EXPECT_EQ(tried.size(), 50U);
}

TEST(Shrinker, LeavesACardAloneThatCannotBeSmaller) {
    const Card card = big_card();
    EXPECT_EQ(shrunk(
                  card, [](const Card &) { return false; }, 200),
              card);
}

}  // namespace
