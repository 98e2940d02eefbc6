#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "files.h"

namespace fs = std::filesystem;
using card_tests::lines_of;
using card_tests::names_in;
using card_tests::read_file;
using card_tests::write_file;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

std::size_t count_of(const std::string &text, const std::string &part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

struct Result {
    int status = -1;  ///< 128 + n for signal n
    std::string out;
    std::string err;
};

/// One region that is to be upgraded; `more` goes in front of the tables, so it may set keys of [card].
std::string card_text(const std::string &startup, const std::string &more = {}) {
    return "[card]\ngroup = 3\nboard_type = 12568\nhw_version = [1, 7]\nslot = 2\npid = \"SIM-T\"\nstartup = '''" +
           startup + "'''\n" + more + R"toml(
[[led]]
id = 1
type = 1
name = "Status"
state = 2
color = 4

[[fpd]]
id = 10
[[fpd.region]]
name = "IoFpga"
running = "1.0.0"
programmed = "1.1.0"
[[fpd.region.image]]
type = 0
version = "1.2.0"
file = "io.img"
size = 1000
)toml";
}

const std::vector<std::string> whole_state = {"bin", "etc",   "flash",   "kd_bootstrap", "log",
                                              "pkg", "power", "scratch", "state.toml"};

class CommandTest : public testing::Test {
  protected:
    CommandTest() {
        fs::create_directory(card_);
        describe("true");
    }

    void describe(const std::string &startup, const std::string &more = {}) {
        write_file(card_ / "card.toml", card_text(startup, more));
    }

    /// Starts the command with its output in files and `input` on stdin.
    pid_t start(const std::vector<std::string> &arguments, const std::string &input = {}) {
        write_file(root_ / "in", input);
        const pid_t pid = fork();
        if (pid != 0) return pid;
        redirect(root_ / "in", O_RDONLY, STDIN_FILENO);
        redirect(root_ / "out", O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
        redirect(root_ / "err", O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO);
        std::vector<char *> pointers = {const_cast<char *>(CARDSIM_COMMAND)};
        for (const std::string &argument : arguments) pointers.push_back(const_cast<char *>(argument.c_str()));
        pointers.push_back(nullptr);
        execv(CARDSIM_COMMAND, pointers.data());
        _exit(99);
    }
    static void redirect(const fs::path &path, int flags, int descriptor) {
        dup2(open(path.c_str(), flags | O_CLOEXEC, 0600), descriptor);
    }

    Result end_of(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status), read_file(root_ / "out"),
                read_file(root_ / "err")};
    }

    Result run(const std::vector<std::string> &arguments, const std::string &input = {}) {
        return end_of(start(arguments, input));
    }
    Result boot(const std::vector<std::string> &more = {}) {
        std::vector<std::string> arguments = {"boot", card_.string()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    Result exec(const std::string &shell_command, const std::string &input = {}) {
        return run({"exec", card_.string(), "--", "sh", "-c", shell_command}, input);
    }
    Result exec_with(std::vector<std::string> options_and_command) {
        options_and_command.insert(options_and_command.begin(), {"exec", card_.string()});
        return run(options_and_command);
    }
    std::string show() { return run({"show", card_.string()}).out; }

    bool wait_for_file(const fs::path &path) const {
        for (int attempt = 0; attempt < 1000 && !fs::exists(path); ++attempt) usleep(10'000);
        return fs::exists(path);
    }

    const card_tests::TemporaryDirectory own_{"cardsim-test"};
    const fs::path &root_ = own_.path();
    const fs::path card_ = root_ / "card";
    const fs::path state_ = card_ / "state";
};

// ---- boot

TEST_F(CommandTest, BootsACardThatIsUpAtOnce) {
    describe("echo starting");
    const Result result = boot();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("boot 1: power on: echo starting\nstarting\nboot 1: the start-up command ended "
                                       "with status 0 after "));
    EXPECT_THAT(result.out, HasSubstr("boot 1: the card is up\n"));
    EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(CommandTest, MakesTheWholeStateDirectory) {
    ASSERT_EQ(boot().status, 0);
    EXPECT_EQ(names_in(state_), whole_state);
    EXPECT_EQ(read_file(state_ / "kd_bootstrap"),
              "PD_CARD_TYPE=12568\nHW_MAJOR_VERSION=1\nHW_MINOR_VERSION=7\nPD_SLOT_NUM=2\nMY_CARD_PID=SIM-T\n");
    EXPECT_EQ(fs::file_size(state_ / "pkg/io.img"), 1000U);
    EXPECT_THAT(names_in(card_), ElementsAre("card.toml", "state"));
}

TEST_F(CommandTest, TheStateOfAnotherCardIsRefusedAndStaysAsItIs) {
    ASSERT_EQ(boot().status, 0);
    const std::string state = read_file(state_ / "state.toml");
    std::string other = card_text("touch /misc/scratch/ran");
    other.replace(other.find("SIM-T"), 5, "SIM-U");
    write_file(card_ / "card.toml", other);
    for (const char *command : {"boot", "plan", "power-on", "show"}) {
        const Result result = run({command, card_.string()});
        EXPECT_EQ(result.status, 2) << command;
        EXPECT_THAT(result.err, HasSubstr("state.toml: the state of another card, SIM-T; name a directory of its own"));
    }
    EXPECT_EQ(read_file(state_ / "state.toml"), state);
    EXPECT_THAT(read_file(state_ / "kd_bootstrap"), HasSubstr("SIM-T"));
    EXPECT_THAT(names_in(state_ / "scratch"), IsEmpty());
}

TEST_F(CommandTest, NoStateIsMadeAmongWhatIsInstalled) {
    const fs::path state = "/usr/share/cardsim-test-" + std::to_string(getpid());
    const Result result = run({"boot", card_.string(), "--state", state.string()});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, state.string() + ": among what is installed; name another directory by --state\n");
    EXPECT_EQ(run({"show", card_.string(), "--state", state.string()}).status, 0) << "makes none";
    EXPECT_EQ(fs::remove_all(state), 0U);
}

TEST_F(CommandTest, ImagesAreTheSameWhereverTheyAreMade) {
    ASSERT_EQ(boot({"--state", (root_ / "one").string()}).status, 0);
    ASSERT_EQ(boot({"--state", (root_ / "two").string()}).status, 0);
    EXPECT_EQ(read_file(root_ / "one/pkg/io.img"), read_file(root_ / "two/pkg/io.img"));
    EXPECT_THAT(read_file(root_ / "one/pkg/io.img"), StartsWith("simulated firmware image io.img\n"));
}

TEST_F(CommandTest, TakesTheCardsOwnImages) {
    describe("cat /pkg/fpd/ucode/io.img");
    fs::create_directory(card_ / "images");
    write_file(card_ / "images/io.img", "own image\n");
    EXPECT_THAT(boot().out, HasSubstr("\nown image\n"));
    write_file(card_ / "images/io.img", "new image\n");
    EXPECT_THAT(boot().out, HasSubstr("\nnew image\n"));
}

TEST_F(CommandTest, AStartUpCommandThatFailsFailsTheBoot) {
    describe("exit 9");
    const Result result = boot();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("boot 1: the start-up command ended with status 9 after "));
    EXPECT_THAT(result.out, Not(HasSubstr("the card is up")));
}

