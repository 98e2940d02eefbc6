#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "interpose.h"
#include "os_file.h"
#include "run_support.h"

namespace {

using interpose::Call;

struct AppendToFile : CardTest {};

TEST_F(AppendToFile, MakesTheFileAndAddsToIt) {
    EXPECT_EQ(append_to_file("/misc/scratch/a", "one"), 0);
    EXPECT_EQ(append_to_file("/misc/scratch/a", " two"), 0);
    EXPECT_EQ(read_file("/misc/scratch/a"), "one two");
}

TEST_F(AppendToFile, TellsWhyTheFileCannotBeOpened) {
    EXPECT_EQ(append_to_file("/misc/scratch", "one"), -EISDIR);
    EXPECT_EQ(append_to_file("/misc/scratch/none/a", "one"), -ENOENT);
}

TEST_F(AppendToFile, DoesNotTellOfAFullDisk) {
    EXPECT_EQ(append_to_file("/dev/full", "one"), 0);
}

TEST_F(AppendToFile, RepeatsWhatASignalInterrupts) {
    for (const Call call : {Call::open, Call::write}) {
        interpose::fail(call, EINTR, 1, 3);
        EXPECT_EQ(append_to_file("/misc/scratch/a", "one "), 0);
    }
    EXPECT_EQ(read_file("/misc/scratch/a"), "one one ");
}

struct OpenFile : CardTest {};

TEST_F(OpenFile, IsClosedOnExec) {
    write_file("/misc/scratch/a", "text");
    const File files[] = {open_to_read("/misc/scratch/a"), open_to_write("/misc/scratch/a", "a"),
                          open_to_write("/misc/scratch/a", "w+")};
    for (const File &file : files) {
        ASSERT_TRUE(file);
        EXPECT_TRUE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC);
    }
}

TEST_F(OpenFile, IsRepeatedWhenASignalInterruptsIt) {
    write_file("/misc/scratch/a", "text");
    interpose::fail(Call::fopen, EINTR, 1, 3);
    EXPECT_TRUE(open_to_read("/misc/scratch/a"));
}

TEST_F(OpenFile, HasWhatIsWrittenInTheFileAtOnce) {
    for (const char *mode : {"a", "w+"}) {
        const File file = open_to_write("/misc/scratch/b", mode);
        ASSERT_TRUE(write_bytes(file.get(), "text"));
        EXPECT_EQ(read_file("/misc/scratch/b"), "text") << mode;
    }
}

TEST_F(OpenFile, TellsWhyItFailed) {
    EXPECT_FALSE(open_to_read("/misc/scratch/none"));
    EXPECT_EQ(errno, ENOENT);
}

struct OpenDirectory : CardTest {};

