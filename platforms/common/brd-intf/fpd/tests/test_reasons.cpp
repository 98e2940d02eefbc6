/// What a closed library says when it refuses: nothing, or more than there is room for, without an end.

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>

#include "brd_intf_auto_fpd_obfl.h"
#include "brd_intf_auto_fpd_upgrade_activate.h"
#include "brd_intf_auto_fpd_upgrade_config.h"
#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "brd_intf_events_fpd.h"
#include "fake_platform.h"
#include "interpose.h"
#include "run_support.h"

namespace {

constexpr std::size_t buffer_size = 256;
constexpr Module config_module{"FPD", "brd_intf_auto_fpd_upgrade_config"};
constexpr Module events_module{"EVENTS", "brd_intf_events_fpd"};

struct Refusal {
    const char *name;
    void (*refuse)(FakePlatform &fake, const std::string &reason);
    void (*ask)(RunTest &run);
    Module module;
    const char *level;
    const char *tag;
    std::string text;      // in front of the reason
    std::string behind{};  // and behind it
};
void PrintTo(const Refusal &refusal, std::ostream *out) {
    *out << refusal.name;
}

/// Fills what it has a text for, and gives EIO.
auto refusing(const std::string &reason) {
    return [reason](auto &&...arguments) {
        const auto give = [&](char *err_msg, std::size_t err_len) {
            EXPECT_EQ(err_len, buffer_size);
            reason.copy(err_msg, err_len);
            return EIO;
        };
        const auto all = std::forward_as_tuple(arguments...);
        constexpr std::size_t count = sizeof...(arguments);
        return give(std::get<count - 2>(all), std::get<count - 1>(all));
    };
}

void refuse_command(FakePlatform &fake, const char *prefix, const std::string &reason) {
    fake.commands.push_back({.prefix = prefix, .rc = EIO, .output = "", .error = reason, .effect = nullptr});
}

void load(RunTest &run) {
    fake_platform().fpds = {make_fpd(1, {"IoFpga"})};
    load_fpds(RunLevel::boot, UpgradeStage::regular, run.card, run.err_msg, sizeof run.err_msg);
}

void activate(RunTest &run) {
    Fpd &fpd = run.discover("IoFpga", FpdState::upgrade_done);
    fpd.info.activation_kind = 5;
    upg_marker_add_fpd(fpd, run.err_msg, sizeof run.err_msg);
    auto_fpd_upgrade_activate(run.card, run.err_msg, sizeof run.err_msg);
}

/// A run whose only FPD is upgraded by the first report that its worker can send.
void upgrade(RunTest &run) {
    interpose::hold_clock({1000, 0});
    Fpd &fpd = run.plan("IoFpga");
    upg_marker_add_fpd(fpd, run.err_msg, sizeof run.err_msg);
    interpose::on_sleep([&](std::uint64_t microseconds) {
        eventually([&] { return !fpd.worker || has_ended(*fpd.worker); });
        interpose::advance_clock(static_cast<std::int64_t>(microseconds));
    });
    run_fpd_upgrade(run.card, RunLevel::backend);
}

const Refusal refusals[] = {
    {"Configuration",
     [](FakePlatform &fake, const std::string &reason) { fake.cookie_get_auto_upgrade_config = refusing(reason); },
     [](RunTest &run) {
         int enabled = 0;
         get_auto_fpd_upgrade_config(enabled, run.err_msg, sizeof run.err_msg);
     },
     config_module, "ERROR", "BrdIntfFpdUpgCfg", "BRD interface auto FPD upgrade config get failed err_msg "},
    {"Mode", [](FakePlatform &fake, const std::string &reason) { fake.cookie_get_upgrade_mode = refusing(reason); },
     [](RunTest &run) { plan_upgrade(RunLevel::boot, run.card, run.err_msg, sizeof run.err_msg); }, init_module,
     "ERROR", "FpdUpgdCookieGetModeFail", "Failed to get FPD Upgrade Mode, error "},
    {"Information", [](FakePlatform &fake, const std::string &reason) { fake.brd_fpd_info_get = refusing(reason); },
     load, init_module, "ERROR", "FpdInfoGetBrdFail", "Failed to get FPD info, error "},
    {"InformationOfAnUpgradedFpd",
     [](FakePlatform &fake, const std::string &reason) { fake.brd_fpd_info_get = refusing(reason); }, upgrade,
     init_module, "ERROR", "FpdInfoGetBrdFail", "Failed to get FPD info, error "},
    {"Description",
     [](FakePlatform &fake, const std::string &reason) { fake.check_and_get_upgrade_image = refusing(reason); }, load,
     init_module, "ERROR", "InitFpdDescFail", "Does not have a Firmware packaged for FPD IoFpga err_msg "},
    {"Checksum", [](FakePlatform &fake, const std::string &reason) { fake.image_md5_validate = refusing(reason); },
     load, init_module, "ERROR", "InitFpdMd5SumFailed", "md5 checksum validation failed, "},
    {"Upgrade", [](FakePlatform &fake, const std::string &reason) { fake.brd_fpd_upgrade = refusing(reason); },
     [](RunTest &run) {
         Fpd &fpd = run.plan("IoFpga");
         start_fpd_upgrade_worker(run.card, fpd, run.err_msg, sizeof run.err_msg);
         EXPECT_TRUE(eventually([&] { return has_ended(*fpd.worker); }));
     },
     worker_module, "ERROR", "FpdUpgHdlUpgradeFail", "FPD IoFpga upgrade failed err_msg "},
    {"Event",
     [](FakePlatform &fake, const std::string &reason) { refuse_command(fake, "/usr/local/etc/send", reason); },
     [](RunTest &run) {
         send_auto_fpd_upgrade_event(AUTO_FPD_UPGRADE_EVENT_STARTED, "x", run.err_msg, sizeof run.err_msg);
     },
     events_module, "ERROR", "AutoFpdUpgradeStartedEvent", "Sending Auto FPD Started Event failed error "},
    {"Watchdog",
     [](FakePlatform &fake, const std::string &reason) { refuse_command(fake, "/usr/local/etc/punch", reason); },
     upgrade, handler_module, "ERROR", "AutoFpdUpgradeProgressWDPunchFail", "Punching PD watchdog failed error "},
    {"BootLoader", [](FakePlatform &fake, const std::string &reason) { refuse_command(fake, "grub-reboot", reason); },
     activate, activate_module, "ERROR", "AutoFpdActivateGrubRebootSetFail",
     "Auto FPD ACtivate GRUB Reboot setting failed error "},
    {"Reset",
     [](FakePlatform &fake, const std::string &reason) { refuse_command(fake, "/usr/local/etc/reset", reason); },
     activate, activate_module, "ERROR", "AutoFpdUpgradeActivateFail", "Auto FPD Upgrade Activation failed error "},
    {"Flash", [](FakePlatform &fake, const std::string &reason) { refuse_command(fake, "timeout 5m", reason); },
     [](RunTest &run) { obfl_flash_operation(1, run.err_msg, sizeof run.err_msg); }, obfl_module, "ERROR",
     "ObflOperCmdFail", ""},
    {"MountPoint",
     [](FakePlatform &fake, const std::string &reason) {
         fake.commands.clear();
         refuse_command(fake, "mountpoint", reason);
     },
     [](RunTest &run) { obfl_is_mounted(run.err_msg, sizeof run.err_msg); }, obfl_module, "INFO",
     "ObflMountPointNotExist", "OBFL Flash mountpoint '/mnt/obfl' doesn't exist, '", "'"},
};

struct EachRefusal : RunTest, testing::WithParamInterface<Refusal> {
    /// The message of the first line of that tag, when the library refuses with the reason.
    std::string told(const std::string &reason) {
        GetParam().refuse(fake_platform(), reason);
        clear_log();
        GetParam().ask(*this);
        const std::vector<LogLine> lines = log_lines(GetParam().tag);
        if (lines.empty()) return "nothing";
        EXPECT_EQ(lines[0].component, GetParam().module.component);
        EXPECT_EQ(lines[0].file, GetParam().module.file);
        EXPECT_EQ(lines[0].level, GetParam().level);
        return lines[0].message;
    }
};

TEST_P(EachRefusal, WithoutAReasonIsGivenNoneOfAnEarlierCall) {
    EXPECT_EQ(told(""), GetParam().text + GetParam().behind);
}

TEST_P(EachRefusal, WithoutAReasonIsGivenNoneOfACallThatWentWell) {
    fake_platform().chatter = "all is well";
    EXPECT_EQ(told(""), GetParam().text + GetParam().behind);
}

TEST_P(EachRefusal, WithAReasonWithoutAnEndIsEndedWhereItsBufferEnds) {
    EXPECT_EQ(told(std::string(buffer_size, 'x')),
              GetParam().text + std::string(buffer_size - 1, 'x') + GetParam().behind);
}

INSTANTIATE_TEST_SUITE_P(All, EachRefusal, testing::ValuesIn(refusals),
                         [](const auto &instance) { return std::string(instance.param.name); });

/// What a command says when all is well, likewise.
struct Chatter : RunTest {
    void chatty(const char *prefix) {
        fake_platform().commands = {
            {.prefix = prefix, .rc = 0, .output = std::string(buffer_size, 'x'), .error = "", .effect = nullptr}};
        clear_log();
    }
    const std::string output = std::string(buffer_size - 1, 'x');
};

TEST_F(Chatter, OfTheWatchdogIsEndedWhereItsBufferEnds) {
    chatty("/usr/local/etc/punch");
    upgrade(*this);
    expect_log(handler_module, "DEBUG", "AutoFpdUpgradeProgressWDPunch", "Punching PD watchdog: " + output);
}

TEST_F(Chatter, OfTheFlashIsEndedWhereItsBufferEnds) {
    chatty("timeout 5m");
    EXPECT_EQ(obfl_flash_operation(1, err_msg, sizeof err_msg), 0);
    expect_log(
        obfl_module, "DEBUG", "ObflOperCmd",
        "Executed OBFL Flashoperation command 'timeout 5m /usr/sbin/check-flash start obfl' output '" + output + "'");
}

TEST_F(Chatter, OfTheMountPointIsEndedWhereItsBufferEnds) {
    chatty("mountpoint");
    EXPECT_TRUE(obfl_is_mounted(err_msg, sizeof err_msg));
    expect_log(obfl_module, "INFO", "ObflMountPointExist",
               "OBFL Flash mountpoint '/mnt/obfl' exist, output '" + output + "'");
}

}  // namespace
