#include <fcntl.h>
#include <mqueue.h>

#include <cerrno>
#include <cstring>

#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "interpose.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Construction of the plan --------------------------------------------------------------------------------------------

struct BuildQueue : RunTest {
    int build(UpgradeStage stage = UpgradeStage::regular) {
        return build_upgrade_queue(stage, card, err_msg, sizeof err_msg);
    }

    /// An evaluated record that is to be upgraded.
    Fpd &evaluated(const std::string &name, std::uint8_t seq = 0, const std::string &dependency = "") {
        Fpd &fpd = discover(name, FpdState::description_received);
        fpd.info.initial_seq = seq;
        std::snprintf(fpd.desc.dependency, sizeof fpd.desc.dependency, "%s", dependency.c_str());
        return fpd;
    }
    /// An evaluated record that need not be upgraded; another version is packaged, or the same.
    Fpd &not_needed(const std::string &name, bool other_version, std::uint8_t seq = 0) {
        Fpd &fpd = evaluated(name, seq);
        fpd.desc.need_upgrade = 0;
        if (!other_version) fpd.desc.packaged_version = fpd.desc_req.programmed_version;
        return fpd;
    }

    const Fpd *seq_queue(unsigned seq) const { return card.queues.seq_queues[seq]; }
    std::vector<std::string> unplanned() const { return names(card.queues.fpd_queue); }
};

TEST_F(BuildQueue, PlansWhatNeedsAnUpgrade) {
    Fpd &fpd = evaluated("IoFpga", 3);
    EXPECT_EQ(build(), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_EQ(seq_queue(3), &fpd);
    EXPECT_EQ(fpd.seq, 3);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_THAT(unplanned(), IsEmpty());
    expect_log(init_module, "DEBUG", "BuildFpdUpgQueue", "Constructing FPD IoFpga for Upgrade");
    expect_log(init_module, "DEBUG", "BuildQFpdUpgradeable", "FPD IoFpga is upgradeable");
    expect_log(init_module, "INFO", "BuildFpdAddedSeqQueue", "FPD IoFpga would be upgrade in the sequence queue # 3");
}

TEST_F(BuildQueue, PlansNothingOfAnEmptyQueue) {
    EXPECT_EQ(build(), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(BuildQueue, PutsThePlannedIntoTheMarkerInTheirOrder) {
    evaluated("Late", 9);
    evaluated("Early", 1);
    ASSERT_EQ(build(), 0);
    EXPECT_STREQ(upg_marker().text,
                 "FPD: Late             | Version: 2.0.0       \nFPD: Early            | Version: 2.0.0       \n");
}

TEST_F(BuildQueue, KeepsTheOrderWithinASequenceQueue) {
    evaluated("C", 1);
    evaluated("A", 1);
    evaluated("B", 1);
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(names(seq_queue(1)), ElementsAre("C", "A", "B"));
}

TEST_F(BuildQueue, LeavesWhatHasNoCapabilitiesAlone) {
    for (const FpdState state : {FpdState::created, FpdState::initialized, FpdState::capability_get_failed}) {
        clear_log();
        Fpd &fpd = discover("Fpd" + std::to_string(static_cast<int>(state)), state);
        ASSERT_EQ(build(), 0);
        EXPECT_EQ(fpd.state, state);
        expect_log(
            init_module, "INFO", "BuildQFpdCapabilityNotAllowed",
            std::string("FPD ") + fpd.info.name + " is not allowed to be auto upgraded in current upgrade level");
        free_queues(card);
    }
}

TEST_F(BuildQueue, LeavesWhatIsNotDescribedAlone) {
    for (const FpdState state : {FpdState::capability_received, FpdState::info_get_failed, FpdState::info_received,
                                 FpdState::description_failed}) {
        clear_log();
        Fpd &fpd = discover("IoFpga", state);
        ASSERT_EQ(build(), 0);
        EXPECT_EQ(fpd.state, state);
        expect_log(init_module, "INFO", "BuildQFpdNotReady",
                   std::string("FPD IoFpga doesn't have a valid info or Description, state ") + state_name(state));
        free_queues(card);
    }
}

TEST_F(BuildQueue, RefusesWhatIsTooOld) {
    Fpd &fpd = evaluated("IoFpga");
    fpd.desc.status = 6;
    fpd.desc.minimum_version = version(1, 9, 3);
    std::strcpy(fpd.running_text, "1.8.0");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
    EXPECT_THAT(unplanned(), ElementsAre("IoFpga"));
    expect_log(init_module, "ERROR", "BuildQRevNotSupportUpgrade",
               "FPD IoFpga current version 1.8.0 doesn't support upgrade and supported version is 1.9.3 and above");
}

TEST_F(BuildQueue, HeedsNoOtherStatus) {
    Fpd &fpd = evaluated("IoFpga");
    fpd.desc.status = 5;
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
}

TEST_F(BuildQueue, OnlyTellsOfAnotherVersionThatIsNotNeeded) {
    Fpd &fpd = not_needed("IoFpga", true, 4);
    fpd.desc_req.programmed_version = version(1, 2, 3);
    fpd.desc.packaged_version = version(1, 2, 4);
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::upgrade_available);
    EXPECT_EQ(fpd.seq, 4);
    EXPECT_EQ(card.planned_count, 0U);
    expect_log(init_module, "INFO", "BuildQFpdUpgAvailable",
               "FPD IoFpga has minor down revision available swver 0x1000203 fwver 0x1000204");
}

TEST_F(BuildQueue, LeavesTheSameVersionAlone) {
    Fpd &fpd = not_needed("IoFpga", false);
    fpd.desc.packaged_version.kind = FPD_VERSION_NO_DEBUG;  // the kind takes no part
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::upgrade_not_needed);
    expect_log(init_module, "INFO", "BuildQFpdUpgNotNeeded", "FPD IoFpga doesn't require an Upgrade");
}

// Dependencies --------------------------------------------------------------------------------------------------------

TEST_F(BuildQueue, RefusesADependencyThatIsNotThere) {
    Fpd &fpd = evaluated("IoFpga", 0, "Cpu");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::dependency_failed);
    EXPECT_EQ(fpd.dependency, nullptr);
    expect_log(init_module, "ERROR", "BuildQFpdDependNotFound",
               "FPD IoFpga has a Dependency FPD Cpu and couldn't find the dependency in the fpd queue");
}