TEST_F(CommandTest, ReloadsAsOftenAsTheResetScriptAsksForIt) {
    describe(
        "echo x >>/misc/scratch/boots; test $(wc -l </misc/scratch/boots) -gt 2 || "
        "/usr/local/etc/reset_board.sh -a -r \"Auto FPD Upgrade activation\" -b 36");
    const Result result = boot();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(read_file(state_ / "scratch/boots"), "x\nx\nx\n");
    EXPECT_THAT(result.out, HasSubstr("boot 1: reload requested: /usr/local/etc/reset_board.sh '-a' '-r' 'Auto FPD "
                                      "Upgrade activation' '-b' '36'\nboot 2: reload: "));
    EXPECT_THAT(result.out, HasSubstr("boot 3: the card is up\n"));
}

TEST_F(CommandTest, TheFirstPowerOnRunsWhatIsDescribedALaterOneWhatIsProgrammed) {
    ASSERT_EQ(exec("true").status, 0);
    EXPECT_THAT(boot().out, StartsWith("boot 1: power on"));
    EXPECT_THAT(show(), HasSubstr("IoFpga  1.0.0    1.1.0"));
    EXPECT_THAT(boot().out, StartsWith("boot 2: power on"));
    EXPECT_THAT(show(), HasSubstr("IoFpga  1.1.0    1.1.0"));
}

TEST_F(CommandTest, APowerOnWithoutASandboxIsABootOfItsOwnButRunsNothing) {
    describe("touch /misc/scratch/ran");
    const Result first = run({"power-on", card_.string()});
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out, "boot 1: power on\n");
    EXPECT_EQ(names_in(state_), whole_state);
    EXPECT_THAT(show(), HasSubstr("IoFpga  1.0.0    1.1.0"));
    write_file(state_ / "reset_request", "/usr/local/etc/reset_board.sh\n");
    EXPECT_EQ(run({"power-on", card_.string()}).out, "boot 2: power on\n");
    EXPECT_THAT(show(), HasSubstr("IoFpga  1.1.0    1.1.0"));
    EXPECT_EQ(names_in(state_), whole_state);
    EXPECT_THAT(boot().out, StartsWith("boot 3: power on"));
}

TEST_F(CommandTest, GivesUpAfterTheAllowedBoots) {
    describe("echo x >>/misc/scratch/boots; /usr/local/etc/reset_board.sh");
    const Result result = boot({"--max-boots", "3"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(read_file(state_ / "scratch/boots"), "x\nx\nx\n");
    EXPECT_THAT(result.err, HasSubstr("gave up: the card did not come up in 3 boots"));
}

TEST_F(CommandTest, FiveBootsAreAllowedByDefault) {
    describe("echo x >>/misc/scratch/boots; /usr/local/etc/reset_board.sh");
    EXPECT_EQ(boot().status, 3);
    EXPECT_EQ(read_file(state_ / "scratch/boots"), "x\nx\nx\nx\nx\n");
}

TEST_F(CommandTest, TheCardGoesDownAShortWhileAfterTheResetRequest) {
    describe(
        "test -e /misc/scratch/once && exit 0; touch /misc/scratch/once; /usr/local/etc/reset_board.sh; "
        "touch /misc/scratch/grace; sleep 60; touch /misc/scratch/later");
    const Result result = boot();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("boot 1: the card was powered off after "));
    EXPECT_TRUE(fs::exists(state_ / "scratch/grace"));
    EXPECT_FALSE(fs::exists(state_ / "scratch/later"));
}

TEST_F(CommandTest, AResetScriptThatFailsReloadsNothing) {
    describe("/usr/local/etc/reset_board.sh -b 36; exit $?", "[scripts]\nreset = 6\n");
    const Result result = boot();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("ended with status 6"));
    EXPECT_EQ(read_file(state_ / "scripts.log"), "/usr/local/etc/reset_board.sh '-b' '36'\n");
}

