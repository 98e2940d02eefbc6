#include <algorithm>
#include <cerrno>
#include <cstdio>
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

/// What each value is taken for, with its name; every other is taken for the first.
const std::vector<std::string> state_names = {"'Unknown'", "'OFF'", "'STEADY'", "'BLINK'"};
const std::vector<std::string> color_names = {"'Unknown'", "'RED'", "'GREEN'", "'BLUE'", "'AMBER'", "'YELLOW'"};
constexpr std::uint32_t values[] = {0, 1, 2, 3, 4, 5, 6, 7, 258, 0xffffffff};

std::uint32_t known(const std::vector<std::string> &names, std::uint32_t value) {
    return value < names.size() ? value : 0;
}

TEST(LedNames, OfStatesAndColorsHaveTheirQuotes) {
    for (const std::uint32_t value : values) {
        EXPECT_EQ(led_state_name(static_cast<LedState>(value)), state_names[known(state_names, value)]);
        EXPECT_EQ(led_color_name(static_cast<LedColor>(value)), color_names[known(color_names, value)]);
    }
}

struct LedGroupInit : CardTest {};

TEST_F(LedGroupInit, PreparesTheGroup) {
    expect_unlogged(led_group_init(9, err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_group_led_init", "9"}));
}

TEST_F(LedGroupInit, TellsAFailureInItsTextAlone) {
    fake_platform().brd_group_led_init = [](auto...) { return -17; };
    expect_unlogged(led_group_init(group, err_msg, sizeof err_msg), 0, "Group LED Feature init failed rc: -17");
    EXPECT_EQ(led_group_init(group, nullptr, 0), 0);
}

struct StatusLed : CardTest {
    int find() { return led_status_obj_id_get(group, &obj_id, err_msg, sizeof err_msg); }

    void expect_found(std::uint32_t id) {
        expect_unlogged(find(), 0);
        EXPECT_EQ(obj_id, id);
    }
    void expect_none() {
        expect_unlogged(find(), -2);
        EXPECT_EQ(obj_id, 0U);
    }

    std::uint32_t obj_id = 4711;
};

TEST_F(StatusLed, IsTheFirstInTheOrderOfTheListThatIsOfType1AndNamedStatus) {
    fake_platform().leds = {{.obj_id = 5, .type = 2}, {.obj_id = 7, .name = "Fan"}, {.obj_id = 8}, {.obj_id = 2}};
    expect_found(8);
    EXPECT_THAT(fake_platform().calls(),
                ElementsAre(FakeCall{"brd_group_led_num_leds_get", "3"}, FakeCall{"brd_group_led_obj_id_list_get", "3"},
                            FakeCall{"brd_led_type_get", "3, 5"}, FakeCall{"brd_led_type_get", "3, 7"},
                            FakeCall{"brd_led_name_get", "3, 7, 64"}, FakeCall{"brd_led_type_get", "3, 8"},
                            FakeCall{"brd_led_name_get", "3, 8, 64"}));
}

TEST_F(StatusLed, IsTheFirstWhoseNameDiffersInLetterCaseOnly) {
    fake_platform().leds = {{.obj_id = 8, .name = "STATUS"}, {.obj_id = 2, .name = "status"}};
    expect_found(8);
    fake_platform().leds = {{.obj_id = 2, .name = "sTaTuS"}, {.obj_id = 8, .name = "Status"}};
    expect_found(2);
}

TEST_F(StatusLed, IsNoneOfAnotherNameOrTypeOrWithId0) {
    for (const std::vector<FakeLed> &leds : std::vector<std::vector<FakeLed>>{
             {},
             {{.obj_id = 1, .name = "Status2"}, {.obj_id = 2, .name = "Stat"}, {.obj_id = 3, .name = " Status"}},
             {{.obj_id = 1, .name = std::string(100, 'S')}},  // fills its buffer without an end
             {{.obj_id = 1, .type = 0}, {.obj_id = 2, .type = 2}, {.obj_id = 3, .type = 0x101}},
             {{.obj_id = 0}, {.obj_id = 2}},
         }) {
        fake_platform().forget_calls();
        fake_platform().leds = leds;
        expect_none();
    }
    EXPECT_THAT(fake_platform().calls_of("brd_led_type_get"), ElementsAre(FakeCall{"brd_led_type_get", "3, 0"}));
}

TEST_F(StatusLed, IsNoneWhereTheLibraryTellsOfNoNumberOrNoType) {
    fake_platform().brd_led_type_get = [](auto...) { return 0; };
    expect_none();
    fake_platform().forget_calls();
    fake_platform().brd_group_led_num_leds_get = [](auto...) { return 0; };
    expect_none();
    EXPECT_THAT(fake_platform().calls_of("brd_led_type_get"), IsEmpty());
}

TEST_F(StatusLed, CannotBeFoundWhenACallFails) {
    const struct {
        void (*fail)(FakePlatform &fake);
        int rc;
        const char *tag, *text, *not_called;
    } cases[] = {
        {[](FakePlatform &) { interpose::fail(Call::calloc, ENOMEM, 1, interpose::for_ever); }, -12,
         "LedObjMemoryAllocFail", "Failed to allocated memory for LED object error Cannot allocate memory",
         "brd_group_led_obj_id_list_get"},
        {[](FakePlatform &fake) { fake.brd_led_name_get = [](auto...) { return 1284; }; }, 1284, "LedObjNameGetFail",
         "Failed to get led_name from obj_id, rc:1284", "none"},
        {[](FakePlatform &fake) { fake.brd_led_type_get = [](auto...) { return -1283; }; }, -1283, "LedObjTypeGetFail",
         "Failed to get led_type from obj_id, rc:-1283", "brd_led_name_get"},
        {[](FakePlatform &fake) { fake.brd_group_led_obj_id_list_get = [](auto...) { return 1282; }; }, 1282,
         "LedObjGetFail", "Failed to get led_obj_id_list, rc:1282", "brd_led_type_get"},
        {[](FakePlatform &fake) { fake.brd_group_led_num_leds_get = [](auto...) { return 1281; }; }, -22,
         "NumLedGetFail", "Failed to get number of LEDs for group rc 1281", "brd_group_led_obj_id_list_get"},
    };
    for (const auto &[fail, rc, tag, text, not_called] : cases) {
        SCOPED_TRACE(text);
        clear_log();
        fake_platform().reset();
        fake_platform().leds = {{.obj_id = 4}, {.obj_id = 2}};
        fail(fake_platform());
        expect_logged(find(), rc, led_module, tag, text);
        EXPECT_EQ(obj_id, 0U);
        EXPECT_LE(fake_platform().calls_of("brd_led_type_get").size(), 1U);
        EXPECT_EQ(led_status_obj_id_get(group, &obj_id, nullptr, 0), rc);
        EXPECT_THAT(fake_platform().calls_of(not_called), IsEmpty());
        interpose::reset();
    }
}

TEST_F(StatusLed, IsFoundWithoutTheNamesOfOtherTypes) {
    fake_platform().leds = {{.obj_id = 4, .type = 2}, {.obj_id = 2}};
    fake_platform().brd_led_name_get = [](std::uint32_t, std::uint32_t obj, char *name, std::size_t size) {
        if (obj == 4) return 1284;
        std::snprintf(name, size, "Status");
        return 0;
    };
    expect_found(2);
}

struct LedGet : CardTest {
    int get() { return led_state_and_color_get(group, led_id, &state, &color, err_msg, sizeof err_msg); }

    LedState state = LedState::steady;
    LedColor color = LedColor::amber;
};

TEST_F(LedGet, ReadsTheColorAndThenTheState) {
    fake_platform().leds = {{.obj_id = led_id, .state = 3, .color = 5}};
    expect_result(get(), 0);
    EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_led_current_color_get", "3, 1"},
                                                     FakeCall{"brd_led_current_state_get", "3, 1"}));
}

