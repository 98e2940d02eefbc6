/// From the first power-on until the card is up, over as many reloads as its new firmware asks for.

#include <filesystem>

#include "lives.h"

using namespace card_tests;

namespace {

const std::string mounted_flash = "[obfl]\nmounted = true\n";

/// What a region's new firmware needs, and whether it is still there after the next reload.
struct Firmware {
    int activation = 5;
    bool sticks = true;
};

struct Row {
    std::string name;
    Life life;
    std::vector<Firmware> firmware;  ///< of each of its regions
    std::string tables = mounted_flash;
    std::vector<int> power_ons = {};  ///< the last boot of each; empty: one power-on, until the last boot of the life
    std::string first_marker = {};    ///< lies there already
    std::vector<int> first_flash_files = {};
    bool by_hand_first = false;  ///< a back-end run on the card comes first
};

void PrintTo(const Row &row, std::ostream *stream) {
    *stream << row.name;
}

class Reloads : public LifeTest, public testing::WithParamInterface<Row> {
  protected:
    void describe_row(const Row &row) {
        std::vector<Region> regions;
        for (std::size_t i = 0; i < row.life.fates.size(); ++i) {
            const Firmware &firmware = row.firmware.at(i);
            const Fate &fate = row.life.fates[i];
            const Region region = {.name = fate.name,
                                   .keys = "activation = " + std::to_string(firmware.activation) + "\n" + duration(0.5),
                                   .tables = firmware.sticks ? "" : region_fault("does_not_stick")};
            regions.push_back(with_attempts(region, fate.attempts));
        }
        describe({.tables = row.tables, .fpds = fpd(10, regions)});
    }
    /// What the card has before it is switched on.
    void prepare(const Row &row) {
        if (row.first_marker.empty() && row.first_flash_files.empty()) return;
        shell("true");
        write_file(marker_file(), row.first_marker);
        for (const int number : row.first_flash_files) write_file(flash_file(number), "");
    }
};

TEST_P(Reloads, LeaveNothingUndoneAndNothingBehind) {
    const Row &row = GetParam();
    describe_row(row);
    prepare(row);
    if (row.by_hand_first) upgrade({"-b"});
    int first = 1;
    for (const int last : row.power_ons.empty() ? std::vector{row.life.boots} : row.power_ons) {
        power_on(first, last);
        first = last + 1;
    }
    expect_life(row.life);
}

/// A region that needs nothing any more when the card is up.
Fate settled(const std::string &name, const std::string &attempts = "D") {
    return {.name = name, .attempts = attempts, .state = fate::current, .queue = 0};
}

/// A region whose old firmware is back, and whose marker keeps it from one more attempt.
Fate stopped(const std::string &name, const std::string &attempts) {
    return {.name = name, .attempts = attempts, .state = fate::planned, .versions = old, .queue = 0};
}

Fate broken(const std::string &name, const std::string &attempts) {
    return {.name = name, .attempts = attempts, .state = fate::failed, .versions = old, .queue = 0};
}

std::string marker_of(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) text += marker_line(name, "1.1.0");
    return text;
}

const std::string grub_refusal =
    "[FPD] [ERROR] [AutoFpdActivateGrubRebootSetFail] Auto FPD ACtivate GRUB Reboot setting failed error command "
    "'grub-reboot KALDOR-latest' exited with 1: ";
const std::string reset_refusal =
    "[FPD] [ERROR] [AutoFpdUpgradeActivateFail] Auto FPD Upgrade Activation failed error command "
    "'/usr/local/etc/reset_board.sh  -r \"Auto FPD Upgrade activation\" -b 36' exited with 2: ";
const std::string request_failure =
    "[FPD] [ERROR] [FpdUpgActivationRequestFailed] Auto FPD Upgrade Activation request failed command ";

