/// The tool as what it is to a card's own libraries: what it leaves to them, what it gives them, and that it runs on
/// them without a rebuild.

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

const std::set<std::string> closed_functions = {
    "brd_sb_attribute_flag_set",
    "brd_local_card_group_id_get",
    "brd_group_fpd_num_fpds_get",
    "brd_group_fpd_obj_id_list_get",
    "brd_fpd_num_regions_get",
    "brd_fpd_regions_get",
    "brd_fpd_info_get",
    "brd_fpd_upgrade",
    "brd_group_led_init",
    "brd_group_led_num_leds_get",
    "brd_group_led_obj_id_list_get",
    "brd_led_type_get",
    "brd_led_name_get",
    "brd_led_current_color_get",
    "brd_led_current_state_get",
    "brd_led_state_and_color_set",
    "brd_fru_hw_data_init",
    "brd_fru_hw_init",
    "get_fpd_capability_info",
    "check_and_get_upgrade_image",
    "exec_shell_command",
    "brd_intf_fpd_image_md5_validate",
    "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config",
    "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config",
    "brd_intf_fpd_upgrade_cookie_get_upgrade_mode",
    "brd_intf_fpd_upgrade_cookie_set_upgrade_mode",
};

class PlatformLibraries : public CardTest {
  protected:
    /// The dynamic symbols of a file, defined or undefined.
    std::set<std::string> symbols(const std::string &file, const std::string &which) {
        const Result result = run_program({NM, "-D", which, "--without-symbol-versions", file}, root_, usual_limit);
        EXPECT_EQ(result.status, 0) << result.err;
        std::set<std::string> names;
        for (const std::string &line : lines_of(result.out)) names.insert(line.substr(line.rfind(' ') + 1));
        return names;
    }
    std::string elf(const std::string &option) {
        const Result result = run_program({READELF, "-W", option, BOOTUP_FPD}, root_, usual_limit);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }
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

// ---- the executable

TEST_F(PlatformLibraries, TheToolExportsTwoSymbolsOfItsOwn) {
    std::set<std::string> defined = symbols(BOOTUP_FPD, "--defined-only");
    // What a sanitizer asks the program for is there in sanitized builds alone.
    std::erase_if(defined, [](const std::string &name) { return name.ends_with("san_default_options"); });
    EXPECT_THAT(defined, ElementsAre("bootup_fpd_time_div", "fpd_upg_handler"));
}

TEST_F(PlatformLibraries, TheToolLeavesEveryClosedFunctionUndefined) {
    const std::set<std::string> undefined = symbols(BOOTUP_FPD, "--undefined-only");
    EXPECT_TRUE(std::includes(undefined.begin(), undefined.end(), closed_functions.begin(), closed_functions.end()));
    EXPECT_THAT(undefined, Not(Contains("dlsym")));
    EXPECT_THAT(undefined, Not(Contains("dlopen")));
}

TEST_F(PlatformLibraries, TheOtherLibraryHasThemAll) {
    const std::set<std::string> defined = symbols(FAKE_LIBRARY, "--defined-only");
    EXPECT_TRUE(std::includes(defined.begin(), defined.end(), closed_functions.begin(), closed_functions.end()));
}

TEST_F(PlatformLibraries, TheToolIsHardened) {
    EXPECT_THAT(elf("-h"), HasSubstr("DYN (Position-Independent Executable file)"));
    EXPECT_THAT(elf("-d"), HasSubstr("BIND_NOW"));
    const std::vector<std::string> segments = lines_of(elf("-l"));
    EXPECT_THAT(segments, Contains(HasSubstr("GNU_RELRO")));
    for (const std::string &line : segments) {
        if (line.find("GNU_STACK") != std::string::npos) {
            EXPECT_THAT(line, HasSubstr(" RW "));
        }
    }
    EXPECT_THAT(elf("-d"), Not(HasSubstr("TEXTREL")));
    EXPECT_THAT(elf("-d"), Not(HasSubstr("RPATH")));
}

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
