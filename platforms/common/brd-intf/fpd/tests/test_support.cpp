#include "test_support.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <ostream>
#include <regex>

#include "comparison_record.h"
#include "fake_platform.h"
#include "interpose.h"

namespace fs = std::filesystem;

namespace {

void empty_directory(const fs::path &path) {
    for (const fs::directory_entry &entry : fs::directory_iterator(path)) fs::remove_all(entry.path());
}

void clean_card() {
    for (const char *directory : {"/var/log", "/misc/scratch", "/usr/local/etc", packaged_firmware_path})
        empty_directory(directory);
    fs::remove_all(bootstrap_path);
    write_file(bootstrap_path, default_bootstrap_text());
}

/// Where the next line begins, from `from` on: after a newline that a time stamp and a process id follow.
std::size_t next_line(const std::string &text, std::size_t from) {
    static const std::regex start(R"(\n\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{1,6} [^\]]*\] \[\d+:\d+\] )");
    std::smatch match;
    if (from >= text.size() ||
        !std::regex_search(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), match, start))
        return text.size();
    return from + static_cast<std::size_t>(match.position()) + 1;
}

/// Takes "[...] " from the front of `rest`; false when it does not begin so.
bool take_field(std::string_view &rest, std::string &field) {
    const std::size_t end = rest.find("] ");
    if (rest.empty() || rest.front() != '[' || end == std::string_view::npos) return false;
    field = rest.substr(1, end - 1);
    rest.remove_prefix(end + 2);
    return true;
}

bool take_numbers(std::string_view &rest, int &pid, int &tid) {
    std::string field;
    return take_field(rest, field) && std::sscanf(field.c_str(), "%d:%d", &pid, &tid) == 2;
}

bool take_place(std::string_view &rest, std::string &file, int &line) {
    std::string field;
    if (!take_field(rest, field)) return false;
    const std::size_t colon = field.rfind(':');
    if (colon == std::string::npos) return false;
    file = field.substr(0, colon);
    return std::sscanf(field.c_str() + colon, ":%d", &line) == 1;
}

bool take_message(std::string_view rest, std::string &message) {
    if (!rest.starts_with('[') || !rest.ends_with("]\n")) return false;
    message = rest.substr(1, rest.size() - 3);
    return true;
}

bool parse_line(std::string_view text, LogLine &line) {
    return take_field(text, line.timestamp) && take_numbers(text, line.pid, line.tid) &&
           take_field(text, line.component) && take_field(text, line.level) && take_field(text, line.tag) &&
           take_place(text, line.file, line.line) && take_message(text, line.message);
}

struct ParsedLog {
    std::vector<LogLine> lines;
    std::vector<std::string> others;  // what is not of the log's form
};

ParsedLog parse_log(const std::string &text) {
    ParsedLog log;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = next_line(text, begin);
        const std::string_view one = std::string_view(text).substr(begin, end - begin);
        LogLine line;
        if (parse_line(one, line))
            log.lines.push_back(line);
        else
            log.others.emplace_back(one);
        begin = end;
    }
    return log;
}

void record_line(std::string_view what, const LogLine &line) {
    catalogue::record({what, line.component, line.level, line.tag, line.file, line.message});
}

/// For the message catalogue: a line that it holds for impossible is one that no test may see.
void record_seen_lines() {
    if (!catalogue::recording() || !fs::is_regular_file(diagnostic_log_path)) return;
    for (const LogLine &line : parse_log(read_file(diagnostic_log_path)).lines) record_line("seen", line);
}

/// After all the other matchers of a line: reached when the line is as they say.
MATCHER(GoesOnRecord, "") {
    if (catalogue::recording()) record_line("compared", arg);
    return true;
}

}  // namespace

CardTest::CardTest() {
    interpose::reset();
    fake_platform().reset();
    clean_card();
    std::snprintf(err_msg, sizeof err_msg, "%s", untouched_text.data());
    held_before = interpose::held();
}

CardTest::~CardTest() {
    EXPECT_EQ(interpose::held(), held_before);
    interpose::reset();
    record_seen_lines();
}

