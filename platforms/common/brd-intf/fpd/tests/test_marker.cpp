#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "interpose.h"
#include "os_owner.h"
#include "run_support.h"

namespace {

namespace fs = std::filesystem;
using interpose::Call;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr const char *io_line = "FPD: IoFpga           | Version: 1.12.0      \n";
constexpr const char *bios_line = "FPD: Bios             | Version: 3.4.0       \n";
constexpr const char *no_memory = "Unable to allocate memory for upgrade marker, error Cannot allocate memory";

/// A test that begins and ends with an empty marker and no marker file.
struct MarkerTest : CardTest {
    MarkerTest() { upg_marker_release(); }
    ~MarkerTest() override { upg_marker_release(); }

    int add(const std::string &name, const char *version = "1.12.0") {
        Fpd fpd{};
        std::strcpy(fpd.info.name, name.c_str());
        std::strcpy(fpd.packaged_text, version);
        return upg_marker_add_fpd(fpd, err_msg, sizeof err_msg);
    }
    /// Adds an entry of so many characters, its newline included; at least 46.
    int add_of_length(std::size_t length) { return add(std::string(length - 30, 'n')); }
    int check() { return upg_marker_check(&same, err_msg, sizeof err_msg); }
    int write() { return upg_marker_write(err_msg, sizeof err_msg); }
    int remove() { return upg_marker_delete(err_msg, sizeof err_msg); }

    static std::string text() { return upg_marker().text ? upg_marker().text : "(null)"; }
    static void expect_marker(const std::string &expected, std::size_t capacity) {
        EXPECT_EQ(text(), expected);
        EXPECT_EQ(upg_marker().length, expected.size());
        EXPECT_EQ(upg_marker().capacity, capacity);
    }
    static void expect_released() {
        EXPECT_EQ(upg_marker().text, nullptr);
        EXPECT_EQ(upg_marker().length, 0U);
        EXPECT_EQ(upg_marker().capacity, 0U);
    }
    static std::string marker_file() { return fs::exists(marker_path) ? read_file(marker_path) : "(none)"; }

    bool same = false;
};

// Adding --------------------------------------------------------------------------------------------------------------

struct MarkerAdd : MarkerTest {};

TEST_F(MarkerAdd, BeginsWithNothing) {
    expect_released();
}

TEST_F(MarkerAdd, AppendsOneLinePerFpdInTheOrderOfAdding) {
    EXPECT_EQ(add("IoFpga", "1.12.0"), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_EQ(add("Bios", "3.4.0"), 0);
    expect_marker(std::string(io_line) + bios_line, 96);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerAdd, PadsTheColumnsToTheirWidth) {
    EXPECT_EQ(add("", ""), 0);
    expect_marker("FPD:                  | Version:             \n", 96);
    upg_marker_release();
    EXPECT_EQ(add("SixteenLettersOK", "255.65535.2"), 0);
    expect_marker("FPD: SixteenLettersOK | Version: 255.65535.2 \n", 96);
    EXPECT_EQ(upg_marker().length, 46U);
}

TEST_F(MarkerAdd, WritesALongNameWhole) {
    EXPECT_EQ(add("A name of seventeen and more", "1.2.3"), 0);
    expect_marker("FPD: A name of seventeen and more | Version: 1.2.3       \n", 96);
}

TEST_F(MarkerAdd, TakesMemoryForTwoEntriesThenForOneMoreAtATime) {
    std::string expected;
    const std::size_t capacities[] = {96, 96, 144, 192, 240, 288};
    for (const std::size_t capacity : capacities) {
        EXPECT_EQ(add("IoFpga"), 0);
        expected += io_line;
        expect_marker(expected, capacity);
    }
}

TEST_F(MarkerAdd, GrowsWhenLessThan49BytesAreFree) {
    ASSERT_EQ(add_of_length(47), 0);
    ASSERT_EQ(add_of_length(46), 0);
    EXPECT_EQ(upg_marker().capacity, 96U);
    upg_marker_release();
    ASSERT_EQ(add_of_length(48), 0);
    ASSERT_EQ(add_of_length(46), 0);
    EXPECT_EQ(upg_marker().capacity, 144U);
}

TEST_F(MarkerAdd, FailsWithoutMemoryForTheFirstEntry) {
    interpose::fail(Call::calloc, ENOMEM);
    EXPECT_EQ(add("IoFpga"), -12);
    EXPECT_STREQ(err_msg, no_memory);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(marker_module, "ERROR", "UpgMarkerCallocFail", no_memory)));
    expect_released();
    EXPECT_EQ(add("IoFpga"), 0);
    EXPECT_STREQ(err_msg, "");
    expect_marker(io_line, 96);
}

