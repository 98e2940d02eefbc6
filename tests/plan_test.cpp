/// What is planned, and in which sequence queue, beside the runs of order/ and the shapes of dependencies.

#include "card_test.h"

using namespace card_tests;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct Told {
    std::string tag;
    std::vector<std::string> messages;  ///< all of that tag
};

/// A plan of a back-end run.
struct Row {
    std::string name;
    std::vector<Region> regions;
    std::vector<std::string> planned;  ///< with the numbers of their queues, in the order of planning
    std::vector<testing::Matcher<std::string>> errors = {};
    std::vector<Told> told = {};
    std::string keys = {};    ///< of the card
    std::string tables = {};  ///< of the card
};

void PrintTo(const Row &row, std::ostream *stream) {
    *stream << row.name;
}

class Plan : public CardTest, public testing::WithParamInterface<Row> {};

TEST_P(Plan, IsBuilt) {
    const Row &row = GetParam();
    describe({.keys = row.keys, .tables = row.tables, .fpds = fpd(10, row.regions)});
    const Result result = tool({"-b", "-c", "check_upgrade"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, row.planned.empty() ? 0 : 1);
    EXPECT_EQ(plan(), row.planned);
    for (const Told &told : row.told) EXPECT_EQ(messages(tagged(told.tag)), told.messages) << told.tag;
    EXPECT_THAT(errors(), ElementsAreArray(row.errors));
}

Region needs(const std::string &name, const std::string &dependency) {
    return {.name = name, .image_keys = depends_on(dependency)};
}

/// Of an FPD that is upgraded only if another one asks for it.
Region available(const std::string &name) {
    return {.name = name, .image_keys = "need_upgrade = false\n"};
}

std::string sequence(unsigned number) {
    return "sequence = " + std::to_string(number) + "\n";
}

std::string error(const std::string &tag, const std::string &message) {
    return "[FPD] [ERROR] [" + tag + "] " + message;
}

const std::vector<Row> plans = {
    {.name = "FpdsOfOneQueueKeepTheirOrder",
     .regions = {{.name = "C"}, {.name = "A"}, {.name = "B"}},
     .planned = {"C 0", "A 0", "B 0"}},
    {.name = "ADependentIsRaisedAboveItsDependencyAndNoFurther",
     .regions = {{.name = "Base", .keys = sequence(4)},
                 {.name = "Low", .keys = sequence(2), .image_keys = depends_on("Base")},
                 {.name = "Same", .keys = sequence(4), .image_keys = depends_on("Base")},
                 {.name = "High", .keys = sequence(9), .image_keys = depends_on("Base")}},
     .planned = {"Base 4", "Low 5", "Same 5", "High 9"}},
    {.name = "TwoDependentsOfWhatIsOnlyAvailable",
     .regions = {needs("One", "Base"), needs("Two", "Base"), available("Base")},
     .planned = {"One 1", "Two 1", "Base 0"}},
    {.name = "AVersionThatIsJustNewEnoughIsNot",
     .regions = {{.name = "Base", .image_keys = "minimum = \"1.0.0\"\n"}},
     .planned = {"Base 0"}},
    {.name = "TheFirstOfTwoOfOneName",
     .regions = {{.name = "Twin"}, {.name = "Twin"}, {.name = "Other"}},
     .planned = {"Twin 0", "Other 0"},
     .errors = {error("AddFpdQueueDupEntry", "adding a Duplicate FPD Twin found"),
                error("InitFpdAddQFail", "Failed to add FPD into upg_queue.queue err_msg Duplicate FPD Twin found")},
     .keys = "allow_duplicate_names = true"},
    // The description is left empty by either.
    {.name = "AVerdictWhoseLowByteIsZero",
     .regions = {{.name = "IoFpga"}},
     .planned = {},
     .errors = {StartsWith(error("InitFpdMd5SumFailed", "md5 checksum validation failed, /pkg/fpd/ucode"))},
     .told = {{"InitMd5CalInfo", {"FPD: IoFpga Dir: /pkg/fpd/ucode Image:  MD5: "}}},
     .tables = call_fault("check_and_get_upgrade_image", 0x300)},
    {.name = "NoVerdictWhoseLowByteIsNot",
     .regions = {{.name = "IoFpga"}},
     .planned = {},
     .errors = {error("InitFpdDescFail", "Does not have a Firmware packaged for FPD IoFpga err_msg torn table")},
     .told = {{"InitMd5CalInfo", {}}},
     .tables = call_fault("check_and_get_upgrade_image", 0x301, "text = \"torn table\"")},
    {.name = "WhatWasFoundIsTold",
     .regions = {{.name = "IoFpga", .keys = "programmed = \"1.0.5\"", .image_keys = "status_msg = \"do it\""}},
     .planned = {"IoFpga 0"},
     .told = {{"InitFpdVerion",
               {"FPD IoFpga run version 1.0.0 program verson 1.0.5 packaged version 1.1.0 need_upgrade 1 status_msg "
                "do it"}},
              {"InitFpdCapabilities", {"FPD IoFpga capabilities 0x8"}}}},
};

INSTANTIATE_TEST_SUITE_P(, Plan, testing::ValuesIn(plans), [](const auto &row) { return row.param.name; });

using PlanWithoutImage = CardTest;

TEST_F(PlanWithoutImage, LeavesItsFpdOut) {
    describe({.fpds = fpd(10, {plain_region("Gone")})});
    EXPECT_EQ(shell("rm /pkg/fpd/ucode/gone.img; bootup_fpd -b -c check_upgrade").status, 0);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("[InitFpdMd5SumFailed] md5 checksum validation failed, ")));
}

}  // namespace
