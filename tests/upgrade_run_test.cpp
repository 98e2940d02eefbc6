/// Whole upgrade runs: the order of things, what they leave behind, and when the card is reloaded.

#include <filesystem>
#include <set>

#include "card_test.h"

using namespace card_tests;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

const std::string event_script = "/usr/local/etc/send_fpd_doorbell_event.sh";
const std::string reset_script = "/usr/local/etc/reset_board.sh";

std::string event_call(const std::string &kind, const std::string &text) {
    return R"(exec_shell_command command=")" + event_script + "  -e " + kind + R"( -m \")" + text + R"(\"" -> 0)";
}

std::string command_call(const std::string &command) {
    return "exec_shell_command command=\"" + command + "\" -> 0";
}

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
    std::size_t position(const std::string &call) const {
        const std::vector<std::string> all = texts(calls());
        const auto at = std::find(all.begin(), all.end(), call);
        EXPECT_NE(at, all.end()) << call;
        return static_cast<std::size_t>(at - all.begin());
    }
};

/// Case 1. One FPD at boot, at the card's own speed: every call of the closed libraries, in its order.
TEST_F(UpgradeRun, OneFpdAtBootCallByCall) {
    describe({.tables = "[obfl]\nmounted = true\n",
              .fpds = fpd(10, {{.name = "IoFpga", .keys = "activation = 5\nreports = 2\n" + duration(0.4)}})});
    upgrade({}, 1);

    const std::string begin =
        "brd_fpd_upgrade group=3 obj=10 region=0 directory=\"/pkg/fpd/ucode\" file=\"iofpga.img\" ";
    std::vector<std::string> main_thread = texts(calls());
    std::erase(main_thread, begin + "begin");
    std::erase(main_thread, begin + "-> 0");
    const std::string md5 = of_function(calls(), "brd_intf_fpd_image_md5_validate").front().arguments;
    EXPECT_THAT(
        main_thread,
        ElementsAre(
            "brd_sb_attribute_flag_set value=1 -> 0", "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config -> 0",
            "brd_fru_hw_data_init group_type=3 hw=1.2 slot=4 pid=\"SIM-TEST\" board_type=12560 -> 0",
            StartsWith("brd_fru_hw_init handle="), "brd_local_card_group_id_get -> 0",
            "brd_group_led_init group=3 -> 0", "brd_group_led_num_leds_get group=3 -> 0",
            "brd_group_led_obj_id_list_get group=3 -> 0", "brd_led_type_get group=3 obj=1 -> 0",
            "brd_led_name_get group=3 obj=1 size=64 -> 0", "brd_intf_fpd_upgrade_cookie_get_upgrade_mode -> 0",
            "brd_group_fpd_num_fpds_get group=3 -> 0", "brd_group_fpd_obj_id_list_get group=3 -> 0",
            "brd_fpd_num_regions_get group=3 obj=10 -> 0", "brd_fpd_num_regions_get group=3 obj=10 -> 0",
            "brd_fpd_regions_get group=3 obj=10 num_regions=1 -> 0",
            "get_fpd_capability_info name=\"IoFpga\" board_type=12560 hw_version=1.2.0 -> 0x8",
            "brd_fpd_info_get group=3 obj=10 region=0 -> 0",
            "check_and_get_upgrade_image name=\"IoFpga\" upgrade_type=0 programmed=1.0.0 running=1.0.0 -> 0",
            "brd_intf_fpd_image_md5_validate " + md5 + " -> 0",
            // the run begins
            event_call("started", "Auto FPD Upgrade Operation Started"), "brd_led_current_color_get group=3 obj=1 -> 0",
            "brd_led_current_state_get group=3 obj=1 -> 0",
            "brd_led_state_and_color_set group=3 obj=1 state=3 color=2 -> 0",
            event_call("warning", "Auto FPD Upgrade started for 'IoFpga'"), command_call("mountpoint /mnt/obfl"),
            event_call("progress", "Auto FPD Upgrade Progressing"),
            command_call("/usr/local/etc/punch-watchdog-once.sh"),
            // the worker is done
            event_call("warning", "Auto FPD Upgrade completed for 'IoFpga'"),
            "brd_fpd_info_get group=3 obj=10 region=0 -> 0", event_call("ended", "Auto FPD Upgrade Operation Ended"),
            "brd_led_state_and_color_set group=3 obj=1 state=2 color=4 -> 0", command_call("grub-reboot KALDOR-latest"),
            "brd_sb_attribute_flag_set value=2 -> 0",
            command_call(reset_script + R"(  -r \"Auto FPD Upgrade activation\" -b 36)")));
    EXPECT_LT(position("brd_led_state_and_color_set group=3 obj=1 state=3 color=2 -> 0"), position(begin + "begin"));
    EXPECT_LT(position(begin + "begin"), position(begin + "-> 0"));
    EXPECT_LT(position(begin + "-> 0"), position(event_call("warning", "Auto FPD Upgrade completed for 'IoFpga'")));

    EXPECT_THAT(scripts(),
                ElementsAre(event_script + " '-e' 'started' '-m' 'Auto FPD Upgrade Operation Started'",
                            event_script + R"( '-e' 'warning' '-m' 'Auto FPD Upgrade started for '\''IoFpga'\''')",
                            event_script + " '-e' 'progress' '-m' 'Auto FPD Upgrade Progressing'",
                            "/usr/local/etc/punch-watchdog-once.sh",
                            event_script + R"( '-e' 'warning' '-m' 'Auto FPD Upgrade completed for '\''IoFpga'\''')",
                            event_script + " '-e' 'ended' '-m' 'Auto FPD Upgrade Operation Ended'",
                            "/usr/sbin/grub-reboot 'KALDOR-latest'",
                            reset_script + " '-r' 'Auto FPD Upgrade activation' '-b' '36'"));
}

