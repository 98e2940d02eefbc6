/// What is planned, in which sequence queue, and what is refused with which words.

#include "card_test.h"

using namespace card_tests;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;

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

class Plan : public CardTest {
  protected:
    /// Plans, and expects that the answer fits the plan.
    void plan_for(const std::vector<Region> &regions, const std::string &keys = {}, const std::string &tables = {}) {
        describe({.keys = keys, .tables = tables, .fpds = fpd(10, regions)});
        const Result result = tool({"-b", "-c", "check_upgrade"});
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, plan().empty() ? 0 : 1);
    }
};

class PlanTable : public Plan, public testing::WithParamInterface<Row> {
  protected:
    void expect_plan(const Row &row) const {
        EXPECT_EQ(plan(), row.planned);
        for (const Told &told : row.told) EXPECT_EQ(messages(tagged(told.tag)), told.messages) << told.tag;
    }
};

TEST_P(PlanTable, IsBuilt) {
    plan_for(GetParam().regions, GetParam().keys, GetParam().tables);
    expect_plan(GetParam());
    EXPECT_THAT(errors(), ElementsAreArray(GetParam().errors));
}

/// Those whose errors come in no order that matters.
class CircularPlan : public PlanTable {};

TEST_P(CircularPlan, IsRefused) {
    plan_for(GetParam().regions);
    expect_plan(GetParam());
    EXPECT_THAT(errors(), UnorderedElementsAreArray(GetParam().errors));
}

Region needs(const std::string &name, const std::string &dependency) {
    return {.name = name, .image_keys = depends_on(dependency)};
}

/// Of an FPD that is upgraded only if another one asks for it.
Region available(const std::string &name, const std::string &keys = {}) {
    return {.name = name, .keys = keys, .image_keys = "need_upgrade = false\n"};
}

std::string sequence(unsigned number) {
    return "sequence = " + std::to_string(number) + "\n";
}

std::string error(const std::string &tag, const std::string &message) {
    return "[FPD] [ERROR] [" + tag + "] " + message;
}
std::string bad_dependency(const std::string &name, const std::string &dependency, const std::string &state) {
    return error("BuildQDependFpdBad",
                 "FPD " + name + " can't be upgraded due to dependency FPD " + dependency + " state '" + state + "'");
}
std::string circle(const std::string &name, const std::string &dependency) {
    return error("BuildQFpdCircularDepend", "FPD " + name + " has found a circular dependency FPD " + dependency);
}
std::string out_of_range(const std::string &name) {
    return error("BuildQFpdSeqOutOfRange", "FPD " + name + " sequence queue # 16 is out of range");
}
std::string not_ready(const std::string &name, const std::string &state) {
    return "FPD " + name + " doesn't have a valid info or Description, state '" + state + "'";
}

const std::vector<Row> order = {
    {.name = "FpdsOfOneQueueKeepTheirOrder",
     .regions = {{.name = "C"}, {.name = "A"}, {.name = "B"}},
     .planned = {"C 0", "A 0", "B 0"}},
    {.name = "ADependencyThatCameBefore",
     .regions = {{.name = "Base"}, needs("Top", "Base")},
     .planned = {"Base 0", "Top 1"},
     .told = {{"BuildQRevisitAfterDependFpd", {}}}},
    {.name = "ADependencyThatComesLater",
     .regions = {needs("Top", "Base"), {.name = "Base"}},
     .planned = {"Base 0", "Top 1"},
     .told = {{"BuildQRevisitAfterDependFpd", {"FPD Top would be revisted after dependency FPD Base resolved"}}}},
    {.name = "AChainInTheWorstOrder",
     .regions = {needs("D", "C"), needs("C", "B"), needs("B", "A"), {.name = "A"}},
     .planned = {"A 0", "B 1", "C 2", "D 3"}},
    // One image depends on one FPD: the diamond's tip is reached through both of its sides by two regions.
    {.name = "ADiamond",
     .regions = {needs("TipLeft", "Left"),
                 needs("TipRight", "Right"),
                 needs("Left", "Base"),
                 needs("Right", "Base"),
                 {.name = "Base"}},
     .planned = {"Base 0", "Left 1", "Right 1", "TipLeft 2", "TipRight 2"}},
    {.name = "ADependentIsRaisedAboveItsDependencyAndNoFurther",
     .regions = {{.name = "Base", .keys = sequence(4)},
                 {.name = "Low", .keys = sequence(2), .image_keys = depends_on("Base")},
                 {.name = "Same", .keys = sequence(4), .image_keys = depends_on("Base")},
                 {.name = "High", .keys = sequence(9), .image_keys = depends_on("Base")}},
     .planned = {"Base 4", "Low 5", "Same 5", "High 9"}},
};

