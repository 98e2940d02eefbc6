/// The program fpd-report on files.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "files.h"
#include "shown_text.h"
#include "subprocess.h"

namespace fs = std::filesystem;
using card_tests::lines_of;
using card_tests::read_file;
using card_tests::Result;
using card_tests::write_file;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

/// What writes a line: a run's process, at its time of the day.
struct Writing {
    int process;
    std::string time;
};

std::string log_line(const Writing &by, const std::string &tag, const std::string &place, const std::string &text) {
    const std::string process = std::to_string(by.process);
    return "[2026-11-22 " + by.time + " UTC] [" + process + ":" + process + "] [FPD] [INFO] [" + tag +
           "] [brd_intf_auto_fpd_upgrade_" + place + "] [" + text + "]\n";
}

/// What a run writes of a region that it discovers.
std::string discovered(const Writing &by, const std::string &name, const std::string &programmed) {
    return log_line(by, "AddFpdQueueTail", "queue:56", "FPD " + name + " added into a queue tail 0x55a3b50732f8") +
           log_line(by, "InitFpdVerion", "init:177",
                    "FPD " + name + " run version " + programmed + " program verson " + programmed +
                        " packaged version 1.12.0 need_upgrade 0 status_msg nothing to do");
}

/// A run that finds the regions current.
std::string current_run(const Writing &by, const std::map<std::string, std::string> &versions) {
    std::string text;
    for (const auto &[name, version] : versions) text += discovered(by, name, version);
    for (const auto &[name, version] : versions) {
        text += log_line(by, "BuildQFpdUpgNotNeeded", "init:148", "FPD " + name + " doesn't require an Upgrade");
    }
    return text;
}

/// A run that refuses its only region.
std::string refused_run(const Writing &by, const std::string &name) {
    return discovered(by, name, "1.11.0") +
           log_line(by, "BuildQFpdCantUpgraded", "init:170", "FPD " + name + " with Upgrade type 3 can't be upgraded ");
}

const std::map<std::string, std::string> two_current = {{"IoFpga", "1.12.0"}, {"FanCpld", "1.12.0"}};
const std::string well_log = current_run({3, "06:02:13.15791"}, two_current);
const std::string bad_log = refused_run({4, "06:05:00.1"}, "IoFpga");

class FpdReport : public testing::Test {
  protected:
    Result report(const std::vector<std::string> &arguments) {
        std::vector<std::string> command = {FPD_REPORT};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return card_tests::run_program(command, directory_.path(), std::chrono::seconds(30));
    }
    std::string path(const std::string &name) const { return (files() / name).string(); }
    std::string file(const std::string &name, const std::string &text) const {
        fs::create_directories((files() / name).parent_path());
        write_file(files() / name, text);
        return path(name);
    }
    /// Where nothing else is written.
    fs::path files() const { return directory_.path() / "files"; }

    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto &entry : fs::directory_iterator(files())) result.push_back(entry.path().filename().string());
        std::sort(result.begin(), result.end());
        return result;
    }

  private:
    void SetUp() override { fs::create_directory(files()); }
    card_tests::TemporaryDirectory directory_{"fpd-report-test"};
};

