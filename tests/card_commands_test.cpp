/// check_upgrade and list_upgrade, and what keeps a card command from being run at all.

#include "card_test.h"

using namespace card_tests;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr int failed = 255;
constexpr const char *header = "FPD name         Available Version\n";
const std::string interface_failed = "Local Card Auto FPD Upgrade Interface Init failed err_msg ";
const std::string context_failed = "Local Card Auto FPD Upgrade Context Init failed err_msg ";

class CardCommands : public CardTest {
  protected:
    void expect_failure(const Result &result, const std::string &text) const {
        expect_answer(result, failed, "", text);
    }
    void describe_faulty(const std::string &tables, const std::string &keys = {}) {
        describe(Card{.keys = keys, .tables = tables, .fpds = fpd(10, {plain_region("IoFpga")})});
    }
};

Region current(const std::string &name) {
    return {.name = name, .running = "1.1.0"};
}

// ---- check_upgrade

TEST_F(CardCommands, NothingToUpgradeIsNotWorthAWord) {
    describe({.fpds = fpd(10, {current("IoFpga"), current("Bios")})});
    for (const char *word : {"check_upgrade", "list_upgrade"}) {
        expect_answer(tool({"-c", word}), 0, "");
    }
}

TEST_F(CardCommands, OneFpdToUpgrade) {
    describe({.fpds = fpd(10, {current("IoFpga"), plain_region("Bios")})});
    expect_answer(tool({"-c", "check_upgrade"}), 1, "FPD available that need to be upgraded\n");
}

TEST_F(CardCommands, CheckingAndListingChangeNothing) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")})});
    tool({"-c", "check_upgrade"});
    EXPECT_EQ(tool({"-c", "list_upgrade"}).status, 0);
    EXPECT_EQ(state().region("IoFpga"), (RegionState{"1.0.0", "1.0.0"}));
    EXPECT_EQ(state().led(1), (LedLook{2, 4}));
    EXPECT_THAT(scripts(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(marker_file()));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(CardCommands, ACardWithoutFpds) {
    describe(Card{});
    EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 0);
    expect_answer(tool({"-c", "upgrade"}), 0, "Auto FPD Upgrade done\n");
    EXPECT_THAT(texts(tagged("LoadFpdsNoFpds")), Contains("[FPD] [INFO] [LoadFpdsNoFpds] No FPDs Defined"));
}

// ---- list_upgrade

TEST_F(CardCommands, TheListGoesThroughTheSequenceQueues) {
    const auto in_queue = [](const std::string &name, const std::string &number) {
        return Region{.name = name, .keys = "sequence = " + number};
    };
    describe({.fpds = fpd(10, {in_queue("Last", "15"), in_queue("Second", "1"), in_queue("Zero", "0")}) +
                      fpd(11, {in_queue("Third", "1"), in_queue("One", "0"), current("Current")})});
    expect_answer(tool({"-b", "-c", "list_upgrade"}), 0,
                  std::string(header) +
                      "Zero             1.1.0\n"
                      "One              1.1.0\n"
                      "Second           1.1.0\n"
                      "Third            1.1.0\n"
                      "Last             1.1.0\n");
}

TEST_F(CardCommands, TheListShowsEveryKindOfVersion) {
    describe({.fpds = fpd(10, {{.name = "Normal", .packaged = "1.12.3"},
                               {.name = "NoDebug", .packaged = "1.13"},
                               {.name = "Unknown", .packaged = "unknown"},
                               {.name = "Largest", .packaged = "255.65535.255"}})});
    // A version's text holds ten characters.
    expect_answer(tool({"-b", "-c", "list_upgrade"}), 0,
                  std::string(header) +
                      "Normal           1.12.3\n"
                      "NoDebug          1.13\n"
                      "Unknown          Unknown\n"
                      "Largest          255.65535.\n");
}

TEST_F(CardCommands, ALongNameShiftsItsColumn) {
    const std::string sixteen = "Abcdefghijklmnop";
    const std::string long_name = "Qbcdefghijklmnopqrstuvwxyz";
    describe({.fpds = fpd(10, {{.name = long_name}, {.name = sixteen}})});
    // The marker has room for two lines of the usual width and no more.
    expect_answer(tool({"-b", "-c", "list_upgrade"}), 0,
                  std::string(header) + long_name + " 1.1.0\n" + sixteen + " 1.1.0\n");
}

