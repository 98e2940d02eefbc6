#include "card_description.h"

#include <sys/stat.h>

#include <sstream>

#include "library_test_support.h"

namespace cardsim {
namespace {

using ::testing::HasSubstr;

class DescriptionTest : public ::testing::Test {
  protected:
    /// The reason for which the description is refused; empty: it is `card` now.
    std::string load(const std::string &toml) {
        write_file(file, toml);
        return load_file(file);
    }
    std::string load_file(const std::filesystem::path &described) {
        try {
            card = load_card_description(described);
        } catch (const Error &reason) {
            EXPECT_EQ(reason.code, 0);
            return reason.what();
        }
        return {};
    }

    TestDirectory directory;
    const std::filesystem::path file = directory.path / "card.toml";
    CardDescription card;
};

TEST_F(DescriptionTest, ReadsEveryKeyOfTheCard) {
    ASSERT_EQ(load(R"(
[card]
group = 4294967295
board_type = 4711
hw_version = [300, 4294967295]
slot = 12
pid = "SIM-LC24"
startup = "bootup_fpd -c check_upgrade"
bootstrap = "PD_CARD_TYPE = 4711\n"
auto_upgrade = -3
upgrade_mode = "dummy-minor-version"
allow_duplicate_names = true
[watchdog]
timeout = 12.5
[obfl]
mounted = true
mount_time = 3
mount_fails = true
unmount_fails = true
[scripts]
event = 1
watchdog = 2
reset = 3
grub_reboot = 255
)"),
              "");
    EXPECT_EQ(card.file, file);
    EXPECT_EQ(card.group, 4294967295U);
    EXPECT_EQ(card.board_type, 4711U);
    EXPECT_EQ(card.hw_major, 300U);
    EXPECT_EQ(card.hw_minor, 4294967295U);
    EXPECT_EQ(card.slot, 12U);
    EXPECT_EQ(card.pid, "SIM-LC24");
    EXPECT_EQ(card.startup, "bootup_fpd -c check_upgrade");
    EXPECT_EQ(bootstrap_text(card), "PD_CARD_TYPE = 4711\n");
    EXPECT_EQ(card.auto_upgrade, -3);
    EXPECT_EQ(card.upgrade_mode, 2);
    EXPECT_TRUE(card.allow_duplicate_names);
    ASSERT_TRUE(card.watchdog.has_value());
    EXPECT_EQ(card.watchdog->timeout, 12.5);
    EXPECT_TRUE(card.obfl.mounted);
    EXPECT_EQ(card.obfl.mount_time, 3.0);
    EXPECT_TRUE(card.obfl.mount_fails);
    EXPECT_TRUE(card.obfl.unmount_fails);
    EXPECT_EQ(card.scripts.event, 1);
    EXPECT_EQ(card.scripts.watchdog, 2);
    EXPECT_EQ(card.scripts.reset, 3);
    EXPECT_EQ(card.scripts.grub_reboot, 255);
}

TEST_F(DescriptionTest, LeavesOutWhatHasADefault) {
    ASSERT_EQ(load(card_table + R"(
[[fpd]]
id = 1
[[fpd.region]]
name = "A"
running = "1.2.3"
[[fpd.region.image]]
type = 1
version = "1.3"
file = "a.img"
)"),
              "");
    EXPECT_EQ(card.startup, "bootup_fpd -c upgrade");
    EXPECT_EQ(card.auto_upgrade, 1);
    EXPECT_EQ(card.upgrade_mode, 0);
    EXPECT_FALSE(card.watchdog.has_value());
    EXPECT_FALSE(card.obfl.mounted);
    EXPECT_EQ(card.obfl.mount_time, 2.0);
    EXPECT_EQ(card.scripts.reset, 0);
    const RegionDescription &region = card.fpds.at(0).regions.at(0);
    EXPECT_EQ(region.programmed, region.running);
    EXPECT_EQ(region.upgrade_type, 1);
    EXPECT_EQ(region.activation, 0);
    EXPECT_EQ(region.capabilities, 8U);
    EXPECT_EQ(region.duration, 5.0);
    EXPECT_EQ(region.reports, 10U);
    const ImageDescription &image = region.images.at(0);
    EXPECT_EQ(image.depends_on, "");
    EXPECT_EQ(version_text(image.minimum), "0.0.0");
    EXPECT_EQ(image.size, 65536U);
    EXPECT_FALSE(image.md5.has_value());
    EXPECT_FALSE(image.need_upgrade.has_value());
    EXPECT_FALSE(image.status_msg.has_value());
}

TEST_F(DescriptionTest, MakesTheBootstrapFileOfTheCardsFields) {
    ASSERT_EQ(load(card_table), "");
    EXPECT_EQ(bootstrap_text(card),
              "PD_CARD_TYPE=4711\nHW_MAJOR_VERSION=1\nHW_MINOR_VERSION=2\nPD_SLOT_NUM=2\nMY_CARD_PID=SIM-LC24\n");
}

TEST_F(DescriptionTest, ReadsRegionsImagesAndTheirFaults) {
    ASSERT_EQ(load(card_table + R"(
[[fpd]]
id = 0
[[fpd.region]]
name = "First"
running = "65535.1.65535"
programmed = "1.2.4"
upgrade_type = 5
activation = 6
sequence = 15
info_flag = 255
capabilities = 0x1808
duration = 0.5
reports = 0
[[fpd.region.image]]
type = 4
version = "255.65535.255"
depends_on = "Second"
minimum = "1.1"
file = "first.img"
size = 12
md5 = "cafe"
need_upgrade = true
status_msg = "please"
[[fpd.region.image]]
type = 0
version = "unknown"
file = "second.img"
md5 = "auto"
need_upgrade = "auto"
[[fpd.region]]
name = "Second"
running = "0.0.0"
[[fpd.region.fault]]
attempt = 2
kind = "fail"
at = 50
code = -5
text = "flash timeout"
[[fpd.region.fault]]
kind = "hang"
cancellable = false
hang_time = 2
[[fpd.region.fault]]
kind = "slow"
every = 20.5
[[fpd.region.fault]]
kind = "does_not_stick"
)"),
              "");
    const RegionDescription &first = card.fpds.at(0).regions.at(0);
    EXPECT_EQ(version_text(first.running), "65535.1.65535");
    EXPECT_EQ(version_text(first.programmed), "1.2.4");
    EXPECT_EQ(first.upgrade_type, 5);
    EXPECT_EQ(first.activation, 6);
    EXPECT_EQ(first.sequence, 15);
    EXPECT_EQ(first.info_flag, 255);
    EXPECT_EQ(first.capabilities, 0x1808U);
    EXPECT_EQ(first.duration, 0.5);
    EXPECT_EQ(first.reports, 0U);
    const ImageDescription *major = find_image(first, 4);
    ASSERT_NE(major, nullptr);
    EXPECT_EQ(version_text(major->version), "255.65535.255");
    EXPECT_EQ(major->depends_on, "Second");
    EXPECT_EQ(version_text(major->minimum), "1.1");
    EXPECT_EQ(major->file, "first.img");
    EXPECT_EQ(major->size, 12U);
    EXPECT_EQ(major->md5, "cafe");
    EXPECT_EQ(major->need_upgrade, true);
    EXPECT_EQ(major->status_msg, "please");
    const ImageDescription *regular = find_image(first, 0);
    ASSERT_NE(regular, nullptr);
    EXPECT_EQ(regular->version.kind, FPD_VERSION_UNKNOWN);
    EXPECT_EQ(version_text(regular->version), "unknown");
    EXPECT_FALSE(regular->md5.has_value());
    EXPECT_FALSE(regular->need_upgrade.has_value());
    EXPECT_EQ(find_image(first, 1), nullptr);

    const auto &faults = card.fpds.at(0).regions.at(1).faults;
    ASSERT_EQ(faults.size(), 4U);
    EXPECT_EQ(faults[0].kind, RegionFaultKind::Fail);
    EXPECT_EQ(faults[0].attempt, 2U);
    EXPECT_EQ(faults[0].at, 50);
    EXPECT_EQ(faults[0].code, -5);
    EXPECT_EQ(faults[0].text, "flash timeout");
    EXPECT_EQ(faults[1].kind, RegionFaultKind::Hang);
    EXPECT_FALSE(faults[1].attempt.has_value());
    EXPECT_EQ(faults[1].at, -1);
    EXPECT_FALSE(faults[1].cancellable);
    EXPECT_EQ(faults[1].hang_time, 2.0);
    EXPECT_EQ(faults[2].kind, RegionFaultKind::Slow);
    EXPECT_EQ(faults[2].every, 20.5);
    EXPECT_EQ(faults[3].kind, RegionFaultKind::DoesNotStick);
}

TEST_F(DescriptionTest, ReadsCallFaultsAndLeds) {
    ASSERT_EQ(load(card_table + leds + R"(
[[fault]]
call = "brd_fru_hw_data_init"
nth = 2
boot = 3
code = 0x10000408
text = "present"
[[fault]]
call = "get_fpd_capability_info"
code = 0
)"),
              "");
    ASSERT_EQ(card.faults.size(), 2U);
    EXPECT_EQ(card.faults[0].call, "brd_fru_hw_data_init");
    EXPECT_EQ(card.faults[0].nth, 2U);
    EXPECT_EQ(card.faults[0].boot, 3U);
    EXPECT_EQ(card.faults[0].code, 0x10000408);
    EXPECT_EQ(card.faults[0].text, "present");
    EXPECT_FALSE(card.faults[1].nth.has_value());
    EXPECT_FALSE(card.faults[1].boot.has_value());
    EXPECT_FALSE(card.faults[1].text.has_value());
    ASSERT_EQ(card.leds.size(), 2U);
    EXPECT_EQ(card.leds[0].id, 3U);
    EXPECT_EQ(card.leds[0].type, 1U);
    EXPECT_EQ(card.leds[0].name, "Status");
    EXPECT_EQ(card.leds[0].state, 2U);
    EXPECT_EQ(card.leds[0].color, 4U);
    EXPECT_EQ(card.leds[1].type, 9U);
}

TEST_F(DescriptionTest, ToleratesRepeatedNamesWhenTold) {
    const std::string twice = io_fpga + R"(
[[fpd.region]]
name = "IoFpga"
running = "1.0.0"
)";
    EXPECT_NE(load(card_table + twice), "");
    EXPECT_EQ(load(card_table + "allow_duplicate_names = true\n" + twice), "");
}

TEST_F(DescriptionTest, NamesAFileThatCannotBeRead) {
    EXPECT_EQ(load_file(directory.path / "none.toml"),
              (directory.path / "none.toml").string() + ": cannot be read: No such file or directory");
    EXPECT_EQ(load_file(directory.path), directory.path.string() + ": cannot be read: Is a directory");
}

/// A description that is wrong in its last line, or in the line told, and why.
struct Wrong {
    const char *what;
    std::string toml;
    std::string reason;
    int line = 0;  ///< 0: the last one
};

class WrongDescriptionTest : public DescriptionTest, public ::testing::WithParamInterface<Wrong> {};

TEST_P(WrongDescriptionTest, IsRefusedWithFileLineAndReason) {
    const Wrong &wrong = GetParam();
    const auto last = std::count(wrong.toml.begin(), wrong.toml.end(), '\n');
    const std::string line = std::to_string(wrong.line == 0 ? last : wrong.line);
    EXPECT_EQ(load(wrong.toml), file.string() + ":" + line + ": " + wrong.reason);
}

std::string region_with(const std::string &line) {
    return card_table + "[[fpd]]\nid = 1\n[[fpd.region]]\nname = \"A\"\nrunning = \"1.0.0\"\n" + line + "\n";
}

std::string image_with(const std::string &lines) {
    return region_with("[[fpd.region.image]]\ntype = 0\nversion = \"1.0.0\"\nfile = \"a.img\"") + lines + "\n";
}

std::string fault_with(const std::string &lines) {
    return region_with("[[fpd.region.fault]]\n" + lines);
}

std::string card_without(const std::string &key) {
    std::istringstream lines(card_table);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        result += line.starts_with(key + " ") ? "" : line + "\n";
    }
    return result;
}