TEST_F(CommandTest, AnUnpunchedWatchdogReloadsTheCard) {
    describe("test -e /misc/scratch/once && exit 0; touch /misc/scratch/once; sleep 60", "[watchdog]\ntimeout = 6.0\n");
    const auto begun = std::chrono::steady_clock::now();
    const Result result = boot({"--speed", "20"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(20));
    EXPECT_EQ(read_file(state_ / "scripts.log"), "watchdog expired\n");
    EXPECT_THAT(result.err, HasSubstr("boot 1: the watchdog was not punched in time"));
    EXPECT_THAT(result.out,
                AllOf(HasSubstr("boot 1: the card was powered off after "), HasSubstr("boot 2: the card is up\n")));
}

TEST_F(CommandTest, WatchdogReloadsAreBootsThatCount) {
    describe("sleep 60", "[watchdog]\ntimeout = 0.1\n");
    const Result result = boot({"--max-boots", "2"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(read_file(state_ / "scripts.log"), "watchdog expired\nwatchdog expired\n");
}

TEST_F(CommandTest, APunchedWatchdogKeepsStill) {
    describe("for i in 1 2 3 4 5 6 7 8 9 10 11 12; do sleep 0.12; /usr/local/etc/punch-watchdog-once.sh; done",
             "[watchdog]\ntimeout = 1.0\n");
    const Result result = boot();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(count_of(read_file(state_ / "scripts.log"), "/usr/local/etc/punch-watchdog-once.sh\n"), 12U);
    EXPECT_EQ(count_of(read_file(state_ / "scripts.log"), "watchdog expired"), 0U);
}

TEST_F(CommandTest, AWatchdogScriptThatFailsIsNoPunch) {
    describe(
        "test -e /misc/scratch/once && exit 0; touch /misc/scratch/once; "
        "while sleep 0.1; do /usr/local/etc/punch-watchdog-once.sh; done",
        "[watchdog]\ntimeout = 0.5\n[scripts]\nwatchdog = 1\n");
    EXPECT_EQ(boot().status, 0);
    EXPECT_THAT(read_file(state_ / "scripts.log"), EndsWith("watchdog expired\n"));
}

TEST_F(CommandTest, ReportsAnAbort) {
    describe("echo 'cardsim: brd_fpd_upgrade: dirty byte 9' >>${CARDSIM_STATE:?}/abort.log; kill -ABRT $$");
    const Result first = boot();
    EXPECT_EQ(first.status, 4);
    EXPECT_THAT(first.err, HasSubstr("boot 1: aborted: cardsim: brd_fpd_upgrade: dirty byte 9\n"));
    describe("true");
    EXPECT_EQ(boot().status, 0) << "an earlier abort is past";
}

TEST_F(CommandTest, AnAbortIsReportedAlsoWhenTheCardAsksForAReload) {
    describe("echo 'cardsim: x: y' >>${CARDSIM_STATE:?}/abort.log; /usr/local/etc/reset_board.sh");
    EXPECT_EQ(boot().status, 4);
}

TEST_F(CommandTest, ReportsASignal) {
    describe("kill -SEGV $$");
    const Result result = boot();
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.err, HasSubstr("boot 1: the start-up command was killed by signal 11 (Segmentation fault)\n"));
}

TEST_F(CommandTest, ASignalEndsTheBootAndTheCard) {
    describe("trap 'touch /misc/scratch/term; exit 0' TERM; touch /misc/scratch/ready; while :; do sleep 0.05; done");
    const pid_t command = start({"boot", card_.string()});
    ASSERT_TRUE(wait_for_file(state_ / "scratch/ready"));
    kill(command, SIGTERM);
    EXPECT_EQ(end_of(command).status, 128 + SIGTERM);
    EXPECT_TRUE(fs::exists(state_ / "scratch/term"));
}

TEST_F(CommandTest, OneBootAtATime) {
    describe("touch /misc/scratch/ready; while ! test -e /misc/scratch/go; do sleep 0.02; done");
    const pid_t first = start({"boot", card_.string()});
    ASSERT_TRUE(wait_for_file(state_ / "scratch/ready"));
    const Result second = boot();
    EXPECT_EQ(second.status, 2);
    EXPECT_THAT(second.err, HasSubstr("in use"));
    write_file(state_ / "scratch/go", "");
    EXPECT_EQ(end_of(first).status, 0);
}

// ---- what is wrong with a card

TEST_F(CommandTest, ABrokenCardIsNamedByLineAndNothingIsWritten) {
    describe("true", "bord_type = 1\n");
    for (const char *command : {"boot", "show"}) {
        const Result result = run({command, card_.string()});
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, StartsWith((card_ / "card.toml").string() + ":8: "));
        EXPECT_EQ(count_of(result.err, "\n"), 1U);
        EXPECT_THAT(result.out, IsEmpty());
    }
    EXPECT_EQ(exec("true").status, 2);
    EXPECT_THAT(names_in(card_), ElementsAre("card.toml"));
}

TEST_F(CommandTest, ACardThatIsNotThereIsNamed) {
    const Result result = run({"boot", (root_ / "nowhere").string()});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr((root_ / "nowhere").string()));
    EXPECT_FALSE(fs::exists(root_ / "nowhere"));
}

