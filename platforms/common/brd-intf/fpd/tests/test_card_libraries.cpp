#include <algorithm>
#include <cstring>
#include <iterator>

#include "card_libraries.h"
#include "fake_platform.h"
#include "test_support.h"

namespace {

struct CardLibraries : CardTest {
    LedName led_name;
    CommandOutput output;
};

TEST_F(CardLibraries, GiveAnEmptyTextWhereALibraryLeavesItAlone) {
    fake_platform().brd_led_name_get = [](auto...) { return 0; };
    std::memset(led_name, 'x', sizeof led_name);
    EXPECT_EQ(card_led_name_get(3, 1, led_name), 0);
    EXPECT_TRUE(std::all_of(std::begin(led_name), std::end(led_name), [](char each) { return each == '\0'; }));
}

TEST_F(CardLibraries, EndATextThatALibraryFillsToTheLastByte) {
    fake_platform().brd_led_name_get = [](std::uint32_t, std::uint32_t, char *name, std::size_t size) {
        std::memset(name, 'n', size);
        return 0;
    };
    EXPECT_EQ(card_led_name_get(3, 1, led_name), 0);
    EXPECT_EQ(std::string(led_name), std::string(sizeof led_name - 1, 'n'));
}

TEST_F(CardLibraries, RunACommandLongerThanATextWithoutMemory) {
    const std::string word(3000, 'w');
    EXPECT_EQ(run_command(err_msg, sizeof err_msg, "%s %d", word.c_str(), 7), 0);
    EXPECT_EQ(run_command("date", output, err_msg, sizeof err_msg), 0);
    EXPECT_THAT(fake_platform().command_lines(), testing::ElementsAre(word + " 7", "date"));
}

}  // namespace
