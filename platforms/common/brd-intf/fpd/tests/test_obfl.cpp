#include "brd_intf_auto_fpd_obfl.h"

#include <regex.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include "interpose.h"
#include "run_support.h"

namespace {

namespace fs = std::filesystem;

using interpose::Call;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *mount_line = "timeout 5m /usr/sbin/check-flash start obfl";
constexpr const char *unmount_line = "timeout 30s /usr/sbin/check-flash stop obfl";
constexpr const char *mountpoint_line = "mountpoint /mnt/obfl";
constexpr const char *no_directory = "Failed to OBFL directory name: /mnt/obfl, error Input/output error'";

std::string flash_file(const std::string &name) {
    return "/mnt/obfl/" + name;
}

/// The flash is no mount point until the test, or its mount command, says so.
struct Obfl : RunTest {
    Obfl() {
        fake_platform().commands = {command("mountpoint", 32, "not a mount point"), command("timeout 5m"),
                                    command("timeout 30s")};
        clear_log();
    }

    static FakeCommand command(const std::string &prefix, int rc = 0, const std::string &error = "") {
        return {.prefix = prefix, .rc = rc, .error = error};
    }
    static void set_mounted(bool mounted) {
        const std::lock_guard guard(fake_platform().lock);
        fake_platform().commands[0].rc = mounted ? 0 : 32;
    }
    static FakeCommand &mount_command() { return fake_platform().commands[1]; }
    static FakeCommand &unmount_command() { return fake_platform().commands[2]; }
    /// From here on the mount command waits for the gate, and mounts then, unless told otherwise.
    static void mount_waits(const Gate &gate, bool mounts = true) {
        mount_command().effect = [gate, mounts] {
            gate.pass();
            set_mounted(mounts);
        };
    }
    /// Writes the first line, after which the mount thread comes to its end.
    static void write_first_line(bool mounts = true) {
        const Gate gate;
        mount_waits(gate, mounts);
        fpd_obfl_log("one");
        EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::thread_started);
        gate.open();
        await_mount();
    }
    static void await_mount() {
        ASSERT_TRUE(eventually([] { return obfl_context().mounted_here.load(); }));
    }

    int operate(int operation) { return obfl_flash_operation(operation, err_msg, sizeof err_msg); }
    int latest_file() { return obfl_latest_file_get(&path, err_msg, sizeof err_msg); }
    int move_log() { return obfl_move_temp_log(err_msg, sizeof err_msg); }

    const char *path = nullptr;
};

// Lines ---------------------------------------------------------------------------------------------------------------

TEST_F(Obfl, WritesALineWithItsTimeAndSource) {
    fpd_obfl_log("FPD '%s' Started to upgrade version %s", "IoFpga", "1.12.0");
    EXPECT_THAT(read_file(event_log_path),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [A-Z]+ \\[Bootup FPD\\] "
                                      "FPD 'IoFpga' Started to upgrade version 1\\.12\\.0\n"));
}

TEST_F(Obfl, AppendsLinesOfAnyLength) {
    const std::string long_text(10'000, 'x');
    for (const char *text : {"first", long_text.c_str(), "last"}) fpd_obfl_log("%s", text);
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("first", long_text, "last"));
}

TEST_F(Obfl, DropsALineThatCannotBeWritten) {
    fs::create_directory(event_log_path);
    fpd_obfl_log("lost");
    expect_log(obfl_module, "ERROR", "ObflLog",
               "Failed to open FPD OBFL log file /var/log/fpd_obfl_log.txt, error Is a directory");
}

TEST_F(Obfl, StampsLocalTimeIn32Bytes) {
    setenv("TZ", "XYZ-3:30", 1);
    tzset();
    char text[32] = "untouched";
    fpd_obfl_timestamp(text, 31);
    EXPECT_STREQ(text, "untouched");
    const std::time_t before = std::time(nullptr);
    fpd_obfl_timestamp(text, sizeof text);
    unsetenv("TZ");
    tzset();
    std::tm parsed{};
    const char *const rest = strptime(text, "%Y-%m-%d %H:%M:%S", &parsed);
    ASSERT_NE(rest, nullptr) << text;
    EXPECT_STREQ(rest, " XYZ");
    EXPECT_NEAR(static_cast<double>(timegm(&parsed)), static_cast<double>(before + 3 * 3600 + 1800), 2);
}