TEST_F(CommandTest, AStateThatCannotBeMadeLeavesNothing) {
    fs::create_directories(card_ / "images/io.img");
    EXPECT_EQ(boot().status, 125);
    EXPECT_THAT(names_in(card_), ElementsAre("card.toml", "images"));
}

TEST_F(CommandTest, ADirectoryOfOtherFilesBecomesNoState) {
    fs::create_directory(root_ / "mine");
    write_file(root_ / "mine/letter", "dear");
    const Result result = boot({"--state", (root_ / "mine").string()});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, StartsWith((root_ / "mine").string() + ": "));
    EXPECT_THAT(names_in(root_ / "mine"), ElementsAre("letter"));
}

TEST_F(CommandTest, AnEmptyDirectoryMayBecomeTheState) {
    fs::create_directory(root_ / "empty");
    EXPECT_EQ(boot({"--state", (root_ / "empty").string()}).status, 0);
    EXPECT_TRUE(fs::exists(root_ / "empty/state.toml"));
    EXPECT_FALSE(fs::exists(state_));
}

TEST_F(CommandTest, WhereNamespacesAreForbiddenOneLineSaysSoAndNothingIsWritten) {
    const long user = syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (user == 0) {
        write_file("/proc/sys/user/max_user_namespaces", "0");
        _exit(boot().status);
    }
    int status = 0;
    waitpid(static_cast<pid_t>(user), &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 125);
    EXPECT_THAT(read_file(root_ / "err"), AllOf(StartsWith("cardsim: no sandbox: "), HasSubstr("max_user_namespaces")));
    EXPECT_EQ(count_of(read_file(root_ / "err"), "\n"), 1U);
    EXPECT_THAT(names_in(card_), ElementsAre("card.toml"));
}

// ---- what a stranger may have made

struct Surprise {
    const char *what;
    const char *where;  ///< in the state directory
    void (*make)(const fs::path &name, const fs::path &victim);
};

class StrangersStateTest : public CommandTest, public testing::WithParamInterface<Surprise> {};

TEST_P(StrangersStateTest, IsRefusedAndWritesNothingOutside) {
    describe("echo line >>/var/log/fpd.log", "[watchdog]\ntimeout = 60.0\n");
    ASSERT_EQ(boot().status, 0);
    write_file(root_ / "victim", "precious");
    const fs::path place = state_ / GetParam().where;
    fs::permissions(state_, fs::perms{0777});  // others may have been at it
    fs::remove_all(place);
    GetParam().make(place, root_ / "victim");
    for (const Result &result : {boot(), exec("echo line >>/var/log/fpd.log")}) {
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, AllOf(StartsWith(place.string() + ": "), HasSubstr("a ")));
        EXPECT_EQ(count_of(result.err, "\n"), 1U) << result.err;
        EXPECT_THAT(result.out, IsEmpty());
    }
    EXPECT_EQ(read_file(root_ / "victim"), "precious");
}

constexpr auto a_link = [](const fs::path &name, const fs::path &victim) { fs::create_symlink(victim, name); };
constexpr auto a_link_to_a_directory = [](const fs::path &name, const fs::path &victim) {
    fs::create_directory_symlink(victim.parent_path(), name);
};
constexpr auto another_name = [](const fs::path &name, const fs::path &victim) { fs::create_hard_link(victim, name); };
constexpr auto a_fifo = [](const fs::path &name, const fs::path &) { ASSERT_EQ(mkfifo(name.c_str(), 0600), 0); };

INSTANTIATE_TEST_SUITE_P(
    , StrangersStateTest,
    testing::Values(Surprise{"state", "state.toml", a_link}, Surprise{"state_fifo", "state.toml", a_fifo},
                    Surprise{"new_state", ".state.toml.new", a_link}, Surprise{"calls", "calls.log", a_link},
                    Surprise{"scripts", "scripts.log", a_link}, Surprise{"scripts_fifo", "scripts.log", a_fifo},
                    Surprise{"aborts", "abort.log", another_name}, Surprise{"faults", "faults.log", a_link},
                    Surprise{"keys", "kd_bootstrap", a_link}, Surprise{"new_keys", ".kd_bootstrap.new", a_link},
                    Surprise{"power", "power", a_link}, Surprise{"power_fifo", "power", a_fifo},
                    Surprise{"power_name", "power", another_name}, Surprise{"reset", "reset_request", a_link},
                    Surprise{"punches", "watchdog_punches", a_link}, Surprise{"log", "log", a_link_to_a_directory},
                    Surprise{"flash", "flash", a_link_to_a_directory},
                    Surprise{"scratch", "scratch", a_link_to_a_directory},
                    Surprise{"packages", "pkg", a_link_to_a_directory}, Surprise{"etc", "etc", a_link_to_a_directory},
                    Surprise{"bin", "bin", a_link_to_a_directory}, Surprise{"image", "pkg/io.img", a_link},
                    Surprise{"new_image", "pkg/.io.img.new", a_link}, Surprise{"script", "etc/reset_board.sh", a_link},
                    Surprise{"log_of_the_tool", "log/fpd.log", a_link}),
    [](const testing::TestParamInfo<Surprise> &surprise) { return surprise.param.what; });

TEST_F(CommandTest, AStateThatIsALinkIsRefusedUnlessItIsNamed) {
    fs::create_directory(root_ / "elsewhere");
    fs::create_directory_symlink(root_ / "elsewhere", state_);
    const Result result = boot();
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, AllOf(StartsWith(state_.string() + ": a symbolic link"), HasSubstr("--state")));
    EXPECT_THAT(names_in(root_ / "elsewhere"), IsEmpty());
    EXPECT_EQ(boot({"--state", state_.string()}).status, 0);
}

