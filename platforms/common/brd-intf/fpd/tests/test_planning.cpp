#include <fcntl.h>
#include <mqueue.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "interpose.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Construction of the plan --------------------------------------------------------------------------------------------

enum class Needs { upgrade, nothing_of_another_version, nothing };

/// A record of fpd_queue that is evaluated, or in another state that planning finds it in.
struct Record {
    std::string name;
    int seq = 0;
    std::string dependency{};
    Needs needs = Needs::upgrade;
    FpdState state = FpdState::description_received;
};

struct BuildQueue : RunTest {
    int build(UpgradeStage stage = UpgradeStage::regular) {
        return build_upgrade_queue(stage, card, err_msg, sizeof err_msg);
    }

    Fpd &add(const Record &record) {
        Fpd &fpd = discover(record.name, record.state);
        fpd.info.initial_seq = static_cast<std::uint8_t>(record.seq);
        std::snprintf(fpd.desc.dependency, sizeof fpd.desc.dependency, "%s", record.dependency.c_str());
        if (record.needs != Needs::upgrade) fpd.desc.need_upgrade = 0;
        if (record.needs == Needs::nothing) fpd.desc.packaged_version = fpd.desc_req.programmed_version;
        return fpd;
    }

    /// What is planned, with its queue's number, and what is not, with its state: "0 Cpu, 1 Io after Cpu, X 'Bad'".
    std::string the_plan() const {
        std::string text;
        const auto append = [&text](const std::string &one, const Fpd &fpd) {
            text += (text.empty() ? "" : ", ") + one;
            if (fpd.dependency) text += std::string(" after ") + fpd.dependency->info.name;
        };
        unsigned planned = 0;
        for (unsigned seq = 0; seq < seq_queue_count; ++seq)
            for (const Fpd *fpd = card.queues.seq_queues[seq]; fpd; fpd = fpd->next, ++planned) {
                EXPECT_EQ(fpd->state, FpdState::queued_for_upgrade) << fpd->info.name;
                EXPECT_EQ(fpd->seq, seq) << fpd->info.name;
                append(std::to_string(seq) + " " + fpd->info.name, *fpd);
            }
        EXPECT_EQ(card.planned_count, planned);
        for (const Fpd *fpd = card.queues.fpd_queue; fpd; fpd = fpd->next)
            append(std::string(fpd->info.name) + " " + state_name(fpd->state), *fpd);
        return text;
    }
};

struct Line {
    const char *level;
    const char *tag;
    std::string text;
};

/// Expects of each tag these lines and no other, and no error besides.
void expect_lines(const std::vector<Line> &lines) {
    std::map<std::string, std::vector<testing::Matcher<const LogLine &>>> expected;
    for (const Line &line : lines) expected[line.tag].push_back(log_line(init_module, line.level, line.tag, line.text));
    for (const auto &[tag, matchers] : expected) EXPECT_THAT(log_lines(tag), testing::ElementsAreArray(matchers));
    for (const LogLine &line : log_lines(init_module))
        EXPECT_TRUE(line.level != "ERROR" || expected.contains(line.tag)) << testing::PrintToString(line);
}

Line circular(const std::string &name, const std::string &dependency) {
    return {"ERROR", "BuildQFpdCircularDepend", "FPD " + name + " has found a circular dependency FPD " + dependency};
}

Line bad_dependency(const std::string &name, const std::string &dependency, const char *state) {
    return {"ERROR", "BuildQDependFpdBad",
            "FPD " + name + " can't be upgraded due to dependency FPD " + dependency + " state " + state};
}

Line missing_dependency(const std::string &name, const std::string &dependency) {
    return {
        "ERROR", "BuildQFpdDependNotFound",
        "FPD " + name + " has a Dependency FPD " + dependency + " and couldn't find the dependency in the fpd queue"};
}

Line out_of_range(const std::string &name, int seq) {
    return {"ERROR", "BuildQFpdSeqOutOfRange",
            "FPD " + name + " sequence queue # " + std::to_string(seq) + " is out of range"};
}

Line constructing(const std::string &name) {
    return {"DEBUG", "BuildFpdUpgQueue", "Constructing FPD " + name + " for Upgrade"};
}

struct PlanCase {
    const char *behaviour;
    std::vector<Record> records;
    const char *plan;
    std::vector<Line> lines{};
};