TEST_F(BuildQueue, TellsTheCaseOfNames) {
    evaluated("CPU");
    Fpd &fpd = evaluated("IoFpga", 0, "Cpu");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::dependency_failed);
}

TEST_F(BuildQueue, RefusesADependencyOnItself) {
    Fpd &fpd = evaluated("IoFpga", 0, "IoFpga");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::dependency_failed);
    EXPECT_EQ(card.planned_count, 0U);
    expect_log(init_module, "ERROR", "BuildQFpdCircularDepend",
               "FPD IoFpga has found a circular dependency FPD IoFpga");
}

TEST_F(BuildQueue, RefusesADependencyInABadState) {
    for (const FpdState state :
         {FpdState::created, FpdState::initialized, FpdState::capability_get_failed, FpdState::capability_received,
          FpdState::info_get_failed, FpdState::info_received, FpdState::description_failed, FpdState::cant_be_upgraded,
          FpdState::dependency_failed, FpdState::upgrade_failed}) {
        clear_log();
        Fpd &dependency = discover("Cpu", state);
        dependency.desc.need_upgrade = 0;
        dependency.desc.status = state == FpdState::cant_be_upgraded ? 6 : 0;
        Fpd &fpd = evaluated("IoFpga", 0, "Cpu");
        // What is planned already is not planned anew.
        if (state >= FpdState::dependency_failed) {
            rm_fpd_queue(&card.queues.fpd_queue, &dependency, err_msg, sizeof err_msg);
            add_fpd_queue(&card.queues.seq_queues[15], &dependency, err_msg, sizeof err_msg);
        }
        ASSERT_EQ(build(), 0);
        EXPECT_EQ(fpd.state, FpdState::dependency_failed);
        EXPECT_EQ(fpd.dependency, &dependency);
        expect_log(init_module, "ERROR", "BuildQDependFpdBad",
                   std::string("FPD IoFpga can't be upgraded due to dependency FPD Cpu state ") + state_name(state));
        free_queues(card);
    }
}

