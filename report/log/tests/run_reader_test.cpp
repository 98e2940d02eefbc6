/// What the reader makes of a log.

#include "run_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_text.h"

namespace log_tests {
namespace {

using fpd_log::AttemptEnd;
using fpd_log::EventKind;
using fpd_log::Outcome;
using fpd_log::Region;
using ToolRun = fpd_log::Run;
using fpd_log::RunLimits;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// What became of a region ---------------------------------------------------------------------------------------------

struct OutcomeCase {
    std::string name;
    std::vector<std::pair<std::string, std::string>> lines;  // tag and text, after the region X was described
    Outcome outcome;
    std::string reason;
};

void PrintTo(const OutcomeCase &each, std::ostream *out) {
    *out << each.name;
}

class OutcomeOfARegion : public testing::TestWithParam<OutcomeCase> {};

TEST_P(OutcomeOfARegion, IsToldInOneLine) {
    LogText log;
    log.describe("X", "1.0.0", "2.0.0", true).judge("X");
    for (const auto &[tag, text] : GetParam().lines) log.fail(tag, text);
    const ToolRun run = run_of(log.text);
    ASSERT_THAT(run.regions, SizeIs(1));
    EXPECT_EQ(run.unknown_lines, 0U) << testing::PrintToString(run.unknown);
    EXPECT_STREQ(outcome_text(run.regions[0].outcome), outcome_text(GetParam().outcome));
    EXPECT_EQ(run.regions[0].reason, GetParam().reason);
}

const OutcomeCase outcome_cases[] = {
    {"NotAutomatic",
     {{"InitFpdSkipAutoFpdUpgNotSupported", "FPD X Auto upgrade is not supported"}},
     Outcome::not_considered,
     "automatic upgrade is not supported"},
    {"NotAtBoot",
     {{"InitFpdSkipAutoFpdUpgNotBootUp", "FPD X Bootup Auto upgrade is not supported"},
      {"BuildQFpdNotReady", "FPD X doesn't have a valid info or Description, state 'FPD Capability Received'"}},
     Outcome::not_considered,
     "not upgraded at boot"},
    {"NotOfStage1a",
     {{"InitFpdSkipNotAUpgdReqGoldenUnlockPrimary",
       "FPD upgrade stage 'Required a Golden Unlocked Primary firmware' is looking for FPDs that are required Golden "
       "unlock primary and FPD X is not marked for this stage"}},
     Outcome::not_considered,
     "stage 1.a upgrades what needs an unlocked Golden image only"},
    {"ManufacturingOnly",
     {{"BuildQFpdMfgOnlyUpgradeable", "FPD X with Upgrade type 5 can only upgradeable in MFG"}},
     Outcome::not_considered,
     "upgrade type 5 is upgraded in manufacturing only"},
    {"NoVersions",
     {{"FpdInfoGetBrdFail", "Failed to get FPD info, error no answer"},
      {"InitFpdInfoGetFail", "Failed to get FPD info, error no answer"}},
     Outcome::refused,
     "its versions cannot be read: no answer"},
    {"NoFirmware",
     {{"InitFpdDescFail", "Does not have a Firmware packaged for FPD X err_msg no image of type 0"}},
     Outcome::refused,
     "no firmware packaged: no image of type 0"},
    {"ChecksumWrong",
     {{"InitFpdMd5SumFailed", "md5 checksum validation failed, 12 is not 34"}},
     Outcome::refused,
     "md5 checksum validation failed, 12 is not 34"},
    {"TooOld",
     {{"BuildQRevNotSupportUpgrade",
       "FPD X current version 1.0.0 doesn't support upgrade and supported version is 2.0.0 and above"}},
     Outcome::refused,
     "running 1.0.0 is older than 2.0.0, the oldest that can be upgraded"},
    {"NotAskedFor",
     {{"BuildQFpdUpgAvailable", "FPD X has minor down revision available swver 0x1000000 fwver 0x2000000"}},
     Outcome::current,
     "1.0.0 is programmed and 2.0.0 packaged, which does not ask for the upgrade"},
    {"NotNeeded",
     {{"BuildQFpdUpgNotNeeded", "FPD X doesn't require an Upgrade"}},
     Outcome::current,
     "1.0.0 is programmed and packaged"},
    {"DependencyUnknown",
     {{"BuildQFpdDependNotFound", "FPD X has a Dependency FPD Y and couldn't find the dependency in the fpd queue"}},
     Outcome::refused,
     "waits for FPD Y, which is not known"},
    {"DependencyCircular",
     {{"BuildQFpdCircularDepend", "FPD X has found a circular dependency FPD Y"}},
     Outcome::refused,
     "waits for FPD Y, in a circle of dependencies"},
    {"DependencyBad",
     {{"BuildQDependFpdBad", "FPD X can't be upgraded due to dependency FPD Y state 'FPD Description Failed'"}},
     Outcome::refused,
     "waits for FPD Y, which is in state 'FPD Description Failed'"},
    {"TypeRefused",
     {{"UpdateFpdTransitionState",
       "FPD X transitioning state from 'FPD Description Received' to 'FPD Can't be Upgraded' at 500"},
      {"BuildQFpdCantUpgraded", "FPD X with Upgrade type 3 can't be upgraded "}},
     Outcome::refused,
     "the firmware's upgrade type 3 cannot be upgraded"},
    {"QueueOutOfRange",
     {{"BuildQFpdSeqOutOfRange", "FPD X sequence queue # 16 is out of range"}},
     Outcome::refused,
     "there is no sequence queue 16"},
    {"Planned",
     {{"UpdateFpdTransitionState",
       "FPD X transitioning state from 'FPD Description Received' to 'FPD Queued for Upgrade' at 500"},
      {"BuildFpdAddedSeqQueue", "FPD X would be upgrade in the sequence queue # 3"}},
     Outcome::planned,
     "would be upgraded to 2.0.0"},
    {"PlannedInVain",
     {{"UpdateFpdTransitionState",
       "FPD X transitioning state from 'FPD Description Received' to 'FPD Queued for Upgrade' at 500"},
      {"AddFPDUpgMarkerFail", "Failed to add FPD X into Upgrade Marker, error no room"}},
     Outcome::planned,
     "would be upgraded to 2.0.0, but the run failed: Failed to add FPD X into Upgrade Marker, error no room"},
    {"StoppedByTheMarker",
     {{"UpdateFpdTransitionState",
       "FPD X transitioning state from 'FPD Description Received' to 'FPD Queued for Upgrade' at 500"},
      {"UpgMarkerCheck", "Skipping Upgrade since trying to upgrade same FPDs and Versions"}},
     Outcome::planned,
     "the same FPDs and versions were tried on the boot before"},
    {"NotJudged", {}, Outcome::unfinished, "the log ends before it was judged"},
    {"DependencyFailed",
     {{"UpdateFpdTransitionState",
       "FPD X transitioning state from 'FPD Description Received' to 'FPD Queued for Upgrade' at 500"},
      {"StartFpdUpgWorkerDepFpdFail",
       "FPD X can't be upgraded without dependecny FPD Y upgrade state 'FPD Upgrade Failed'"},
      {"UpdateFpdTransitionState",
       "FPD X transitioning state from 'FPD Queued for Upgrade' to 'FPD Can't be Upgraded' at 500"},
      {"FpdUpgProgressCheckStartUpgFail",
       "Starting FPD X upgrade failed error FPD X can't be upgraded without dependecny FPD Y upgrade state 'FPD "
       "Upgrade Failed'"}},
     Outcome::given_up,
     "waits for FPD Y, which failed"},
    {"NoWorker",
     {{"UpdateFpdTransitionState",
       "FPD X transitioning state from 'FPD Description Received' to 'FPD Queued for Upgrade' at 500"},
      {"WorkerCtxNoMem", "No memory available to create worker context error Cannot allocate memory"},
      {"FpdUpgProgressCheckStartUpgFail", "Starting FPD X upgrade failed error no memory"},
      {"FpdUpgProgressCheckStartUpgFail", "Starting FPD X upgrade failed error no memory"}},
     Outcome::given_up,
     "no worker: no memory"},
};

INSTANTIATE_TEST_SUITE_P(Planning, OutcomeOfARegion, testing::ValuesIn(outcome_cases),
                         [](const auto &each) { return each.param.name; });

// Attempts ------------------------------------------------------------------------------------------------------------

LogText planned() {
    LogText log;
    log.describe("X", "1.0.0", "2.0.0", true).plan("X");
    return log;
}

void fail_attempt(LogText &log, int worker_thread, const std::string &reason) {
    log.begin_attempt("X", worker_thread);
    log.thread = worker_thread;
    log.fail("FpdUpgHdlUpgradeFail", "FPD X upgrade failed err_msg " + reason);
    log.thread = 0;
    log.respond("X", "FPD Upgrade Failed", 0);
}

void queue_again(LogText &log, const std::string &tag) {
    log.transition("X", "FPD Upgrade Started", "FPD Queued for Upgrade");
    log.say(tag, "FPD X would be queued to upgrade upg_retry 1");
}

void get_stuck(LogText &log, int worker_thread) {
    log.begin_attempt("X", worker_thread);
    log.respond("X", "FPD Upgrade Progressing", 40);
    log.transition("X", "FPD Upgrade Started", "FPD Upgrade Progressing");
    log.fail(
        "ChkFpdUpgProgressingMaxTransTimeOut",
        "FPD X Upgrade stuck in the state 'FPD Upgrade Progressing' since 180250000 time now vs. maximum 180000000 "
        "time");
}

TEST(Attempts, OfAnUpgradeAreOneFromTheWorkersCreationToItsReport) {
    LogText log = planned();
    const fpd_log::Time begin = log.time;
    log.upgrade("X", 101).end();
    const ToolRun run = run_of(log.text);
    const Region &region = region_of(run, "X");
    EXPECT_EQ(region.outcome, Outcome::upgraded);
    EXPECT_EQ(region.reason, "2.0.0 was programmed over 1.0.0");
    ASSERT_THAT(region.attempts, SizeIs(1));
    EXPECT_EQ(region.attempts[0].begin, begin);
    EXPECT_EQ(region.attempts[0].end, begin + 4000);
    EXPECT_EQ(region.attempts[0].progress, 100);
    EXPECT_EQ(region.attempts[0].how, AttemptEnd::done);
    EXPECT_TRUE(run.upgrades);
    EXPECT_TRUE(run.finished);
}

TEST(Attempts, TellWhyTheFirstFailedWhenTheSecondGoesThrough) {
    LogText log = planned();
    fail_attempt(log, 101, "sector erase timed out");
    queue_again(log, "FpdUpgFailRespRetry");
    log.upgrade("X", 102).end();
    const ToolRun run = run_of(log.text);
    const Region &region = region_of(run, "X");
    EXPECT_EQ(region.outcome, Outcome::upgraded_at_second_attempt);
    EXPECT_EQ(region.reason, "2.0.0 was programmed over 1.0.0; the first attempt failed: sector erase timed out");
    ASSERT_THAT(region.attempts, SizeIs(2));
    EXPECT_EQ(region.attempts[0].how, AttemptEnd::failed);
    EXPECT_EQ(region.attempts[0].reason, "sector erase timed out");
    EXPECT_EQ(region.retries, 1);
}

TEST(Attempts, OfWhichTheLastFailedTellItsReason) {
    LogText log = planned();
    fail_attempt(log, 101, "one");
    queue_again(log, "FpdUpgFailRespRetry");
    fail_attempt(log, 102, "two\nlines");
    log.transition("X", "FPD Upgrade Started", "FPD Upgrade Failed").end();
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(region_of(run, "X").outcome, Outcome::failed);
    EXPECT_EQ(region_of(run, "X").reason, "two lines");
    EXPECT_EQ(region_of(run, "X").attempts.back().reason, "two\nlines");
}

TEST(Attempts, ThatWereStuckTwiceAreToldWithTimeAndLimitInSeconds) {
    LogText log = planned();
    get_stuck(log, 101);
    queue_again(log, "ChkFpdUpgProgressingTransRetry");
    get_stuck(log, 102);
    log.transition("X", "FPD Upgrade Progressing", "FPD Can't be Upgraded").end();
    const ToolRun run = run_of(log.text);
    const Region &region = region_of(run, "X");
    EXPECT_EQ(region.outcome, Outcome::given_up);
    EXPECT_EQ(region.reason, "stuck in 'FPD Upgrade Progressing' at 40 % for 180.25 s (limit 180 s), twice");
    ASSERT_THAT(region.attempts, SizeIs(2));
    EXPECT_EQ(region.attempts[0].how, AttemptEnd::stuck);
    EXPECT_EQ(region.attempts[0].progress, 40);
}

TEST(Attempts, ThatFailedAndThenWereStuckTellBoth) {
    LogText log = planned();
    fail_attempt(log, 101, "one");
    queue_again(log, "FpdUpgFailRespRetry");
    get_stuck(log, 102);
    log.transition("X", "FPD Upgrade Progressing", "FPD Can't be Upgraded").end();
    EXPECT_EQ(region_of(run_of(log.text), "X").reason,
              "stuck in 'FPD Upgrade Progressing' at 40 % for 180.25 s (limit 180 s); the first attempt failed: one");
}

TEST(Attempts, OfWorkersThatSpeakAtOnceHaveEachItsOwnReason) {
    LogText log;
    log.describe("X", "1", "2", true).describe("Y", "1", "2").plan("X").plan("Y");
    log.begin_attempt("X", 101).begin_attempt("Y", 102);
    log.thread = 102;
    log.fail("FpdUpgHdlUpgradeFail", "FPD Y upgrade failed err_msg of Y");
    log.thread = 101;
    log.fail("FpdUpgHdlUpgradeFail", "FPD X upgrade failed err_msg of X");
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(region_of(run, "X").attempts.at(0).reason, "of X");
    EXPECT_EQ(region_of(run, "Y").attempts.at(0).reason, "of Y");
}

TEST(Attempts, AreUnfinishedWhereTheLogEnds) {
    LogText log = planned();
    log.begin_attempt("X", 101).respond("X", "FPD Upgrade Progressing", 70);
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(region_of(run, "X").outcome, Outcome::unfinished);
    EXPECT_EQ(region_of(run, "X").reason, "the log ends while it was upgraded, at 70 %");
    EXPECT_FALSE(run.finished);
}

TEST(Attempts, ThatAreToComeAreUnfinishedWhereTheLogEnds) {
    LogText log = planned();
    fail_attempt(log, 101, "one");
    queue_again(log, "FpdUpgFailRespRetry");
    EXPECT_EQ(region_of(run_of(log.text), "X").reason,
              "the log ends while it waited for its second attempt; the first attempt failed: one");
}

TEST(Attempts, OfARunThatWasCutOffAreNotItsEnd) {
    const auto births = [] {
        return LogText().transition("", "Unknown state 0", "FPD Created").transition("", "FPD Created", "FPD INIT");
    };
    const auto skipped = [] {
        return LogText().discover("X", true).say("InitFpdSkipAutoFpdUpgNotBootUp",
                                                 "FPD X Bootup Auto upgrade is not supported");
    };
    const struct {
        const char *name;
        LogText log;
        bool finished;
    } cases[] = {
        {"a region without its name", births(), false},
        {"a region without a name, as the error says",
         births().fail("InitFpdGetNameFail", "Failed to get FPD name for group id 1 fpd obj id 2 region 0"), true},
        {"no region", LogText().say("LoadFpdsNoFpds", "No FPDs Defined"), true},
        {"decided in the discovery", skipped(), false},
        {"planned after it", skipped().judge("X"), true},
        {"upgraded", planned().upgrade("X", 101), false},
        {"the end of all upgrades", planned().upgrade("X", 101).end(), true},
    };
    for (const auto &[name, log, finished] : cases) EXPECT_EQ(run_of(log.text).finished, finished) << name;
}

// What happened to the card -------------------------------------------------------------------------------------------

std::vector<std::string> events_of(const ToolRun &run) {
    std::vector<std::string> all;
    for (const fpd_log::Event &event : run.events)
        all.push_back(event_key(event.kind) + (event.text.empty() ? "" : ": " + event.text));
    return all;
}

TEST(Events, OfARunAreInTheOrderOfItsLines) {
    LogText log = planned();
    log.say("BrdIntfLedStateColorGet2", "Original LED state 'STEADY' and color 'GREEN'");
    log.say("SetLedStateAndColor", "Setting LED State 'BLINK' and Color 'GREEN'");
    log.upgrade("X", 101);
    log.say("ObflMountPointExist", "OBFL Flash mountpoint '/mnt/obfl' exist, output 'it is\n'");
    for (int i = 0; i < 5; ++i) log.say("AutoFpdUpgradeProgressWDPunch", "Punching PD watchdog: ", "DEBUG");
    log.fail("AutoFpdUpgradeProgressEvent", "Sending Auto FPD Progressing Event failed error no script");
    log.end();
    log.say("ObflOperCmd",
            "Executed OBFL Flashoperation command 'timeout 30s /usr/sbin/check-flash stop obfl' output ''");
    log.say("FpdUpgActivate", "FPD Upgrade required a reload_type 2 to activate");
    const ToolRun run = run_of(log.text);
    EXPECT_THAT(events_of(run),
                ElementsAre("run_start", "led: BLINK GREEN", "flash_mounted", "watchdog_punch", "watchdog_punch",
                            "event_failed: Sending Auto FPD Progressing Event failed error no script", "run_end",
                            "flash_released", "activation: reload type 2"));
    EXPECT_EQ(run.watchdog_punches, 5U);
    EXPECT_TRUE(run.reload_requested);
    EXPECT_THAT(run.errors, SizeIs(1));
    EXPECT_EQ(run.unknown_lines, 0U);
}

TEST(Events, TellAReloadThatDidNotCome) {
    LogText log = planned();
    log.upgrade("X", 101).end().say("FpdUpgActivate", "FPD Upgrade required a reload_type 1 to activate");
    log.fail("AutoFpdUpgradeActivateFail", "Auto FPD Upgrade Activation failed error no script");
    const ToolRun run = run_of(log.text);
    EXPECT_FALSE(run.reload_requested);
    EXPECT_EQ(run.events.back().kind, EventKind::activation_failed);
}

TEST(Events, OfARunThatFailsAsAWholeAreItsFailure) {
    LogText log;
    log.fail("BootstrapFileNotFound", "Bootstrap File /a is not found error none");
    log.fail("InitLocalCardPlatHwVerFail", "Local Card Platform card HW version get failed -2");
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(run.failure, "Local Card Platform card HW version get failed -2");
    EXPECT_THAT(run.errors, SizeIs(2));
    EXPECT_THAT(run.regions, IsEmpty());
}

// Where a run begins --------------------------------------------------------------------------------------------------

TEST(Boundary, IsAnotherProcess) {
    LogText log;
    log.describe("X", "1", "1", true).not_needed("X");
    log.process = 101;
    log.describe("X", "1", "1", true).not_needed("X");
    EXPECT_THAT(runs_of(log.text), SizeIs(2));
}

TEST(Boundary, IsADiscoveryThatBeginsAgainInTheSameProcess) {
    LogText log;
    for (int i = 0; i < 3; ++i)
        log.describe("X", "1", "1", true).describe("Y", "1", "1").not_needed("X").not_needed("Y");
    const std::vector<ToolRun> runs = runs_of(log.text);
    ASSERT_THAT(runs, SizeIs(3));
    for (const ToolRun &run : runs) {
        EXPECT_THAT(outcomes(run), ElementsAre("X current", "Y current"));
        EXPECT_EQ(run.lines, runs[0].lines);
        EXPECT_EQ(run.regions[0].transitions.at(0).to, "FPD Created");
    }
}

TEST(Boundary, IsTheSameRegionDiscoveredTwiceBeforeAnyWasJudged) {
    LogText log;
    log.describe("X", "1", "1", true).describe("X", "1", "1", true).not_needed("X");
    const std::vector<ToolRun> runs = runs_of(log.text);
    ASSERT_THAT(runs, SizeIs(2));
    EXPECT_EQ(runs[0].regions[0].outcome, Outcome::unfinished);
}

TEST(Boundary, IsAMonotonicClockThatGoesBack) {
    LogText log = planned();
    log.clock = 3;
    log.transition("X", "FPD Queued for Upgrade", "FPD worker created for Upgrade");
    EXPECT_THAT(runs_of(log.text), SizeIs(2));
}

TEST(Boundary, IsNoClockThatCouldNotBeRead) {
    LogText log = planned();
    log.fail("UpdateFpdTransitionStateTimeFail", "Updating FPD X state transition Clock get failed, error none");
    log.clock = 0;
    log.transition("X", "FPD Queued for Upgrade", "FPD worker created for Upgrade");
    log.clock = 501;
    log.transition("X", "FPD worker created for Upgrade", "FPD Upgrade Started");
    EXPECT_THAT(runs_of(log.text), SizeIs(1));
}

TEST(Boundary, IsAWallClockThatGoesBackByHoursButNotByOne) {
    LogText log = planned();
    log.time -= fpd_log::Time{3600} * 1'000'000;
    log.upgrade("X", 101);
    ASSERT_THAT(runs_of(log.text), SizeIs(1));
    EXPECT_GT(run_of(log.text).end, run_of(log.text).begin);
    log.time -= fpd_log::Time{3} * 3600 * 1'000'000;
    log.end();
    EXPECT_THAT(runs_of(log.text), SizeIs(2));
}

TEST(Boundary, IsTheFirstLineOfAProcessThatOnlyAnswersAboutTheConfiguration) {
    LogText log;
    log.describe("X", "1", "1", true).not_needed("X");
    log.say("AutoFpdUpgCfgNotEna", "Auto FPD Upgrade is not enabled on the system");
    log.say("AutoFpdUpgCfgNotEna", "Auto FPD Upgrade is not enabled on the system");
    const std::vector<ToolRun> runs = runs_of(log.text);
    ASSERT_THAT(runs, SizeIs(3));
    EXPECT_TRUE(runs[1].disabled);
    EXPECT_TRUE(runs[1].finished);
    EXPECT_EQ(runs[2].number, 3U);
}

TEST(Boundary, IsTheFirstLineAfterAStartThatFailed) {
    LogText log;
    for (int boot = 0; boot < 2; ++boot) log.fail("InitLocalCardBrdIntfInitFail", "BRD init failed rc -1");
    EXPECT_THAT(runs_of(log.text), SizeIs(2));
}

TEST(Boundary, IsNotTheStageThatIsPlannedTwiceForWantOfAnythingToDo) {
    LogText log;
    log.describe("X", "1", "1", true).not_needed("X");
    log.transition("", "Unknown state 0", "FPD Created").transition("", "FPD Created", "FPD INITIALIZED");
    log.fail("AddFpdQueueDupEntry", "adding a Duplicate FPD X found");
    log.fail("InitFpdAddQFail", "Failed to add FPD into upg_queue.queue err_msg Duplicate FPD X found");
    log.not_needed("X");
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(run.stage, "1.a");
    EXPECT_THAT(outcomes(run), ElementsAre("X current"));
}

TEST(Boundary, IsNotAStageOfManufacturing) {
    LogText log = planned();
    log.say("FpdUpgdStageReqGoldenUnlock", "Building FPDs to unlock Golden", "DEBUG");
    log.describe("X", "1.0.0", "1.0.0", true).not_needed("X");
    log.describe("X", "1.0.0", "3.0.0", true).plan("X", 2).upgrade("X", 101).end();
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(run.stage, "2");
    EXPECT_THAT(events_of(run), ElementsAre("stage: 1.a", "stage: 1.b", "stage: 2", "run_start", "run_end"));
    EXPECT_THAT(outcomes(run), ElementsAre("X upgraded"));
    EXPECT_EQ(run.regions[0].queue, 2);
}

TEST(Boundary, IsNotAProcessThatFindsTheRunAtWorkAndGivesUp) {
    LogText log = planned();
    log.begin_attempt("X", 1000);
    for (int other = 200; other < 203; ++other) {
        log.process = other;
        log.fail("FpdMQOpenFail", "Couldn't open FPD msg queue err_msg Device or resource busy");
        log.fail("InitMQFail", "Initializing Auto FPD Upgrade msg queue failed err_msg busy");
        log.process = 100;
        log.respond("X", "FPD Upgrade Progressing", 50);
    }
    log.respond("X", "FPD Upgrade Done", 100).transition("X", "FPD Upgrade Progressing", "FPD Upgrade Done").end();
    const std::vector<ToolRun> runs = runs_of(log.text);
    ASSERT_THAT(runs, SizeIs(4));
    EXPECT_EQ(runs[0].failure, "Initializing Auto FPD Upgrade msg queue failed err_msg busy");
    EXPECT_EQ(runs[3].number, 1U);
    EXPECT_THAT(outcomes(runs[3]), ElementsAre("X upgraded"));
}

TEST(Boundary, IsTheDiscoveryOfAnotherProcessAfterARunThatWasCutShort) {
    LogText log = planned();
    log.begin_attempt("X", 1000);
    log.process = 200;
    log.describe("X", "1", "2", true);
    const std::vector<ToolRun> runs = runs_of(log.text);
    ASSERT_THAT(runs, SizeIs(2));
    EXPECT_EQ(runs[0].process, 100);
    EXPECT_FALSE(runs[0].finished);
}

TEST(Boundary, IsTheFirstLineOfAProcessWithTheNumberOfARunThatWasCutShort) {
    LogText log = planned();
    log.begin_attempt("X", 1000);
    for (const int process : {200, 100}) {
        log.process = process;
        log.say("AutoFpdUpgCfgNotEna", "Auto FPD Upgrade is not enabled on the system");
    }
    const std::vector<ToolRun> runs = runs_of(log.text);
    ASSERT_THAT(runs, SizeIs(3));
    for (const ToolRun &run : runs) EXPECT_EQ(run.disabled, run.regions.empty());
}

TEST(Boundary, IsAnotherSourceAndNumbersBeginAnew) {
    std::vector<ToolRun> runs;
    fpd_log::RunReader reader([&runs](ToolRun &&run) { runs.push_back(std::move(run)); });
    const LogText log = planned();
    for (const char *const name : {"a", "b"}) {
        reader.begin_source(name);
        reader.push(log.text);
    }
    reader.finish();
    ASSERT_THAT(runs, SizeIs(2));
    EXPECT_EQ(runs[0].source, "a");
    EXPECT_EQ(runs[1].source, "b");
    EXPECT_EQ(runs[1].number, 1U);
    EXPECT_EQ(runs[1].regions[0].lines.at(0).number, runs[0].regions[0].lines.at(0).number);
}

// Text ----------------------------------------------------------------------------------------------------------------

TEST(LogText, HasMicrosecondsWithoutLeadingZeros) {
    const ToolRun run = run_of(
        "[2026-11-22 06:00:00.5 UTC] [9:9] [FPD] [INFO] [AutoFpdUpgCfgNotEna] [a:1] [Auto FPD "
        "Upgrade is not enabled on the system]\n");
    EXPECT_EQ(run.begin, first_time + 5);
}

TEST(LogText, MayNameNoZoneOrAnOffset) {
    const std::string rest =
        "] [9:9] [FPD] [INFO] [AutoFpdUpgCfgNotEna] [a:1] [Auto FPD Upgrade is not enabled on the "
        "system]\n";
    EXPECT_EQ(run_of("[2026-11-22 06:00:00.0" + rest).begin, first_time);
    EXPECT_EQ(run_of("[2026-11-22 08:00:00.0 +02" + rest).begin, first_time);
    EXPECT_EQ(run_of("[2026-11-22 02:30:00.0 -0330" + rest).begin, first_time);
}

TEST(LogText, MayGoOnInTheNextLines) {
    LogText log = planned();
    log.say("UpgMarkerCheck",
            "Previous Marked FPDs to Upgrade\nFPD: X | Version: 1]\n\nCurren Upgrading FPDs\nFPD: X\n");
    log.say("WriteUpgMarkerData", "Writing Upgrade Marker Data\nFPD: X\n");
    log.fail("AutoFpdUpgradeProgressWDPunchFail", "Punching PD watchdog failed error one]\n[two]\n\n]three");
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(run.unknown_lines, 0U);
    EXPECT_EQ(run.events.at(0).text, "one]\n[two]\n\n]three");
    EXPECT_EQ(run.lines, static_cast<std::uint64_t>(std::count(log.text.begin(), log.text.end(), '\n')));
}

TEST(LogText, ThatIsNotKnownIsCountedAndTheFirstOfItKept) {
    LogText log;
    log.text = "before all\n";
    log.describe("X", "1", "1", true).not_needed("X");
    for (int i = 0; i < 100; ++i) log.text += "foreign " + std::to_string(i) + "\n";
    log.say("NewTag", "of a tool to come").say("BuildQFpdUpgNotNeeded", "in other words");
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(run.unknown_lines, 103U);
    ASSERT_THAT(run.unknown, SizeIs(16));
    EXPECT_EQ(run.unknown[0], "before all");
    EXPECT_EQ(run.unknown[1], "foreign 0");
    EXPECT_EQ(run.regions[0].outcome, Outcome::current);
}

TEST(LogText, WithoutAKnownLineIsNoRun) {
    EXPECT_THAT(runs_of("a\nb\n\n[\n]"), IsEmpty());
}

TEST(LogText, CutOffInAFreeTextDoesNotSwallowTheLineThatFollows) {
    LogText log;
    log.describe("X", "1", "2", true);
    log.fail("InitFpdDescFail", "Does not have a Firmware packaged for FPD X err_msg cut he");
    log.text.resize(log.text.size() - 2);
    log.process = 101;
    log.describe("Y", "1", "1", true).not_needed("Y");
    const std::vector<ToolRun> runs = runs_of(log.text);
    ASSERT_THAT(runs, SizeIs(2));
    EXPECT_EQ(runs[0].unknown_lines, 1U);
    EXPECT_THAT(outcomes(runs[1]), ElementsAre("Y current"));
    EXPECT_EQ(runs[1].regions[0].transitions.size(), 6U);
}

TEST(LogText, MayHaveNamesThatHoldAnything) {
    const std::string name = "a] [b:1] FPD 'x' transitioning state from \x01\xff";
    LogText log;
    log.describe(name, "1", "2", true).plan(name).upgrade(name, 101).end();
    const ToolRun run = run_of(log.text);
    EXPECT_EQ(run.unknown_lines, 0U) << testing::PrintToString(run.unknown);
    EXPECT_THAT(outcomes(run), ElementsAre(name + " upgraded"));
}

TEST(OpenRun, IsToldAsFarAsTheTextWent) {
    fpd_log::RunReader reader([](ToolRun &&) { FAIL() << "handed over"; });
    EXPECT_EQ(reader.open_run(), nullptr);
    LogText log = planned();
    log.begin_attempt("X", 101);
    reader.push(log.text);
    ASSERT_NE(reader.open_run(), nullptr);
    EXPECT_THAT(outcomes(*reader.open_run()), ElementsAre("X unfinished"));
    log.text.clear();
    log.respond("X", "FPD Upgrade Done", 100).transition("X", "FPD Upgrade Started", "FPD Upgrade Done");
    reader.push(log.text);
    EXPECT_THAT(outcomes(*reader.open_run()), ElementsAre("X upgraded"));
}

// Limits --------------------------------------------------------------------------------------------------------------

TEST(Limits, BoundWhatIsKeptAndCountTheRest) {
    LogText log;
    for (int i = 0; i < 20; ++i) log.describe("R" + std::to_string(i), "1", "2", i == 0);
    for (int i = 0; i < 50; ++i)
        log.fail("FpdUpgMsgRcvErr", "FPD Upgrade msgqueue received error " + std::to_string(i));
    for (int i = 0; i < 50; ++i)
        log.fail("FpdUpgDoneInfoGetFail", "FPD R0 Info get failed, error " + std::to_string(i));
    const ToolRun run = run_of(log.text, {.regions = 7, .transitions = 3, .lines = 4, .errors = 5});
    EXPECT_THAT(run.regions, SizeIs(7));
    EXPECT_THAT(run.regions[0].transitions, SizeIs(3));
    EXPECT_THAT(run.regions[0].lines, SizeIs(4));
    EXPECT_EQ(run.regions[0].lines_left_out, 47U);
    EXPECT_THAT(run.errors, SizeIs(5));
    EXPECT_EQ(run.left_out, 13U + 45U);
}

TEST(Limits, BoundAllThatIsKeptTogether) {
    LogText log = planned();
    for (int i = 0; i < 100; ++i)
        log.fail("FpdUpgMsgRcvErr", "FPD Upgrade msgqueue received error " + std::string(1000, 'x'));
    const ToolRun run = run_of(log.text, {.bytes = 20000});
    EXPECT_LT(run.errors.size(), 20U);
    EXPECT_EQ(run.errors.size() + run.left_out, 100U);
}

TEST(Limits, OfALineAreKeptTo) {
    LogText log = planned();
    log.text += "[2026-11-22 " + std::string(300'000, '[') + "\n" + std::string(10'000, 'y') + "\n";
    log.upgrade("X", 101).end();
    for (const std::size_t piece : {0U, 1000U, 65536U}) {
        const std::vector<ToolRun> runs = runs_of(log.text, piece);
        ASSERT_THAT(runs, SizeIs(1));
        EXPECT_EQ(runs[0].unknown_lines, 2U);
        EXPECT_EQ(runs[0].unknown.at(0).size(), 4096U);
        EXPECT_THAT(outcomes(runs[0]), ElementsAre("X upgraded"));
    }
}

}  // namespace
}  // namespace log_tests
