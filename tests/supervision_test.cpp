/// Workers that fall silent: how long they are waited for, how they are ended, and what becomes of the rest of the run.
///
/// These runs wait for limits of the card's time: 60 s before the first report, 180 s between two. At twenty times the
/// speed the tightest limit, 3 s for a worker to start, is still 150 ms and looked at every 250 ms.

#include "card_test.h"
#include "text_match.h"

using namespace card_tests;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

constexpr unsigned fast = 20;
const std::string flash = "[obfl]\nmounted = true\n";

class Supervision : public CardTest {
  protected:
    void upgrade() {
        const Result result = tool({"-b", "-c", "upgrade"}, fast);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "Auto FPD Upgrade done\n");
        EXPECT_EQ(result.err, "");
    }
    std::vector<std::string> upgrades_of(const std::string &name) const {
        std::vector<std::string> outcomes;
        for (const CallRecord &call : of_function(calls(), "brd_fpd_upgrade")) {
            if (call.arguments.find(image_of(name)) != std::string::npos) outcomes.push_back(call.outcome);
        }
        return outcomes;
    }
    /// The time-outs that were logged: each after the limit, and no later than it was due to be noticed.
    void expect_time_outs(const std::string &tag, const std::string &state, long limit, std::size_t count) const {
        const std::string text =
            R"(FPD [A-Za-z0-9]+ Upgrade stuck in the state ('.*') since ([0-9]+) time now vs\. maximum ([0-9]+) time)";
        const std::vector<LogRecord> time_outs = tagged(tag);
        EXPECT_EQ(time_outs.size(), count);
        for (const LogRecord &record : time_outs) {
            const std::vector<std::string> parts = match(text, record.message);
            ASSERT_EQ(parts.size(), 4U) << record.message;
            EXPECT_EQ(parts[1], state);
            EXPECT_GE(std::stol(parts[2]), limit);
            EXPECT_EQ(parts[3], std::to_string(limit));
            EXPECT_EQ(record.level, "ERROR");
        }
    }
};

Region hanging(const std::string &name, const std::string &fault) {
    return {.name = name, .keys = "activation = 5\n" + duration(10), .tables = fault};
}

/// One part never reports, one falls silent half-way; both are ended, tried again and given up.
TEST_F(Supervision, SilentWorkersAreEndedWhenTheirTimeIsUpAndNoEarlier) {
    describe({.fpds = fpd(10, {hanging("Mute", region_fault("hang")),
                               hanging("Halfway", region_fault("hang", "at = 50")), hanging("Sound", "")})});
    upgrade();
    expect_time_outs("ChkFpdUpgStartedMaxTransTimeOut", "'FPD Upgrade Started'", 60'000'000 / fast, 2);
    expect_time_outs("ChkFpdUpgProgressingMaxTransTimeOut", "'FPD Upgrade Progressing'", 180'000'000 / fast, 2);
    EXPECT_THAT(tagged("ChkFpdUpgScheduleMaxTransTimeOut"), IsEmpty());
}

/// A limit is measured from the latest report: 240 s in all, no two reports further apart than 40 s.
TEST_F(Supervision, ASlowUpgradeIsLetBe) {
    describe({.fpds = fpd(10, {{.name = "Slow",
                                .keys = "activation = 5\nreports = 6",
                                .tables = region_fault("slow", "every = 40.0")}})});
    upgrade();
    EXPECT_EQ(state().region("Slow").programmed, "1.1.0");
    EXPECT_THAT(upgrades_of("Slow"), ElementsAre("begin", "-> 0"));
    EXPECT_THAT(errors(), IsEmpty());
}

// ---- workers that do not end when they are cancelled

/// A worker that sleeps for so many seconds of the card's time, whatever is asked of it, and then reports its success.
std::string deaf(const std::string &keys, double seconds) {
    return region_fault("hang", "cancellable = false\nhang_time = " + std::to_string(seconds) + "\n" + keys);
}

/// Case 11. It wakes up while its successor is at work: what it says counts for nothing.
TEST_F(Supervision, ALateWorkerDoesNotDisturbItsSuccessor) {
    describe({.tables = flash,
              .fpds = fpd(10, {{.name = "Late", .keys = duration(40), .tables = deaf("attempt = 1", 80)}})});
    upgrade();
    EXPECT_EQ(state().region("Late").programmed, "1.1.0");
    EXPECT_THAT(events(), Contains("warning: Auto FPD Upgrade completed for 'Late'").Times(1));
    EXPECT_THAT(flash_log(), Contains("FPD 'Late' Upgraded to version 1.1.0").Times(1));
    EXPECT_THAT(tagged("FpdUpgMsgRcvInvWorker"), Not(IsEmpty()));
    for (const LogRecord &record : tagged("FpdUpgMsgRcvInvWorker")) {
        EXPECT_EQ(record.level, "ERROR");
        EXPECT_THAT(record.message, StartsWith("FPD Upgrade msgqueue received an unknown worker 0x"));
    }
    // Ten steps of the successor, none of the late worker's.
    EXPECT_THAT(tagged("FpdUpgResponseProgress"), SizeIs(10));
}

/// Case 12. It wakes up when its successor is done, while the run goes on for another part.
TEST_F(Supervision, ALateWorkerDoesNotDisturbTheRun) {
    describe({.tables = flash,
              .fpds = fpd(10, {{.name = "Late", .keys = duration(4), .tables = deaf("attempt = 1", 100)},
                               {.name = "Long", .keys = duration(130)}})});
    upgrade();
    EXPECT_EQ(state().region("Late").programmed, "1.1.0");
    EXPECT_EQ(state().region("Long").programmed, "1.1.0");
    EXPECT_THAT(flash_log(), Contains("FPD 'Late' Upgraded to version 1.1.0").Times(1));
    EXPECT_THAT(tagged("FpdUpgMsgRcvInvWorker"), Not(IsEmpty()));
    EXPECT_THAT(tagged("FpdUpgResponseDone"), SizeIs(2));
}

/// Case 13. Both attempts are deaf: given up. One wakes up before the run's end, the other never does.
TEST_F(Supervision, DeafWorkersAreGivenUp) {
    describe({.tables = flash,
              .fpds = fpd(10, {{.name = "Deaf", .tables = deaf("attempt = 1", 150) + deaf("attempt = 2", 3600)},
                               {.name = "Long", .keys = duration(180)}})});
    upgrade();
    EXPECT_THAT(tagged("ChkFpdUpgStartedMaxTransTimeOut"), SizeIs(2));
    EXPECT_THAT(events(), Not(Contains("warning: Auto FPD Upgrade completed for 'Deaf'")));
    EXPECT_THAT(flash_log(), Not(Contains(StartsWith("FPD 'Deaf' Upgraded"))));
    EXPECT_THAT(flash_log(), Contains("FPD 'Long' Upgraded to version 1.1.0"));
    EXPECT_THAT(tagged("FpdUpgResponseDone"), SizeIs(1));
}

}  // namespace
