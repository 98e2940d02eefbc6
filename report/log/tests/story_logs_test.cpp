/// The tool on the simulator's cards, and what its logs tell.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "files.h"
#include "flash_log.h"
#include "log_text.h"
#include "subprocess.h"

namespace fs = std::filesystem;

namespace log_tests {
namespace {

using fpd_log::Outcome;
using ToolRun = fpd_log::Run;
using testing::ElementsAre;
using testing::SizeIs;

class StoryLog : public testing::Test {
  protected:
    std::string cardsim(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), CARDSIM_COMMAND);
        const card_tests::Result result =
            card_tests::run_program(arguments, directory_.path(), std::chrono::seconds(100));
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out + result.err;
    }
    /// The runs of a card that was powered on until it was up.
    std::vector<ToolRun> boot(const std::string &card) {
        const std::string said = cardsim({"boot", CARDSIM_CARDS "/" + card, "--state", state_, "--speed", "60"});
        boots_ = 0;
        while (said.find("boot " + std::to_string(boots_ + 1) + ":") != std::string::npos) ++boots_;
        return runs();
    }
    void tool(const std::string &card, std::vector<std::string> arguments) {
        std::vector<std::string> all = {"exec", CARDSIM_CARDS "/" + card, "--state", state_, "--", "bootup_fpd"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        cardsim(all);
    }
    std::vector<ToolRun> runs() {
        std::vector<ToolRun> all = runs_of(card_tests::read_file(fs::path(state_) / "log" / "fpd.log"));
        for (const ToolRun &run : all) EXPECT_EQ(run.unknown_lines, 0U) << testing::PrintToString(run.unknown);
        return all;
    }

    const card_tests::TemporaryDirectory directory_{"story-log"};
    const std::string state_ = directory_.path() / "state";
    std::size_t boots_ = 0;
};

TEST_F(StoryLog, OfEachCardHasARunForEachBootWithAReasonForEachRegion) {
    for (const char *const card : {"current", "flaky", "fresh", "golden-locked", "reload-loop"}) {
        fs::remove_all(state_);
        const std::vector<ToolRun> all = boot(card);
        EXPECT_EQ(all.size(), boots_) << card;
        for (const ToolRun &run : all) {
            EXPECT_TRUE(run.finished) << card;
            EXPECT_EQ(run.reload_requested, &run != &all.back()) << card << " run " << run.number;
            for (const fpd_log::Region &region : run.regions)
                EXPECT_FALSE(region.reason.empty()) << card << ' ' << region.name;
        }
    }
}

TEST_F(StoryLog, OfAReloadLoopEndsWithTheMarker) {
    const std::vector<ToolRun> all = boot("reload-loop");
    ASSERT_THAT(all, SizeIs(3));
    EXPECT_TRUE(all[2].skipped_by_marker);
    EXPECT_THAT(outcomes(all[2]), ElementsAre("IoFpga current", "BootRom planned"));
}

TEST_F(StoryLog, OfAHangingPartTellsThatItWasGivenUp) {
    const std::vector<ToolRun> all = boot("hanging");
    ASSERT_THAT(all, SizeIs(2));
    EXPECT_THAT(outcomes(all[0]), ElementsAre("IoFpga upgraded", "FabricFpga given up"));
    const std::string &reason = all[0].regions[1].reason;
    EXPECT_THAT(reason, testing::MatchesRegex("stuck in 'FPD Upgrade Progressing' at 40 % for 3[.0-9]* s .limit 3 s., "
                                              "twice"));
}

TEST_F(StoryLog, HasTheAnswersGivenByHandAsRunsOfTheirOwn) {
    tool("golden-locked", {"-b", "-c", "list_upgrade"});
    ASSERT_THAT(runs(), SizeIs(1));
    EXPECT_THAT(outcomes(runs()[0]),
                ElementsAre("IoFpga planned", "BiosPrimary not considered", "BiosGolden not considered"));
    EXPECT_THAT(boot("golden-locked"), SizeIs(4));
    tool("golden-locked", {"-b", "-c", "list_upgrade"});
    tool("golden-locked", {"-c", "get_config"});
    tool("golden-locked", {"-c", "set_config=disable"});
    tool("golden-locked", {"-c", "upgrade"});
    const std::vector<ToolRun> all = runs();
    ASSERT_THAT(all, SizeIs(6));
    EXPECT_FALSE(all[4].upgrades);
    EXPECT_TRUE(all[5].disabled);
}

TEST_F(StoryLog, OfTheFlashTellsTheSameUpgrades) {
    boot("flaky");
    const std::string text = card_tests::read_file(fs::path(state_) / "flash" / "fpd_local_log_1.txt");
    std::vector<std::string> events;
    for (const std::string &line : card_tests::lines_of(text)) {
        const auto event = fpd_log::parse_flash_line(line);
        ASSERT_TRUE(event) << line;
        if (event->region == "PhyFirmware") events.emplace_back(flash_event_key(event->kind));
    }
    EXPECT_THAT(events, ElementsAre("start", "started", "failed", "start", "started", "upgraded"));
}

}  // namespace
}  // namespace log_tests
