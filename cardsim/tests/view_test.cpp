#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "live_view.h"
#include "text_table.h"

using namespace cardsim;
using testing::HasSubstr;

namespace {

// ---- tables

struct TableCase {
    std::size_t width;
    std::string text;
};

class Table : public testing::TestWithParam<TableCase> {};

TEST_P(Table, BreaksTheLastColumnWhereItDoesNotFit) {
    const std::vector<TableRow> rows = {{"NAME", "REASON"}, {"IoFpga", "one two three four five six seven"}};
    EXPECT_EQ(aligned(rows, GetParam().width), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    , Table,
    testing::Values(TableCase{0, "NAME    REASON\nIoFpga  one two three four five six seven\n"},
                    TableCase{41, "NAME    REASON\nIoFpga  one two three four five six seven\n"},
                    TableCase{40, "NAME    REASON\nIoFpga  one two three four five six\n        seven\n"},
                    TableCase{30, "NAME    REASON\nIoFpga\n    one two three four five\n    six seven\n"}));

TEST(Text, IsBrokenAtBlanksAndInsideOfWordsThatAreTooLong) {
    EXPECT_EQ(wrapped("one two three", 0, 2), "one two three\n");
    EXPECT_EQ(wrapped("one two three", 8, 2), "one two\n  three\n");
    EXPECT_EQ(wrapped("abcdefghij", 4, 1), "abcd\n efg\n hij\n");
    EXPECT_EQ(columns_in("\u00e4\u20ac"), 2U);
}

// ---- the view

CardMoment card_of(std::initializer_list<std::pair<RegionPhase, int>> phases) {
    CardMoment moment;
    moment.pid = "SIM";
    for (const auto &[phase, count] : phases) {
        for (int i = 0; i < count; ++i) {
            RegionMoment region;
            region.name = "Region" + std::to_string(moment.regions.size() + 1);
            region.phase = phase;
            moment.regions.push_back(region);
        }
    }
    return moment;
}

std::string text_of(const std::vector<ScreenLine> &lines) {
    std::string text;
    for (const ScreenLine &line : lines) text += line.text + "\n";
    return text;
}

TEST(View, KeepsTheDescriptionsOrderWhereAllHasRoom) {
    const std::string text = text_of(view_lines(card_of({{RegionPhase::good, 1}, {RegionPhase::running, 1}}), 24, 80));
    EXPECT_LT(text.find("Region1"), text.find("Region2"));
    EXPECT_THAT(text, testing::EndsWith("2 regions: 1 run, 1 upgraded\n"));
}

TEST(View, ShowsWhatRunsAndSumsUpWhatIsDone) {
    const auto lines = view_lines(card_of({{RegionPhase::good, 30}, {RegionPhase::running, 10}}), 24, 80);
    const std::string text = text_of(lines);
    EXPECT_EQ(lines.size(), 24U);
    for (int number = 31; number <= 40; ++number) EXPECT_THAT(text, HasSubstr("Region" + std::to_string(number) + " "));
    EXPECT_THAT(text, testing::EndsWith("40 regions: 10 run, 30 upgraded; 21 not shown\n"));
}

TEST(View, NeverIsLargerThanTheTerminal) {
    const CardMoment moment = card_of({{RegionPhase::running, 100}});
    for (const std::size_t rows : {0, 1, 2, 5, 24}) {
        for (const std::size_t columns : {1, 20, 80, 200}) {
            const auto lines = view_lines(moment, rows, columns);
            EXPECT_LE(lines.size(), rows);
            for (const ScreenLine &line : lines) EXPECT_LE(columns_in(line.text), columns) << line.text;
        }
    }
}

struct MomentCase {
    const char *state;
    fpd_log::Outcome outcome;
    RegionPhase phase;
    const char *word;
};

class Moment : public testing::TestWithParam<MomentCase> {};

TEST_P(Moment, HasTheWordOfItsStateUntilItsOutcomeIsDecided) {
    fpd_log::Region region;
    region.state = GetParam().state;
    region.outcome = GetParam().outcome;
    const RegionMoment moment = region_moment(region, 0, 1);
    EXPECT_EQ(moment.phase, GetParam().phase);
    EXPECT_EQ(moment.state, GetParam().word);
}

using fpd_log::Outcome;
INSTANTIATE_TEST_SUITE_P(
    , Moment,
    testing::Values(MomentCase{"FPD Queued for Upgrade", Outcome::unfinished, RegionPhase::waiting, "queued"},
                    MomentCase{"FPD Upgrade Progressing", Outcome::unfinished, RegionPhase::running, "upgrading"},
                    MomentCase{"FPD Upgrade Progressing", Outcome::given_up, RegionPhase::bad, "given up"},
                    MomentCase{"FPD Upgrade Done", Outcome::upgraded, RegionPhase::good, "upgraded"},
                    MomentCase{"FPD Info Received", Outcome::refused, RegionPhase::bad, "refused"},
                    MomentCase{"FPD Upgrade not needed", Outcome::current, RegionPhase::idle, "current"},
                    MomentCase{"FPD Info Received", Outcome::unfinished, RegionPhase::idle, ""}));

TEST(MomentOfARegion, HasTheCardsTimeOfTheLastAttempt) {
    fpd_log::Region region;
    region.retries = 1;
    region.state = "FPD Upgrade Started";
    region.attempts.resize(2);
    region.attempts.back().begin = 5'000'000;
    EXPECT_DOUBLE_EQ(region_moment(region, 7'000'000, 10).seconds.value(), 20.0);
    EXPECT_EQ(region_moment(region, 7'000'000, 10).state, "started, 2nd");
    region.attempts.back().end = 6'000'000;
    EXPECT_DOUBLE_EQ(region_moment(region, 9'000'000, 10).seconds.value(), 10.0);
}

}  // namespace
