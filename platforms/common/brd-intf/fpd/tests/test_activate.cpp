#include "brd_intf_auto_fpd_upgrade_activate.h"

#include <cerrno>

#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "interpose.h"
#include "run_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *boot_command = "grub-reboot KALDOR-latest";
constexpr const char *reset_all_command = "/usr/local/etc/reset_board.sh -a -r \"Auto FPD Upgrade activation\" -b 36";
constexpr const char *reset_command = "/usr/local/etc/reset_board.sh  -r \"Auto FPD Upgrade activation\" -b 36";

struct Activation : RunTest {
    int activate() {
        clear_log();
        fake_platform().forget_calls();
        return auto_fpd_upgrade_activate(card, err_msg, sizeof err_msg);
    }

    /// A discovered FPD with that kind of activation, in the marker.
    Fpd &upgraded(std::uint8_t kind, FpdState state = FpdState::upgrade_done) {
        Fpd &fpd = discover("Fpd" + std::to_string(count++), state);
        fpd.info.activation_kind = kind;
        EXPECT_EQ(upg_marker_add_fpd(fpd, err_msg, sizeof err_msg), 0);
        return fpd;
    }

    /// Makes the command fail so.
    static void fail_command(const std::string &prefix, const std::string &error) {
        fake_platform().commands = {{.prefix = prefix, .rc = 3, .error = error}};
    }

    void expect_none() {
        expect_unlogged(activate(), 0);
        EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
        EXPECT_THAT(fake_platform().calls(), IsEmpty());
        EXPECT_FALSE(std::filesystem::exists(marker_path));
    }
    void expect_reload(const char *command) {
        EXPECT_EQ(activate(), 0);
        EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command, command));
        expect_log(activate_module, "INFO", "FpdUpgActivate",
                   std::string("FPD Upgrade required a reload_type ") + (command == reset_command ? "1" : "2") +
                       " to activate");
    }

    int count = 0;
};

struct ActivationKind : Activation, testing::WithParamInterface<int> {};

TEST_P(ActivationKind, DecidesOnTheReload) {
    const int kind = GetParam();
    upgraded(static_cast<std::uint8_t>(kind));
    if (kind == 1 || kind == 3 || kind == 4 || kind == 6)
        expect_reload(reset_all_command);
    else if (kind == 5)
        expect_reload(reset_command);
    else
        expect_none();
}

INSTANTIATE_TEST_SUITE_P(OfEveryNumber, ActivationKind, testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8, 128, 255));

TEST_F(Activation, NeedsNothingWithoutFpdsAndForThoseThatAreNotDone) {
    expect_none();
    for (const FpdState state : {FpdState::upgrade_failed, FpdState::upgrade_progressing, FpdState::cant_be_upgraded,
                                 FpdState::upgrade_not_needed})
        upgraded(1, state);
    expect_none();
}

TEST_F(Activation, LooksOnlyAtWhatLeftTheSequenceQueues) {
    Fpd &fpd = plan("IoFpga");
    fpd.info.activation_kind = 1;
    transition(fpd, FpdState::upgrade_done);
    expect_none();
}

TEST_F(Activation, TakesTheHighestReload) {
    for (const int kind : {5, 0}) upgraded(static_cast<std::uint8_t>(kind));
    expect_reload(reset_command);
    for (const int kind : {2, 3, 5}) upgraded(static_cast<std::uint8_t>(kind));
    expect_reload(reset_all_command);
}

TEST_F(Activation, WritesTheMarkerBeforeTheCommands) {
    upgraded(1);
    std::string marker;
    fake_platform().commands = {{.prefix = "grub", .effect = [&] { marker = read_file(marker_path); }}};
    EXPECT_EQ(activate(), 0);
    EXPECT_EQ(marker, "FPD: Fpd0             | Version: 2.0.0       \n");
    EXPECT_EQ(upg_marker().text, nullptr);
}

TEST_F(Activation, FlagsTheResetBetweenTheCommands) {
    upgraded(1);
    std::vector<std::size_t> flags;
    const auto look = [&flags] { flags.push_back(fake_platform().calls_of("brd_sb_attribute_flag_set").size()); };
    fake_platform().commands = {{.prefix = "", .effect = look}};
    fake_platform().brd_sb_attribute_flag_set = [](int) { return 9; };
    EXPECT_EQ(activate(), 0);
    EXPECT_THAT(flags, ElementsAre(0U, 1U));
    EXPECT_THAT(fake_platform().calls_of("brd_sb_attribute_flag_set"),
                ElementsAre(FakeCall{"brd_sb_attribute_flag_set", "2"}));
}

TEST_F(Activation, HasRoomFor256BytesOfEachCommandsOutput) {
    upgraded(1);
    EXPECT_EQ(activate(), 0);
    const FakeCommandBuffers buffers{256, sizeof err_msg, true};
    EXPECT_THAT(fake_platform().command_buffers(), ElementsAre(buffers, buffers));
}

TEST_F(Activation, GoesOnWithoutAMarker) {
    upgraded(1);
    interpose::fail(interpose::Call::fopen, EROFS);
    expect_reload(reset_all_command);
    expect_log(activate_module, "ERROR", "WriteUpgMarkerDataFail",
               "Failed to write Upgrade Marker Data, error Unable to open the Upgrade marker file "
               "/misc/scratch/bootup_fpd_marker.txt, error Read-only file system");
    EXPECT_STREQ(err_msg, "");
}

TEST_F(Activation, DoesNotResetWithoutABootEntryAndShowsNoTextOfTheMarker) {
    upgraded(1);
    for (const char *error : {"no such entry", ""}) {
        interpose::fail(interpose::Call::fopen, EROFS);
        fail_command("grub-reboot", error);
        expect_result(activate(), -38, error);
        expect_log(activate_module, "ERROR", "AutoFpdActivateGrubRebootSetFail",
                   std::string("Auto FPD ACtivate GRUB Reboot setting failed error ") + error);
        EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command));
        EXPECT_THAT(fake_platform().calls_of("brd_sb_attribute_flag_set"), IsEmpty());
    }
}

TEST_F(Activation, FailsWhenTheResetDoesAndShowsNoEarlierText) {
    upgraded(5);
    for (const char *error : {"busy", ""}) {
        fail_command("/usr/local/etc/reset_board.sh", error);
        expect_result(activate(), -38, error);
        expect_log(activate_module, "ERROR", "AutoFpdUpgradeActivateFail",
                   std::string("Auto FPD Upgrade Activation failed error ") + error);
    }
}

}  // namespace
