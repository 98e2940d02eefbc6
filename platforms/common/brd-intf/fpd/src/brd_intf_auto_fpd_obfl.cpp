#include "brd_intf_auto_fpd_obfl.h"

#include <dirent.h>
#include <fcntl.h>
#include <regex.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "card_libraries.h"
#include "fpd_log.h"
#include "os_file.h"
#include "os_thread.h"
#include "text_builder.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

constexpr const char *flash_directory = "/mnt/obfl";
constexpr const char *temporary_log = "/var/log/fpd_obfl_log.txt";
constexpr const char *mountpoint_command = "mountpoint /mnt/obfl";
constexpr const char *mount_command = "timeout 5m /usr/sbin/check-flash start obfl";
constexpr const char *unmount_command = "timeout 30s /usr/sbin/check-flash stop obfl";
// The unescaped '.' matches any character: files named so before are still found.
constexpr const char *log_file_pattern = "^fpd_local_log_([0-9]+).txt$";

constexpr std::size_t error_size = 256;
constexpr std::size_t copy_chunk_size = 256;
constexpr std::size_t timestamp_size = 32;

ObflContext context;

/// The compiled regular expression of the flash log files' names.
struct LogFileRegex {
    LogFileRegex() : error(regcomp(&compiled, log_file_pattern, REG_EXTENDED)) {}
    ~LogFileRegex() {
        if (error == 0) regfree(&compiled);
    }
    LogFileRegex(const LogFileRegex &) = delete;
    LogFileRegex &operator=(const LogFileRegex &) = delete;

    regex_t compiled{};
    int error;  // of regcomp
};

/// Moves what was logged so far to the flash; from then on lines go there.
void take_flash_into_use(const LogSite &failure_site) {
    char err_msg[error_size] = "";
    if (obfl_move_temp_log(err_msg, sizeof err_msg) == 0)
        context.flash_ready = true;
    else
        log_error(failure_site, "Failed to copy temporary OBFL log into latest flash file, error '%s'", err_msg);
}

void start_mount_thread() {
    const int rc = os_thread_create(&context.mount_thread, nullptr, obfl_mount_thread, nullptr);
    if (rc == 0) {
        context.mount_status = ObflMountStatus::thread_started;
        return;
    }
    context.mount_thread = 0;
    log_error({here, "StartObflMountThreadFail"}, "Failed to start OBFL flash mount thread, error '%s;",
              std::strerror(rc));
}

void start_flash() {
    char err_msg[error_size] = "";
    if (!obfl_is_mounted(err_msg, sizeof err_msg)) {
        start_mount_thread();
        return;
    }
    context.mount_status = ObflMountStatus::already_mounted;
    take_flash_into_use({here, "CopyTempObflLogIntoLatestFlashFileFail"});
}

void check_mount_thread() {
    if (!context.mounted_here) return;
    char err_msg[error_size] = "";
    if (!obfl_is_mounted(err_msg, sizeof err_msg)) {
        context.mount_status = ObflMountStatus::not_mounted;
        return;
    }
    context.mount_status = ObflMountStatus::mounted;
    take_flash_into_use({here, "CopyTempObflLogIntoLatestFlashFileFaile"});
}

/// Unmounting writes out what the flash holds; a flash that stays mounted would lose it to the reset that may follow.
void sync_flash_log() {
    const Descriptor file(uninterrupted([] { return open(context.latest_file, O_RDONLY | O_CLOEXEC); }));
    if (file.fd >= 0) sync_to_storage(file.fd);
}

void forget_flash() {
    std::memset(context.latest_file, 0, sizeof context.latest_file);
    context.mount_status = ObflMountStatus::none;
    context.mount_thread = 0;
    context.mount_thread_joined = false;
    context.mounted_here = false;
    context.flash_ready = false;
}

/// Stores the path of a file on the flash as the latest file; false when it does not fit.
bool set_latest_file(const char *name) {
    const int length = std::snprintf(context.latest_file, sizeof context.latest_file, "%s/%s", flash_directory, name);
    if (fits(length, sizeof context.latest_file)) return true;
    context.latest_file[0] = '\0';
    return false;
}