const PlanCase plan_cases[] = {
    {"PlansWhatNeedsAnUpgrade",
     {{"IoFpga", 3}},
     "3 IoFpga",
     {constructing("IoFpga"),
      {"DEBUG", "BuildQFpdUpgradeable", "FPD IoFpga is upgradeable"},
      {"INFO", "BuildFpdAddedSeqQueue", "FPD IoFpga would be upgrade in the sequence queue # 3"}}},
    {"PlansNothingOfAnEmptyQueue", {}, ""},
    {"KeepsTheOrderWithinASequenceQueue", {{"C", 1}, {"A", 1}, {"B", 1}}, "1 C, 1 A, 1 B"},
    {"RefusesADependencyThatIsNotThere",
     {{"IoFpga", 0, "Cpu"}},
     "IoFpga 'FPD Dependency Failed'",
     {missing_dependency("IoFpga", "Cpu")}},
    {"TellsTheCaseOfNames",
     {{"CPU"}, {"IoFpga", 0, "Cpu"}},
     "0 CPU, IoFpga 'FPD Dependency Failed'",
     {missing_dependency("IoFpga", "Cpu")}},
    {"RefusesADependencyOnItself",
     {{"IoFpga", 0, "IoFpga"}},
     "IoFpga 'FPD Dependency Failed' after IoFpga",
     {circular("IoFpga", "IoFpga")}},
    {"MeetsAnFpdAgainAfterItsDependency",
     {{"A", 0, "B"}, {"B"}},
     "0 B, 1 A after B",
     {{"INFO", "BuildQRevisitAfterDependFpd", "FPD A would be revisted after dependency FPD B resolved"},
      constructing("A"),
      constructing("B"),
      constructing("A")}},
    {"DoesNotWaitForADependencyThatWasMetBefore",
     {{"B"}, {"A", 0, "B"}},
     "0 B, 1 A after B",
     {constructing("B"), constructing("A")}},
    {"RaisesASequenceNumberOnlyAboveThatOfTheDependency",
     {{"B", 4}, {"Lower", 3, "B"}, {"Equal", 4, "B"}, {"Higher", 7, "B"}},
     "4 B, 5 Lower after B, 5 Equal after B, 7 Higher after B"},
    {"ResolvesAChainInAnyOrder",
     {{"C", 0, "B"}, {"B", 0, "A"}, {"Other"}, {"A"}},
     "0 Other, 0 A, 1 B after A, 2 C after B"},
    {"PlansADependencyThatIsOnlyAvailableInTheSecondPass",
     {{"B", 2, "", Needs::nothing_of_another_version}, {"A", 0, "B"}, {"Other", 2}},
     "2 Other, 2 B, 3 A after B",
     {{"INFO", "BuildQDepFpdUpgRequired", "FPD A required corresponding dependent FPD B to be upgraded"},
      {"DEBUG", "BuildQFpdDepUpgradeable", "FPD B is dependency upgradeable"},
      {"INFO", "BuildFpdDepAddedSeqQueue", "FPD B would be upgrade in the sequence queue # 2"}}},
    {"PlansADependencyOfTwoOnce",
     {{"B", 0, "", Needs::nothing_of_another_version}, {"A1", 0, "B"}, {"A2", 0, "B"}},
     "0 B, 1 A1 after B, 1 A2 after B",
     {{"INFO", "BuildQDepFpdUpgRequired", "FPD A1 required corresponding dependent FPD B to be upgraded"}}},
    {"PlansEveryFpdThatOnlyOthersNeed",
     {{"First", 0, "Available1"},
      {"Second", 0, "Available2"},
      {"Available1", 0, "", Needs::nothing_of_another_version},
      {"Other", 0, "", Needs::nothing_of_another_version},
      {"Available2", 0, "", Needs::nothing_of_another_version}},
     "0 Available1, 0 Available2, 1 First after Available1, 1 Second after Available2, Other 'FPD Upgrade Available'"},
    {"DoesNotPlanADependencyThatIsUpToDate",
     {{"B", 5, "", Needs::nothing}, {"A", 0, "B"}},
     "6 A after B, B 'FPD Upgrade not needed'"},
    {"AsksNoDependencyOfWhatNeedsNoUpgrade",
     {{"IoFpga", 0, "Missing", Needs::nothing_of_another_version}},
     "IoFpga 'FPD Upgrade Available'"},
    {"TakesNoBadOrMissingDependencyForACircle",
     {{"Missing", 0, "Nobody"}, {"Bad", 0, "Failed"}, {"Failed", 0, "", Needs::upgrade, FpdState::upgrade_failed}},
     "Missing 'FPD Dependency Failed', Bad 'FPD Dependency Failed' after Failed, Failed 'FPD Upgrade Failed'",
     {missing_dependency("Missing", "Nobody"), bad_dependency("Bad", "Failed", "'FPD Upgrade Failed'")}},

    {"RefusesACycleOfTwo",
     {{"A", 0, "B"}, {"B", 0, "A"}},
     "A 'FPD Dependency Failed' after B, B 'FPD Dependency Failed' after A",
     {circular("A", "B"), circular("B", "A")}},
    {"RefusesACycleOfThreeAmongOthersThatArePlanned",
     {{"Before"},
      {"A", 0, "B"},
      {"NotReady", 0, "", Needs::upgrade, FpdState::capability_received},
      {"B", 0, "C"},
      {"Chained", 0, "Before"},
      {"C", 0, "A"},
      {"Following", 0, "Last"},
      {"Last"}},
     "0 Before, 0 Last, 1 Chained after Before, 1 Following after Last, NotReady 'FPD Capability Received', "
     "A 'FPD Dependency Failed' after B, B 'FPD Dependency Failed' after C, C 'FPD Dependency Failed' after A",
     {circular("A", "B"), circular("B", "C"), circular("C", "A")}},
    {"RefusesACycleTogetherWithWhatLeadsIntoIt",
     {{"Outer", 0, "Inner"}, {"Inner", 0, "A"}, {"A", 0, "B"}, {"B", 0, "A"}, {"Other"}},
     "0 Other, Outer 'FPD Dependency Failed' after Inner, Inner 'FPD Dependency Failed' after A, "
     "A 'FPD Dependency Failed' after B, B 'FPD Dependency Failed' after A",
     {circular("Outer", "Inner"), circular("Inner", "A"), circular("A", "B"), circular("B", "A")}},
    {"TellsACycleIntoASelfReferenceAsABadDependency",
     {{"A", 0, "B"}, {"B", 0, "B"}},
     "B 'FPD Dependency Failed' after B, A 'FPD Dependency Failed' after B",
     {circular("B", "B"), bad_dependency("A", "B", "'FPD Dependency Failed'")}},
    {"RefusesTwoCycles",
     {{"A", 0, "B"}, {"B", 0, "A"}, {"C", 0, "D"}, {"D", 0, "C"}},
     "A 'FPD Dependency Failed' after B, B 'FPD Dependency Failed' after A, "
     "C 'FPD Dependency Failed' after D, D 'FPD Dependency Failed' after C",
     {circular("A", "B"), circular("B", "A"), circular("C", "D"), circular("D", "C")}},

    {"PlansIntoSequenceQueue15AsTheLast", {{"IoFpga", 15}}, "15 IoFpga"},
    {"RefusesSequenceNumber16", {{"IoFpga", 16}}, "IoFpga 'FPD Can't be Upgraded'", {out_of_range("IoFpga", 16)}},
    {"RefusesSequenceNumber255", {{"IoFpga", 255}}, "IoFpga 'FPD Can't be Upgraded'", {out_of_range("IoFpga", 255)}},
    {"RefusesASequenceNumberThatADependencyRaisesTo16",
     {{"Last", 15}, {"IoFpga", 0, "Last"}},
     "15 Last, IoFpga 'FPD Can't be Upgraded' after Last",
     {out_of_range("IoFpga", 16)}},
    {"TakesNoSequenceNumberRaisedAbove255For0",
     {{"Same", 255, "", Needs::nothing}, {"IoFpga", 0, "Same"}},
     "Same 'FPD Upgrade not needed', IoFpga 'FPD Can't be Upgraded' after Same",
     {out_of_range("IoFpga", 256)}},
    {"FailsTheDependentsOfASequenceNumberOutOfRange",
     {{"TooHigh", 16}, {"IoFpga", 0, "TooHigh"}},
     "TooHigh 'FPD Can't be Upgraded', IoFpga 'FPD Dependency Failed' after TooHigh",
     {out_of_range("TooHigh", 16), bad_dependency("IoFpga", "TooHigh", "'FPD Can't be Upgraded'")}},
    {"RefusesASequenceNumberOutOfRangeInTheSecondPassToo",
     {{"Available", 16, "", Needs::nothing_of_another_version}, {"IoFpga", 0, "Available"}},
     "Available 'FPD Can't be Upgraded', IoFpga 'FPD Can't be Upgraded' after Available",
     {out_of_range("IoFpga", 17), out_of_range("Available", 16)}},
};