const std::vector<Row> activations = {
    {.name = "APlainResetForKindFive",
     .life = {.fates = {settled("A"), settled("B")}, .runs = {RunEnd::Reset}, .boots = 2},
     .firmware = {{5}, {0}}},
    {.name = "TheBigResetBehindAPlainOne",
     .life = {.fates = {settled("A"), settled("B")}, .runs = {RunEnd::BigReset}, .boots = 2},
     .firmware = {{5}, {3}}},
    {.name = "TheBigResetBeforeAPlainOne",
     .life = {.fates = {settled("A"), settled("B"), settled("C")}, .runs = {RunEnd::BigReset}, .boots = 2},
     .firmware = {{1}, {5}, {2}}},
    {.name = "NoReloadForOtherKinds",
     .life = {.fates = {{.name = "A", .attempts = "D", .queue = 0},
                        {.name = "B", .attempts = "FD", .queue = 0},
                        {.name = "C", .attempts = "D", .queue = 0}},
              .runs = {RunEnd::NoReset}},
     .firmware = {{0}, {2}, {7}}},
    {.name = "OneReloadForARetry",
     .life = {.fates = {settled("A", "GD"), settled("B", "FD")}, .runs = {RunEnd::BigReset}, .boots = 2},
     .firmware = {{6}, {4}}},
    {.name = "NoneForABackendRunSoThatTheNextPowerOnActivates",
     .life = {.fates = {settled("A"), settled("B", "HD")}, .runs = {RunEnd::NoReset}, .boots = 2},
     .firmware = {{5}, {3}},
     .power_ons = {1, 2},
     .by_hand_first = true},
};

const std::vector<Row> failures = {
    {.name = "AFailureIsTriedAgainBehindTheReloadOfItsNeighbour",
     .life = {.fates = {settled("A"), broken("B", "FF|FF")}, .runs = {RunEnd::Reset, RunEnd::NoReset}, .boots = 2},
     .firmware = {{5}, {1}}},
    {.name = "AFailureAloneAsksForNoReload",
     .life = {.fates = {broken("A", "FG")}, .runs = {RunEnd::NoReset}},
     .firmware = {{1}}},
    {.name = "AFailureIsTriedAgainAtEveryPowerOn",
     .life = {.fates = {broken("A", "HF|HF")}, .runs = {RunEnd::NoReset, RunEnd::NoReset}, .boots = 2},
     .firmware = {{5}},
     .power_ons = {1, 2}},
};

const std::vector<Row> markers = {
    {.name = "FirmwareThatDoesNotStickIsNotTriedAgain",
     .life = {.fates = {stopped("A", "D")}, .runs = {RunEnd::Reset}, .marker = marker_of({"A"}), .boots = 2},
     .firmware = {{5, false}}},
    {.name = "TwoThatDoNotStickStopTheSecondBoot",
     .life = {.fates = {stopped("A", "FD"), stopped("B", "D")},
              .runs = {RunEnd::BigReset},
              .marker = marker_of({"A", "B"}),
              .boots = 2},
     .firmware = {{5, false}, {3, false}}},
    {.name = "OneThatSticksPutsTheStopOffByABoot",
     .life = {.fates = {settled("A"), stopped("B", "D|D")},
              .runs = {RunEnd::BigReset, RunEnd::Reset},
              .marker = marker_of({"B"}),
              .boots = 3},
     .firmware = {{3}, {5, false}}},
    {.name = "AFailureBesideFirmwareThatDoesNotStickIsStoppedWithIt",
     .life = {.fates = {stopped("A", "D"), stopped("B", "FF")},
              .runs = {RunEnd::Reset},
              .marker = marker_of({"A", "B"}),
              .boots = 2},
     .firmware = {{5, false}, {5}}},
    {.name = "TheStopLastsOverPowerOns",
     .life = {.fates = {stopped("A", "D")}, .runs = {RunEnd::Reset}, .marker = marker_of({"A"}), .boots = 3},
     .firmware = {{5, false}},
     .power_ons = {2, 3}},
    {.name = "WithoutAReloadNothingIsStopped",
     .life = {.fates = {{.name = "A", .attempts = "D|D", .queue = 0}},
              .runs = {RunEnd::NoReset, RunEnd::NoReset},
              .boots = 2},
     .firmware = {{0, false}},
     .power_ons = {1, 2}},
    {.name = "AMarkerOfThisPlanStopsTheFirstBoot",
     .life =
         {.fates = {stopped("A", ""), stopped("B", "")}, .runs = {}, .marker = marker_of({"A", "B"}), .flash_file = 0},
     .firmware = {{5}, {5}},
     .first_marker = marker_of({"A", "B"})},
    {.name = "AMarkerOfFewerFpdsIsRemovedByARunWithoutReload",
     .life = {.fates = {{.name = "A", .attempts = "D", .queue = 0}, {.name = "B", .attempts = "D", .queue = 0}},
              .runs = {RunEnd::NoReset}},
     .firmware = {{0}, {0}},
     .first_marker = marker_of({"A"})},
};

