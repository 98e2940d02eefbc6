#include <string>
#include <vector>

#include "brd_intf_auto_fpd_upgrade_led.h"
#include "fake_platform.h"
#include "test_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr Module upgrade_led_module{"FPD", "brd_intf_auto_fpd_upgrade_led"};
constexpr std::uint32_t group = 3;
constexpr std::uint32_t led_id = 1;

constexpr auto ended = UpgLedRequest::upgrade_ended;
constexpr auto started = UpgLedRequest::upgrade_started;
constexpr auto another = static_cast<UpgLedRequest>(5);

bool has_a_process_of_its_own() {
    return testing::UnitTest::GetInstance()->test_to_run_count() == 1;
}

/// The module remembers for as long as the process lives. A test that is alone in its process finds it as the tool
/// does. One that is not brings the last request and the saved look back to that first; what cannot be brought back
/// is for tests that skip themselves then.
struct UpgradeLed : CardTest {
    UpgradeLed() {
        if (!has_a_process_of_its_own()) return_to_start();
    }

    void return_to_start() {
        show(0, 0);
        for (const UpgLedRequest request : {ended, started, ended}) notify(request);
        fake_platform().reset();
        clear_log();
        std::snprintf(err_msg, sizeof err_msg, "%s", untouched_text.data());
    }

    int notify(UpgLedRequest request) { return upg_led_notify(group, led_id, request, err_msg, sizeof err_msg); }

    /// Makes the LED look so.
    static void show(std::uint32_t state, std::uint32_t color) {
        fake_platform().leds = {{.obj_id = led_id, .state = state, .color = color}};
    }

    static void expect_look(std::uint32_t state, std::uint32_t color) {
        EXPECT_EQ(fake_platform().leds[0].state, state);
        EXPECT_EQ(fake_platform().leds[0].color, color);
    }

    /// States and colors that were set.
    static std::vector<std::string> looks_set() {
        std::vector<std::string> looks;
        for (const FakeCall &call : fake_platform().calls_of("brd_led_state_and_color_set"))
            looks.push_back(call.arguments);
        return looks;
    }

    static void fail_reads() {
        fake_platform().brd_led_current_color_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return 77; };
    }
    static void fail_sets() {
        fake_platform().brd_led_state_and_color_set = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
            return 88;
        };
    }

    /// Lines of the module itself, without those of the layer below.
    static std::vector<LogLine> own_lines() {
        std::vector<LogLine> lines = log_lines();
        std::erase_if(lines, [](const LogLine &line) { return line.file != upgrade_led_module.file; });
        return lines;
    }
    static testing::Matcher<const LogLine &> own(const char *level, const char *tag, std::string_view message) {
        return log_line(upgrade_led_module, level, tag, message);
    }
};

// Init ----------------------------------------------------------------------------------------------------------------

struct UpgradeLedInit : UpgradeLed {
    int init() { return upg_led_init(group, &obj_id, err_msg, sizeof err_msg); }

    std::uint32_t obj_id = 4711;
};

TEST_F(UpgradeLedInit, FindsTheStatusLed) {
    fake_platform().leds = {{.obj_id = 6, .name = "Fan"}, {.obj_id = 4}};
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(obj_id, 4U);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(UpgradeLedInit, PreparesTheGroupOnce) {
    if (!has_a_process_of_its_own()) GTEST_SKIP() << "the group may have been prepared by another test";
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_init"), ElementsAre(FakeCall{"brd_group_led_init", "3"}));
    EXPECT_EQ(fake_platform().calls()[0].function, "brd_group_led_init");
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_num_leds_get"), SizeIs(2));
}

TEST_F(UpgradeLedInit, GoesOnWhenTheGroupCannotBePrepared) {
    if (!has_a_process_of_its_own()) GTEST_SKIP() << "the group may have been prepared by another test";
    fake_platform().brd_group_led_init = [](std::uint32_t) { return 66; };
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(obj_id, 1U);
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_init"), SizeIs(1)) << "it counts as prepared";
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(UpgradeLedInit, DoesNotPrepareTheGroupAgainWhenTheStatusLedWasNotFound) {
    if (!has_a_process_of_its_own()) GTEST_SKIP() << "the group may have been prepared by another test";
    fake_platform().leds.clear();
    EXPECT_EQ(init(), -13);
    EXPECT_EQ(init(), -13);
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_init"), SizeIs(1));
}

TEST_F(UpgradeLedInit, FailsWithoutAStatusLed) {
    fake_platform().leds.clear();
    EXPECT_EQ(init(), -13);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(),
                ElementsAre(own("ERROR", "GetLedObjIdFail", "BRD status LED Object id get failed error ")));
}

TEST_F(UpgradeLedInit, FailsWithTheTextOfTheLayerBelow) {
    fake_platform().brd_group_led_num_leds_get = [](std::uint32_t, std::uint32_t *) { return 1281; };
    EXPECT_EQ(init(), -13);
    EXPECT_STREQ(err_msg, "Failed to get number of LEDs for group rc 1281");
    EXPECT_THAT(own_lines(), ElementsAre(own("ERROR", "GetLedObjIdFail",
                                             std::string("BRD status LED Object id get failed error ") + err_msg)));
}

// Notify --------------------------------------------------------------------------------------------------------------

TEST_F(UpgradeLed, OnlyReadsAndLogsTheLedOnAFirstEnd) {
    show(2, 4);
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), IsEmpty());
    EXPECT_THAT(fake_platform().calls(), SizeIs(2)) << "its color and its state";
    EXPECT_THAT(own_lines(),
                ElementsAre(own("DEBUG", "BrdIntfLedStateColorGet", "Current LED state 'STEADY' and color 'AMBER'")));
    EXPECT_STREQ(err_msg, "");
}