TEST_F(MarkerAdd, LosesTheEarlierEntriesWithoutMemoryToGrow) {
    ASSERT_EQ(add("IoFpga"), 0);
    ASSERT_EQ(add("IoFpga"), 0);
    interpose::fail(Call::realloc, ENOMEM);
    EXPECT_EQ(add("Bios", "3.4.0"), -12);
    EXPECT_STREQ(err_msg, no_memory);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(marker_module, "ERROR", "UpgMarkerReallocFail", no_memory)));
    expect_released();
}

TEST_F(MarkerAdd, StartsAnewAfterItLostItsEntries) {
    ASSERT_EQ(add("IoFpga"), 0);
    ASSERT_EQ(add("IoFpga"), 0);
    interpose::fail(Call::realloc, ENOMEM);
    ASSERT_EQ(add("IoFpga"), -12);
    EXPECT_EQ(add("Bios", "3.4.0"), 0);
    EXPECT_STREQ(err_msg, "");
    expect_marker(bios_line, 96);
}

TEST_F(MarkerAdd, TakesAnEntryThatFitsToTheLastByte) {
    ASSERT_EQ(add_of_length(60), 0);
    EXPECT_EQ(add_of_length(83), 0);
    EXPECT_EQ(upg_marker().length, 143U);
    EXPECT_EQ(upg_marker().capacity, 144U);
    EXPECT_EQ(text().size(), 143U);
}

TEST_F(MarkerAdd, RefusesAnEntryWithoutRoomForItsEnd) {
    ASSERT_EQ(add_of_length(60), 0);
    EXPECT_EQ(add_of_length(84), -105);
    const std::string message = "Out of buffer to add FPD info for " + std::string(54, 'n');
    EXPECT_EQ(err_msg, message);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(marker_module, "ERROR", "AddFpdInfoUpgMarkerOOB", message)));
    EXPECT_EQ(upg_marker().length, 144U);
    EXPECT_EQ(text().size(), 143U);
    EXPECT_EQ(add("Bios", "3.4.0"), -105);
    EXPECT_EQ(upg_marker().length, 190U);
    EXPECT_EQ(upg_marker().capacity, 144U);
}

TEST_F(MarkerAdd, RefusesEveryEntryAfterOneThatDidNotFit) {
    ASSERT_EQ(add_of_length(92), 0);
    ASSERT_EQ(add_of_length(93), -105);
    const std::string cut = text();
    const std::size_t capacity = upg_marker().capacity;
    std::size_t length = upg_marker().length;
    EXPECT_EQ(length, 185U);
    for (int i = 0; i < 5; ++i) {
        clear_log();
        EXPECT_EQ(add("Bios", "3.4.0"), -105);
        EXPECT_STREQ(err_msg, "Out of buffer to add FPD info for Bios");
        expect_log(marker_module, "ERROR", "AddFpdInfoUpgMarkerOOB", "Out of buffer to add FPD info for Bios");
        EXPECT_EQ(upg_marker().length, length += 46);
        EXPECT_EQ(upg_marker().capacity, capacity);
        EXPECT_EQ(text(), cut);
    }
}

TEST_F(MarkerAdd, WritesNothingPastItsMemory) {
    ASSERT_EQ(add_of_length(92), 0);
    // Grown here, so that what lies behind the memory can be marked before the entry that does not fit.
    UpgradeMarker &marker = upg_marker();
    marker.text = static_cast<char *>(std::realloc(marker.text, 144 + 256));
    ASSERT_NE(marker.text, nullptr);
    std::memset(marker.text + 144, '#', 256);
    marker.capacity = 144;
    marker.length = 90;
    for (int i = 0; i < 4; ++i) EXPECT_EQ(add_of_length(93), -105);
    EXPECT_EQ(std::string(marker.text + 144, 256), std::string(256, '#'));
    EXPECT_EQ(marker.text[143], '\0');
}

// Checking ------------------------------------------------------------------------------------------------------------

struct MarkerCheck : MarkerTest {
    MarkerCheck() { EXPECT_EQ(add("IoFpga", "1.12.0"), 0); }
    static std::string check_text(const std::string &file, const std::string &current) {
        return "Previous Marked FPDs to Upgrade\n" + file + "\nCurren Upgrading FPDs\n" + current;
    }
    static void expect_check_log(const std::string &file, const std::string &current) {
        EXPECT_THAT(log_lines(),
                    ElementsAre(log_line(marker_module, "INFO", "UpgMarkerCheck", check_text(file, current))));
    }
};