TEST_F(CommandTest, ACardThatIsALinkIsTheCardItself) {
    fs::create_directory_symlink(card_, root_ / "link");
    EXPECT_EQ(run({"boot", (root_ / "link").string()}).status, 0);
    EXPECT_TRUE(fs::exists(state_ / "state.toml"));
}

TEST_F(CommandTest, AnUnfinishedStateOfAStrangerIsNotFollowed) {
    fs::create_directory(root_ / "elsewhere");
    write_file(root_ / "elsewhere/letter", "dear");
    fs::create_directory_symlink(root_ / "elsewhere", card_ / ".state.new");
    EXPECT_EQ(boot().status, 2);
    EXPECT_THAT(names_in(root_ / "elsewhere"), ElementsAre("letter"));
}

TEST_F(CommandTest, NoLinkIsFollowedThatTheCardMakesWhileItRuns) {
    write_file(root_ / "victim", "precious");
    const std::string victim = (root_ / "victim").string();
    describe("cd ${CARDSIM_STATE:?} && rm -f scripts.log && ln -s " + victim + " scripts.log; sleep 60",
             "[watchdog]\ntimeout = 0.3\n");
    EXPECT_EQ(boot().status, 2);
    EXPECT_EQ(read_file(victim), "precious");
    fs::remove_all(state_);
    describe("/usr/local/etc/reset_board.sh; cd ${CARDSIM_STATE:?} && rm state.toml && ln -s " + victim +
             " state.toml");
    EXPECT_EQ(boot().status, 2);
    EXPECT_EQ(read_file(victim), "precious");
}

TEST_F(CommandTest, TheStateStaysTheSameWhateverTheCardPutsInItsPlace) {
    fs::create_directory(root_ / "elsewhere");
    describe("test -e /misc/scratch/once && exit; touch /misc/scratch/once; cd " + card_.string() +
             " && mv state moved && ln -s " + (root_ / "elsewhere").string() + " state; /usr/local/etc/reset_board.sh");
    EXPECT_EQ(boot().status, 0);
    EXPECT_THAT(names_in(root_ / "elsewhere"), IsEmpty());
    EXPECT_THAT(read_file(card_ / "moved/state.toml"), HasSubstr("boot = 2"));
}

TEST_F(CommandTest, TheCardsDirectoryIsNotWhatTheCardPutsInItsPlace) {
    fs::create_directory(root_ / "elsewhere");
    describe("touch /.cardsim/card/mark; cd " + root_.string() +
             " && mv card moved && ln -s elsewhere card; /usr/local/etc/reset_board.sh");
    const Result result = boot();
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, StartsWith(card_.string() + ": a symbolic link"));
    EXPECT_THAT(names_in(root_ / "elsewhere"), IsEmpty());
    EXPECT_THAT(names_in(root_ / "moved"), ElementsAre("card.toml", "mark", "state"));
}

TEST_F(CommandTest, ADescriptionThatNobodyWritesIsNotWaitedFor) {
    fs::remove(card_ / "card.toml");
    ASSERT_EQ(mkfifo((card_ / "card.toml").c_str(), 0600), 0);
    EXPECT_EQ(boot().status, 2);
    EXPECT_THAT(read_file(root_ / "err"), HasSubstr("not a plain file"));
}

TEST_F(CommandTest, NothingOnTheTerminalIsObeyed) {
    const fs::path odd = card_ / "\x1b[31m.toml";
    write_file(odd, card_text("true", "\"\\u001b]0;mine\\u0007\" = 1\n"));
    EXPECT_EQ(run({"show", odd.string()}).err,
              (card_ / "\\x1b[31m.toml:8: [card]: unknown key '\\x1b]0;mine\\x07'\n").string());
    write_file(card_ / "card.toml", card_text("printf '\\033[2J' >/dev/null") +
                                        "depends_on = \"\xc2\x9b"
                                        "1m\"\n");
    EXPECT_THAT(show(), HasSubstr("\\xc2\\x9b1m"));
    std::string startup = card_text("true");
    startup.replace(startup.find("'''true'''"), 10, "\"true # \\u001b[2J\\n\\t:\"");
    write_file(card_ / "card.toml", startup);
    EXPECT_THAT(boot().out, HasSubstr(": true # \\x1b[2J\\n\\t:\n"));
    describe("printf 'cardsim: \\033[2J\\n' >>${CARDSIM_STATE:?}/abort.log");
    EXPECT_THAT(boot().err, HasSubstr("aborted: cardsim: \\x1b[2J\n"));
    describe("/usr/local/etc/reset_board.sh $(printf '\\033[2J')");
    EXPECT_THAT(boot({"--max-boots", "1"}).out, HasSubstr("requested: /usr/local/etc/reset_board.sh '\\x1b[2J'\n"));
    fs::create_symlink("x", state_ / "log" / "\x1b[2J");
    EXPECT_THAT(boot().err, StartsWith((state_ / "log/\\x1b[2J: ").string()));
}

// ---- what a killed command leaves