INSTANTIATE_TEST_SUITE_P(
    Table, WrongDescriptionTest,
    ::testing::Values(
        Wrong{"no_card", "[obfl]\n", "the card needs a table [card]"},
        Wrong{"card_is_no_table", "card = 1\n", "the card: card: expected a table, found a whole number"},
        Wrong{"no_group", card_without("group"), "[card] needs the key 'group'", 1},
        Wrong{"no_board_type", card_without("board_type"), "[card] needs the key 'board_type'", 1},
        Wrong{"no_slot", card_without("slot"), "[card] needs the key 'slot'", 1},
        Wrong{"no_pid", card_without("pid"), "[card] needs the key 'pid'", 1},
        Wrong{"no_hw_version", card_without("hw_version"),
              "[card]: hw_version: expected [major, minor], each from 0 to 4294967295", 1},
        Wrong{"hw_version_of_three", card_without("hw_version") + "hw_version = [1, 2, 3]\n",
              "[card]: hw_version: expected [major, minor], each from 0 to 4294967295"},
        Wrong{"hw_version_too_large", card_without("hw_version") + "hw_version = [1, 4294967296]\n",
              "[card]: hw_version: expected [major, minor], each from 0 to 4294967295"},
        Wrong{"hw_version_of_texts", card_without("hw_version") + "hw_version = [\"1\", 2]\n",
              "[card]: hw_version: expected [major, minor], each from 0 to 4294967295"},
        Wrong{"group_zero", card_without("group") + "group = 0\n",
              "[card]: group: expected a whole number from 1 to 4294967295, found 0"},
        Wrong{"group_text", card_without("group") + "group = \"7\"\n",
              "[card]: group: expected a whole number, found a text"},
        Wrong{"group_fraction", card_without("group") + "group = 7.0\n",
              "[card]: group: expected a whole number, found a number"},
        Wrong{"unknown_card_key", card_table + "colour = 1\n", "[card]: unknown key 'colour'"},
        Wrong{"first_unknown_key", card_table + "zeal = 1\ncolour = 1\n", "[card]: unknown key 'zeal'", 7},
        Wrong{"unknown_table", card_table + "[doors]\n", "the card: unknown key 'doors'"},
        Wrong{"pid_with_blank", card_without("pid") + "pid = \"A B\"\n",
              "[card]: pid: expected 1 to 63 characters, none of them a blank or '='"},
        Wrong{"pid_too_long", card_without("pid") + "pid = \"" + std::string(64, 'x') + "\"\n",
              "[card]: pid: longer than 63 characters"},
        Wrong{"pid_with_control", card_without("pid") + "pid = \"A\\n\"\n", "[card]: pid: holds a control character"},
        Wrong{"startup_number", card_table + "startup = 3\n", "[card]: startup: expected a text, found a whole number"},
        Wrong{"mode_name", card_table + "upgrade_mode = \"factory\"\n",
              "[card]: upgrade_mode: expected \"regular\", \"mfg\", \"dummy-minor-version\", \"dummy-major-version\" "
              "or a "
              "number"},
        Wrong{"auto_upgrade_too_large", card_table + "auto_upgrade = 2147483648\n",
              "[card]: auto_upgrade: expected a whole number from -2147483648 to 2147483647, found 2147483648"},
        Wrong{"flag_number", card_table + "allow_duplicate_names = 1\n",
              "[card]: allow_duplicate_names: expected true or false, found a whole number"},
        Wrong{"watchdog_of_no_time", card_table + "[watchdog]\ntimeout = 0\n",
              "[watchdog]: timeout: expected more than 0 seconds"},
        Wrong{"seconds_negative", card_table + "[obfl]\nmount_time = -1.0\n",
              "[obfl]: mount_time: expected seconds from 0 to 2678400"},
        Wrong{"seconds_infinite", card_table + "[obfl]\nmount_time = inf\n",
              "[obfl]: mount_time: expected seconds from 0 to 2678400"},
        Wrong{"seconds_not_a_number", card_table + "[obfl]\nmount_time = nan\n",
              "[obfl]: mount_time: expected seconds from 0 to 2678400"},
        Wrong{"seconds_text", card_table + "[obfl]\nmount_time = \"1\"\n",
              "[obfl]: mount_time: expected a number of seconds, found a text"},
        Wrong{"unknown_obfl_key", card_table + "[obfl]\nsize = 1\n", "[obfl]: unknown key 'size'"},
        Wrong{"script_status", card_table + "[scripts]\nreset = 256\n",
              "[scripts]: reset: expected a whole number from 0 to 255, found 256"},
        Wrong{"led_without_id", card_table + "[[led]]\nname = \"A\"\n", "[[led]] needs the key 'id'", 7},
        Wrong{"led_twice", card_table + "[[led]]\nname = \"A\"\nid = 1\n[[led]]\nname = \"B\"\nid = 1\n",
              "[[led]]: id: another one has 1 already"},
        Wrong{"led_is_a_table", card_table + "[led]\nid = 1\n",
              "the card: led: expected tables, each with a heading of its own in double brackets, found a table", 7},
        Wrong{"leds_are_numbers", "led = [1]\n" + card_table, "the card: led: expected a table, found a whole number",
              1},
        Wrong{"fpd_twice", card_table + "[[fpd]]\nid = 1\n[[fpd]]\nid = 1\n", "[[fpd]]: id: another one has 1 already"},
        Wrong{"unknown_fpd_key", card_table + "[[fpd]]\nid = 1\nname = \"A\"\n", "[[fpd]]: unknown key 'name'"},
        Wrong{"region_without_version", card_table + "[[fpd]]\nid = 1\n[[fpd.region]]\nname = \"A\"\n",
              "[[fpd.region]] needs the key 'running'", 9},
        Wrong{"region_without_name", card_table + "[[fpd]]\nid = 1\n[[fpd.region]]\n",
              "[[fpd.region]] needs the key 'name'"},
        Wrong{"region_name_empty", card_table + "[[fpd]]\nid = 1\n[[fpd.region]]\nname = \"\"\n",
              "[[fpd.region]]: name: is empty"},
        Wrong{"region_name_too_long",
              card_table + "[[fpd]]\nid = 1\n[[fpd.region]]\nname = \"" + std::string(103, 'x') + "\"\n",
              "[[fpd.region]]: name: longer than 102 characters"},
        Wrong{"region_name_twice",
              region_with("") + "[[fpd]]\nid = 2\n[[fpd.region]]\nrunning = \"1.0.0\"\nname = \"A\"\n",
              "[[fpd.region]]: name: 'A' is the same in its first 16 characters as the name of the region in line 9"},
        Wrong{"region_names_cut_alike",
              card_table + "[[fpd]]\nid = 1\n[[fpd.region]]\nrunning = \"1.0.0\"\nname = \"SixteenCharacterOne\"\n" +
                  "[[fpd.region]]\nrunning = \"1.0.0\"\nname = \"SixteenCharacterTwo\"\n",
              "[[fpd.region]]: name: 'SixteenCharacterTwo' is the same in its first 16 characters as the name of the "
              "region in line 9"},
        Wrong{"version_of_two_parts", region_with("programmed = \"1.2\""),
              "[[fpd.region]]: programmed: expected \"major.minor.debug\", each from 0 to 65535"},
        Wrong{"version_of_four_parts", region_with("programmed = \"1.2.3.4\""),
              "[[fpd.region]]: programmed: expected \"major.minor.debug\", each from 0 to 65535"},
        Wrong{"version_too_large", region_with("programmed = \"1.2.65536\""),
              "[[fpd.region]]: programmed: expected \"major.minor.debug\", each from 0 to 65535"},
        Wrong{"version_with_blank", region_with("programmed = \"1.2. 3\""),
              "[[fpd.region]]: programmed: expected \"major.minor.debug\", each from 0 to 65535"},
        Wrong{"version_negative", region_with("programmed = \"1.2.-3\""),
              "[[fpd.region]]: programmed: expected \"major.minor.debug\", each from 0 to 65535"},
        Wrong{"version_number", region_with("programmed = 1.2"),
              "[[fpd.region]]: programmed: expected a text, found a number"},
        Wrong{"upgrade_type_too_large", region_with("upgrade_type = 256"),
              "[[fpd.region]]: upgrade_type: expected a whole number from 0 to 255, found 256"},
        Wrong{"too_many_reports", region_with("reports = 101"),
              "[[fpd.region]]: reports: expected a whole number from 0 to 100, found 101"},
        Wrong{"unknown_region_key", region_with("color = 3"), "[[fpd.region]]: unknown key 'color'"},
        Wrong{"image_without_type", region_with("[[fpd.region.image]]"), "[[fpd.region.image]] needs the key 'type'"},
        Wrong{"image_of_unknown_type", region_with("[[fpd.region.image]]\ntype = 5"),
              "[[fpd.region.image]]: type: expected a whole number from 0 to 4, found 5"},
        Wrong{"image_version", region_with("[[fpd.region.image]]\ntype = 0\nversion = \"256.0.0\""),
              "[[fpd.region.image]]: version: expected \"major.minor.debug\", at most \"255.65535.255\", "
              "\"major.minor\" or \"unknown\""},
        Wrong{"image_version_of_one_part", region_with("[[fpd.region.image]]\ntype = 0\nversion = \"2\""),
              "[[fpd.region.image]]: version: expected \"major.minor.debug\", at most \"255.65535.255\", "
              "\"major.minor\" or \"unknown\""},
        Wrong{"image_in_a_directory",
              region_with("[[fpd.region.image]]\ntype = 0\nversion = \"1.0\"\nfile = \"../a.img\""),
              "[[fpd.region.image]]: file: expected the name of a file, without a directory"},
        Wrong{"image_named_dots", region_with("[[fpd.region.image]]\ntype = 0\nversion = \"1.0\"\nfile = \"..\""),
              "[[fpd.region.image]]: file: expected the name of a file, without a directory"},
        Wrong{"dependency_too_long", image_with("\ndepends_on = \"SeventeenLettersX\""),
              "[[fpd.region.image]]: depends_on: longer than 16 characters"},
        Wrong{"minimum_unknown", image_with("\nminimum = \"unknown\""),
              "[[fpd.region.image]]: minimum: expected a version, found \"unknown\""},
        Wrong{"md5_number", image_with("\nmd5 = 12"),
              "[[fpd.region.image]]: md5: expected a text, found a whole number"},
        Wrong{"need_upgrade_text", image_with("\nneed_upgrade = \"yes\""),
              "[[fpd.region.image]]: need_upgrade: expected true or false, found a text"},
        Wrong{"image_too_large", image_with("\nsize = 1073741825"),
              "[[fpd.region.image]]: size: expected a whole number from 0 to 1073741824, found 1073741825"},
        Wrong{"unknown_image_key", image_with("\ncolor = 3"), "[[fpd.region.image]]: unknown key 'color'"},
        Wrong{"two_images_of_a_type",
              image_with("\n[[fpd.region.image]]\ntype = 0\nversion = \"1.1.0\"\nfile = \"b.img\""),
              "[[fpd.region]] has two images for upgrade type 0", 9},
        Wrong{"two_versions_in_a_file",
              image_with("\n[[fpd.region.image]]\ntype = 1\nversion = \"1.1.0\"\nfile = \"a.img\""),
              "[[fpd.region]] has two versions in the one file 'a.img'", 9},
        Wrong{"fault_without_kind", fault_with("attempt = 1"), "[[fpd.region.fault]] needs the key 'kind'", 12},
        Wrong{"fault_of_unknown_kind", fault_with("kind = \"burn\""),
              "[[fpd.region.fault]]: kind: expected \"fail\", \"hang\", \"slow\" or \"does_not_stick\""},
        Wrong{"fault_at_attempt_zero", fault_with("kind = \"hang\"\nattempt = 0"),
              "[[fpd.region.fault]]: attempt: expected a whole number from 1 to 4294967295, found 0"},
        Wrong{"fault_beyond_the_end", fault_with("kind = \"hang\"\nat = 101"),
              "[[fpd.region.fault]]: at: expected a whole number from -1 to 100, found 101"},
        Wrong{"failure_without_code", fault_with("kind = \"fail\""), "[[fpd.region.fault]] needs the key 'code'", 12},
        Wrong{"failure_that_succeeds", fault_with("kind = \"fail\"\ncode = 0"),
              "[[fpd.region.fault]]: code: 0 is success"},
        Wrong{"slow_without_time", fault_with("kind = \"slow\""), "[[fpd.region.fault]] needs the key 'every'", 12},
        Wrong{"slow_without_reports", region_with("reports = 0\n[[fpd.region.fault]]\nkind = \"slow\"\nevery = 1.0"),
              "[[fpd.region.fault]] needs a region that reports: its 'reports' is 0", 13},
        Wrong{"key_of_another_kind", fault_with("kind = \"hang\"\ncode = 5"),
              "[[fpd.region.fault]]: unknown key 'code'"},
        Wrong{"call_without_code", card_table + "[[fault]]\ncall = \"brd_led_type_get\"\n",
              "[[fault]] needs the key 'code'", 7},
        Wrong{"call_that_succeeds", card_table + "[[fault]]\ncall = \"brd_led_type_get\"\ncode = 0\n",
              "[[fault]]: code: 0 is success"},
        Wrong{"call_of_no_library", card_table + "[[fault]]\ncode = 1\ncall = \"brd_led_typ_get\"\n",
              "[[fault]]: call: no closed library has a function 'brd_led_typ_get'"},
        Wrong{"call_number_zero", card_table + "[[fault]]\ncall = \"brd_led_type_get\"\nnth = 0\n",
              "[[fault]]: nth: expected a whole number from 1 to 4294967295, found 0"},
        Wrong{"boot_number_zero", card_table + "[[fault]]\ncall = \"brd_led_type_get\"\nboot = 0\n",
              "[[fault]]: boot: expected a whole number from 1 to 4294967295, found 0"}),
    [](const ::testing::TestParamInfo<Wrong> &test) { return test.param.what; });