/// Case 2. The diagnostic log of one FPD at boot: the milestones of each thread in their order, and no error.
TEST_F(UpgradeRun, OneFpdAtBootLineByLine) {
    describe({.tables = "[obfl]\nmounted = true\n",
              .fpds = fpd(10, {{.name = "IoFpga", .keys = "activation = 5\nreports = 2\n" + duration(0.4)}})});
    upgrade({}, 1);
    EXPECT_THAT(errors(), IsEmpty());

    std::vector<std::string> states;
    for (const LogRecord &record : tagged("UpdateFpdTransitionState")) {
        states.push_back(record.message.substr(0, record.message.rfind(" at ")));
    }
    const std::string unnamed = "FPD  transitioning state from ";
    const std::string change = "FPD IoFpga transitioning state from ";
    EXPECT_THAT(states, ElementsAre(unnamed + "'Unknown state 0' to 'FPD Created'",
                                    unnamed + "'FPD Created' to 'FPD INITIALIZED'",
                                    change + "'FPD INITIALIZED' to 'FPD Capability Received'",
                                    change + "'FPD Capability Received' to 'FPD Info Received'",
                                    change + "'FPD Info Received' to 'FPD Description Received'",
                                    change + "'FPD Description Received' to 'FPD Queued for Upgrade'",
                                    change + "'FPD Queued for Upgrade' to 'FPD worker created for Upgrade'",
                                    change + "'FPD worker created for Upgrade' to 'FPD Upgrade Started'",
                                    change + "'FPD Upgrade Started' to 'FPD Upgrade Progressing'",
                                    change + "'FPD Upgrade Progressing' to 'FPD Upgrade Progressing'",
                                    change + "'FPD Upgrade Progressing' to 'FPD Upgrade Done'"));

    const int main_thread = log().front().thread;
    std::vector<std::string> worker;
    std::set<int> threads;
    for (const LogRecord &record : log()) {
        if (record.thread != main_thread) worker.push_back(record.tag + ": " + record.message);
        threads.insert(record.thread);
        EXPECT_EQ(record.process, main_thread);
    }
    EXPECT_EQ(threads.size(), 2U);
    EXPECT_THAT(worker, ElementsAre("FpdUpgHdl: Started Worker thread for FPD IoFpga",
                                    StartsWith("FpdUpgHdlrWorkerMq: Worker MQ id "),
                                    "FpdUpgradeProgress: FPD IoFpga upgrade progressing percent 50",
                                    "FpdUpgradeProgress: FPD IoFpga upgrade progressing percent 100",
                                    "FpdUpgHdlUpgradeSuccess: FPD IoFpga Upgrade state 'FPD Upgrade Done'"));
    EXPECT_THAT(messages(tagged("FpdUpgResponse")),
                ElementsAre("FPD IoFpga received response state 'FPD Upgrade Started' progress 0",
                            "FPD IoFpga received response state 'FPD Upgrade Progressing' progress 50",
                            "FPD IoFpga received response state 'FPD Upgrade Progressing' progress 100",
                            "FPD IoFpga received response state 'FPD Upgrade Done' progress 100"));
    EXPECT_THAT(messages(tagged("FpdUpgResponseDone")),
                ElementsAre("FPD IoFpga state 'FPD Upgrade Done' updated in the sequence queue 0"));
    EXPECT_THAT(messages(tagged("FpdUpgActivate")), ElementsAre("FPD Upgrade required a reload_type 1 to activate"));
    EXPECT_THAT(flash_log(),
                ElementsAre("FPD 'IoFpga' Start upgrading to version 1.1.0 Run version 1.0.0 Programmed "
                            "version 1.0.0",
                            "FPD 'IoFpga' Started to upgrade version 1.1.0", "FPD 'IoFpga' Upgraded to version 1.1.0"));
}

