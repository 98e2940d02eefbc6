/// Files and system calls as the tool uses them: closed on exec, repeated when a signal interrupts them. Callable from
/// every thread.
#ifndef OS_FILE_H
#define OS_FILE_H

#include <cerrno>
#include <cstddef>
#include <string_view>

#include "os_owner.h"

/// Repeats a system call that reports failure by -1 and errno for as long as a signal interrupts it; its last result.
template <class Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

/// fopen, closed on exec: a child of the platform library must not keep a file of the flash in use, whose unmount would
/// fail. Null with errno when the file cannot be opened.
File open_to_read(const char *path);
/// The same in fopen's `mode` "w" or "a", without a buffer: what could not be written at once would be lost when a
/// signal interrupts.
File open_to_write(const char *path, const char *mode);
/// opendir; null with errno.
Directory open_directory(const char *path);
/// readdir; null at the end of the directory, or when it cannot be read on.
const dirent *next_entry(DIR *directory);
/// The next byte of the stream, or EOF.
int read_byte(std::FILE *file);
/// Reads up to `size` bytes; fewer only at the end of the file or after an error, which ferror tells.
std::size_t read_bytes(std::FILE *file, char *bytes, std::size_t size);
/// Writes all of `bytes` into the stream; false with errno when a part of it could not be written.
bool write_bytes(std::FILE *file, std::string_view bytes);
/// Has the storage take what was written to the file: a reset of the card may follow at once. True also where there is
/// nothing to sync, as on a file that cannot be synced; false with errno.
bool sync_to_storage(int fd);

/// Appends `text` to the file in one write, creating it if need be. Returns 0 or -errno of the failed open; a failed
/// write is not reported. A cancellation point, before anything is done.
int append_to_file(const char *path, std::string_view text);

#endif
