/// The marker file that keeps a card from being reloaded for the same upgrade again and again.

#include <filesystem>

#include "card_test.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::ElementsAre;
using testing::IsEmpty;

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

TEST_F(Marker, ThatCannotBeRemovedFailsTheRun) {
    tool({"-b", "-c", "upgrade"});
    fs::create_directory(marker_file());
    expect_answer(tool({"-c", "upgrade"}), 0, "", "FPD Upgrade failed\n");
    EXPECT_THAT(errors(),
                ElementsAre("[FPD] [ERROR] [DeletePreUpgMarkerFail] Failed to remove previously cached Upgrade "
                            "Marker file, error Unable to remove Upgrade Marker file "
                            "/misc/scratch/bootup_fpd_marker.txt, error Is a directory"));
}

}  // namespace
