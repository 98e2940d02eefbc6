#include "printable.h"

#include <gtest/gtest.h>

namespace cardsim {
namespace {

struct Text {
    const char *what;
    std::string_view given;
    std::string_view printed;
};

class PrintableTest : public ::testing::TestWithParam<Text> {};

TEST_P(PrintableTest, HasNothingThatATerminalObeys) {
    EXPECT_EQ(printable(GetParam().given), GetParam().printed);
    EXPECT_EQ(printable(printable(GetParam().given)), GetParam().printed);
}

constexpr std::string_view letters = "Gr\xc3\xb6\xc3\x9f\xc2\xa0\xe2\x82\xac\xf0\x9f\x98\x80";

INSTANTIATE_TEST_SUITE_P(
    , PrintableTest,
    ::testing::Values(Text{"nothing", "", ""}, Text{"ascii", " a~\\'\"", " a~\\'\""},
                      Text{"escape", "a\x1b[31mb", "a\\x1b[31mb"}, Text{"lines", "a\nb\tc\rd", "a\\nb\\tc\\x0dd"},
                      Text{"zero", std::string_view("a\0b", 3), "a\\x00b"}, Text{"delete", "\x7f", "\\x7f"},
                      Text{"letters", letters, letters}, Text{"second_controls", "\xc2\x9b#", "\\xc2\\x9b#"},
                      Text{"lone_bytes", "\x9b\xff\xc3", "\\x9b\\xff\\xc3"},
                      Text{"cut_short", "\xe2\x82", "\\xe2\\x82"},
                      Text{"long_forms", "\xc0\x9b \xe0\x80\x9b", "\\xc0\\x9b \\xe0\\x80\\x9b"},
                      Text{"no_characters", "\xed\xa0\x80 \xf4\x90\x80\x80", "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"}),
    [](const ::testing::TestParamInfo<Text> &text) { return text.param.what; });

}  // namespace
}  // namespace cardsim
