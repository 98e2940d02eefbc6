/// The tool on a card's own libraries, without a rebuild.

#include <algorithm>
#include <set>

#include "card_test.h"

using namespace card_tests;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

class PlatformLibraries : public CardTest {
  protected:
    /// Runs the tool on the other libraries, with nothing that leads to the simulated card.
    Result on_other_libraries(const std::string &arguments, const std::string &environment = "FAKE_TIME_DIV=10") {
        return shell("unset CARDSIM_CARD CARDSIM_STATE CARDSIM_SPEED; " + environment +
                     " LD_PRELOAD=" FAKE_LIBRARY " bootup_fpd " + arguments);
    }
    std::vector<std::string> asked() const { return lines_of(read_file(state_ / "scratch/platform_calls.txt")); }
    std::vector<std::string> asked(const std::string &what) const {
        std::vector<std::string> some;
        for (const std::string &line : asked()) {
            if (line.starts_with(what)) some.push_back(line);
        }
        return some;
    }
    void SetUp() override {
        CardTest::SetUp();
        describe(Card{});
    }
};

// ---- on other libraries

TEST_F(PlatformLibraries, AListFromOtherLibraries) {
    const Result result = on_other_libraries("-b -c list_upgrade");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "FPD name         Available Version\n"
              "CoreFpga         1.7\n"
              "EdgeCpld         1.7\n");
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(
        asked(),
        ElementsAre("identity group_type=3 hw=1.2 slot=4 pid=SIM-TEST board_type=12560 valid=1",
                    "capabilities EdgeCpld board_type=12560 hw=1.2.0", "image EdgeCpld programmed=1.0.0 type=0 flag=6",
                    "md5 /pkg/fpd/ucode/edge.bin any", "capabilities CoreFpga board_type=12560 hw=1.2.0",
                    "image CoreFpga programmed=1.0.0 type=0 flag=6", "md5 /pkg/fpd/ucode/core.bin any"));
}

TEST_F(PlatformLibraries, AnUpgradeOnOtherLibraries) {
    const Result result = on_other_libraries("-c upgrade");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\n");
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(asked("dirty"), IsEmpty());
    EXPECT_THAT(asked("no magic"), IsEmpty());
    EXPECT_THAT(asked("upgrade"), ElementsAre("upgrade group=9 obj=21 region=0 /pkg/fpd/ucode/core.bin",
                                              "upgrade group=9 obj=22 region=0 /pkg/fpd/ucode/edge.bin"));
    EXPECT_THAT(asked("led"), ElementsAre("led state=3 color=2", "led state=2 color=5"));
    EXPECT_THAT(asked("attribute"), ElementsAre("attribute 1", "attribute 2"));
    EXPECT_EQ(asked()[asked().size() - 1],
              "shell /usr/local/etc/reset_board.sh -a -r \"Auto FPD Upgrade activation\" -b 36");
    EXPECT_THAT(asked(), Contains("shell /usr/local/etc/send_fpd_doorbell_event.sh  -e warning -m \"Auto FPD Upgrade "
                                  "completed for 'EdgeCpld'\""));
    EXPECT_EQ(read_file(marker_file()), marker_line("CoreFpga", "1.7") + marker_line("EdgeCpld", "1.7"));
    EXPECT_THAT(errors(), IsEmpty());
    // The library has no text of its verdict.
    EXPECT_THAT(messages(tagged("InitFpdVerion")),
                Contains("FPD CoreFpga run version 1.0.0 program verson 1.0.0 packaged version 1.7 need_upgrade 128 "
                         "status_msg "));
    EXPECT_THAT(messages(tagged("AutoFpdUpgradeProgressWDPunch")), Each("Punching PD watchdog: "));
}

TEST_F(PlatformLibraries, ConfigurationOnOtherLibraries) {
    EXPECT_EQ(on_other_libraries("-c get_config").out, "Auto FPD Upgrade Config is 'ENABLED'\n");
    EXPECT_EQ(on_other_libraries("-c set_upgrade_mode=mfg").out, "FPD Upgrade Mode updated to 'Regular'\n");
}

