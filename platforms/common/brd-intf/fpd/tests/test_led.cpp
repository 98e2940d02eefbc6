#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "brd_intf_led.h"
#include "fake_platform.h"
#include "interpose.h"
#include "test_support.h"

namespace {

using interpose::Call;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Module led_module{"LED", "brd_intf_led"};
constexpr std::uint32_t group = 3;
constexpr std::uint32_t led_id = 1;

// Names ---------------------------------------------------------------------------------------------------------------

TEST(LedNames, OfStatesHaveTheirQuotes) {
    const char *const expected[] = {"'Unknown'", "'OFF'", "'STEADY'", "'BLINK'", "'Unknown'", "'Unknown'"};
    for (std::uint32_t state = 0; state < std::size(expected); ++state)
        EXPECT_STREQ(led_state_name(static_cast<LedState>(state)), expected[state]) << state;
    EXPECT_STREQ(led_state_name(static_cast<LedState>(0xffffffff)), "'Unknown'");
}

TEST(LedNames, OfColorsHaveTheirQuotes) {
    const char *const expected[] = {"'Unknown'", "'RED'",    "'GREEN'",   "'BLUE'",
                                    "'AMBER'",   "'YELLOW'", "'Unknown'", "'Unknown'"};
    for (std::uint32_t color = 0; color < std::size(expected); ++color)
        EXPECT_STREQ(led_color_name(static_cast<LedColor>(color)), expected[color]) << color;
    EXPECT_STREQ(led_color_name(static_cast<LedColor>(0xffffffff)), "'Unknown'");
}

// Preparing a group ---------------------------------------------------------------------------------------------------

struct LedGroupInit : CardTest {};

TEST_F(LedGroupInit, PreparesTheGroup) {
    EXPECT_EQ(led_group_init(9, err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_group_led_init", "9"}));
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(LedGroupInit, TellsAFailureInItsTextAlone) {
    fake_platform().brd_group_led_init = [](std::uint32_t) { return -17; };
    EXPECT_EQ(led_group_init(group, err_msg, sizeof err_msg), 0);
    EXPECT_STREQ(err_msg, "Group LED Feature init failed rc: -17");
    EXPECT_EQ(led_group_init(group, nullptr, 0), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

// Finding the status LED ----------------------------------------------------------------------------------------------

struct StatusLed : CardTest {
    int find() { return led_status_obj_id_get(group, &obj_id, err_msg, sizeof err_msg); }

    void expect_failure(int rc, const char *tag, const std::string &text) {
        EXPECT_EQ(find(), rc);
        EXPECT_EQ(obj_id, 0U);
        EXPECT_EQ(err_msg, text);
        EXPECT_THAT(log_lines(), ElementsAre(log_line(led_module, "ERROR", tag, text)));
        EXPECT_EQ(led_status_obj_id_get(group, &obj_id, nullptr, 0), rc);
    }

    void expect_none() {
        EXPECT_EQ(find(), -2);
        EXPECT_EQ(obj_id, 0U);
        EXPECT_STREQ(err_msg, "");
        EXPECT_THAT(log_lines(), IsEmpty());
    }

    std::uint32_t obj_id = 4711;
};

TEST_F(StatusLed, IsOfType1AndNamedStatus) {
    fake_platform().leds = {
        {.obj_id = 5, .type = 2}, {.obj_id = 6, .type = 0}, {.obj_id = 7, .name = "Fan"}, {.obj_id = 8}};
    EXPECT_EQ(find(), 0);
    EXPECT_EQ(obj_id, 8U);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(StatusLed, IsLookedForInTheOrderOfTheListUpToTheFirst) {
    fake_platform().leds = {{.obj_id = 5, .type = 2}, {.obj_id = 7, .name = "Fan"}, {.obj_id = 8}, {.obj_id = 2}};
    EXPECT_EQ(find(), 0);
    EXPECT_EQ(obj_id, 8U);
    EXPECT_THAT(fake_platform().calls(),
                ElementsAre(FakeCall{"brd_group_led_num_leds_get", "3"}, FakeCall{"brd_group_led_obj_id_list_get", "3"},
                            FakeCall{"brd_led_type_get", "3, 5"}, FakeCall{"brd_led_type_get", "3, 7"},
                            FakeCall{"brd_led_name_get", "3, 7, 64"}, FakeCall{"brd_led_type_get", "3, 8"},
                            FakeCall{"brd_led_name_get", "3, 8, 64"}));
}

TEST_F(StatusLed, IsTheFirstWhoseNameDiffersInLetterCaseOnly) {
    fake_platform().leds = {{.obj_id = 8, .name = "STATUS"}, {.obj_id = 2, .name = "status"}};
    EXPECT_EQ(find(), 0);
    EXPECT_EQ(obj_id, 8U);
    fake_platform().leds = {{.obj_id = 2, .name = "sTaTuS"}, {.obj_id = 8, .name = "Status"}};
    EXPECT_EQ(find(), 0);
    EXPECT_EQ(obj_id, 2U);
}

TEST_F(StatusLed, HasTheWholeName) {
    fake_platform().leds = {
        {.obj_id = 1, .name = "Status2"}, {.obj_id = 2, .name = "Stat"}, {.obj_id = 3, .name = " Status"}};
    expect_none();
}

TEST_F(StatusLed, IsNoneOfAnotherType) {
    fake_platform().leds = {{.obj_id = 1, .type = 0}, {.obj_id = 2, .type = 2}, {.obj_id = 3, .type = 0x101}};
    expect_none();
}

TEST_F(StatusLed, IsNoneWithId0) {
    fake_platform().leds = {{.obj_id = 0}, {.obj_id = 2}};
    expect_none();
    EXPECT_THAT(fake_platform().calls_of("brd_led_type_get"), ElementsAre(FakeCall{"brd_led_type_get", "3, 0"}));
}

TEST_F(StatusLed, IsNoneOfAGroupWithoutLeds) {
    fake_platform().leds.clear();
    expect_none();
}

TEST_F(StatusLed, IsNotOneWhoseNameFillsItsBufferWithoutAnEnd) {
    fake_platform().brd_led_name_get = [](std::uint32_t, std::uint32_t, char *name, std::size_t size) {
        std::fill_n(name, size, 'S');
        return 0;
    };
    expect_none();
}

TEST_F(StatusLed, HasNoneToFindWhenTheLibraryTellsOfNone) {
    fake_platform().brd_group_led_num_leds_get = [](std::uint32_t, std::uint32_t *) { return 0; };
    EXPECT_EQ(find(), -2);
    EXPECT_THAT(fake_platform().calls_of("brd_led_type_get"), testing::IsEmpty());
}

TEST_F(StatusLed, FailsWithoutTheNumberOfLeds) {
    fake_platform().brd_group_led_num_leds_get = [](std::uint32_t, std::uint32_t *) { return 1281; };
    expect_failure(-22, "NumLedGetFail", "Failed to get number of LEDs for group rc 1281");
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_obj_id_list_get"), IsEmpty());
}

TEST_F(StatusLed, FailsWithoutMemory) {
    interpose::fail(Call::calloc, ENOMEM, 1, interpose::for_ever);
    expect_failure(-12, "LedObjMemoryAllocFail",
                   "Failed to allocated memory for LED object error Cannot allocate memory");
    EXPECT_THAT(fake_platform().calls_of("brd_group_led_obj_id_list_get"), IsEmpty());
}

TEST_F(StatusLed, FailsWithoutTheListOfLeds) {
    fake_platform().brd_group_led_obj_id_list_get = [](std::uint32_t, std::uint32_t *) { return 1282; };
    expect_failure(1282, "LedObjGetFail", "Failed to get led_obj_id_list, rc:1282");
    EXPECT_THAT(fake_platform().calls_of("brd_led_type_get"), IsEmpty());
}

TEST_F(StatusLed, FailsWithoutTheTypeOfALed) {
    fake_platform().leds = {{.obj_id = 4}, {.obj_id = 2}};
    fake_platform().brd_led_type_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return -1283; };
    expect_failure(-1283, "LedObjTypeGetFail", "Failed to get led_type from obj_id, rc:-1283");
    EXPECT_THAT(fake_platform().calls_of("brd_led_name_get"), IsEmpty());
}

TEST_F(StatusLed, FailsWithoutTheNameOfALed) {
    fake_platform().leds = {{.obj_id = 4}, {.obj_id = 2}};
    fake_platform().brd_led_name_get = [](std::uint32_t, std::uint32_t obj, char *, std::size_t) {
        return obj == 4 ? 1284 : 0;
    };
    expect_failure(1284, "LedObjNameGetFail", "Failed to get led_name from obj_id, rc:1284");
    EXPECT_THAT(fake_platform().calls_of("brd_led_name_get"), testing::Each(FakeCall{"brd_led_name_get", "3, 4, 64"}));
}

TEST_F(StatusLed, DoesNotAskForTheNamesOfOtherTypes) {
    fake_platform().leds = {{.obj_id = 4, .type = 2}, {.obj_id = 2}};
    fake_platform().brd_led_name_get = [](std::uint32_t, std::uint32_t obj, char *name, std::size_t size) {
        if (obj == 4) return 1284;
        std::snprintf(name, size, "Status");
        return 0;
    };
    EXPECT_EQ(find(), 0);
    EXPECT_EQ(obj_id, 2U);
}

// Reading -------------------------------------------------------------------------------------------------------------

struct LedGet : CardTest {
    int get() { return led_state_and_color_get(group, led_id, &state, &color, err_msg, sizeof err_msg); }

    /// Expects what a value of the platform library comes back as.
    void expect_state(std::uint32_t platform_state, LedState expected, const std::string &name) {
        clear_log();
        fake_platform().leds = {{.obj_id = led_id, .state = platform_state, .color = 1}};
        EXPECT_EQ(get(), 0);
        EXPECT_EQ(state, expected) << platform_state;
        expect_log(led_module, "INFO", "GetLedStateAndColor", "LED State " + name + " and Color 'RED'");
    }
    void expect_color(std::uint32_t platform_color, LedColor expected, const std::string &name) {
        clear_log();
        fake_platform().leds = {{.obj_id = led_id, .state = 1, .color = platform_color}};
        EXPECT_EQ(get(), 0);
        EXPECT_EQ(color, expected) << platform_color;
        expect_log(led_module, "INFO", "GetLedStateAndColor", "LED State 'OFF' and Color " + name);
    }

    void expect_failure(int rc, const char *tag, const std::string &text) {
        EXPECT_EQ(get(), rc);
        EXPECT_EQ(err_msg, text);
        EXPECT_THAT(log_lines(), ElementsAre(log_line(led_module, "ERROR", tag, text)));
        EXPECT_EQ(state, LedState::steady) << "untouched";
        EXPECT_EQ(color, LedColor::amber) << "untouched";
    }

    LedState state = LedState::steady;
    LedColor color = LedColor::amber;
};

TEST_F(LedGet, ReadsTheColorAndThenTheState) {
    fake_platform().leds = {{.obj_id = led_id, .state = 3, .color = 5}};
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(state, LedState::blink);
    EXPECT_EQ(color, LedColor::yellow);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_led_current_color_get", "3, 1"},
                                                     FakeCall{"brd_led_current_state_get", "3, 1"}));
    EXPECT_THAT(log_lines(), ElementsAre(log_line(led_module, "INFO", "GetLedStateAndColor",
                                                  "LED State 'BLINK' and Color 'YELLOW'")));
}

TEST_F(LedGet, KnowsTheStates) {
    expect_state(0, LedState::unknown, "'Unknown'");
    expect_state(1, LedState::off, "'OFF'");
    expect_state(2, LedState::steady, "'STEADY'");
    expect_state(3, LedState::blink, "'BLINK'");
}

TEST_F(LedGet, TakesEveryOtherStateFor0) {
    for (const std::uint32_t platform_state : {4U, 7U, 0xffffffffU})
        expect_state(platform_state, LedState::unknown, "'Unknown'");
}

TEST_F(LedGet, KnowsTheColors) {
    expect_color(0, LedColor::unknown, "'Unknown'");
    expect_color(1, LedColor::red, "'RED'");
    expect_color(2, LedColor::green, "'GREEN'");
    expect_color(3, LedColor::blue, "'BLUE'");
    expect_color(4, LedColor::amber, "'AMBER'");
    expect_color(5, LedColor::yellow, "'YELLOW'");
}

TEST_F(LedGet, TakesEveryOtherColorFor0) {
    for (const std::uint32_t platform_color : {6U, 258U, 0xffffffffU})
        expect_color(platform_color, LedColor::unknown, "'Unknown'");
}

TEST_F(LedGet, NeedsAPlaceForTheState) {
    EXPECT_EQ(led_state_and_color_get(group, led_id, nullptr, &color, err_msg, sizeof err_msg), -22);
    const std::string text = "Invalid argument state_p (nil) color_p " + address_text(&color);
    EXPECT_EQ(err_msg, text);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(led_module, "ERROR", "GetLedStateAndColorInvalArg", text)));
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
}

TEST_F(LedGet, NeedsAPlaceForTheColor) {
    EXPECT_EQ(led_state_and_color_get(group, led_id, &state, nullptr, err_msg, sizeof err_msg), -22);
    const std::string text = "Invalid argument state_p " + address_text(&state) + " color_p (nil)";
    EXPECT_EQ(err_msg, text);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(led_module, "ERROR", "GetLedStateAndColorInvalArg", text)));
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
}

