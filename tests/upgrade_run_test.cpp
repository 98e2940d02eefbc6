/// Whole upgrade runs beside those of order/: what they leave behind, and when the card is reloaded.

#include <filesystem>

#include "card_test.h"

using namespace card_tests;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::StartsWith;

namespace {

const std::string reset_script = "/usr/local/etc/reset_board.sh";

class UpgradeRun : public CardTest {
  protected:
    /// Runs an upgrade, at boot unless told otherwise, and expects that it could be run.
    void upgrade(const std::vector<std::string> &options = {}, unsigned speed = usual_speed) {
        std::vector<std::string> words = options;
        words.insert(words.end(), {"-c", "upgrade"});
        const Result result = tool(words, speed);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "Auto FPD Upgrade done\n");
        EXPECT_EQ(result.err, "");
    }
    std::vector<std::string> reset_calls() const {
        std::vector<std::string> resets;
        for (const std::string &line : scripts()) {
            if (line.starts_with(reset_script)) resets.push_back(line);
        }
        return resets;
    }
};

// ---- at boot and by hand

TEST_F(UpgradeRun, ASecondRunByHandHasNothingToDo) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade({"-b"});
    const std::size_t scripts_before = scripts().size();
    upgrade({"-b"});
    EXPECT_EQ(scripts().size(), scripts_before);
}

// ---- activation

TEST_F(UpgradeRun, WhatTheNewFirmwareNeeds) {
    const std::string reason = " '-r' 'Auto FPD Upgrade activation' '-b' '36'";
    const std::vector<std::string> plain = {reset_script + reason};
    const std::vector<std::string> big = {reset_script + " '-a'" + reason};
    struct Row {
        const char *kinds;  // of the FPDs, in their order
        std::vector<std::string> resets;
    };
    for (const Row &row : {Row{"1", big}, Row{"3", big}, Row{"4", big}, Row{"6", big}, Row{"5", plain}, Row{"53", big},
                           Row{"35", big}, Row{"05", plain}, Row{"55", plain}, Row{"027", {}}}) {
        SCOPED_TRACE(row.kinds);
        std::filesystem::remove_all(state_);
        std::vector<Region> regions;
        for (const char *kind = row.kinds; *kind != '\0'; ++kind) {
            regions.push_back({.name = "Fpd" + std::to_string(regions.size()),
                               .keys = std::string("activation = ") + *kind + "\n" + duration(0.2)});
        }
        describe({.fpds = fpd(10, regions)});
        upgrade({}, 20);
        EXPECT_EQ(reset_calls(), row.resets);
        EXPECT_THAT(scripts(), Contains("/usr/sbin/grub-reboot 'KALDOR-latest'").Times(row.resets.size()));
        EXPECT_EQ(std::filesystem::exists(marker_file()), !row.resets.empty());
        EXPECT_EQ(of_function(calls(), "brd_sb_attribute_flag_set").size(), 1 + row.resets.size());
        for (const auto &[name, versions] : state().regions) EXPECT_EQ(versions.programmed, "1.1.0") << name;
    }
}

// ---- an upgrade that fails

TEST_F(UpgradeRun, AnUpgradeThatTheLibraryRefuses) {
    describe({.tables = call_fault("brd_fpd_upgrade", 77, "nth = 1"), .fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdUpgHdlUpgradeFail] FPD IoFpga upgrade failed err_msg "));
}

TEST_F(UpgradeRun, VersionsAsTheLogsTellThem) {
    describe({.tables = "[obfl]\nmounted = true\n",
              .fpds = fpd(
                  10, {{.name = "NoDebug", .packaged = "1.13", .keys = duration(1)},
                       {.name = "Unknown", .packaged = "unknown", .keys = "programmed = \"1.0.1\"\n" + duration(1)}})});
    upgrade();
    EXPECT_THAT(flash_log(), Contains("FPD 'NoDebug' Start upgrading to version 1.13 Run version 1.0.0 Programmed "
                                      "version 1.0.0"));
    EXPECT_THAT(flash_log(), Contains("FPD 'NoDebug' Upgraded to version 1.13.0"));
    EXPECT_THAT(flash_log(), Contains("FPD 'Unknown' Start upgrading to version Unknown Run version 1.0.0 Programmed "
                                      "version 1.0.1"));
    EXPECT_THAT(flash_log(), Contains("FPD 'Unknown' Upgraded to version 0.0.0"));
}

// ---- the status LED

TEST_F(UpgradeRun, ALookThatTheToolDoesNotKnowComesBackAsNone) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")}),
              .leds = "[[led]]\nid = 1\nname = \"Status\"\nstate = 7\ncolor = 9\n"});
    upgrade();
    EXPECT_EQ(state().led(1), (LedLook{0, 0}));
    EXPECT_THAT(messages(tagged("GetLedStateAndColor")), ElementsAre("LED State 'Unknown' and Color 'Unknown'"));
}

TEST_F(UpgradeRun, AnEndThatTheLedDoesNotShow) {
    describe(
        {.tables = call_fault("brd_led_state_and_color_set", 6, "nth = 2"), .fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_EQ(state().led(1), (LedLook{3, 2}));
    EXPECT_THAT(errors(), Contains(StartsWith("[FPD] [ERROR] [FpdUpgEndedLedOffFail] Auto FPD Upgrade Ended LED "
                                              "notification failed ")));
    EXPECT_EQ(reset_calls().size(), 1U);
}

// ---- the watchdog

TEST_F(UpgradeRun, AWatchdogIsPunchedAgainAndAgain) {
    // 40 s of the card's time, with a punch every 10.
    describe({.fpds = fpd(10, {{.name = "Slow", .keys = "activation = 5\n" + duration(40)}})});
    upgrade();
    const std::size_t punches = tagged("AutoFpdUpgradeProgressWDPunch").size();
    EXPECT_GE(punches, 3U);
    EXPECT_LT(punches, 15U);  // far from one in each of the forty rounds
    EXPECT_THAT(messages(tagged("AutoFpdUpgradeProgressWDPunch")), Each("Punching PD watchdog: "));
    EXPECT_THAT(events(), Contains("progress: Auto FPD Upgrade Progressing").Times(punches));
}

}  // namespace
