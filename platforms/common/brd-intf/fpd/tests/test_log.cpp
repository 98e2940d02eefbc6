#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
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
    static void hold_time() { interpose::hold_wall_clock({some_second, 48'213}); }
};

TEST_F(DiagnosticLog, WritesEveryFieldOfALine) {
    log_error({here, "SomeTag"}, "it failed: %s, rc %d", "no card", -13);
    const auto lines = log_lines();
    ASSERT_THAT(lines, ElementsAre(log_line(module_here, "ERROR", "SomeTag", "it failed: no card, rc -13")));
    EXPECT_EQ(lines[0].pid, getpid());
    EXPECT_EQ(lines[0].tid, syscall(SYS_gettid));
}

TEST_F(DiagnosticLog, PutsTheFieldsInTheirOrder) {
    hold_time();
    fpd_log("LED", "DEBUG", "SomeTag", "some_module", 95, "state %d, colour %s", 2, "green");
    EXPECT_EQ(read_file(diagnostic_log_path),
              line_front() + " [LED] [DEBUG] [SomeTag] [some_module:95] [state 2, colour green]\n");
}

TEST_F(DiagnosticLog, LeavesOutFieldsThatAreNull) {
    hold_time();
    fpd_log(nullptr, nullptr, nullptr, nullptr, 0, "hello");
    EXPECT_EQ(read_file(diagnostic_log_path), line_front() + " [hello]\n");
}

TEST_F(DiagnosticLog, LeavesOutEachFieldByItself) {
    hold_time();
    fpd_log(nullptr, "INFO", "Tag", "file", 7, "m");
    fpd_log("FPD", nullptr, "Tag", "file", 7, "m");
    fpd_log("FPD", "INFO", nullptr, "file", 7, "m");
    EXPECT_EQ(read_file(diagnostic_log_path), line_front() + " [INFO] [Tag] [file:7] [m]\n" +  //
                                                  line_front() + " [FPD] [Tag] [file:7] [m]\n" + line_front() +
                                                  " [FPD] [INFO] [file:7] [m]\n");
}

TEST_F(DiagnosticLog, WritesNoLineNumberWithoutAFile) {
    hold_time();
    fpd_log("FPD", "INFO", "Tag", nullptr, 1234, "hello");
    EXPECT_EQ(read_file(diagnostic_log_path), line_front() + " [FPD] [INFO] [Tag] [hello]\n");
}

TEST_F(DiagnosticLog, WritesLineNumber0WithItsFile) {
    hold_time();
    fpd_log(nullptr, nullptr, nullptr, "file", 0, "hello");
    EXPECT_EQ(read_file(diagnostic_log_path), line_front() + " [file:0] [hello]\n");
}

TEST_F(DiagnosticLog, WritesEmptyFieldsAndAnEmptyMessage) {
    hold_time();
    fpd_log("FPD", "INFO", "", "file", 1, "%s", "");
    EXPECT_EQ(read_file(diagnostic_log_path), line_front() + " [FPD] [INFO] [] [file:1] []\n");
}

TEST_F(DiagnosticLog, HasNoThresholdAndTakesLevelsAsTheyAre) {
    log_debug({here, "A"}, "detail");
    log_info({here, "B"}, "milestone");
    log_error({here, "C"}, "failure");
    fpd_log("FPD", "whatever", "D", "test_log", 1, "odd");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(module_here, "DEBUG", "A", "detail"),  //
                                         log_line(module_here, "INFO", "B", "milestone"),
                                         log_line(module_here, "ERROR", "C", "failure"),
                                         log_line(module_here, "whatever", "D", "odd")));
}

TEST_F(DiagnosticLog, NamesTheLineOfTheCall) {
    log_info({here, "A"}, "m");
    const int line = __LINE__ - 1;
    EXPECT_THAT(log_lines(), ElementsAre(Field(&LogLine::line, line)));
}

