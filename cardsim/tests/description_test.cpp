#include "card_description.h"

#include <sys/stat.h>

#include <algorithm>

#include "library_test_support.h"

namespace cardsim {
namespace {

using card_tests::lines_of;
using card_tests::write_file;

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::FieldsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::SizeIs;

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

    card_tests::TemporaryDirectory directory{"cardsim-test"};
    const std::filesystem::path file = directory.path() / "card.toml";
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
    EXPECT_THAT(card.obfl, FieldsAre(true, 3.0, true, true));
    EXPECT_THAT(card.scripts, FieldsAre(1, 2, 3, 255));
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
    EXPECT_THAT(card.obfl, FieldsAre(false, 2.0, false, false));
    EXPECT_THAT(card.scripts, FieldsAre(0, 0, 0, 0));
    constexpr FirmwareVersion version = {1, 2, 3};
    const RegionDescription &region = card.fpds.at(0).regions.at(0);
    EXPECT_THAT(region, FieldsAre("A", version, version, 1, 0, 0, 0, 8U, 5.0, 10U, SizeIs(1), IsEmpty()));
    const ImageDescription &image = region.images.at(0);
    EXPECT_THAT(image, FieldsAre(1U, _, "", _, "a.img", 65536U, Eq(std::nullopt), Eq(std::nullopt), Eq(std::nullopt)));
    EXPECT_EQ(version_text(image.version), "1.3");
    EXPECT_EQ(version_text(image.minimum), "0.0.0");
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
    EXPECT_THAT(first, FieldsAre("First", FirmwareVersion{65535, 1, 65535}, FirmwareVersion{1, 2, 4}, 5, 6, 15, 255,
                                 0x1808U, 0.5, 0U, SizeIs(2), IsEmpty()));
    const ImageDescription *major = find_image(first, 4);
    ASSERT_NE(major, nullptr);
    EXPECT_THAT(*major, FieldsAre(4U, _, "Second", _, "first.img", 12U, Optional(Eq("cafe")), Optional(true),
                                  Optional(Eq("please"))));
    EXPECT_EQ(version_text(major->version), "255.65535.255");
    EXPECT_EQ(version_text(major->minimum), "1.1");
    const ImageDescription *regular = find_image(first, 0);
    ASSERT_NE(regular, nullptr);
    EXPECT_EQ(regular->version.kind, FPD_VERSION_UNKNOWN);
    EXPECT_EQ(version_text(regular->version), "unknown");
    EXPECT_FALSE(regular->md5.has_value());
    EXPECT_FALSE(regular->need_upgrade.has_value());
    EXPECT_EQ(find_image(first, 1), nullptr);

    const auto &faults = card.fpds.at(0).regions.at(1).faults;
    EXPECT_THAT(faults, ElementsAre(FieldsAre(RegionFaultKind::Fail, Optional(2U), 50, -5, "flash timeout", _, _, _),
                                    FieldsAre(RegionFaultKind::Hang, Eq(std::nullopt), -1, _, _, _, false, 2.0),
                                    FieldsAre(RegionFaultKind::Slow, _, _, _, _, 20.5, _, _),
                                    FieldsAre(RegionFaultKind::DoesNotStick, _, _, _, _, _, _, _)));
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
    EXPECT_THAT(
        card.faults,
        ElementsAre(FieldsAre("brd_fru_hw_data_init", Optional(2U), Optional(3U), 0x10000408, Optional(Eq("present"))),
                    FieldsAre("get_fpd_capability_info", Eq(std::nullopt), Eq(std::nullopt), 0, Eq(std::nullopt))));
    EXPECT_THAT(card.leds, ElementsAre(FieldsAre(3U, 1U, "Status", 2U, 4U), FieldsAre(4U, 9U, _, 0U, 0U)));
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
    EXPECT_EQ(load_file(directory.path() / "none.toml"),
              (directory.path() / "none.toml").string() + ": cannot be read: No such file or directory");
    EXPECT_EQ(load_file(directory.path()), directory.path().string() + ": cannot be read: Is a directory");
}

/// Lines that are wrong, and why.
using Wrong = std::pair<std::string, std::string>;

/// Descriptions that are refused by their last line, or by the line told.
class WrongDescriptionTest : public DescriptionTest {
  protected:
    void expect_refused(const std::string &toml, const std::string &reason, int64_t line = 0) {
        const auto last = std::count(toml.begin(), toml.end(), '\n');
        EXPECT_EQ(load(toml), file.string() + ":" + std::to_string(line == 0 ? last : line) + ": " + reason);
    }
    /// Each of the lines is wrong after `before`; the reasons begin with `table`.
    void expect_refused_after(const std::string &before, const std::string &table, const std::vector<Wrong> &lines) {
        for (const auto &[line, reason] : lines) expect_refused(before + line + "\n", table + reason);
    }

