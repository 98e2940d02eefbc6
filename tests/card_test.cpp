#include "card_test.h"

#include <cstdio>
#include <iostream>
#include <stdexcept>

#include "comparison_record.h"
#include "text_match.h"

namespace fs = std::filesystem;

namespace card_tests {
namespace {

constexpr std::size_t shown_lines = 60;

std::vector<std::string> last_lines(const fs::path &file) {
    std::vector<std::string> lines = lines_of(read_file(file));
    if (lines.size() > shown_lines) lines.erase(lines.begin(), lines.end() - shown_lines);
    return lines;
}

std::vector<std::string> event_lines(const fs::path &file) {
    const std::string pattern =
        R"([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [A-Za-z0-9+-]+ \[Bootup FPD\] (.*))";
    std::vector<std::string> events;
    for (const std::string &line : lines_of(read_file(file))) {
        const std::vector<std::string> parts = match(pattern, line);
        if (parts.empty()) throw std::runtime_error("not an event line: " + line);
        events.push_back(parts[1]);
    }
    return events;
}

/// The card's record has every argument in single quotes, and one within it as '\''.
std::string unquoted(std::string text) {
    const std::string quote = R"('\'')";
    for (std::size_t at = text.find(quote); at != std::string::npos; at = text.find(quote, at + 1)) {
        text.replace(at, quote.size(), "'");
    }
    return text;
}

}  // namespace

void CardTest::TearDown() {
    for (const Result &result : results_) {
        EXPECT_FALSE(result.timed_out) << result.out << result.err;
        EXPECT_NE(result.status, sanitizer_status) << result.err;
        EXPECT_THAT(result.err, testing::Not(testing::HasSubstr("Sanitizer"))) << result.err;
        EXPECT_THAT(result.err, testing::Not(testing::HasSubstr("runtime error:"))) << result.err;
    }
    EXPECT_EQ(read_file(state_ / "abort.log"), "") << "the card's libraries ended the tool";
    if (HasFailure()) {
        for (const Result &result : results_) {
            std::cout << "---- status " << result.status << "\n" << result.out << result.err;
        }
        std::cout << "---- the end of the diagnostic log\n";
        for (const std::string &line : last_lines(state_ / "log/fpd.log")) std::cout << line << "\n";
        std::cout << "---- the last scripts\n";
        for (const std::string &line : last_lines(state_ / "scripts.log")) std::cout << line << "\n";
    }
}

void CardTest::describe_text(const std::string &text) {
    write_file(card_, text);
}

void CardTest::take_card(const std::string &name) {
    fs::copy_file(fs::path(CARDSIM_CARDS) / name / "card.toml", card_);
}

Result CardTest::run(const std::vector<std::string> &arguments) {
    std::vector<std::string> command = {CARDSIM_COMMAND};
    command.insert(command.end(), arguments.begin(), arguments.end());
    results_.push_back(run_program(command, root_, usual_limit));
    return results_.back();
}

Result CardTest::tool(const std::vector<std::string> &arguments, unsigned speed) {
    std::vector<std::string> command = {"exec",    card_.string(),  "--speed", std::to_string(speed),
                                        "--state", state_.string(), "--",      "bootup_fpd"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command);
}

Result CardTest::shell(const std::string &command, unsigned speed) {
    return run({"exec", card_.string(), "--speed", std::to_string(speed), "--state", state_.string(), "--", "sh", "-c",
                command});
}

Result CardTest::boot(unsigned speed, const std::vector<std::string> &more) {
    std::vector<std::string> command = {"boot",    card_.string(),  "--speed",   std::to_string(speed),
                                        "--state", state_.string(), "--no-table"};
    command.insert(command.end(), more.begin(), more.end());
    return run(command);
}

std::vector<LogRecord> CardTest::log() const {
    return read_log(state_ / "log/fpd.log");
}

std::vector<std::string> CardTest::errors() const {
    return texts(with_level(log(), "ERROR"));
}

std::vector<CallRecord> CardTest::calls() const {
    return read_calls(state_ / "calls.log");
}

std::vector<std::string> CardTest::scripts() const {
    return lines_of(read_file(state_ / "scripts.log"));
}

std::vector<std::string> CardTest::events() const {
    const std::string call = R"(/usr/local/etc/send_fpd_doorbell_event\.sh '-e' '([a-z_]+)' '-m' '(.*)')";
    std::vector<std::string> events;
    for (const std::string &line : scripts()) {
        const std::vector<std::string> parts = match(call, line);
        if (!parts.empty()) events.push_back(parts[1] + ": " + unquoted(parts[2]));
    }
    return events;
}

std::vector<std::string> CardTest::events_but_progress() const {
    std::vector<std::string> all = events();
    std::erase(all, "progress: Auto FPD Upgrade Progressing");
    return all;
}

CardState CardTest::state() const {
    return read_state(state_ / "state.toml");
}

fs::path CardTest::flash_file(int number) const {
    return state_ / "flash" / ("fpd_local_log_" + std::to_string(number) + ".txt");
}

std::vector<std::string> CardTest::flash_log(int number) const {
    return event_lines(flash_file(number));
}

std::vector<std::string> CardTest::temporary_flash_log() const {
    return event_lines(state_ / "log/fpd_obfl_log.txt");
}

fs::path CardTest::marker_file() const {
    return state_ / "scratch/bootup_fpd_marker.txt";
}

std::vector<std::string> CardTest::plan() const {
    const std::string planned = "FPD (.*) would be upgrade in the sequence queue # ([0-9]+)";
    std::vector<std::string> plan;
    for (const LogRecord &record : log()) {
        const std::vector<std::string> parts = match(planned, record.message);
        if (record.level == "INFO" && !parts.empty()) plan.push_back(parts[1] + " " + parts[2]);
    }
    return plan;
}

std::string marker_line(const std::string &name, const std::string &version) {
    char line[256];
    std::snprintf(line, sizeof line, "FPD: %-16s | Version: %-12s\n", name.c_str(), version.c_str());
    return line;
}

void expect_answer(const Result &result, int status, const std::string &out, const std::string &err, const char *file,
                   int line) {
    const testing::ScopedTrace trace(file, line, "expect_answer");
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, out);
    EXPECT_EQ(result.err, err);
    if (!catalogue::recording()) return;
    if (result.out == out) catalogue::record({"stdout", out});
    if (result.err == err) catalogue::record({"stderr", err});
}

std::string usage_text(const std::string &program) {
    std::string text = read_file(USAGE_TEXT);
    const std::size_t place = text.find("%s");
    if (place == std::string::npos) throw std::runtime_error("no usage text");
    return text.replace(place, 2, program);
}

}  // namespace card_tests