TEST_F(LedGet, FailsWithoutTheColor) {
    fake_platform().brd_led_current_color_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return 1285; };
    expect_failure(-38, "GetLedColorFailed", "Getting LED color failed rc:1285");
    EXPECT_THAT(fake_platform().calls_of("brd_led_current_state_get"), IsEmpty());
}

TEST_F(LedGet, FailsWithoutTheStateAndStoresNothing) {
    fake_platform().brd_led_current_state_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return -1286; };
    expect_failure(-38, "GetLedStateFailed", "Getting LED state failed rc:-1286");
}

TEST_F(LedGet, NeedsNoPlaceForItsText) {
    EXPECT_EQ(led_state_and_color_get(group, led_id, &state, &color, nullptr, 0), 0);
    EXPECT_EQ(led_state_and_color_get(group, led_id, nullptr, nullptr, nullptr, 0), -22);
    fake_platform().leds.clear();
    EXPECT_EQ(led_state_and_color_get(group, led_id, &state, &color, nullptr, 0), -38);
}

// Setting -------------------------------------------------------------------------------------------------------------

struct LedSet : CardTest {
    int set(std::uint32_t state, std::uint32_t color) {
        return led_state_and_color_set(group, led_id, static_cast<LedState>(state), static_cast<LedColor>(color),
                                       err_msg, sizeof err_msg);
    }

