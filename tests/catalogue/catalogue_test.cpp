/// The catalogue against the tool's sources.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <compare>
#include <filesystem>
#include <set>

#include "comparison_record.h"
#include "files.h"
#include "message_catalogue.h"
#include "subprocess.h"

namespace fs = std::filesystem;
using namespace catalogue;
using testing::IsEmpty;

namespace {

constexpr std::string_view front_end = "bootup_fpd";

/// A log line, as a row of the catalogue and a source have it.
struct LoggedLine {
    std::string component;
    std::string file;
    std::string level;
    std::string tag;
    std::string format;
    auto operator<=>(const LoggedLine &) const = default;
};

/// A text that a source prints.
struct PrintedText {
    std::string file;
    std::string stream;
    std::string format;
    auto operator<=>(const PrintedText &) const = default;
};

/// What read_sources.py finds in the tool's sources.
struct Found {
    std::set<LoggedLine> logged;
    std::set<PrintedText> printed;
    std::vector<std::string> not_followed;  // "file:line: why"
};

Found found_in_sources() {
    const card_tests::TemporaryDirectory directory("catalogue-tests");
    std::vector<std::string> command = {READ_SOURCES, COMPILE_COMMANDS};
    for (const fs::directory_entry &entry : fs::directory_iterator(TOOL_SOURCES)) command.push_back(entry.path());
    const card_tests::Result result = card_tests::run_program(command, directory.path(), std::chrono::seconds(100));
    EXPECT_EQ(result.status, 0) << result.err;
    const fs::path record = directory.path() / "record";
    card_tests::write_file(record, result.out);
    Found found;
    for (const std::vector<std::string> &entry : read_record(record)) {
        if (entry[0] == "logged")
            found.logged.insert({entry.at(1), entry.at(2), entry.at(3), entry.at(4), entry.at(5)});
        if (entry[0] == "printed") found.printed.insert({entry.at(1), entry.at(2), entry.at(3)});
        if (entry[0] == "not-followed") found.not_followed.push_back(entry.at(1) + ": " + entry.at(2));
    }
    return found;
}

template <class Element>
std::vector<Element> without(const std::set<Element> &all, const std::set<Element> &others) {
    std::vector<Element> rest;
    std::set_difference(all.begin(), all.end(), others.begin(), others.end(), std::back_inserter(rest));
    return rest;
}

void PrintTo(const LoggedLine &line, std::ostream *out) {
    *out << line.component << ' ' << line.level << ' ' << line.file << ' ' << line.tag << " \"" << line.format << '"';
}

void PrintTo(const PrintedText &text, std::ostream *out) {
    *out << text.file << ' ' << text.stream << " \"" << text.format << '"';
}

TEST(MessageCatalogue, HasEveryLineThatTheSourcesLogAndEveryTextThatTheyPrintAndNoOther) {
    std::set<LoggedLine> lines;
    for (const LogModuleRows &module : log_modules)
        for (const LogRow &row : module.rows)
            lines.insert({std::string(module.component), std::string(module.file), std::string(level_word(row.level)),
                          std::string(row.tag), std::string(row.format)});
    std::set<PrintedText> texts;
    for (const AnswerRow &row : front_end_rows)
        texts.insert({std::string(front_end), std::string(stream_word(row.stream)), std::string(row.format)});
    const Found found = found_in_sources();
    EXPECT_THAT(found.not_followed, IsEmpty());
    EXPECT_THAT(without(found.logged, lines), IsEmpty()) << "logged, but not in the catalogue";
    EXPECT_THAT(without(lines, found.logged), IsEmpty()) << "in the catalogue, but not logged";
    EXPECT_THAT(without(found.printed, texts), IsEmpty())
        << "printed, but not in the catalogue, or not by the front end";
    EXPECT_THAT(without(texts, found.printed), IsEmpty()) << "in the catalogue, but not printed";
}

}  // namespace