TEST_F(BuildQueue, MeetsAnFpdAgainBehindItsDependency) {
    Fpd &a = evaluated("A", 0, "B");
    Fpd &b = evaluated("B", 0);
    ASSERT_EQ(build(), 0);
    expect_log(init_module, "INFO", "BuildQRevisitAfterDependFpd",
               "FPD A would be revisted after dependency FPD B resolved");
    EXPECT_EQ(a.dependency, &b);
    EXPECT_EQ(seq_queue(0), &b);
    EXPECT_EQ(seq_queue(1), &a);
    EXPECT_EQ(a.seq, 1);
    EXPECT_THAT(log_lines("BuildFpdUpgQueue"),
                ElementsAre(log_line(init_module, "DEBUG", "BuildFpdUpgQueue", "Constructing FPD A for Upgrade"),
                            log_line(init_module, "DEBUG", "BuildFpdUpgQueue", "Constructing FPD B for Upgrade"),
                            log_line(init_module, "DEBUG", "BuildFpdUpgQueue", "Constructing FPD A for Upgrade")));
}

TEST_F(BuildQueue, DoesNotWaitForADependencyThatWasMetBefore) {
    evaluated("B", 0);
    evaluated("A", 0, "B");
    ASSERT_EQ(build(), 0);
    expect_no_log("BuildQRevisitAfterDependFpd");
    EXPECT_THAT(names(seq_queue(1)), ElementsAre("A"));
}

TEST_F(BuildQueue, RaisesASequenceNumberOnlyAboveThatOfTheDependency) {
    evaluated("B", 4);
    Fpd &lower = evaluated("Lower", 3, "B");
    Fpd &equal = evaluated("Equal", 4, "B");
    Fpd &higher = evaluated("Higher", 7, "B");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(lower.seq, 5);
    EXPECT_EQ(equal.seq, 5);
    EXPECT_EQ(higher.seq, 7);
    EXPECT_THAT(names(seq_queue(5)), ElementsAre("Lower", "Equal"));
    EXPECT_THAT(names(seq_queue(7)), ElementsAre("Higher"));
}

TEST_F(BuildQueue, ResolvesAChainInAnyOrder) {
    evaluated("C", 0, "B");
    evaluated("B", 0, "A");
    evaluated("Other", 0);
    evaluated("A", 0);
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(names(seq_queue(0)), ElementsAre("Other", "A"));
    EXPECT_THAT(names(seq_queue(1)), ElementsAre("B"));
    EXPECT_THAT(names(seq_queue(2)), ElementsAre("C"));
    EXPECT_EQ(card.planned_count, 4U);
}

TEST_F(BuildQueue, ResolvesAChainMetBackToFront) {
    for (int i = 15; i > 0; --i) evaluated("F" + std::to_string(i), 0, "F" + std::to_string(i - 1));
    evaluated("F0");
    ASSERT_EQ(build(), 0);
    for (unsigned i = 0; i < 16; ++i) EXPECT_THAT(names(seq_queue(i)), ElementsAre("F" + std::to_string(i)));
    expect_no_log("BuildQFpdCircularDepend");
}