TEST_F(CommandTest, WhatAKilledCommandLeftGoesAtTheNextPowerOn) {
    fs::create_directories(card_ / ".state.new/pkg");
    write_file(card_ / ".state.new/pkg/.io.img.new", "half");
    write_file(card_ / ".state.new/letter", "");
    ASSERT_EQ(exec("true").status, 0);
    EXPECT_THAT(names_in(card_), ElementsAre("card.toml", "state"));
    EXPECT_EQ(names_in(state_), whole_state);
    EXPECT_THAT(names_in(state_ / "pkg"), ElementsAre("io.img"));
    for (const char *how : {"boot", "exec"}) {
        for (const char *name :
             {".state.toml.new", ".kd_bootstrap.new", "pkg/.io.img.new", "etc/.reset_board.sh.new"}) {
            write_file(state_ / name, "half");
        }
        EXPECT_EQ((how == std::string("boot") ? boot() : exec("true")).status, 0);
        EXPECT_EQ(names_in(state_), whole_state) << how;
        EXPECT_THAT(names_in(state_ / "pkg"), ElementsAre("io.img"));
        EXPECT_THAT(names_in(state_ / "etc"), testing::SizeIs(3));
    }
}

TEST_F(CommandTest, WhatAnotherCommandIsWritingStays) {
    const pid_t first =
        start({"exec", card_.string(), "--", "sh", "-c",
               "touch ${CARDSIM_STATE:?}/.state.toml.new /misc/scratch/ready; "
               "while ! test -e /misc/scratch/go; do sleep 0.02; done; rm ${CARDSIM_STATE:?}/.state.toml.new"});
    ASSERT_TRUE(wait_for_file(state_ / "scratch/ready"));
    EXPECT_EQ(exec("true").status, 0);
    EXPECT_TRUE(fs::exists(state_ / ".state.toml.new"));
    write_file(state_ / "scratch/go", "");
    EXPECT_EQ(end_of(first).status, 0);
}