TEST_F(CardCommands, ALongNameThatTheMarkerHasNoRoomFor) {
    const std::string long_name = "Qbcdefghijklmnopqrstuvwxyz";
    describe({.fpds = fpd(10, {{.name = "IoFpga"}, {.name = long_name}})});
    expect_failure(tool({"-b", "-c", "list_upgrade"}),
                   interface_failed + "Out of buffer to add FPD info for " + long_name + "\n");
    EXPECT_EQ(errors().front(),
              "[FPD] [ERROR] [AddFpdInfoUpgMarkerOOB] Out of buffer to add FPD info for " + long_name);
    EXPECT_THAT(errors(), Contains("[FPD] [ERROR] [AddFPDUpgMarkerFail] Failed to add FPD " + long_name +
                                   " into Upgrade Marker, error Out of buffer to add FPD info for " + long_name));
}

TEST_F(CardCommands, ABackendRunAlsoTakesWhatTheBootLeavesAlone) {
    describe({.fpds = fpd(10, {{.name = "ByHand", .keys = "capabilities = 0x0"},
                               {.name = "Never", .keys = "capabilities = 0x9"}})});
    EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 0);
    EXPECT_EQ(tool({"-b", "-c", "check_upgrade"}).status, 1);
    expect_answer(tool({"-b", "-c", "list_upgrade"}), 0, std::string(header) + "ByHand           1.1.0\n");
    EXPECT_THAT(messages(tagged("InitFpdSkipAutoFpdUpgNotBootUp")),
                ElementsAre("FPD ByHand Bootup Auto upgrade is not supported"));
    EXPECT_THAT(messages(tagged("InitFpdSkipAutoFpdUpgNotSupported")),
                Contains("FPD Never Auto upgrade is not supported").Times(3));
}

TEST_F(CardCommands, EveryStoredModeHasItsImage) {
    const auto image = [](const std::string &type, const std::string &version) {
        return "[[fpd.region.image]]\ntype = " + type + "\nversion = \"" + version + "\"\nfile = \"io-" + type +
               ".img\"\nsize = 100\n";
    };
    describe({.fpds = fpd(10, {{.name = "IoFpga",
                                .keys = "capabilities = 0x1808",
                                .tables = image("1", "2.1.0") + image("2", "2.2.0") + image("3", "2.3.0") +
                                          image("4", "2.4.0")}})});
    const auto listed = [&](const std::string &mode) {
        tool({"-b", "-c", "set_upgrade_mode=" + mode});
        return tool({"-b", "-c", "list_upgrade"}).out;
    };
    EXPECT_EQ(listed("regular"), std::string(header) + "IoFpga           1.1.0\n");
    EXPECT_EQ(listed("mfg"), std::string(header) + "IoFpga           2.2.0\n");
    EXPECT_EQ(listed("dummy-minor-version"), std::string(header) + "IoFpga           2.3.0\n");
    EXPECT_EQ(listed("dummy-major-version"), std::string(header) + "IoFpga           2.4.0\n");
}

// ---- the context and the interface

TEST_F(CardCommands, AnUnknownStoredMode) {
    describe_faulty("", "upgrade_mode = 7");
    for (const char *word : {"upgrade", "check_upgrade", "list_upgrade"}) {
        expect_failure(tool({"-c", word}), interface_failed + "Unknown FPD Upgrade mode 7\n");
    }
    EXPECT_THAT(errors(), Contains("[FPD] [ERROR] [FpdUpgdModeUnknown] Unknown FPD Upgrade mode 7").Times(3));
    EXPECT_THAT(scripts(), IsEmpty());
}

TEST_F(CardCommands, AModeThatCannotBeRead) {
    describe_faulty(call_fault("brd_intf_fpd_upgrade_cookie_get_upgrade_mode", 4, "text = \"torn record\""));
    expect_failure(tool({"-c", "upgrade"}), interface_failed + "torn record\n");
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdUpgdCookieGetModeFail] Failed to get FPD Upgrade Mode, error "
                                      "torn record"));
}

TEST_F(CardCommands, FpdsThatCannotBeCounted) {
    describe_faulty(call_fault("brd_group_fpd_num_fpds_get", 9));
    expect_failure(tool({"-c", "check_upgrade"}), interface_failed + "Failed to get No. of FPDs for group id 3\n");
    EXPECT_THAT(errors(),
                ElementsAre("[FPD] [ERROR] [LoadFpdsNumFpdsGetFail] Failed to get No. of FPDs for group id 3",
                            "[FPD] [ERROR] [LoadFpdsFail] Initializing FPDs failed err_msg Failed to get No. of FPDs "
                            "for group id 3"));
}

TEST_F(CardCommands, FpdsThatCannotBeListed) {
    describe_faulty(call_fault("brd_group_fpd_obj_id_list_get", 9));
    expect_failure(tool({"-c", "check_upgrade"}), interface_failed + "Failed to get FPD object ids\n");
    EXPECT_EQ(errors().front(), "[FPD] [ERROR] [LoadFpdsBrdObjGetFail] Failed to get FPD object ids");
}

