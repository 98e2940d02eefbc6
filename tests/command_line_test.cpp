/// The command line: what is parsed, answered and complained of, on which stream and with which exit status.

#include "card_test.h"

using namespace card_tests;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr int failed = 255;
constexpr const char *get_config_call = "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config -> 0";

class CommandLine : public CardTest {
  protected:
    void SetUp() override {
        CardTest::SetUp();
        describe_card();
    }
    /// One region that needs its upgrade.
    void describe_card(const std::string &keys = {}, const std::string &tables = {}) {
        describe(Card{.keys = keys, .tables = tables, .fpds = fpd(10, {plain_region("IoFpga")})});
    }
    void expect_usage_error(const Result &result, const std::string &complaint) const {
        expect_answer(result, failed, usage_text("bootup_fpd"), complaint);
        EXPECT_THAT(calls(), IsEmpty());
    }
};

// ---- usage

TEST_F(CommandLine, NoArgumentsShowTheUsage) {
    expect_usage_error(tool({}), "");
}

TEST_F(CommandLine, AnEmptyCommandShowsTheUsage) {
    expect_usage_error(shell("bootup_fpd -c ''"), "");
}

TEST_F(CommandLine, TheBackendOptionAloneIsNoCommand) {
    expect_usage_error(tool({"-b"}), "");
}