TEST_F(DescriptionTest, RefusesWhatIsNoToml) {
    EXPECT_THAT(load(card_table + "this is no TOML\n"),
                ::testing::AllOf(::testing::StartsWith(file.string() + ":7: "), ::testing::Not(HasSubstr("\n"))));
}

std::string repeated(const std::string &text, int count) {
    std::string result;
    for (int time = 0; time < count; ++time) result += text;
    return result;
}

TEST_F(DescriptionTest, RefusesWhatNestsTooDeepForTheParser) {
    const std::string deep = "a" + repeated(".a", 40000);
    for (const std::string &toml : {
             deep + " = 1\n",
             "[" + deep + "]\n",
             "[[a" + repeated(" . 'a'", 40000) + "]]\n",
             "a = " + repeated("[", 40000) + repeated("]", 40000) + "\n",
             "a = " + repeated("{a=", 40000) + "1" + repeated("}", 40000) + "\n",
             "a = [\n" + repeated("{a.a.a.a=[\n", 40000),
             // Behind a text that ends where it does not seem to.
             "a = [\"\"\"b\"\"\"\"\", {" + deep + " = \"\"}]\n",
             "a = [\"\\\"\", {" + deep + " = 1}]\n",
             "a = ['\\', {" + deep + " = 1}]\n",
             "a = ['''\n'''', {" + deep + " = 1}]\n",
         }) {
        EXPECT_THAT(load("# the first line\n" + toml),
                    ::testing::MatchesRegex(".*card.toml:[0-9]+: nested deeper than 32 levels"));
    }
}

