/// list_upgrade, and what keeps a card command from being run at all.

#include "card_test.h"

using namespace card_tests;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr int failed = 255;
constexpr const char *header = "FPD name         Available Version\n";
const std::string context_failed = "Local Card Auto FPD Upgrade Context Init failed err_msg ";

class CardCommands : public CardTest {
  protected:
    void expect_failure(const Result &result, const std::string &text) const {
        expect_answer(result, failed, "", text);
    }
    void describe_faulty(const std::string &tables, const std::string &keys = {}) {
        describe(Card{.keys = keys, .tables = tables, .fpds = fpd(10, {plain_region("IoFpga")})});
    }
};

Region current(const std::string &name) {
    return {.name = name, .running = "1.1.0"};
}

// ---- list_upgrade

TEST_F(CardCommands, TheListGoesThroughTheSequenceQueues) {
    const auto in_queue = [](const std::string &name, const std::string &number) {
        return Region{.name = name, .keys = "sequence = " + number};
    };
    describe({.fpds = fpd(10, {in_queue("Last", "15"), in_queue("Second", "1"), in_queue("Zero", "0")}) +
                      fpd(11, {in_queue("Third", "1"), in_queue("One", "0"), current("Current")})});
    expect_answer(tool({"-b", "-c", "list_upgrade"}), 0,
                  std::string(header) +
                      "Zero             1.1.0\n"
                      "One              1.1.0\n"
                      "Second           1.1.0\n"
                      "Third            1.1.0\n"
                      "Last             1.1.0\n");
}

TEST_F(CardCommands, TheListShowsEveryKindOfVersion) {
    describe({.fpds = fpd(10, {{.name = "Normal", .packaged = "1.12.3"},
                               {.name = "NoDebug", .packaged = "1.13"},
                               {.name = "Unknown", .packaged = "unknown"},
                               {.name = "Largest", .packaged = "255.65535.255"}})});
    // A version's text holds ten characters.
    expect_answer(tool({"-b", "-c", "list_upgrade"}), 0,
                  std::string(header) +
                      "Normal           1.12.3\n"
                      "NoDebug          1.13\n"
                      "Unknown          Unknown\n"
                      "Largest          255.65535.\n");
}

TEST_F(CardCommands, ALongNameShiftsItsColumn) {
    const std::string sixteen = "Abcdefghijklmnop";
    const std::string long_name = "Qbcdefghijklmnopqrstuvwxyz";
    describe({.fpds = fpd(10, {{.name = long_name}, {.name = sixteen}})});
    // The marker has room for two lines of the usual width and no more.
    expect_answer(tool({"-b", "-c", "list_upgrade"}), 0,
                  std::string(header) + long_name + " 1.1.0\n" + sixteen + " 1.1.0\n");
}

// ---- the context and the interface

TEST_F(CardCommands, AnIdentityThatIsKnownAlready) {
    describe_faulty(call_fault("brd_fru_hw_data_init", 0x10000408));
    EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 1);
}

TEST_F(CardCommands, TheIdentityIsThatOfTheKeyFile) {
    for (const auto &[board_type, group_type] : {std::pair{"12560", "3"}, {"16912", "4"}, {"1", "15"}}) {
        std::filesystem::remove_all(state_);
        std::string text = card_text({.fpds = fpd(10, {plain_region("IoFpga")})});
        text.replace(text.find("0x3110"), 6, board_type);
        describe_text(text);
        EXPECT_EQ(tool({"-c", "check_upgrade"}).status, 1);
        EXPECT_THAT(texts(of_function(calls(), "brd_fru_hw_data_init")),
                    ElementsAre(std::string("brd_fru_hw_data_init group_type=") + group_type +
                                " hw=1.2 slot=4 pid=\"SIM-TEST\" board_type=" + board_type + " -> 0"));
    }
}

TEST_F(CardCommands, AHardwareVersionThatIsTooLarge) {
    std::string text = card_text({.fpds = fpd(10, {plain_region("IoFpga")})});
    text.replace(text.find("[1, 2]"), 6, "[300, 2]");
    describe_text(text);
    expect_failure(tool({"-c", "check_upgrade"}),
                   context_failed + "Local Card Failed to make fpd_version for HW major 0x12c minor ox2\n");
}

TEST_F(CardCommands, TheStatusLedIsFoundByTypeAndName) {
    describe({.fpds = fpd(10, {plain_region("IoFpga")}),
              .leds =
                  "[[led]]\nid = 5\ntype = 2\nname = \"Status\"\n[[led]]\nid = 6\nname = \"Fan\"\n"
                  "[[led]]\nid = 7\nname = \"STATUS\"\nstate = 1\ncolor = 1\n[[led]]\nid = 8\nname = \"Status\"\n"});
    expect_answer(tool({"-b", "-c", "upgrade"}), 0, "Auto FPD Upgrade done\n");
    for (const CallRecord &call : of_function(calls(), "brd_led_state_and_color_set")) {
        EXPECT_THAT(call.arguments, StartsWith("group=3 obj=7 "));
    }
    EXPECT_EQ(of_function(calls(), "brd_led_state_and_color_set").size(), 2U);
}

// ---- the message queue

TEST_F(CardCommands, AQueueThatCannotBeClosedFailsWhatWasAnswered) {
    describe_faulty("");
    const std::string closing = "Couldn't close FPD msg queue err_msg Bad file descriptor";
    const std::string deletion = "Deleting Auto FPD Upgrade msg queue failed err_msg " + closing;
    const std::string interface = "Deinitializing FPD msg queue failed err_msg " + closing;
    expect_answer(shell("LD_PRELOAD=" UNCLOSED_QUEUE " bootup_fpd -c check_upgrade"), failed,
                  "FPD available that need to be upgraded\n",
                  "Local Card Auto FPD Upgrade Interface Deinit failed err_msg " + closing + "\n");
    EXPECT_THAT(errors(),
                ElementsAre("[FPD] [ERROR] [MQClodeFail] " + closing, "[FPD] [ERROR] [DeleteFpdMqFail] " + deletion,
                            "[FPD] [ERROR] [DeinitFpdMQFail] " + interface));
}

TEST_F(CardCommands, ConfigurationNeedsNoMessageQueue) {
    describe_faulty("");
    expect_answer(shell("echo 10 >/proc/sys/fs/mqueue/msg_max && bootup_fpd -c get_config"), 0,
                  "Auto FPD Upgrade Config is 'ENABLED'\n");
}

TEST_F(CardCommands, TheQueueIsRemovedBehindEveryCommand) {
    describe_faulty("");
    for (const char *word : {"upgrade", "check_upgrade", "list_upgrade"}) {
        EXPECT_EQ(shell(std::string("bootup_fpd -b -c ") + word + " >/misc/scratch/out; ls /dev/mqueue").out, "");
    }
}

/// A queue that an earlier run left behind, of other attributes and with a message in it, is not used.
TEST_F(CardCommands, AStaleQueueIsReplaced) {
    describe_faulty("");
    const Result result = shell(std::string(STALE_QUEUE) +
                                " && ls /dev/mqueue && bootup_fpd -b -c upgrade && "
                                "ls /dev/mqueue");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "auto_fpd_upg_mq_localcard\nAuto FPD Upgrade done\n");
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(state().region("IoFpga").programmed, "1.1.0");
}

}  // namespace