int write_failed(char *err_msg, std::size_t err_len) {
    return fail_unlogged(EIO, err_msg, err_len, "write into OBLF latest file, error '%s'", std::strerror(errno));
}

/// Appends `from` to `to`, down to the file: the original is removed next.
int copy_stream(std::FILE *from, std::FILE *to, char *err_msg, std::size_t err_len) {
    char chunk[copy_chunk_size];
    std::size_t count;
    while ((count = read_bytes(from, chunk, sizeof chunk)) > 0)
        if (!write_bytes(to, {chunk, count})) return write_failed(err_msg, err_len);
    if (std::ferror(from))
        return fail_unlogged(EIO, err_msg, err_len, "read from temp file, error '%s'", std::strerror(errno));
    if (!sync_to_storage(fileno(to))) return write_failed(err_msg, err_len);
    return 0;
}

/// The number as atoi has it, a too long one included. Not atoi itself, which would go on where the digits end: the
/// character that the pattern's '.' matched may be a digit too.
std::uint32_t number_from(const char *digits, const char *end) {
    long number = 0;
    for (; digits != end; ++digits) {
        const long digit = *digits - '0';
        number = number > (LONG_MAX - digit) / 10 ? LONG_MAX : number * 10 + digit;
    }
    return static_cast<std::uint32_t>(number);
}

int regex_failed(int rc, int error, const LogFileRegex &regex, char *err_msg, std::size_t err_len) {
    char text[error_size] = "";
    regerror(error, &regex.compiled, text, sizeof text);
    return fail_unlogged(rc, err_msg, err_len, "%s", text);
}

int parse_file_number(const LogFileRegex &regex, const char *name, std::uint32_t *number, char *err_msg,
                      std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (regex.error != 0) return regex_failed(EOPNOTSUPP, regex.error, regex, err_msg, err_len);
    regmatch_t matches[2];
    const int rc = regexec(&regex.compiled, name, std::size(matches), matches, 0);
    if (rc != 0) return regex_failed(EINVAL, rc, regex, err_msg, err_len);
    const regmatch_t &group = matches[1];
    if (group.rm_so < 0) return EINVAL;
    *number = number_from(name + group.rm_so, name + group.rm_eo);
    return 0;
}

}  // namespace

ObflContext &obfl_context() {
    return context;
}

void fpd_obfl_log(const char *format, ...) {
    const char *const file = GetFpdObflLogFilename();
    char timestamp[timestamp_size] = "";
    fpd_obfl_timestamp(timestamp, sizeof timestamp);
    TextBuilder line;
    line.add("%s [Bootup FPD] ", timestamp);
    std::va_list arguments;
    va_start(arguments, format);
    line.add_list(format, arguments);
    va_end(arguments);
    line.end_with("\n");
    const int rc = append_to_file(file, line.view());
    if (rc != 0)
        log_error({here, "ObflLog"}, "Failed to open FPD OBFL log file %s, error %s", file, std::strerror(-rc));
}

void fpd_obfl_timestamp(char *buffer, std::size_t size) {
    if (size < timestamp_size) return;
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    if (!std::strftime(buffer, size, "%F %T %Z", &local)) buffer[0] = '\0';
}

const char *GetFpdObflLogFilename() {
    if (context.mount_status == ObflMountStatus::none) start_flash();
    if (context.mount_status == ObflMountStatus::thread_started) check_mount_thread();
    if (!context.flash_ready) return temporary_log;
    char err_msg[error_size] = "";
    const char *path = nullptr;
    if (obfl_latest_file_get(&path, err_msg, sizeof err_msg) == 0) return path;
    log_error({here, "GetFpdObflLogFilename"}, "Failed to get FPD OBFL Filename, error '%s'", err_msg);
    return temporary_log;
}

bool obfl_mount_is_over() {
    if (context.mount_thread == 0 || context.mount_thread_joined) return true;
    context.mount_thread_joined = pthread_tryjoin_np(context.mount_thread, nullptr) != EBUSY;
    return context.mount_thread_joined;
}

void obfl_flash_abandon() {
    log_error({here, "ObflMountThreadHdlrFlashOperFail"}, "Failed to mount OBFL Flash, error '%s'",
              std::strerror(ETIMEDOUT));
    pthread_detach(context.mount_thread);
    forget_flash();
}