TEST_F(UpgradeLed, BlinksGreenFromTheStartOn) {
    show(2, 4);
    EXPECT_EQ(notify(started), 0);
    EXPECT_THAT(looks_set(), ElementsAre("3, 1, 3, 2"));
    EXPECT_THAT(own_lines(),
                ElementsAre(own("INFO", "BrdIntfLedStateColorGet2", "Original LED state 'STEADY' and color 'AMBER'")));
    EXPECT_STREQ(err_msg, "");
}

TEST_F(UpgradeLed, LooksAsBeforeFromTheEndOn) {
    show(2, 4);
    notify(started);
    clear_log();
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), ElementsAre("3, 1, 3, 2", "3, 1, 2, 4"));
    EXPECT_THAT(own_lines(), IsEmpty());
    EXPECT_STREQ(err_msg, "");
}

TEST_F(UpgradeLed, IsOnlyReadByARepeatedStart) {
    show(2, 4);
    notify(started);
    clear_log();
    EXPECT_EQ(notify(started), 0);
    EXPECT_THAT(looks_set(), SizeIs(1));
    EXPECT_THAT(own_lines(),
                ElementsAre(own("DEBUG", "BrdIntfLedStateColorGet", "Current LED state 'BLINK' and color 'GREEN'")));
    notify(ended);
    expect_look(2, 4);
}

TEST_F(UpgradeLed, IsOnlyReadByARepeatedEnd) {
    show(2, 4);
    notify(started);
    notify(ended);
    show(1, 1);
    clear_log();
    EXPECT_EQ(notify(ended), 0);
    expect_look(1, 1);
    EXPECT_THAT(own_lines(),
                ElementsAre(own("DEBUG", "BrdIntfLedStateColorGet", "Current LED state 'OFF' and color 'RED'")));
}

TEST_F(UpgradeLed, IsRememberedAnewByASecondStart) {
    show(2, 4);
    notify(started);
    notify(ended);
    show(1, 3);
    notify(started);
    expect_look(3, 2);
    notify(ended);
    expect_look(1, 3);
}

TEST_F(UpgradeLed, BlinksGreenAlsoWhenItsEarlierLookCannotBeRead) {
    show(2, 4);
    fail_reads();
    EXPECT_EQ(notify(started), 0);
    expect_look(3, 2);
    EXPECT_THAT(own_lines(),
                ElementsAre(own("ERROR", "BrdIntfOrgLedStateColorGetFail",
                                "BRD LED state and color get failed error Getting LED color failed rc:77")));
}

TEST_F(UpgradeLed, EndsWithState0AndColor0WhenItsEarlierLookWasNeverRead) {
    show(2, 4);
    fail_reads();
    notify(started);
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), ElementsAre("3, 1, 3, 2", "3, 1, 0, 0"));
}

TEST_F(UpgradeLed, EndsWithTheLookOfAnEarlierStartWhenTheLaterOneCouldNotReadIt) {
    show(2, 4);
    notify(started);
    notify(ended);
    show(1, 3);
    fail_reads();
    notify(started);
    notify(ended);
    expect_look(2, 4);
}