TEST_F(FpdReport, ExitStatusTellsWhetherAllIsWell) {
    file("well.log", well_log);
    file("well.log.1", well_log);
    file("bad.log", bad_log);
    file("empty.log", "");
    file("other.log", "Nov 22 06:02:13 host kernel: nothing of ours\n");
    fs::create_directory(path("no-cards"));
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    } cases[] = {
        {{path("well.log")}, 0, ""},
        {{path("bad.log")}, 1, ""},
        {{path("well.log"), path("bad.log")}, 1, ""},
        {{"--json", path("bad.log")}, 1, ""},
        {{"--json", path("well.log")}, 0, ""},
        {{path("empty.log")}, 2, "no run of the tool was found"},
        {{path("other.log")}, 2, "no run of the tool was found"},
        {{path("no-cards")}, 2, "no run of the tool was found"},
        {{path("missing.log")}, 2, "missing.log"},
        {{path("well.log"), path("missing.log")}, 2, "missing.log"},
        {{}, 2, "LOG"},
        {{"--no-such-option", path("well.log")}, 2, "--no-such-option"},
        {{"--json", "--prometheus", path("well.log")}, 2, "--prometheus"},
        {{"--lines", "many", path("well.log")}, 2, "many"},
        {{"-o", path("report.doc"), path("well.log")}, 2, "does not tell what to write"},
        {{"--fleet", "--json", path("well.log")}, 2, "--fleet"},
        {{"--flash", path("x"), path("well.log"), path("bad.log")}, 2, "--flash"},
        {{"--flash", path("missing.txt"), path("well.log")}, 2, "missing.txt"},
        {{"--flash", path("empty.log"), path("well.log"), path("well.log.1")}, 0, ""},
        {{"--flash", path("empty.log"), files().string()}, 2, "--flash"},
        {{"-o", path("no-directory/report.txt"), path("well.log")}, 2, "no-directory/report.txt: No such file"},
        {{"-o", "/dev/full", "--json", path("well.log")}, 2, "/dev/full: No space left"},
    };
    for (const auto &[arguments, status, error] : cases) {
        const Result result = report(arguments);
        EXPECT_EQ(result.status, status) << testing::PrintToString(arguments) << result.err;
        EXPECT_THAT(result.err, error.empty() ? testing::Matcher<std::string>(IsEmpty()) : HasSubstr(error));
    }
}

