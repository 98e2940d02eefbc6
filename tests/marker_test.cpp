/// The marker file that keeps a card from being reloaded for the same upgrade again and again.

#include <filesystem>

#include "card_test.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

class Marker : public CardTest {
  protected:
    void SetUp() override {
        CardTest::SetUp();
        describe({.fpds = fpd(10, {plain_region("IoFpga"), plain_region("Bios")})});
        shell("true");  // the card's directories
    }
    std::string planned() const { return marker_line("IoFpga", "1.1.0") + marker_line("Bios", "1.1.0"); }
    bool upgraded() const { return state().region("Bios").programmed == "1.1.0"; }
};

TEST_F(Marker, IsWrittenBeforeTheReset) {
    EXPECT_EQ(tool({"-c", "upgrade"}).status, 0);
    EXPECT_EQ(read_file(marker_file()), planned());
    EXPECT_EQ(read_file(marker_file()).size(), 2U * 46);
}

TEST_F(Marker, OfTheSamePlanStopsTheRun) {
    write_file(marker_file(), planned());
    const Result result = tool({"-c", "upgrade"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\n");
    EXPECT_FALSE(upgraded());
    EXPECT_THAT(scripts(), IsEmpty());
    EXPECT_EQ(read_file(marker_file()), planned());
    EXPECT_THAT(texts(tagged("UpgMarkerCheck")),
                ElementsAre("[FPD] [INFO] [UpgMarkerCheck] Previous Marked FPDs to Upgrade\n" + planned() +
                                "\nCurren Upgrading FPDs\n" + planned(),
                            "[FPD] [INFO] [UpgMarkerCheck] Skipping Upgrade since trying to upgrade same FPDs and "
                            "Versions"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Marker, OfTheSamePlanStopsARunByHandToo) {
    write_file(marker_file(), planned());
    EXPECT_EQ(tool({"-b", "-c", "upgrade"}).out, "Auto FPD Upgrade done\n");
    EXPECT_FALSE(upgraded());
}

TEST_F(Marker, DoesNotKeepACheckFromAnswering) {
    write_file(marker_file(), planned());
    EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 1);
    EXPECT_EQ(read_file(marker_file()), planned());
}

TEST_F(Marker, OfAnotherPlanIsReplaced) {
    for (const std::string &other :
         {marker_line("Bios", "1.1.0") + marker_line("IoFpga", "1.1.0"), planned() + marker_line("More", "1.0.0"),
          marker_line("IoFpga", "1.1.0"), marker_line("IoFpga", "1.1.1") + marker_line("Bios", "1.1.0"),
          planned() + " ", planned().substr(0, planned().size() - 1), std::string()}) {
        fs::remove_all(state_);
        shell("true");
        write_file(marker_file(), other);
        EXPECT_EQ(tool({"-c", "upgrade"}, 20).status, 0);
        EXPECT_TRUE(upgraded()) << other;
        EXPECT_EQ(read_file(marker_file()), planned());
        EXPECT_THAT(errors(), IsEmpty());
    }
}

TEST_F(Marker, OfAnotherPlanIsRemovedByARunByHand) {
    write_file(marker_file(), marker_line("Bios", "1.1.0"));
    EXPECT_EQ(tool({"-b", "-c", "upgrade"}).status, 0);
    EXPECT_TRUE(upgraded());
    EXPECT_FALSE(fs::exists(marker_file()));
}

TEST_F(Marker, IsRemovedWhenNothingIsLeftToDo) {
    tool({"-b", "-c", "upgrade"});
    write_file(marker_file(), planned());
    EXPECT_EQ(tool({"-c", "upgrade"}).out, "Auto FPD Upgrade done\n");
    EXPECT_FALSE(fs::exists(marker_file()));
}

TEST_F(Marker, ThatCannotBeReadFailsTheRun) {
    fs::create_directory(marker_file());
    expect_answer(tool({"-c", "upgrade"}), 0, "", "FPD Upgrade failed\n");
    EXPECT_FALSE(upgraded());
    EXPECT_THAT(errors(),
                ElementsAre(StartsWith("[FPD] [ERROR] [UpgMarkerCheckFail] Failed to check upgrade marker, error "
                                       "Failed to read marker data, error ")));
    EXPECT_THAT(scripts(), IsEmpty());
}

TEST_F(Marker, ThatCannotBeRemovedFailsTheRun) {
    tool({"-b", "-c", "upgrade"});
    fs::create_directory(marker_file());
    expect_answer(tool({"-c", "upgrade"}), 0, "", "FPD Upgrade failed\n");
    EXPECT_THAT(errors(),
                ElementsAre("[FPD] [ERROR] [DeletePreUpgMarkerFail] Failed to remove previously cached Upgrade "
                            "Marker file, error Unable to remove Upgrade Marker file "
                            "/misc/scratch/bootup_fpd_marker.txt, error Is a directory"));
}

TEST_F(Marker, ThatCannotBeWrittenDoesNotKeepTheCardFromItsReset) {
    // A directory takes the file's place once the run has begun.
    describe({.fpds = fpd(10, {{.name = "IoFpga", .keys = "activation = 5\n" + duration(30)}})});
    std::filesystem::remove_all(state_);
    const Result result = shell(
        "bootup_fpd -c upgrade & until grep -q FpdUpgResponseStarted /var/log/fpd.log; do sleep 0.01; done;"
        "mkdir /misc/scratch/bootup_fpd_marker.txt; wait $!");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\n");
    EXPECT_THAT(errors(),
                ElementsAre("[FPD] [ERROR] [WriteUpgMarkerDataFail] Failed to write Upgrade Marker Data, error "
                            "Unable to open the Upgrade marker file /misc/scratch/bootup_fpd_marker.txt, "
                            "error Is a directory"));
    EXPECT_THAT(scripts(), Contains("/usr/sbin/grub-reboot 'KALDOR-latest'"));
    EXPECT_THAT(scripts(), Contains(HasSubstr("reset_board.sh")));
}

TEST_F(Marker, OfADiscardedPlanIsNotWritten) {
    const auto image = [](const std::string &type, const std::string &version, const std::string &file) {
        return "[[fpd.region.image]]\ntype = " + type + "\nversion = \"" + version + "\"\nfile = \"" + file +
               "\"\nsize = 100\n";
    };
    describe({.keys = "upgrade_mode = \"mfg\"",
              .fpds = fpd(10, {{.name = "Primary",
                                .keys = "activation = 5\ncapabilities = 0x1008\n" + duration(1),
                                .tables = image("1", "2.0.0", "primary-mfg.img")},
                               {.name = "Unlocker",
                                .keys = "activation = 5\ncapabilities = 0x808\n" + duration(1),
                                .tables = image("2", "3.0.0", "unlock.img")}})});
    fs::remove_all(state_);
    EXPECT_EQ(tool({"-c", "upgrade"}).status, 0);
    EXPECT_EQ(read_file(marker_file()), marker_line("Unlocker", "3.0.0"));
    EXPECT_EQ(state().region("Primary").programmed, "1.0.0");
    EXPECT_EQ(state().region("Unlocker").programmed, "3.0.0");
}

}  // namespace
