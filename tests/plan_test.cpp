/// What is planned, in which sequence queue, and what is refused with which words.

#include "card_test.h"

using namespace card_tests;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class Plan : public CardTest {
  protected:
    /// The plan of a backend run for these regions, and how the card judged it.
    std::vector<std::string> plan_for(const std::vector<Region> &regions, const std::string &keys = {},
                                      const std::string &tables = {}) {
        describe({.keys = keys, .tables = tables, .fpds = fpd(10, regions)});
        const Result result = tool({"-b", "-c", "check_upgrade"});
        EXPECT_EQ(result.err, "");
        const std::vector<std::string> planned = plan();
        EXPECT_EQ(result.status, planned.empty() ? 0 : 1);
        return planned;
    }
};

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

// ---- order

TEST_F(Plan, FpdsOfOneQueueKeepTheirOrder) {
    EXPECT_THAT(plan_for({{.name = "C"}, {.name = "A"}, {.name = "B"}}), ElementsAre("C 0", "A 0", "B 0"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Plan, ADependencyThatCameBefore) {
    EXPECT_THAT(plan_for({{.name = "Base"}, needs("Top", "Base")}), ElementsAre("Base 0", "Top 1"));
    EXPECT_THAT(tagged("BuildQRevisitAfterDependFpd"), IsEmpty());
}

TEST_F(Plan, ADependencyThatComesLater) {
    EXPECT_THAT(plan_for({needs("Top", "Base"), {.name = "Base"}}), ElementsAre("Base 0", "Top 1"));
    EXPECT_THAT(messages(tagged("BuildQRevisitAfterDependFpd")),
                ElementsAre("FPD Top would be revisted after dependency FPD Base resolved"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Plan, AChainInTheWorstOrder) {
    EXPECT_THAT(plan_for({needs("D", "C"), needs("C", "B"), needs("B", "A"), {.name = "A"}}),
                ElementsAre("A 0", "B 1", "C 2", "D 3"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Plan, ADiamond) {
    // One image depends on one FPD: the diamond's tip is reached through both of its sides by two regions.
    EXPECT_THAT(plan_for({needs("TipLeft", "Left"),
                          needs("TipRight", "Right"),
                          needs("Left", "Base"),
                          needs("Right", "Base"),
                          {.name = "Base"}}),
                ElementsAre("Base 0", "Left 1", "Right 1", "TipLeft 2", "TipRight 2"));
}

TEST_F(Plan, ADependentIsRaisedAboveItsDependencyAndNoFurther) {
    EXPECT_THAT(plan_for({{.name = "Base", .keys = sequence(4)},
                          {.name = "Low", .keys = sequence(2), .image_keys = depends_on("Base")},
                          {.name = "Same", .keys = sequence(4), .image_keys = depends_on("Base")},
                          {.name = "High", .keys = sequence(9), .image_keys = depends_on("Base")}}),
                ElementsAre("Base 4", "Low 5", "Same 5", "High 9"));
}

TEST_F(Plan, TheListShowsDependenciesFirst) {
    describe({.fpds = fpd(10, {needs("Top", "Middle"), needs("Middle", "Base"), {.name = "Base"}})});
    EXPECT_EQ(tool({"-b", "-c", "list_upgrade"}).out,
              "FPD name         Available Version\n"
              "Base             1.1.0\n"
              "Middle           1.1.0\n"
              "Top              1.1.0\n");
}

// ---- FPDs that are upgraded for another one

TEST_F(Plan, WhatIsOnlyAvailableIsNotPlanned) {
    EXPECT_THAT(plan_for({available("Base")}), IsEmpty());
    EXPECT_THAT(texts(tagged("BuildQFpdUpgAvailable")),
                ElementsAre("[FPD] [INFO] [BuildQFpdUpgAvailable] FPD Base has minor down revision available swver "
                            "0x1000000 fwver 0x1000100"));
}

TEST_F(Plan, WhatIsOnlyAvailableIsPlannedLastForADependent) {
    EXPECT_THAT(plan_for({available("Base"), needs("Top", "Base"), {.name = "Other"}}),
                ElementsAre("Top 1", "Other 0", "Base 0"));
    EXPECT_THAT(messages(tagged("BuildQDepFpdUpgRequired")),
                ElementsAre("FPD Top required corresponding dependent FPD Base to be upgraded"));
    EXPECT_THAT(messages(tagged("BuildFpdDepAddedSeqQueue")),
                ElementsAre("FPD Base would be upgrade in the sequence queue # 0"));
    EXPECT_THAT(messages(tagged("BuildQFpdDepUpgradeable")), ElementsAre("FPD Base is dependency upgradeable"));
}

TEST_F(Plan, TwoDependentsOfWhatIsOnlyAvailable) {
    EXPECT_THAT(plan_for({needs("One", "Base"), needs("Two", "Base"), available("Base")}),
                ElementsAre("One 1", "Two 1", "Base 0"));
}

TEST_F(Plan, ADependencyThatIsCurrentIsNotPlanned) {
    EXPECT_THAT(plan_for({{.name = "Base", .running = "1.1.0"}, needs("Top", "Base")}), ElementsAre("Top 1"));
    EXPECT_THAT(messages(tagged("BuildQFpdUpgNotNeeded")), ElementsAre("FPD Base doesn't require an Upgrade"));
}

// ---- what is refused

TEST_F(Plan, AMissingDependency) {
    EXPECT_THAT(plan_for({needs("Top", "Nowhere"), {.name = "Other"}}), ElementsAre("Other 0"));
    EXPECT_THAT(errors(),
                ElementsAre("[FPD] [ERROR] [BuildQFpdDependNotFound] FPD Top has a Dependency FPD Nowhere and "
                            "couldn't find the dependency in the fpd queue"));
}

TEST_F(Plan, ADependencyWithoutAnImage) {
    EXPECT_THAT(plan_for({{.name = "Base", .packaged = ""}, needs("Top", "Base"), needs("Tip", "Top")}), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [InitFpdDescFail] Does not have a Firmware packaged for FPD Base "
                                      "err_msg no image packaged for upgrade type 0",
                                      "[FPD] [ERROR] [BuildQDependFpdBad] FPD Top can't be upgraded due to dependency "
                                      "FPD Base state 'FPD Description Failed'",
                                      "[FPD] [ERROR] [BuildQDependFpdBad] FPD Tip can't be upgraded due to dependency "
                                      "FPD Top state 'FPD Dependency Failed'"));
}

TEST_F(Plan, ADependencyThatThisRunSkips) {
    EXPECT_THAT(plan_for({{.name = "Base", .keys = "capabilities = 0x1"}, needs("Top", "Base")}), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("FPD Base state 'FPD Capability Received'")));
}

TEST_F(Plan, AVersionThatIsTooOld) {
    EXPECT_THAT(plan_for({{.name = "Base", .image_keys = "minimum = \"1.0.1\"\n"}, needs("Top", "Base")}), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [BuildQRevNotSupportUpgrade] FPD Base current version 1.0.0 "
                                      "doesn't support upgrade and supported version is 1.0.1 and above",
                                      "[FPD] [ERROR] [BuildQDependFpdBad] FPD Top can't be upgraded due to dependency "
                                      "FPD Base state 'FPD Can't be Upgraded'"));
}

TEST_F(Plan, AVersionThatIsJustNewEnough) {
    EXPECT_THAT(plan_for({{.name = "Base", .image_keys = "minimum = \"1.0.0\"\n"}}), ElementsAre("Base 0"));
}

TEST_F(Plan, ATypeThatCannotBeUpgraded) {
    EXPECT_THAT(plan_for({{.name = "Fixed", .keys = "upgrade_type = 2"}}), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [BuildQFpdCantUpgraded] FPD Fixed with Upgrade type 2 can't be "
                                      "upgraded "));
}

TEST_F(Plan, ADependencyOfATypeThatCannotBeUpgraded) {
    Region fixed = available("Fixed");
    fixed.keys = "upgrade_type = 0";
    EXPECT_THAT(plan_for({fixed, needs("Top", "Fixed")}), ElementsAre("Top 1"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [BuildQFpdDepCantUpgraded] FPD Fixed with Upgrade type 0 can't be "
                                      "dependency upgraded "));
}

TEST_F(Plan, AManufacturingTypeInARegularRun) {
    EXPECT_THAT(plan_for({{.name = "Golden", .keys = "upgrade_type = 5"}}), IsEmpty());
    EXPECT_THAT(texts(tagged("BuildQFpdMfgOnlyUpgradeable")),
                ElementsAre("[FPD] [DEBUG] [BuildQFpdMfgOnlyUpgradeable] FPD Golden with Upgrade type 5 can only "
                            "upgradeable in MFG"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Plan, AnFpdThatDependsOnItself) {
    EXPECT_THAT(plan_for({needs("Self", "Self"), {.name = "Other"}}), ElementsAre("Other 0"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [BuildQFpdCircularDepend] FPD Self has found a circular "
                                      "dependency FPD Self"));
}

TEST_F(Plan, TwoFpdsThatDependOnEachOther) {
    EXPECT_THAT(plan_for({needs("A", "B"), {.name = "Other"}, needs("B", "A")}), ElementsAre("Other 0"));
    EXPECT_THAT(errors(), testing::UnorderedElementsAre(
                              "[FPD] [ERROR] [BuildQFpdCircularDepend] FPD A has found a circular dependency FPD B",
                              "[FPD] [ERROR] [BuildQFpdCircularDepend] FPD B has found a circular dependency FPD A"));
}

TEST_F(Plan, ACircleAndWhatLeadsIntoIt) {
    EXPECT_THAT(plan_for({needs("Tail", "A"),
                          needs("A", "B"),
                          needs("B", "C"),
                          needs("C", "A"),
                          {.name = "Other"},
                          needs("Top", "Other")}),
                ElementsAre("Other 0", "Top 1"));
    EXPECT_THAT(errors(), testing::UnorderedElementsAre(
                              "[FPD] [ERROR] [BuildQFpdCircularDepend] FPD Tail has found a circular dependency FPD A",
                              "[FPD] [ERROR] [BuildQFpdCircularDepend] FPD A has found a circular dependency FPD B",
                              "[FPD] [ERROR] [BuildQFpdCircularDepend] FPD B has found a circular dependency FPD C",
                              "[FPD] [ERROR] [BuildQFpdCircularDepend] FPD C has found a circular dependency FPD A"));
}

TEST_F(Plan, ASequenceNumberThatIsOutOfRange) {
    EXPECT_THAT(plan_for({{.name = "Last", .keys = sequence(15)}, {.name = "Beyond", .keys = sequence(16)}}),
                ElementsAre("Last 15"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [BuildQFpdSeqOutOfRange] FPD Beyond sequence queue # 16 is out of "
                                      "range"));
}

TEST_F(Plan, ADependentThatIsRaisedOutOfRange) {
    EXPECT_THAT(plan_for({{.name = "Last", .keys = sequence(15)}, needs("Top", "Last"), needs("Tip", "Top")}),
                ElementsAre("Last 15"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [BuildQFpdSeqOutOfRange] FPD Top sequence queue # 16 is out of "
                                      "range",
                                      "[FPD] [ERROR] [BuildQDependFpdBad] FPD Tip can't be upgraded due to dependency "
                                      "FPD Top state 'FPD Can't be Upgraded'"));
}

// ---- discovery

TEST_F(Plan, AnImageThatIsNotTheOneThatWasPackaged) {
    EXPECT_THAT(
        plan_for({{.name = "Bad", .image_keys = "md5 = \"00000000000000000000000000000000\""}, {.name = "Good"}}),
        ElementsAre("Good 0"));
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("[InitFpdMd5SumFailed] md5 checksum validation failed, "
                                                "/pkg/fpd/ucode/bad.img: its MD5 sum is ")));
    EXPECT_THAT(messages(tagged("InitMd5CalInfo")),
                Contains("FPD: Bad Dir: /pkg/fpd/ucode Image: bad.img MD5: 00000000000000000000000000000000"));
    EXPECT_THAT(messages(tagged("BuildQFpdNotReady")),
                ElementsAre("FPD Bad doesn't have a valid info or Description, state 'FPD Description Failed'"));
}

TEST_F(Plan, AnImageThatIsMissing) {
    describe({.fpds = fpd(10, {plain_region("Gone")})});
    EXPECT_EQ(shell("rm /pkg/fpd/ucode/gone.img; bootup_fpd -b -c check_upgrade").status, 0);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("[InitFpdMd5SumFailed] md5 checksum validation failed, ")));
}