TEST_F(CommandTest, ACommandKilledAtAnyMomentLeavesNothingInTheWay) {
    for (int moment = 0; moment < 25; ++moment) {
        const pid_t command = start({"exec", card_.string(), "--", "true"});
        usleep(static_cast<useconds_t>(moment) * 800);
        kill(command, SIGKILL);
        waitpid(command, nullptr, 0);
        if (moment % 3 != 0) continue;
        for (int attempt = 0; attempt < 500 && exec("true").status == 2; ++attempt) usleep(10'000);
        EXPECT_THAT(names_in(card_), ElementsAre("card.toml", "state"));
        fs::remove_all(state_);
    }
}

TEST_F(CommandTest, CommandsThatStartAtTheSameTimeAreNotInEachOthersWay) {
    ASSERT_EQ(exec("true").status, 0);
    // Enough to remove for the first one that the others come meanwhile.
    for (int file = 0; file < 1000; ++file) write_file(state_ / "pkg" / ("." + std::to_string(file) + ".new"), "");
    std::vector<pid_t> commands;
    for (int command = 0; command < 6; ++command) commands.push_back(start({"exec", card_.string(), "--", "true"}));
    for (const pid_t command : commands) EXPECT_EQ(end_of(command).status, 0) << read_file(root_ / "err");
}

// ---- what the card has of the caller

TEST_F(CommandTest, TheEnvironmentIsTheCards) {
    describe("env");
    setenv("CARDSIM_TEST_SECRET", "secret", 1);
    setenv("LD_LIBRARY_PATH", "/nowhere", 1);
    setenv("TZ", "XYZ-3:30", 1);
    setenv("LSAN_OPTIONS", "exitcode=7", 1);
    const Result plain = exec("env");
    EXPECT_THAT(lines_of(plain.out), testing::IsSupersetOf({"HOME=/", "TZ=XYZ-3:30", "LSAN_OPTIONS=exitcode=7"}));
    EXPECT_THAT(plain.out, AllOf(Not(HasSubstr("SECRET")), Not(HasSubstr("LD_LIBRARY_PATH"))));
    EXPECT_THAT(boot({"--env", "CARDSIM_TEST_SECRET", "--env", "OTHER=a=b", "--env", "EMPTY=", "--env", "HOME=/tmp",
                      "--env", "CARDSIM_TEST_UNKNOWN"})
                    .out,
                AllOf(HasSubstr("\nCARDSIM_TEST_SECRET=secret\n"), HasSubstr("\nOTHER=a=b\n"), HasSubstr("\nEMPTY=\n"),
                      HasSubstr("\nHOME=/tmp\n"), Not(HasSubstr("UNKNOWN"))));
    for (const char *name : {"CARDSIM_TEST_SECRET", "LD_LIBRARY_PATH", "TZ", "LSAN_OPTIONS"}) unsetenv(name);
    EXPECT_GE(boot({"--env", "=x"}).status, 100);
}

TEST_F(CommandTest, NoOpenFileOfTheCallerReachesTheCard) {
    const int root = open("/", O_RDONLY | O_DIRECTORY);  // inherited by what is started now
    const Result result = exec("test -d /proc/self/fd/" + std::to_string(root));
    close(root);
    EXPECT_EQ(result.status, 1);
}

TEST_F(CommandTest, TheHostsNetworkIsThereWhenItIsAskedFor) {
    const std::string host = fs::read_symlink("/proc/self/ns/net").string() + "\n";
    EXPECT_NE(exec("readlink /proc/self/ns/net").out, host);
    EXPECT_EQ(exec_with({"--network", "--", "readlink", "/proc/self/ns/net"}).out, host);
}

// ---- exec

TEST_F(CommandTest, ExecPassesStatusAndStandardStreamsThrough) {
    const Result result = exec("read line; echo \"got $line\"; echo oops >&2; exit 42", "some input\n");
    EXPECT_EQ(result.status, 42);
    EXPECT_EQ(result.out, "got some input\n");
    EXPECT_EQ(result.err, "oops\n");
}

TEST_F(CommandTest, AnIgnoredChildSignalLosesNoStatus) {
    std::signal(SIGCHLD, SIG_IGN);  // inherited by what is started now
    const pid_t command = start({"exec", card_.string(), "--", "sh", "-c", "exit 42"});
    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(end_of(command).status, 42);
}

TEST_F(CommandTest, ExecTakesOptionsBehindTheDashes) {
    const Result result = exec_with({"--speed", "3", "--", "echo", "-b", "--state", "--", "x"});
    EXPECT_EQ(result.out, "-b --state -- x\n");
}

TEST_F(CommandTest, ExecReportsSignalsAndCommandsThatCannotRun) {
    EXPECT_EQ(exec("kill -KILL $$").status, 128 + SIGKILL);
    EXPECT_EQ(exec_with({"--", "no-such-command"}).status, 127);
    const Result result = exec_with({"--", "/etc/passwd"});
    EXPECT_EQ(result.status, 126);
    EXPECT_EQ(result.err, "cardsim: /etc/passwd: Permission denied\n");
}

TEST_F(CommandTest, ExecTellsTheLibraryItsCard) {
    const Result result = exec_with({"--speed", "7", "--", "sh", "-c",
                                     "echo $CARDSIM_SPEED; cmp $CARDSIM_CARD " + (card_ / "card.toml").string() +
                                         " && cmp $CARDSIM_STATE/state.toml " + (state_ / "state.toml").string() +
                                         "; command -v cardsim"});
    EXPECT_EQ(result.out, "7\n" + std::string(CARDSIM_COMMAND) + "\n") << result.err;
}

TEST_F(CommandTest, ExecShowsTheCard) {
    EXPECT_EQ(exec("ls /pkg/fpd/ucode; head -1 /dev/kd_bootstrap; echo line >>/var/log/fpd.log").out,
              "io.img\nPD_CARD_TYPE=12568\n");
    EXPECT_EQ(read_file(state_ / "log/fpd.log"), "line\n");
}

TEST_F(CommandTest, ExecCountsNoBootAndReloadsNothing) {
    ASSERT_EQ(exec("/usr/local/etc/reset_board.sh").status, 0);
    EXPECT_THAT(show(), AllOf(HasSubstr("boot 1,"), HasSubstr("IoFpga  1.0.0    1.1.0")));
    EXPECT_THAT(boot().out, StartsWith("boot 2: power on")) << "the request stands until the next power-on";
}

TEST_F(CommandTest, ExecTakesADescriptionAsWell) {
    write_file(root_ / "other.toml", card_text("true"));
    EXPECT_EQ(run({"exec", (root_ / "other.toml").string(), "--", "sh", "-c", "exit 5"}).status, 5);
    EXPECT_TRUE(fs::exists(root_ / "state/state.toml"));
}

TEST_F(CommandTest, ASignalReachesTheCommandOnTheCard) {
    const pid_t command = start({"exec", card_.string(), "--", "sh", "-c",
                                 "trap 'exit 33' TERM; touch /misc/scratch/ready; while :; do sleep 0.05; done"});
    ASSERT_TRUE(wait_for_file(state_ / "scratch/ready"));
    kill(command, SIGTERM);
    EXPECT_EQ(end_of(command).status, 33);
}

// ---- the scripts

TEST_F(CommandTest, ScriptsRecordTheirArgumentsExactly) {
    ASSERT_EQ(exec("/usr/local/etc/send_fpd_doorbell_event.sh  -e started -m \"it's 'a' \\$x \\\\n\"\n"
                   "/usr/local/etc/punch-watchdog-once.sh\n"
                   "grub-reboot KALDOR-latest\n"
                   "/usr/local/etc/reset_board.sh  -r '' -b 36\n")
                  .status,
              0);
    EXPECT_THAT(
        lines_of(read_file(state_ / "scripts.log")),
        ElementsAre(R"(/usr/local/etc/send_fpd_doorbell_event.sh '-e' 'started' '-m' 'it'\''s '\''a'\'' $x \n')",
                    "/usr/local/etc/punch-watchdog-once.sh", "/usr/sbin/grub-reboot 'KALDOR-latest'",
                    "/usr/local/etc/reset_board.sh '-r' '' '-b' '36'"));
}

TEST_F(CommandTest, ScriptsEndAsDescribed) {
    describe("true", "[scripts]\nevent = 3\nwatchdog = 4\nreset = 5\ngrub_reboot = 6\n");
    EXPECT_EQ(exec("for s in /usr/local/etc/send_fpd_doorbell_event.sh /usr/local/etc/punch-watchdog-once.sh "
                   "/usr/local/etc/reset_board.sh grub-reboot; do $s; echo $?; done")
                  .out,
              "3\n4\n5\n6\n");
}

TEST_F(CommandTest, CallsAtTheSameTimeStayLines) {
    ASSERT_EQ(exec("for i in 1 2 3 4 5 6 7 8; do (for j in 1 2 3 4 5; do "
                   "/usr/local/etc/send_fpd_doorbell_event.sh -m 'some text'; done) & done; wait")
                  .status,
              0);
    const std::vector<std::string> lines = lines_of(read_file(state_ / "scripts.log"));
    EXPECT_EQ(lines.size(), 40U);
    EXPECT_THAT(lines, testing::Each("/usr/local/etc/send_fpd_doorbell_event.sh '-m' 'some text'"));
}

TEST_F(CommandTest, CheckFlashMountsTheFlashAfterItsTime) {
    describe("true", "[obfl]\nmount_time = 10.0\n");
    const Result result = exec_with(
        {"--speed", "50", "--", "sh", "-c",
         "mountpoint -q /mnt/obfl && echo early; a=$(date +%s%N); timeout 5m /usr/sbin/check-flash start obfl;"
         "echo $?; b=$(date +%s%N); test $((b - a)) -ge 200000000 && echo took its time;"
         "mountpoint -q /mnt/obfl && echo mounted; echo line >/mnt/obfl/log; /usr/sbin/check-flash start obfl;"
         "timeout 30s /usr/sbin/check-flash stop obfl; echo $?; mountpoint -q /mnt/obfl || echo gone"});
    EXPECT_EQ(result.out, "0\ntook its time\nmounted\n0\ngone\n") << result.err;
    EXPECT_EQ(read_file(state_ / "flash/log"), "line\n");
}

TEST_F(CommandTest, CheckFlashFailsAsDescribed) {
    describe("true", "[obfl]\nmount_time = 0.0\nmount_fails = true\n");
    EXPECT_EQ(exec("/usr/sbin/check-flash start obfl; echo $?; mountpoint -q /mnt/obfl || echo none").out, "1\nnone\n");
    describe("true", "[obfl]\nmount_time = 0.0\nunmount_fails = true\n");
    EXPECT_EQ(exec("/usr/sbin/check-flash start obfl; /usr/sbin/check-flash stop obfl; echo $?; mountpoint -q "
                   "/mnt/obfl && echo still")
                  .out,
              "1\nstill\n");
}

TEST_F(CommandTest, AFlashMayBeMountedFromTheStart) {
    describe("mountpoint -q /mnt/obfl && echo mounted", "[obfl]\nmounted = true\n");
    EXPECT_THAT(boot().out, HasSubstr("\nmounted\n"));
    EXPECT_EQ(exec("mountpoint -q /mnt/obfl && echo mounted").out, "mounted\n");
}

// ---- show, new, usage

TEST_F(CommandTest, ShowsTheDescribedValuesBeforeTheFirstPowerOn) {
    describe("true", "upgrade_mode = \"mfg\"\n");
    const Result result = run({"show", card_.string()});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "SIM-T in slot 2, boot 1, auto-upgrade enabled, upgrade mode mfg\n\n"
              "REGION  RUNNING  PROGRAMMED  PACKAGED  DEPENDS ON\n"
              "IoFpga  1.0.0    1.1.0       -\n\n"
              "LED Status: steady amber\n");
    EXPECT_THAT(names_in(card_), ElementsAre("card.toml"));
}

