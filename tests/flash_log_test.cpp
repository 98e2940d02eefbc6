/// The event log on the card's failure-logging flash, whatever becomes of the flash.

#include <filesystem>

#include "card_test.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string start_command = "timeout 5m /usr/sbin/check-flash start obfl";
const std::string stop_command = "timeout 30s /usr/sbin/check-flash stop obfl";

class FlashLog : public CardTest {
  protected:
    void describe_flash(const std::string &keys, double seconds = 2) {
        describe(
            {.tables = "[obfl]\n" + keys + "\n", .fpds = fpd(10, {{.name = "IoFpga", .keys = duration(seconds)}})});
    }
    void upgrade() {
        const Result result = tool({"-b", "-c", "upgrade"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "Auto FPD Upgrade done\n");
    }
    std::vector<std::string> flash_commands() const {
        std::vector<std::string> commands;
        for (const std::string &line : scripts()) {
            if (line.starts_with("/usr/sbin/check-flash")) commands.push_back(line);
        }
        return commands;
    }
    fs::path temporary_file() const { return state_ / "log/fpd_obfl_log.txt"; }
};

const std::vector<std::string> whole_run = {
    "FPD 'IoFpga' Start upgrading to version 1.1.0 Run version 1.0.0 Programmed version 1.0.0",
    "FPD 'IoFpga' Started to upgrade version 1.1.0",
    "FPD 'IoFpga' Upgraded to version 1.1.0",
};

TEST_F(FlashLog, AFlashThatIsMountedAlready) {
    describe_flash("mounted = true");
    upgrade();
    EXPECT_EQ(flash_log(), whole_run);
    EXPECT_FALSE(fs::exists(temporary_file()));
    EXPECT_THAT(flash_commands(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(tagged("ObflMountPointExist"), testing::SizeIs(1));
}

TEST_F(FlashLog, AFlashThatTheRunMounts) {
    describe_flash("mount_time = 0.5", 10);
    upgrade();
    EXPECT_EQ(flash_log(), whole_run);
    EXPECT_FALSE(fs::exists(temporary_file()));
    EXPECT_THAT(flash_commands(),
                ElementsAre("/usr/sbin/check-flash 'start' 'obfl'", "/usr/sbin/check-flash 'stop' 'obfl'"));
    EXPECT_THAT(texts(of_function(calls(), "exec_shell_command")),
                AllOf(Contains("exec_shell_command command=\"" + start_command + "\" -> 0"),
                      Contains("exec_shell_command command=\"" + stop_command + "\" -> 0")));
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(messages(tagged("ObflMountThreadHdlr")), ElementsAre("OBFL Mount Thread Hanlder"));
    EXPECT_THAT(messages(tagged("ObflOperCmd")),
                ElementsAre("Executed OBFL Flashoperation command '" + start_command + "' output ''",
                            "Executed OBFL Flashoperation command '" + stop_command + "' output ''"));
}

TEST_F(FlashLog, AFlashThatIsSlowerThanTheRun) {
    describe_flash("mount_time = 25.0");
    upgrade();
    EXPECT_EQ(flash_log(), whole_run);
    EXPECT_FALSE(fs::exists(temporary_file()));
    EXPECT_THAT(flash_commands(),
                ElementsAre("/usr/sbin/check-flash 'start' 'obfl'", "/usr/sbin/check-flash 'stop' 'obfl'"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FlashLog, AFlashThatCannotBeMounted) {
    describe_flash("mount_fails = true\nmount_time = 0.5");
    upgrade();
    EXPECT_EQ(temporary_flash_log(), whole_run);
    EXPECT_FALSE(fs::exists(flash_file(1)));
    EXPECT_THAT(flash_commands(), ElementsAre("/usr/sbin/check-flash 'start' 'obfl'"));
    EXPECT_THAT(errors(),
                ElementsAre(StartsWith("[FPD] [ERROR] [ObflOperCmdFail] command '" + start_command + "' exited with 1"),
                            StartsWith("[FPD] [ERROR] [ObflMountThreadHdlrFlashOperFail] Failed to mount OBFL "
                                       "Flash, error '")));
}

TEST_F(FlashLog, AFlashThatCannotBeUnmounted) {
    describe_flash("unmount_fails = true\nmount_time = 0.5");
    upgrade();
    EXPECT_EQ(flash_log(), whole_run);
    EXPECT_THAT(errors(),
                ElementsAre(StartsWith("[FPD] [ERROR] [ObflOperCmdFail] command '" + stop_command + "' exited with 1"),
                            StartsWith("[FPD] [ERROR] [ObflFlushFlashOperFail] Failed to unmount OBFL Flash, "
                                       "error '")));
}

TEST_F(FlashLog, TheFileOfTheHighestNumberIsContinued) {
    describe_flash("mounted = true");
    shell("true");
    for (const int number : {2, 10, 9}) write_file(flash_file(number), "");
    write_file(state_ / "flash/fpd_local_log_99.txt.old", "");
    write_file(state_ / "flash/fpd_local_log_.txt", "");
    write_file(flash_file(10), "2024-03-05 14:02:11 UTC [Bootup FPD] before\n");
    upgrade();
    EXPECT_THAT(flash_log(10), ElementsAre("before", whole_run[0], whole_run[1], whole_run[2]));
    EXPECT_EQ(read_file(flash_file(2)), "");
    EXPECT_EQ(read_file(flash_file(9)), "");
    EXPECT_FALSE(fs::exists(flash_file(1)));
    EXPECT_FALSE(fs::exists(flash_file(11)));
}

TEST_F(FlashLog, AFileOfNumberZeroIsLeftAlone) {
    describe_flash("mounted = true");
    shell("true");
    write_file(flash_file(0), "");
    upgrade();
    EXPECT_EQ(read_file(flash_file(0)), "");
    EXPECT_EQ(flash_log(1), whole_run);
}

TEST_F(FlashLog, WhatAnEarlierRunLeftComesFirst) {
    describe_flash("mounted = true");
    shell("true");
    write_file(temporary_file(), "2024-03-05 14:02:11 UTC [Bootup FPD] left behind\n");
    upgrade();
    EXPECT_THAT(flash_log(), ElementsAre("left behind", whole_run[0], whole_run[1], whole_run[2]));
    EXPECT_FALSE(fs::exists(temporary_file()));
}

TEST_F(FlashLog, AFlashThatCannotBeWritten) {
    describe_flash("mounted = true");
    shell("true");
    fs::create_directory(flash_file(1));
    write_file(temporary_file(), "2024-03-05 14:02:11 UTC [Bootup FPD] left behind\n");
    upgrade();
    EXPECT_THAT(temporary_flash_log(), ElementsAre("left behind", whole_run[0], whole_run[1], whole_run[2]));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [CopyTempObflLogIntoLatestFlashFileFail] Failed to copy temporary "
                                      "OBFL log into latest flash file, error 'open file, error 'Is a directory''"));
}

TEST_F(FlashLog, AnEventLineThatHasNoFile) {
    describe_flash("mounted = true");
    shell("true");
    fs::create_directory(flash_file(1));  // nothing to move, so it is met when the first line is written
    upgrade();
    EXPECT_THAT(errors(),
                Each("[FPD] [ERROR] [ObflLog] Failed to open FPD OBFL log file /mnt/obfl/fpd_local_log_1.txt, "
                     "error Is a directory"));
    EXPECT_EQ(errors().size(), 3U);
}

TEST_F(FlashLog, NothingToUpgradeLeavesTheFlashAlone) {
    describe({.fpds = fpd(10, {{.name = "IoFpga", .running = "1.1.0"}})});
    upgrade();
    EXPECT_THAT(scripts(), IsEmpty());
    EXPECT_FALSE(fs::exists(temporary_file()));
}

}  // namespace