TEST_F(LedGet, KnowsTheStatesAndColorsAndTakesEveryOtherFor0) {
    for (const std::uint32_t value : values) {
        const std::uint32_t known_state = known(state_names, value), known_color = known(color_names, value);
        clear_log();
        fake_platform().leds = {{.obj_id = led_id, .state = value, .color = value}};
        EXPECT_EQ(get(), 0);
        EXPECT_EQ(state, static_cast<LedState>(known_state)) << value;
        EXPECT_EQ(color, static_cast<LedColor>(known_color)) << value;
        expect_only_log(led_module, "INFO", "GetLedStateAndColor",
                        "LED State " + state_names[known_state] + " and Color " + color_names[known_color]);
    }
    fake_platform().brd_led_current_color_get = fake_platform().brd_led_current_state_get = [](auto...) { return 0; };
    state = LedState::steady;
    color = LedColor::amber;
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(state, LedState::unknown) << "not told of";
    EXPECT_EQ(color, LedColor::unknown) << "not told of";
}

TEST_F(LedGet, NeedsAPlaceForBoth) {
    for (const bool has_state : {false, true}) {
        clear_log();
        const std::string text = has_state ? "state_p " + address_text(&state) + " color_p (nil)"
                                           : "state_p (nil) color_p " + address_text(&color);
        expect_logged(led_state_and_color_get(group, led_id, has_state ? &state : nullptr, has_state ? nullptr : &color,
                                              err_msg, sizeof err_msg),
                      -22, led_module, "GetLedStateAndColorInvalArg", "Invalid argument " + text);
    }
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
}

