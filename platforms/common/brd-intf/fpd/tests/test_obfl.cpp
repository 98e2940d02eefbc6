#include "brd_intf_auto_fpd_obfl.h"

#include <regex.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "interpose.h"
#include "run_support.h"

namespace {

namespace fs = std::filesystem;

using interpose::Call;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *mount_line = "timeout 5m /usr/sbin/check-flash start obfl";
constexpr const char *unmount_line = "timeout 30s /usr/sbin/check-flash stop obfl";
constexpr const char *mountpoint_line = "mountpoint /mnt/obfl";
constexpr const char *mount_error = "no flash";

std::string flash_file(const std::string &name) {
    return "/mnt/obfl/" + name;
}

/// The flash is no mount point until the test, or its mount command, says so.
struct Obfl : RunTest {
    Obfl() {
        fake_platform().commands = {command("mountpoint", 32, "not a mount point"), command("timeout 5m"),
                                    command("timeout 30s")};
        clear_log();
        fake_platform().forget_calls();
    }

    static FakeCommand command(const std::string &prefix, int rc = 0, const std::string &error = "") {
        return {.prefix = prefix, .rc = rc, .output = "", .error = error, .effect = nullptr};
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
    /// Writes the first line, behind which the mount thread comes to its end.
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
    fpd_obfl_log("%s", "first");
    fpd_obfl_log("%s", long_text.c_str());
    fpd_obfl_log("last");
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
    expect_log(obfl_module, "INFO", "ObflMountPointExist", "OBFL Flash mountpoint '/mnt/obfl' exist, output ''");
    EXPECT_EQ(obfl_context().mount_thread, pthread_t{});
}

TEST_F(Obfl, IsReadyWithoutATemporaryLog) {
    set_mounted(true);
    EXPECT_STREQ(GetFpdObflLogFilename(), flash_log_path);
    EXPECT_TRUE(obfl_context().flash_ready);
    EXPECT_FALSE(fs::exists(flash_log_path));
}

TEST_F(Obfl, KeepsToTheTemporaryLogWhenItCannotBeMovedAtTheStart) {
    set_mounted(true);
    write_file(event_log_path, "old\n");
    interpose::fail(Call::opendir, EIO);
    EXPECT_STREQ(GetFpdObflLogFilename(), event_log_path);
    expect_log(obfl_module, "ERROR", "CopyTempObflLogIntoLatestFlashFileFail",
               "Failed to copy temporary OBFL log into latest flash file, error 'Failed to OBFL directory name: "
               "/mnt/obfl, error Input/output error'");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::already_mounted);
    EXPECT_FALSE(obfl_context().flash_ready);
    EXPECT_STREQ(GetFpdObflLogFilename(), event_log_path);
    EXPECT_THAT(fake_platform().command_lines(), SizeIs(1));
}

TEST_F(Obfl, FallsBackWhenTheLatestFileCannotBeFound) {
    set_mounted(true);  // without a temporary log nothing is looked for at the start
    interpose::fail(Call::opendir, EIO);
    EXPECT_STREQ(GetFpdObflLogFilename(), event_log_path);
    expect_log(obfl_module, "ERROR", "GetFpdObflLogFilename",
               "Failed to get FPD OBFL Filename, error 'Failed to OBFL directory name: /mnt/obfl, error Input/output "
               "error'");
    EXPECT_STREQ(GetFpdObflLogFilename(), flash_log_path);
}

// The mount thread ----------------------------------------------------------------------------------------------------

TEST_F(Obfl, WritesToTheTemporaryLogWhileTheFlashIsMounted) {
    const Gate gate;
    mount_waits(gate);
    fpd_obfl_log("one");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::thread_started);
    gate.await_arrival();
    fpd_obfl_log("two");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::thread_started);
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one", "two"));
    expect_log(obfl_module, "INFO", "ObflMountPointNotExist",
               "OBFL Flash mountpoint '/mnt/obfl' doesn't exist, 'not a mount point'");

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
    mount_command() = command("timeout 5m", 1, mount_error);
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

TEST_F(Obfl, StaysWithTheTemporaryLogWhenTheMountMountedNothing) {
    write_first_line(false);
    fpd_obfl_log("two");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::not_mounted);
    fpd_obfl_log("three");
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one", "two", "three"));
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mountpoint_line, mount_line, mountpoint_line));
}