struct EachPlan : BuildQueue, testing::WithParamInterface<PlanCase> {};

TEST_P(EachPlan, IsAsItsDependenciesAndNumbersDemand) {
    for (const Record &record : GetParam().records) add(record);
    expect_result(build(), 0);
    EXPECT_EQ(the_plan(), GetParam().plan);
    expect_lines(GetParam().lines);
    EXPECT_EQ(upg_marker().text == nullptr, card.planned_count == 0);
}

INSTANTIATE_TEST_SUITE_P(Construction, EachPlan, testing::ValuesIn(plan_cases),
                         [](const auto &instance) { return std::string(instance.param.behaviour); });

TEST_F(BuildQueue, PutsThePlannedIntoTheMarkerInTheirOrderAndWhatOnlyOthersNeedAfterThem) {
    add({"Needed", 0, "", Needs::nothing_of_another_version});
    add({"Late", 9});
    add({"Early", 1, "Needed"});
    ASSERT_EQ(build(), 0);
    EXPECT_STREQ(upg_marker().text,
                 "FPD: Late             | Version: 2.0.0       \nFPD: Early            | Version: 2.0.0       \n"
                 "FPD: Needed           | Version: 2.0.0       \n");
}

TEST_F(BuildQueue, LeavesWhatHasNoCapabilitiesOrDescriptionAlone) {
    for (const FpdState state :
         {FpdState::created, FpdState::initialized, FpdState::capability_get_failed, FpdState::capability_received,
          FpdState::info_get_failed, FpdState::info_received, FpdState::description_failed}) {
        clear_log();
        add({.name = "IoFpga", .state = state});
        ASSERT_EQ(build(), 0);
        EXPECT_EQ(the_plan(), std::string("IoFpga ") + state_name(state));
        if (state < FpdState::capability_received)
            expect_log(init_module, "INFO", "BuildQFpdCapabilityNotAllowed",
                       "FPD IoFpga is not allowed to be auto upgraded in current upgrade level");
        else
            expect_log(init_module, "INFO", "BuildQFpdNotReady",
                       std::string("FPD IoFpga doesn't have a valid info or Description, state ") + state_name(state));
        free_queues(card);
    }
}