TEST_F(LedGet, FailsWithoutTheStateOrTheColorAndStoresNothing) {
    fake_platform().brd_led_current_state_get = [](auto...) { return -1286; };
    expect_logged(get(), -38, led_module, "GetLedStateFailed", "Getting LED state failed rc:-1286");
    clear_log();
    fake_platform().forget_calls();
    fake_platform().brd_led_current_color_get = [](auto...) { return 1285; };
    expect_logged(get(), -38, led_module, "GetLedColorFailed", "Getting LED color failed rc:1285");
    EXPECT_THAT(fake_platform().calls_of("brd_led_current_state_get"), IsEmpty());
    EXPECT_EQ(state, LedState::steady);
    EXPECT_EQ(color, LedColor::amber);
}

TEST_F(LedGet, NeedsNoPlaceForItsText) {
    EXPECT_EQ(led_state_and_color_get(group, led_id, &state, &color, nullptr, 0), 0);
    EXPECT_EQ(led_state_and_color_get(group, led_id, nullptr, nullptr, nullptr, 0), -22);
    fake_platform().leds.clear();
    EXPECT_EQ(led_state_and_color_get(group, led_id, &state, &color, nullptr, 0), -38);
}

struct LedSet : CardTest {
    int set(std::uint32_t state, std::uint32_t color) {
        return led_state_and_color_set(group, led_id, static_cast<LedState>(state), static_cast<LedColor>(color),
                                       err_msg, sizeof err_msg);
    }
};

TEST_F(LedSet, SendsStatesAndColorsAsTheyAreAnd0ForWhatItDoesNotKnow) {
    for (const std::uint32_t state : values)
        for (const std::uint32_t color : values) {
            const std::uint32_t known_state = known(state_names, state), known_color = known(color_names, color);
            clear_log();
            fake_platform().forget_calls();
            expect_result(set(state, color), 0);
            const std::string sent = "3, 1, " + std::to_string(known_state) + ", " + std::to_string(known_color);
            EXPECT_THAT(fake_platform().calls(), ElementsAre(FakeCall{"brd_led_state_and_color_set", sent}));
            expect_only_log(led_module, "INFO", "SetLedStateAndColor",
                            "Setting LED State " + state_names[known_state] + " and Color " + color_names[known_color]);
        }
}

TEST_F(LedSet, FailsWhenThePlatformDoes) {
    fake_platform().brd_led_state_and_color_set = [](auto...) { return 1287; };
    expect_result(set(3, 2), -38, "Setting LED state and color failed rc:1287");
    expect_log(led_module, "INFO", "SetLedStateAndColor", "Setting LED State 'BLINK' and Color 'GREEN'");
    expect_log(led_module, "ERROR", "SetLedStateAndColorFailed", "Setting LED state and color failed rc:1287");
}

TEST_F(LedSet, NeedsNoPlaceForItsText) {
    EXPECT_EQ(led_state_and_color_set(group, led_id, LedState::off, LedColor::red, nullptr, 0), 0);
    EXPECT_EQ(led_state_and_color_set(group, 99, LedState::off, LedColor::red, nullptr, 0), -38);
}

}  // namespace