void obfl_flash_release() {
    if (context.mount_thread != 0) {
        if (!context.mount_thread_joined) pthread_join(context.mount_thread, nullptr);
        check_mount_thread();
    }
    char err_msg[error_size] = "";
    if (context.flash_ready) sync_flash_log();
    if (context.mounted_here && obfl_flash_operation(0, err_msg, sizeof err_msg) != 0)
        log_error({here, "ObflFlushFlashOperFail"}, "Failed to unmount OBFL Flash, error '%s'", err_msg);
    forget_flash();
}

int obfl_flash_operation(int op, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (op != 0 && op != 1)
        return fail({here, "ObflUnknownOperation"}, EOPNOTSUPP, err_msg, err_len, "OBFL Flash Unknown Operation %d",
                    op);
    const char *const command = op == 1 ? mount_command : unmount_command;
    CommandOutput output;
    if (run_command(command, output, err_msg, err_len) != 0)
        return pass_on({here, "ObflOperCmdFail"}, EOPNOTSUPP, "%s", err_msg);
    log_debug({here, "ObflOperCmd"}, "Executed OBFL Flashoperation command '%s' output '%s'", command, output);
    return 0;
}

void *obfl_mount_thread(void *) {
    log_debug({here, "ObflMountThreadHdlr"}, "OBFL Mount Thread Hanlder");
    char err_msg[error_size] = "";
    if (obfl_flash_operation(1, err_msg, sizeof err_msg) != 0) {
        log_error({here, "ObflMountThreadHdlrFlashOperFail"}, "Failed to mount OBFL Flash, error '%s'", err_msg);
        return reinterpret_cast<void *>(std::intptr_t{EOPNOTSUPP});
    }
    context.mounted_here = true;
    return nullptr;
}

bool obfl_is_mounted(char *err_msg, std::size_t err_len) {
    CommandOutput output;
    if (run_command(mountpoint_command, output, err_msg, err_len) != 0) {
        log_info({here, "ObflMountPointNotExist"}, "OBFL Flash mountpoint '%s' doesn't exist, '%s'", flash_directory,
                 err_msg);
        return false;
    }
    log_info({here, "ObflMountPointExist"}, "OBFL Flash mountpoint '%s' exist, output '%s'", flash_directory, output);
    return true;
}

int obfl_latest_file_get(const char **path, char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    *path = context.latest_file;
    if (context.latest_file[0] != '\0') return 0;
    const Directory directory = open_directory(flash_directory);
    if (!directory)
        return fail_unlogged(ENOENT, err_msg, err_len, "Failed to OBFL directory name: %s, error %s", flash_directory,
                             std::strerror(errno));
    set_latest_file("fpd_local_log_1.txt");
    // Once for all names: a flash may hold very many.
    const LogFileRegex regex;
    std::uint32_t highest = 0;
    while (const dirent *const entry = next_entry(directory.get())) {
        std::uint32_t number = 0;
        if (parse_file_number(regex, entry->d_name, &number, nullptr, 0) != 0) continue;
        if (number <= highest) continue;
        if (!set_latest_file(entry->d_name))
            return fail_unlogged(E2BIG, err_msg, err_len, "Insufficient buffer to store filename %s", entry->d_name);
        highest = number;
    }
    return 0;
}

int obfl_file_number_parse(const char *name, std::uint32_t *number, char *err_msg, std::size_t err_len) {
    return parse_file_number(LogFileRegex(), name, number, err_msg, err_len);
}

int obfl_move_temp_log(char *err_msg, std::size_t err_len) {
    clear_error(err_msg, err_len);
    if (access(temporary_log, R_OK) != 0) return 0;
    const char *flash_log = nullptr;
    int rc = obfl_latest_file_get(&flash_log, err_msg, err_len);
    if (rc != 0) return rc;
    const File from = open_to_read(temporary_log);
    const File to = from ? open_to_write(flash_log, "a") : nullptr;
    if (!from || !to) return fail_unlogged(EIO, err_msg, err_len, "open file, error '%s'", std::strerror(errno));
    rc = copy_stream(from.get(), to.get(), err_msg, err_len);
    if (rc == 0) unlink(temporary_log);
    return rc;
}
