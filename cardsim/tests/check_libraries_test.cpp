/// What `cardsim check-libraries` finds in libraries with one fault each, in front of the simulated card's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "files.h"
#include "subprocess.h"

using namespace card_tests;
using testing::AllOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char *card_text = R"toml(
[card]
group = 3
board_type = 12568
hw_version = [1, 7]
slot = 2
pid = "SIM-T"
[[led]]
id = 1
name = "Status"
state = 2
color = 4
[[fpd]]
id = 10
[[fpd.region]]
name = "IoFpga"
running = "1.0.0"
[[fpd.region.image]]
type = 0
version = "1.2.0"
file = "io.img"
size = 1000
[[fpd.region]]
name = "FanCpld"
running = "2.0.0"
)toml";

const std::string faulty_libraries = FAULTY_LIBRARIES "/libfaulty_";
const std::string card_library = CARDSIM_LIBRARY;

class CheckLibraries : public testing::Test {
  protected:
    void SetUp() override {
        set_sanitizer_options();
        write_file(root_ / "card.toml", card_text);
    }

    /// Runs the command on the powered card. At the usual speed the limits of an upgrade are 1.2 and 3.6 s.
    Result check(const std::vector<std::string> &arguments, const char *speed = "50") {
        std::vector<std::string> command = {
            CARDSIM_COMMAND, "exec", root_ / "card.toml", "--state",        root_ / "state", "--speed",
            speed,           "--",   "cardsim",           "check-libraries"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run_program(command, root_, std::chrono::seconds(60));
    }
    /// The rows, with one blank between two columns.
    static std::vector<std::string> rows(const Result &result) {
        return lines_of(std::regex_replace(result.out, std::regex(" +"), " "));
    }

    const TemporaryDirectory directory_{"check-libraries"};
    const std::filesystem::path root_ = directory_.path();
};

TEST_F(CheckLibraries, TheSimulatedCardsLibraryHasNoFault) {
    const Result result = check({card_library, "--upgrade", "IoFpga"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(rows(result), Each(Not(StartsWith("FAULT"))));
    EXPECT_THAT(result.out, HasSubstr(", 0 faults, 1 note: the tool can run on these libraries\n"));
    EXPECT_THAT(rows(result),
                Contains("note check_and_get_upgrade_image FanCpld, type 0 2 (no image packaged for upgrade "
                         "type 0) the tool passes it over"));
    EXPECT_THAT(rows(result),
                Contains(ContainsRegex("^ok brd_fpd_upgrade IoFpga, io.img 0: .* s, 10 reports from 10 to 100$")));
    EXPECT_THAT(rows(result), Contains("ok brd_fpd_info_get IoFpga, after it 0: programmed 1.2.0"));
}

TEST_F(CheckLibraries, NothingIsChangedWithoutAnUpgrade) {
    EXPECT_EQ(check({card_library}).status, 0);
    const std::string state = read_file(root_ / "state/state.toml");
    EXPECT_EQ(check({card_library}).status, 0);
    EXPECT_EQ(read_file(root_ / "state/state.toml"), state);
    EXPECT_THAT(state, AllOf(HasSubstr("programmed = [ 1, 0, 0 ]"), Not(HasSubstr("[ 1, 2, 0 ]"))));
}

TEST_F(CheckLibraries, AGroupThatWasNotAskedForIsAFault) {
    EXPECT_EQ(check({card_library, "--group", "4", "--group", "3"}).status, 0);
    const Result result = check({card_library, "--group", "4"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rows(result),
                Contains("FAULT brd_local_card_group_id_get 0: group 3 not the group that was asked for"));
}

TEST_F(CheckLibraries, AMissingFunctionIsAFault) {
    const Result result = check({faulty_libraries + "crashes.so"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rows(result), Contains("FAULT brd_fpd_upgrade symbol not there the tool does not start"));
    EXPECT_THAT(rows(result), Contains("ok brd_led_current_color_get symbol in libfaulty_crashes.so"));
}

TEST_F(CheckLibraries, WhatCannotBeCheckedIsAnsweredByStatus2) {
    EXPECT_EQ(check({}).status, 2);
    EXPECT_EQ(check({"/nowhere.so"}).status, 2);
    const Result result = check({card_library, "--upgrade", "NoSuchFpga"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "NoSuchFpga: the card has no such region\n");
}

TEST_F(CheckLibraries, AFileThatIsNoLibraryIsAFault) {
    write_file(root_ / "text.so", std::string(100, 'x'));
    const Result result = check({root_ / "text.so", card_library});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(rows(result), Contains(AllOf(StartsWith("FAULT (load)"), HasSubstr("invalid ELF header"))));
}

TEST_F(CheckLibraries, AnUpgradeIsNotTriedOnFaultyLibraries) {
    const Result result = check({faulty_libraries + "takes_any_sum.so", card_library, "--upgrade", "IoFpga"});
    EXPECT_THAT(rows(result), Contains("FAULT brd_fpd_upgrade IoFpga not tried not with libraries that have faults"));
}

/// A library with a fault, and the row in which it shows.
struct Faulty {
    const char *fault;
    const char *row;  // extended regular expression
    std::vector<std::string> arguments = {};
    const char *speed = "50";
};

void PrintTo(const Faulty &faulty, std::ostream *out) {
    *out << faulty.fault;
}

class AFault : public CheckLibraries, public testing::WithParamInterface<Faulty> {};

TEST_P(AFault, ShowsInItsRow) {
    const Faulty &faulty = GetParam();
    std::vector<std::string> arguments = {faulty_libraries + faulty.fault + ".so", card_library};
    arguments.insert(arguments.end(), faulty.arguments.begin(), faulty.arguments.end());
    const Result result = check(arguments, faulty.speed);
    EXPECT_THAT(rows(result), Contains(ContainsRegex(faulty.row)));
    EXPECT_EQ(result.status, faulty.row[1] == 'F' ? 1 : 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("the tool can")) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    OfALibrary, AFault,
    testing::Values(
        Faulty{"writes_before", "^FAULT brd_fpd_info_get IoFpga wrote before 'info', "},
        Faulty{"writes_beyond",
               "^FAULT brd_fpd_regions_get FPD 10, room for 2 wrote beyond 'regions' \\(208 bytes\\)$"},
        Faulty{"has_no_end", "^note brd_fpd_info_get IoFpga .* no end: the tool cuts the name$"},
        Faulty{"never_returns", "^FAULT brd_group_led_init group 3 does not come back$", {"--limit", "1"}},
        Faulty{"crashes", "^FAULT brd_led_current_color_get LED 1 Segmentation fault"},
        Faulty{"makes_a_wrong_version", "^note check_and_get_upgrade_image .* version of kind 7, told as a plain one$"},
        Faulty{"changes_the_marks", "^note check_and_get_upgrade_image .* the record's marks were changed; the tool "},
        Faulty{"has_a_wild_text", "^FAULT check_and_get_upgrade_image IoFpga, type 0 Segmentation fault"},
        Faulty{"counts_negative", "^FAULT brd_group_fpd_num_fpds_get group 3 0: 4294967295 no such number$"},
        Faulty{"ignores_err_len",
               "^FAULT brd_intf_fpd_image_md5_validate no such file, err_len 4 wrote beyond 'err_msg' \\(4 bytes\\)$"},
        Faulty{"takes_any_sum", "^FAULT brd_intf_fpd_image_md5_validate another sum 0 a broken image is programmed$"},
        Faulty{"runs_one_command_at_a_time",
               "^FAULT exec_shell_command one command while another runs does not come back$",
               {"--limit", "1"}},
        Faulty{"forgets_the_status", "^FAULT exec_shell_command exit 3 0 a flash that is not mounted looks mounted$"},
        Faulty{"needs_what_is_not_there", "^FAULT brd_group_led_init group 3 .*undefined symbol: no_library_has_this$"},
        Faulty{"hangs_at_its_end", "^FAULT \\(end\\) of the process does not come back$", {"--limit", "1"}},
        Faulty{"reports_elsewhere",
               "^FAULT brd_fpd_upgrade IoFpga, io.img .* reported on another thread: it may outlive the call$",
               {"--upgrade", "IoFpga"}},
        Faulty{"reports_nothing", "^note brd_fpd_upgrade IoFpga, io.img .* without a report", {"--upgrade", "IoFpga"}},
        Faulty{"reports_backwards", "^note brd_fpd_upgrade IoFpga, io.img .* go backwards$", {"--upgrade", "IoFpga"}},
        Faulty{"upgrades_for_ever",
               "^FAULT brd_fpd_upgrade IoFpga, io.img does not come back$",
               {"--upgrade", "IoFpga"},
               "1000"},
        Faulty{"upgrades_anything",
               "^FAULT brd_fpd_upgrade IoFpga, no such image 0 nothing was programmed",
               {"--upgrade", "IoFpga"}}),
    [](const testing::TestParamInfo<Faulty> &row) { return row.param.fault; });

}  // namespace