TEST_F(BuildQueue, RefusesWhatIsTooOldAndHeedsNoOtherStatus) {
    Fpd &fpd = add({"IoFpga"});
    fpd.desc.status = 6;
    fpd.desc.minimum_version = version(1, 9, 3);
    std::strcpy(fpd.running_text, "1.8.0");
    add({"Other"}).desc.status = 5;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(the_plan(), "0 Other, IoFpga 'FPD Can't be Upgraded'");
    expect_log(init_module, "ERROR", "BuildQRevNotSupportUpgrade",
               "FPD IoFpga current version 1.8.0 doesn't support upgrade and supported version is 1.9.3 and above");
}

TEST_F(BuildQueue, OnlyTellsOfAnotherVersionThatIsNotNeeded) {
    Fpd &fpd = add({"IoFpga", 4, "", Needs::nothing_of_another_version});
    fpd.desc_req.programmed_version = version(1, 2, 3);
    fpd.desc.packaged_version = version(1, 2, 4);
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(the_plan(), "IoFpga 'FPD Upgrade Available'");
    EXPECT_EQ(fpd.seq, 4);
    expect_log(init_module, "INFO", "BuildQFpdUpgAvailable",
               "FPD IoFpga has minor down revision available swver 0x1000203 fwver 0x1000204");
}

TEST_F(BuildQueue, LeavesTheSameVersionAlone) {
    add({"IoFpga", 0, "", Needs::nothing}).desc.packaged_version.kind = FPD_VERSION_NO_DEBUG;  // takes no part
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(the_plan(), "IoFpga 'FPD Upgrade not needed'");
    expect_log(init_module, "INFO", "BuildQFpdUpgNotNeeded", "FPD IoFpga doesn't require an Upgrade");
}