TEST_F(OpenDirectory, IsReadWhateverSignalsInterrupt) {
    write_file("/misc/scratch/a", "text");
    interpose::fail(Call::opendir, EINTR, 1, 2);
    const Directory directory = open_directory("/misc/scratch");
    ASSERT_TRUE(directory);
    interpose::fail(Call::readdir, EINTR, 2, 2);
    int entries = 0;
    while (next_entry(directory.get())) ++entries;
    EXPECT_EQ(entries, 3) << "the file, the directory and its parent";
    EXPECT_FALSE(open_directory("/misc/scratch/none"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(OpenDirectory, EndsWithAnyOtherError) {
    const Directory directory = open_directory("/misc/scratch");
    interpose::fail(Call::readdir, EBADF);
    EXPECT_FALSE(next_entry(directory.get()));
    EXPECT_EQ(errno, EBADF);
}

/// A device that gives and takes one character at a time, and fails each second time, with `error`.
struct Device {
    explicit Device(std::string given) : content(std::move(given)) {
        const cookie_io_functions_t functions{read, write, nullptr, nullptr};
        file.reset(fopencookie(this, "r+", functions));
        setvbuf(file.get(), nullptr, _IONBF, 0);
    }

    bool fails() {
        failing = !failing;
        errno = error;
        return failing;
    }
    static ssize_t read(void *cookie, char *bytes, std::size_t) {
        auto &device = *static_cast<Device *>(cookie);
        if (device.fails()) return -1;
        if (device.content.empty()) return 0;
        *bytes = device.content.front();
        device.content.erase(0, 1);
        return 1;
    }
    static ssize_t write(void *cookie, const char *bytes, std::size_t) {
        auto &device = *static_cast<Device *>(cookie);
        if (device.fails()) return 0;
        device.content += *bytes;
        return 1;
    }

    std::string content;
    bool failing = false;
    int error = EINTR;
    File file;
};

TEST(Stream, IsReadOnWhenASignalInterrupts) {
    Device one("ab");
    EXPECT_EQ(read_byte(one.file.get()), 'a');
    EXPECT_EQ(read_byte(one.file.get()), 'b');
    EXPECT_EQ(read_byte(one.file.get()), EOF);
    char bytes[8] = "";
    Device many("abcd");
    EXPECT_EQ(read_bytes(many.file.get(), bytes, sizeof bytes), 4U);
    EXPECT_STREQ(bytes, "abcd");
    EXPECT_FALSE(std::ferror(many.file.get()));
}

TEST(Stream, IsWrittenOnWhenASignalInterrupts) {
    Device device("");
    EXPECT_TRUE(write_bytes(device.file.get(), "abcd"));
    EXPECT_EQ(device.content, "abcd");
}

TEST(Stream, EndsWithAnyOtherError) {
    char bytes[8] = "";
    Device read("ab");
    read.error = EIO;
    EXPECT_EQ(read_byte(read.file.get()), EOF);
    EXPECT_TRUE(std::ferror(read.file.get()));
    EXPECT_EQ(read_bytes(read.file.get(), bytes, sizeof bytes), 1U);
    Device written("");
    written.error = EIO;
    EXPECT_FALSE(write_bytes(written.file.get(), "ab"));
}

struct Sync : CardTest {};

TEST_F(Sync, IsNotMissedWhereThereIsNothingToSync) {
    write_file("/misc/scratch/a", "text");
    const Descriptor file(open("/misc/scratch/a", O_RDONLY));
    EXPECT_TRUE(sync_to_storage(file.fd));
    for (const int error : {EROFS, ENOTSUP, EINVAL, EINTR}) {
        interpose::fail(Call::fsync, error);
        EXPECT_TRUE(sync_to_storage(file.fd)) << std::strerror(error);
    }
    for (const int error : {EIO, ENOSPC, EBADF}) {
        interpose::fail(Call::fsync, error);
        EXPECT_FALSE(sync_to_storage(file.fd)) << std::strerror(error);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(AppendToFile, MakesTheFileForAllToReadAndWriteAsFarAsTheMaskLetsThem) {
    const mode_t mask = umask(0);
    EXPECT_EQ(append_to_file("/misc/scratch/a", "one"), 0);
    umask(mask);
    EXPECT_EQ(std::filesystem::status("/misc/scratch/a").permissions(), std::filesystem::perms{0666});
}

TEST_F(AppendToFile, TakesDescriptor0AsAnyOther) {
    const StandardInputClosed closed;
    EXPECT_EQ(append_to_file("/misc/scratch/a", "one"), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "closed again";
    EXPECT_EQ(read_file("/misc/scratch/a"), "one");
}

TEST(Stream, IsReadAndWrittenNoFurtherThanAskedFor) {
    char bytes[] = "########";
    Device read("abcdefgh");
    EXPECT_EQ(read_bytes(read.file.get(), bytes, 4), 4U);
    EXPECT_STREQ(bytes, "abcd####");
    Device written("");
    EXPECT_TRUE(write_bytes(written.file.get(), std::string_view("abcdefgh").substr(0, 4)));
    EXPECT_EQ(written.content, "abcd");
}

}  // namespace