TEST_F(FpdReport, TellsVersionAndHelp) {
    EXPECT_EQ(report({"--version"}).out, "fpd-report " FPD_REPORT_VERSION "\n");
    const Result help = report({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string &line : lines_of(help.out)) EXPECT_LE(line.size(), 80U) << line;
    EXPECT_THAT(help.out, AllOf(HasSubstr("Exit status"), HasSubstr("--json-lines")));
}

TEST_F(FpdReport, TellsEachRunInTheOrderOfTheLog) {
    const Result result = report({file("fpd.log", well_log + bad_log)});
    EXPECT_EQ(result.out,
              "run 1, 2026-11-22 06:02:13, 2 regions: 2 current\n"
              "  REGION   RUNNING  PROGRAMMED  PACKAGED  OUTCOME\n"
              "  FanCpld  1.12.0   1.12.0      1.12.0    current\n"
              "  IoFpga   1.12.0   1.12.0      1.12.0    current\n"
              "\n"
              "run 2, 2026-11-22 06:05:00, 1 region: 1 refused\n"
              "  REGION  RUNNING  PROGRAMMED  PACKAGED  OUTCOME\n"
              "  IoFpga  1.11.0   1.11.0      1.12.0    refused\n"
              "    the firmware's upgrade type 3 cannot be upgraded\n"
              "    06:05:00.000001 INFO InitFpdVerion: FPD IoFpga run version 1.11.0 program verson 1.11.0 packaged "
              "version 1.12.0 need_upgrade 0 status_msg nothing to do\n"
              "    06:05:00.000001 INFO BuildQFpdCantUpgraded: FPD IoFpga with Upgrade type 3 can't be upgraded \n");
}

TEST_F(FpdReport, LastTellsTheLastRunOfEachLogAndItsStatus) {
    const std::string one = file("one.log", bad_log + well_log), other = file("other.log", well_log);
    const Result result = report({"--last", "--brief", one, other});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_EQ(result.out, one + ":\nrun 2, 2026-11-22 06:02:13, 2 regions: 2 current\n" + other +
                              ":\nrun 1, 2026-11-22 06:02:13, 2 regions: 2 current\n");
}

TEST_F(FpdReport, ReadsStandardInput) {
    const Result result = card_tests::run_program(
        {"/bin/sh", "-c", "cat \"$1\" | \"$0\" --json-lines -", FPD_REPORT, file("fpd.log", well_log)}, files(),
        std::chrono::seconds(30));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(nlohmann::json::parse(result.out)["source"], "standard input");
}

TEST_F(FpdReport, ReadsStandardInputFromWhereItStands) {
    const Result result = card_tests::run_program(
        {"/bin/sh", "-c", "exec < \"$1\"; read -r line; \"$0\" --json-lines -", FPD_REPORT, file("fpd.log", well_log)},
        files(), std::chrono::seconds(30));
    EXPECT_EQ(nlohmann::json::parse(result.out)["lines"], lines_of(well_log).size() - 1);
}

TEST_F(FpdReport, ReadsAFileOnceHoweverOftenItIsNamed) {
    const std::string log = file("cards/fpd.log", well_log), cards = path("cards");
    EXPECT_EQ(lines_of(report({"--json-lines", log, cards + "/", log, cards}).out).size(), 1U);
    fs::create_directory(path("cards/empty"));
    EXPECT_THAT(report({cards, cards}).out, StartsWith("2 cards, 1 run;"));
}

TEST_F(FpdReport, FilesOfARotatedSetAreOneLogInTheOrderOfTheirLines) {
    file("fpd.log.1", bad_log);
    file("fpd.log", well_log);
    const Result result = report({"--json", path("fpd.log"), path("fpd.log.1")});
    const auto runs = nlohmann::json::parse(result.out)["runs"];
    ASSERT_EQ(runs.size(), 2U) << result.out;
    EXPECT_EQ(runs[0]["regions"][0]["outcome"], "refused");
    EXPECT_EQ(runs[1]["number"], 2);
    EXPECT_EQ(runs[1]["source"], path("fpd.log"));
}

TEST_F(FpdReport, JsonLinesAreTheRunsOfTheDocument) {
    const std::string log = file("fpd.log", well_log + bad_log);
    const auto document = nlohmann::json::parse(report({"--json", log}).out);
    const std::vector<std::string> lines = lines_of(report({"--json-lines", log}).out);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(document["schema"], "fpd-report");
    EXPECT_EQ(document["version"], 1);
    for (std::size_t at = 0; at < 2; ++at) EXPECT_EQ(nlohmann::json::parse(lines[at]), document["runs"][at]);
}

TEST_F(FpdReport, AddsTheFlashEventsOfTheRunsTime) {
    const std::string flash = file("flash.txt",
                                   "2026-11-22 06:02:12 UTC [Bootup FPD] FPD 'IoFpga' Started to upgrade version 0\n"
                                   "2026-11-22 06:02:13 UTC [Bootup FPD] FPD 'IoFpga' Upgraded to version 1.12.0\n"
                                   "something else\n"
                                   "2026-11-22 06:02:14 UTC [Bootup FPD] FPD 'IoFpga' Upgraded to version 9\n");
    const auto run = nlohmann::json::parse(report({"--json-lines", "--flash", flash, file("fpd.log", well_log)}).out);
    ASSERT_EQ(run["flash_events"].size(), 1U) << run["flash_events"];
    EXPECT_EQ(run["flash_events"][0]["kind"], "upgraded");
    EXPECT_EQ(run["flash_events"][0]["version"], "1.12.0");
}

TEST_F(FpdReport, PrometheusHasTheLastRunOfEachLog) {
    const std::string log = file("fpd.log", bad_log + well_log);
    const Result result = report({"--prometheus", log});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_THAT(lines_of(result.out),
                AllOf(Contains("fpd_run_well{log=\"" + log + "\"} 1"),
                      Contains("fpd_run_number{log=\"" + log + "\"} 2"), Contains("# TYPE fpd_region_outcome gauge")));
}

TEST_F(FpdReport, AnOutputFileAppearsWhenItIsWholeAndItsNameTellsTheForm) {
    const std::string log = file("fpd.log", bad_log);
    write_file(path("report.json"), "of yesterday");
    const Result result = report({"-o", path("report.json"), log});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(fs::status(path("report.json")).permissions(), fs::status(log).permissions()) << "as the umask has it";
    EXPECT_EQ(nlohmann::json::parse(read_file(path("report.json")))["runs"].size(), 1U);
    EXPECT_EQ(report({"--prometheus", "-o", path("metrics"), log}).status, 1);
    EXPECT_THAT(read_file(path("metrics")), StartsWith("# HELP fpd_"));
    EXPECT_THAT(names(), ElementsAre("fpd.log", "metrics", "report.json"));
}

TEST_F(FpdReport, AnOutputFileThatCannotBeWrittenIsAsItWas) {
    const std::string log = file("fpd.log", well_log);
    fs::create_directory(path("report.json"));
    const Result result = report({"-o", path("report.json"), log});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("report.json: Is a directory"));
    EXPECT_THAT(names(), ElementsAre("fpd.log", "report.json"));
}