TEST_F(BuildQueue, RefusesADependencyInABadState) {
    for (const FpdState state :
         {FpdState::created, FpdState::initialized, FpdState::capability_get_failed, FpdState::capability_received,
          FpdState::info_get_failed, FpdState::info_received, FpdState::description_failed, FpdState::cant_be_upgraded,
          FpdState::dependency_failed, FpdState::upgrade_failed}) {
        clear_log();
        Fpd &dependency = add({"Cpu", 0, "", Needs::nothing_of_another_version, state});
        dependency.desc.status = state == FpdState::cant_be_upgraded ? 6 : 0;
        const Fpd &fpd = add({"IoFpga", 0, "Cpu"});
        // What is planned already is not planned anew.
        if (state >= FpdState::dependency_failed) {
            rm_fpd_queue(&card.queues.fpd_queue, &dependency, err_msg, sizeof err_msg);
            add_fpd_queue(&card.queues.seq_queues[15], &dependency, err_msg, sizeof err_msg);
        }
        ASSERT_EQ(build(), 0);
        EXPECT_EQ(fpd.state, FpdState::dependency_failed);
        EXPECT_EQ(fpd.dependency, &dependency);
        const Line line = bad_dependency("IoFpga", "Cpu", state_name(state));
        expect_log(init_module, line.level, line.tag, line.text);
        free_queues(card);
    }
}

TEST_F(BuildQueue, ResolvesAChainMetBackToFront) {
    std::string chain = "0 F0";
    for (int i = 15; i > 0; --i) add({"F" + std::to_string(i), 0, "F" + std::to_string(i - 1)});
    for (int i = 1; i < 16; ++i)
        chain += ", " + std::to_string(i) + " F" + std::to_string(i) + " after F" + std::to_string(i - 1);
    add({"F0"});
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(the_plan(), chain);
    expect_lines({});
}

TEST_F(BuildQueue, MeetsACycleAtMostTwice) {
    for (int i = 0; i < 50; ++i) add({"F" + std::to_string(i), 0, "F" + std::to_string((i + 1) % 50)});
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(log_lines("BuildQFpdCircularDepend"), SizeIs(50));
    EXPECT_LE(log_lines("BuildFpdUpgQueue").size(), 100U);
}

TEST_F(BuildQueue, KeepsARefusalWhenItIsRepeatedOverTheSameRecords) {
    add({"IoFpga", 16});
    for (int i = 0; i < 2; ++i) ASSERT_EQ(build(), 0);
    EXPECT_EQ(the_plan(), "IoFpga 'FPD Can't be Upgraded'");
    expect_lines({out_of_range("IoFpga", 16)});
}

// Upgrade types -------------------------------------------------------------------------------------------------------

struct UpgradeTypes : BuildQueue, testing::WithParamInterface<UpgradeStage> {};

TEST_P(UpgradeTypes, Are1AndInManufacturing5ForWhatNeedsAnUpgradeAndForWhatOthersNeed) {
    const bool manufacturing = static_cast<int>(GetParam()) <= 2;
    const Line planned{"DEBUG", "BuildQFpdUpgradeable", "FPD B is upgradeable"};
    const Line needed{"DEBUG", "BuildQFpdDepUpgradeable", "FPD B is dependency upgradeable"};
    const Line mfg{"DEBUG", "BuildQFpdMfgUpgradeable", "FPD B is MFG Upgradeable"};
    const Line mfg_needed{"DEBUG", "BuildQFpdDepMfgUpgradeable", "FPD B is MFG Upgradeable"};
    const std::string only_mfg = "FPD B with Upgrade type 5 can only upgradeable in MFG";
    for (const int type : {0, 1, 2, 3, 4, 5, 6, 255})
        for (const bool is_dependency : {false, true}) {
            const std::string refused = "FPD B with Upgrade type " + std::to_string(type) + " can't be ";
            Line line = is_dependency ? Line{"ERROR", "BuildQFpdDepCantUpgraded", refused + "dependency upgraded "}
                                      : Line{"ERROR", "BuildQFpdCantUpgraded", refused + "upgraded "};
            if (type == 1) line = is_dependency ? needed : planned;
            if (type == 5 && manufacturing) line = is_dependency ? mfg_needed : mfg;
            if (type == 5 && !manufacturing)
                line = {"DEBUG", is_dependency ? "BuildQFpdDepMfgOnlyUpgradeable" : "BuildQFpdMfgOnlyUpgradeable",
                        only_mfg};
            clear_log();
            Fpd &fpd = add({"B", 0, "", is_dependency ? Needs::nothing_of_another_version : Needs::upgrade});
            fpd.info.upgrade_type = static_cast<std::uint8_t>(type);
            if (is_dependency) add({"A", 0, "B"});
            ASSERT_EQ(build(GetParam()), 0);
            const bool allowed = type == 1 || (type == 5 && manufacturing);
            const std::string dependent = is_dependency ? "1 A after B" : "";
            EXPECT_EQ(the_plan(), allowed ? "0 B" + (is_dependency ? ", " + dependent : "")
                                          : dependent + (is_dependency ? ", " : "") + "B 'FPD Can't be Upgraded'");
            expect_lines({line});
            free_queues(card);
        }
}

