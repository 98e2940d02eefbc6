/// Commands that are really run, sums that are really computed.
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "library_test_support.h"

namespace cardsim {
namespace {

using card_tests::read_file;
using card_tests::write_file;

class ShellTest : public LibraryTest {
  protected:
    int run(const std::string &command) {
        return library().exec_shell_command(output, sizeof output, &length, err_msg, sizeof err_msg, "%s",
                                            command.c_str());
    }

    char output[64] = {};
    size_t length = 77;
};

TEST_F(ShellTest, GivesBackWhatTheCommandPrinted) {
    EXPECT_EQ(run("printf 'to one\\n'; printf 'to the other' >&2"), 0);
    EXPECT_STREQ(output, "to one\nto the other");
    EXPECT_EQ(length, 19U);
    EXPECT_STREQ(err_msg, "");
}

TEST_F(ShellTest, FormatsTheCommand) {
    EXPECT_EQ(library().exec_shell_command(output, sizeof output, &length, err_msg, sizeof err_msg, "echo %s %d %%",
                                           "'a  b'", 5),
              0);
    EXPECT_STREQ(output, "a  b 5 %\n");
}

TEST_F(ShellTest, AnEmptyOutputIsAnEmptyText) {
    std::strcpy(output, "as before");
    std::strcpy(err_msg, "as before");
    EXPECT_EQ(run("true"), 0);
    EXPECT_STREQ(err_msg, "as before");
    EXPECT_STREQ(output, "");
    EXPECT_EQ(length, 0U);
}

TEST_F(ShellTest, CutsTheOutputToItsPlace) {
    std::memset(output, 'x', sizeof output);
    EXPECT_EQ(library().exec_shell_command(output, 8, &length, err_msg, sizeof err_msg, "echo 123456789"), 0);
    EXPECT_STREQ(output, "1234567");
    EXPECT_EQ(length, 7U);
    EXPECT_EQ(output[8], 'x');
}

TEST_F(ShellTest, ReadsMoreThanItKeeps) {
    EXPECT_EQ(run("head -c 3000000 /dev/zero | tr '\\0' y; exit 4"), 4);
    EXPECT_EQ(length, sizeof output - 1);
    EXPECT_EQ(std::string(output), std::string(sizeof output - 1, 'y'));
}

TEST_F(ShellTest, GivesBackHowTheCommandEnded) {
    EXPECT_EQ(run("echo 'first line'; echo second; exit 3"), 3);
    EXPECT_STREQ(output, "first line\nsecond\n");
    EXPECT_STREQ(err_msg, "command 'echo 'first line'; echo second; exit 3' exited with 3: first line second");
    EXPECT_EQ(run("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_STREQ(err_msg, "command 'kill -TERM $$' was ended by signal 15: ");
    EXPECT_EQ(run("/no/such/command"), 127);
    EXPECT_THAT(err_msg, ::testing::StartsWith("command '/no/such/command' exited with 127: "));
}

TEST_F(ShellTest, ALostExitStatusIsNoSuccess) {
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(run("exit 3"), ECHILD);
    signal(SIGCHLD, SIG_DFL);
    EXPECT_STREQ(err_msg, "command 'exit 3': its exit status is lost, this process ignores SIGCHLD");
}

TEST_F(ShellTest, TheCommandHasNothingToRead) {
    EXPECT_EQ(run("cat"), 0);
    EXPECT_STREQ(output, "");
}

TEST_F(ShellTest, RunsForSeveralThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            char text[32] = {};
            size_t text_length = 0;
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(library().exec_shell_command(text, sizeof text, &text_length, nullptr, 0, "echo %d; exit %d",
                                                       number, number),
                          number);
                EXPECT_EQ(std::string(text), std::to_string(number) + "\n");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(recorded().size(), 20U);
}

/// Waits until the file holds a number and its line has ended.
pid_t number_in(const std::filesystem::path &file) {
    for (int round = 0; round < 1000; ++round) {
        const std::string content = std::filesystem::exists(file) ? read_file(file) : "";
        if (!content.empty() && content.back() == '\n') {
            return std::stoi(content);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}

struct CancelledCommand {
    ShellTest *test;
    std::function<void()> run;
};

void *run_cancelled(void *command) {
    static_cast<CancelledCommand *>(command)->run();
    return nullptr;
}

TEST_F(ShellTest, ACancelledCommandLeavesNothing) {
    const auto number = state_directory() / "number";
    EXPECT_EQ(run("true"), 0);
    const size_t files = open_files();
    CancelledCommand command{this, [&] { run("echo $$ >" + number.string() + "; sleep 1000; true"); }};
    pthread_t thread = {};
    ASSERT_EQ(pthread_create(&thread, nullptr, run_cancelled, &command), 0);
    const pid_t child = number_in(number);
    ASSERT_GT(child, 0);
    pthread_cancel(thread);
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(open_files(), files);
    // Killed and reaped: no zombie carries its number any more.
    EXPECT_EQ(kill(child, 0), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_THAT(recorded().back(), ::testing::EndsWith("-> cancelled"));
    EXPECT_EQ(run("echo again"), 0);
}

struct Md5Case {
    const char *what;
    std::string content;  ///< of abc.img
    const char *file;
    const char *md5;
    int result;
    std::string reason;  ///< after the file's path
};

class Md5Test : public LibraryTest, public ::testing::WithParamInterface<Md5Case> {};

TEST_P(Md5Test, OfAFileIsValidated) {
    const Md5Case &given = GetParam();
    write_file(package() / "abc.img", given.content);
    const int result =
        library().brd_intf_fpd_image_md5_validate(package().c_str(), given.file, given.md5, err_msg, sizeof err_msg);
    EXPECT_EQ(result, given.result);
    EXPECT_EQ(err_msg, given.result == 0 ? "" : (package() / given.file).string() + given.reason);
}

constexpr const char *sum_of_abc = "900150983cd24fb0d6963f7d28e17f72";
constexpr const char *other_sum = "900150983cd24fb0d6963f7d28e17f73";

INSTANTIATE_TEST_SUITE_P(
    , Md5Test,
    ::testing::Values(
        Md5Case{"right", "abc", "abc.img", sum_of_abc, 0, ""},
        Md5Case{"in_capitals", "abc", "abc.img", "900150983CD24FB0D6963F7D28E17F72", 0, ""},
        Md5Case{"wrong", "abc", "abc.img", other_sum, EBADMSG,
                std::string(": its MD5 sum is ") + sum_of_abc + ", not '" + other_sum + "'"},
        Md5Case{"none_given", "abc", "abc.img", "", EBADMSG,
                std::string(": its MD5 sum is ") + sum_of_abc + ", not ''"},
        Md5Case{"no_file", "abc", "none.img", sum_of_abc, ENOENT, ": cannot be read: No such file or directory"},
        Md5Case{"empty", "", "abc.img", "d41d8cd98f00b204e9800998ecf8427e", 0, ""},
        Md5Case{"large", std::string(1000000, 'a'), "abc.img", "7707d6ae4e027c70eea2a935c2296f21", 0, ""}),
    [](const ::testing::TestParamInfo<Md5Case> &test) { return test.param.what; });

}  // namespace
}  // namespace cardsim
