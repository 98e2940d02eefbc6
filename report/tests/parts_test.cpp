/// The parts of fpd-report on runs that are made here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fleet_text.h"
#include "metrics.h"
#include "run_json.h"
#include "run_samples.h"
#include "run_text.h"
#include "shown_text.h"
#include "table.h"
#include "verdict.h"

using fpd_log::Outcome;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace fpd_report {
namespace {

/// What would be obeyed somewhere: by a terminal, a reader's eye, a page, the metrics.
const std::string hostile = "a\x1b[31m\n\"\\<b>&\x7f\xc2\x9b\xe2\x80\xae\xe2\x80\xa8\xff}";

bool is_obeyed(const std::string &text) {
    const std::vector<std::string> obeyed = {"\x1b", "\x7f", "\xc2\x9b", "\xe2\x80\xae", "\xe2\x80\xa8", "\xff", "\r"};
    return std::any_of(obeyed.begin(), obeyed.end(),
                       [&](const std::string &one) { return text.find(one) != std::string::npos; });
}

TEST(ShownText, EscapesWhatATerminalObeysAndWhatIsNoUtf8) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain", "plain"},
        {"näïve 漢", "näïve 漢"},
        {"a\nb\tc\rd", "a\\nb\\tc\\x0dd"},
        {"\x1b[2J", "\\x1b[2J"},
        {"\x7f", "\\x7f"},
        {"\xc2\x9b", "\\u{9b}"},
        {"\xe2\x80\xae", "\\u{202e}"},
        {"\xe2\x81\xa6", "\\u{2066}"},
        {"\xff\xfe", "\\xff\\xfe"},
        {"\xc0\xaf", "\\xc0\\xaf"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        {"\xf3\xa0\x81\x81", "\\u{e0041}"},
        {"cut \xe6\xbc", "cut \\xe6\\xbc"},
        {std::string("\0", 1), "\\x00"},
    };
    for (const auto &[text, expected] : cases) EXPECT_EQ(shown(text), expected);
}

TEST(ShownText, ValidUtf8ReplacesEachByteThatIsPartOfNoCharacter) {
    EXPECT_EQ(valid_utf8("a\xff\xc3\xa4\xe6"), "a\xef\xbf\xbd\xc3\xa4\xef\xbf\xbd");
    EXPECT_EQ(valid_utf8("\x1b\n"), "\x1b\n");
}

TEST(ShownText, FitsAndWrapsByColumns) {
    EXPECT_EQ(columns("a漢e\xcc\x81"), 4U);
    EXPECT_EQ(columns("\xef\xbf\xbe"), 1U) << "no character, but a terminal shows something";
    EXPECT_EQ(fitted("abcdef", 6), "abcdef");
    EXPECT_EQ(fitted("abcdefg", 6), "abcde…");
    EXPECT_EQ(fitted("漢漢漢", 5), "漢漢…");
    EXPECT_THAT(wrapped("one two three", 8), ElementsAre("one two", "three"));
    EXPECT_THAT(wrapped("onetwothree", 4), ElementsAre("onet", "woth", "ree"));
    EXPECT_THAT(wrapped("one two", 3), ElementsAre("one", "two"));
    EXPECT_THAT(wrapped("漢漢", 1), ElementsAre("漢", "漢"));
    EXPECT_THAT(wrapped("", 10), ElementsAre(""));
}

TEST(ShownText, LabelValueEscapesForTheMetricsAndTellsTextsApart) {
    EXPECT_EQ(label_value("a\"b"), "a\\\"b");
    EXPECT_EQ(label_value("a\nb"), "a\\\\nb");
    EXPECT_NE(label_value("a\nb"), label_value("a\\nb"));
    EXPECT_NE(label_value("\x1b"), label_value("\\x1b"));
}

TEST(Verdict, TellsTheRunInOneLineTheWorstFirst) {
    fpd_log::Run run = sample_run({sample_region("A", Outcome::upgraded), sample_region("B", Outcome::given_up),
                                   sample_region("C", Outcome::upgraded), sample_region("D", Outcome::refused)});
    run.reload_requested = true;
    EXPECT_EQ(verdict(run),
              "run 1, 2026-11-22 06:02:13, 4 regions: 1 given up, 1 refused, 2 upgraded; reload requested");
    run.events = {{sample_begin, fpd_log::EventKind::activation_failed, ""}};
    EXPECT_THAT(verdict(run), testing::EndsWith("; reload failed"));
    run = sample_run({});
    run.begin = 0;
    run.stage = "1.a";
    run.failure = "no queue";
    EXPECT_EQ(verdict(run), "run 1, no time, stage 1.a, no regions; ended by an error: no queue");
}

TEST(Verdict, AllIsWellOnlyWhenTheRunItsReloadAndEachRegionAre) {
    const fpd_log::Run good = sample_run({sample_region("A", Outcome::current), sample_region("B", Outcome::upgraded)});
    EXPECT_TRUE(is_well(good));
    std::vector<fpd_log::Run> bad(4, good);
    bad[0].failure = "x";
    bad[1].finished = false;
    bad[2].events = {{0, fpd_log::EventKind::activation_failed, ""}};
    bad[3].regions[1].outcome = Outcome::refused;
    for (const fpd_log::Run &run : bad) EXPECT_FALSE(is_well(run)) << verdict(run);
}

TEST(RunJson, HasTheFieldsOfTheModelByTheirNames) {
    fpd_log::Run run = sample_run({sample_region("A", Outcome::failed, "broken")});
    run.regions[0].upgrade_needed = true;
    run.events = {{5, fpd_log::EventKind::led, "amber"}};
    run.unknown = {"?"};
    const auto json = run_json(run);
    EXPECT_EQ(json["well"], false);
    EXPECT_EQ(json["verdict"], verdict(run));
    EXPECT_EQ(json["begin"], sample_begin);
    EXPECT_EQ(json["events"][0]["kind"], "led");
    EXPECT_EQ(json["unknown"][0], "?");
    EXPECT_FALSE(json.contains("flash_events"));
    const auto &region = json["regions"][0];
    EXPECT_EQ(region["outcome"], "failed");
    EXPECT_EQ(region["upgrade_needed"], true);
    EXPECT_TRUE(region["queue"].is_null());
    EXPECT_EQ(region["attempts"][1]["how"], "failed");
    EXPECT_EQ(region["attempts"][1]["progress"], 41);
    EXPECT_EQ(region["lines"][1]["level"], "error");
    EXPECT_EQ(region["lines"][1]["number"], 9);
}

TEST(RunJson, HasFlashEventsOnlyWhereAFlashLogWasGiven) {
    const auto with =
        run_json(sample_run({}),
                 std::vector<fpd_log::FlashEvent>{{7, fpd_log::FlashEventKind::upgraded, "A", "2", "1", "1", "text"}});
    EXPECT_EQ(with["flash_events"][0]["kind"], "upgraded");
    EXPECT_EQ(with["flash_events"][0]["region"], "A");
    EXPECT_THAT(run_json(sample_run({}), std::vector<fpd_log::FlashEvent>{})["flash_events"], IsEmpty());
}

TEST(RunJson, IsValidWhateverTheLogHolds) {
    fpd_log::Run run = sample_run({sample_region(hostile, Outcome::failed, hostile, hostile)});
    run.failure = run.source = run.stage = hostile;
    run.unknown = {hostile};
    const std::string text = run_json(run).dump();
    const auto json = nlohmann::json::parse(text);
    EXPECT_EQ(json["regions"][0]["name"], valid_utf8(hostile));
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(RunJson, TheDocumentInPartsIsTheDocument) {
    const auto one = run_json(sample_run({}));
    const auto parts = nlohmann::ordered_json::parse(json_document_begin() + one.dump() + json_document_separator() +
                                                     one.dump() + json_document_end());
    EXPECT_EQ(parts, json_document({one, one}));
    EXPECT_EQ(parts["schema"], "fpd-report");
    EXPECT_EQ(nlohmann::json::parse(json_document_begin() + json_document_end())["runs"], nlohmann::json::array());
}

TEST(RunText, HasOneRowForWhatIsWellAndReasonAndLinesForWhatIsNot) {
    const fpd_log::Run run = sample_run(
        {sample_region("Fine", Outcome::current, "1.0.0 is programmed and packaged", "1.0.0"),
         sample_region("New", Outcome::upgraded), sample_region("Broken", Outcome::failed, "erase timed out")});
    const std::string text = run_text(run, std::nullopt, {});
    EXPECT_EQ(text, verdict(run) + "\n" +
                        "  REGION  RUNNING  PROGRAMMED  PACKAGED  OUTCOME\n"
                        "  Broken  1.0.0    1.0.0       2.0.0     failed    2 attempts  1m30s\n"
                        "    erase timed out\n"
                        "    06:02:13.015791 INFO FirstTag: first of Broken\n"
                        "    06:02:13.031582 ERROR LastTag: last of Broken\n"
                        "  New     1.0.0    1.0.0       2.0.0     upgraded  1 attempt   12.0 s\n"
                        "  Fine    1.0.0    1.0.0       1.0.0     current\n");
}

TEST(RunText, KeepsTheLastLinesAndTellsHowManyAreLeftOut) {
    fpd_log::Run run = sample_run({sample_region("Broken", Outcome::failed, "erase timed out")});
    run.regions[0].lines_left_out = 5;
    TextOptions options;
    options.lines = 1;
    EXPECT_THAT(
        run_text(run, std::nullopt, options),
        AllOf(HasSubstr("    (6 more of the log)\n    06:02:13.031582 ERROR LastTag"), Not(HasSubstr("FirstTag"))));
    options.lines = 0;
    EXPECT_THAT(run_text(run, std::nullopt, options), AllOf(Not(HasSubstr("LastTag")), Not(HasSubstr("more of"))));
    options.brief = true;
    EXPECT_EQ(run_text(run, std::nullopt, options), verdict(run) + "\n");
}

TEST(RunText, TellsErrorsOfNoRegionUnknownLinesAndTheFlashLog) {
    fpd_log::Run run = sample_run({});
    run.errors = {{3, sample_begin, 3, 3, fpd_log::Level::error, "FPD", "Tag", "f:1", "mount failed"}};
    run.unknown_lines = 2;
    run.unknown = {"what" + std::string(196, '.') + "more"};
    run.left_out = 4;
    const std::string text = run_text(
        run, std::vector<fpd_log::FlashEvent>{{sample_begin, fpd_log::FlashEventKind::failed, "", "", "", "", "no"}},
        {});
    EXPECT_THAT(text, AllOf(HasSubstr("  errors of no region:\n    06:02:13.015791 ERROR Tag: mount failed\n"),
                            HasSubstr("  2 of 10 lines are not known to this program, the first: what" +
                                      std::string(196, '.') + "\n"),
                            HasSubstr("  4 more regions, events and errors are left out\n"),
                            HasSubstr("  the flash log:\n    2026-11-22 06:02:13 no\n")));
}

TEST(RunText, HasNamesWholeWhereThereIsNoTerminal) {
    const std::string name(102, 'n');
    const fpd_log::Run run = sample_run({sample_region(name, Outcome::current)});
    TextOptions options;
    EXPECT_THAT(run_text(run, std::nullopt, options), HasSubstr("  " + name + "  1.0.0"));
    options.style.width = 200;
    EXPECT_THAT(run_text(run, std::nullopt, options), HasSubstr("  " + std::string(31, 'n') + "…  1.0.0"));
}

TEST(RunText, FitsATerminalAndHasColoursThereOnly) {
    fpd_log::Run run = sample_run({sample_region("Broken", Outcome::failed,
                                                 std::string(30, 'x') + " " + std::string(300, 'y') + " words of it")});
    TextOptions options;
    options.style.width = 80;
    const std::string text = run_text(run, std::nullopt, options);
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; begin = end + 1, end = text.find('\n', begin)) {
        EXPECT_LE(columns(text.substr(begin, end - begin)), 80U) << text.substr(begin, end - begin);
    }
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    options.style.colour = true;
    EXPECT_THAT(run_text(run, std::nullopt, options), HasSubstr("\x1b[31mfailed\x1b[0m"));
}

TEST(RunText, NothingOfALogIsObeyed) {
    fpd_log::Run run = sample_run({sample_region(hostile, Outcome::failed, hostile, hostile)});
    run.failure = run.stage = hostile;
    run.unknown_lines = 1;
    run.unknown = {hostile};
    run.errors = run.regions[0].lines;
    run.errors[0].text = run.errors[0].tag = hostile;
    const std::string text = run_text(run, std::nullopt, {});
    EXPECT_FALSE(is_obeyed(text)) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10) << text;
}

