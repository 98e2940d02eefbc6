#include "os_file.h"

#include <fcntl.h>

namespace {

/// Whether the operation on the stream ended because a signal interrupted it, and may go on.
bool interrupted(std::FILE *file) {
    if (!std::ferror(file) || errno != EINTR) return false;
    std::clearerr(file);
    return true;
}

File open_stream(const char *path, const char *mode) {
    File file(std::fopen(path, mode));
    while (!file && errno == EINTR) file.reset(std::fopen(path, mode));
    return file;
}

}  // namespace

File open_to_read(const char *path) {
    return open_stream(path, "re");
}

File open_to_write(const char *path, const char *mode) {
    char mode_and_flag[8];
    std::snprintf(mode_and_flag, sizeof mode_and_flag, "%se", mode);
    File file = open_stream(path, mode_and_flag);
    if (file) std::setbuf(file.get(), nullptr);
    return file;
}

Directory open_directory(const char *path) {
    Directory directory(opendir(path));
    while (!directory && errno == EINTR) directory.reset(opendir(path));
    return directory;
}

const dirent *next_entry(DIR *directory) {
    const dirent *entry = nullptr;
    do {
        errno = 0;
        entry = readdir(directory);
    } while (!entry && errno == EINTR);
    return entry;
}

int read_byte(std::FILE *file) {
    int byte = std::fgetc(file);
    while (byte == EOF && interrupted(file)) byte = std::fgetc(file);
    return byte;
}

std::size_t read_bytes(std::FILE *file, char *bytes, std::size_t size) {
    std::size_t count = std::fread(bytes, 1, size, file);
    while (count != size && interrupted(file)) count += std::fread(bytes + count, 1, size - count, file);
    return count;
}

bool write_bytes(std::FILE *file, std::string_view bytes) {
    std::size_t count = std::fwrite(bytes.data(), 1, bytes.size(), file);
    while (count != bytes.size() && interrupted(file))
        count += std::fwrite(bytes.data() + count, 1, bytes.size() - count, file);
    return count == bytes.size();
}

bool sync_to_storage(int fd) {
    if (uninterrupted([fd] { return fsync(fd); }) == 0) return true;
    return errno == EINVAL || errno == EROFS || errno == ENOTSUP;
}

int append_to_file(const char *path, std::string_view text) {
    // A worker is cancelled before a line or after it: within, the descriptor or half of the line could be lost.
    pthread_testcancel();
    const CancelHold hold;
    const Descriptor file(
        uninterrupted([path] { return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666); }));
    if (file.fd < 0) return -errno;
    // One write keeps the lines of concurrent threads apart. A full disk makes it short, and the rest is lost then.
    uninterrupted([&] { return write(file.fd, text.data(), text.size()); });
    return 0;
}