TEST_F(UpgradeLed, RemembersNothingOfALookThatWasReadByHalf) {
    show(2, 4);
    fake_platform().brd_led_current_state_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return 78; };
    notify(started);
    EXPECT_THAT(own_lines(),
                ElementsAre(own("ERROR", "BrdIntfOrgLedStateColorGetFail",
                                "BRD LED state and color get failed error Getting LED state failed rc:78")));
    notify(ended);
    expect_look(0, 0);
}

TEST_F(UpgradeLed, SucceedsWhenARepeatedRequestCannotReadIt) {
    show(2, 4);
    fail_reads();
    EXPECT_EQ(notify(ended), 0);
    EXPECT_STREQ(err_msg, "Getting LED color failed rc:77");
    EXPECT_THAT(own_lines(), ElementsAre(own("ERROR", "BrdIntfLedStateColorGetFail",
                                             std::string("BRD LED state and color get failed error ") + err_msg)));
    EXPECT_THAT(looks_set(), IsEmpty());
}

TEST_F(UpgradeLed, FailsWhenItCannotBeSet) {
    show(2, 4);
    fail_sets();
    EXPECT_EQ(notify(started), -13);
    EXPECT_STREQ(err_msg, "Setting LED state and color failed rc:88");
    EXPECT_THAT(own_lines(),
                ElementsAre(own("INFO", "BrdIntfLedStateColorGet2", "Original LED state 'STEADY' and color 'AMBER'"),
                            own("ERROR", "BrdIntfLedStateColorSetFail",
                                std::string("BRD LED state and color get failed error ") + err_msg)));
}

TEST_F(UpgradeLed, MayBeStartedAgainAfterAStartThatFailed) {
    show(2, 4);
    fail_sets();
    notify(started);
    fake_platform().brd_led_state_and_color_set = nullptr;
    EXPECT_EQ(notify(started), 0);
    expect_look(3, 2);
    notify(ended);
    expect_look(2, 4);
}

TEST_F(UpgradeLed, IsStillEndedAfterAStartThatFailed) {
    show(2, 4);
    fail_sets();
    notify(started);
    fake_platform().forget_calls();
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), IsEmpty());
}

TEST_F(UpgradeLed, MayBeEndedAgainAfterAnEndThatFailed) {
    show(2, 4);
    notify(started);
    fail_sets();
    EXPECT_EQ(notify(ended), -13);
    expect_look(3, 2);
    fake_platform().brd_led_state_and_color_set = nullptr;
    EXPECT_EQ(notify(ended), 0);
    expect_look(2, 4);
}

TEST_F(UpgradeLed, GetsState0AndColor0FromAnyOtherRequest) {
    show(2, 4);
    EXPECT_EQ(notify(another), 0);
    EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_led_state_and_color_set", "3, 1, 0, 0"}));
    EXPECT_THAT(own_lines(), IsEmpty());
}

TEST_F(UpgradeLed, GetsState0AndColor0FromAnyOtherRequestDuringTheUpgrade) {
    notify(started);
    EXPECT_EQ(notify(another), 0);
    expect_look(0, 0);
}

struct NoLed : UpgradeLed {
    void expect_invalid(std::uint32_t group_id, std::uint32_t obj_id, const char *text) {
        clear_log();
        for (const UpgLedRequest request : {started, ended}) {
            EXPECT_EQ(upg_led_notify(group_id, obj_id, request, err_msg, sizeof err_msg), -22);
            EXPECT_STREQ(err_msg, text);
        }
        EXPECT_THAT(log_lines(), ElementsAre(own("ERROR", "BrdIntfLenInvalidObjId", text),
                                             own("ERROR", "BrdIntfLenInvalidObjId", text)));
        EXPECT_THAT(fake_platform().calls(), IsEmpty());
    }
};

TEST_F(NoLed, IsThereWithAnIdOf0) {
    expect_invalid(0, 5, "Does not have valid Group id 0 obj id 5 to send LED state");
    expect_invalid(3, 0, "Does not have valid Group id 3 obj id 0 to send LED state");
    expect_invalid(0, 0, "Does not have valid Group id 0 obj id 0 to send LED state");
}

TEST_F(NoLed, LeavesTheLastRequestAsItWas) {
    EXPECT_EQ(upg_led_notify(group, 0, started, err_msg, sizeof err_msg), -22);
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), IsEmpty());
}

}  // namespace