TEST_F(UpgradeRun, EveryLineNamesItsModule) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    const std::set<std::string> modules = {"brd_intf_auto_fpd_upgrade_init",
                                           "brd_intf_auto_fpd_upgrade_handler",
                                           "brd_intf_auto_fpd_upgrade_worker",
                                           "brd_intf_auto_fpd_upgrade_queue",
                                           "brd_intf_auto_fpd_upgrade_state",
                                           "brd_intf_auto_fpd_upgrade_led",
                                           "brd_intf_auto_fpd_upgrade_activate",
                                           "brd_intf_auto_fpd_upgrade_marker",
                                           "brd_intf_auto_fpd_obfl",
                                           "brd_intf_led"};
    std::set<std::string> seen;
    for (const LogRecord &record : log()) {
        seen.insert(record.file);
        EXPECT_EQ(record.component, record.file == "brd_intf_led" ? "LED" : "FPD");
        EXPECT_GT(record.line, 0);
    }
    EXPECT_EQ(seen, modules);
}

// ---- at boot and by hand

TEST_F(UpgradeRun, ARunByHandDoesNotReloadTheCard) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade({"-b"});
    EXPECT_EQ(state().region("IoFpga"), (RegionState{"1.0.0", "1.1.0"}));
    EXPECT_THAT(scripts(), Each(Not(HasSubstr("grub-reboot"))));
    EXPECT_THAT(reset_calls(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(marker_file()));
    EXPECT_THAT(of_function(calls(), "brd_sb_attribute_flag_set"), IsEmpty());
    EXPECT_THAT(tagged("FpdUpgActivate"), IsEmpty());
    EXPECT_THAT(
        events_but_progress(),
        ElementsAre("started: Auto FPD Upgrade Operation Started", "warning: Auto FPD Upgrade started for 'IoFpga'",
                    "warning: Auto FPD Upgrade completed for 'IoFpga'", "ended: Auto FPD Upgrade Operation Ended"));
}

TEST_F(UpgradeRun, ASecondRunByHandHasNothingToDo) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade({"-b"});
    const std::size_t scripts_before = scripts().size();
    upgrade({"-b"});
    EXPECT_EQ(scripts().size(), scripts_before);
}

