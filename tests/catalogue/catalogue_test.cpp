/// The catalogue against the tool's sources.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "files.h"
#include "message_catalogue.h"
#include "source_reader.h"

namespace fs = std::filesystem;
using namespace catalogue;
using testing::IsEmpty;

namespace {

constexpr std::string_view front_end = "bootup_fpd";
constexpr std::string_view log_facility = "fpd_log";

/// The tool's sources but the log facility, which writes what others tell it.
std::vector<SourceFile> tool_sources() {
    std::vector<SourceFile> sources;
    for (const fs::directory_entry &entry : fs::directory_iterator(TOOL_SOURCES))
        if (entry.path().stem() != log_facility)
            sources.push_back({entry.path().stem(), card_tests::read_file(entry.path())});
    return sources;
}

template <class Element>
std::vector<Element> without(const std::set<Element> &all, const std::set<Element> &others) {
    std::vector<Element> rest;
    std::set_difference(all.begin(), all.end(), others.begin(), others.end(), std::back_inserter(rest));
    return rest;
}

}  // namespace

namespace catalogue {

void PrintTo(const LoggedLine &line, std::ostream *out) {
    *out << line.component << ' ' << line.level << ' ' << line.file << ' ' << line.tag << " \"" << line.format << '"';
}

void PrintTo(const PrintedText &text, std::ostream *out) {
    *out << text.stream << " \"" << text.format << '"';
}

}  // namespace catalogue

namespace {

TEST(MessageCatalogue, HasEveryLineThatTheSourcesLogAndNoOther) {
    std::set<LoggedLine> rows;
    for (const LogModuleRows &module : log_modules)
        for (const LogRow &row : module.rows)
            rows.insert({std::string(module.component), std::string(module.file), std::string(level_word(row.level)),
                         std::string(row.tag), std::string(row.format)});
    const LoggedLines logged = logged_lines(tool_sources());
    EXPECT_THAT(logged.not_followed, IsEmpty());
    EXPECT_THAT(without(logged.lines, rows), IsEmpty()) << "logged, but not in the catalogue";
    EXPECT_THAT(without(rows, logged.lines), IsEmpty()) << "in the catalogue, but not logged";
}

TEST(MessageCatalogue, HasEveryTextThatTheFrontEndPrintsAndNoOther) {
    std::set<PrintedText> rows;
    for (const AnswerRow &row : front_end_rows)
        rows.insert({std::string(stream_word(row.stream)), std::string(row.format)});
    std::set<PrintedText> printed;
    for (const SourceFile &source : tool_sources()) {
        const PrintedTexts found = printed_texts(source);
        EXPECT_THAT(found.not_followed, IsEmpty());
        if (source.name == front_end)
            printed = found.texts;
        else
            EXPECT_THAT(found.texts, IsEmpty()) << source.name << " prints";
    }
    EXPECT_THAT(without(printed, rows), IsEmpty()) << "printed, but not in the catalogue";
    EXPECT_THAT(without(rows, printed), IsEmpty()) << "in the catalogue, but not printed";
}

}  // namespace