TEST_F(FpdReport, ADirectoryIsAFleetWithTheOddCardsFirst) {
    for (int card = 0; card < 8; ++card) file("fleet/card" + std::to_string(card) + "/log/fpd.log", well_log);
    file("fleet/card8/fpd.log.1", bad_log);
    file("fleet/card8/fpd.log", current_run({5, "06:07:00.5"}, {{"IoFpga", "1.11.0"}, {"FanCpld", "1.12.0"}}));
    file("fleet/card9.log", bad_log);
    file("fleet/card3/calls.log", "not of the tool\n");
    file("fleet/cardA/readme", bad_log);
    file("fleet/.hidden", bad_log);
    file("fleet/.git/fpd.log", bad_log);
    fs::create_directory_symlink(path("fleet"), path("fleet/loop"));
    const Result result = report({path("fleet")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "11 cards, 11 runs; after the last run of each 9 are well, 2 are not\n"
              "\n"
              "CARDS  REGION     OUTCOME    VERSION  PACKAGED\n"
              "    1  (the run)  no run\n"
              "       cardA: no file is named *.log\n"
              "    1  IoFpga     refused    1.11.0   1.12.0\n"
              "       card9.log: the firmware's upgrade type 3 cannot be upgraded\n"
              "    1  FanCpld    not there\n"
              "       card9.log: unusual: 9 cards like it have it\n"
              "    1  IoFpga     current    1.11.0   1.12.0\n"
              "       card8: unusual: 8 cards have 1.12.0\n"
              "\n"
              "    9  FanCpld    current    1.12.0   1.12.0\n"
              "    8  IoFpga     current    1.12.0   1.12.0\n");
}

TEST_F(FpdReport, AFleetHasACardForEachFileWhateverItsNumber) {
    file("fleet/10.0.0.1", bad_log);
    file("fleet/10.0.0.2", well_log);
    EXPECT_THAT(report({path("fleet")}).out, StartsWith("2 cards, 2 runs; after the last run of each 1 is well, 1"));
}

TEST_F(FpdReport, TheLastRunThatLookedAtItsFpdsTellsOfACard) {
    const std::string earlier = current_run({3, "06:01:00.1"}, two_current),
                      later = refused_run({4, "06:09:00.1"}, "X");
    const std::string off =
        log_line({5, "06:10:00.1"}, "AutoFpdUpgCfgNotEna", "init:9", "Auto FPD Upgrade is not enabled on the system");
    const struct {
        std::vector<std::string> logs;  // of the card, in the order of their names
        int status;
    } cases[] = {
        {{later, earlier}, 1}, {{earlier, later}, 1}, {{later + earlier}, 0},
        {{later + off}, 1},    {{later, off}, 1},     {{off}, 0},
    };
    for (const auto &[logs, status] : cases) {
        fs::remove_all(path("fleet"));
        for (const std::string &log : logs) file("fleet/card/" + std::to_string(&log - &logs[0]) + ".log", log);
        EXPECT_EQ(report({path("fleet")}).status, status) << testing::PrintToString(logs);
        if (logs.size() > 1) continue;
        EXPECT_EQ(report({"--last", path("fleet/card/0.log")}).status, status) << testing::PrintToString(logs);
    }
}

TEST_F(FpdReport, AReportInTheDirectoryThatItIsAboutIsNoCard) {
    file("fleet/a.log", well_log);
    for (int time = 0; time < 2; ++time) EXPECT_EQ(report({"-o", path("fleet/report.txt"), path("fleet")}).status, 0);
    EXPECT_THAT(read_file(path("fleet/report.txt")), StartsWith("1 card, 1 run;"));
}

TEST_F(FpdReport, FleetTakesLogsThatAreNamedThemselves) {
    const Result result = report({"--fleet", file("a.log", well_log), file("b.log", well_log)});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("2 cards, 2 runs; after the last run of each all is well\n"));
}