/// Cases 7 and 8, and what the next power-on makes of them.
const std::vector<Row> refusals = {
    {.name = "ABootLoaderThatRefusesLeavesItToTheNextPowerOn",
     .life = {.fates = {settled("A")},
              .runs = {RunEnd::GrubRefused},
              .errors = {grub_refusal, request_failure + "'grub-reboot KALDOR-latest' exited with 1: "},
              .boots = 2},
     .firmware = {{5}},
     .tables = mounted_flash + "[scripts]\ngrub_reboot = 1\n",
     .power_ons = {1, 2}},
    {.name = "AResetThatIsRefusedLeavesItToTheNextPowerOn",
     .life = {.fates = {settled("A")},
              .runs = {RunEnd::Reset},
              .errors = {reset_refusal, request_failure +
                                            "'/usr/local/etc/reset_board.sh  -r \"Auto FPD Upgrade activation\" -b "
                                            "36' exited with 2: "},
              .boots = 2},
     .firmware = {{5}},
     .tables = mounted_flash + "[scripts]\nreset = 2\n",
     .power_ons = {1, 2}},
    {.name = "AResetThatIsRefusedKeepsTheMarkerUntilThen",
     .life = {.fates = {{.name = "A", .attempts = "D", .versions = programmed, .queue = 0}},
              .runs = {RunEnd::Reset},
              .errors = {reset_refusal, request_failure +
                                            "'/usr/local/etc/reset_board.sh  -r \"Auto FPD Upgrade activation\" -b "
                                            "36' exited with 2: "},
              .marker = marker_of({"A"})},
     .firmware = {{5}},
     .tables = mounted_flash + "[scripts]\nreset = 2\n"},
};

const std::string mount_command =
    "command 'timeout 5m /usr/sbin/check-flash start obfl' exited with 1: check-flash: "
    "cannot start obfl";
const std::string unmount_command =
    "command 'timeout 30s /usr/sbin/check-flash stop obfl' exited with 1: check-flash: "
    "cannot stop obfl";

