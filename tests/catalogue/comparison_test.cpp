/// The catalogue against the other tests: each text that can be written is compared whole by one of them, with its
/// arguments filled in; none is that cannot.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <regex>

#include "comparison_record.h"
#include "files.h"
#include "message_catalogue.h"
#include "subprocess.h"
#include "text_match.h"

namespace fs = std::filesystem;
using namespace catalogue;
using testing::IsEmpty;

namespace {

// What the tests put on record ----------------------------------------------------------------------------------------

using Entries = std::vector<std::vector<std::string>>;

/// Runs the tests of the program, which all have to pass, and gives their record.
Entries record_of(const std::string &program, const std::string &filter) {
    const card_tests::TemporaryDirectory directory("catalogue-tests");
    const fs::path record = directory.path() / "record";
    setenv(record_variable, record.c_str(), 1);
    const card_tests::Result result = card_tests::run_program({program, "--gtest_brief=1", "--gtest_filter=" + filter},
                                                              directory.path(), std::chrono::seconds(540));
    unsetenv(record_variable);
    // CTest would take this test for a skipped one for the sake of any that it shows.
    EXPECT_EQ(result.status, 0) << std::regex_replace(result.out, std::regex("\\[  SKIPPED \\]"), "skipped:")
                                << result.err;
    return read_record(record);
}

// Rows and texts ------------------------------------------------------------------------------------------------------

/// A row of the catalogue, of either kind.
struct Row {
    std::string place;  // what has to be the same besides the text
    std::string_view format;
    std::string_view unreachable;
    std::set<std::string> seen_by{};      // tests
    std::set<std::string> compared_by{};  // whole
};

/// In one line.
void PrintTo(const Row &row, std::ostream *out) {
    *out << row.place << ' ' << testing::PrintToString(row.format);
}

enum class Arguments { any, filled };

/// The pattern of the texts that the format makes; of its text arguments none is empty when they are to be filled.
std::string pattern_of(std::string_view format, Arguments arguments) {
    constexpr std::string_view special = ".[]{}()\\*+?|^$";
    std::string pattern;
    while (!format.empty()) {
        const std::size_t length = std::max<std::size_t>(conversion_length(format), 1);
        const std::string_view part = format.substr(0, length);
        format.remove_prefix(length);
        if (part == "%s")
            pattern += arguments == Arguments::filled ? ".+" : ".*";
        else if (part == "%-16s")
            pattern += ".{16,}";
        else if (part == "%d" || part == "%ld")
            pattern += "-?[0-9]+";
        else if (part == "%x")
            pattern += "[0-9a-f]+";
        else if (part == "%p")
            pattern += "(0x[0-9a-f]+|\\(nil\\))";
        else
            pattern += (special.find(part[0]) != std::string_view::npos ? "\\" : "") + std::string(part);
    }
    return pattern;
}

bool fits(std::string_view format, const std::string &text, Arguments arguments = Arguments::any) {
    return !card_tests::match(pattern_of(format, arguments), text).empty();
}

/// One text at its place, and the tests that saw it or compared it whole.
struct Text {
    std::string place;
    std::string text;
    auto operator<=>(const Text &) const = default;
};
struct Tests {
    std::set<std::string> seen_by;
    std::set<std::string> compared_by;
};
using Texts = std::map<Text, Tests>;

void credit(Row &row, const std::string &text, const Tests &tests) {
    row.seen_by.insert(tests.seen_by.begin(), tests.seen_by.end());
    if (fits(row.format, text, Arguments::filled))
        row.compared_by.insert(tests.compared_by.begin(), tests.compared_by.end());
}

void expect_held(const std::vector<Row> &rows) {
    std::size_t unreachable = 0;
    for (const Row &row : rows) {
        if (row.unreachable.empty()) {
            EXPECT_THAT(row.compared_by, testing::Not(IsEmpty()))
                << "no test compares it whole: " << testing::PrintToString(row);
            continue;
        }
        ++unreachable;
        std::cout << "unreachable: " << testing::PrintToString(row) << ": " << row.unreachable << '\n';
        EXPECT_THAT(row.seen_by, IsEmpty()) << "not unreachable at all: " << testing::PrintToString(row);
    }
    std::cout << rows.size() << " rows, " << unreachable << " of them unreachable\n";
    testing::Test::RecordProperty("rows", static_cast<int>(rows.size()));
    testing::Test::RecordProperty("unreachable_rows", static_cast<int>(unreachable));
}

/// Writes down which tests hold which row.
void write_index(const std::vector<Row> &rows, const char *name) {
    fs::create_directories(MESSAGE_INDEX);
    std::ofstream index(fs::path(MESSAGE_INDEX) / name);
    for (const Row &row : rows) {
        index << testing::PrintToString(row) << '\n';
        if (!row.unreachable.empty()) index << "    unreachable: " << row.unreachable << '\n';
        for (const std::string &test : row.compared_by) index << "    " << test << '\n';
    }
}

// Log lines -----------------------------------------------------------------------------------------------------------

std::string log_place(std::string_view component, std::string_view level, std::string_view file, std::string_view tag) {
    std::string place;
    for (const std::string_view word : {component, level, file, tag})
        place.append(place.empty() ? "" : " ").append(word);
    return place;
}

std::vector<Row> log_rows() {
    std::vector<Row> rows;
    for (const LogModuleRows &module : log_modules)
        for (const LogRow &row : module.rows)
            rows.push_back({log_place(module.component, level_word(row.level), module.file, row.tag), row.format,
                            row.unreachable});
    return rows;
}

/// Those of the tool; the tests have modules of their own that log.
Texts logged_texts() {
    Texts texts;
    for (const std::vector<std::string> &entry : record_of(UNIT_TESTS, "*")) {
        if (entry.size() != 7) throw std::runtime_error("a broken record");
        const std::string &test = entry[0], &what = entry[1], &file = entry[5];
        if (!fs::exists(fs::path(TOOL_SOURCES) / (file + ".cpp"))) continue;
        Tests &tests = texts[{log_place(entry[2], entry[3], file, entry[4]), entry[6]}];
        tests.seen_by.insert(test);
        if (what == "compared") tests.compared_by.insert(test);
    }
    return texts;
}

TEST(MessageCatalogue, EveryLineIsComparedWholeByATestAndNoUnreachableOneIsSeen) {
    std::vector<Row> rows = log_rows();
    for (const auto &[text, tests] : logged_texts()) {
        bool fits_any = false;
        for (Row &row : rows) {
            if (row.place != text.place || !fits(row.format, text.text)) continue;
            fits_any = true;
            credit(row, text.text, tests);
        }
        EXPECT_TRUE(fits_any) << "fits no row: " << text.place << " \"" << text.text << "\", seen by "
                              << *tests.seen_by.begin();
    }
    expect_held(rows);
    write_index(rows, "log_lines.txt");
}

// Answers -------------------------------------------------------------------------------------------------------------

std::vector<Row> answer_rows() {
    std::vector<Row> rows;
    for (const AnswerRow &row : front_end_rows)
        rows.push_back({std::string(stream_word(row.stream)), row.format, row.unreachable});
    return rows;
}

std::size_t line_count(std::string_view text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

/// The first `count` lines.
std::string first_lines(const std::string &text, std::size_t count) {
    std::size_t end = 0;
    for (std::size_t i = 0; i < count && end != std::string::npos; ++i) end = text.find('\n', end) + 1;
    return text.substr(0, end);
}

/// The row that the text begins with; of several the one that says more of it. Null: there is none.
Row *first_row(std::vector<Row> &rows, const std::string &stream, const std::string &text) {
    Row *found = nullptr;
    for (Row &row : rows)
        if (row.place == stream && fits(row.format, first_lines(text, line_count(row.format))) &&
            (!found || row.format.size() > found->format.size()))
            found = &row;
    return found;
}

/// What the tests of all commands compared, and those of an upgrade that fails.
Texts answers() {
    Texts texts;
    for (const std::vector<std::string> &entry :
         record_of(CARD_TESTS, "CommandLine.*:CardCommands.*:Marker.ThatCannot*:Order.ACall*")) {
        if (entry.size() != 3) throw std::runtime_error("a broken record");
        Tests &tests = texts[{entry[1], entry[2]}];
        tests.seen_by.insert(entry[0]);
        tests.compared_by.insert(entry[0]);
    }
    return texts;
}

TEST(MessageCatalogue, EveryAnswerIsComparedWholeByATest) {
    std::vector<Row> rows = answer_rows();
    for (const auto &[answer, tests] : answers()) {
        for (std::string rest = answer.text; !rest.empty();) {
            Row *const row = first_row(rows, answer.place, rest);
            ASSERT_NE(row, nullptr) << "fits no row: " << answer.place << " \"" << rest << "\", compared by "
                                    << *tests.compared_by.begin();
            const std::string part = first_lines(rest, line_count(row->format));
            credit(*row, part, tests);
            rest.erase(0, part.size());
        }
    }
    expect_held(rows);
    write_index(rows, "answers.txt");
}

}  // namespace
