/// The view of a card that boots, on a terminal.

#include <algorithm>
#include <csignal>

#include "card_test.h"
#include "terminal.h"

using namespace card_tests;
using testing::AllOf;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::ResultOf;

namespace {

using Screen = std::vector<std::string>;

bool has(const Screen &screen, const std::string &text) {
    return std::any_of(screen.begin(), screen.end(),
                       [&](const std::string &line) { return line.find(text) != std::string::npos; });
}

std::function<bool(const Screen &)> showing(std::vector<std::string> texts) {
    return [texts = std::move(texts)](const Screen &screen) {
        return std::all_of(texts.begin(), texts.end(), [&](const std::string &text) { return has(screen, text); });
    };
}

/// So many regions in one queue, each of them upgraded for so long.
std::string regions_at_a_time(int count, const std::string &duration) {
    std::string text =
        "[card]\ngroup = 3\nboard_type = 12568\nhw_version = [1, 7]\nslot = 2\npid = \"SIM-T\"\n"
        "startup = \"echo hello; bootup_fpd -c upgrade; echo goodbye >&2\"\n"
        "[watchdog]\ntimeout = 600.0\n[obfl]\nmount_time = 0.0\n[[led]]\nid = 1\nname = \"Status\"\nstate = 2\ncolor = "
        "2\n";
    for (int number = 1; number <= count; ++number) {
        const std::string digits = std::to_string(number);
        text += "[[fpd]]\nid = " + std::to_string(10 + number) + "\n[[fpd.region]]\nname = \"Region" + digits +
                "\"\nrunning = \"1.0.0\"\nduration = " + duration +
                "\n[[fpd.region.image]]\ntype = 0\nversion = " + "\"2.0.0\"\nfile = \"" + digits +
                ".img\"\nsize = 1000\n";
    }
    return text;
}

class LiveView : public CardTest {
  protected:
    Terminal terminal(const std::vector<std::string> &more = {}, const std::string &kind = "xterm-256color",
                      const std::string &variable = "UNUSED=1", int rows = 24, int columns = 80) {
        std::vector<std::string> command = {CARDSIM_COMMAND, "boot", card_.string(), "--speed",      "10",
                                            "--max-boots",   "1",    "--state",      state_.string()};
        command.insert(command.end(), more.begin(), more.end());
        return Terminal(command, {"TERM=" + kind, variable}, rows, columns);
    }
};

TEST_F(LiveView, ShowsTheCardAndARegionInALineThenWhatTheCommandWroteAndTheTable) {
    describe_text(regions_at_a_time(3, "20.0"));
    Terminal screen = terminal();
    EXPECT_TRUE(screen.shows(
        showing({"SIM-T in slot 2, boot 1: power on, card's time ", "LED blinking green", "watchdog punched ",
                 "Region3", "upgrading", "1.0.0 > 2.0.0", "[#####.....]", "3 regions: 3 run"})))
        << testing::PrintToString(screen.screen());
    EXPECT_FALSE(has(screen.screen(), "hello")) << "the command's output does not disturb the view";
    EXPECT_EQ(screen.end(), 0);
    EXPECT_TRUE(screen.is_as_before());
    EXPECT_TRUE(has(screen.screen(), "1 boot: 3 upgraded; nothing is left to upgrade"));
    EXPECT_THAT(screen.written(), AllOf(HasSubstr("\r\nhello\r\n"), HasSubstr("\r\ngoodbye\r\n"),
                                        HasSubstr("boot 1: the card is up\r\n")));
}

TEST_F(LiveView, FortyRegionsThatRunStayVisibleOnASmallTerminal) {
    describe_text(regions_at_a_time(40, "40.0"));
    Terminal screen = terminal();
    std::vector<std::string> wanted = {"40 regions: 40 run"};
    for (int number = 1; number <= 40; ++number) wanted.push_back("Region" + std::to_string(number) + " ");
    EXPECT_TRUE(screen.shows(showing(wanted))) << testing::PrintToString(screen.screen());
    EXPECT_THAT(screen.screen(), Each(ResultOf([](const std::string &line) { return line.size(); }, testing::Le(80U))));
    EXPECT_EQ(screen.end(), 0);
}

TEST_F(LiveView, TakesTheTerminalsNewSize) {
    describe_text(regions_at_a_time(12, "40.0"));
    Terminal screen = terminal();
    EXPECT_TRUE(screen.shows(showing({"Region12", "12 regions: 12 run"})));
    screen.resize(8, 50);
    EXPECT_TRUE(screen.shows([](const Screen &lines) {
        return has(lines, "not shown") && !has(lines, "Region12") && has(lines, "Region1 ");
    })) << testing::PrintToString(screen.screen());
    screen.resize(30, 100);
    EXPECT_TRUE(screen.shows(showing({"Region12", "12 regions: 12 run"})));
    EXPECT_EQ(screen.end(), 0);
}

class LiveViewEnded : public LiveView, public testing::WithParamInterface<int> {};

TEST_P(LiveViewEnded, BySignalLeavesTheTerminalAsItWas) {
    describe_text(regions_at_a_time(1, "600.0"));
    Terminal screen = terminal();
    EXPECT_TRUE(screen.shows(showing({"Region1", "1 region"})));
    screen.signal(GetParam());
    EXPECT_EQ(screen.end(), 128 + GetParam());
    EXPECT_TRUE(screen.is_as_before());
}

INSTANTIATE_TEST_SUITE_P(, LiveViewEnded, testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT),
                         [](const testing::TestParamInfo<int> &number) {
                             return std::string("SIG") + sigabbrev_np(number.param);
                         });

