#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "interpose.h"
#include "os_owner.h"
#include "run_support.h"

namespace {

namespace fs = std::filesystem;
using interpose::Call;
using testing::Contains;
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

struct MarkerAdd : MarkerTest {};

TEST_F(MarkerAdd, BeginsWithNothing) {
    expect_released();
}

TEST_F(MarkerAdd, AppendsOneLinePerFpdInTheOrderOfAdding) {
    expect_unlogged(add("IoFpga", "1.12.0"), 0);
    expect_unlogged(add("Bios", "3.4.0"), 0);
    expect_marker(std::string(io_line) + bios_line, 96);
}

TEST_F(MarkerAdd, PadsTheColumnsToTheirWidthAndWritesALongNameWhole) {
    const struct {
        const char *name, *version, *line;
    } cases[] = {
        {"", "", "FPD:                  | Version:             \n"},
        {"SixteenLettersOK", "255.65535.2", "FPD: SixteenLettersOK | Version: 255.65535.2 \n"},
        {"A name of seventeen and more", "1.2.3", "FPD: A name of seventeen and more | Version: 1.2.3       \n"},
    };
    for (const auto &[name, version, line] : cases) {
        upg_marker_release();
        EXPECT_EQ(add(name, version), 0);
        expect_marker(line, 96);
    }
}

TEST_F(MarkerAdd, TakesMemoryForTwoEntriesThenForOneMoreAtATime) {
    std::string expected;
    for (const std::size_t capacity : {96U, 96U, 144U, 192U, 240U, 288U}) {
        EXPECT_EQ(add("IoFpga"), 0);
        expect_marker(expected += io_line, capacity);
    }
}

TEST_F(MarkerAdd, GrowsWhenLessThan49BytesAreFree) {
    for (const auto &[first, capacity] : {std::pair{47U, 96U}, {48U, 144U}}) {
        upg_marker_release();
        ASSERT_EQ(add_of_length(first), 0);
        ASSERT_EQ(add_of_length(46), 0);
        EXPECT_EQ(upg_marker().capacity, capacity);
    }
}

TEST_F(MarkerAdd, FailsWithoutMemoryForTheFirstEntry) {
    interpose::fail(Call::calloc, ENOMEM);
    expect_logged(add("IoFpga"), -12, marker_module, "UpgMarkerCallocFail", no_memory);
    expect_released();
    expect_result(add("IoFpga"), 0);
    expect_marker(io_line, 96);
}

TEST_F(MarkerAdd, LosesTheEarlierEntriesWithoutMemoryToGrowAndStartsAnew) {
    ASSERT_EQ(add("IoFpga"), 0);
    ASSERT_EQ(add("IoFpga"), 0);
    interpose::fail(Call::realloc, ENOMEM);
    expect_logged(add("Bios", "3.4.0"), -12, marker_module, "UpgMarkerReallocFail", no_memory);
    expect_released();
    expect_result(add("Bios", "3.4.0"), 0);
    expect_marker(bios_line, 96);
}

TEST_F(MarkerAdd, TakesAnEntryThatFitsToTheLastByte) {
    ASSERT_EQ(add_of_length(60), 0);
    EXPECT_EQ(add_of_length(83), 0);
    EXPECT_EQ(upg_marker().length, 143U);
    EXPECT_EQ(upg_marker().capacity, 144U);
    EXPECT_EQ(text().size(), 143U);
}

TEST_F(MarkerAdd, RefusesAnEntryWithoutRoomForItsEndAndEveryOneAfterIt) {
    ASSERT_EQ(add_of_length(60), 0);
    expect_logged(add_of_length(84), -105, marker_module, "AddFpdInfoUpgMarkerOOB",
                  "Out of buffer to add FPD info for " + std::string(54, 'n'));
    EXPECT_EQ(upg_marker().length, 144U);
    EXPECT_EQ(text().size(), 143U);
    const std::string cut = text();
    for (std::size_t length = 190; length < 500; length += 46) {
        clear_log();
        expect_logged(add("Bios", "3.4.0"), -105, marker_module, "AddFpdInfoUpgMarkerOOB",
                      "Out of buffer to add FPD info for Bios");
        EXPECT_EQ(upg_marker().length, length);
        EXPECT_EQ(upg_marker().capacity, 144U);
        EXPECT_EQ(text(), cut);
    }
}

struct MarkerCheck : MarkerTest {
    MarkerCheck() { EXPECT_EQ(add("IoFpga", "1.12.0"), 0); }
    /// Checks a file of this text, and expects what it is found to be.
    void expect_check(const std::string &file, const std::string &current, bool expected) {
        clear_log();
        write_file(marker_path, file);
        same = !expected;
        expect_result(check(), 0);
        EXPECT_EQ(same, expected) << file;
        expect_only_log(marker_module, "INFO", "UpgMarkerCheck",
                        "Previous Marked FPDs to Upgrade\n" + file.substr(0, file.find('\0')) +
                            "\nCurren Upgrading FPDs\n" + current);
    }
};

TEST_F(MarkerCheck, FindsNoFileAndAnEmptyOneToBeAnother) {
    const auto before = open_descriptors();
    for (const bool there : {false, true}) {
        if (there) write_file(marker_path, "");
        std::strcpy(err_msg, "left by an earlier call");
        same = true;
        expect_unlogged(check(), 0);
        EXPECT_FALSE(same);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerCheck, FindsTheIdenticalFileToBeTheSame) {
    const auto before = open_descriptors();
    expect_check(io_line, io_line, true);
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
          io + "FPD: Bios             | Version: 3.4.0\n", io + "FPD: Bios             | Version: 3.4.0        \n"})
        expect_check(other, current, false);
    expect_check(current, current, true);
}