// The flash at the first line -----------------------------------------------------------------------------------------

TEST_F(Obfl, UsesAFlashThatIsMountedAlready) {
    set_mounted(true);
    write_file(event_log_path, "of an earlier run\n");
    fpd_obfl_log("line");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::already_mounted);
    EXPECT_TRUE(obfl_context().flash_ready);
    EXPECT_THAT(read_file(flash_log_path), testing::MatchesRegex("of an earlier run\n.* \\[Bootup FPD\\] line\n"));
    EXPECT_FALSE(fs::exists(event_log_path));
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mountpoint_line));
    EXPECT_EQ(obfl_context().mount_thread, pthread_t{});
}

TEST_F(Obfl, KeepsToTheTemporaryLogWhenItCannotBeMovedAtTheStart) {
    set_mounted(true);
    write_file(event_log_path, "old\n");
    interpose::fail(Call::opendir, EIO);
    EXPECT_STREQ(GetFpdObflLogFilename(), event_log_path);
    expect_log(obfl_module, "ERROR", "CopyTempObflLogIntoLatestFlashFileFail",
               std::string("Failed to copy temporary OBFL log into latest flash file, error '") + no_directory);
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::already_mounted);
    EXPECT_FALSE(obfl_context().flash_ready);
    EXPECT_STREQ(GetFpdObflLogFilename(), event_log_path);
    EXPECT_THAT(fake_platform().command_lines(), SizeIs(1));
}

TEST_F(Obfl, IsReadyWithoutATemporaryLogAndFallsBackWhenTheLatestFileCannotBeFound) {
    set_mounted(true);
    interpose::fail(Call::opendir, EIO);
    EXPECT_STREQ(GetFpdObflLogFilename(), event_log_path);
    expect_log(obfl_module, "ERROR", "GetFpdObflLogFilename",
               std::string("Failed to get FPD OBFL Filename, error '") + no_directory);
    EXPECT_TRUE(obfl_context().flash_ready);
    EXPECT_STREQ(GetFpdObflLogFilename(), flash_log_path);
    EXPECT_FALSE(fs::exists(flash_log_path));
}

// The mount thread ----------------------------------------------------------------------------------------------------

TEST_F(Obfl, WritesToTheTemporaryLogWhileTheFlashIsMounted) {
    const Gate gate;
    mount_waits(gate);
    fpd_obfl_log("one");
    gate.await_arrival();
    fpd_obfl_log("two");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::thread_started);
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one", "two"));

    gate.open();
    await_mount();
    fpd_obfl_log("three");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::mounted);
    EXPECT_TRUE(obfl_context().flash_ready);
    EXPECT_THAT(event_log_texts(), ElementsAre("one", "two", "three"));
    EXPECT_FALSE(fs::exists(event_log_path));
    expect_log(obfl_module, "DEBUG", "ObflMountThreadHdlr", "OBFL Mount Thread Hanlder");
    EXPECT_NE(log_lines("ObflMountThreadHdlr").front().tid, getpid());
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mountpoint_line, mount_line, mountpoint_line));
}

TEST_F(Obfl, TriesTheThreadAgainAtTheNextLine) {
    interpose::fail(Call::pthread_create, EAGAIN);
    fpd_obfl_log("one");
    expect_log(obfl_module, "ERROR", "StartObflMountThreadFail",
               "Failed to start OBFL flash mount thread, error 'Resource temporarily unavailable;");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::none);
    EXPECT_EQ(obfl_context().mount_thread, pthread_t{});
    write_first_line();
}

TEST_F(Obfl, StaysWithTheTemporaryLogWhenTheMountFails) {
    mount_command() = command("timeout 5m", 1, "no flash");
    fpd_obfl_log("one");
    ASSERT_TRUE(eventually([] { return !log_lines("ObflMountThreadHdlrFlashOperFail").empty(); }));
    expect_log(obfl_module, "ERROR", "ObflOperCmdFail", "no flash");
    expect_log(obfl_module, "ERROR", "ObflMountThreadHdlrFlashOperFail",
               "Failed to mount OBFL Flash, error 'no flash'");
    fpd_obfl_log("two");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::thread_started);
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one", "two"));
    obfl_flash_release();
    EXPECT_THAT(fake_platform().command_lines(), testing::Not(testing::Contains(unmount_line)));
}