TEST_F(FpdReport, AFleetAsJsonHasTheRunsOfAllCards) {
    file("fleet/a/fpd.log", well_log);
    file("fleet/b/fpd.log", bad_log);
    const auto document = nlohmann::json::parse(report({"--json", path("fleet")}).out);
    ASSERT_EQ(document["runs"].size(), 2U);
    EXPECT_EQ(document["runs"][1]["source"], path("fleet/b/fpd.log"));
}

TEST_F(FpdReport, NothingOfALogIsObeyedByWhateverReadsTheReport) {
    const std::string name = "Io\x1b[2J\"\\</script>\xe2\x80\xae\xff";
    const std::string log = file("fpd.log", refused_run({3, "06:02:13.1"}, name));
    for (const char *form : {"--last", "--fleet", "--prometheus"}) {
        const std::string text = report({form, log}).out;
        EXPECT_THAT(text, HasSubstr("Io\\")) << form;
        EXPECT_EQ(text.find_first_of("\x1b\xff\r"), std::string::npos) << form;
        EXPECT_EQ(text.find("\xe2\x80\xae"), std::string::npos) << form;
    }
    const auto run = nlohmann::json::parse(report({"--json-lines", log}).out);
    EXPECT_EQ(run["regions"][0]["name"], fpd_report::valid_utf8(name));
}

/// What the program writes on a terminal of 80 columns, both outputs.
std::string on_terminal(const std::vector<std::string> &arguments, const char *no_color) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 80;
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    if (child == 0) {
        setenv("TERM", "xterm", 1);
        setenv("NO_COLOR", no_color, 1);
        std::vector<char *> words = {const_cast<char *>(FPD_REPORT)};
        for (const std::string &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
        words.push_back(nullptr);
        execv(FPD_REPORT, words.data());
        _exit(127);
    }
    std::string text;
    char piece[4096];
    for (ssize_t count = 0; (count = read(terminal, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(count));
    }
    close(terminal);
    waitpid(child, nullptr, 0);
    return text;
}

TEST_F(FpdReport, FitsATerminalWhichHasColoursUnlessNoColorSaysNo) {
    const std::string log = file("fpd.log", refused_run({3, "06:02:13.1"}, "RegionOfAVeryLongNameThatIsThere"));
    EXPECT_THAT(on_terminal({log}, ""), HasSubstr("\x1b[33mrefused\x1b[0m"));
    const std::string plain = on_terminal({log}, "1");
    EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
    for (const std::string &line : lines_of(plain)) EXPECT_LE(fpd_report::columns(line), 81U) << line;  // "\r" counts
}

TEST_F(FpdReport, ShowsItsProgressOnATerminalOnlyAndClearsIt) {
    file("fleet/a.log", well_log);
    const std::string text = on_terminal({path("fleet")}, "1");
    EXPECT_THAT(text, StartsWith("\r\x1b[K1 card, 1 run;"));
    EXPECT_EQ(report({path("fleet")}).err, "");
}

}  // namespace
