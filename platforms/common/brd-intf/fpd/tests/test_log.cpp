#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "fpd_log.h"
#include "interpose.h"
#include "run_support.h"
#include "text_builder.h"

namespace {

namespace fs = std::filesystem;
using interpose::Call;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;

constexpr LogModule here{"FPD", __FILE__};
constexpr Module module_here{"FPD", "test_log"};

// 2024-03-05 14:02:11 UTC
constexpr time_t some_second = 1'709'647'331;

void use_zone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
}

/// "[time stamp] [pid:tid]" as a time of 48,213 µs gives it to this process's main thread.
std::string line_front() {
    return "[2024-03-05 14:02:11.48213 UTC] [" + std::to_string(getpid()) + ":" + std::to_string(gettid()) + "]";
}

struct DiagnosticLog : CardTest {
    DiagnosticLog() { use_zone("UTC0"); }
};

pthread_t start_thread(void *(*entry)(void *)) {
    pthread_t thread{};
    EXPECT_EQ(pthread_create(&thread, nullptr, entry, nullptr), 0);
    return thread;
}

void expect_cancelled(pthread_t thread) {
    void *result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST_F(DiagnosticLog, AppendsTheFieldsInTheirOrderWithoutThoseThatAreNull) {
    const struct {
        const char *component, *level, *tag, *file;
        int line;
        const char *message, *expected;
    } cases[] = {
        {"LED", "DEBUG", "Tag", "some_module", 95, "text", " [LED] [DEBUG] [Tag] [some_module:95] [text]\n"},
        {nullptr, nullptr, nullptr, nullptr, 0, "hello", " [hello]\n"},
        {nullptr, "INFO", "Tag", "file", 7, "m", " [INFO] [Tag] [file:7] [m]\n"},
        {"FPD", nullptr, "Tag", "file", 7, "m", " [FPD] [Tag] [file:7] [m]\n"},
        {"FPD", "INFO", nullptr, "file", 7, "m", " [FPD] [INFO] [file:7] [m]\n"},
        {"FPD", "INFO", "Tag", nullptr, 1234, "m", " [FPD] [INFO] [Tag] [m]\n"},
        {nullptr, nullptr, nullptr, "file", 0, "m", " [file:0] [m]\n"},
        {nullptr, nullptr, nullptr, "file", INT_MIN, "m", " [file:-2147483648] [m]\n"},
        {"FPD", "INFO", "", "file", 1, "", " [FPD] [INFO] [] [file:1] []\n"},
        {"FPD", "INFO", "Tag", nullptr, 0, "one\ntwo\n", " [FPD] [INFO] [Tag] [one\ntwo\n]\n"},
    };
    std::string expected = "what an earlier run left\n";
    write_file(diagnostic_log_path, expected);
    interpose::hold_wall_clock({some_second, 48'213});
    for (const auto &each : cases) {
        fpd_log(each.component, each.level, each.tag, each.file, each.line, "%s", each.message);
        expected += line_front() + each.expected;
        EXPECT_EQ(read_file(diagnostic_log_path), expected);
    }
}

TEST_F(DiagnosticLog, TellsTheTimeOfEachLineAlsoWhereTheClockStandsAtItsBeginning) {
    const pthread_t thread = start_thread([](void *) -> void * {
        for (const time_t second : {0, 1, 1, 0}) {
            interpose::hold_wall_clock({second, 5});
            log_info({here, "A"}, "m");
        }
        return nullptr;
    });
    pthread_join(thread, nullptr);
    std::istringstream lines(read_file(diagnostic_log_path));
    std::string line;
    for (const int second : {0, 1, 1, 0}) {
        std::getline(lines, line);
        EXPECT_THAT(line, testing::StartsWith("[1970-01-01 00:00:0" + std::to_string(second) + ".5 UTC] "));
    }
}

TEST_F(DiagnosticLog, HasNoThresholdAndTakesLevelsAsTheyAre) {
    log_debug({here, "A"}, "detail %d", 1);
    log_info({here, "B"}, "milestone %s", "reached");
    log_error({here, "C"}, "it failed: %s, rc %d", "no card", -13);
    fpd_log("FPD", "whatever", "D", "test_log", 1, "odd");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(module_here, "DEBUG", "A", "detail 1"),
                                         log_line(module_here, "INFO", "B", "milestone reached"),
                                         log_line(module_here, "ERROR", "C", "it failed: no card, rc -13"),
                                         log_line(module_here, "whatever", "D", "odd")));
}

TEST_F(DiagnosticLog, NamesTheLineOfTheCall) {
    log_info({here, "A"}, "m");
    const int line = __LINE__ - 1;
    EXPECT_THAT(log_lines(), ElementsAre(Field(&LogLine::line, line)));
}

TEST_F(DiagnosticLog, LosesTheLineThatCannotBeWrittenAndNeitherErrnoNorADescriptor) {
    void (*const obstacles[])() = {
        [] { interpose::fail(Call::open, EROFS); },
        [] { interpose::fail(Call::write, EIO); },
        [] { fs::create_directory(diagnostic_log_path); },
        [] { fs::create_symlink("/dev/full", diagnostic_log_path); },
    };
    const auto before = open_descriptors();
    for (const auto obstruct : obstacles) {
        obstruct();
        errno = EXDEV;
        log_error({here, "A"}, "lost");
        EXPECT_EQ(errno, EXDEV);
        if (!fs::is_regular_file(diagnostic_log_path)) fs::remove(diagnostic_log_path);
        errno = EXDEV;
        log_error({here, "B"}, "written");
        EXPECT_EQ(errno, EXDEV);
        EXPECT_EQ(open_descriptors(), before);
        expect_only_log(module_here, "ERROR", "B", "written");
        fs::remove(diagnostic_log_path);
    }
}

// Long lines, many threads --------------------------------------------------------------------------------------------

constexpr std::size_t long_message = 100'000;

/// The physical lines of the log.
std::vector<std::string> physical_lines() {
    const std::string text = read_file(diagnostic_log_path);
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        lines.push_back(text.substr(begin, end - begin));
        begin = end;
    }
    return lines;
}