TEST_F(Obfl, StaysWithTheTemporaryLogWhenTheMountMountedNothingAndUnmountsAllTheSame) {
    write_first_line(false);
    fpd_obfl_log("two");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::not_mounted);
    fpd_obfl_log("three");
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mountpoint_line, mount_line, mountpoint_line));
    obfl_flash_release();
    EXPECT_EQ(fake_platform().command_lines().back(), unmount_line);
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one", "two", "three"));
}

TEST_F(Obfl, StaysWithTheTemporaryLogWhenItCannotBeMovedToTheMountedFlash) {
    write_first_line();
    interpose::fail(Call::opendir, EIO);
    fpd_obfl_log("two");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::mounted);
    expect_log(obfl_module, "ERROR", "CopyTempObflLogIntoLatestFlashFileFaile",
               std::string("Failed to copy temporary OBFL log into latest flash file, error '") + no_directory);
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one", "two"));
}

TEST_F(Obfl, MountThreadEndsWithItsResult) {
    EXPECT_EQ(obfl_mount_thread(nullptr), nullptr);
    EXPECT_TRUE(obfl_context().mounted_here);
    obfl_context().mounted_here = false;
    mount_command().rc = 1;
    EXPECT_EQ(reinterpret_cast<std::intptr_t>(obfl_mount_thread(nullptr)), 95);
    EXPECT_FALSE(obfl_context().mounted_here);
}

TEST_F(Obfl, KnowsASecondMountFromTheFirst) {
    write_first_line();
    EXPECT_TRUE(eventually(obfl_mount_is_over));
    obfl_flash_release();
    set_mounted(false);
    const Gate gate;
    mount_waits(gate);
    fpd_obfl_log("two");
    gate.await_arrival();
    EXPECT_FALSE(obfl_mount_is_over());
    gate.open();
}

TEST_F(Obfl, LeavesAThreadThatIsAbandonedToItself) {
    const Gate gate;
    mount_waits(gate);
    fpd_obfl_log("one");
    gate.await_arrival();
    obfl_flash_abandon();
    EXPECT_EQ(interpose::calls(Call::pthread_detach), 1U);
    EXPECT_EQ(obfl_context().mount_thread, pthread_t{});
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::none);
    EXPECT_TRUE(obfl_mount_is_over());
    gate.open();
    await_mount();
}

// Operations ----------------------------------------------------------------------------------------------------------

TEST_F(Obfl, MountsAndUnmountsWithRoomFor256BytesOfOutput) {
    mount_command().output = "mounted";
    expect_result(operate(1), 0);
    expect_log(obfl_module, "DEBUG", "ObflOperCmd",
               "Executed OBFL Flashoperation command 'timeout 5m /usr/sbin/check-flash start obfl' output 'mounted'");
    clear_log();
    expect_result(operate(0), 0);
    expect_log(obfl_module, "DEBUG", "ObflOperCmd",
               "Executed OBFL Flashoperation command 'timeout 30s /usr/sbin/check-flash stop obfl' output ''");
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mount_line, unmount_line));
    EXPECT_THAT(fake_platform().command_buffers(), Each(FakeCommandBuffers{256, sizeof err_msg, true}));
}

TEST_F(Obfl, TellsWhyAnOperationFailed) {
    mount_command() = command("timeout 5m", 9, "100% broken %s");
    expect_logged(operate(1), 95, obfl_module, "ObflOperCmdFail", "100% broken %s");
    for (const int operation : {2, -1}) {
        clear_log();
        expect_logged(operate(operation), 95, obfl_module, "ObflUnknownOperation",
                      "OBFL Flash Unknown Operation " + std::to_string(operation));
    }
    EXPECT_THAT(fake_platform().command_lines(), SizeIs(1));
}