    /// Expects what of these values the platform library gets and the log shows.
    void expect_set(std::uint32_t state, std::uint32_t color, const std::string &sent, const std::string &names) {
        clear_log();
        fake_platform().forget_calls();
        EXPECT_EQ(set(state, color), 0);
        EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_led_state_and_color_set", "3, 1, " + sent}));
        EXPECT_THAT(log_lines(),
                    ElementsAre(log_line(led_module, "INFO", "SetLedStateAndColor", "Setting LED State " + names)));
        EXPECT_STREQ(err_msg, "");
    }
};

TEST_F(LedSet, SendsTheStatesAsTheyAre) {
    expect_set(1, 2, "1, 2", "'OFF' and Color 'GREEN'");
    expect_set(2, 2, "2, 2", "'STEADY' and Color 'GREEN'");
    expect_set(3, 2, "3, 2", "'BLINK' and Color 'GREEN'");
}

TEST_F(LedSet, SendsTheColorsAsTheyAre) {
    expect_set(3, 1, "3, 1", "'BLINK' and Color 'RED'");
    expect_set(3, 3, "3, 3", "'BLINK' and Color 'BLUE'");
    expect_set(3, 4, "3, 4", "'BLINK' and Color 'AMBER'");
    expect_set(3, 5, "3, 5", "'BLINK' and Color 'YELLOW'");
}