TEST_F(UpgradeRun, NothingToUpgradeTouchesNothing) {
    describe({.fpds = fpd(10, {{.name = "IoFpga", .running = "1.1.0"}})});
    upgrade();
    EXPECT_THAT(scripts(), IsEmpty());
    EXPECT_THAT(of_function(calls(), "brd_led_state_and_color_set"), IsEmpty());
    EXPECT_THAT(of_function(calls(), "exec_shell_command"), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
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

TEST_F(UpgradeRun, OnlyWhatWasUpgradedAsksForAReload) {
    // Current would ask for the big reset, and Broken too.
    describe({.fpds = fpd(10, {{.name = "Current", .running = "1.1.0", .keys = "activation = 1"},
                               {.name = "Broken",
                                .keys = "activation = 1\n" + duration(1),
                                .tables = region_fault("fail", "code = 5")},
                               plain_region("IoFpga")})});
    upgrade();
    EXPECT_THAT(reset_calls(), ElementsAre(reset_script + " '-r' 'Auto FPD Upgrade activation' '-b' '36'"));
}

// ---- the order of queues

/// Case 3. Two sequence queues: their FPDs run side by side, and the second queue waits for the first.
TEST_F(UpgradeRun, OneQueueAfterTheOther) {
    const auto in_queue = [](const std::string &name, const std::string &number) {
        return Region{.name = name, .keys = "activation = 5\nsequence = " + number + "\n" + duration(10)};
    };
    describe({.fpds = fpd(10, {in_queue("A2", "2"), in_queue("A0", "0"), in_queue("B2", "2"), in_queue("B0", "0")})});
    upgrade();
    const auto row = [&](unsigned region, const std::string &name, const std::string &end) {
        return "brd_fpd_upgrade group=3 obj=10 region=" + std::to_string(region) +
               " directory=\"/pkg/fpd/ucode\" file=\"" + image_of(name) + "\" " + end;
    };
    const std::vector<std::string> upgrades = texts(of_function(calls(), "brd_fpd_upgrade"));
    ASSERT_EQ(upgrades.size(), 8U);
    const auto part = [&](std::ptrdiff_t from) {
        return std::vector<std::string>(upgrades.begin() + from, upgrades.begin() + from + 2);
    };
    EXPECT_THAT(part(0), UnorderedElementsAre(row(1, "A0", "begin"), row(3, "B0", "begin")));
    EXPECT_THAT(part(2), UnorderedElementsAre(row(1, "A0", "-> 0"), row(3, "B0", "-> 0")));
    EXPECT_THAT(part(4), UnorderedElementsAre(row(0, "A2", "begin"), row(2, "B2", "begin")));
    EXPECT_THAT(part(6), UnorderedElementsAre(row(0, "A2", "-> 0"), row(2, "B2", "-> 0")));
    EXPECT_THAT(errors(), IsEmpty());
}

// ---- an upgrade that fails

/// Case 5. The first attempt fails, the retry goes through.
TEST_F(UpgradeRun, AFlakyPartIsTriedAgain) {
    describe(
        {.tables = "[obfl]\nmounted = true\n",
         .fpds =
             fpd(10, {{.name = "Phy",
                       .keys = "activation = 5\nreports = 10\n" + duration(1),
                       .tables = region_fault("fail", "attempt = 1\nat = 60\ncode = 5\ntext = \"no acknowledge\"")}})});
    upgrade();
    EXPECT_EQ(state().region("Phy").programmed, "1.1.0");
    EXPECT_THAT(
        events_but_progress(),
        ElementsAre("started: Auto FPD Upgrade Operation Started", "warning: Auto FPD Upgrade started for 'Phy'",
                    "error: Auto FPD Upgrade failed for 'Phy'", "warning: Auto FPD Upgrade retrying for 'Phy'",
                    "warning: Auto FPD Upgrade completed for 'Phy'", "ended: Auto FPD Upgrade Operation Ended"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdUpgHdlUpgradeFail] FPD Phy upgrade failed err_msg no "
                                      "acknowledge"));
    EXPECT_THAT(messages(tagged("FpdUpgHdlUpgradeSuccess")),
                ElementsAre("FPD Phy Upgrade state 'FPD Upgrade Failed'", "FPD Phy Upgrade state 'FPD Upgrade Done'"));
    EXPECT_THAT(messages(tagged("FpdUpgFailRespRetry")), ElementsAre("FPD Phy would be queued to upgrade upg_retry 1"));
    EXPECT_THAT(messages(tagged("FpdUpgResponse")),
                Contains("FPD Phy received response state 'FPD Upgrade Failed' progress 0"));
    EXPECT_THAT(flash_log(),
                ElementsAre("FPD 'Phy' Start upgrading to version 1.1.0 Run version 1.0.0 Programmed version 1.0.0",
                            "FPD 'Phy' Started to upgrade version 1.1.0", "FPD 'Phy' Failed to upgrade version 1.1.0",
                            "FPD 'Phy' Retry upgrading to version 1.1.0 Run version 1.0.0 Programmed version 1.0.0",
                            "FPD 'Phy' Started to upgrade version 1.1.0", "FPD 'Phy' Upgraded to version 1.1.0"));
}

/// Case 6. Both attempts fail: given up, and the run ends all the same.
TEST_F(UpgradeRun, ABrokenPartIsGivenUp) {
    describe({.tables = "[obfl]\nmounted = true\n",
              .fpds = fpd(10, {{.name = "Phy",
                                .keys = "activation = 5\n" + duration(1),
                                .tables = region_fault("fail", "code = -22\ntext = \"bad sector\"")},
                               plain_region("IoFpga")})});
    upgrade();
    EXPECT_EQ(state().region("Phy").programmed, "1.0.0");
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
    EXPECT_THAT(errors(), Each("[FPD] [ERROR] [FpdUpgHdlUpgradeFail] FPD Phy upgrade failed err_msg bad sector"));
    EXPECT_EQ(errors().size(), 2U);
    EXPECT_THAT(events(), Contains("error: Auto FPD Upgrade failed for 'Phy'").Times(2));
    EXPECT_THAT(messages(tagged("FpdUpgResponseFailed")),
                ElementsAre("FPD Phy state 'FPD Upgrade Failed' updated in the sequence queue 0"));
    EXPECT_THAT(flash_log(), Contains("FPD 'Phy' Failed to upgrade version 1.1.0").Times(2));
    EXPECT_THAT(flash_log(), Not(Contains(StartsWith("FPD 'Phy' Upgraded"))));
    EXPECT_EQ(reset_calls().size(), 1U);  // for IoFpga
}

TEST_F(UpgradeRun, AnUpgradeThatTheLibraryRefuses) {
    describe({.tables = call_fault("brd_fpd_upgrade", 77, "nth = 1"), .fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdUpgHdlUpgradeFail] FPD IoFpga upgrade failed err_msg "));
}

TEST_F(UpgradeRun, InformationThatCannotBeReadAgain) {
    describe({.tables = "[obfl]\nmounted = true\n" + call_fault("brd_fpd_info_get", 3, "nth = 2\ntext = \"no answer\""),
              .fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdInfoGetBrdFail] Failed to get FPD info, error no answer",
                                      StartsWith("[FPD] [ERROR] [FpdUpgDoneInfoGetFail] FPD IoFpga Info get failed, "
                                                 "error ")));
    EXPECT_THAT(flash_log(), Contains("FPD 'IoFpga' Upgraded to version 1.0.0"));
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

TEST_F(UpgradeRun, TheLedBlinksGreenAndIsRestored) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_THAT(texts(of_function(calls(), "brd_led_state_and_color_set")),
                ElementsAre("brd_led_state_and_color_set group=3 obj=1 state=3 color=2 -> 0",
                            "brd_led_state_and_color_set group=3 obj=1 state=2 color=4 -> 0"));
    EXPECT_EQ(state().led(1), (LedLook{2, 4}));
    std::vector<std::string> led;
    for (const LogRecord &record : log()) {
        if (record.component == "LED" || record.file == "brd_intf_auto_fpd_upgrade_led")
            led.push_back(texts({record}).front());
    }
    EXPECT_THAT(led,
                ElementsAre("[LED] [INFO] [GetLedStateAndColor] LED State 'STEADY' and Color 'AMBER'",
                            "[FPD] [INFO] [BrdIntfLedStateColorGet2] Original LED state 'STEADY' and color 'AMBER'",
                            "[LED] [INFO] [SetLedStateAndColor] Setting LED State 'BLINK' and Color 'GREEN'",
                            "[LED] [INFO] [SetLedStateAndColor] Setting LED State 'STEADY' and Color 'AMBER'"));
}

TEST_F(UpgradeRun, ALookThatTheToolDoesNotKnowComesBackAsNone) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")}),
              .leds = "[[led]]\nid = 1\nname = \"Status\"\nstate = 7\ncolor = 9\n"});
    upgrade();
    EXPECT_EQ(state().led(1), (LedLook{0, 0}));
    EXPECT_THAT(messages(tagged("GetLedStateAndColor")), ElementsAre("LED State 'Unknown' and Color 'Unknown'"));
}