/// Whether it is one of those that log_letters() writes, from its first character to its last.
bool is_whole(const std::string &line) {
    const std::size_t message = line.find("] [Long] [");
    if (!line.starts_with("[20") || message == std::string::npos) return false;
    const std::size_t begin = message + std::strlen("] [Long] [");
    return line.substr(begin) == std::string(long_message, line[begin]) + "]\n";
}

void log_letters(char letter) {
    fpd_log("FPD", "INFO", "Long", nullptr, 0, "%s", std::string(long_message, letter).c_str());
}

TEST_F(DiagnosticLog, WritesLongLinesWholeAndAtOnce) {
    log_letters('x');
    EXPECT_EQ(interpose::calls(Call::write), 1U);
    EXPECT_TRUE(is_whole(read_file(diagnostic_log_path)));
}

TEST_F(DiagnosticLog, EndsALineOfEveryLengthAroundItsFirstBufferAndHasItWholeWhereThereIsMemory) {
    for (std::size_t size = 1900; size < 2060; ++size)
        for (const bool memory : {true, false}) {
            const std::string message(size, 'x');
            clear_log();
            if (!memory) interpose::fail(Call::realloc, ENOMEM, 1, interpose::for_ever);
            fpd_log("FPD", "INFO", "Long", nullptr, 0, "%s", message.c_str());
            interpose::reset();
            const std::string expected = memory ? " [FPD] [INFO] [Long] [" + message + "]\n" : "x]\n";
            ASSERT_TRUE(read_file(diagnostic_log_path).ends_with(expected)) << size;
        }
}

TEST_F(DiagnosticLog, KeepsTheLongLinesOfManyThreadsApart) {
    constexpr int threads = 4, rounds = 8;
    std::vector<std::jthread> writers;
    for (int i = 0; i < threads; ++i)
        writers.emplace_back([i] {
            for (int round = 0; round < rounds; ++round) log_letters(static_cast<char>('a' + i));
        });
    writers.clear();
    const auto lines = physical_lines();
    EXPECT_EQ(lines.size(), std::size_t{threads * rounds});
    for (const std::string &line : lines) EXPECT_TRUE(is_whole(line)) << line.substr(0, 100);
}

TEST_F(DiagnosticLog, ShowsTheThreadOfEachLine) {
    std::atomic<pid_t> other{0};
    std::jthread([&] {
        other = gettid();
        log_info({here, "A"}, "m");
    }).join();
    ASSERT_NE(other.load(), gettid());
    EXPECT_THAT(log_lines(), ElementsAre(AllOf(Field(&LogLine::pid, getpid()), Field(&LogLine::tid, other.load()))));
}