const std::vector<Row> asked_for = {
    {.name = "WhatIsOnlyAvailableIsNotPlanned",
     .regions = {available("Base")},
     .planned = {},
     .told = {{"BuildQFpdUpgAvailable",
               {"FPD Base has minor down revision available swver 0x1000000 fwver 0x1000100"}}}},
    {.name = "WhatIsOnlyAvailableIsPlannedLastForADependent",
     .regions = {available("Base"), needs("Top", "Base"), {.name = "Other"}},
     .planned = {"Top 1", "Other 0", "Base 0"},
     .told = {{"BuildQDepFpdUpgRequired", {"FPD Top required corresponding dependent FPD Base to be upgraded"}},
              {"BuildFpdDepAddedSeqQueue", {"FPD Base would be upgrade in the sequence queue # 0"}},
              {"BuildQFpdDepUpgradeable", {"FPD Base is dependency upgradeable"}}}},
    {.name = "TwoDependentsOfWhatIsOnlyAvailable",
     .regions = {needs("One", "Base"), needs("Two", "Base"), available("Base")},
     .planned = {"One 1", "Two 1", "Base 0"}},
    {.name = "ADependencyThatIsCurrentIsNotPlanned",
     .regions = {{.name = "Base", .running = "1.1.0"}, needs("Top", "Base")},
     .planned = {"Top 1"},
     .told = {{"BuildQFpdUpgNotNeeded", {"FPD Base doesn't require an Upgrade"}}}},
};

const std::vector<Row> refused = {
    {.name = "AMissingDependency",
     .regions = {needs("Top", "Nowhere"), {.name = "Other"}},
     .planned = {"Other 0"},
     .errors = {error("BuildQFpdDependNotFound",
                      "FPD Top has a Dependency FPD Nowhere and couldn't find the dependency in the fpd queue")}},
    {.name = "ADependencyWithoutAnImage",
     .regions = {{.name = "Base", .packaged = ""}, needs("Top", "Base"), needs("Tip", "Top")},
     .planned = {},
     .errors = {error("InitFpdDescFail",
                      "Does not have a Firmware packaged for FPD Base err_msg no image packaged for "
                      "upgrade type 0"),
                bad_dependency("Top", "Base", "FPD Description Failed"),
                bad_dependency("Tip", "Top", "FPD Dependency Failed")}},
    {.name = "ADependencyThatThisRunSkips",
     .regions = {{.name = "Base", .keys = "capabilities = 0x1"}, needs("Top", "Base")},
     .planned = {},
     .errors = {bad_dependency("Top", "Base", "FPD Capability Received")}},
    {.name = "AVersionThatIsTooOld",
     .regions = {{.name = "Base", .image_keys = "minimum = \"1.0.1\"\n"}, needs("Top", "Base")},
     .planned = {},
     .errors = {error("BuildQRevNotSupportUpgrade",
                      "FPD Base current version 1.0.0 doesn't support upgrade and "
                      "supported version is 1.0.1 and above"),
                bad_dependency("Top", "Base", "FPD Can't be Upgraded")}},
    {.name = "AVersionThatIsJustNewEnoughIsNot",
     .regions = {{.name = "Base", .image_keys = "minimum = \"1.0.0\"\n"}},
     .planned = {"Base 0"}},
    {.name = "ATypeThatCannotBeUpgraded",
     .regions = {{.name = "Fixed", .keys = "upgrade_type = 2"}},
     .planned = {},
     .errors = {error("BuildQFpdCantUpgraded", "FPD Fixed with Upgrade type 2 can't be upgraded ")}},
    {.name = "ADependencyOfATypeThatCannotBeUpgraded",
     .regions = {available("Fixed", "upgrade_type = 0"), needs("Top", "Fixed")},
     .planned = {"Top 1"},
     .errors = {error("BuildQFpdDepCantUpgraded", "FPD Fixed with Upgrade type 0 can't be dependency upgraded ")}},
    {.name = "AManufacturingTypeInARegularRun",
     .regions = {{.name = "Golden", .keys = "upgrade_type = 5"}},
     .planned = {},
     .told = {{"BuildQFpdMfgOnlyUpgradeable", {"FPD Golden with Upgrade type 5 can only upgradeable in MFG"}}}},
    {.name = "AnFpdThatDependsOnItself",
     .regions = {needs("Self", "Self"), {.name = "Other"}},
     .planned = {"Other 0"},
     .errors = {circle("Self", "Self")}},
    {.name = "ASequenceNumberThatIsOutOfRange",
     .regions = {{.name = "Last", .keys = sequence(15)}, {.name = "Beyond", .keys = sequence(16)}},
     .planned = {"Last 15"},
     .errors = {out_of_range("Beyond")}},
    {.name = "ADependentThatIsRaisedOutOfRange",
     .regions = {{.name = "Last", .keys = sequence(15)}, needs("Top", "Last"), needs("Tip", "Top")},
     .planned = {"Last 15"},
     .errors = {out_of_range("Top"), bad_dependency("Tip", "Top", "FPD Can't be Upgraded")}},
};

