/// The upgrade's event log on the on-board failure-logging (OBFL) flash.
///
/// The flash may take minutes to mount, so a thread of its own mounts it, and until then the lines go to a temporary
/// file. All functions belong to the main thread, obfl_mount_thread and obfl_flash_operation excepted. Results are 0 or
/// positive errno numbers with a text in err_msg.
#ifndef BRD_INTF_AUTO_FPD_OBFL_H
#define BRD_INTF_AUTO_FPD_OBFL_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

/// Progress of the mount.
enum class ObflMountStatus : int {
    none = 0,
    already_mounted = 1,  // at the first event line
    thread_started = 2,
    not_mounted = 3,  // the thread finished and the flash is no mount point
    mounted = 4,      // by the thread; moving the temporary log was tried
};

/// One per process; all zero at start and after obfl_flash_release().
struct ObflContext {
    char latest_file[128];  // path of the flash log file in use; empty: not chosen yet
    ObflMountStatus mount_status;
    pthread_t mount_thread;          // 0: none was started
    bool mount_thread_joined;        // its handle is no longer valid
    std::atomic<bool> mounted_here;  // set by the mount thread, once, and read by the main thread
    bool flash_ready;                // the temporary log was moved: lines go to the flash
};

/// The process's context.
ObflContext &obfl_context();

/// Appends one line to the event log; also drives the mount of the flash on. printf-style.
[[gnu::format(printf, 1, 2)]] void fpd_obfl_log(const char *format, ...);
/// Writes the local time, "2024-03-05 14:02:11 UTC"; untouched when size is below 32 bytes.
void fpd_obfl_timestamp(char *buffer, std::size_t size);
/// Path of the file for the next event line; also drives the mount of the flash on. Static text.
const char *GetFpdObflLogFilename();
/// Whether no mount thread runs, or no longer; never waits.
bool obfl_mount_is_over();
/// Gives a mount thread up that does not end, and forgets all; what was logged stays in the temporary file.
void obfl_flash_abandon();
/// Waits for the mount thread, moves the temporary log to the flash, unmounts what this program mounted, and forgets
/// all.
void obfl_flash_release();

/// Mounts (1) or unmounts (0) the flash; up to 5 minutes. EOPNOTSUPP when that fails or `op` is neither. Any thread.
int obfl_flash_operation(int op, char *err_msg, std::size_t err_len);
/// Body of the mount thread: null, or EOPNOTSUPP as a pointer-sized integer.
void *obfl_mount_thread(void *unused);
/// Whether the flash is a mount point.
bool obfl_is_mounted(char *err_msg, std::size_t err_len);
/// The flash log file with the highest number, or number 1; chosen once per run. *path belongs to the context. ENOENT,
/// E2BIG.
int obfl_latest_file_get(const char **path, char *err_msg, std::size_t err_len);
/// Appends the temporary log to the flash log and removes it. 0 also when there is none; EIO, or no flash log file.
int obfl_move_temp_log(char *err_msg, std::size_t err_len);
/// The number in the name of a flash log file. EINVAL when it is not the name of one, EOPNOTSUPP.
int obfl_file_number_parse(const char *name, std::uint32_t *number, char *err_msg, std::size_t err_len);

#endif