struct PlainCase {
    const char *what;
    std::vector<std::string> options;
    const char *kind;
};

class PlainLines : public LiveView, public testing::WithParamInterface<PlainCase> {};

TEST_P(PlainLines, StandWhereNothingIsRedrawn) {
    describe_text(regions_at_a_time(1, "1.0"));
    Terminal screen = terminal(GetParam().options, GetParam().kind);
    EXPECT_EQ(screen.end(), 0);
    EXPECT_THAT(screen.written(), AllOf(testing::StartsWith("boot 1: power on: "), Not(HasSubstr("\x1b"))));
}

INSTANTIATE_TEST_SUITE_P(, PlainLines,
                         testing::Values(PlainCase{"plain", {"--plain"}, "xterm"},
                                         PlainCase{"json", {"--json"}, "xterm"}, PlainCase{"dumb", {}, "dumb"},
                                         PlainCase{"unknown", {}, "no-such-terminal"}),
                         [](const testing::TestParamInfo<PlainCase> &plain) { return plain.param.what; });

TEST_F(LiveView, HasColorsUnlessTheyAreNotWanted) {
    describe_text(regions_at_a_time(1, "5.0"));
    const std::string color = "\x1b[36m";
    Terminal colored = terminal();
    EXPECT_EQ(colored.end(), 0);
    EXPECT_THAT(colored.written(), HasSubstr(color));
    std::filesystem::remove_all(state_);
    Terminal plain = terminal({}, "xterm-256color", "NO_COLOR=1");
    EXPECT_EQ(plain.end(), 0);
    EXPECT_THAT(plain.written(), Not(HasSubstr(color)));
}

class AnyTerminal : public LiveView, public testing::WithParamInterface<const char *> {};

TEST_P(AnyTerminal, ShowsTheView) {
    describe_text(regions_at_a_time(2, "20.0"));
    Terminal screen = terminal({}, GetParam());
    EXPECT_TRUE(screen.shows(showing({"SIM-T in slot 2, boot 1", "Region2", "upgrading"})))
        << testing::PrintToString(screen.screen());
    EXPECT_EQ(screen.end(), 0);
    EXPECT_TRUE(has(screen.screen(), "1 boot: 2 upgraded"));
}

INSTANTIATE_TEST_SUITE_P(, AnyTerminal, testing::Values("xterm", "vt100", "linux", "screen", "tmux"),
                         [](const testing::TestParamInfo<const char *> &kind) { return std::string(kind.param); });

}  // namespace