TEST_F(Plan, TheSecondOfTwoOfOneName) {
    EXPECT_THAT(plan_for({{.name = "Twin"}, {.name = "Twin"}, {.name = "Other"}}, "allow_duplicate_names = true"),
                ElementsAre("Twin 0", "Other 0"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [AddFpdQueueDupEntry] adding a Duplicate FPD Twin found",
                                      "[FPD] [ERROR] [InitFpdAddQFail] Failed to add FPD into upg_queue.queue err_msg "
                                      "Duplicate FPD Twin found"));
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

TEST_F(Plan, ARegionWhoseNameCannotBeRead) {
    EXPECT_THAT(plan_for({{.name = "Lost"}, {.name = "Found"}}, "", call_fault("brd_fpd_regions_get", 3, "nth = 1")),
                ElementsAre("Found 0"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdNameGetRegionsFail] BRD GET FPD Region failed rc 3",
                                      "[FPD] [ERROR] [InitFpdGetNameFail] Failed to get FPD name for group id 3 fpd "
                                      "obj id 10 region 0"));
}

TEST_F(Plan, ARegionWhoseInformationCannotBeRead) {
    EXPECT_THAT(plan_for({{.name = "Mute"}, {.name = "Found"}}, "",
                         call_fault("brd_fpd_info_get", 3, "nth = 1\ntext = \"no answer\"")),
                ElementsAre("Found 0"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdInfoGetBrdFail] Failed to get FPD info, error no answer",
                                      HasSubstr("[InitFpdInfoGetFail] Failed to get FPD info, error ")));
    EXPECT_THAT(messages(tagged("BuildQFpdNotReady")),
                ElementsAre("FPD Mute doesn't have a valid info or Description, state 'FPD Info get Failed'"));
}