TEST_F(CommandTest, NewMakesACardThatBoots) {
    const fs::path made = root_ / "made";
    ASSERT_EQ(run({"new", made.string()}).status, 0);
    EXPECT_THAT(names_in(made), ElementsAre("card.toml", "images"));
    EXPECT_THAT(run({"show", made.string()}).out, HasSubstr("IoFpga   1.2.0    1.2.0       1.3.0\n"));
    EXPECT_EQ(run({"exec", made.string(), "--", "ls", "/pkg/fpd/ucode"}).out, "bootrom-4.1.0.img\niofpga-1.3.0.img\n");
    EXPECT_EQ(read_file(made / "images/iofpga-1.3.0.img"), read_file(made / "state/pkg/iofpga-1.3.0.img"));
}

TEST_F(CommandTest, NewRefusesADirectoryThatHoldsSomething) {
    fs::create_directory(root_ / "made");
    write_file(root_ / "made/letter", "dear");
    const Result result = run({"new", (root_ / "made").string()});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("not empty"));
    EXPECT_THAT(names_in(root_ / "made"), ElementsAre("letter"));
    fs::remove(root_ / "made/letter");
    EXPECT_EQ(run({"new", (root_ / "made").string()}).status, 0);
}

TEST_F(CommandTest, TellsTheVersionOfTheProject) {
    const Result result = run({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "cardsim " CARDSIM_VERSION "\n");
}

TEST_F(CommandTest, UsageErrorsAreRefused) {
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{},
                                                      {"boot"},
                                                      {"exec", card_.string()},
                                                      {"boot", card_.string(), "--speed", "0"},
                                                      {"boot", card_.string(), "--speed", "1000001"},
                                                      {"boot", card_.string(), "--max-boots", "0"},
                                                      {"destroy", card_.string()}}) {
        EXPECT_GE(run(arguments).status, 100);
    }
    EXPECT_EQ(run({"--help"}).status, 0);
    EXPECT_FALSE(fs::exists(state_));
}

TEST_F(CommandTest, EveryStoryCardCanBeShownAndTellsItsStory) {
    for (const std::string &story : names_in(CARDSIM_CARDS)) {
        const fs::path card = fs::path(CARDSIM_CARDS) / story;
        if (!fs::is_directory(card)) continue;
        const Result result = run({"show", card.string(), "--state", (root_ / "state").string()});
        EXPECT_EQ(result.status, 0) << story << result.err;
        EXPECT_THAT(read_file(card / "card.toml"), StartsWith("# ")) << story;
    }
    EXPECT_THAT(names_in(CARDSIM_CARDS), testing::IsSupersetOf({"current", "fresh", "golden-locked", "flaky", "hanging",
                                                                "reload-loop", "many", "four-reasons"}));
}

}  // namespace