TEST_F(MarkerCheck, FindsNoFileToBeAnother) {
    same = true;
    EXPECT_EQ(check(), 0);
    EXPECT_FALSE(same);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerCheck, FindsAnEmptyFileToBeAnother) {
    const auto before = open_descriptors();
    same = true;
    write_file(marker_path, "");
    EXPECT_EQ(check(), 0);
    EXPECT_FALSE(same);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerCheck, FindsTheIdenticalFileToBeTheSame) {
    const auto before = open_descriptors();
    write_file(marker_path, io_line);
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg, "");
    expect_check_log(io_line, io_line);
    EXPECT_EQ(marker_file(), io_line);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerCheck, ComparesTheWholeTexts) {
    ASSERT_EQ(add("Bios", "3.4.0"), 0);
    const std::string io = io_line, bios = bios_line;
    const std::string current = io + bios;
    for (const std::string &other :
         {bios + io, io, current + io, current + " ", current + "\n", current.substr(0, current.size() - 1),
          " " + current, io + "fPD" + bios.substr(3), io + "FPD: Bios             | Version: 3.4.1       \n",
          io + "FPD: Bios             | Version: 3.4.0\n", io + "FPD: Bios             | Version: 3.4.0        \n"}) {
        clear_log();
        write_file(marker_path, other);
        same = true;
        EXPECT_EQ(check(), 0);
        EXPECT_FALSE(same) << other;
        expect_check_log(other, current);
    }
    write_file(marker_path, current);
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(same);
}

TEST_F(MarkerCheck, KnowsWhatWriteLeft) {
    ASSERT_EQ(add("Bios", "3.4.0"), 0);
    ASSERT_EQ(write(), 0);
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    ASSERT_EQ(check(), 0);
    EXPECT_FALSE(same);
    ASSERT_EQ(add("Bios", "3.4.0"), 0);
    ASSERT_EQ(check(), 0);
    EXPECT_TRUE(same);
}

TEST_F(MarkerCheck, TakesNoEntriesForTheEmptyText) {
    upg_marker_release();
    write_file(marker_path, io_line);
    same = true;
    EXPECT_EQ(check(), 0);
    EXPECT_FALSE(same);
    expect_check_log(io_line, "");
    clear_log();
    write_file(marker_path, std::string_view("\0", 1));
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(same);
    expect_check_log("", "");
}

TEST_F(MarkerCheck, TakesTheFilesSizeAsANumberOf32Bits) {
    constexpr std::int64_t growth = std::int64_t{1} << 32;
    if (!Allocated<char>(static_cast<char *>(std::malloc(growth)))) GTEST_SKIP() << "no memory for 4 GiB";
    write_file(marker_path, io_line);
    interpose::grow_stat(growth);
    EXPECT_EQ(check(), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines("UpgMarkerCheck"), testing::SizeIs(1));
    clear_log();
    interpose::grow_stat(growth + 1);
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg, "Failed to read marker data, error 0");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerCheck, FailsWhenTheFileIsNotReadable) {
    write_file(marker_path, io_line);
    interpose::fail(Call::access, EACCES);
    EXPECT_EQ(check(), -13);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg,
                 "Upgrade marker file /misc/scratch/bootup_fpd_marker.txt doesn't exist, error Permission denied");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerCheck, FailsWhenTheFileIsALinkToItself) {
    fs::create_symlink(marker_path, marker_path);
    EXPECT_EQ(check(), -40);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg,
                 "Upgrade marker file /misc/scratch/bootup_fpd_marker.txt doesn't exist, error Too many levels of "
                 "symbolic links");
}

TEST_F(MarkerCheck, FailsWithoutTheFilesSize) {
    const auto before = open_descriptors();
    write_file(marker_path, io_line);
    interpose::fail(Call::stat, EIO);
    EXPECT_EQ(check(), -5);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg, "Marker File /misc/scratch/bootup_fpd_marker.txt access error Input/output error");
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerCheck, FailsWhenTheFileCannotBeOpened) {
    write_file(marker_path, io_line);
    interpose::fail(Call::fopen, EMFILE);
    EXPECT_EQ(check(), -24);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg, "Marker File /misc/scratch/bootup_fpd_marker.txt access error Too many open files");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerCheck, FailsWithoutMemoryForTheFilesText) {
    const auto before = open_descriptors();
    write_file(marker_path, io_line);
    interpose::fail(Call::malloc, ENOMEM);
    EXPECT_EQ(check(), -12);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg, "malloc() failed size 46, error Cannot allocate memory");
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerCheck, CountsAsTheSameAfterAShortRead) {
    const auto before = open_descriptors();
    write_file(marker_path, bios_line);
    interpose::fail(Call::fread, EIO);
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg, "Failed to read marker data, error 0");
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerCheck, FailsWhenADirectoryIsInTheFilesPlace) {
    const auto before = open_descriptors();
    fs::create_directory(marker_path);
    write_file(fs::path(marker_path) / "gives the directory a size", "");
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(same);
    EXPECT_STREQ(err_msg, "Failed to read marker data, error 1");
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(open_descriptors(), before);
}