TEST_F(CardCommands, APlatformThatDoesNotStart) {
    describe_faulty(call_fault("brd_fru_hw_init", 3));
    expect_failure(tool({"-c", "check_upgrade"}), context_failed + "BRD init failed rc -38\n");
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [InitLocalCardBrdIntfInitFail] BRD init failed rc -38"));
}

TEST_F(CardCommands, AnIdentityThatIsRefused) {
    describe_faulty(call_fault("brd_fru_hw_data_init", 3));
    expect_failure(tool({"-c", "check_upgrade"}), context_failed + "BRD init failed rc -38\n");
}

TEST_F(CardCommands, AnIdentityThatIsKnownAlready) {
    describe_faulty(call_fault("brd_fru_hw_data_init", 0x10000408));
    EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 1);
}

TEST_F(CardCommands, TheIdentityIsThatOfTheKeyFile) {
    for (const auto &[board_type, group_type] : {std::pair{"12560", "3"}, {"16912", "4"}, {"1", "15"}}) {
        std::filesystem::remove_all(state_);
        std::string text = card_text({.fpds = fpd(10, {plain_region("IoFpga")})});
        text.replace(text.find("0x3110"), 6, board_type);
        describe_text(text);
        EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 1);
        EXPECT_THAT(texts(of_function(calls(), "brd_fru_hw_data_init")),
                    ElementsAre(std::string("brd_fru_hw_data_init group_type=") + group_type +
                                " hw=1.2 slot=4 pid=\"SIM-TEST\" board_type=" + board_type + " -> 0"));
    }
}

TEST_F(CardCommands, AGroupThatCannotBeRead) {
    describe_faulty(call_fault("brd_local_card_group_id_get", 9));
    expect_failure(tool({"-c", "check_upgrade"}), context_failed + "Local Card BRD group get get failed 9\n");
}

TEST_F(CardCommands, AMissingKeyFile) {
    describe_faulty("");
    const Result result = shell("rm /dev/kd_bootstrap; bootup_fpd -c check_upgrade");
    expect_failure(result, context_failed + "BRD init failed rc -38\n");
    EXPECT_THAT(errors(), Contains("[PLATFORM] [ERROR] [BootstrapFileNotFound] Bootstrap File /dev/kd_bootstrap is not "
                                   "found error No such file or directory"));
    EXPECT_THAT(errors(), Contains("[BRD] [ERROR] [BoardTypeGetFail] Failed to get Card Board Type"));
}

TEST_F(CardCommands, AMissingKey) {
    describe_faulty("",
                    "bootstrap = \"\"\"\nPD_CARD_TYPE=12560\nHW_MAJOR_VERSION=1\nHW_MINOR_VERSION=2\n"
                    "PD_SLOT_NUM=4\n\"\"\"");
    expect_failure(tool({"-c", "check_upgrade"}), context_failed + "BRD init failed rc -2\n");
    EXPECT_THAT(errors(), ElementsAre("[PLATFORM] [ERROR] [FieldisNotFound] Bootstrp field MY_CARD_PID is not found",
                                      "[BRD] [ERROR] [BrdInitMyCardPIDGetFail] Failed to get my Card PID rc -2",
                                      "[FPD] [ERROR] [InitLocalCardBrdIntfInitFail] BRD init failed rc -2"));
    EXPECT_THAT(of_function(calls(), "brd_fru_hw_data_init"), IsEmpty());
}

TEST_F(CardCommands, AHardwareVersionThatIsTooLarge) {
    std::string text = card_text({.fpds = fpd(10, {plain_region("IoFpga")})});
    text.replace(text.find("[1, 2]"), 6, "[300, 2]");
    describe_text(text);
    expect_failure(tool({"-c", "check_upgrade"}),
                   context_failed + "Local Card Failed to make fpd_version for HW major 0x12c minor ox2\n");
}

TEST_F(CardCommands, ACardWithoutAStatusLed) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")}), .leds = ""});
    expect_failure(tool({"-c", "check_upgrade"}), context_failed + "Local Card BRD group get get failed 0\n");
    EXPECT_THAT(errors(), Contains("[FPD] [ERROR] [InitLocalCardGetLedBrdObjIdFail] Local Card BRD group get get "
                                   "failed 0"));
}

