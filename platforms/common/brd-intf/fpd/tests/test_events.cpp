#include <string>
#include <utility>
#include <vector>

#include "brd_intf_events_fpd.h"
#include "fake_platform.h"
#include "test_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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

/// The script is there until the test says how it fails.
struct EventTest : CardTest {
    static void fail_script(int rc, const std::string &error) {
        fake_platform().commands = {{.prefix = script, .rc = rc, .error = error}};
    }
    static std::string command_line(const std::string &word, const std::string &message) {
        return "/usr/local/etc/send_fpd_doorbell_event.sh  -e " + word + " -m \"" + message + "\"";
    }
    int send(int kind, const std::string &message) {
        return send_auto_fpd_upgrade_event(kind, message.c_str(), err_msg, sizeof err_msg);
    }
};

struct EachEvent : EventTest, testing::WithParamInterface<Event> {};

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

TEST_P(EachEvent, RunsTheScriptWithItsWordAndTheMessageAndRoomFor256BytesOfOutput) {
    char small[40];
    EXPECT_EQ(send_auto_fpd_upgrade_event(GetParam().kind, "x", small, sizeof small), 0);
    expect_unlogged(GetParam().sender("two words", err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_lines(),
                ElementsAre(command_line(GetParam().word, "x"), command_line(GetParam().word, "two words")));
    EXPECT_THAT(fake_platform().command_buffers(),
                ElementsAre(FakeCommandBuffers{256, 40, true}, FakeCommandBuffers{256, 256, true}));
}

TEST_P(EachEvent, LogsItsFailureAndLeavesTheUtilitysTextAndCodeToTheCaller) {
    for (const auto &[rc, error] : {std::pair{127, "no such script"}, {-5, "broken"}, {1, ""}}) {
        for (const bool directly : {false, true}) {
            clear_log();
            fake_platform().forget_calls();
            fail_script(rc, error);
            expect_result(directly ? GetParam().sender("x", err_msg, sizeof err_msg) : send(GetParam().kind, "x"), rc,
                          error);
            expect_only_log(events_module, "ERROR", GetParam().tag, std::string(GetParam().failure) + error);
            EXPECT_THAT(fake_platform().command_lines(), SizeIs(1)) << "it is not tried again";
        }
    }
    clear_log();
    EXPECT_EQ(GetParam().sender("x", nullptr, 0), 1);
    expect_only_log(events_module, "ERROR", GetParam().tag, GetParam().failure);
}

TEST_F(EventTest, PutsAMessageOfAnyLengthBetweenQuotesAsItStands) {
    const std::string messages[] = {"a \"b\" $c 100%", "", std::string(1000, 'm')};
    for (const std::string &message : messages) {
        fake_platform().forget_calls();
        EXPECT_EQ(send(4, message), 0);
        EXPECT_THAT(fake_platform().command_lines(), ElementsAre(command_line("warning", message)));
    }
}

TEST_F(EventTest, SucceedsWhateverTheScriptPrints) {
    fake_platform().commands = {{.prefix = script, .output = std::string(1000, 'o')}};
    expect_unlogged(send(1, "x"), 0);
}

TEST_F(EventTest, RunsNoScriptForAnUnknownKind) {
    for (const int kind : {0, 7, -1, 100, 257}) {
        clear_log();
        expect_logged(send(kind, "x"), -22, events_module, "SendUnknownEvent", "Unknown Auto FPD Upgrade event");
    }
    EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
}

constexpr LogModule raising_module{"FPD", "some/path/raising_module.cpp"};

struct RaisedEvent : EventTest {
    static void raise(const std::string &message) {
        raise_fpd_event({raising_module, "RaiseFail"}, AUTO_FPD_UPGRADE_EVENT_ERROR, "%s", message.c_str());
    }
};

TEST_F(RaisedEvent, HasAFormattedMessageCutAt255Characters) {
    raise_fpd_event({raising_module, "RaiseFail"}, AUTO_FPD_UPGRADE_EVENT_ENDED, "%s: %d%%", "IoFpga", 42);
    for (const std::string &message : {std::string(), std::string(255, 'm'), std::string(256, 'm')}) raise(message);
    EXPECT_THAT(
        fake_platform().command_lines(),
        ElementsAre(command_line("ended", "IoFpga: 42%"), command_line("error", ""),
                    command_line("error", std::string(255, 'm')), command_line("error", std::string(255, 'm'))));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(RaisedEvent, LogsOfItsFailureAtItsSiteWhatFitsInto255CharactersBehindTheSendersLine) {
    fail_script(3, std::string(300, 'e'));
    raise("x");
    const std::string told(255, 'e');
    EXPECT_THAT(log_lines(), ElementsAre(log_line(events_module, "ERROR", "AutoFpdUpgradeEventError",
                                                  "Sending Auto FPD Event error message failed error " + told),
                                         log_line({"FPD", "raising_module"}, "ERROR", "RaiseFail",
                                                  "Sending FPD event is failed, error " + told)));
}

}  // namespace