TEST_F(CommandLine, HelpIsTheUsageAndNoError) {
    expect_answer(tool({"-h"}), 0, usage_text("bootup_fpd"));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(CommandLine, TheUsageNamesTheProgramAsItWasCalled) {
    expect_answer(tool({"-h"}), 0, usage_text("bootup_fpd"));
    expect_answer(shell(std::string(BOOTUP_FPD) + " -h"), 0, usage_text(BOOTUP_FPD));
    expect_answer(shell("bash -c \"exec -a 'a %s' bootup_fpd -h\""), 0, usage_text("a %s"));
}

TEST_F(CommandLine, HelpComesFirstWhereverItStands) {
    for (const std::vector<std::string> &words : {std::vector<std::string>{"-h", "-c", "upgrade"},
                                                  {"-c", "upgrade", "-h"},
                                                  {"-b", "-h"},
                                                  {"-bh"},
                                                  {"-h", "-c", "no_such_word"}}) {
        expect_answer(tool(words), 0, usage_text("bootup_fpd"));
    }
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(CommandLine, HelpBehindAnErrorIsStillHelp) {
    expect_answer(tool({"-c", "no_such_word", "-h"}), 0, usage_text("bootup_fpd"), "Unknown Command Subopt, rc -1\n");
}

// ---- words

TEST_F(CommandLine, AnUnknownWord) {
    expect_usage_error(tool({"-c", "no_such_word"}), "Unknown Command Subopt, rc -1\n");
}

TEST_F(CommandLine, AWordIsNotAbbreviated) {
    expect_usage_error(tool({"-c", "upgr"}), "Unknown Command Subopt, rc -1\n");
}

TEST_F(CommandLine, TheLastWordWins) {
    expect_answer(tool({"-c", "upgrade,check_upgrade"}), 1, "FPD available that need to be upgraded\n");
    EXPECT_THAT(events(), IsEmpty());
}

TEST_F(CommandLine, TheLastOptionWins) {
    expect_answer(tool({"-c", "upgrade", "-b", "-c", "get_config"}), 0, "Auto FPD Upgrade Config is 'ENABLED'\n");
    EXPECT_THAT(texts(calls()), ElementsAre(get_config_call));
}

TEST_F(CommandLine, TheLastValueWins) {
    expect_answer(tool({"-c", "set_config=enable,set_config=disable"}), 0,
                  "Auto FPD Upgrade Config updated from 'ENABLED' to 'DISABLED'\n");
    EXPECT_EQ(state().auto_upgrade, 0);
    expect_answer(tool({"-c", "set_upgrade_mode=dummy-major-version", "-c", "set_upgrade_mode=mfg"}), 0,
                  "FPD Upgrade Mode updated to 'Regular'\n");
    EXPECT_EQ(state().upgrade_mode, 1);
}

TEST_F(CommandLine, AnEmptyCommandIsSkipped) {
    expect_answer(shell("bootup_fpd -c get_config -c ''"), 0, "Auto FPD Upgrade Config is 'ENABLED'\n");
}

TEST_F(CommandLine, AValueThatAWordDoesNotTakeIsIgnored) {
    expect_answer(tool({"-c", "get_config=disable"}), 0, "Auto FPD Upgrade Config is 'ENABLED'\n");
}

TEST_F(CommandLine, ATrailingCommaIsNoWord) {
    expect_answer(tool({"-c", "get_config,"}), 0, "Auto FPD Upgrade Config is 'ENABLED'\n");
}

TEST_F(CommandLine, SetConfigWithoutASignIsEmpty) {
    expect_usage_error(tool({"-c", "set_config"}), "set_config can't be empty\n\n\n");
}

TEST_F(CommandLine, SetConfigWithNothingBehindTheSignIsInvalid) {
    expect_usage_error(tool({"-c", "set_config="}), "Invalid set_config value\n\n\n");
}

TEST_F(CommandLine, SetConfigWithAnotherValueIsInvalid) {
    expect_usage_error(tool({"-c", "set_config=maybe"}), "Invalid set_config value\n\n\n");
    expect_usage_error(tool({"-c", "set_config=ENABLE"}), "Invalid set_config value\n\n\n");
    EXPECT_EQ(state().auto_upgrade, 1);
}

TEST_F(CommandLine, SetUpgradeModeNeedsOneOfFourValues) {
    for (const char *word : {"set_upgrade_mode", "set_upgrade_mode=", "set_upgrade_mode=golden",
                             "set_upgrade_mode=dummy-minor", "set_upgrade_mode=0"}) {
        expect_usage_error(tool({"-c", word}), "Invalid set_upgrade_mode value\n\n\n");
    }
    EXPECT_EQ(state().upgrade_mode, 0);
}

TEST_F(CommandLine, TheFirstErrorEndsParsing) {
    expect_usage_error(tool({"-c", "set_config=maybe,no_such_word,get_config"}), "Invalid set_config value\n\n\n");
    expect_usage_error(tool({"-c", "get_config,no_such_word,set_config"}), "Unknown Command Subopt, rc -1\n");
    expect_usage_error(tool({"-c", "no_such_word", "-c", "set_config=maybe", "-c", "get_config"}),
                       "Unknown Command Subopt, rc -1\n");
}

TEST_F(CommandLine, AnUnknownOptionIsTheComplaintOfGetoptAlone) {
    const Result result = tool({"-x", "-c", "get_config"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Auto FPD Upgrade Config is 'ENABLED'\n");
    EXPECT_EQ(lines_of(result.err).size(), 1U);
    EXPECT_THAT(result.err, HasSubstr("'x'"));
}

TEST_F(CommandLine, AnOptionWithoutItsArgumentIsNoCommand) {
    const Result result = tool({"-c"});
    EXPECT_EQ(result.status, failed);
    EXPECT_EQ(result.out, usage_text("bootup_fpd"));
    EXPECT_EQ(lines_of(result.err).size(), 1U);
}

// ---- run level

TEST_F(CommandLine, ABackendRunSetsNoFlag) {
    EXPECT_EQ(tool({"-b", "-c", "get_config"}).status, 0);
    EXPECT_EQ(tool({"-c", "get_config", "-b"}).status, 0);
    EXPECT_THAT(texts(calls()), ElementsAre(get_config_call, get_config_call));
}

TEST_F(CommandLine, TheFlagsResultIsNotLookedAt) {
    describe_card("", call_fault("brd_sb_attribute_flag_set", 5));
    const Result result = tool({"-c", "check_upgrade"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(calls().front().text(), "brd_sb_attribute_flag_set value=1 -> 5");
}

// ---- get_config, set_config

TEST_F(CommandLine, ShowsTheStoredConfiguration) {
    for (const auto &[stored, name] : {std::pair{"1", "'ENABLED'"},
                                       {"0", "'DISABLED'"},
                                       {"2", "'Unknown'"},
                                       {"-1", "'Unknown'"},
                                       {"256", "'Unknown'"}}) {
        std::filesystem::remove_all(state_);
        describe_card(std::string("auto_upgrade = ") + stored);
        expect_answer(tool({"-c", "get_config"}), 0, std::string("Auto FPD Upgrade Config is ") + name + "\n");
    }
}

TEST_F(CommandLine, ChangesTheConfiguration) {
    expect_answer(tool({"-c", "set_config=disable"}), 0,
                  "Auto FPD Upgrade Config updated from 'ENABLED' to 'DISABLED'\n");
    EXPECT_EQ(state().auto_upgrade, 0);
    expect_answer(tool({"-c", "set_config=disable"}), 0,
                  "Auto FPD Upgrade Config updated from 'DISABLED' to 'DISABLED'\n");
    expect_answer(tool({"-b", "-c", "set_config=enable"}), 0,
                  "Auto FPD Upgrade Config updated from 'DISABLED' to 'ENABLED'\n");
    EXPECT_EQ(state().auto_upgrade, 1);
}

TEST_F(CommandLine, ChangesAnUnknownConfiguration) {
    describe_card("auto_upgrade = 9");
    expect_answer(tool({"-c", "set_config=enable"}), 0,
                  "Auto FPD Upgrade Config updated from 'Unknown' to 'ENABLED'\n");
}

TEST_F(CommandLine, AConfigurationThatCannotBeReadFailsEveryCommand) {
    describe_card("", call_fault("brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config", 5, "text = \"store is gone\""));
    for (const char *word : {"get_config", "set_config=enable", "get_upgrade_mode", "set_upgrade_mode=mfg", "upgrade",
                             "check_upgrade", "list_upgrade"}) {
        expect_answer(tool({"-b", "-c", word}), failed, "",
                      "Getting Auto FPD Upgrade configuration is failed, store is gone\n");
    }
    EXPECT_THAT(calls(), SizeIs(7));
    EXPECT_EQ(
        errors().front(),
        "[FPD] [ERROR] [BrdIntfFpdUpgCfg] BRD interface auto FPD upgrade config get failed err_msg store is gone");
}

TEST_F(CommandLine, AConfigurationThatCannotBeStored) {
    describe_card("", call_fault("brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config", 5, "text = \"store is full\""));
    expect_answer(tool({"-c", "set_config=disable"}), failed, "",
                  "Setting Auto FPD Upgrade configuration is failed, store is full\n");
    EXPECT_EQ(state().auto_upgrade, 1);
}

TEST_F(CommandLine, AStoreWithoutAReasonLeavesNone) {
    describe_card("", call_fault("brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config", 5));
    expect_answer(tool({"-c", "set_config=disable"}), failed, "",
                  "Setting Auto FPD Upgrade configuration is failed, \n");
}

// ---- get_upgrade_mode, set_upgrade_mode

TEST_F(CommandLine, ShowsTheStoredMode) {
    for (const auto &[stored, name] : {std::pair{"0", "'Regular'"},
                                       {"1", "'Manufacturing'"},
                                       {"2", "'Dummy Minor Version'"},
                                       {"3", "'Dummy Major Version'"},
                                       {"4", "'Unknown'"},
                                       {"-1", "'Unknown'"}}) {
        std::filesystem::remove_all(state_);
        describe_card(std::string("upgrade_mode = ") + stored);
        expect_answer(tool({"-c", "get_upgrade_mode"}), 0, std::string("FPD Upgrade Mode: ") + name + "\n");
    }
}

TEST_F(CommandLine, AChangeOfModeTellsTheOldOne) {
    expect_answer(tool({"-c", "set_upgrade_mode=mfg"}), 0, "FPD Upgrade Mode updated to 'Regular'\n");
    EXPECT_EQ(state().upgrade_mode, 1);
    expect_answer(tool({"-c", "set_upgrade_mode=dummy-minor-version"}), 0,
                  "FPD Upgrade Mode updated to 'Manufacturing'\n");
    EXPECT_EQ(state().upgrade_mode, 2);
    expect_answer(tool({"-c", "set_upgrade_mode=dummy-major-version"}), 0,
                  "FPD Upgrade Mode updated to 'Dummy Minor Version'\n");
    EXPECT_EQ(state().upgrade_mode, 3);
    expect_answer(tool({"-b", "-c", "set_upgrade_mode=regular"}), 0,
                  "FPD Upgrade Mode updated to 'Dummy Major Version'\n");
    EXPECT_EQ(state().upgrade_mode, 0);
}

TEST_F(CommandLine, AChangeOfAnUnknownMode) {
    describe_card("upgrade_mode = 7");
    expect_answer(tool({"-c", "set_upgrade_mode=regular"}), 0, "FPD Upgrade Mode updated to 'Unknown'\n");
    EXPECT_EQ(state().upgrade_mode, 0);
}

TEST_F(CommandLine, AModeThatCannotBeReadGivesTheStoresCode) {
    describe_card("", call_fault("brd_intf_fpd_upgrade_cookie_get_upgrade_mode", 5, "text = \"no such record\""));
    for (const char *word : {"get_upgrade_mode", "set_upgrade_mode=mfg"}) {
        expect_answer(tool({"-c", word}), 5, "", "Getting FPD Upgrade Mode failed, no such record\n");
    }
    EXPECT_EQ(state().upgrade_mode, 0);
    EXPECT_THAT(of_function(calls(), "brd_intf_fpd_upgrade_cookie_set_upgrade_mode"), IsEmpty());
}

TEST_F(CommandLine, AModeThatCannotBeStoredGivesTheStoresCode) {
    describe_card("", call_fault("brd_intf_fpd_upgrade_cookie_set_upgrade_mode", -13, "text = \"read-only\""));
    expect_answer(tool({"-c", "set_upgrade_mode=mfg"}), 256 - 13, "",
                  "Setting FPD Upgrade Mode is failed, read-only\n");
    EXPECT_EQ(state().upgrade_mode, 0);
}

TEST_F(CommandLine, TheModeIsAnsweredAlsoWhenAutoUpgradeIsOff) {
    describe_card("auto_upgrade = 0");
    expect_answer(tool({"-c", "get_upgrade_mode"}), 0, "FPD Upgrade Mode: 'Regular'\n");
    expect_answer(tool({"-c", "set_upgrade_mode=mfg"}), 0, "FPD Upgrade Mode updated to 'Regular'\n");
}

// ---- auto-upgrade off

TEST_F(CommandLine, CardCommandsStopWhenAutoUpgradeIsOff) {
    describe_card("auto_upgrade = 0");
    for (const char *word : {"check_upgrade", "upgrade", "list_upgrade"}) {
        expect_answer(tool({"-b", "-c", word}), 0, "Auto FPD Upgrade is Disabled\n");
    }
    EXPECT_THAT(texts(calls()), ElementsAre(get_config_call, get_config_call, get_config_call));
}

TEST_F(CommandLine, ACardThatSaysNeitherOnNorOffIsUpgraded) {
    describe_card("auto_upgrade = 2");
    expect_answer(tool({"-c", "get_config"}), 0, "Auto FPD Upgrade Config is 'Unknown'\n");
    EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 1);
    expect_answer(tool({"-b", "-c", "upgrade"}), 0, "Auto FPD Upgrade done\n");
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
}

}  // namespace