TEST_F(DiagnosticLog, WritesANewlineInAMessageAsItIs) {
    hold_time();
    fpd_log("FPD", "INFO", "Tag", nullptr, 0, "one\n%s\n", "two");
    EXPECT_EQ(read_file(diagnostic_log_path), line_front() + " [FPD] [INFO] [Tag] [one\ntwo\n]\n");
}

TEST_F(DiagnosticLog, IsAppendedTo) {
    write_file(diagnostic_log_path, "what an earlier run left\n");
    hold_time();
    fpd_log(nullptr, nullptr, nullptr, nullptr, 0, "hello");
    EXPECT_EQ(read_file(diagnostic_log_path), "what an earlier run left\n" + line_front() + " [hello]\n");
}

TEST_F(DiagnosticLog, IsMadeAnewWhenItWasRemovedBetweenTwoLines) {
    log_info({here, "A"}, "first");
    fs::remove(diagnostic_log_path);
    log_info({here, "B"}, "second");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(module_here, "INFO", "B", "second")));
}

TEST_F(DiagnosticLog, IsClosedBehindEveryLine) {
    const auto before = open_descriptors();
    log_info({here, "A"}, "m");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DiagnosticLog, DropsTheLineWhenItCannotBeOpened) {
    interpose::fail(Call::open, EROFS);
    log_error({here, "A"}, "dropped");
    EXPECT_FALSE(fs::exists(diagnostic_log_path));
    log_error({here, "B"}, "written");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(module_here, "ERROR", "B", "written")));
}

TEST_F(DiagnosticLog, DropsTheLineWhenADirectoryIsInItsPlace) {
    fs::create_directory(diagnostic_log_path);
    const auto before = open_descriptors();
    log_error({here, "A"}, "dropped");
    EXPECT_TRUE(fs::is_empty(diagnostic_log_path));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DiagnosticLog, IgnoresAFullDisk) {
    fs::create_symlink("/dev/full", diagnostic_log_path);
    const auto before = open_descriptors();
    log_error({here, "A"}, "lost");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DiagnosticLog, LosesTheLineThatCannotBeWrittenAndIsClosed) {
    const auto before = open_descriptors();
    interpose::fail(Call::write, EIO);
    log_error({here, "A"}, "lost");
    EXPECT_EQ(open_descriptors(), before);
    log_error({here, "B"}, "written");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(module_here, "ERROR", "B", "written")));
}

TEST_F(DiagnosticLog, KeepsErrno) {
    errno = EXDEV;
    log_error({here, "A"}, "m");
    EXPECT_EQ(errno, EXDEV);
    interpose::fail(Call::open, EACCES);
    errno = EXDEV;
    log_error({here, "A"}, "m");
    EXPECT_EQ(errno, EXDEV);
    fs::remove(diagnostic_log_path);
    fs::create_symlink("/dev/full", diagnostic_log_path);
    errno = EXDEV;
    log_error({here, "A"}, "m");
    EXPECT_EQ(errno, EXDEV);
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
    const auto lines = physical_lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(is_whole(lines[0]));
}

TEST_F(DiagnosticLog, WritesALineOfEveryLengthAroundItsFirstBufferWhole) {
    for (std::size_t size = 1900; size < 2060; ++size) {
        const std::string message(size, 'x');
        clear_log();
        fpd_log("FPD", "INFO", "Long", nullptr, 0, "%s", message.c_str());
        ASSERT_TRUE(read_file(diagnostic_log_path).ends_with(" [FPD] [INFO] [Long] [" + message + "]\n")) << size;
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
    const auto lines = log_lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].pid, getpid());
    EXPECT_EQ(lines[0].tid, other.load());
}

TEST_F(DiagnosticLog, CutsALongLineWithoutMemoryButEndsIt) {
    interpose::fail(Call::realloc, ENOMEM, 1, interpose::for_ever);
    log_letters('x');
    const std::string line = read_file(diagnostic_log_path);
    EXPECT_GT(interpose::calls(Call::realloc), 0U);
    EXPECT_GT(line.size(), 1900U);
    EXPECT_LT(line.size(), 2100U);
    EXPECT_TRUE(line.ends_with("xxxx]\n")) << line;
    EXPECT_NE(line.find(" [FPD] [INFO] [Long] [xxxx"), std::string::npos) << line;
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
}

