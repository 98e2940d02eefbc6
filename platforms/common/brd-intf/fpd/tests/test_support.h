/// What the tests of the modules share: a clean card for each test, the diagnostic log, files.
#ifndef BOOTUP_FPD_TESTS_TEST_SUPPORT_H
#define BOOTUP_FPD_TESTS_TEST_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

inline constexpr const char *diagnostic_log_path = "/var/log/fpd.log";
inline constexpr const char *event_log_path = "/var/log/fpd_obfl_log.txt";
inline constexpr const char *marker_path = "/misc/scratch/bootup_fpd_marker.txt";
inline constexpr const char *bootstrap_path = "/dev/kd_bootstrap";
inline constexpr const char *packaged_firmware_path = "/pkg/fpd/ucode";

/// A module as its log lines show it.
struct Module {
    const char *component;
    const char *file;
};

/// One test on a card of its own: nothing in the card's directories, the default bootstrap file, the fake platform's
/// default card, nothing armed, err_msg full of what no earlier call left there. It fails when memory is left that it
/// took.
struct CardTest : testing::Test {
    CardTest();
    ~CardTest() override;

    /// Expects the result, and the text in err_msg.
    void expect_result(int result, int expected, std::string_view text = "", const char *file = __builtin_FILE(),
                       int line = __builtin_LINE()) const;
    /// The same, and nothing in the log.
    void expect_unlogged(int result, int expected, std::string_view text = "", const char *file = __builtin_FILE(),
                         int line = __builtin_LINE()) const;
    /// The same, and that text as an error in the one line of the log.
    void expect_logged(int result, int expected, const Module &module, std::string_view tag, std::string_view text,
                       const char *file = __builtin_FILE(), int line = __builtin_LINE()) const;

    char err_msg[256];
    std::size_t held_before;
};

/// What err_msg holds when a test begins.
inline constexpr std::string_view untouched_text = "left by an earlier call";

/// Keys and values of the card that the fake platform describes: board type 0x3100, version 1.0, slot 2.
std::string default_bootstrap_text();

/// One line of the diagnostic log.
struct LogLine {
    std::string timestamp;
    int pid = 0;
    int tid = 0;
    std::string component;
    std::string level;
    std::string tag;
    std::string file;
    int line = 0;
    std::string message;
};
void PrintTo(const LogLine &line, std::ostream *out);

/// The lines of the diagnostic log so far; a message may hold newlines. A line that is not of the log's form fails the
/// test. No file: no lines.
std::vector<LogLine> log_lines();
/// Those with the tag.
std::vector<LogLine> log_lines(std::string_view tag);
/// Those of the module itself, without the lines of what it calls.
std::vector<LogLine> log_lines(const Module &module);
/// Forgets the lines so far.
void clear_log();

/// Whether a line has that module's component and file, a line number, and this level, tag and whole message. The line
/// is then on record for the message catalogue.
testing::Matcher<const LogLine &> log_line(const Module &module, std::string_view level, std::string_view tag,
                                           std::string_view message);
/// Expects one line with the tag, and that it is so.
void expect_log(const Module &module, std::string_view level, std::string_view tag, std::string_view message,
                const char *file = __builtin_FILE(), int line = __builtin_LINE());
/// Expects one line in the log, and that it is so.
void expect_only_log(const Module &module, std::string_view level, std::string_view tag, std::string_view message,
                     const char *file = __builtin_FILE(), int line = __builtin_LINE());
/// Expects no line with the tag.
void expect_no_log(std::string_view tag, const char *file = __builtin_FILE(), int line = __builtin_LINE());

/// The file's content; empty when it cannot be read.
std::string read_file(const std::filesystem::path &path);
void write_file(const std::filesystem::path &path, std::string_view text);

/// "%p" of an address.
std::string address_text(const void *address);

/// Open file descriptors of the process.
std::vector<std::string> open_descriptors();

#endif