TEST_F(Obfl, StaysWithTheTemporaryLogWhenItCannotBeMovedToTheMountedFlash) {
    write_first_line();
    interpose::fail(Call::opendir, EIO);
    fpd_obfl_log("two");
    EXPECT_EQ(obfl_context().mount_status, ObflMountStatus::mounted);
    expect_log(obfl_module, "ERROR", "CopyTempObflLogIntoLatestFlashFileFaile",
               "Failed to copy temporary OBFL log into latest flash file, error 'Failed to OBFL directory name: "
               "/mnt/obfl, error Input/output error'");
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one", "two"));
}

TEST_F(Obfl, MountThreadEndsWithItsResult) {
    EXPECT_EQ(obfl_mount_thread(nullptr), nullptr);
    EXPECT_TRUE(obfl_context().mounted_here);
    obfl_context().mounted_here = false;
    mount_command() = command("timeout 5m", 1, mount_error);
    EXPECT_EQ(reinterpret_cast<std::intptr_t>(obfl_mount_thread(nullptr)), 95);
    EXPECT_FALSE(obfl_context().mounted_here);
}

// Operations ----------------------------------------------------------------------------------------------------------

TEST_F(Obfl, MountsAndUnmounts) {
    mount_command().output = "mounted";
    EXPECT_EQ(obfl_flash_operation(1, err_msg, sizeof err_msg), 0);
    EXPECT_STREQ(err_msg, "");
    expect_log(obfl_module, "DEBUG", "ObflOperCmd",
               "Executed OBFL Flashoperation command 'timeout 5m /usr/sbin/check-flash start obfl' output 'mounted'");
    clear_log();
    EXPECT_EQ(obfl_flash_operation(0, err_msg, sizeof err_msg), 0);
    expect_log(obfl_module, "DEBUG", "ObflOperCmd",
               "Executed OBFL Flashoperation command 'timeout 30s /usr/sbin/check-flash stop obfl' output ''");
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mount_line, unmount_line));
}