// Writing -------------------------------------------------------------------------------------------------------------

struct MarkerWrite : MarkerTest {};

TEST_F(MarkerWrite, LeavesTheFileAloneWithoutEntries) {
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(marker_file(), "(none)");
    write_file(marker_path, "earlier");
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(marker_file(), "earlier");
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerWrite, PutsTheTextInTheFileAndReleasesIt) {
    const auto before = open_descriptors();
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    ASSERT_EQ(add("Bios", "3.4.0"), 0);
    EXPECT_EQ(write(), 0);
    EXPECT_STREQ(err_msg, "");
    const std::string text = std::string(io_line) + bios_line;
    EXPECT_EQ(marker_file(), text);
    expect_released();
    EXPECT_THAT(log_lines(), ElementsAre(log_line(marker_module, "DEBUG", "WriteUpgMarkerData",
                                                  "Writing Upgrade Marker Data\n" + text)));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerWrite, ReplacesALongerFile) {
    write_file(marker_path, std::string(1000, 'x'));
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(marker_file(), io_line);
}

TEST_F(MarkerWrite, FailsWhenTheFileCannotBeOpened) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    interpose::fail(Call::fopen, ENOSPC);
    EXPECT_EQ(write(), -28);
    EXPECT_STREQ(err_msg,
                 "Unable to open the Upgrade marker file /misc/scratch/bootup_fpd_marker.txt, error No space left on "
                 "device");
    EXPECT_THAT(log_lines(), IsEmpty());
    expect_marker(io_line, 96);
}

TEST_F(MarkerWrite, FailsWhenADirectoryIsInTheFilesPlace) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    fs::create_directory(marker_path);
    EXPECT_EQ(write(), -21);
    EXPECT_STREQ(err_msg,
                 "Unable to open the Upgrade marker file /misc/scratch/bootup_fpd_marker.txt, error Is a directory");
    EXPECT_TRUE(fs::is_directory(marker_path));
    expect_marker(io_line, 96);
}

TEST_F(MarkerWrite, FailsOnAFullDiskAndKeepsTheText) {
    const auto before = open_descriptors();
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    fs::create_symlink("/dev/full", marker_path);
    EXPECT_EQ(write(), -5);
    EXPECT_EQ(err_msg, std::string("Failed to write Upgrade marker data\n") + io_line);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(marker_module, "DEBUG", "WriteUpgMarkerData",
                                                  std::string("Writing Upgrade Marker Data\n") + io_line)));
    expect_marker(io_line, 96);
    EXPECT_EQ(open_descriptors(), before);
    fs::remove(marker_path);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(marker_file(), io_line);
    expect_released();
}

TEST_F(MarkerWrite, FailsWhenTheFileDoesNotReachTheStorage) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    interpose::fail(Call::fsync, EIO);
    EXPECT_EQ(write(), -5);
    EXPECT_EQ(err_msg, std::string("Failed to write Upgrade marker data\n") + io_line);
    expect_marker(io_line, 96);
}

TEST_F(MarkerWrite, IsDoneWhereTheFileSystemHasNoSync) {
    for (const int error : {EINVAL, EROFS, ENOTSUP}) {
        ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
        interpose::fail(Call::fsync, error);
        EXPECT_EQ(write(), 0) << error;
        EXPECT_EQ(marker_file(), io_line);
        expect_released();
    }
}

TEST_F(MarkerWrite, HasTheFileReachTheStorageAndThenItsDirectory) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    interpose::reset();
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(interpose::calls(Call::fsync), 3U);
}

TEST_F(MarkerWrite, IsTheMarkerOfNoPlanUntilItIsWhole) {
    std::vector<std::string> plans;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(add("Fpd" + std::to_string(i), "1.2.3"), 0);
        plans.push_back(text());
    }
    std::vector<std::string> on_storage;
    interpose::before_each(Call::fsync, [&] { on_storage.push_back(marker_file()); });
    EXPECT_EQ(write(), 0);
    // Before the first sync the storage may have any part of it; after it all but the first character is there.
    ASSERT_THAT(on_storage, SizeIs(3));
    for (std::size_t size = 0; size <= on_storage[0].size(); ++size)
        EXPECT_THAT(plans, Not(Contains(on_storage[0].substr(0, size)))) << size;
    EXPECT_EQ(on_storage[0].substr(1), plans.back().substr(1));
    EXPECT_EQ(on_storage[1], plans.back());
}