TEST_F(DiagnosticLog, HasATextThatPrintfRefusesAsItStands) {
    const std::string refused = "a width of %2147483648d";  // a string: the compiler would refuse it too
    const std::string long_and_refused = std::string(5000, 'x') + refused;
    for (const std::string &text : {refused, long_and_refused}) {
        clear_log();
        log_error({here, "Tag"}, text.c_str(), 1);
        expect_only_log(module_here, "ERROR", "Tag", text);
    }
    interpose::fail(Call::realloc, ENOMEM);
    log_error({here, "Cut"}, long_and_refused.c_str(), 1);
    EXPECT_THAT(log_lines("Cut"), testing::SizeIs(1)) << "a whole line";
}

// Cancellation --------------------------------------------------------------------------------------------------------

TEST_F(DiagnosticLog, IsLeftAloneByAThreadThatWasCancelledBefore) {
    const auto before = open_descriptors();
    expect_cancelled(start_thread([](void *) -> void * {
        pthread_cancel(pthread_self());
        log_letters('x');
        return nullptr;
    }));
    EXPECT_FALSE(fs::exists(diagnostic_log_path));
    EXPECT_EQ(open_descriptors(), before);
}

/// The log as a pipe, in which a long line stays stuck until it is read.
struct PipedLog : DiagnosticLog {
    PipedLog() {
        EXPECT_EQ(mkfifo(diagnostic_log_path, 0600), 0);
        reader = open(diagnostic_log_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_GE(reader, 0);
    }
    ~PipedLog() override { close(reader); }

    bool is_full() const {
        int waiting = 0;
        return ioctl(reader, FIONREAD, &waiting) == 0 && waiting == fcntl(reader, F_GETPIPE_SZ);
    }
    /// What is written until its last writer closes it.
    std::string read_to_the_end() const {
        fcntl(reader, F_SETFL, 0);
        std::string text;
        char part[4096];
        for (ssize_t count; (count = read(reader, part, sizeof part)) > 0;)
            text.append(part, static_cast<std::size_t>(count));
        return text;
    }

    int reader;
};

TEST_F(PipedLog, HasALineWholeThatWasBeingWrittenWhenItsThreadWasCancelledAndIsClosed) {
    const auto before = open_descriptors();
    const pthread_t thread = start_thread([](void *) -> void * {
        log_letters('x');
        for (;;) pause();
    });
    ASSERT_TRUE(eventually([this] { return is_full(); }));
    ASSERT_EQ(pthread_cancel(thread), 0);
    EXPECT_TRUE(is_whole(read_to_the_end()));
    expect_cancelled(thread);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DiagnosticLog, LeavesTheThreadsCancellationAsItWas) {
    log_info({here, "A"}, "m");
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
    log_info({here, "A"}, "m");
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
}

TEST(Fits, WhatSnprintfWroteWholeWithItsEnd) {
    EXPECT_TRUE(fits(0, 1));
    EXPECT_TRUE(fits(9, 10));
    EXPECT_FALSE(fits(10, 10));
    EXPECT_FALSE(fits(0, 0));
    EXPECT_FALSE(fits(-1, 10));
}

struct LogTimestamp : CardTest {
    static std::string at(suseconds_t microseconds, const char *zone) {
        use_zone(zone);
        interpose::hold_wall_clock({some_second, microseconds});
        char buffer[64];
        std::memset(buffer, '#', sizeof buffer);
        fpd_log_timestamp(buffer, 32);
        EXPECT_EQ(std::string(buffer + 32, 32), std::string(32, '#'));
        return buffer;
    }
};

TEST_F(LogTimestamp, HasAFractionWithoutLeadingZerosAndTheLocalZoneWhereItFits) {
    const struct {
        suseconds_t microseconds;
        const char *zone, *expected;
    } cases[] = {
        {0, "UTC0", "2024-03-05 14:02:11.0 UTC"},
        {5, "UTC0", "2024-03-05 14:02:11.5 UTC"},
        {48'213, "UTC0", "2024-03-05 14:02:11.48213 UTC"},
        {500'000, "UTC0", "2024-03-05 14:02:11.500000 UTC"},
        {999'999, "UTC0", "2024-03-05 14:02:11.999999 UTC"},
        {48'213, "EET-2", "2024-03-05 16:02:11.48213 EET"},
        {48'213, "PST8PDT", "2024-03-05 06:02:11.48213 PST"},
        {999'999, "ABCD-2", "2024-03-05 16:02:11.999999 ABCD"},
        {999'999, "ABCDE-2", "2024-03-05 16:02:11.999999"},
        {1, "ABCDEFGHIJKLMNOP-2", "2024-03-05 16:02:11.1"},
    };
    for (const auto &[microseconds, zone, expected] : cases) EXPECT_EQ(at(microseconds, zone), expected);
}

TEST_F(LogTimestamp, LeavesAShortBufferAlone) {
    use_zone("UTC0");
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{31}}) {
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        fpd_log_timestamp(buffer, size);
        EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(32, '#')) << size;
    }
}

TEST(TextUnderConstruction, TakesEveryNumber) {
    for (const long number : {0L, -1L, std::numeric_limits<long>::max(), std::numeric_limits<long>::min()}) {
        TextBuilder text;
        text.add_number(number);
        EXPECT_EQ(text.view(), std::to_string(number));
    }
}

TEST(TextUnderConstruction, IsEndedBehindItsLastCharacters) {
    for (const std::size_t length : {0U, 3000U}) {
        TextBuilder text;
        text.add("%s%d of %d", std::string(length, 'm').c_str(), 1, 2);
        text.end_with("]\n");
        EXPECT_EQ(text.view(), std::string(length, 'm') + "1 of 2]\n");
        EXPECT_EQ(text.view(), text.text());
    }
}

TEST(LogModuleName, IsTheBaseNameOfItsSourceFile) {
    static constexpr LogModule modules[] = {
        {"LED", "/a/b.c/src/brd_intf_led.cpp"},
        {"FPD", "fpd_log.cpp"},
        {"FPD", "a.d/plain"},
        {"FPD", "a/one.two.cpp"},
    };
    EXPECT_EQ(modules[0].component, "LED");
    std::vector<std::string> names;
    for (const LogModule &module : modules) names.emplace_back(module.file);
    EXPECT_THAT(names, ElementsAre("brd_intf_led", "fpd_log", "plain", "one.two"));
}

struct ErrorText : CardTest {};

TEST_F(ErrorText, IsTheTextOfTheLogLineAndMayHoldTheTextThatWasThere) {
    expect_logged(fail({here, "Tag"}, -22, err_msg, sizeof err_msg, "no %s %d", "card", 7), -22, module_here, "Tag",
                  "no card 7");
    clear_log();
    expect_logged(fail({here, "Tag"}, -5, err_msg, sizeof err_msg, "outer %s twice %s", err_msg, err_msg), -5,
                  module_here, "Tag", "outer no card 7 twice no card 7");
}

TEST_F(ErrorText, IsCutToItsRoomButLoggedWhole) {
    char room[5] = "####";
    EXPECT_EQ(fail({here, "Tag"}, 17, room, 4, "0123456789"), 17);
    EXPECT_EQ(std::string(room, sizeof room), std::string("012\0\0", 5));
    expect_only_log(module_here, "ERROR", "Tag", "0123456789");
}

TEST_F(ErrorText, IsNotWrittenWithoutRoom) {
    char room[] = "##";
    for (char *const text : {room + 1, static_cast<char *>(nullptr)}) {
        const std::size_t size = text ? 0 : 10;
        EXPECT_EQ(fail({here, "Tag"}, -1, text, size, "text"), -1);
        EXPECT_EQ(fail_unlogged(-3, text, size, "text"), -3);
        clear_error(text, size);
        terminate_error(text, size);
    }
    EXPECT_STREQ(room, "##");
    EXPECT_EQ(log_lines("Tag").size(), 2U);
}

TEST_F(ErrorText, StaysAsItIsWhereACalleesFailureIsLogged) {
    expect_result(pass_on({here, "Tag"}, -4, "failed, error %s", err_msg), -4, untouched_text);
    expect_log(module_here, "ERROR", "Tag", "failed, error " + std::string(untouched_text));
}

TEST_F(ErrorText, IsNotLoggedWhereTheCallerLogs) {
    expect_unlogged(fail_unlogged(-3, err_msg, sizeof err_msg, "no %s", "card"), -3, "no card");
}

TEST_F(ErrorText, IsEmptiedAndEnded) {
    clear_error(err_msg, sizeof err_msg);
    EXPECT_STREQ(err_msg, "");
    char full[4] = {'f', 'u', 'l', 'l'};
    terminate_error(full, sizeof full);
    EXPECT_STREQ(full, "ful");
    char room[] = "xxx";  // one byte for each
    clear_error(room, 1);
    terminate_error(room + 1, 1);
    fail_unlogged(-1, room + 2, 1, "text");
    EXPECT_EQ(std::string(room, 3), std::string(3, '\0'));
}

struct RoomForAText : CardTest {
    RoomForAText() : fits(TextBuilder::short_length, 'x') {}
    /// A text that printf refuses: there is no such character here.
    void add_refused(const std::string &format) { text.add((format + "%lc").c_str(), wint_t{0x100}); }
    static void take_all_memory() { interpose::fail(Call::realloc, ENOMEM, 1, interpose::for_ever); }

    TextBuilder text;
    std::string fits;  // just into its first buffer
};

TEST_F(RoomForAText, IsTakenWhenTheFirstBufferIsFull) {
    text.add("%s", fits.c_str());
    EXPECT_EQ(text.text(), fits);
    EXPECT_EQ(interpose::calls(Call::realloc), 0U);
    text.add("y");
    EXPECT_EQ(text.text(), fits + "y");
    EXPECT_EQ(interpose::calls(Call::realloc), 1U);
}

template <class... Arguments>
void expect_as_of_printf(const char *format, Arguments... arguments) {
    char expected[100];
    std::snprintf(expected, sizeof expected, format, arguments...);
    TextBuilder text;
    text.add(format, arguments...);
    EXPECT_STREQ(text.text(), expected) << format;
}

TEST_F(RoomForAText, IsFilledAsPrintfDoes) {
    expect_as_of_printf("a %s, %s%s.", "b", "", "c");
    expect_as_of_printf("%d%d %d", INT_MIN, INT_MAX, 0);
    expect_as_of_printf("%ld %d %ld%s", LONG_MIN, -1, LONG_MAX, "d");
    expect_as_of_printf("%s", static_cast<const char *>(nullptr));
    expect_as_of_printf("%d%% of %s", 100, "it");
    expect_as_of_printf("%s %5d", "a", 3);
    expect_as_of_printf("%-3s|%s", "a", "b");
    expect_as_of_printf("%d %lx", 1, 255L);
    expect_as_of_printf("%x 0x%x %x", 0U, 0xabcdefU, UINT_MAX);
    expect_as_of_printf("%p %p%s", static_cast<const void *>("at"), static_cast<void *>(nullptr), "d");
    expect_as_of_printf("%.0s", "a");
    expect_as_of_printf("%s %ls", "a", L"wide");
    // Like those that are made without printf, but others.
    expect_as_of_printf("%2s", "a");
    expect_as_of_printf("%9p", static_cast<const void *>("at"));
    expect_as_of_printf("%td", std::ptrdiff_t{-1});
    expect_as_of_printf("%e", 1.5);
    expect_as_of_printf("%qd", -1LL);
    expect_as_of_printf("%le", 1.5);
    expect_as_of_printf("%lxd", 255L);
    expect_as_of_printf("%md", 1);
    expect_as_of_printf("%y", 255U);
}

TEST_F(RoomForAText, IsTakenOrCutForEveryConversion) {
    const std::string long_text(3000, 'x');
    for (const char *format : {"%s", "%-1s"}) {
        TextBuilder whole;
        whole.add(format, long_text.c_str());
        EXPECT_EQ(whole.view(), long_text);
        take_all_memory();
        TextBuilder cut;
        cut.add(format, long_text.c_str());
        EXPECT_EQ(cut.view(), fits);
        cut.add("y");
        EXPECT_EQ(cut.view(), fits);
        interpose::reset();
    }
}

TEST_F(RoomForAText, IsThereForOneThatPrintfRefuses) {
    text.add("ab");
    add_refused("cd");
    EXPECT_STREQ(text.text(), "abcd%lc");
    add_refused(fits);
    EXPECT_EQ(text.text(), "abcd%lc" + fits + "%lc");
    EXPECT_EQ(text.view(), text.text());
}

TEST_F(RoomForAText, IsTheFirstBufferForOneThatPrintfRefusesWithoutMemory) {
    take_all_memory();
    text.add("ab");
    add_refused(fits);
    EXPECT_EQ(text.text(), ("ab" + fits).substr(0, fits.size()));
    EXPECT_EQ(text.view(), text.text());
}

}  // namespace