TEST_F(Obfl, TellsWhetherTheFlashIsAMountPoint) {
    fake_platform().commands[0].output = "it is";
    expect_result(obfl_is_mounted(err_msg, sizeof err_msg), false, "not a mount point");
    expect_only_log(obfl_module, "INFO", "ObflMountPointNotExist",
                    "OBFL Flash mountpoint '/mnt/obfl' doesn't exist, 'not a mount point'");
    set_mounted(true);
    expect_result(obfl_is_mounted(err_msg, sizeof err_msg), true);
    expect_log(obfl_module, "INFO", "ObflMountPointExist", "OBFL Flash mountpoint '/mnt/obfl' exist, output 'it is'");
    EXPECT_THAT(fake_platform().command_buffers(), Each(FakeCommandBuffers{256, sizeof err_msg, true}));
}

// The latest file -----------------------------------------------------------------------------------------------------

TEST_F(Obfl, TakesTheFileWithTheHighestNumberOrNumber1) {
    const std::pair<std::vector<const char *>, const char *> cases[] = {
        {{}, "fpd_local_log_1.txt"},
        {{"fpd_local_log_0.txt"}, "fpd_local_log_1.txt"},
        {{"fpd_local_log_1xtxt"}, "fpd_local_log_1xtxt"},  // the dot is any character
        {{"fpd_local_log_3Xtxt"}, "fpd_local_log_3Xtxt"},
        {{"fpd_local_log_345txt", "fpd_local_log_100.txt"}, "fpd_local_log_100.txt"},  // 34, and the dot is a 5
        {{"fpd_local_log_2.txt", "fpd_local_log_10.txt", "fpd_local_log_9.txt", "fpd_local_log_99.txt.gz",
          "other_fpd_local_log_98.txt", "fpd_local_log_.txt"},
         "fpd_local_log_10.txt"},
    };
    for (const auto &[files, latest] : cases) {
        SCOPED_TRACE(latest);
        obfl_flash_release();
        for (const char *name : files) write_file(flash_file(name), "");
        expect_result(latest_file(), 0);
        EXPECT_EQ(path, flash_file(latest));
        for (const char *name : files) fs::remove(flash_file(name));
    }
}

TEST_F(Obfl, TakesTheFirstThatItMeetsOfTheFilesWithTheSameNumber) {
    for (const char *name : {"fpd_local_log_7.txt", "fpd_local_log_007.txt"}) write_file(flash_file(name), "");
    EXPECT_EQ(latest_file(), 0);
    EXPECT_EQ(path, fs::directory_iterator("/mnt/obfl")->path().string());
}

TEST_F(Obfl, ChoosesItsFileOncePerRun) {
    ASSERT_EQ(latest_file(), 0);
    write_file(flash_file("fpd_local_log_5.txt"), "");
    EXPECT_EQ(latest_file(), 0);
    EXPECT_STREQ(path, "/mnt/obfl/fpd_local_log_1.txt");
    obfl_flash_release();
    EXPECT_EQ(latest_file(), 0);
    EXPECT_STREQ(path, "/mnt/obfl/fpd_local_log_5.txt");
}

TEST_F(Obfl, FailsForAFileNameThatIsTooLong) {
    // The path has room for 127 characters.
    const std::string fits = "fpd_local_log_" + std::string(98, '0') + "2.txt";
    write_file(flash_file(fits), "");
    ASSERT_EQ(flash_file(fits).size(), 127U);
    EXPECT_EQ(latest_file(), 0);
    EXPECT_EQ(path, flash_file(fits));
    obfl_flash_release();

    const std::string too_long = "fpd_local_log_" + std::string(99, '0') + "3.txt";
    write_file(flash_file(too_long), "");
    const std::vector<std::string> before = open_descriptors();
    expect_result(latest_file(), 7, "Insufficient buffer to store filename " + too_long);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(latest_file(), 7) << "half a path is no choice";
}

struct FileNumber : Obfl {
    int parse(const std::string &name) {
        return obfl_file_number_parse(name.c_str(), &number, err_msg, sizeof err_msg);
    }

    std::uint32_t number = 4711;
};