TEST_F(CardCommands, LedsThatCannotBeCounted) {
    describe_faulty(call_fault("brd_group_led_num_leds_get", 6));
    expect_failure(tool({"-c", "check_upgrade"}), context_failed + "Local Card BRD group get get failed 0\n");
    EXPECT_THAT(errors(), ElementsAre("[LED] [ERROR] [NumLedGetFail] Failed to get number of LEDs for group rc 6",
                                      "[FPD] [ERROR] [GetLedObjIdFail] BRD status LED Object id get failed error "
                                      "Failed to get number of LEDs for group rc 6",
                                      "[FPD] [ERROR] [InitLocalCardGetLedBrdObjIdFail] Local Card BRD group get get "
                                      "failed 0"));
}

TEST_F(CardCommands, ALedGroupThatIsNotReadyIsNoFailure) {
    describe_faulty(call_fault("brd_group_led_init", 6));
    EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 1);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(CardCommands, TheStatusLedIsFoundByTypeAndName) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")}),
              .leds =
                  "[[led]]\nid = 5\ntype = 2\nname = \"Status\"\n[[led]]\nid = 6\nname = \"Fan\"\n"
                  "[[led]]\nid = 7\nname = \"STATUS\"\nstate = 1\ncolor = 1\n[[led]]\nid = 8\nname = \"Status\"\n"});
    expect_answer(tool({"-b", "-c", "upgrade"}), 0, "Auto FPD Upgrade done\n");
    for (const CallRecord &call : of_function(calls(), "brd_led_state_and_color_set")) {
        EXPECT_THAT(call.arguments, StartsWith("group=3 obj=7 "));
    }
    EXPECT_EQ(of_function(calls(), "brd_led_state_and_color_set").size(), 2U);
}

// ---- the message queue

TEST_F(CardCommands, AMessageLimitThatIsTooLow) {
    describe_faulty("");
    const std::string reason = "Couldn't open FPD msg queue err_msg Invalid argument";
    const std::string creation = "Creating Auto FPD Upgrade msg queue failed err_msg " + reason;
    const std::string interface = "Initializing Auto FPD Upgrade msg queue failed err_msg " + reason;
    for (const char *word : {"upgrade", "check_upgrade", "list_upgrade"}) {
        expect_failure(shell(std::string("echo 10 >/proc/sys/fs/mqueue/msg_max && bootup_fpd -c ") + word),
                       interface_failed + reason + "\n");
    }
    EXPECT_THAT(errors(), Contains("[FPD] [ERROR] [FpdMQOpenFail] " + reason).Times(3));
    EXPECT_THAT(errors(), Contains("[FPD] [ERROR] [CreateFpdMqFail] " + creation).Times(3));
    EXPECT_THAT(errors(), Contains("[FPD] [ERROR] [InitMQFail] " + interface).Times(3));
}

TEST_F(CardCommands, AQueueThatCannotBeClosedFailsWhatWasAnswered) {
    describe_faulty("");
    const std::string closing = "Couldn't close FPD msg queue err_msg Bad file descriptor";
    const std::string deletion = "Deleting Auto FPD Upgrade msg queue failed err_msg " + closing;
    const std::string interface = "Deinitializing FPD msg queue failed err_msg " + closing;
    expect_answer(shell("LD_PRELOAD=" UNCLOSED_QUEUE " bootup_fpd -c check_upgrade"), failed,
                  "FPD available that need to be upgraded\n",
                  "Local Card Auto FPD Upgrade Interface Deinit failed err_msg " + closing + "\n");
    EXPECT_THAT(errors(),
                ElementsAre("[FPD] [ERROR] [MQClodeFail] " + closing, "[FPD] [ERROR] [DeleteFpdMqFail] " + deletion,
                            "[FPD] [ERROR] [DeinitFpdMQFail] " + interface));
}

TEST_F(CardCommands, ConfigurationNeedsNoMessageQueue) {
    describe_faulty("");
    expect_answer(shell("echo 10 >/proc/sys/fs/mqueue/msg_max && bootup_fpd -c get_config"), 0,
                  "Auto FPD Upgrade Config is 'ENABLED'\n");
}

TEST_F(CardCommands, TheQueueIsRemovedBehindEveryCommand) {
    describe_faulty("");
    for (const char *word : {"upgrade", "check_upgrade", "list_upgrade"}) {
        EXPECT_EQ(shell(std::string("bootup_fpd -b -c ") + word + " >/misc/scratch/out; ls /dev/mqueue").out, "");
    }
}

/// A queue that an earlier run left behind, of other attributes and with a message in it, is not used.
TEST_F(CardCommands, AStaleQueueIsReplaced) {
    describe_faulty("");
    const Result result = shell(std::string(STALE_QUEUE) +
                                " && ls /dev/mqueue && bootup_fpd -b -c upgrade && "
                                "ls /dev/mqueue");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "auto_fpd_upg_mq_localcard\nAuto FPD Upgrade done\n");
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
}

}  // namespace