TEST_F(BuildQueue, PlansADependencyThatIsOnlyAvailableInTheSecondPass) {
    Fpd &b = not_needed("B", true, 2);
    Fpd &a = evaluated("A", 0, "B");
    Fpd &other = evaluated("Other", 2);
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(names(seq_queue(2)), ElementsAre("Other", "B"));
    EXPECT_THAT(names(seq_queue(3)), ElementsAre("A"));
    EXPECT_EQ(b.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(a.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(other.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(card.planned_count, 3U);
    expect_log(init_module, "INFO", "BuildQDepFpdUpgRequired",
               "FPD A required corresponding dependent FPD B to be upgraded");
    expect_log(init_module, "DEBUG", "BuildQFpdDepUpgradeable", "FPD B is dependency upgradeable");
    expect_log(init_module, "INFO", "BuildFpdDepAddedSeqQueue", "FPD B would be upgrade in the sequence queue # 2");
    EXPECT_THAT(upg_marker().text, testing::EndsWith("FPD: B                | Version: 2.0.0       \n"));
}

TEST_F(BuildQueue, PlansADependencyOfTwoOnce) {
    not_needed("B", true);
    evaluated("A1", 0, "B");
    evaluated("A2", 0, "B");
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(names(seq_queue(0)), ElementsAre("B"));
    EXPECT_THAT(names(seq_queue(1)), ElementsAre("A1", "A2"));
    EXPECT_THAT(log_lines("BuildQDepFpdUpgRequired"), SizeIs(1));
    EXPECT_EQ(card.planned_count, 3U);
}

TEST_F(BuildQueue, DoesNotPlanADependencyThatIsUpToDate) {
    Fpd &b = not_needed("B", false, 5);
    Fpd &a = evaluated("A", 0, "B");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(b.state, FpdState::upgrade_not_needed);
    EXPECT_THAT(unplanned(), ElementsAre("B"));
    EXPECT_EQ(a.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(a.seq, 6);
    EXPECT_EQ(card.planned_count, 1U);
}

TEST_F(BuildQueue, AsksNoDependencyOfWhatNeedsNoUpgrade) {
    Fpd &fpd = not_needed("IoFpga", true);
    std::strcpy(fpd.desc.dependency, "Missing");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::upgrade_available);
}

// Cycles --------------------------------------------------------------------------------------------------------------

struct Cycles : BuildQueue {
    /// Expects that this FPD, and its own dependency's name, was refused as circular.
    void expect_refused(const Fpd &fpd) {
        EXPECT_EQ(fpd.state, FpdState::dependency_failed) << fpd.info.name;
        EXPECT_THAT(log_lines("BuildQFpdCircularDepend"),
                    testing::Contains(log_line(init_module, "ERROR", "BuildQFpdCircularDepend",
                                               std::string("FPD ") + fpd.info.name +
                                                   " has found a circular dependency FPD " + fpd.desc.dependency)))
            << fpd.info.name;
    }
};

TEST_F(Cycles, OfTwoAreRefused) {
    Fpd &a = evaluated("A", 0, "B");
    Fpd &b = evaluated("B", 0, "A");
    ASSERT_EQ(build(), 0);
    expect_refused(a);
    expect_refused(b);
    EXPECT_THAT(log_lines("BuildQFpdCircularDepend"), SizeIs(2));
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(Cycles, OfThreeAreRefusedAmongOthersThatArePlanned) {
    evaluated("Before");
    Fpd &a = evaluated("A", 0, "B");
    discover("NotReady", FpdState::capability_received);
    Fpd &b = evaluated("B", 0, "C");
    evaluated("Chained", 0, "Before");
    Fpd &c = evaluated("C", 0, "A");
    evaluated("Behind", 0, "Last");
    evaluated("Last");
    ASSERT_EQ(build(), 0);
    for (const Fpd *fpd : {&a, &b, &c}) expect_refused(*fpd);
    EXPECT_THAT(log_lines("BuildQFpdCircularDepend"), SizeIs(3));
    EXPECT_THAT(names(seq_queue(0)), ElementsAre("Before", "Last"));
    EXPECT_THAT(names(seq_queue(1)), ElementsAre("Chained", "Behind"));
    EXPECT_EQ(card.planned_count, 4U);
}

TEST_F(Cycles, AreRefusedTogetherWithWhatLeadsIntoThem) {
    Fpd &outer = evaluated("Outer", 0, "Inner");
    Fpd &inner = evaluated("Inner", 0, "A");
    Fpd &a = evaluated("A", 0, "B");
    Fpd &b = evaluated("B", 0, "A");
    evaluated("Other");
    ASSERT_EQ(build(), 0);
    for (const Fpd *fpd : {&outer, &inner, &a, &b}) expect_refused(*fpd);
    EXPECT_THAT(names(seq_queue(0)), ElementsAre("Other"));
    EXPECT_THAT(unplanned(), testing::UnorderedElementsAre("Outer", "Inner", "A", "B"));
}

TEST_F(Cycles, IntoASelfReferenceAreToldAsABadDependency) {
    Fpd &a = evaluated("A", 0, "B");
    Fpd &b = evaluated("B", 0, "B");
    ASSERT_EQ(build(), 0);
    expect_refused(b);
    EXPECT_EQ(a.state, FpdState::dependency_failed);
    expect_log(init_module, "ERROR", "BuildQDependFpdBad",
               "FPD A can't be upgraded due to dependency FPD B state 'FPD Dependency Failed'");
}

TEST_F(Cycles, TwoOfThemAreBothRefused) {
    for (const char *const name : {"A", "B"}) evaluated(name, 0, name[0] == 'A' ? "B" : "A");
    for (const char *const name : {"C", "D"}) evaluated(name, 0, name[0] == 'C' ? "D" : "C");
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(log_lines("BuildQFpdCircularDepend"), SizeIs(4));
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(Cycles, AreMetAtMostTwice) {
    for (int i = 0; i < 50; ++i) evaluated("F" + std::to_string(i), 0, "F" + std::to_string((i + 1) % 50));
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(log_lines("BuildQFpdCircularDepend"), SizeIs(50));
    EXPECT_LE(log_lines("BuildFpdUpgQueue").size(), 100U);
}

// Sequence numbers out of range ---------------------------------------------------------------------------------------

struct SequenceNumbers : BuildQueue {
    void expect_refused(const Fpd &fpd, int seq) {
        EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
        expect_log(
            init_module, "ERROR", "BuildQFpdSeqOutOfRange",
            std::string("FPD ") + fpd.info.name + " sequence queue # " + std::to_string(seq) + " is out of range");
        EXPECT_EQ(get_fpd_by_name_queue(card.queues.fpd_queue, fpd.info.name, nullptr, 0), &fpd);
    }
};

TEST_F(SequenceNumbers, Of15AreTheLast) {
    evaluated("IoFpga", 15);
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(names(seq_queue(15)), ElementsAre("IoFpga"));
}

TEST_F(SequenceNumbers, Of16AreRefused) {
    const Fpd &fpd = evaluated("IoFpga", 16);
    ASSERT_EQ(build(), 0);
    expect_refused(fpd, 16);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_EQ(upg_marker().text, nullptr);
}

TEST_F(SequenceNumbers, Of255AreRefused) {
    const Fpd &fpd = evaluated("IoFpga", 255);
    ASSERT_EQ(build(), 0);
    expect_refused(fpd, 255);
}

TEST_F(SequenceNumbers, RaisedTo16ByADependencyAreRefused) {
    evaluated("Last", 15);
    const Fpd &fpd = evaluated("IoFpga", 0, "Last");
    ASSERT_EQ(build(), 0);
    expect_refused(fpd, 16);
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_THAT(names(seq_queue(15)), ElementsAre("Last"));
}

TEST_F(SequenceNumbers, RaisedAbove255DoNotBecome0) {
    not_needed("Same", false, 255);
    const Fpd &fpd = evaluated("IoFpga", 0, "Same");
    ASSERT_EQ(build(), 0);
    expect_refused(fpd, 256);
    EXPECT_EQ(seq_queue(0), nullptr);
}

TEST_F(SequenceNumbers, OutOfRangeFailTheDependents) {
    evaluated("TooHigh", 16);
    const Fpd &fpd = evaluated("IoFpga", 0, "TooHigh");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::dependency_failed);
    expect_log(init_module, "ERROR", "BuildQDependFpdBad",
               "FPD IoFpga can't be upgraded due to dependency FPD TooHigh state 'FPD Can't be Upgraded'");
}

TEST_F(SequenceNumbers, OutOfRangeAreRefusedInTheSecondPassToo) {
    const Fpd &available = not_needed("Available", true, 16);
    const Fpd &fpd = evaluated("IoFpga", 0, "Available");
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(available.state, FpdState::cant_be_upgraded);
    EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
    EXPECT_THAT(log_lines("BuildQFpdSeqOutOfRange"),
                ElementsAre(log_line(init_module, "ERROR", "BuildQFpdSeqOutOfRange",
                                     "FPD IoFpga sequence queue # 17 is out of range"),
                            log_line(init_module, "ERROR", "BuildQFpdSeqOutOfRange",
                                     "FPD Available sequence queue # 16 is out of range")));
    EXPECT_EQ(card.planned_count, 0U);
}

// Upgrade types -------------------------------------------------------------------------------------------------------

struct UpgradeTypes : BuildQueue, testing::WithParamInterface<UpgradeStage> {
    bool is_manufacturing() const { return static_cast<int>(GetParam()) <= 2; }
};

TEST_P(UpgradeTypes, Of1ArePlanned) {
    const Fpd &fpd = evaluated("IoFpga");
    ASSERT_EQ(build(GetParam()), 0);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    expect_log(init_module, "DEBUG", "BuildQFpdUpgradeable", "FPD IoFpga is upgradeable");
}

TEST_P(UpgradeTypes, Of5ArePlannedInManufacturing) {
    Fpd &fpd = evaluated("IoFpga");
    fpd.info.upgrade_type = 5;
    ASSERT_EQ(build(GetParam()), 0);
    if (is_manufacturing()) {
        EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
        expect_log(init_module, "DEBUG", "BuildQFpdMfgUpgradeable", "FPD IoFpga is MFG Upgradeable");
        expect_no_log("BuildQFpdMfgOnlyUpgradeable");
    } else {
        EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
        expect_log(init_module, "DEBUG", "BuildQFpdMfgOnlyUpgradeable",
                   "FPD IoFpga with Upgrade type 5 can only upgradeable in MFG");
        EXPECT_EQ(card.planned_count, 0U);
    }
}

TEST_P(UpgradeTypes, OfAnyOtherNumberAreRefused) {
    for (const int type : {0, 2, 3, 4, 6, 255}) {
        clear_log();
        Fpd &fpd = evaluated("IoFpga");
        fpd.info.upgrade_type = static_cast<std::uint8_t>(type);
        ASSERT_EQ(build(GetParam()), 0);
        EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
        expect_log(init_module, "ERROR", "BuildQFpdCantUpgraded",
                   "FPD IoFpga with Upgrade type " + std::to_string(type) + " can't be upgraded ");
        free_queues(card);
    }
}

TEST_P(UpgradeTypes, Of5AreDependenciesInManufacturing) {
    Fpd &b = not_needed("B", true);
    b.info.upgrade_type = 5;
    evaluated("A", 0, "B");
    ASSERT_EQ(build(GetParam()), 0);
    if (is_manufacturing()) {
        EXPECT_EQ(b.state, FpdState::queued_for_upgrade);
        expect_log(init_module, "DEBUG", "BuildQFpdDepMfgUpgradeable", "FPD B is MFG Upgradeable");
    } else {
        EXPECT_EQ(b.state, FpdState::cant_be_upgraded);
        expect_log(init_module, "DEBUG", "BuildQFpdDepMfgOnlyUpgradeable",
                   "FPD B with Upgrade type 5 can only upgradeable in MFG");
        EXPECT_EQ(card.planned_count, 1U);
    }
}

TEST_P(UpgradeTypes, OfAnyOtherNumberAreNoDependencies) {
    Fpd &b = not_needed("B", true);
    b.info.upgrade_type = 4;
    evaluated("A", 0, "B");
    ASSERT_EQ(build(GetParam()), 0);
    EXPECT_EQ(b.state, FpdState::cant_be_upgraded);
    expect_log(init_module, "ERROR", "BuildQFpdDepCantUpgraded",
               "FPD B with Upgrade type 4 can't be dependency upgraded ");
    EXPECT_THAT(unplanned(), ElementsAre("B"));
}

INSTANTIATE_TEST_SUITE_P(OfEveryStage, UpgradeTypes,
                         testing::Values(UpgradeStage::requires_golden_unlocked_primary,
                                         UpgradeStage::can_unlock_golden, UpgradeStage::manufacturing,
                                         UpgradeStage::regular, UpgradeStage::dummy_minor, UpgradeStage::dummy_major));

// The marker fails ----------------------------------------------------------------------------------------------------

constexpr const char *no_memory = "Unable to allocate memory for upgrade marker, error Cannot allocate memory";

TEST_F(BuildQueue, EndsAtOnceWhenTheMarkerTakesNoEntry) {
    Fpd &first = evaluated("First");
    Fpd &second = evaluated("Second");
    interpose::fail(Call::calloc, ENOMEM);
    EXPECT_EQ(build(), -12);
    EXPECT_STREQ(err_msg, no_memory);
    expect_log(init_module, "ERROR", "AddFPDUpgMarkerFail",
               std::string("Failed to add FPD First into Upgrade Marker, error ") + no_memory);
    EXPECT_EQ(first.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_EQ(second.state, FpdState::description_received);
    EXPECT_THAT(unplanned(), ElementsAre("Second"));
}

TEST_F(BuildQueue, EndsAtOnceWhenTheMarkerTakesNoDependency) {
    evaluated("First");
    evaluated("Second", 0, "Available1");
    evaluated("Third", 0, "Available2");
    not_needed("Available1", true);
    Fpd &last = not_needed("Available2", true);
    interpose::fail(Call::realloc, ENOMEM, 2);  // the third entry needs more room, and so does the fourth
    EXPECT_EQ(build(), -12);
    EXPECT_STREQ(err_msg, no_memory);
    expect_log(init_module, "ERROR", "AddFPDUpgMarkerFail2",
               std::string("Failed to add FPD Available1 into Upgrade Marker, error ") + no_memory);
    expect_no_log("AddFPDUpgMarkerFail");
    EXPECT_EQ(card.planned_count, 4U);
    EXPECT_EQ(last.state, FpdState::dependent_upgrade_required);
}

TEST_F(BuildQueue, KeepsARefusalWhenItIsRepeatedOverTheSameRecords) {
    Fpd &fpd = evaluated("IoFpga", 16);
    ASSERT_EQ(build(), 0);
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
    EXPECT_THAT(log_lines("BuildQFpdSeqOutOfRange"), SizeIs(1));
    EXPECT_EQ(card.planned_count, 0U);
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

TEST_F(PlanUpgrade, InRegularModeAsksForRegularFirmware) {
    EXPECT_EQ(plan_run(), 0);
    EXPECT_THAT(asked(), ElementsAre("IoFpga 0"));
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_STREQ(err_msg, "");
}

TEST_F(PlanUpgrade, InDummyModesAsksForDummyFirmware) {
    set_mode(UpgradeMode::dummy_minor_version);
    EXPECT_EQ(plan_run(), 0);
    EXPECT_THAT(asked(), ElementsAre("IoFpga 3"));
    free_queues(card);
    fake_platform().forget_calls();
    set_mode(UpgradeMode::dummy_major_version);
    EXPECT_EQ(plan_run(), 0);
    EXPECT_THAT(asked(), ElementsAre("IoFpga 4"));
}

TEST_F(PlanUpgrade, HandsTheRunLevelOn) {
    region("IoFpga").capabilities = 0;
    EXPECT_EQ(plan_run(RunLevel::boot), 0);
    EXPECT_EQ(card.planned_count, 0U);
    free_queues(card);
    EXPECT_EQ(plan_run(RunLevel::backend), 0);
    EXPECT_EQ(card.planned_count, 1U);
}

TEST_F(PlanUpgrade, FailsForAModeThatIsNone) {
    for (const int mode : {7, 4, -1}) {
        clear_log();
        fake_platform().upgrade_mode = mode;
        EXPECT_EQ(plan_run(), 22);
        EXPECT_EQ(err_msg, "Unknown FPD Upgrade mode " + std::to_string(mode));
        expect_log(init_module, "ERROR", "FpdUpgdModeUnknown", "Unknown FPD Upgrade mode " + std::to_string(mode));
    }
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(PlanUpgrade, FailsAsTheStoreDoes) {
    fake_platform().cookie_get_upgrade_mode = [](int *, char *text, std::size_t size) {
        std::snprintf(text, size, "store is locked");
        return 0x321;
    };
    EXPECT_EQ(plan_run(), 0x321);
    EXPECT_STREQ(err_msg, "store is locked");
    expect_log(init_module, "ERROR", "FpdUpgdCookieGetModeFail",
               "Failed to get FPD Upgrade Mode, error store is locked");
}

TEST_F(PlanUpgrade, ShowsNoEarlierTextWhenTheStoreGivesNone) {
    fake_platform().cookie_get_upgrade_mode = [](int *, char *, std::size_t) { return -9; };
    EXPECT_EQ(plan_run(), -9);
    EXPECT_STREQ(err_msg, "");
    expect_log(init_module, "ERROR", "FpdUpgdCookieGetModeFail", "Failed to get FPD Upgrade Mode, error ");
}

constexpr const char *no_count = "Failed to get No. of FPDs for group id 3";

TEST_F(PlanUpgrade, FailsAsTheLoadDoes) {
    fail_load(1);
    EXPECT_EQ(plan_run(), -13);
    EXPECT_STREQ(err_msg, no_count);
    expect_log(init_module, "ERROR", "LoadFpdsFail", std::string("Initializing FPDs failed err_msg ") + no_count);
}

TEST_F(PlanUpgrade, FailsAsTheConstructionDoes) {
    interpose::fail(Call::calloc, ENOMEM, 4);  // ids, record, regions, marker
    EXPECT_EQ(plan_run(), -12);
    EXPECT_STREQ(err_msg, no_memory);
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

TEST_F(PlanManufacturing, FailsWhenItsFirstStageDoes) {
    fail_load(1);
    EXPECT_EQ(plan_run(), -13);
    EXPECT_STREQ(err_msg, no_count);
    expect_log(init_module, "ERROR", "FpdUpgdStageCheckReqGlndUnlckPrimaryFail",
               std::string("FPD Upgrade stage 'Required a Golden Unlocked Primary firmware' check failed to build fpd "
                           "upgrade, error ") +
                   no_count);
}

TEST_F(PlanManufacturing, FailsWhenItsSecondStageDoes) {
    fail_load(2);
    EXPECT_EQ(plan_run(), -13);
    EXPECT_STREQ(err_msg, no_count);
    expect_log(init_module, "ERROR", "FpdUpgdStageCheckCanUnlckGlndUnlckFail",
               std::string("FPD Upgrade stage 'firmware can unlock Golden' check failed to build fpd upgrade, error ") +
                   no_count);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_EQ(upg_marker().text, nullptr);
}

TEST_F(PlanManufacturing, FailsWhenItsLastStageDoes) {
    fail_load(3);  // which shows the first FPD only, and that cannot unlock Golden
    EXPECT_EQ(plan_run(), -13);
    EXPECT_STREQ(err_msg, no_count);
    expect_log(init_module, "ERROR", "LoadFpdsFail", std::string("Initializing FPDs failed err_msg ") + no_count);
    expect_no_log("FpdUpgdStageCheckCanUnlckGlndUnlckFail");
}

TEST_F(PlanManufacturing, FailsWhenTheRepeatedFirstStageDoes) {
    region("Needy").capabilities = 0x8;
    fail_load(2);
    EXPECT_EQ(plan_run(), -13);
    EXPECT_STREQ(err_msg, no_count);
    expect_no_log("FpdUpgdStageCheckReqGlndUnlckPrimaryFail");
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
    EXPECT_EQ(init(), -5);
    const char *const reason = "Couldn't open FPD msg queue err_msg Too many open files";
    EXPECT_STREQ(err_msg, reason);
    expect_log(init_module, "ERROR", "InitMQFail",
               std::string("Initializing Auto FPD Upgrade msg queue failed err_msg ") + reason);
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
}

TEST_F(Interface, FailsAsThePlanDoes) {
    fake_platform().upgrade_mode = 7;
    EXPECT_EQ(init(), 22);
    EXPECT_STREQ(err_msg, "Unknown FPD Upgrade mode 7");
}

TEST_F(Interface, IsUndoneByDeinit) {
    const std::vector<std::string> before = open_descriptors();
    ASSERT_EQ(init(), 0);
    std::strcpy(err_msg, "left by an earlier call");
    EXPECT_EQ(deinit(), 0);
    EXPECT_STREQ(err_msg, "");
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
    EXPECT_EQ(deinit(), -5);
    const char *const reason = "Couldn't close FPD msg queue err_msg Bad file descriptor";
    EXPECT_STREQ(err_msg, reason);
    expect_log(init_module, "ERROR", "DeinitFpdMQFail",
               std::string("Deinitializing FPD msg queue failed err_msg ") + reason);
    EXPECT_TRUE(queue_exists());
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(BuildQueue, PlansEveryFpdThatOnlyOthersNeed) {
    evaluated("First", 0, "Available1");
    evaluated("Second", 0, "Available2");
    not_needed("Available1", true);
    not_needed("Other", true);
    not_needed("Available2", true);
    ASSERT_EQ(build(), 0);
    EXPECT_EQ(card.planned_count, 4U);
    EXPECT_THAT(unplanned(), ElementsAre("Other"));
}

TEST_F(BuildQueue, TakesNoBadOrMissingDependencyForACircle) {
    evaluated("Missing", 0, "Nobody");
    evaluated("Bad", 0, "Failed");
    discover("Failed", FpdState::upgrade_failed);
    ASSERT_EQ(build(), 0);
    EXPECT_THAT(log_lines("BuildQFpdDependNotFound"), SizeIs(1));
    EXPECT_THAT(log_lines("BuildQDependFpdBad"), SizeIs(1));
    expect_no_log("BuildQFpdCircularDepend");
}

TEST_F(PlanUpgrade, IsRegularWhenTheStoreTellsOfNoMode) {
    fake_platform().cookie_get_upgrade_mode = [](auto...) { return 0; };
    EXPECT_EQ(plan_run(), 0);
    EXPECT_THAT(asked(), ElementsAre("IoFpga 0"));
}

}  // namespace