INSTANTIATE_TEST_SUITE_P(OfEveryStage, UpgradeTypes,
                         testing::Values(UpgradeStage::requires_golden_unlocked_primary,
                                         UpgradeStage::can_unlock_golden, UpgradeStage::manufacturing,
                                         UpgradeStage::regular, UpgradeStage::dummy_minor, UpgradeStage::dummy_major));

// The marker fails ----------------------------------------------------------------------------------------------------

constexpr const char *no_memory = "Unable to allocate memory for upgrade marker, error Cannot allocate memory";

TEST_F(BuildQueue, EndsAtOnceWhenTheMarkerTakesNoEntry) {
    add({"First"});
    add({"Second"});
    interpose::fail(Call::calloc, ENOMEM);
    expect_result(build(), -12, no_memory);
    expect_log(init_module, "ERROR", "AddFPDUpgMarkerFail",
               std::string("Failed to add FPD First into Upgrade Marker, error ") + no_memory);
    EXPECT_EQ(the_plan(), "0 First, Second 'FPD Description Received'");
}

TEST_F(BuildQueue, EndsAtOnceWhenTheMarkerTakesNoDependency) {
    for (const char *name : {"First", "Second", "Third"})
        add({name, 0, name[0] == 'F' ? "" : name[0] == 'S' ? "Available1" : "Available2"});
    for (const char *name : {"Available1", "Available2"}) add({name, 0, "", Needs::nothing_of_another_version});
    interpose::fail(Call::realloc, ENOMEM, 2);  // the third entry needs more room, and so does the fourth
    expect_result(build(), -12, no_memory);
    expect_lines({{"ERROR", "AddFPDUpgMarkerFail2",
                   std::string("Failed to add FPD Available1 into Upgrade Marker, error ") + no_memory}});
    EXPECT_EQ(the_plan(),
              "0 First, 0 Available1, 1 Second after Available1, 1 Third after Available2, Available2 "
              "'FPD Dependent Upgrade required'");
}

// Stages of the upgrade mode ------------------------------------------------------------------------------------------

struct PlanUpgrade : RunTest {
    int plan_run(RunLevel run_level = RunLevel::boot) { return plan_upgrade(run_level, card, err_msg, sizeof err_msg); }
    void set_mode(UpgradeMode mode) { fake_platform().upgrade_mode = static_cast<int>(mode); }
    FakeRegion &region(const std::string &name) { return *fake_platform().find_region(name); }

    /// Names and upgrade types of what the description library was asked: "IoFpga 0".
    static std::vector<std::string> asked() {
        std::vector<std::string> found;
        for (const FpdDescRequest &request : fake_platform().description_requests())
            found.push_back(std::string(request.name) + " " + std::to_string(request.upgrade_type));
        return found;
    }

    /// Fails the `nth` load.
    static void fail_load(int nth) {
        auto loads = std::make_shared<int>(0);
        fake_platform().brd_group_fpd_num_fpds_get = [loads, nth](std::uint32_t, std::uint32_t *count) {
            *count = 1;
            return ++*loads == nth ? 8 : 0;
        };
        fake_platform().brd_group_fpd_obj_id_list_get = [](std::uint32_t, std::uint32_t *ids) {
            ids[0] = fake_platform().fpds.front().obj_id;
            return 0;
        };
    }
};

TEST_F(PlanUpgrade, AsksForTheFirmwareOfItsMode) {
    for (const auto &[mode, asked_for] :
         {std::pair(UpgradeMode::regular, "IoFpga 0"), std::pair(UpgradeMode::dummy_minor_version, "IoFpga 3"),
          std::pair(UpgradeMode::dummy_major_version, "IoFpga 4")}) {
        set_mode(mode);
        expect_result(plan_run(), 0);
        EXPECT_THAT(asked(), ElementsAre(asked_for));
        EXPECT_EQ(card.planned_count, 1U);
        free_queues(card);
        fake_platform().forget_calls();
    }
}

TEST_F(PlanUpgrade, HandsTheRunLevelOn) {
    region("IoFpga").capabilities = 0;
    for (const auto &[run_level, planned] : {std::pair(RunLevel::boot, 0U), std::pair(RunLevel::backend, 1U)}) {
        EXPECT_EQ(plan_run(run_level), 0);
        EXPECT_EQ(card.planned_count, planned);
        free_queues(card);
    }
}

