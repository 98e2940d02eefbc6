#include <string>
#include <utility>
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
        fake_platform().brd_led_current_color_get = [](auto...) { return 77; };
    }
    static void fail_sets() {
        fake_platform().brd_led_state_and_color_set = [](auto...) { return 88; };
    }

    /// Expects no other line of the module.
    static void expect_own_line(const char *level, const char *tag, std::string_view message) {
        EXPECT_THAT(log_lines(upgrade_led_module), ElementsAre(log_line(upgrade_led_module, level, tag, message)));
    }
};

struct UpgradeLedInit : UpgradeLed {
    int init() { return upg_led_init(group, &obj_id, err_msg, sizeof err_msg); }

    std::uint32_t obj_id = 4711;
};

TEST_F(UpgradeLedInit, FindsTheStatusLed) {
    fake_platform().leds = {{.obj_id = 6, .name = "Fan"}, {.obj_id = 4}};
    expect_unlogged(init(), 0);
    EXPECT_EQ(obj_id, 4U);
}

TEST_F(UpgradeLedInit, PreparesTheGroupOnceAndFirstAlsoWhenItCannotBePrepared) {
    if (!has_a_process_of_its_own()) GTEST_SKIP() << "the group may have been prepared by another test";
    fake_platform().brd_group_led_init = [](auto...) { return 66; };
    expect_unlogged(init(), 0);
    EXPECT_EQ(obj_id, 1U);
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_init"), ElementsAre(FakeCall{"brd_group_led_init", "3"}));
    EXPECT_EQ(fake_platform().calls()[0].function, "brd_group_led_init");
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_num_leds_get"), SizeIs(2));
}

TEST_F(UpgradeLedInit, PreparesTheGroupOnceAlsoWhenTheStatusLedWasNotFound) {
    if (!has_a_process_of_its_own()) GTEST_SKIP() << "the group may have been prepared by another test";
    fake_platform().leds.clear();
    EXPECT_EQ(init(), -13);
    EXPECT_EQ(init(), -13);
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_init"), SizeIs(1));
}

TEST_F(UpgradeLedInit, FailsWithoutAStatusLedWithTheTextOfTheLayerBelow) {
    fake_platform().leds.clear();
    expect_result(init(), -13);
    expect_own_line("ERROR", "GetLedObjIdFail", "BRD status LED Object id get failed error ");
    clear_log();
    fake_platform().brd_group_led_num_leds_get = [](auto...) { return 1281; };
    expect_result(init(), -13, "Failed to get number of LEDs for group rc 1281");
    expect_own_line("ERROR", "GetLedObjIdFail", std::string("BRD status LED Object id get failed error ") + err_msg);
}

/// The LED looks steady amber before.
struct SteadyAmberLed : UpgradeLed {
    SteadyAmberLed() { show(2, 4); }
};

TEST_F(SteadyAmberLed, IsOnlyReadOnAFirstEnd) {
    expect_result(notify(ended), 0);
    EXPECT_THAT(fake_platform().calls(), SizeIs(2)) << "its color and its state";
    EXPECT_THAT(looks_set(), IsEmpty());
    expect_own_line("DEBUG", "BrdIntfLedStateColorGet", "Current LED state 'STEADY' and color 'AMBER'");
}

TEST_F(SteadyAmberLed, BlinksGreenFromTheStartAndLooksAsBeforeFromTheEndOn) {
    expect_result(notify(started), 0);
    EXPECT_THAT(looks_set(), ElementsAre("3, 1, 3, 2"));
    expect_own_line("INFO", "BrdIntfLedStateColorGet2", "Original LED state 'STEADY' and color 'AMBER'");
    clear_log();
    expect_result(notify(ended), 0);
    EXPECT_THAT(looks_set(), ElementsAre("3, 1, 3, 2", "3, 1, 2, 4"));
    EXPECT_THAT(log_lines(upgrade_led_module), IsEmpty());
}

TEST_F(SteadyAmberLed, IsOnlyReadByARepeatedStartOrEnd) {
    notify(started);
    clear_log();
    EXPECT_EQ(notify(started), 0);
    EXPECT_THAT(looks_set(), SizeIs(1));
    expect_own_line("DEBUG", "BrdIntfLedStateColorGet", "Current LED state 'BLINK' and color 'GREEN'");
    notify(ended);
    expect_look(2, 4);

    show(1, 1);
    clear_log();
    EXPECT_EQ(notify(ended), 0);
    expect_look(1, 1);
    expect_own_line("DEBUG", "BrdIntfLedStateColorGet", "Current LED state 'OFF' and color 'RED'");
}