TEST_F(PlatformLibraries, AStoreThatRefusesWithoutAReasonIsGivenNoneOfAnEarlierCall) {
    expect_answer(on_other_libraries("-c get_config", "FAKE_STORE=read"), 255, "",
                  "Getting Auto FPD Upgrade configuration is failed, \n");
    expect_answer(on_other_libraries("-c get_upgrade_mode", "FAKE_STORE=get"), 5, "",
                  "Getting FPD Upgrade Mode failed, \n");
    expect_answer(on_other_libraries("-c set_upgrade_mode=mfg", "FAKE_STORE=set"), 5, "",
                  "Setting FPD Upgrade Mode is failed, \n");
    expect_answer(on_other_libraries("-c set_config=enable", "FAKE_STORE=set"), 255, "",
                  "Setting Auto FPD Upgrade configuration is failed, \n");
}

TEST_F(PlatformLibraries, AReasonWithoutAnEndIsEndedWhereItsBufferEnds) {
    const std::string flood(511, 'x');
    expect_answer(on_other_libraries("-c get_config", "FAKE_FLOOD=1 FAKE_STORE=read"), 255, "",
                  "Getting Auto FPD Upgrade configuration is failed, " + flood + "\n");
    expect_answer(on_other_libraries("-c get_upgrade_mode", "FAKE_FLOOD=1 FAKE_STORE=get"), 5, "",
                  "Getting FPD Upgrade Mode failed, " + flood + "\n");
    expect_answer(on_other_libraries("-c set_upgrade_mode=mfg", "FAKE_FLOOD=1 FAKE_STORE=set"), 5, "",
                  "Setting FPD Upgrade Mode is failed, " + flood + "\n");
    expect_answer(on_other_libraries("-c set_config=enable", "FAKE_FLOOD=1 FAKE_STORE=set"), 255, "",
                  "Setting Auto FPD Upgrade configuration is failed, " + flood + "\n");
}

/// The library's own end waits for its upgrades: the tool must not wait for that.
TEST_F(PlatformLibraries, AnUpgradeThatNeverEndsDoesNotKeepTheTool) {
    expect_answer(on_other_libraries("-b -c upgrade", "FAKE_HANG=1 FAKE_ONE_PART=1 FAKE_TIME_DIV=100"), 0,
                  "Auto FPD Upgrade done\n", "");
    EXPECT_THAT(asked("upgrade"), SizeIs(2));
    EXPECT_THAT(messages(tagged("ChkFpdUpgStartedMaxTransTimeOut")), SizeIs(2));
}

// ---- the divisor of the periods and limits

TEST_F(PlatformLibraries, TheDivisorIsTheLibrarysToSet) {
    EXPECT_EQ(on_other_libraries("-b -c upgrade", "FAKE_ONE_PART=1 FAKE_TIME_DIV=25").status, 0);
    EXPECT_THAT(asked("usleep"), Each("usleep 40000"));
    EXPECT_THAT(asked("usleep"), Not(IsEmpty()));
}

TEST_F(PlatformLibraries, TheDivisorIsOneUnlessALibrarySetsIt) {
    EXPECT_EQ(on_other_libraries("-b -c upgrade", "FAKE_ONE_PART=1").status, 0);
    EXPECT_THAT(asked("usleep"), Each("usleep 1000000"));
    EXPECT_THAT(asked("usleep"), Not(IsEmpty()));
}

TEST_F(PlatformLibraries, ADivisorOfZeroCountsAsOne) {
    EXPECT_EQ(on_other_libraries("-b -c upgrade", "FAKE_ONE_PART=1 FAKE_TIME_DIV=0").status, 0);
    EXPECT_THAT(asked("usleep"), Each("usleep 1000000"));
    EXPECT_THAT(asked("usleep"), Not(IsEmpty()));
}

}  // namespace