const std::vector<Row> circles = {
    {.name = "OfTwo",
     .regions = {needs("A", "B"), {.name = "Other"}, needs("B", "A")},
     .planned = {"Other 0"},
     .errors = {circle("A", "B"), circle("B", "A")}},
    {.name = "OfThreeAndWhatLeadsIntoIt",
     .regions = {needs("Tail", "A"),
                 needs("A", "B"),
                 needs("B", "C"),
                 needs("C", "A"),
                 {.name = "Other"},
                 needs("Top", "Other")},
     .planned = {"Other 0", "Top 1"},
     .errors = {circle("Tail", "A"), circle("A", "B"), circle("B", "C"), circle("C", "A")}},
};

const std::vector<Row> discovered = {
    {.name = "AnImageThatIsNotTheOneThatWasPackaged",
     .regions = {{.name = "Bad", .image_keys = "md5 = \"00000000000000000000000000000000\""}},
     .planned = {},
     .errors = {StartsWith(
         error("InitFpdMd5SumFailed", "md5 checksum validation failed, /pkg/fpd/ucode/bad.img: its MD5 sum is "))},
     .told = {{"InitMd5CalInfo", {"FPD: Bad Dir: /pkg/fpd/ucode Image: bad.img MD5: 00000000000000000000000000000000"}},
              {"BuildQFpdNotReady", {not_ready("Bad", "FPD Description Failed")}}}},
    {.name = "TheFirstOfTwoOfOneName",
     .regions = {{.name = "Twin"}, {.name = "Twin"}, {.name = "Other"}},
     .planned = {"Twin 0", "Other 0"},
     .errors = {error("AddFpdQueueDupEntry", "adding a Duplicate FPD Twin found"),
                error("InitFpdAddQFail", "Failed to add FPD into upg_queue.queue err_msg Duplicate FPD Twin found")},
     .keys = "allow_duplicate_names = true"},
    {.name = "NoRegionWhoseNameCannotBeRead",
     .regions = {{.name = "Lost"}, {.name = "Found"}},
     .planned = {"Found 0"},
     .errors = {error("FpdNameGetRegionsFail", "BRD GET FPD Region failed rc 3"),
                error("InitFpdGetNameFail", "Failed to get FPD name for group id 3 fpd obj id 10 region 0")},
     .tables = call_fault("brd_fpd_regions_get", 3, "nth = 1")},
    {.name = "NoRegionWhoseInformationCannotBeRead",
     .regions = {{.name = "Mute"}, {.name = "Found"}},
     .planned = {"Found 0"},
     .errors = {error("FpdInfoGetBrdFail", "Failed to get FPD info, error no answer"),
                error("InitFpdInfoGetFail", "Failed to get FPD info, error no answer")},
     .told = {{"BuildQFpdNotReady", {not_ready("Mute", "FPD Info get Failed")}}},
     .tables = call_fault("brd_fpd_info_get", 3, "nth = 1\ntext = \"no answer\"")},
    {.name = "NoVersionThatIsTooLarge",
     .regions = {{.name = "Large", .running = "256.1.0"}, {.name = "Found"}},
     .planned = {"Found 0"},
     .errors = {error("InfoGetMakeFpdVerFail",
                      "Failed to make FPD Programmed version for name Large major 0x100 minor 0x1 debug 0x0"),
                error("InitFpdInfoGetFail",
                      "Failed to get FPD info, error Failed to make FPD Programmed version for "
                      "name Large major 0x100 minor 0x1 debug 0x0")}},
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

std::string mfg_image(const std::string &file) {
    return "[[fpd.region.image]]\ntype = 1\nversion = \"2.0.0\"\nfile = \"" + file + "\"\nsize = 10\n";
}

const std::vector<Row> manufacturing = {
    // The first stage is built twice, the second time into the same queue.
    {.name = "NothingToUnlock",
     .regions = {{.name = "IoFpga", .tables = mfg_image("mfg.img")}},
     .planned = {},
     .errors = {error("AddFpdQueueDupEntry", "adding a Duplicate FPD IoFpga found"),
                error("InitFpdAddQFail", "Failed to add FPD into upg_queue.queue err_msg Duplicate FPD IoFpga found")},
     .keys = "upgrade_mode = \"mfg\""},
    {.name = "NothingThatCanUnlock",
     .regions = {{.name = "Primary", .keys = "capabilities = 0x1008", .tables = mfg_image("a.img")},
                 {.name = "Golden", .keys = "upgrade_type = 5", .tables = mfg_image("b.img")}},
     .planned = {"Primary 0", "Primary 0", "Golden 0"},
     .told = {{"FpdUpgdStageReqGoldenUnlock", {"Building FPDs to unlock Golden"}}},
     .keys = "upgrade_mode = \"mfg\""},
};

std::string name_of(const testing::TestParamInfo<Row> &info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Order, PlanTable, testing::ValuesIn(order), name_of);
INSTANTIATE_TEST_SUITE_P(AskedFor, PlanTable, testing::ValuesIn(asked_for), name_of);
INSTANTIATE_TEST_SUITE_P(Refused, PlanTable, testing::ValuesIn(refused), name_of);
INSTANTIATE_TEST_SUITE_P(Discovered, PlanTable, testing::ValuesIn(discovered), name_of);
INSTANTIATE_TEST_SUITE_P(Manufacturing, PlanTable, testing::ValuesIn(manufacturing), name_of);
INSTANTIATE_TEST_SUITE_P(Circle, CircularPlan, testing::ValuesIn(circles), name_of);

TEST_F(Plan, TheListShowsDependenciesFirst) {
    describe({.fpds = fpd(10, {needs("Top", "Middle"), needs("Middle", "Base"), {.name = "Base"}})});
    EXPECT_EQ(tool({"-b", "-c", "list_upgrade"}).out,
              "FPD name         Available Version\n"
              "Base             1.1.0\n"
              "Middle           1.1.0\n"
              "Top              1.1.0\n");
}

TEST_F(Plan, AnImageThatIsMissing) {
    describe({.fpds = fpd(10, {plain_region("Gone")})});
    EXPECT_EQ(shell("rm /pkg/fpd/ucode/gone.img; bootup_fpd -b -c check_upgrade").status, 0);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("[InitFpdMd5SumFailed] md5 checksum validation failed, ")));
}

TEST_F(Plan, AnObjectWhoseRegionsCannotBeCounted) {
    // The second call of the first object comes with its first region's name.
    describe({.tables = call_fault("brd_fpd_num_regions_get", 3, "nth = 1"),
              .fpds = fpd(10, {{.name = "Lost"}}) + fpd(11, {{.name = "Found"}})});
    EXPECT_EQ(tool({"-b", "-c", "check_upgrade"}).status, 1);
    EXPECT_THAT(plan(), ElementsAre("Found 0"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [LoadFpdsBrdNumRegionGetFail] Failed to get No. of Regions for "
                                      "group id 3 fpd obj id 10"));
}

}  // namespace