TEST_F(LedSet, Sends0AsItIs) {
    expect_set(0, 2, "0, 2", "'Unknown' and Color 'GREEN'");
    expect_set(1, 0, "1, 0", "'OFF' and Color 'Unknown'");
}

TEST_F(LedSet, Sends0ForWhatItDoesNotKnow) {
    expect_set(4, 6, "0, 0", "'Unknown' and Color 'Unknown'");
    expect_set(0xffffffff, 0xffffffff, "0, 0", "'Unknown' and Color 'Unknown'");
}

TEST_F(LedSet, FailsWhenThePlatformDoes) {
    fake_platform().brd_led_state_and_color_set = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
        return 1287;
    };
    EXPECT_EQ(set(3, 2), -38);
    EXPECT_STREQ(err_msg, "Setting LED state and color failed rc:1287");
    EXPECT_THAT(
        log_lines(),
        ElementsAre(
            log_line(led_module, "INFO", "SetLedStateAndColor", "Setting LED State 'BLINK' and Color 'GREEN'"),
            log_line(led_module, "ERROR", "SetLedStateAndColorFailed", "Setting LED state and color failed rc:1287")));
}

TEST_F(LedSet, NeedsNoPlaceForItsText) {
    EXPECT_EQ(led_state_and_color_set(group, led_id, LedState::off, LedColor::red, nullptr, 0), 0);
    EXPECT_EQ(led_state_and_color_set(group, 99, LedState::off, LedColor::red, nullptr, 0), -38);
}

// A library that answers without an answer ----------------------------------------------------------------------------

TEST_F(StatusLed, IsNoneOfALedWhoseTypeIsNotTold) {
    fake_platform().brd_led_type_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return 0; };
    expect_none();
}

TEST_F(LedGet, KnowsNothingOfALedThatIsNotToldOf) {
    fake_platform().brd_led_current_color_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return 0; };
    fake_platform().brd_led_current_state_get = [](std::uint32_t, std::uint32_t, std::uint32_t *) { return 0; };
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(state, LedState::unknown);
    EXPECT_EQ(color, LedColor::unknown);
}

}  // namespace