    const std::string region_table = card_table + "[[fpd]]\nid = 1\n[[fpd.region]]\n";
    const std::string region_head = region_table + "name = \"A\"\nrunning = \"1.0.0\"\n";
    const std::string image_table = region_head + "[[fpd.region.image]]\n";
    const std::string image = image_table + "type = 0\nversion = \"1.0.0\"\nfile = \"a.img\"\n";
    const std::string fault = region_head + "[[fpd.region.fault]]\n";
    const std::string call_fault = card_table + "[[fault]]\ncall = \"brd_led_type_get\"\n";
};

std::string card_without(const std::string &key) {
    std::string result;
    for (const std::string &line : lines_of(card_table)) result += line.starts_with(key + " ") ? "" : line + "\n";
    return result;
}

TEST_F(WrongDescriptionTest, WithoutAKey) {
    for (const std::string key : {"group", "board_type", "slot", "pid"}) {
        expect_refused(card_without(key), "[card] needs the key '" + key + "'", 1);
    }
    expect_refused("[obfl]\n", "the card needs a table [card]");
    expect_refused(card_table + "[[led]]\nname = \"A\"\n", "[[led]] needs the key 'id'", 7);
    expect_refused(region_table, "[[fpd.region]] needs the key 'name'");
    expect_refused(region_table + "name = \"A\"\n", "[[fpd.region]] needs the key 'running'", 9);
    expect_refused(image_table, "[[fpd.region.image]] needs the key 'type'");
    expect_refused(fault + "attempt = 1\n", "[[fpd.region.fault]] needs the key 'kind'", 12);
    expect_refused(fault + "kind = \"fail\"\n", "[[fpd.region.fault]] needs the key 'code'", 12);
    expect_refused(fault + "kind = \"slow\"\n", "[[fpd.region.fault]] needs the key 'every'", 12);
    expect_refused(call_fault, "[[fault]] needs the key 'code'", 7);
}

TEST_F(WrongDescriptionTest, WithAnUnknownKey) {
    expect_refused(card_table + "zeal = 1\ncolour = 1\n", "[card]: unknown key 'zeal'", 7);
    expect_refused(card_table + "[doors]\n", "the card: unknown key 'doors'");
    expect_refused(card_table + "[obfl]\nsize = 1\n", "[obfl]: unknown key 'size'");
    expect_refused(card_table + "[[fpd]]\nid = 1\nname = \"A\"\n", "[[fpd]]: unknown key 'name'");
    expect_refused(region_head + "color = 3\n", "[[fpd.region]]: unknown key 'color'");
    expect_refused(image + "color = 3\n", "[[fpd.region.image]]: unknown key 'color'");
    expect_refused(fault + "kind = \"hang\"\ncode = 5\n", "[[fpd.region.fault]]: unknown key 'code'");
}

TEST_F(WrongDescriptionTest, OfTheCardItself) {
    const std::string hw_version = "hw_version: expected [major, minor], each from 0 to 4294967295";
    expect_refused(card_without("hw_version"), "[card]: " + hw_version, 1);
    expect_refused_after(card_without("hw_version"), "[card]: ",
                         {{"hw_version = [1, 2, 3]", hw_version},
                          {"hw_version = [1, 4294967296]", hw_version},
                          {"hw_version = [\"1\", 2]", hw_version}});
    expect_refused_after(card_without("group"), "[card]: group: expected a whole number",
                         {{"group = 0", " from 1 to 4294967295, found 0"},
                          {"group = \"7\"", ", found a text"},
                          {"group = 7.0", ", found a number"}});
    expect_refused_after(card_without("pid"), "[card]: pid: ",
                         {{"pid = \"A B\"", "expected 1 to 63 characters, none of them a blank or '='"},
                          {"pid = \"" + std::string(64, 'x') + "\"", "longer than 63 characters"},
                          {"pid = \"A\\n\"", "holds a control character"}});
    expect_refused_after(
        card_table, "[card]: ",
        {{"startup = 3", "startup: expected a text, found a whole number"},
         {"upgrade_mode = \"factory\"",
          "upgrade_mode: expected \"regular\", \"mfg\", \"dummy-minor-version\", \"dummy-major-version\" or a number"},
         {"auto_upgrade = 2147483648",
          "auto_upgrade: expected a whole number from -2147483648 to 2147483647, found 2147483648"},
         {"allow_duplicate_names = 1", "allow_duplicate_names: expected true or false, found a whole number"}});
    expect_refused("card = 1\n", "the card: card: expected a table, found a whole number");
}

TEST_F(WrongDescriptionTest, OfItsOtherTables) {
    const std::string out_of_range = "expected seconds from 0 to 2678400";
    expect_refused(card_table + "[watchdog]\ntimeout = 0\n", "[watchdog]: timeout: expected more than 0 seconds");
    expect_refused_after(card_table + "[obfl]\n", "[obfl]: mount_time: ",
                         {{"mount_time = -1.0", out_of_range},
                          {"mount_time = inf", out_of_range},
                          {"mount_time = nan", out_of_range},
                          {"mount_time = \"1\"", "expected a number of seconds, found a text"}});
    expect_refused(card_table + "[scripts]\nreset = 256\n",
                   "[scripts]: reset: expected a whole number from 0 to 255, found 256");
    expect_refused(card_table + "[[led]]\nname = \"A\"\nid = 1\n[[led]]\nname = \"B\"\nid = 1\n",
                   "[[led]]: id: another one has 1 already");
    expect_refused(card_table + "[led]\nid = 1\n",
                   "the card: led: expected tables, each with a heading of its own in double brackets, found a table",
                   7);
    expect_refused("led = [1]\n" + card_table, "the card: led: expected a table, found a whole number", 1);
    expect_refused(card_table + "[[fpd]]\nid = 1\n[[fpd]]\nid = 1\n", "[[fpd]]: id: another one has 1 already");
}

TEST_F(WrongDescriptionTest, OfARegion) {
    const std::string version = "programmed: expected \"major.minor.debug\", each from 0 to 65535";
    expect_refused_after(
        region_table, "[[fpd.region]]: name: ",
        {{"name = \"\"", "is empty"}, {"name = \"" + std::string(103, 'x') + "\"", "longer than 102 characters"}});
    expect_refused_after(region_head, "[[fpd.region]]: ",
                         {{"[[fpd.region]]\nname = \"A\"",
                           "name: 'A' is the same in its first 16 characters as the name of the region in line 9"},
                          {"programmed = \"1.2\"", version},
                          {"programmed = \"1.2.3.4\"", version},
                          {"programmed = \"1.2.65536\"", version},
                          {"programmed = \"1.2. 3\"", version},
                          {"programmed = \"1.2.-3\"", version},
                          {"programmed = 1.2", "programmed: expected a text, found a number"},
                          {"upgrade_type = 256", "upgrade_type: expected a whole number from 0 to 255, found 256"},
                          {"reports = 101", "reports: expected a whole number from 0 to 100, found 101"}});
    const std::string another =
        "running = \"1.0.0\"\nname = \"SixteenCharacterOne\"\n[[fpd]]\nid = 2\n[[fpd.region]]\n";
    expect_refused(region_table + another + "name = \"SixteenCharacterTwo\"\n",
                   "[[fpd.region]]: name: 'SixteenCharacterTwo' is the same in its first 16 characters as the name of "
                   "the region in line 9");
}

TEST_F(WrongDescriptionTest, OfAnImage) {
    const std::string version =
        "version: expected \"major.minor.debug\", at most \"255.65535.255\", \"major.minor\" or \"unknown\"";
    const std::string name = "file: expected the name of a file, without a directory";
    expect_refused_after(image_table, "[[fpd.region.image]]: ",
                         {{"type = 5", "type: expected a whole number from 0 to 4, found 5"},
                          {"type = 0\nversion = \"256.0.0\"", version},
                          {"type = 0\nversion = \"2\"", version},
                          {"type = 0\nversion = \"1.0\"\nfile = \"../a.img\"", name},
                          {"type = 0\nversion = \"1.0\"\nfile = \"..\"", name}});
    expect_refused_after(
        image, "[[fpd.region.image]]: ",
        {{"depends_on = \"SeventeenLettersX\"", "depends_on: longer than 16 characters"},
         {"minimum = \"unknown\"", "minimum: expected a version, found \"unknown\""},
         {"md5 = 12", "md5: expected a text, found a whole number"},
         {"need_upgrade = \"yes\"", "need_upgrade: expected true or false, found a text"},
         {"size = 1073741825", "size: expected a whole number from 0 to 1073741824, found 1073741825"}});
    const std::string second = image + "[[fpd.region.image]]\nversion = \"1.1.0\"\n";
    expect_refused(second + "type = 0\nfile = \"b.img\"\n", "[[fpd.region]] has two images for upgrade type 0", 9);
    expect_refused(second + "type = 1\nfile = \"a.img\"\n", "[[fpd.region]] has two versions in the one file 'a.img'",
                   9);
}

TEST_F(WrongDescriptionTest, OfAFault) {
    expect_refused_after(
        fault, "[[fpd.region.fault]]: ",
        {{"kind = \"burn\"", "kind: expected \"fail\", \"hang\", \"slow\" or \"does_not_stick\""},
         {"kind = \"hang\"\nattempt = 0", "attempt: expected a whole number from 1 to 4294967295, found 0"},
         {"kind = \"hang\"\nat = 101", "at: expected a whole number from -1 to 100, found 101"},
         {"kind = \"fail\"\ncode = 0", "code: 0 is success"}});
    expect_refused(region_head + "reports = 0\n[[fpd.region.fault]]\nkind = \"slow\"\nevery = 1.0\n",
                   "[[fpd.region.fault]] needs a region that reports: its 'reports' is 0", 13);
    expect_refused_after(call_fault, "[[fault]]: ",
                         {{"code = 0", "code: 0 is success"},
                          {"nth = 0", "nth: expected a whole number from 1 to 4294967295, found 0"},
                          {"boot = 0", "boot: expected a whole number from 1 to 4294967295, found 0"}});
    expect_refused(card_table + "[[fault]]\ncode = 1\ncall = \"brd_led_typ_get\"\n",
                   "[[fault]]: call: no closed library has a function 'brd_led_typ_get'");
}

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
             // After a text that ends where it does not seem to.
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