TEST_F(FileNumber, IsThatOfTheNameInItsLow32BitsAndAllOnesBeyond63) {
    const std::pair<const char *, std::uint64_t> cases[] = {
        {"1.txt", 1},
        {"0.txt", 0},
        {"0042.txt", 42},
        {"3Xtxt", 3},
        {"345txt", 34},
        {"12 txt", 12},
        {"2147483647.txt", 2147483647},
        {"9000000000000000001.txt", 9'000'000'000'000'000'001},
        {"9223372036854775801.txt", 9'223'372'036'854'775'801},
        {"9223372036854775807.txt", 9'223'372'036'854'775'807},
        {"9223372036854775808.txt", 9'223'372'036'854'775'807},
        {"92233720368547758000.txt", 9'223'372'036'854'775'807},
    };
    for (const auto &[name, expected] : cases) {
        expect_result(parse(std::string("fpd_local_log_") + name), 0);
        EXPECT_EQ(number, static_cast<std::uint32_t>(expected)) << name;
    }
}

TEST_F(FileNumber, IsNotInOtherNames) {
    for (const char *const name :
         {"", "fpd_local_log_.txt", "fpd_local_log_1.txt ", "fpd_local_log_1.tx", "Xfpd_local_log_1.txt",
          "fpd_local_log_-1.txt", "fpd_local_log_1txt", "fpd_local_log_1a.txt", "FPD_LOCAL_LOG_1.txt"}) {
        SCOPED_TRACE(name);
        std::strcpy(err_msg, "left by an earlier call");
        expect_result(parse(name), 22, "No match");
    }
    EXPECT_EQ(number, 4711U);
}

TEST_F(FileNumber, CannotBeReadWithoutAPattern) {
    interpose::fail(Call::regcomp, REG_ESPACE);
    expect_result(parse("fpd_local_log_1.txt"), 95, "Memory exhausted");
}

// The move ------------------------------------------------------------------------------------------------------------

TEST_F(Obfl, MovesNothingWithoutATemporaryLog) {
    expect_result(move_log(), 0);
    EXPECT_FALSE(fs::exists(flash_log_path));
}