TEST_F(UpgradeRun, AStartThatTheLedDoesNotShow) {
    describe(
        {.tables = call_fault("brd_led_state_and_color_set", 6, "nth = 1"), .fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_THAT(errors(),
                ElementsAre("[LED] [ERROR] [SetLedStateAndColorFailed] Setting LED state and color failed rc:6",
                            "[FPD] [ERROR] [BrdIntfLedStateColorSetFail] BRD LED state and color get failed "
                            "error Setting LED state and color failed rc:6",
                            StartsWith("[FPD] [ERROR] [AutoFpdUpgStartLedOnFail] Auto FPD Upgrade Started LED "
                                       "notification failed ")));
    // The start was never shown, so there is nothing to take back.
    EXPECT_EQ(of_function(calls(), "brd_led_state_and_color_set").size(), 1U);
    EXPECT_THAT(messages(tagged("BrdIntfLedStateColorGet")),
                ElementsAre("Current LED state 'STEADY' and color 'AMBER'"));
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
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

TEST_F(UpgradeRun, AnEarlierLookThatCannotBeRead) {
    for (const char *call : {"brd_led_current_color_get", "brd_led_current_state_get"}) {
        std::filesystem::remove_all(state_);
        describe({.tables = call_fault(call, 6), .fpds = fpd(10, {plain_region("IoFpga")})});
        upgrade();
        EXPECT_THAT(texts(of_function(calls(), "brd_led_state_and_color_set")),
                    ElementsAre("brd_led_state_and_color_set group=3 obj=1 state=3 color=2 -> 0",
                                "brd_led_state_and_color_set group=3 obj=1 state=0 color=0 -> 0"));
        EXPECT_THAT(errors(),
                    Contains(StartsWith("[FPD] [ERROR] [BrdIntfOrgLedStateColorGetFail] BRD LED state and color "
                                        "get failed error Getting LED ")));
    }
}

// ---- scripts that fail

TEST_F(UpgradeRun, EventsThatCannotBeSent) {
    describe(
        {.tables = "[scripts]\nevent = 3\n",
         .fpds =
             fpd(10, {{.name = "Phy", .keys = duration(1), .tables = region_fault("fail", "attempt = 1\ncode = 5")}})});
    upgrade();
    EXPECT_EQ(state().region("Phy").programmed, "1.1.0");
    std::vector<std::string> heads;
    for (const LogRecord &record : with_level(log(), "ERROR")) {
        if (record.tag == "FpdUpgHdlUpgradeFail") continue;  // of the worker, whenever it comes
        heads.push_back(record.component + " " + record.tag + " " +
                        record.message.substr(0, record.message.find("command '")));
    }
    // The periodic event may come more than once.
    std::erase(heads, "EVENTS AutoFpdUpgradeProgressEvent Sending Auto FPD Progressing Event failed error ");
    std::erase(heads, "FPD AutoFpdUpgMainLoopSendFpdEventFail Sending FPD event is failed, error ");
    const auto sender = [](const std::string &tag) { return "FPD " + tag + " Sending FPD event is failed, error "; };
    const std::string warning =
        "EVENTS AutoFpdUpgradeEventWarning Sending Auto FPD Event warning message failed error ";
    EXPECT_THAT(
        heads, ElementsAre("EVENTS AutoFpdUpgradeStartedEvent Sending Auto FPD Started Event failed error ",
                           sender("FpdUpgSendFpdStartedEventFail"), warning, sender("FpdUpgSendFpdStartedEventMsgFail"),
                           "EVENTS AutoFpdUpgradeEventError Sending Auto FPD Event error message failed error ",
                           sender("FpdUpgSendFpdFailedEventFail"), warning, sender("FpdUpgSendFpdStartedEventMsgFail"),
                           warning, sender("FpdUpgSendFpdCompletedEventFail"),
                           "EVENTS AutoFpdUpgradeEndedEvent Sending Auto FPD Ended Event failed error ",
                           sender("FpdUpgEndedSendFpdEventFail")));
    EXPECT_THAT(errors(), Contains(HasSubstr("AutoFpdUpgradeProgressEvent")));
    EXPECT_THAT(errors(), Contains(HasSubstr("AutoFpdUpgMainLoopSendFpdEventFail")));
    EXPECT_EQ(with_level(log(), "ERROR").front().file, "brd_intf_events_fpd");
}

TEST_F(UpgradeRun, AWatchdogThatCannotBePunched) {
    describe({.tables = "[scripts]\nwatchdog = 4\n", .fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
    EXPECT_THAT(errors(),
                Each(StartsWith("[FPD] [ERROR] [AutoFpdUpgradeProgressWDPunchFail] Punching PD watchdog failed "
                                "error command '/usr/local/etc/punch-watchdog-once.sh' exited with 4")));
    EXPECT_THAT(errors(), Not(IsEmpty()));
}

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

/// Case 7. The boot loader refuses its entry: the marker is written, but the card is not reset.
TEST_F(UpgradeRun, ABootLoaderThatRefuses) {
    describe({.tables = "[scripts]\ngrub_reboot = 1\n", .fpds = fpd(10, {plain_region("IoFpga")})});
    upgrade();
    EXPECT_THAT(reset_calls(), IsEmpty());
    EXPECT_THAT(texts(of_function(calls(), "brd_sb_attribute_flag_set")),
                ElementsAre("brd_sb_attribute_flag_set value=1 -> 0"));
    EXPECT_EQ(read_file(marker_file()), marker_line("IoFpga", "1.1.0"));
    EXPECT_THAT(errors(),
                ElementsAre(StartsWith("[FPD] [ERROR] [AutoFpdActivateGrubRebootSetFail] Auto FPD ACtivate GRUB "
                                       "Reboot setting failed error command 'grub-reboot KALDOR-latest' "
                                       "exited with 1"),
                            StartsWith("[FPD] [ERROR] [FpdUpgActivationRequestFailed] Auto FPD Upgrade "
                                       "Activation request failed ")));
}

/// Case 7, without the fault: the card goes down and comes up with its new firmware.
TEST_F(UpgradeRun, BootReloadBoot) {
    describe({.tables = "[watchdog]\n", .fpds = fpd(10, {plain_region("IoFpga")})});
    const Result result = boot();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, AllOf(StartsWith("boot 1: power on: bootup_fpd -c upgrade\nAuto FPD Upgrade done\n"),
                                  HasSubstr("boot 1: reload requested: " + reset_script +
                                            " '-r' 'Auto FPD Upgrade activation' '-b' '36'\n"),
                                  EndsWith("boot 2: the card is up\n")));
    EXPECT_EQ(state().boot, 2);
    EXPECT_EQ(state().region("IoFpga"), (RegionState{"1.1.0", "1.1.0"}));
    EXPECT_FALSE(std::filesystem::exists(marker_file()));
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(messages(tagged("WriteUpgMarkerData")),
                ElementsAre("Writing Upgrade Marker Data\n" + marker_line("IoFpga", "1.1.0")));
}

}  // namespace