TEST_F(DescriptionTest, TextsAndNeighboursDoNotNest) {
    const std::string dots = repeated(".[{", 100);
    EXPECT_EQ(load("# " + dots + "\n" + card_table + "startup = \"\"\"\n" + dots + "\\\"\"\"\"\n" + "bootstrap = '''" +
                   dots + "'''\n[[led]]\nid = 1\nname = \"" + dots.substr(0, 90) + "\\\\\"\n[[led]]\nid = 2\nname = '" +
                   dots.substr(0, 90) + "'\n"),
              "");
    EXPECT_EQ(load(card_table + "more = [" + repeated("1.5, ", 100) + "1.5]\n"),
              file.string() + ":7: [card]: unknown key 'more'");
    std::string regions;
    for (int region = 0; region < 100; ++region) {
        regions += "{name = 'R" + std::to_string(region) + "', running = '1.0.0', duration = 1.5},\n";
    }
    EXPECT_EQ(load("fpd = [{id = 1, region = [\n" + regions + "]}]\n" + card_table), "");
}

TEST_F(DescriptionTest, RefusesAFileThatIsTooLargeOrNoPlainOne) {
    EXPECT_EQ(load(card_table + repeated("#", 1 << 19)), "");
    EXPECT_EQ(load(card_table + repeated("#", 1 << 20)), file.string() + ": larger than 1048576 bytes");
    std::filesystem::remove(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(load_file(file), file.string() + ": cannot be read: not a plain file");
}

TEST_F(DescriptionTest, ReasonsArePrintable) {
    EXPECT_EQ(load(card_table + "\"\\u001b]0;mine\\u0007\\n\" = 1\n"),
              file.string() + ":7: [card]: unknown key '\\x1b]0;mine\\x07\\n'");
}

TEST_F(DescriptionTest, RefusesTooManyRegions) {
    std::string toml = card_table + "[[fpd]]\nid = 1\n";
    for (int region = 0; region < 255; ++region) {
        toml += "[[fpd.region]]\nname = \"R" + std::to_string(region) + "\"\nrunning = \"1.0.0\"\n";
    }
    EXPECT_EQ(load(toml), "");
    EXPECT_EQ(load(toml + "[[fpd.region]]\nname = \"X\"\nrunning = \"1.0.0\"\n"),
              file.string() + ":7: [[fpd]] has more than 255 regions");
}

}  // namespace
}  // namespace cardsim