TEST(Metrics, HaveHelpTypeAndTheLastRun) {
    fpd_log::Run run = sample_run({sample_region("A", Outcome::failed, "x"), sample_region("B", Outcome::current)});
    run.number = 3;
    run.disabled = true;
    Metrics metrics;
    metrics.add("c1/fpd.log", run);
    metrics.add("c2/fpd.log", run);
    const std::string text = metrics.text();
    EXPECT_THAT(text, HasSubstr("# TYPE fpd_run_number gauge\nfpd_run_number{log=\"c1/fpd.log\"} 3\n"
                                "fpd_run_number{log=\"c2/fpd.log\"} 3\n"));
    EXPECT_THAT(text, HasSubstr("fpd_run_begin_timestamp_seconds{log=\"c1/fpd.log\"} 1795327333.015791\n"));
    EXPECT_THAT(text, HasSubstr("fpd_run_disabled{log=\"c1/fpd.log\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("fpd_run_regions{log=\"c1/fpd.log\",outcome=\"failed\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("fpd_region_well{log=\"c1/fpd.log\",region=\"A\"} 0\n"));
    EXPECT_THAT(text,
                HasSubstr("fpd_region_outcome{log=\"c1/fpd.log\",region=\"A\",outcome=\"failed\",running=\"1.0.0\","
                          "programmed=\"1.0.0\",packaged=\"2.0.0\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("fpd_region_upgrade_duration_seconds{log=\"c1/fpd.log\",region=\"A\"} 90.000000\n"));
    EXPECT_THAT(text, Not(HasSubstr("fpd_region_upgrade_duration_seconds{log=\"c1/fpd.log\",region=\"B\"}")));
}

TEST(Metrics, HaveNoTimesThatTheLogDoesNotTell) {
    fpd_log::Run run = sample_run({sample_region("A", Outcome::upgraded)});
    run.begin = run.regions[0].attempts[0].begin = 0;
    Metrics metrics;
    metrics.add("fpd.log", run);
    EXPECT_THAT(metrics.text(), AllOf(Not(HasSubstr("begin")), Not(HasSubstr("duration"))));
}

TEST(Metrics, NothingOfALogBecomesASampleOfItsOwn) {
    Metrics metrics;
    const fpd_log::Region region = sample_region(hostile + "\"} 1\nfpd_run_well{log=\"x\"} 1\n", Outcome::failed);
    metrics.add(hostile, sample_run({region, region}));
    const std::string text = metrics.text();
    EXPECT_FALSE(is_obeyed(text)) << text;
    EXPECT_EQ(text.find("\nfpd_run_well{log=\"x\"}"), std::string::npos);
    const std::string sample = "\nfpd_region_well{";
    const std::size_t first = text.find(sample);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(text.find(sample, first + 1), std::string::npos) << "a sample that is there twice";
}

/// `count` cards of the name, each with the run.
void add_cards(Fleet *fleet, const std::string &name, int count, const fpd_log::Run &run) {
    for (int number = 0; number < count; ++number) fleet->add_card(name + std::to_string(number), &run, 2, "");
}

std::vector<std::string> rows_of(const Fleet &fleet) {
    std::vector<std::string> rows;
    for (const FleetGroup &group : fleet.summary().groups) {
        rows.push_back(std::to_string(group.cards) + " " + group.region + " " + group.outcome + " " + group.version);
    }
    return rows;
}

TEST(Fleet, ShowsTheOddOnesFirstAndSumsUpTheRest) {
    Fleet fleet;
    fpd_log::Region other = sample_region("A", Outcome::current);
    other.programmed = "0.9.0";
    add_cards(&fleet, "old", 1, sample_run({other, sample_region("B", Outcome::current)}));
    add_cards(&fleet, "fine", 20,
              sample_run({sample_region("A", Outcome::current), sample_region("B", Outcome::current)}));
    add_cards(&fleet, "refused", 3,
              sample_run({sample_region("A", Outcome::refused, "old"), sample_region("B", Outcome::current)}));
    add_cards(
        &fleet, "broken", 2,
        sample_run({sample_region("A", Outcome::failed, "dead after 7 s"), sample_region("B", Outcome::current)}));
    add_cards(&fleet, "given", 1,
              sample_run({sample_region("A", Outcome::given_up, "stuck"), sample_region("B", Outcome::current)}));
    EXPECT_THAT(rows_of(fleet), ElementsAre("2 A failed 1.0.0", "1 A given up 1.0.0", "3 A refused 1.0.0",
                                            "1 A current 0.9.0", "20 A current 1.0.0", "27 B current 1.0.0"));
    EXPECT_EQ(fleet.summary().cards, 27U);
    EXPECT_EQ(fleet.summary().well, 21U);
    EXPECT_EQ(fleet.summary().runs, 54U);
}

TEST(Fleet, TellsWhichCardLacksARegionThatTheOthersHave) {
    Fleet fleet;
    add_cards(&fleet, "all", 8,
              sample_run({sample_region("A", Outcome::current), sample_region("B", Outcome::current)}));
    add_cards(&fleet, "one", 1, sample_run({sample_region("A", Outcome::current)}));
    const FleetGroup group = fleet.summary().groups.front();
    EXPECT_EQ(group.region, "B");
    EXPECT_EQ(group.outcome, "not there");
    EXPECT_THAT(group.examples, ElementsAre("one0"));
}

TEST(Fleet, CardsOfAnotherKindLackNothing) {
    Fleet fleet;
    add_cards(&fleet, "kind", 8,
              sample_run({sample_region("A", Outcome::current), sample_region("B", Outcome::current),
                          sample_region("C", Outcome::current)}));
    add_cards(&fleet, "other", 1,
              sample_run({sample_region("A", Outcome::current), sample_region("X", Outcome::current)}));
    for (const FleetGroup &group : fleet.summary().groups) EXPECT_NE(group.outcome, "not there") << group.region;
}

TEST(Fleet, AVersionThatManyHaveIsNotUnusual) {
    Fleet fleet;
    fpd_log::Region other = sample_region("A", Outcome::current);
    other.programmed = "0.9.0";
    add_cards(&fleet, "new", 11, sample_run({sample_region("A", Outcome::current)}));
    add_cards(&fleet, "old", 3, sample_run({other}));
    for (const FleetGroup &group : fleet.summary().groups) EXPECT_EQ(group.oddness, Oddness::none);
    add_cards(&fleet, "one more new", 1, sample_run({sample_region("A", Outcome::current)}));
    EXPECT_EQ(fleet.summary().groups.front().oddness, Oddness::unusual) << "a quarter as many";
}

TEST(Fleet, ACardWithoutARunOrWithARunThatFailedIsAmongTheFailed) {
    Fleet fleet;
    fleet.add_card("empty", nullptr, 0, "no line of its logs is one of the tool");
    fpd_log::Run failed = sample_run({});
    failed.failure = "no queue";
    fleet.add_card("failing", &failed, 1, "");
    EXPECT_THAT(rows_of(fleet), ElementsAre("1  ended by an error ", "1  no run "));
    EXPECT_EQ(fleet.summary().well, 0U);
}

TEST(Fleet, TellsTheVersionThatIsThereAfterTheRun) {
    Fleet fleet;
    fpd_log::Region unread = sample_region("C", Outcome::refused);
    unread.programmed = "";
    add_cards(&fleet, "card", 1,
              sample_run({sample_region("A", Outcome::upgraded), sample_region("B", Outcome::current), unread}));
    EXPECT_THAT(rows_of(fleet), ElementsAre("1 C refused 1.0.0", "1 A upgraded 2.0.0", "1 B current 1.0.0"));
}

TEST(Fleet, TellsWhatIsWrongWithARunOnce) {
    fpd_log::Run cut = sample_run({sample_region("A", Outcome::current)});
    cut.finished = false;
    fpd_log::Run told = sample_run({sample_region("B", Outcome::unfinished)});
    told.finished = false;
    fpd_log::Run failed = cut;
    failed.failure = "no queue";
    fpd_log::Run not_reloaded = sample_run({sample_region("A", Outcome::current)});
    not_reloaded.events = {{0, fpd_log::EventKind::activation_failed, ""}};
    Fleet fleet;
    fpd_log::Run off = sample_run({});
    off.disabled = true;
    for (const fpd_log::Run &run : {cut, cut, told, failed, not_reloaded, off}) fleet.add_card("card", &run, 1, "");
    EXPECT_THAT(rows_of(fleet), ElementsAre("1  ended by an error ", "1  reload failed ", "2  unfinished ",
                                            "1 B unfinished 1.0.0", "1  no regions ", "4 A current 1.0.0"));
}

TEST(Fleet, ReasonsThatDifferInNumbersAreOneWhicheverCardComesFirst) {
    const auto text_of = [](std::vector<int> order) {
        Fleet fleet;
        for (const int number : order) {
            const fpd_log::Run run = sample_run(
                {sample_region("A", Outcome::given_up, "stuck for " + std::to_string(3000 + number) + " s")});
            fleet.add_card("card" + std::to_string(number), &run, 1, "");
        }
        return fleet_text(fleet.summary(), {});
    };
    const std::string text = text_of({1, 2, 3, 4, 5});
    EXPECT_THAT(text, StartsWith("5 cards, 5 runs; after the last run of each 0 are well, 5 are not\n"));
    EXPECT_THAT(text, HasSubstr("       card1, card2, card3 and 2 more: stuck for 3001 s\n"));
    EXPECT_EQ(text, text_of({5, 4, 3, 2, 1}));
}

TEST(Fleet, NothingOfALogIsObeyed) {
    Fleet fleet;
    const fpd_log::Run run = sample_run({sample_region(hostile, Outcome::failed, hostile, hostile)});
    fleet.add_card(hostile, &run, 1, "");
    fleet.add_card("x", nullptr, 0, hostile);
    EXPECT_FALSE(is_obeyed(fleet_text(fleet.summary(), {})));
}

TEST(Fleet, KeepsABoundedNumberOfKinds) {
    Fleet fleet;
    std::vector<fpd_log::Region> regions(Fleet::groups_kept + 10, sample_region("A", Outcome::current));
    for (std::size_t at = 0; at < regions.size(); ++at) regions[at].name = "R" + std::to_string(at);
    const fpd_log::Run run = sample_run(regions);
    fleet.add_card("card", &run, 1, "");
    EXPECT_EQ(fleet.summary().groups.size(), Fleet::groups_kept);
    EXPECT_EQ(fleet.summary().left_out, 10U);
}

TEST(Durations, AreShort) {
    EXPECT_EQ(duration_text(812'000), "0.8 s");
    EXPECT_EQ(duration_text(3'018'000'000), "50m18s");
    EXPECT_EQ(duration_text(7'500'000'000), "2h05m");
    fpd_log::Region region = sample_region("A", Outcome::upgraded);
    EXPECT_EQ(upgrade_time(region), 12'000'000);
    region.attempts[0].end = region.attempts[0].begin - 1;
    EXPECT_EQ(upgrade_time(region), std::nullopt) << "the clock was set back";
}

}  // namespace
}  // namespace fpd_report