TEST_F(PlanUpgrade, FailsForAModeThatIsNone) {
    for (const int mode : {7, 4, -1}) {
        clear_log();
        fake_platform().upgrade_mode = mode;
        expect_logged(plan_run(), 22, init_module, "FpdUpgdModeUnknown",
                      "Unknown FPD Upgrade mode " + std::to_string(mode));
    }
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(PlanUpgrade, FailsAsTheStoreDoesAndShowsNoEarlierTextWhenItGivesNone) {
    for (const auto &[rc, why] : {std::pair(0x321, "store is locked"), std::pair(-9, "")}) {
        clear_log();
        fake_platform().cookie_get_upgrade_mode = [rc = rc, why = why](int *, char *text, std::size_t size) {
            if (*why) std::snprintf(text, size, "%s", why);
            return rc;
        };
        std::strcpy(err_msg, "left by an earlier call");
        expect_result(plan_run(), rc, why);
        expect_log(init_module, "ERROR", "FpdUpgdCookieGetModeFail",
                   std::string("Failed to get FPD Upgrade Mode, error ") + why);
    }
}

constexpr const char *no_count = "Failed to get No. of FPDs for group id 3";

TEST_F(PlanUpgrade, FailsAsTheLoadDoes) {
    fail_load(1);
    expect_result(plan_run(), -13, no_count);
    expect_log(init_module, "ERROR", "LoadFpdsFail", std::string("Initializing FPDs failed err_msg ") + no_count);
}

TEST_F(PlanUpgrade, FailsAsTheConstructionDoes) {
    interpose::fail(Call::calloc, ENOMEM, 4);  // ids, record, regions, marker
    expect_result(plan_run(), -12, no_memory);
    expect_log(init_module, "ERROR", "BuildingFpdQueueFail",
               std::string("Constructing FPD Upgrade queue failed err_msg ") + no_memory);
}

struct PlanManufacturing : PlanUpgrade {
    PlanManufacturing() {
        set_mode(UpgradeMode::manufacturing);
        fake_platform().fpds = {make_fpd(1, {"Needy"}), make_fpd(2, {"Unlocker"}), make_fpd(3, {"Plain"})};
        region("Needy").capabilities = 0x1008;
        region("Unlocker").capabilities = 0x808;
    }
};

TEST_F(PlanManufacturing, PlansOnlyWhatUnlocksGoldenWhenSomethingNeedsIt) {
    EXPECT_EQ(plan_run(), 0);
    EXPECT_THAT(names(card.queues.seq_queues[0]), ElementsAre("Unlocker"));
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_THAT(asked(), ElementsAre("Needy 1", "Unlocker 2"));
    expect_log(init_module, "DEBUG", "FpdUpgdStageReqGoldenUnlock", "Building FPDs to unlock Golden");
    EXPECT_STREQ(upg_marker().text, "FPD: Unlocker         | Version: 2.0.0       \n");
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Needy", "Plain"));
}

TEST_F(PlanManufacturing, PlansManufacturingFirmwareWhenNothingUnlocksGolden) {
    region("Unlocker").capabilities = 0x8;
    EXPECT_EQ(plan_run(), 0);
    EXPECT_THAT(asked(), ElementsAre("Needy 1", "Needy 1", "Unlocker 1", "Plain 1"));
    EXPECT_THAT(names(card.queues.seq_queues[0]), ElementsAre("Needy", "Unlocker", "Plain"));
    EXPECT_EQ(card.planned_count, 3U);
    EXPECT_STREQ(upg_marker().text,
                 "FPD: Needy            | Version: 2.0.0       \nFPD: Unlocker         | Version: 2.0.0       \n"
                 "FPD: Plain            | Version: 2.0.0       \n");
}

TEST_F(PlanManufacturing, LoadsTheFirstStageTwiceWhenNothingNeedsGoldenUnlocked) {
    region("Needy").capabilities = 0x8;
    EXPECT_EQ(plan_run(), 0);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_THAT(fake_platform().calls_of("brd_group_fpd_num_fpds_get"), SizeIs(2));
    EXPECT_THAT(log_lines("InitFpdAddQFail"), SizeIs(3));
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Needy", "Unlocker", "Plain"));
    expect_no_log("FpdUpgdStageReqGoldenUnlock");
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(PlanManufacturing, FailsAsAnyOfItsStagesDoes) {
    constexpr const char *first_tag = "FpdUpgdStageCheckReqGlndUnlckPrimaryFail";
    constexpr const char *second_tag = "FpdUpgdStageCheckCanUnlckGlndUnlckFail";
    const struct {
        int failed_load;
        unsigned capabilities;  // of Needy
        const char *tag;        // of the stage; null: it tells nothing of its own
        const char *text;
    } cases[] = {
        {1, 0x1008, first_tag,
         "FPD Upgrade stage 'Required a Golden Unlocked Primary firmware' check failed to build fpd upgrade, error "},
        {2, 0x1008, second_tag,
         "FPD Upgrade stage 'firmware can unlock Golden' check failed to build fpd upgrade, error "},
        {3, 0x1008, nullptr, ""},  // the last: the second load shows the first FPD only, and that cannot unlock Golden
        {2, 0x8, nullptr, ""},     // the first stage is repeated: nothing needs Golden unlocked
    };
    for (const auto &[failed_load, capabilities, tag, text] : cases) {
        clear_log();
        region("Needy").capabilities = capabilities;
        fail_load(failed_load);
        expect_result(plan_run(), -13, no_count);
        expect_log(init_module, "ERROR", "LoadFpdsFail", std::string("Initializing FPDs failed err_msg ") + no_count);
        if (tag) expect_log(init_module, "ERROR", tag, std::string(text) + no_count);
        for (const char *const other : {first_tag, second_tag})
            if (other != tag) expect_no_log(other);
        EXPECT_EQ(card.planned_count, 0U);
        EXPECT_EQ(upg_marker().text, nullptr);
        free_queues(card);
    }
}

// The interface of a run ----------------------------------------------------------------------------------------------

struct Interface : PlanUpgrade {
    Interface() { EXPECT_EQ(interface_deinit(card, err_msg, sizeof err_msg), 0); }

    int init() { return interface_init(RunLevel::boot, card, err_msg, sizeof err_msg); }
    int deinit() { return interface_deinit(card, err_msg, sizeof err_msg); }
    bool queue_exists() const {
        const mqd_t queue = mq_open(card.mq_name, O_WRONLY);
        if (queue >= 0) mq_close(queue);
        return queue >= 0;
    }
};

TEST_F(Interface, MakesTheQueueAndThePlan) {
    ASSERT_FALSE(queue_exists());
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(queue_exists());
    EXPECT_EQ(waiting_reports(), 0);
    EXPECT_EQ(card.planned_count, 1U);
}

TEST_F(Interface, FailsWithoutItsQueueAndPlansNothing) {
    interpose::fail(Call::mq_open, EMFILE);
    const std::string reason = "Couldn't open FPD msg queue err_msg Too many open files";
    expect_result(init(), -5, reason);
    expect_log(init_module, "ERROR", "InitMQFail", "Initializing Auto FPD Upgrade msg queue failed err_msg " + reason);
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
}

TEST_F(Interface, FailsAsThePlanDoes) {
    fake_platform().upgrade_mode = 7;
    expect_result(init(), 22, "Unknown FPD Upgrade mode 7");
}

TEST_F(Interface, IsUndoneByDeinit) {
    const std::vector<std::string> before = open_descriptors();
    ASSERT_EQ(init(), 0);
    std::strcpy(err_msg, "left by an earlier call");
    expect_result(deinit(), 0);
    EXPECT_EQ(card.queues.seq_queues[0], nullptr);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_EQ(card.mq, -1);
    EXPECT_FALSE(queue_exists());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Interface, IsUndoneWithoutAPlan) {
    fake_platform().fpds.clear();
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(deinit(), 0);
}

TEST_F(Interface, TellsWhenItsQueueCannotBeClosed) {
    ASSERT_EQ(init(), 0);
    interpose::fail(Call::mq_close, EBADF);
    const std::string reason = "Couldn't close FPD msg queue err_msg Bad file descriptor";
    expect_result(deinit(), -5, reason);
    expect_log(init_module, "ERROR", "DeinitFpdMQFail", "Deinitializing FPD msg queue failed err_msg " + reason);
    EXPECT_TRUE(queue_exists());
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(PlanUpgrade, IsRegularWhenTheStoreTellsOfNoMode) {
    fake_platform().cookie_get_upgrade_mode = [](auto...) { return 0; };
    EXPECT_EQ(plan_run(), 0);
    EXPECT_THAT(asked(), ElementsAre("IoFpga 0"));
}

}  // namespace