TEST_F(SteadyAmberLed, IsRememberedAnewByEveryStartThatCanReadIt) {
    notify(started);
    notify(ended);
    show(1, 3);
    notify(started);
    expect_look(3, 2);
    notify(ended);
    expect_look(1, 3);
    show(2, 1);
    fail_reads();
    notify(started);
    notify(ended);
    expect_look(1, 3);
}

TEST_F(SteadyAmberLed, BlinksGreenAndEndsWithState0AndColor0WhenItsEarlierLookCannotBeRead) {
    fail_reads();
    EXPECT_EQ(notify(started), 0);
    expect_own_line("ERROR", "BrdIntfOrgLedStateColorGetFail",
                    "BRD LED state and color get failed error Getting LED color failed rc:77");
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), ElementsAre("3, 1, 3, 2", "3, 1, 0, 0"));
}

TEST_F(SteadyAmberLed, IsNotRememberedByHalf) {
    fake_platform().brd_led_current_state_get = [](auto...) { return 78; };
    notify(started);
    expect_own_line("ERROR", "BrdIntfOrgLedStateColorGetFail",
                    "BRD LED state and color get failed error Getting LED state failed rc:78");
    notify(ended);
    expect_look(0, 0);
}

TEST_F(SteadyAmberLed, MayBeUnreadableForARepeatedRequest) {
    fail_reads();
    expect_result(notify(ended), 0, "Getting LED color failed rc:77");
    expect_own_line("ERROR", "BrdIntfLedStateColorGetFail",
                    std::string("BRD LED state and color get failed error ") + err_msg);
    EXPECT_THAT(looks_set(), IsEmpty());
}

TEST_F(SteadyAmberLed, MayBeStartedAgainAfterAStartThatFailed) {
    fail_sets();
    expect_result(notify(started), -13, "Setting LED state and color failed rc:88");
    EXPECT_THAT(log_lines(upgrade_led_module),
                ElementsAre(log_line(upgrade_led_module, "INFO", "BrdIntfLedStateColorGet2",
                                     "Original LED state 'STEADY' and color 'AMBER'"),
                            log_line(upgrade_led_module, "ERROR", "BrdIntfLedStateColorSetFail",
                                     std::string("BRD LED state and color get failed error ") + err_msg)));
    fake_platform().forget_calls();
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), IsEmpty()) << "it is still ended";
    fake_platform().brd_led_state_and_color_set = nullptr;
    EXPECT_EQ(notify(started), 0);
    expect_look(3, 2);
    notify(ended);
    expect_look(2, 4);
}

TEST_F(SteadyAmberLed, MayBeEndedAgainAfterAnEndThatFailed) {
    notify(started);
    fail_sets();
    EXPECT_EQ(notify(ended), -13);
    expect_look(3, 2);
    fake_platform().brd_led_state_and_color_set = nullptr;
    EXPECT_EQ(notify(ended), 0);
    expect_look(2, 4);
}

TEST_F(SteadyAmberLed, GetsState0AndColor0FromAnyOtherRequest) {
    EXPECT_EQ(notify(another), 0);
    EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_led_state_and_color_set", "3, 1, 0, 0"}));
    EXPECT_THAT(log_lines(upgrade_led_module), IsEmpty());
    notify(started);
    EXPECT_EQ(notify(another), 0);
    expect_look(0, 0);
}

TEST_F(SteadyAmberLed, IsNoneWithAnIdOf0WhichLeavesTheLastRequestAsItWas) {
    for (const auto &[group_id, obj_id] : {std::pair{0U, 5U}, {3U, 0U}, {0U, 0U}})
        for (const UpgLedRequest request : {started, ended}) {
            clear_log();
            expect_logged(upg_led_notify(group_id, obj_id, request, err_msg, sizeof err_msg), -22, upgrade_led_module,
                          "BrdIntfLenInvalidObjId",
                          "Does not have valid Group id " + std::to_string(group_id) + " obj id " +
                              std::to_string(obj_id) + " to send LED state");
        }
    EXPECT_EQ(upg_led_notify(group, 0, started, err_msg, sizeof err_msg), -22);
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
    EXPECT_EQ(notify(ended), 0);
    EXPECT_THAT(looks_set(), IsEmpty());
}

}  // namespace