TEST_F(MarkerCheck, TakesNoEntriesForTheEmptyText) {
    upg_marker_release();
    expect_check(io_line, "", false);
    expect_check(std::string(1, '\0'), "", true);
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

TEST_F(MarkerCheck, TakesTheFilesSizeAsANumberOf32Bits) {
    constexpr std::int64_t growth = std::int64_t{1} << 32;
    if (!Allocated<char>(static_cast<char *>(std::malloc(growth)))) GTEST_SKIP() << "no memory for 4 GiB";
    write_file(marker_path, io_line);
    interpose::grow_stat(growth);
    expect_result(check(), 0);
    EXPECT_THAT(log_lines("UpgMarkerCheck"), SizeIs(1));
    clear_log();
    interpose::grow_stat(growth + 1);
    expect_unlogged(check(), 0, "Failed to read marker data, error 0");
    EXPECT_TRUE(same);
}

TEST_F(MarkerCheck, CountsAsTheSameAfterAFailure) {
    const struct {
        Call call;
        int error, rc;
        const char *text;
    } cases[] = {
        {Call::access, EACCES, -13,
         "Upgrade marker file /misc/scratch/bootup_fpd_marker.txt doesn't exist, error Permission denied"},
        {Call::stat, EIO, -5, "Marker File /misc/scratch/bootup_fpd_marker.txt access error Input/output error"},
        {Call::fopen, EMFILE, -24, "Marker File /misc/scratch/bootup_fpd_marker.txt access error Too many open files"},
        {Call::malloc, ENOMEM, -12, "malloc() failed size 46, error Cannot allocate memory"},
        {Call::fread, EIO, 0, "Failed to read marker data, error 0"},  // a short read is no error
    };
    write_file(marker_path, bios_line);
    const auto before = open_descriptors();
    for (const auto &[call, error, rc, text] : cases) {
        same = false;
        interpose::fail(call, error);
        expect_unlogged(check(), rc, text);
        EXPECT_TRUE(same) << text;
        EXPECT_EQ(open_descriptors(), before) << text;
    }
}

TEST_F(MarkerCheck, FailsWhenADirectoryIsInTheFilesPlace) {
    const auto before = open_descriptors();
    fs::create_directory(marker_path);
    write_file(fs::path(marker_path) / "gives the directory a size", "");
    expect_unlogged(check(), -1, "Failed to read marker data, error 1");
    EXPECT_TRUE(same);
    EXPECT_EQ(open_descriptors(), before);
}

struct MarkerWrite : MarkerTest {};

TEST_F(MarkerWrite, LeavesTheFileAloneWithoutEntries) {
    expect_unlogged(write(), 0);
    EXPECT_EQ(marker_file(), "(none)");
    write_file(marker_path, "earlier");
    expect_unlogged(write(), 0);
    EXPECT_EQ(marker_file(), "earlier");
}

TEST_F(MarkerWrite, PutsTheTextInTheFileInPlaceOfALongerOneAndReleasesIt) {
    const auto before = open_descriptors();
    write_file(marker_path, std::string(1000, 'x'));
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    ASSERT_EQ(add("Bios", "3.4.0"), 0);
    expect_result(write(), 0);
    const std::string text = std::string(io_line) + bios_line;
    EXPECT_EQ(marker_file(), text);
    expect_released();
    expect_only_log(marker_module, "DEBUG", "WriteUpgMarkerData", "Writing Upgrade Marker Data\n" + text);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MarkerWrite, FailsAndKeepsTheText) {
    constexpr const char *not_written =
        "Failed to write Upgrade marker data\nFPD: IoFpga           | Version: 1.12.0      \n";
    const struct {
        void (*obstruct)();
        int rc;
        const char *text;
    } cases[] = {
        {[] { interpose::fail(Call::fopen, ENOSPC); }, -28,
         "Unable to open the Upgrade marker file /misc/scratch/bootup_fpd_marker.txt, error No space left on device"},
        {[] { fs::create_directory(marker_path); }, -21,
         "Unable to open the Upgrade marker file /misc/scratch/bootup_fpd_marker.txt, error Is a directory"},
        {[] { fs::create_symlink("/dev/full", marker_path); }, -5, not_written},
        {[] { interpose::fail(Call::fsync, EIO); }, -5, not_written},
        {[] { interpose::fail(Call::fsync, EIO, 2); }, -5, not_written},
    };
    const auto before = open_descriptors();
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    for (const auto &[obstruct, rc, text] : cases) {
        obstruct();
        expect_result(write(), rc, text);
        expect_marker(io_line, 96);
        EXPECT_EQ(open_descriptors(), before);
        fs::remove(marker_path);
    }
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(marker_file(), io_line);
    expect_released();
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

TEST_F(MarkerWrite, HasTheDirectoryReachTheStorageTooWhateverItsDescriptor) {
    for (const bool lowest_is_free : {false, true}) {
        ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
        interpose::reset();
        std::optional<StandardInputClosed> closed;
        if (lowest_is_free) closed.emplace();
        EXPECT_EQ(write(), 0);
        EXPECT_EQ(interpose::calls(Call::fsync), 3U);
    }
}

TEST_F(MarkerWrite, FailsWhenAnEntryDidNotFit) {
    for (const std::size_t last : {93U, 52U}) {  // 52: its newline would be the last byte
        upg_marker_release();
        ASSERT_EQ(add_of_length(92), 0);
        ASSERT_EQ(add_of_length(last), -105);
        const std::string cut = text();
        expect_result(write(), -5, "Failed to write Upgrade marker data\n" + cut);
        EXPECT_EQ(marker_file(), "");
        EXPECT_EQ(text(), cut);
    }
}

struct MarkerDelete : MarkerTest {};

TEST_F(MarkerDelete, RemovesTheFileAndKeepsTheText) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    write_file(marker_path, "earlier");
    bool there_at_sync = true;
    interpose::before_each(Call::fsync, [&] { there_at_sync = fs::exists(marker_path); });
    expect_unlogged(remove(), 0);
    EXPECT_EQ(marker_file(), "(none)");
    EXPECT_FALSE(there_at_sync) << "the removal reaches the storage";
    expect_marker(io_line, 96);
}

TEST_F(MarkerDelete, HasNothingToDoWithoutAFile) {
    expect_unlogged(remove(), 0);
}

TEST_F(MarkerDelete, FailsWhenADirectoryIsInTheFilesPlaceOrTheSystemRefuses) {
    const std::string text = "Unable to remove Upgrade Marker file /misc/scratch/bootup_fpd_marker.txt, error ";
    fs::create_directory(marker_path);
    expect_unlogged(remove(), -21, text + "Is a directory");
    interpose::fail(Call::unlink, EROFS);
    expect_unlogged(remove(), -30, text + "Read-only file system");
    EXPECT_TRUE(fs::is_directory(marker_path));
}

TEST_F(MarkerTest, IsReleasedWithItsTextAndLeavesTheFileAlone) {
    ASSERT_EQ(add("IoFpga", "1.12.0"), 0);
    write_file(marker_path, "earlier");
    for (int i = 0; i < 2; ++i) {
        upg_marker_release();
        expect_released();
        EXPECT_EQ(marker_file(), "earlier");
    }
}

}  // namespace