TEST_F(Obfl, HasRoomFor256BytesOfEachCommandsOutput) {
    fake_platform().forget_calls();
    EXPECT_EQ(obfl_flash_operation(1, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(obfl_flash_operation(0, err_msg, sizeof err_msg), 0);
    EXPECT_FALSE(obfl_is_mounted(err_msg, sizeof err_msg));
    EXPECT_THAT(fake_platform().command_buffers(),
                testing::AllOf(testing::SizeIs(3), testing::Each(FakeCommandBuffers{256, sizeof err_msg, true})));
}

TEST_F(Obfl, KnowsNoOtherOperation) {
    for (const int operation : {2, -1}) {
        clear_log();
        EXPECT_EQ(obfl_flash_operation(operation, err_msg, sizeof err_msg), 95);
        const std::string text = "OBFL Flash Unknown Operation " + std::to_string(operation);
        EXPECT_EQ(err_msg, text);
        expect_log(obfl_module, "ERROR", "ObflUnknownOperation", text);
    }
    EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
}

TEST_F(Obfl, TellsWhyAnOperationFailed) {
    mount_command() = command("timeout 5m", 9, "100% broken %s");
    EXPECT_EQ(obfl_flash_operation(1, err_msg, sizeof err_msg), 95);
    EXPECT_STREQ(err_msg, "100% broken %s");
    expect_log(obfl_module, "ERROR", "ObflOperCmdFail", "100% broken %s");
}

TEST_F(Obfl, TellsWhetherTheFlashIsAMountPoint) {
    fake_platform().commands[0].output = "it is";
    EXPECT_FALSE(obfl_is_mounted(err_msg, sizeof err_msg));
    EXPECT_STREQ(err_msg, "not a mount point");
    set_mounted(true);
    EXPECT_TRUE(obfl_is_mounted(err_msg, sizeof err_msg));
    EXPECT_STREQ(err_msg, "");
    expect_log(obfl_module, "INFO", "ObflMountPointExist", "OBFL Flash mountpoint '/mnt/obfl' exist, output 'it is'");
}

// The latest file -----------------------------------------------------------------------------------------------------

TEST_F(Obfl, StartsWithFileNumber1) {
    EXPECT_EQ(latest_file(), 0);
    EXPECT_STREQ(path, "/mnt/obfl/fpd_local_log_1.txt");
    EXPECT_STREQ(err_msg, "");
}

TEST_F(Obfl, TakesTheFileWithTheHighestNumber) {
    for (const char *const name : {"fpd_local_log_2.txt", "fpd_local_log_10.txt", "fpd_local_log_9.txt",
                                   "fpd_local_log_99.txt.gz", "other_fpd_local_log_98.txt", "fpd_local_log_.txt"})
        write_file(flash_file(name), "");
    EXPECT_EQ(latest_file(), 0);
    EXPECT_STREQ(path, "/mnt/obfl/fpd_local_log_10.txt");
}

TEST_F(Obfl, NeverTakesFileNumber0) {
    write_file(flash_file("fpd_local_log_0.txt"), "");
    EXPECT_EQ(latest_file(), 0);
    EXPECT_STREQ(path, "/mnt/obfl/fpd_local_log_1.txt");
}

TEST_F(Obfl, TakesAFileWhoseDotIsAnyCharacter) {
    write_file(flash_file("fpd_local_log_3Xtxt"), "");
    EXPECT_EQ(latest_file(), 0);
    EXPECT_STREQ(path, "/mnt/obfl/fpd_local_log_3Xtxt");
}

TEST_F(Obfl, ReadsTheNumberInFrontOfADotThatIsADigit) {
    write_file(flash_file("fpd_local_log_345txt"), "");  // 34, and the dot is a 5
    write_file(flash_file("fpd_local_log_100.txt"), "");
    EXPECT_EQ(latest_file(), 0);
    EXPECT_STREQ(path, "/mnt/obfl/fpd_local_log_100.txt");
}

TEST_F(Obfl, TakesOneOfTheFilesWithTheSameNumber) {
    write_file(flash_file("fpd_local_log_7.txt"), "");
    write_file(flash_file("fpd_local_log_007.txt"), "");
    std::string first_met;
    for (const fs::directory_entry &entry : fs::directory_iterator("/mnt/obfl"))
        if (first_met.empty()) first_met = entry.path();
    EXPECT_EQ(latest_file(), 0);
    EXPECT_EQ(path, first_met);
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

TEST_F(Obfl, FailsWithoutTheFlashDirectory) {
    interpose::fail(Call::opendir, ENOTDIR);
    EXPECT_EQ(latest_file(), 2);
    EXPECT_STREQ(err_msg, "Failed to OBFL directory name: /mnt/obfl, error Not a directory");
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
    EXPECT_EQ(latest_file(), 7);
    EXPECT_EQ(err_msg, "Insufficient buffer to store filename " + too_long);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(latest_file(), 7) << "half a path is no choice";
}

struct FileNumber : Obfl {
    int parse(const char *name) { return obfl_file_number_parse(name, &number, err_msg, sizeof err_msg); }

    std::uint32_t number = 4711;
};

TEST_F(FileNumber, IsThatOfTheName) {
    const std::pair<const char *, std::uint32_t> cases[] = {
        {"fpd_local_log_1.txt", 1},   {"fpd_local_log_0.txt", 0},   {"fpd_local_log_0042.txt", 42},
        {"fpd_local_log_3Xtxt", 3},   {"fpd_local_log_345txt", 34}, {"fpd_local_log_2147483647.txt", 2147483647},
        {"fpd_local_log_12 txt", 12},
    };
    for (const auto &[name, expected] : cases) {
        EXPECT_EQ(parse(name), 0) << name;
        EXPECT_EQ(number, expected) << name;
        EXPECT_STREQ(err_msg, "");
    }
}

TEST_F(FileNumber, IsNotInOtherNames) {
    for (const char *const name :
         {"", "fpd_local_log_.txt", "fpd_local_log_1.txt ", "fpd_local_log_1.tx", "Xfpd_local_log_1.txt",
          "fpd_local_log_-1.txt", "fpd_local_log_1txt", "fpd_local_log_1a.txt", "FPD_LOCAL_LOG_1.txt"}) {
        std::strcpy(err_msg, "left by an earlier call");
        EXPECT_EQ(parse(name), 22) << name;
        EXPECT_STREQ(err_msg, "No match") << name;
    }
    EXPECT_EQ(number, 4711U);
}

TEST_F(FileNumber, CannotBeReadWithoutAPattern) {
    interpose::fail(Call::regcomp, REG_ESPACE);
    EXPECT_EQ(parse("fpd_local_log_1.txt"), 95);
    EXPECT_STREQ(err_msg, "Memory exhausted");
}

// The move ------------------------------------------------------------------------------------------------------------

TEST_F(Obfl, MovesNothingWithoutATemporaryLog) {
    EXPECT_EQ(move_log(), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_FALSE(fs::exists(flash_log_path));
}

TEST_F(Obfl, MovesTheTemporaryLogBehindWhatTheFlashHolds) {
    std::string text;
    for (int i = 0; i < 20'000; ++i) text += std::to_string(i) + (i % 7 ? " " : "\n");
    text += '\0';
    write_file(flash_file("fpd_local_log_4.txt"), "before\n");
    write_file(event_log_path, text);
    const std::vector<std::string> before = open_descriptors();
    EXPECT_EQ(move_log(), 0);
    EXPECT_EQ(read_file(flash_file("fpd_local_log_4.txt")), "before\n" + text);
    EXPECT_FALSE(fs::exists(event_log_path));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Obfl, MoveFailsWithoutALatestFile) {
    write_file(event_log_path, "text");
    interpose::fail(Call::opendir, EACCES);
    EXPECT_EQ(move_log(), 2);
    EXPECT_STREQ(err_msg, "Failed to OBFL directory name: /mnt/obfl, error Permission denied");
    EXPECT_EQ(read_file(event_log_path), "text");
}

TEST_F(Obfl, MoveFailsWhenEitherFileCannotBeOpened) {
    write_file(event_log_path, "text");
    const std::vector<std::string> before = open_descriptors();
    for (const unsigned nth : {1U, 2U}) {
        interpose::fail(Call::fopen, EMFILE, nth);
        EXPECT_EQ(move_log(), 5);
        EXPECT_STREQ(err_msg, "open file, error 'Too many open files'");
        EXPECT_EQ(read_file(event_log_path), "text");
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST_F(Obfl, MoveToAFullFlashKeepsTheTemporaryLog) {
    fs::create_symlink("/dev/full", flash_log_path);
    for (const std::size_t size : {std::size_t{100}, std::size_t{100'000}}) {
        const std::string text(size, 'x');
        write_file(event_log_path, text);
        EXPECT_EQ(move_log(), 5);
        EXPECT_STREQ(err_msg, "write into OBLF latest file, error 'No space left on device'");
        EXPECT_EQ(read_file(event_log_path), text);
    }
}

TEST_F(Obfl, MoveThatDoesNotReachTheFlashKeepsTheTemporaryLog) {
    write_file(event_log_path, "text");
    interpose::fail(Call::fsync, EIO);
    EXPECT_EQ(move_log(), 5);
    EXPECT_STREQ(err_msg, "write into OBLF latest file, error 'Input/output error'");
    EXPECT_EQ(read_file(event_log_path), "text");
}

TEST_F(Obfl, MoveIsDoneWhereTheFlashHasNoSync) {
    write_file(event_log_path, "text");
    interpose::fail(Call::fsync, EINVAL);
    EXPECT_EQ(move_log(), 0);
    EXPECT_FALSE(fs::exists(event_log_path));
}

TEST_F(Obfl, MovesAllAgainAfterAMoveThatTheFlashHadNoRoomFor) {
    if (mount("tmpfs", "/mnt/obfl", "tmpfs", 0, "size=8k") != 0) GTEST_SKIP() << "no mount: " << std::strerror(errno);
    const std::string text(20'000, 'x');
    write_file(event_log_path, text);
    EXPECT_EQ(move_log(), 5);
    EXPECT_STREQ(err_msg, "write into OBLF latest file, error 'No space left on device'");
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

TEST_F(Obfl, MoveFailsWhenTheTemporaryLogCannotBeRead) {
    fs::create_directory(event_log_path);
    EXPECT_EQ(move_log(), 5);
    EXPECT_STREQ(err_msg, "read from temp file, error 'Is a directory'");
    EXPECT_TRUE(fs::exists(event_log_path));
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
}

TEST_F(Obfl, ReleaseHasNothingToDoWithoutALine) {
    obfl_flash_release();
    EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Obfl, ReleaseLeavesAFlashMountedThatWasSoBefore) {
    set_mounted(true);
    fpd_obfl_log("line");
    obfl_flash_release();
    EXPECT_THAT(fake_platform().command_lines(), ElementsAre(mountpoint_line));
}

TEST_F(Obfl, ReleaseWaitsForTheMountMovesTheLogAndUnmounts) {
    const Gate gate;
    mount_waits(gate);
    fpd_obfl_log("line");
    gate.await_arrival();
    std::string at_unmount;
    unmount_command().effect = [&at_unmount] { at_unmount = read_file(flash_log_path); };
    static std::atomic<bool> released;
    released = false;
    pthread_t releaser;
    ASSERT_EQ(pthread_create(
                  &releaser, nullptr,
                  [](void *) -> void * {
                      obfl_flash_release();
                      released = true;
                      return nullptr;
                  },
                  nullptr),
              0);
    ASSERT_TRUE(eventually([] { return interpose::calls(Call::pthread_join) == 1; }));
    usleep(5'000);
    EXPECT_FALSE(released);
    gate.open();
    pthread_join(releaser, nullptr);
    EXPECT_TRUE(released);
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

TEST_F(Obfl, ReleaseUnmountsAFlashThatIsNoMountPoint) {
    write_first_line(false);
    obfl_flash_release();
    EXPECT_THAT(fake_platform().command_lines(),
                ElementsAre(mountpoint_line, mount_line, mountpoint_line, unmount_line));
    EXPECT_THAT(event_log_texts(event_log_path), ElementsAre("one"));
}

TEST_F(Obfl, ReleaseTellsOfNoFailureWhereThereIsNone) {
    write_first_line();
    obfl_flash_release();
    for (const LogLine &line : log_lines()) EXPECT_NE(line.level, "ERROR") << line.message;
}

TEST_F(Obfl, ReleaseSyncsAFlashThatStaysMountedWhateverTheDescriptor) {
    set_mounted(true);
    fpd_obfl_log("line");
    const unsigned before = interpose::calls(Call::fsync);
    const StandardInputClosed closed;
    obfl_flash_release();
    EXPECT_EQ(interpose::calls(Call::fsync), before + 1);
}

TEST_F(Obfl, ReleaseJoinsNoThreadWithoutALine) {
    obfl_flash_release();
    EXPECT_EQ(interpose::calls(Call::pthread_join), 0U);
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

TEST_F(Obfl, HasNoThreadWhereNoneCouldBeStarted) {
    interpose::fail(Call::pthread_create, EAGAIN);
    fpd_obfl_log("one");
    EXPECT_EQ(obfl_context().mount_thread, pthread_t{});
}

TEST_F(Obfl, MovesATemporaryLogOfAnyLength) {
    for (std::size_t size = 254; size < 260; ++size) {
        const std::string text(size, static_cast<char>('a' + size % 26));
        write_file(event_log_path, text);
        write_file(flash_log_path, "");
        EXPECT_EQ(move_log(), 0);
        EXPECT_EQ(read_file(flash_log_path), text);
    }
}

TEST_F(Obfl, TakesAFileWithNumber1ForTheFirst) {
    write_file(flash_file("fpd_local_log_1xtxt"), "");
    EXPECT_EQ(latest_file(), 0);
    EXPECT_EQ(path, flash_file("fpd_local_log_1xtxt"));
}

TEST_F(FileNumber, IsTheLow32BitsOfANumberOf63AndAllOnesOfALongerOne) {
    for (const auto &[digits, expected] : {std::pair{"9000000000000000001", 9'000'000'000'000'000'001},
                                           {"9223372036854775801", 9'223'372'036'854'775'801},
                                           {"9223372036854775807", 9'223'372'036'854'775'807},
                                           {"9223372036854775808", 9'223'372'036'854'775'807},
                                           {"92233720368547758000", 9'223'372'036'854'775'807}}) {
        EXPECT_EQ(parse((std::string("fpd_local_log_") + digits + ".txt").c_str()), 0);
        EXPECT_EQ(number, static_cast<std::uint32_t>(expected)) << digits;
    }
}

}  // namespace
