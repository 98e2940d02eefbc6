#include <cstring>
#include <string>
#include <vector>

#include "brd_intf_events_fpd.h"
#include "fake_platform.h"
#include "test_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Module events_module{"EVENTS", "brd_intf_events_fpd"};
constexpr const char *script = "/usr/local/etc/send_fpd_doorbell_event.sh";

using Sender = int (*)(const char *message, char *err_msg, std::size_t err_len);

struct Event {
    int kind;
    const char *word;
    const char *tag;
    const char *failure;  // before the utility's text
    Sender sender;
};

void PrintTo(const Event &event, std::ostream *out) {
    *out << event.word;
}

struct EachEvent : CardTest, testing::WithParamInterface<Event> {
    std::string command_line(const std::string &message) const {
        return std::string(script) + "  -e " + GetParam().word + " -m \"" + message + "\"";
    }
};

INSTANTIATE_TEST_SUITE_P(
    Kind, EachEvent,
    testing::Values(Event{1, "started", "AutoFpdUpgradeStartedEvent", "Sending Auto FPD Started Event failed error ",
                          send_auto_fpd_upgrade_started_event},
                    Event{2, "progress", "AutoFpdUpgradeProgressEvent",
                          "Sending Auto FPD Progressing Event failed error ", send_auto_fpd_upgrade_progress_event},
                    Event{3, "ended", "AutoFpdUpgradeEndedEvent", "Sending Auto FPD Ended Event failed error ",
                          send_auto_fpd_upgrade_ended_event},
                    Event{4, "warning", "AutoFpdUpgradeEventWarning",
                          "Sending Auto FPD Event warning message failed error ", send_auto_fpd_upgrade_warning_event},
                    Event{5, "error", "AutoFpdUpgradeEventError", "Sending Auto FPD Event error message failed error ",
                          send_auto_fpd_upgrade_error_event},
                    Event{6, "sw_fatal", "AutoFpdUpgradeEventFatal",
                          "Sending Auto FPD Event Fatal message failed error ", send_auto_fpd_upgrade_sw_fatal_event}),
    [](const testing::TestParamInfo<Event> &event) { return std::string(event.param.word); });