TEST_F(DiagnosticLog, EndsALineWhoseEndingAloneLacksMemory) {
    for (std::size_t size = 1900; size < 2060; ++size) {
        clear_log();
        interpose::fail(Call::realloc, ENOMEM, 1, interpose::for_ever);
        fpd_log("FPD", "INFO", "Long", nullptr, 0, "%s", std::string(size, 'x').c_str());
        ASSERT_TRUE(read_file(diagnostic_log_path).ends_with("x]\n")) << size;
    }
}

// Cancellation --------------------------------------------------------------------------------------------------------

TEST_F(DiagnosticLog, IsLeftAloneByAThreadThatWasCancelledBefore) {
    const auto before = open_descriptors();
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *) -> void * {
                      pthread_cancel(pthread_self());
                      log_letters('x');
                      return nullptr;
                  },
                  nullptr),
              0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
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

TEST_F(PipedLog, HasALineWholeThatWasBeingWrittenWhenItsThreadWasCancelled) {
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *) -> void * {
                      log_letters('x');
                      for (;;) pause();
                  },
                  nullptr),
              0);
    ASSERT_TRUE(eventually([this] { return is_full(); }));
    ASSERT_EQ(pthread_cancel(thread), 0);
    EXPECT_TRUE(is_whole(read_to_the_end()));
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST_F(DiagnosticLog, HasWholeLinesOnlyAndIsClosedWhereverACancellationStrikes) {
    const auto before = open_descriptors();
    for (int round = 0; round < 20; ++round) {
        clear_log();
        static std::atomic<bool> running;
        running = false;
        pthread_t thread{};
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void *) -> void * {
                          running = true;
                          for (int line = 0; line < 4; ++line) log_letters('x');
                          for (;;) pause();
                      },
                      nullptr),
                  0);
        while (!running) sched_yield();
        usleep(static_cast<useconds_t>(round * 200));
        ASSERT_EQ(pthread_cancel(thread), 0);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(thread, &result), 0);
        ASSERT_EQ(result, PTHREAD_CANCELED);
        ASSERT_EQ(open_descriptors(), before);
        for (const std::string &line : physical_lines()) ASSERT_TRUE(is_whole(line)) << line.substr(0, 100);
    }
}