TEST_F(Obfl, MovesATemporaryLogOfAnyLengthBehindWhatTheFlashHolds) {
    const std::vector<std::string> before = open_descriptors();
    for (const std::size_t size : {254U, 255U, 256U, 257U, 258U, 259U, 100'000U}) {
        std::string text;
        for (std::size_t i = 0; i < size; ++i) text += static_cast<char>(i % 7 ? 'a' + i % 26 : i % 5 ? '\n' : '\0');
        write_file(flash_log_path, "before\n");
        write_file(event_log_path, text);
        EXPECT_EQ(move_log(), 0);
        EXPECT_EQ(read_file(flash_log_path), "before\n" + text);
        EXPECT_FALSE(fs::exists(event_log_path));
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST_F(Obfl, MoveThatFailsKeepsTheTemporaryLog) {
    const struct {
        void (*arrange)();
        int rc;
        const char *why;
    } cases[] = {
        {[] { interpose::fail(Call::opendir, EACCES); }, 2,
         "Failed to OBFL directory name: /mnt/obfl, error Permission denied"},
        {[] { interpose::fail(Call::fopen, EMFILE, 1); }, 5, "open file, error 'Too many open files'"},
        {[] { interpose::fail(Call::fopen, EMFILE, 2); }, 5, "open file, error 'Too many open files'"},
        {[] { interpose::fail(Call::fsync, EIO); }, 5, "write into OBLF latest file, error 'Input/output error'"},
        {[] { fs::create_symlink("/dev/full", flash_log_path); }, 5,
         "write into OBLF latest file, error 'No space left on device'"},
    };
    const std::vector<std::string> before = open_descriptors();
    for (const auto &[arrange, rc, why] : cases)
        for (const std::size_t size : {100U, 100'000U}) {
            obfl_flash_release();
            fs::remove(flash_log_path);
            write_file(event_log_path, std::string(size, 'x'));
            arrange();
            expect_result(move_log(), rc, why);
            EXPECT_EQ(read_file(event_log_path), std::string(size, 'x')) << why;
            EXPECT_EQ(open_descriptors(), before) << why;
        }
}

TEST_F(Obfl, MoveFailsWhenTheTemporaryLogCannotBeRead) {
    fs::create_directory(event_log_path);
    expect_result(move_log(), 5, "read from temp file, error 'Is a directory'");
    EXPECT_TRUE(fs::exists(event_log_path));
}

TEST_F(Obfl, MovesAllAgainAfterAMoveThatTheFlashHadNoRoomFor) {
    if (mount("tmpfs", "/mnt/obfl", "tmpfs", 0, "size=8k") != 0) GTEST_SKIP() << "no mount: " << std::strerror(errno);
    const std::string text(20'000, 'x');
    write_file(event_log_path, text);
    expect_result(move_log(), 5, "write into OBLF latest file, error 'No space left on device'");
    const std::size_t part = read_file(flash_log_path).size();
    EXPECT_GT(part, 0U);
    EXPECT_LT(part, text.size());
    EXPECT_EQ(read_file(event_log_path), text);
    ASSERT_EQ(mount("tmpfs", "/mnt/obfl", "tmpfs", MS_REMOUNT, "size=1m"), 0);
    EXPECT_EQ(move_log(), 0);
    EXPECT_EQ(read_file(flash_log_path).size(), part + text.size());
    EXPECT_FALSE(fs::exists(event_log_path));
    EXPECT_EQ(umount2("/mnt/obfl", MNT_DETACH), 0);
}

// The end of the run --------------------------------------------------------------------------------------------------

TEST_F(Obfl, ReleaseForgetsEverything) {
    write_first_line();
    fpd_obfl_log("two");
    obfl_flash_release();
    const ObflContext &context = obfl_context();
    EXPECT_EQ(std::string(context.latest_file, sizeof context.latest_file), std::string(128, '\0'));
    EXPECT_EQ(context.mount_status, ObflMountStatus::none);
    EXPECT_EQ(context.mount_thread, pthread_t{});
    EXPECT_FALSE(context.mounted_here);
    EXPECT_FALSE(context.flash_ready);
    for (const LogLine &line : log_lines()) EXPECT_NE(line.level, "ERROR") << line.message;
}

TEST_F(Obfl, ReleaseHasNothingToDoWithoutALine) {
    obfl_flash_release();
    EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(interpose::calls(Call::pthread_join), 0U);
}

TEST_F(Obfl, ReleaseSyncsAFlashThatStaysMountedWhateverTheDescriptor) {
    set_mounted(true);
    fpd_obfl_log("line");
    const unsigned before = interpose::calls(Call::fsync);
    {
        const StandardInputClosed closed;
        obfl_flash_release();
    }
    EXPECT_EQ(interpose::calls(Call::fsync), before + 1);
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mountpoint_line)) << "it was mounted before";
}

TEST_F(Obfl, ReleaseWaitsForTheMountMovesTheLogAndUnmounts) {
    const Gate gate;
    mount_waits(gate);
    fpd_obfl_log("line");
    gate.await_arrival();
    std::string at_unmount;
    unmount_command().effect = [&at_unmount] { at_unmount = read_file(flash_log_path); };
    std::atomic<bool> released = false;
    std::jthread releaser([&released] {
        obfl_flash_release();
        released = true;
    });
    ASSERT_TRUE(eventually([] { return interpose::calls(Call::pthread_join) == 1; }));
    usleep(5'000);
    EXPECT_FALSE(released);
    gate.open();
    releaser.join();
    EXPECT_THAT(fake_platform().command_lines(),
                ElementsAre(mountpoint_line, mount_line, mountpoint_line, unmount_line));
    EXPECT_THAT(at_unmount, testing::EndsWith(" [Bootup FPD] line\n"));
    EXPECT_THAT(event_log_texts(), ElementsAre("line"));
    EXPECT_FALSE(fs::exists(event_log_path));
}

TEST_F(Obfl, ReleaseTellsWhenItCannotUnmount) {
    write_first_line();
    unmount_command() = command("timeout 30s", 1, "target is busy");
    obfl_flash_release();
    expect_log(obfl_module, "ERROR", "ObflFlushFlashOperFail", "Failed to unmount OBFL Flash, error 'target is busy'");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::none);
    EXPECT_FALSE(obfl_context().mounted_here);
}

}  // namespace