TEST_F(MarkerWrite, FailsWhenItsEndDoesNotReachTheStorage) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    interpose::fail(Call::fsync, EIO, 2);
    EXPECT_EQ(write(), -5);
    expect_marker(io_line, 96);
}

TEST_F(MarkerWrite, IsDoneWhenTheDirectoryCannotBeSynced) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    constexpr unsigned behind_the_log = 2;
    interpose::fail(Call::open, EACCES, behind_the_log);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(marker_file(), io_line);
    EXPECT_EQ(interpose::calls(Call::fsync), 2U);
}

TEST_F(MarkerWrite, IsDoneWhereAFileCannotBeSynced) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    fs::create_symlink("/dev/null", marker_path);
    EXPECT_EQ(write(), 0);
    expect_released();
}

TEST_F(MarkerWrite, FailsWhenAnEntryTookTheLastByteToo) {
    ASSERT_EQ(add_of_length(96), -105);
    EXPECT_EQ(write(), -5);
    EXPECT_EQ(marker_file(), "");
}

TEST_F(MarkerWrite, HasTheDirectoryReachTheStorageWhateverItsDescriptor) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    interpose::reset();
    const Descriptor standard_input(dup(STDIN_FILENO));
    close(STDIN_FILENO);  // the lowest descriptor is free
    EXPECT_EQ(write(), 0);
    dup2(standard_input.fd, STDIN_FILENO);
    EXPECT_EQ(interpose::calls(Call::fsync), 3U);
}

TEST_F(MarkerWrite, FailsWhenAnEntryDidNotFit) {
    ASSERT_EQ(add_of_length(92), 0);
    ASSERT_EQ(add_of_length(93), -105);
    const std::string cut = text();
    EXPECT_EQ(write(), -5);
    EXPECT_EQ(err_msg, "Failed to write Upgrade marker data\n" + cut);
    EXPECT_EQ(marker_file(), "");
    EXPECT_EQ(text(), cut);
}

// Deleting, releasing -------------------------------------------------------------------------------------------------

struct MarkerDelete : MarkerTest {};

TEST_F(MarkerDelete, RemovesTheFileAndKeepsTheText) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    write_file(marker_path, "earlier");
    EXPECT_EQ(remove(), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_EQ(marker_file(), "(none)");
    expect_marker(io_line, 96);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerDelete, HasTheRemovalReachTheStorage) {
    write_file(marker_path, "earlier");
    bool there = true;
    interpose::before_each(Call::fsync, [&] { there = fs::exists(marker_path); });
    EXPECT_EQ(upg_marker_delete(err_msg, sizeof err_msg), 0);
    EXPECT_FALSE(there);
}

TEST_F(MarkerDelete, HasNothingToDoWithoutAFile) {
    EXPECT_EQ(remove(), 0);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerDelete, FailsWhenADirectoryIsInTheFilesPlace) {
    fs::create_directory(marker_path);
    EXPECT_EQ(remove(), -21);
    EXPECT_STREQ(err_msg,
                 "Unable to remove Upgrade Marker file /misc/scratch/bootup_fpd_marker.txt, error Is a directory");
    EXPECT_TRUE(fs::is_directory(marker_path));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MarkerDelete, FailsWhenTheSystemRefuses) {
    write_file(marker_path, "earlier");
    interpose::fail(Call::unlink, EROFS);
    EXPECT_EQ(remove(), -30);
    EXPECT_STREQ(
        err_msg,
        "Unable to remove Upgrade Marker file /misc/scratch/bootup_fpd_marker.txt, error Read-only file system");
    EXPECT_EQ(marker_file(), "earlier");
}

struct MarkerRelease : MarkerTest {};

TEST_F(MarkerRelease, ForgetsTheTextAndLeavesTheFileAlone) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    write_file(marker_path, "earlier");
    upg_marker_release();
    expect_released();
    EXPECT_EQ(marker_file(), "earlier");
    upg_marker_release();
    expect_released();
}

TEST_F(MarkerCheck, LeavesNoEarlierText) {
    std::strcpy(err_msg, "left by an earlier call");
    EXPECT_EQ(check(), 0);
    EXPECT_STREQ(err_msg, "");
}

}  // namespace
