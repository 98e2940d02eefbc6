/// Runs that are cut off in the midst of an upgrade: the next one has to finish what they began.

#include "lives.h"

using namespace card_tests;

namespace {

/// At work for a second and a half: long enough to be met in its midst on a busy machine.
constexpr double slow = 30;
constexpr double quick = 1;

Region part(const Fate &fate, double seconds, const std::string &dependency = {}) {
    Region region{.name = fate.name, .keys = "activation = 5\n" + duration(seconds)};
    if (!dependency.empty()) region.image_keys = depends_on(dependency);
    return with_attempts(region, fate.attempts);
}

/// Shell words: an upgrade in the background, met when `name` has reported something.
std::string begin_upgrade(const std::string &options, const std::string &name) {
    return "bootup_fpd " + options + " -c upgrade & until grep -qs \"FpdUpgResponseProgress.*FPD " + name +
           " state\" /var/log/fpd.log; do sleep 0.01; done; ";
}

struct Row {
    std::string name;
    std::vector<Fate> fates;  ///< the second waits for the first
    std::string met;          ///< that is at work when the run is cut off
};

void PrintTo(const Row &row, std::ostream *stream) {
    *stream << row.name;
}

class PowerLoss : public LifeTest, public testing::WithParamInterface<Row> {};

/// The first boot's tool stands still, so that the watchdog takes the card down. What it told lies in the temporary
/// file until the next boot mounts the flash.
TEST_P(PowerLoss, IsMadeUpForByTheNextBoot) {
    const Row &row = GetParam();
    const std::string startup =
        "if [ -e /misc/scratch/again ]; then exec bootup_fpd -c upgrade; fi; "
        "touch /misc/scratch/again; " +
        begin_upgrade("", row.met) + "kill -STOP $!; wait";
    const auto seconds = [&](const Fate &fate) { return fate.name == row.met ? slow : quick; };
    describe({.keys = "startup = '''" + startup + "'''",
              .tables = "[obfl]\nmount_time = 10.0\n[watchdog]\ntimeout = 60.0\n",
              .fpds = fpd(10, {part(row.fates[0], seconds(row.fates[0])),
                               part(row.fates[1], seconds(row.fates[1]), row.fates[0].name)})});
    const Result result = boot(life_speed);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "cardsim: boot 1: the watchdog was not punched in time\n");
    EXPECT_THAT(result.out, testing::EndsWith("boot 3: the card is up\n"));
    expect_life({.fates = row.fates,
                 .runs = {RunEnd::PowerLost, RunEnd::Reset},
                 .boots = 3,
                 .flash_commands = {"start", "start", "stop"},
                 .led = {3, 2}});
}

const std::vector<Row> losses = {
    {.name = "BeforeAnythingIsDone",
     .fates = {{.name = "A", .attempts = "K|D", .state = fate::current, .queue = 0},
               {.name = "B", .attempts = "|D", .state = fate::current, .queue = 1}},
     .met = "A"},
    {.name = "BehindWhatIsDoneAlready",
     .fates = {{.name = "A", .attempts = "D", .state = fate::current, .queue = 0},
               {.name = "B", .attempts = "FK|FD", .state = fate::current, .queue = 1}},
     .met = "B"},
};

INSTANTIATE_TEST_SUITE_P(Interrupted, PowerLoss, testing::ValuesIn(losses), name_of<Row>);

/// The tool alone is ended; its message queue is left to the next run.
struct Ending {
    std::string name;
    std::string options;
    int signal;
    RunEnd second_run;
};

void PrintTo(const Ending &row, std::ostream *stream) {
    *stream << row.name;
}

class EndedRun : public LifeTest, public testing::WithParamInterface<Ending> {};

TEST_P(EndedRun, IsMadeUpForByTheNextRun) {
    const Ending &ending = GetParam();
    const std::vector<Fate> fates = {{.name = "A", .attempts = "K|D", .versions = programmed, .queue = 0},
                                     {.name = "B", .attempts = "|D", .versions = programmed, .queue = 1}};
    describe(
        {.tables = "[obfl]\nmounted = true\n", .fpds = fpd(10, {part(fates[0], slow), part(fates[1], quick, "A")})});
    const Result result = shell(begin_upgrade(ending.options, "A") + "kill -" + std::to_string(ending.signal) +
                                    " $!; wait $! 2>/dev/null; echo status $?; ls /dev/mqueue; bootup_fpd " +
                                    ending.options + " -c upgrade; echo status $?; ls /dev/mqueue",
                                life_speed);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "status " + std::to_string(128 + ending.signal) +
                              "\nauto_fpd_upg_mq_localcard\nAuto FPD Upgrade done\nstatus 0\n");
    EXPECT_EQ(result.err, "");
    expect_life(
        {.fates = fates,
         .runs = {RunEnd::Killed, ending.second_run},
         .marker = ending.second_run == RunEnd::Reset ? marker_line("A", "1.1.0") + marker_line("B", "1.1.0") : "",
         .led = {3, 2}});
}

const std::vector<Ending> endings = {
    {.name = "BySigabrtAtBoot", .options = "", .signal = 6, .second_run = RunEnd::Reset},
    {.name = "BySigkillByHand", .options = "-b", .signal = 9, .second_run = RunEnd::NoReset},
};

INSTANTIATE_TEST_SUITE_P(Interrupted, EndedRun, testing::ValuesIn(endings), name_of<Ending>);

}  // namespace