TEST_F(Plan, AVersionThatIsTooLarge) {
    EXPECT_THAT(plan_for({{.name = "Large", .running = "256.1.0"}, {.name = "Found"}}), ElementsAre("Found 0"));
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [InfoGetMakeFpdVerFail] Failed to make FPD Programmed version for "
                                      "name Large major 0x100 minor 0x1 debug 0x0",
                                      HasSubstr("[InitFpdInfoGetFail] Failed to get FPD info, error ")));
}

TEST_F(Plan, OnlyTheLowBitsOfTheDescriptionsVerdictCount) {
    EXPECT_THAT(plan_for({{.name = "IoFpga"}}, "", call_fault("check_and_get_upgrade_image", 0x300)),
                Not(Contains("IoFpga 1")));
    EXPECT_THAT(tagged("InitFpdDescFail"), IsEmpty());
}

TEST_F(Plan, WhatWasFoundIsTold) {
    EXPECT_THAT(
        plan_for({{.name = "IoFpga", .keys = "programmed = \"1.0.5\"", .image_keys = "status_msg = \"do it\""}}),
        ElementsAre("IoFpga 0"));
    EXPECT_THAT(messages(tagged("InitFpdVerion")),
                ElementsAre("FPD IoFpga run version 1.0.0 program verson 1.0.5 packaged version 1.1.0 need_upgrade 1 "
                            "status_msg do it"));
    EXPECT_THAT(messages(tagged("InitFpdCapabilities")), ElementsAre("FPD IoFpga capabilities 0x8"));
}

