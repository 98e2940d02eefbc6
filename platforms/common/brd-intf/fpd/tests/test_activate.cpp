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
        fake_platform().commands = {{.prefix = prefix, .rc = 3, .output = "", .error = error, .effect = nullptr}};
    }

    void expect_none() {
        EXPECT_EQ(activate(), 0);
        EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
        EXPECT_THAT(fake_platform().calls(), IsEmpty());
        EXPECT_FALSE(std::filesystem::exists(marker_path));
        EXPECT_THAT(log_lines(), IsEmpty());
        EXPECT_STREQ(err_msg, "");
    }

    int count = 0;
};

struct ActivationKind : Activation, testing::WithParamInterface<int> {};

TEST_P(ActivationKind, DecidesOnTheReload) {
    const int kind = GetParam();
    upgraded(static_cast<std::uint8_t>(kind));
    if (kind == 1 || kind == 3 || kind == 4 || kind == 6) {
        EXPECT_EQ(activate(), 0);
        EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command, reset_all_command));
        expect_log(activate_module, "INFO", "FpdUpgActivate", "FPD Upgrade required a reload_type 2 to activate");
    } else if (kind == 5) {
        EXPECT_EQ(activate(), 0);
        EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command, reset_command));
        expect_log(activate_module, "INFO", "FpdUpgActivate", "FPD Upgrade required a reload_type 1 to activate");
    } else {
        expect_none();
    }
}

INSTANTIATE_TEST_SUITE_P(OfEveryNumber, ActivationKind, testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8, 128, 255));

TEST_F(Activation, NeedsNothingWithoutFpds) {
    expect_none();
}

TEST_F(Activation, NeedsNothingForFpdsThatAreNotDone) {
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
    upgraded(0);
    upgraded(5);
    upgraded(2);
    upgraded(3);
    upgraded(5);
    EXPECT_EQ(activate(), 0);
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command, reset_all_command));
}

TEST_F(Activation, KeepsTheLowerReloadAmongFpdsThatNeedNone) {
    upgraded(5);
    upgraded(0);
    EXPECT_EQ(activate(), 0);
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command, reset_command));
}

TEST_F(Activation, WritesTheMarkerBeforeTheCommands) {
    upgraded(1);
    std::string marker;
    fake_platform().commands = {
        {.prefix = "grub", .rc = 0, .output = "", .error = "", .effect = [&] { marker = read_file(marker_path); }}};
    EXPECT_EQ(activate(), 0);
    EXPECT_EQ(marker, "FPD: Fpd0             | Version: 2.0.0       \n");
    EXPECT_EQ(upg_marker().text, nullptr);
}

TEST_F(Activation, FlagsTheResetBetweenTheCommands) {
    upgraded(1);
    std::vector<std::size_t> flags;
    const auto look = [&flags] { flags.push_back(fake_platform().calls_of("brd_sb_attribute_flag_set").size()); };
    fake_platform().commands = {{.prefix = "", .rc = 0, .output = "", .error = "", .effect = look}};
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
    EXPECT_EQ(activate(), 0);
    expect_log(activate_module, "ERROR", "WriteUpgMarkerDataFail",
               "Failed to write Upgrade Marker Data, error Unable to open the Upgrade marker file "
               "/misc/scratch/bootup_fpd_marker.txt, error Read-only file system");
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command, reset_all_command));
    EXPECT_STREQ(err_msg, "");
}

TEST_F(Activation, DoesNotResetWithoutABootEntry) {
    upgraded(1);
    fail_command("grub-reboot", "no such entry");
    EXPECT_EQ(activate(), -38);
    EXPECT_STREQ(err_msg, "no such entry");
    expect_log(activate_module, "ERROR", "AutoFpdActivateGrubRebootSetFail",
               "Auto FPD ACtivate GRUB Reboot setting failed error no such entry");
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(boot_command));
    EXPECT_THAT(fake_platform().calls_of("brd_sb_attribute_flag_set"), IsEmpty());
}

TEST_F(Activation, FailsWhenTheResetDoes) {
    upgraded(5);
    fail_command("/usr/local/etc/reset_board.sh", "busy");
    EXPECT_EQ(activate(), -38);
    EXPECT_STREQ(err_msg, "busy");
    expect_log(activate_module, "ERROR", "AutoFpdUpgradeActivateFail", "Auto FPD Upgrade Activation failed error busy");
}

TEST_F(Activation, ShowsNoEarlierTextWhenACommandGivesNone) {
    upgraded(5);
    fail_command("/usr/local/etc/reset_board.sh", "");
    EXPECT_EQ(activate(), -38);
    EXPECT_STREQ(err_msg, "");
}

TEST_F(Activation, ShowsNoTextOfTheMarkerWhenABootEntryIsRefusedWithoutOne) {
    upgraded(5);
    interpose::fail(interpose::Call::fopen, EROFS);
    fail_command("grub-reboot", "");
    EXPECT_EQ(activate(), -38);
    EXPECT_STREQ(err_msg, "");
    expect_log(activate_module, "ERROR", "AutoFpdActivateGrubRebootSetFail",
               "Auto FPD ACtivate GRUB Reboot setting failed error ");
}

}  // namespace