void CardTest::expect_result(int result, int expected, std::string_view text, const char *file, int line) const {
    const testing::ScopedTrace trace(file, line, "expect_result");
    EXPECT_EQ(result, expected);
    EXPECT_EQ(std::string_view(err_msg), text);
}

void CardTest::expect_unlogged(int result, int expected, std::string_view text, const char *file, int line) const {
    const testing::ScopedTrace trace(file, line, "expect_unlogged");
    expect_result(result, expected, text);
    EXPECT_THAT(log_lines(), testing::IsEmpty());
}

void CardTest::expect_logged(int result, int expected, const Module &module, std::string_view tag,
                             std::string_view text, const char *file, int line) const {
    const testing::ScopedTrace trace(file, line, "expect_logged");
    expect_result(result, expected, text);
    expect_only_log(module, "ERROR", tag, text);
}

std::string default_bootstrap_text() {
    return "PD_CARD_TYPE=12544\nHW_MAJOR_VERSION=1\nHW_MINOR_VERSION=0\nPD_SLOT_NUM=2\nMY_CARD_PID=CARD-36H\n";
}

void PrintTo(const LogLine &line, std::ostream *out) {
    *out << '[' << line.component << "] [" << line.level << "] [" << line.tag << "] [" << line.file << ':' << line.line
         << "] [" << line.message << ']';
}

std::vector<LogLine> log_lines() {
    const ParsedLog log = parse_log(read_file(diagnostic_log_path));
    for (const std::string &other : log.others) ADD_FAILURE() << "not a line of the log: " << other.substr(0, 300);
    return log.lines;
}

std::vector<LogLine> log_lines(std::string_view tag) {
    std::vector<LogLine> lines = log_lines();
    std::erase_if(lines, [tag](const LogLine &line) { return line.tag != tag; });
    return lines;
}

std::vector<LogLine> log_lines(const Module &module) {
    std::vector<LogLine> lines = log_lines();
    std::erase_if(lines, [&module](const LogLine &line) { return line.file != module.file; });
    return lines;
}

void clear_log() {
    record_seen_lines();
    fs::remove(diagnostic_log_path);
}

testing::Matcher<const LogLine &> log_line(const Module &module, std::string_view level, std::string_view tag,
                                           std::string_view message) {
    using testing::Field;
    return testing::AllOf(Field("component", &LogLine::component, module.component),
                          Field("level", &LogLine::level, level), Field("tag", &LogLine::tag, tag),
                          Field("file", &LogLine::file, module.file), Field("line", &LogLine::line, testing::Gt(0)),
                          Field("message", &LogLine::message, message), GoesOnRecord());
}

void expect_log(const Module &module, std::string_view level, std::string_view tag, std::string_view message,
                const char *file, int line) {
    const testing::ScopedTrace trace(file, line, "expect_log");
    EXPECT_THAT(log_lines(tag), testing::ElementsAre(log_line(module, level, tag, message)));
}

void expect_only_log(const Module &module, std::string_view level, std::string_view tag, std::string_view message,
                     const char *file, int line) {
    const testing::ScopedTrace trace(file, line, "expect_only_log");
    EXPECT_THAT(log_lines(), testing::ElementsAre(log_line(module, level, tag, message)));
}

void expect_no_log(std::string_view tag, const char *file, int line) {
    const testing::ScopedTrace trace(file, line, "expect_no_log");
    EXPECT_THAT(log_lines(tag), testing::IsEmpty());
}

std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const fs::path &path, std::string_view text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    ASSERT_TRUE(file) << path;
}

std::string address_text(const void *address) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", address);
    return text;
}

std::vector<std::string> open_descriptors() {
    std::vector<std::string> open;
    // The directory's own descriptor is gone when its entries are looked at again.
    std::vector<fs::path> entries;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc/self/fd")) entries.push_back(entry.path());
    for (const fs::path &entry : entries)
        if (fs::is_symlink(entry)) open.push_back(entry.filename().string() + " " + fs::read_symlink(entry).string());
    return open;
}