const std::vector<Row> flashes = {
    {.name = "AFlashThatEachRunMountsAndUnmounts",
     .life = {.fates = {settled("A", "FD"), broken("B", "FF|FF")},
              .runs = {RunEnd::Reset, RunEnd::NoReset},
              .boots = 2,
              .flash_commands = {"start", "stop", "start", "stop"}},
     .firmware = {{5}, {5}},
     .tables = "[obfl]\nmount_time = 0.2\n"},
    {.name = "AFlashThatIsSlowerThanItsRun",
     .life = {.fates = {settled("A", "FD")}, .runs = {RunEnd::Reset}, .boots = 2, .flash_commands = {"start", "stop"}},
     .firmware = {{5}},
     .tables = "[obfl]\nmount_time = 10.0\n"},
    {.name = "AFlashThatIsNeverMounted",
     .life = {.fates = {settled("A"), broken("B", "FF|FF")},
              .runs = {RunEnd::Reset, RunEnd::NoReset},
              .errors = {"[FPD] [ERROR] [ObflOperCmdFail] " + mount_command,
                         "[FPD] [ERROR] [ObflMountThreadHdlrFlashOperFail] Failed to mount OBFL Flash, error '" +
                             mount_command + "'",
                         "[FPD] [ERROR] [ObflOperCmdFail] " + mount_command,
                         "[FPD] [ERROR] [ObflMountThreadHdlrFlashOperFail] Failed to mount OBFL Flash, error '" +
                             mount_command + "'"},
              .boots = 2,
              .flash_file = 0,
              .flash_commands = {"start", "start"}},
     .firmware = {{5}, {5}},
     .tables = "[obfl]\nmount_time = 0.2\nmount_fails = true\n"},
    {.name = "AFlashThatCannotBeUnmounted",
     .life = {.fates = {settled("A", "GD")},
              .runs = {RunEnd::Reset},
              .errors = {"[FPD] [ERROR] [ObflOperCmdFail] " + unmount_command,
                         "[FPD] [ERROR] [ObflFlushFlashOperFail] Failed to unmount OBFL Flash, error '" +
                             unmount_command + "'"},
              .boots = 2,
              .flash_commands = {"start", "stop"}},
     .firmware = {{5}},
     .tables = "[obfl]\nmount_time = 0.2\nunmount_fails = true\n"},
    {.name = "TheHighestFlashFileOverAllRuns",
     .life = {.fates = {settled("A"), broken("B", "FF|FF")},
              .runs = {RunEnd::Reset, RunEnd::NoReset},
              .boots = 2,
              .flash_file = 11,
              .flash_commands = {"start", "stop", "start", "stop"}},
     .firmware = {{5}, {5}},
     .tables = "[obfl]\nmount_time = 0.2\n",
     .first_flash_files = {2, 11, 9}},
};

INSTANTIATE_TEST_SUITE_P(Activation, Reloads, testing::ValuesIn(activations), name_of<Row>);
INSTANTIATE_TEST_SUITE_P(Failure, Reloads, testing::ValuesIn(failures), name_of<Row>);
INSTANTIATE_TEST_SUITE_P(Marker, Reloads, testing::ValuesIn(markers), name_of<Row>);
INSTANTIATE_TEST_SUITE_P(Refusal, Reloads, testing::ValuesIn(refusals), name_of<Row>);
INSTANTIATE_TEST_SUITE_P(Flash, Reloads, testing::ValuesIn(flashes), name_of<Row>);

using UnwritableMarker = LifeTest;

/// A directory takes the marker's place once the first run has begun. The card is reloaded all the same, and what the
/// next boot cannot read keeps it from being reloaded for ever.
TEST_F(UnwritableMarker, NeitherKeepsTheCardFromItsReloadNorLetsItLoop) {
    const std::string marker = "/misc/scratch/bootup_fpd_marker.txt";
    const std::string startup = "test -e " + marker +
                                " || { until grep -qs FpdUpgResponseStarted /var/log/fpd.log; do sleep 0.01; done; "
                                "mkdir -p " +
                                marker + "/full; } & bootup_fpd -c upgrade; status=$?; wait; exit $status";
    const Region region = {
        .name = "A", .keys = "activation = 5\n" + duration(30), .tables = region_fault("does_not_stick")};
    describe({.keys = "startup = '''" + startup + "'''", .tables = mounted_flash, .fpds = fpd(10, {region})});
    const Result result = boot(life_speed);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "FPD Upgrade failed\n");
    EXPECT_THAT(result.out, testing::EndsWith("boot 2: the card is up\n"));
    EXPECT_TRUE(std::filesystem::is_directory(marker_file()));
    std::filesystem::remove_all(marker_file());
    expect_life({.fates = {stopped("A", "D")},
                 .runs = {RunEnd::Reset},
                 .errors = {"[FPD] [ERROR] [WriteUpgMarkerDataFail] Failed to write Upgrade Marker Data, error Unable "
                            "to open the Upgrade marker file " +
                                marker + ", error Is a directory",
                            "[FPD] [ERROR] [UpgMarkerCheckFail] Failed to check upgrade marker, error Failed to read "
                            "marker data, error 1"},
                 .boots = 2});
}

}  // namespace