TEST_P(EachEvent, RunsTheScriptWithItsWordAndTheMessage) {
    EXPECT_EQ(send_auto_fpd_upgrade_event(GetParam().kind, "x", err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(command_line("x")));
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(EachEvent, HasASenderOfItsOwn) {
    EXPECT_EQ(GetParam().sender("two words", err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(command_line("two words")));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(EachEvent, HasRoomFor256BytesOfTheScriptsOutput) {
    char small[40];
    EXPECT_EQ(send_auto_fpd_upgrade_event(GetParam().kind, "x", small, sizeof small), 0);
    EXPECT_EQ(GetParam().sender("x", err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_buffers(),
                ElementsAre(FakeCommandBuffers{256, 40, true}, FakeCommandBuffers{256, 256, true}));
}

TEST_P(EachEvent, LogsItsFailureAndLeavesTheUtilitysTextToTheCaller) {
    fake_platform().commands = {{.prefix = script, .rc = 127, .output = "", .error = "no such script", .effect = {}}};
    EXPECT_EQ(send_auto_fpd_upgrade_event(GetParam().kind, "x", err_msg, sizeof err_msg), 127);
    EXPECT_STREQ(err_msg, "no such script");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(events_module, "ERROR", GetParam().tag,
                                                  std::string(GetParam().failure) + "no such script")));
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(command_line("x"))) << "it is not tried again";
}

TEST_P(EachEvent, LogsItsFailureForACallerWithoutABuffer) {
    fake_platform().commands = {{.prefix = script, .rc = 127, .output = "", .error = "", .effect = {}}};
    EXPECT_EQ(GetParam().sender("x", nullptr, 0), 127);
    expect_log(events_module, "ERROR", GetParam().tag, GetParam().failure);
}

TEST_P(EachEvent, PassesTheUtilitysCodeOnFromItsSender) {
    fake_platform().commands = {{.prefix = script, .rc = -5, .output = "", .error = "broken", .effect = {}}};
    EXPECT_EQ(GetParam().sender("x", err_msg, sizeof err_msg), -5);
    EXPECT_STREQ(err_msg, "broken");
    expect_log(events_module, "ERROR", GetParam().tag, std::string(GetParam().failure) + "broken");
}

TEST_P(EachEvent, TellsNothingOfAnEarlierCallWhenTheUtilityGivesNoText) {
    fake_platform().commands = {{.prefix = script, .rc = 1, .output = "", .error = "", .effect = {}}};
    EXPECT_EQ(send_auto_fpd_upgrade_event(GetParam().kind, "x", err_msg, sizeof err_msg), 1);
    EXPECT_STREQ(err_msg, "");
    expect_log(events_module, "ERROR", GetParam().tag, GetParam().failure);
}

// What belongs to no kind ---------------------------------------------------------------------------------------------

struct Events : CardTest {};

TEST_F(Events, HaveACommandLineWithTwoBlanksBehindThePath) {
    EXPECT_EQ(send_auto_fpd_upgrade_event(6, "x", err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_lines(),
                ElementsAre("/usr/local/etc/send_fpd_doorbell_event.sh  -e sw_fatal -m \"x\""));
}

TEST_F(Events, PutTheMessageBetweenQuotesAsItStands) {
    EXPECT_EQ(send_auto_fpd_upgrade_event(4, "a \"b\" $c 100%", err_msg, sizeof err_msg), 0);
    EXPECT_EQ(send_auto_fpd_upgrade_event(4, "", err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_lines(),
                ElementsAre(std::string(script) + "  -e warning -m \"a \"b\" $c 100%\"",
                            std::string(script) + "  -e warning -m \"\""));
}

TEST_F(Events, AreNotCutByTheirSenders) {
    const std::string message(1000, 'm');
    EXPECT_EQ(send_auto_fpd_upgrade_event(2, message.c_str(), err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_lines(),
                ElementsAre(std::string(script) + "  -e progress -m \"" + message + "\""));
}

TEST_F(Events, SucceedWhateverTheScriptPrints) {
    fake_platform().commands = {
        {.prefix = script, .rc = 0, .output = std::string(1000, 'o'), .error = "", .effect = {}}};
    EXPECT_EQ(send_auto_fpd_upgrade_event(1, "x", err_msg, sizeof err_msg), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

struct UnknownEvent : CardTest, testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Kind, UnknownEvent, testing::Values(0, 7, -1, 100, 257));

TEST_P(UnknownEvent, RunsNoScript) {
    EXPECT_EQ(send_auto_fpd_upgrade_event(GetParam(), "x", err_msg, sizeof err_msg), -22);
    EXPECT_STREQ(err_msg, "Unknown Auto FPD Upgrade event");
    EXPECT_THAT(log_lines(),
                ElementsAre(log_line(events_module, "ERROR", "SendUnknownEvent", "Unknown Auto FPD Upgrade event")));
    EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
}

// Events of other modules ---------------------------------------------------------------------------------------------

constexpr LogModule raising_module{"FPD", "some/path/raising_module.cpp"};

struct RaisedEvent : CardTest {
    static void raise(const std::string &message) {
        raise_fpd_event({raising_module, "RaiseFail"}, AUTO_FPD_UPGRADE_EVENT_ERROR, "%s", message.c_str());
    }
    static std::string command_line(const std::string &message) {
        return std::string(script) + "  -e error -m \"" + message + "\"";
    }
};

TEST_F(RaisedEvent, HasAFormattedMessage) {
    raise_fpd_event({raising_module, "RaiseFail"}, AUTO_FPD_UPGRADE_EVENT_ENDED, "%s: %d%%", "IoFpga", 42);
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(std::string(script) + "  -e ended -m \"IoFpga: 42%\""));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(RaisedEvent, IsCutAt255Characters) {
    raise(std::string(255, 'm'));
    raise(std::string(255, 'm') + "n");
    EXPECT_THAT(fake_platform().command_lines(),
                ElementsAre(command_line(std::string(255, 'm')), command_line(std::string(255, 'm'))));
}

TEST_F(RaisedEvent, LogsItsFailureAtItsSiteBehindTheSendersLine) {
    fake_platform().commands = {{.prefix = script, .rc = 3, .output = "", .error = "no script", .effect = {}}};
    raise("x");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(events_module, "ERROR", "AutoFpdUpgradeEventError",
                                                  "Sending Auto FPD Event error message failed error no script"),
                                         log_line({"FPD", "raising_module"}, "ERROR", "RaiseFail",
                                                  "Sending FPD event is failed, error no script")));
}

TEST_F(RaisedEvent, LogsOfALongFailureWhatFitsInto255Characters) {
    fake_platform().commands = {
        {.prefix = script, .rc = 3, .output = "", .error = std::string(300, 'e'), .effect = {}}};
    raise("x");
    expect_log({"FPD", "raising_module"}, "ERROR", "RaiseFail",
               "Sending FPD event is failed, error " + std::string(255, 'e'));
}

TEST_F(RaisedEvent, MayBeEmpty) {
    raise("");
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(command_line("")));
}

}  // namespace
