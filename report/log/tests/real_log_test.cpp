/// Logs that the tool wrote, in pieces, in parts, in files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <filesystem>

#include "files.h"
#include "flash_log.h"
#include "log_file.h"
#include "log_text.h"

namespace fs = std::filesystem;

namespace log_tests {
namespace {

using fpd_log::Outcome;
using ToolRun = fpd_log::Run;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string real_log(const std::string &name) {
    return card_tests::read_file(fs::path(LOG_DATA) / name);
}

std::string gzipped(const std::string &text) {
    std::string out(compressBound(text.size()) + 64, '\0');
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string in = text;
    stream.next_in = reinterpret_cast<Bytef *>(in.data());
    stream.avail_in = static_cast<uInt>(in.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

TEST(RealLog, OfAFlakyPartHasTwoRunsAndNoUnknownLine) {
    const std::vector<ToolRun> runs = runs_of(real_log("flaky.log"));
    ASSERT_THAT(runs, SizeIs(2));
    EXPECT_THAT(outcomes(runs[0]), ElementsAre("IoFpga upgraded", "PhyFirmware upgraded at the second attempt"));
    EXPECT_THAT(outcomes(runs[1]), ElementsAre("IoFpga current", "PhyFirmware current"));
    for (const ToolRun &run : runs) EXPECT_EQ(run.unknown_lines, 0U);
}

TEST(RealLog, OfManufacturingHasTheStagesInOneRunEach) {
    const std::vector<ToolRun> runs = runs_of(real_log("golden-locked.log"));
    ASSERT_THAT(runs, SizeIs(3));
    EXPECT_EQ(runs[0].stage, "1.b");
    EXPECT_EQ(runs[1].stage, "2");
    EXPECT_EQ(runs[2].stage, "1.a");
    EXPECT_THAT(outcomes(runs[0]),
                ElementsAre("IoFpga upgraded", "BiosPrimary not considered", "BiosGolden not considered"));
    EXPECT_THAT(outcomes(runs[1]), ElementsAre("IoFpga upgraded", "BiosPrimary upgraded", "BiosGolden upgraded"));
    for (const ToolRun &run : runs) EXPECT_EQ(run.unknown_lines, 0U);
}

TEST(RealLog, IsTheSameInPiecesOfAnySize) {
    for (const char *const name : {"flaky.log", "golden-locked.log"}) {
        const std::string text = real_log(name);
        const std::string whole = told(runs_of(text));
        for (const std::size_t piece : {1U, 2U, 3U, 7U, 64U, 101U, 1000U, 4096U})
            EXPECT_EQ(told(runs_of(text, piece)), whole) << name << " in pieces of " << piece;
    }
}

TEST(RealLog, CutAnywhereLosesNoLine) {
    const std::string text = real_log("golden-locked.log");
    for (std::size_t size = 1; size < text.size(); size += 97) {
        const std::string_view front(text.data(), size);
        std::uint64_t lines = 0;
        for (const ToolRun &run : runs_of(front)) {
            lines += run.lines;
            EXPECT_LE(run.unknown_lines, 12U);  // of a message of several lines
            for (const fpd_log::Region &region : run.regions) ASSERT_FALSE(region.reason.empty()) << size;
        }
        const auto expected =
            static_cast<std::uint64_t>(std::count(front.begin(), front.end(), '\n')) + (front.back() == '\n' ? 0 : 1);
        EXPECT_TRUE(lines == expected || lines == 0) << lines << " of " << expected << ", cut at " << size;
    }
}

TEST(RealLog, CutAnywhereAtItsFrontIsStillRead) {
    const std::string text = real_log("golden-locked.log");
    for (std::size_t size = 1; size + 400 < text.size(); size += 97) {
        const std::vector<ToolRun> runs = runs_of(std::string_view(text).substr(size));
        ASSERT_THAT(runs, testing::Not(IsEmpty())) << size;
        EXPECT_THAT(outcomes(runs.back()), SizeIs(testing::Le(3U)));
    }
}

TEST(RealLog, CutAnywhereAndFollowedByAnotherHasAllRunsOfThatOther) {
    const std::string text = real_log("flaky.log");
    const std::string other = real_log("golden-locked.log");
    for (std::size_t size = 1; size < text.size(); size += 211) {
        const std::vector<ToolRun> runs = runs_of(text.substr(0, size) + other);
        ASSERT_GE(runs.size(), 3U) << size;
        EXPECT_THAT(outcomes(runs.back()),
                    ElementsAre("IoFpga not considered", "BiosPrimary current", "BiosGolden not considered"));
        EXPECT_THAT(outcomes(runs[runs.size() - 2]),
                    ElementsAre("IoFpga upgraded", "BiosPrimary upgraded", "BiosGolden upgraded"))
            << size;
    }
}

TEST(LogFile, IsReadGzippedOrNotAndInSeveralMembers) {
    const card_tests::TemporaryDirectory directory("log-reader");
    const std::string text = real_log("flaky.log");
    const std::string half = text.substr(0, text.size() / 2);
    card_tests::write_file(directory.path() / "plain", text);
    card_tests::write_file(directory.path() / "packed", gzipped(text));
    card_tests::write_file(directory.path() / "members", gzipped(half) + gzipped(text.substr(half.size())));
    for (const char *const name : {"plain", "packed", "members"}) {
        std::string read;
        std::string error;
        EXPECT_EQ(fpd_log::read_log_file(
                      directory.path() / name, [&read](std::string_view part) { read += part; }, &error),
                  0)
            << error;
        EXPECT_EQ(read, text) << name;
    }
}

TEST(LogFile, TellsWhyItCannotBeReadAndHandsOverWhatCould) {
    const card_tests::TemporaryDirectory directory("log-reader");
    std::string error;
    std::string read;
    const auto take = [&read](std::string_view part) { read += part; };
    const std::string missing = directory.path() / "missing";
    EXPECT_EQ(fpd_log::read_log_file(missing, take, &error), -ENOENT);
    EXPECT_EQ(error, missing + ": No such file or directory");
    EXPECT_EQ(fpd_log::read_log_file(directory.path(), take, &error), -EISDIR);
    const std::string text = real_log("golden-locked.log");
    const std::string packed = gzipped(text);
    card_tests::write_file(directory.path() / "cut", packed.substr(0, packed.size() / 2));
    EXPECT_EQ(fpd_log::read_log_file(directory.path() / "cut", take, &error), -EIO);
    EXPECT_EQ(error, directory.path() / "cut: unexpected end of file");
    EXPECT_FALSE(read.empty());
    EXPECT_TRUE(text.starts_with(read));
}

TEST(LogFile, OfARotatedSetIsSortedOldestFirst) {
    std::vector<std::string> paths = {"b/fpd.log",       "a/fpd.log.1",    "a/fpd.log",
                                      "a/fpd.log.10.gz", "a/fpd.log.2.gz", "a/fpd.log.gz"};
    fpd_log::sort_rotated(&paths);
    EXPECT_THAT(paths, ElementsAre("a/fpd.log.10.gz", "a/fpd.log.2.gz", "a/fpd.log.1", "a/fpd.log.gz", "a/fpd.log",
                                   "b/fpd.log"));
    EXPECT_EQ(fpd_log::log_of("card7/fpd.log.2.gz"), "card7/fpd.log");
    EXPECT_EQ(fpd_log::log_of("card7/fpd.log"), "card7/fpd.log");
    EXPECT_EQ(fpd_log::log_of("192.168.0.7"), "192.168.0.7") << "a card of its own";
}

TEST(LogFile, OfARotatedSetGoesOnWhereTheLastEnded) {
    const std::string text = real_log("golden-locked.log");
    std::vector<ToolRun> runs;
    fpd_log::RunReader reader([&runs](ToolRun &&run) { runs.push_back(std::move(run)); });
    reader.begin_source("a.log");
    const std::size_t middle = text.find('\n', text.size() / 2) + 1;
    reader.push(std::string_view(text).substr(0, middle));
    reader.push(std::string_view(text).substr(middle));
    reader.finish();
    EXPECT_EQ(told(runs), told(runs_of(text)));
}

TEST(FlashLog, HasItsEventsTakenApart) {
    const auto start = fpd_log::parse_flash_line(
        "2026-11-22 06:00:00 UTC [Bootup FPD] FPD 'Io Fpga' Start upgrading to version 1.12.0 Run version 1.11.0 "
        "Programmed version 1.10.0");
    ASSERT_TRUE(start);
    EXPECT_EQ(start->time, first_time);
    EXPECT_EQ(start->kind, fpd_log::FlashEventKind::start);
    EXPECT_EQ(start->region, "Io Fpga");
    EXPECT_EQ(start->version, "1.12.0");
    EXPECT_EQ(start->running, "1.11.0");
    EXPECT_EQ(start->programmed, "1.10.0");
    const auto kind_of = [](const std::string &text) {
        const auto event = fpd_log::parse_flash_line("2026-11-22 06:00:00 UTC [Bootup FPD] " + text);
        return event ? std::string(flash_event_key(event->kind)) + " " + event->region + " " + event->version : "none";
    };
    EXPECT_EQ(kind_of("FPD 'A' Retry upgrading to version 2 Run version 1 Programmed version 1"), "start A 2");
    EXPECT_EQ(kind_of("FPD 'A' Started to upgrade version 2"), "started A 2");
    EXPECT_EQ(kind_of("FPD 'A' Upgraded to version 2"), "upgraded A 2");
    EXPECT_EQ(kind_of("FPD 'A' Failed to upgrade version 2"), "failed A 2");
    EXPECT_EQ(kind_of("FPD 'A' Canceling the upgrade to version 2 since worked not started within stipulated time"),
              "failed A 2");
    EXPECT_EQ(kind_of("FPD 'A' Upgraded to version 1' Upgraded to version 2"), "upgraded A' Upgraded to version 1 2");
    EXPECT_EQ(kind_of("FPD 'A' Failed to upgrade version 1' Upgraded to version 2"),
              "upgraded A' Failed to upgrade version 1 2");
    EXPECT_EQ(kind_of("something else"), "other  ");
    EXPECT_FALSE(fpd_log::parse_flash_line("FPD 'A' Upgraded to version 2"));
    EXPECT_FALSE(fpd_log::parse_flash_line("2026-13-22 06:00:00 UTC [Bootup FPD] FPD 'A' Upgraded to version 2"));
}

}  // namespace
}  // namespace log_tests