// ---- manufacturing

TEST_F(Plan, ManufacturingWithNothingToUnlock) {
    const std::string mfg = "[[fpd.region.image]]\ntype = 1\nversion = \"2.0.0\"\nfile = \"mfg.img\"\nsize = 10\n";
    EXPECT_THAT(plan_for({{.name = "IoFpga", .tables = mfg}}, "upgrade_mode = \"mfg\""), IsEmpty());
    // The first stage is built twice, the second time into the same queue.
    EXPECT_THAT(messages(tagged("AddFpdQueueDupEntry")), ElementsAre("adding a Duplicate FPD IoFpga found"));
}

TEST_F(Plan, ManufacturingWhenNothingCanUnlock) {
    const auto mfg = [](const std::string &file) {
        return "[[fpd.region.image]]\ntype = 1\nversion = \"2.0.0\"\nfile = \"" + file + "\"\nsize = 10\n";
    };
    EXPECT_THAT(plan_for({{.name = "Primary", .keys = "capabilities = 0x1008", .tables = mfg("a.img")},
                          {.name = "Golden", .keys = "upgrade_type = 5", .tables = mfg("b.img")}},
                         "upgrade_mode = \"mfg\""),
                ElementsAre("Primary 0", "Primary 0", "Golden 0"));
    EXPECT_THAT(messages(tagged("FpdUpgdStageReqGoldenUnlock")), ElementsAre("Building FPDs to unlock Golden"));
    EXPECT_THAT(errors(), IsEmpty());
}

}  // namespace