TEST_F(DiagnosticLog, HasATextThatPrintfRefusesAsItStands) {
    const std::string refused = "a width of %2147483648d";  // a string: the compiler would refuse it too
    log_error({here, "Tag"}, refused.c_str(), 1);
    expect_log(module_here, "ERROR", "Tag", refused);
    const std::string long_and_refused = std::string(5000, 'x') + refused;
    log_error({here, "Long"}, long_and_refused.c_str(), 1);
    expect_log(module_here, "ERROR", "Long", long_and_refused);
    interpose::fail(Call::realloc, ENOMEM);
    log_error({here, "Cut"}, long_and_refused.c_str(), 1);
    EXPECT_THAT(log_lines("Cut"), testing::SizeIs(1)) << "a whole line";
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

// Time stamp ----------------------------------------------------------------------------------------------------------

struct LogTimestamp : CardTest {
    static std::string at(suseconds_t microseconds, const char *zone = "UTC0", std::size_t size = 32) {
        use_zone(zone);
        interpose::hold_wall_clock({some_second, microseconds});
        char buffer[64];
        std::memset(buffer, '#', sizeof buffer);
        fpd_log_timestamp(buffer, size);
        EXPECT_EQ(std::string(buffer + 32, 32), std::string(32, '#'));
        return buffer;
    }
};

TEST_F(LogTimestamp, HasAFractionWithoutLeadingZeros) {
    EXPECT_EQ(at(5), "2024-03-05 14:02:11.5 UTC");
    EXPECT_EQ(at(48'213), "2024-03-05 14:02:11.48213 UTC");
    EXPECT_EQ(at(500'000), "2024-03-05 14:02:11.500000 UTC");
    EXPECT_EQ(at(999'999), "2024-03-05 14:02:11.999999 UTC");
    EXPECT_EQ(at(0), "2024-03-05 14:02:11.0 UTC");
}

TEST_F(LogTimestamp, IsOfTheLocalZone) {
    EXPECT_EQ(at(48'213, "EET-2"), "2024-03-05 16:02:11.48213 EET");
    EXPECT_EQ(at(48'213, "PST8PDT"), "2024-03-05 06:02:11.48213 PST");
}

TEST_F(LogTimestamp, HoldsAZoneOf4LettersWithEveryFraction) {
    EXPECT_EQ(at(999'999, "ABCD-2"), "2024-03-05 16:02:11.999999 ABCD");
}

TEST_F(LogTimestamp, IsEndedWithoutAZoneThatDoesNotFit) {
    EXPECT_EQ(at(999'999, "ABCDE-2"), "2024-03-05 16:02:11.999999");
    EXPECT_EQ(at(1, "ABCDEFGHIJKLMNOP-2"), "2024-03-05 16:02:11.1");
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

// Texts under construction --------------------------------------------------------------------------------------------

TEST(TextUnderConstruction, IsEndedBehindItsLastCharacters) {
    TextBuilder text;
    text.add("%d of %d", 1, 2);
    text.end_with("]\n");
    EXPECT_EQ(text.view(), "1 of 2]\n");
    EXPECT_STREQ(text.text(), "1 of 2]\n");
}

TEST(TextUnderConstruction, IsEndedWhateverItsMemoryHeldBefore) {
    constexpr std::size_t length = 3000;
    char *const used = static_cast<char *>(std::malloc(length + 3));
    ASSERT_NE(used, nullptr);
    std::memset(used, 'x', length + 3);
    std::free(used);
    TextBuilder text;
    text.add("%s", std::string(length, 'm').c_str());
    text.end_with("]\n");
    EXPECT_EQ(text.text(), std::string(length, 'm') + "]\n");
}

// Modules -------------------------------------------------------------------------------------------------------------

TEST(LogModuleName, IsTheBaseNameOfItsSourceFile) {
    static constexpr LogModule with_directories{"LED", "/a/b.c/src/brd_intf_led.cpp"};
    EXPECT_STREQ(with_directories.file, "brd_intf_led");
    EXPECT_STREQ(with_directories.component, "LED");
    static constexpr LogModule without_directories{"FPD", "fpd_log.cpp"};
    EXPECT_STREQ(without_directories.file, "fpd_log");
    static constexpr LogModule without_extension{"FPD", "a.d/plain"};
    EXPECT_STREQ(without_extension.file, "plain");
    static constexpr LogModule two_dots{"FPD", "a/one.two.cpp"};
    EXPECT_STREQ(two_dots.file, "one.two");
}

TEST(LogModuleName, IsCutTo63Characters) {
    static constexpr LogModule here_too{
        "FPD", "/a_name_that_goes_on_and_on_and_on_and_on_and_on_and_on_and_on_and_on_and_on.cpp"};
    EXPECT_EQ(std::string(here_too.file), "a_name_that_goes_on_and_on_and_on_and_on_and_on_and_on_and_on_a");
}

// Error texts ---------------------------------------------------------------------------------------------------------

struct ErrorText : CardTest {};

TEST_F(ErrorText, IsTheTextOfTheLogLine) {
    EXPECT_EQ(fail({here, "Tag"}, -22, err_msg, sizeof err_msg, "no %s %d", "card", 7), -22);
    EXPECT_STREQ(err_msg, "no card 7");
    expect_log(module_here, "ERROR", "Tag", "no card 7");
}

TEST_F(ErrorText, MayHoldTheTextThatWasThere) {
    std::strcpy(err_msg, "inner");
    fail({here, "Tag"}, -5, err_msg, sizeof err_msg, "outer %s twice %s", err_msg, err_msg);
    EXPECT_STREQ(err_msg, "outer inner twice inner");
    expect_log(module_here, "ERROR", "Tag", "outer inner twice inner");
}

TEST_F(ErrorText, IsCutToItsRoomButLoggedWhole) {
    char room[5] = "####";
    EXPECT_EQ(fail({here, "Tag"}, 17, room, 4, "0123456789"), 17);
    EXPECT_EQ(std::string(room, sizeof room), std::string("012\0\0", 5));
    expect_log(module_here, "ERROR", "Tag", "0123456789");
}

TEST_F(ErrorText, IsEmptyInABufferOfOneByte) {
    char room[1] = {'x'};
    EXPECT_EQ(fail_unlogged(-1, room, sizeof room, "text"), -1);
    EXPECT_EQ(room[0], '\0');
}

TEST_F(ErrorText, IsNotWrittenWithoutRoom) {
    char room[] = "#";
    EXPECT_EQ(fail({here, "Tag"}, -1, room, 0, "text"), -1);
    EXPECT_EQ(fail_unlogged(-1, room, 0, "text"), -1);
    clear_error(room, 0);
    terminate_error(room, 0);
    EXPECT_STREQ(room, "#");
    EXPECT_EQ(fail({here, "Tag"}, -2, nullptr, 10, "text"), -2);
    EXPECT_EQ(fail_unlogged(-3, nullptr, 10, "text"), -3);
    clear_error(nullptr, 10);
    terminate_error(nullptr, 10);
    EXPECT_EQ(log_lines("Tag").size(), 2U);
}

TEST_F(ErrorText, StaysAsItIsWhereACalleesFailureIsLogged) {
    EXPECT_EQ(pass_on({here, "Tag"}, -4, "failed, error %s", err_msg), -4);
    EXPECT_EQ(err_msg, untouched_text);
    expect_log(module_here, "ERROR", "Tag", "failed, error " + std::string(untouched_text));
}

TEST_F(ErrorText, IsNotLoggedWhereTheCallerLogs) {
    EXPECT_EQ(fail_unlogged(-3, err_msg, sizeof err_msg, "no %s", "card"), -3);
    EXPECT_STREQ(err_msg, "no card");
    EXPECT_FALSE(fs::exists(diagnostic_log_path));
}

TEST_F(ErrorText, IsEmptiedAndEnded) {
    clear_error(err_msg, sizeof err_msg);
    EXPECT_STREQ(err_msg, "");
    char full[4] = {'f', 'u', 'l', 'l'};
    terminate_error(full, sizeof full);
    EXPECT_STREQ(full, "ful");
}

// Room ----------------------------------------------------------------------------------------------------------------

TEST_F(ErrorText, OfOneByteIsEmptiedAndEnded) {
    char room[1] = {'x'};
    clear_error(room, sizeof room);
    EXPECT_EQ(room[0], '\0');
    room[0] = 'x';
    terminate_error(room, sizeof room);
    EXPECT_EQ(room[0], '\0');
}

TEST_F(ErrorText, WithoutRoomIsNotEndedInFrontOfIt) {
    char room[] = "##";
    terminate_error(room + 1, 0);
    EXPECT_STREQ(room, "##");
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

TEST_F(RoomForAText, IsTheFirstBufferWithoutMemory) {
    take_all_memory();
    text.add("%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(text.view(), fits);
    text.add("y");
    EXPECT_EQ(text.view(), fits);
}

TEST_F(RoomForAText, IsThereForOneThatPrintfRefuses) {
    text.add("ab");
    add_refused("cd");
    EXPECT_STREQ(text.text(), "abcd%lc");
    add_refused(fits);
    EXPECT_EQ(text.text(), "abcd%lc" + fits + "%lc");
    EXPECT_EQ(text.view(), "abcd%lc" + fits + "%lc");
}

TEST_F(RoomForAText, IsTheFirstBufferForOneThatPrintfRefusesWithoutMemory) {
    take_all_memory();
    text.add("ab");
    add_refused(fits);
    EXPECT_EQ(text.text(), ("ab" + fits).substr(0, fits.size()));
    EXPECT_EQ(text.view(), ("ab" + fits).substr(0, fits.size()));
}

}  // namespace
