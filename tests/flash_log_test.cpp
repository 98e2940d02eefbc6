/// The event log on the card's failure-logging flash, whatever becomes of the flash.

#include <filesystem>

#include "card_test.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

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
    fs::path temporary_file() const { return state_ / "log/fpd_obfl_log.txt"; }
};

const std::vector<std::string> whole_run = {
    "FPD 'IoFpga' Start upgrading to version 1.1.0 Run version 1.0.0 Programmed version 1.0.0",
    "FPD 'IoFpga' Started to upgrade version 1.1.0",
    "FPD 'IoFpga' Upgraded to version 1.1.0",
};

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
