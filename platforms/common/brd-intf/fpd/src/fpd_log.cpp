#include "fpd_log.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace {

constexpr const char *diagnostic_log = "/var/log/fpd.log";
constexpr std::size_t timestamp_size = 32;

/// A log call stands between a failed call and the use of its errno in many places.
struct ErrnoKeeper {
    ErrnoKeeper() : kept(errno) {}
    ~ErrnoKeeper() { errno = kept; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;
    int kept;
};

struct VaListEnd {
    explicit VaListEnd(std::va_list &list) : arguments(list) {}
    ~VaListEnd() { va_end(arguments); }
    VaListEnd(const VaListEnd &) = delete;
    VaListEnd &operator=(const VaListEnd &) = delete;
    std::va_list &arguments;
};

void write_field(std::FILE *line, const char *field) {
    if (field) std::fprintf(line, " [%s]", field);
}

[[gnu::format(printf, 6, 0)]] void log_line(const char *component, const char *level, const char *tag, const char *file,
                                            int line_number, const char *format, std::va_list arguments) {
    ErrnoKeeper keeper;
    TextBuilder line;
    std::FILE *const stream = line.stream.get();
    if (!stream) return;
    char timestamp[timestamp_size] = "";
    fpd_log_timestamp(timestamp, sizeof timestamp);
    std::fprintf(stream, "[%s] [%d:%d]", timestamp, getpid(), static_cast<int>(syscall(SYS_gettid)));
    write_field(stream, component);
    write_field(stream, level);
    write_field(stream, tag);
    if (file) std::fprintf(stream, " [%s:%d]", file, line_number);
    std::fputs(" [", stream);
    std::vfprintf(stream, format, arguments);
    std::fputs("]\n", stream);
    append_to_file(diagnostic_log, line.view());
}

[[gnu::format(printf, 3, 0)]] void log_at(LogSite site, const char *level, const char *format, std::va_list arguments) {
    log_line(site.component, level, site.tag, site.file, site.line, format, arguments);
}

}  // namespace

int append_to_file(const char *path, std::string_view text) {
    // A worker is cancelled before a line or after it: within, the descriptor or half of the line could be lost.
    pthread_testcancel();
    const CancelHold hold;
    Descriptor file(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (file.fd < 0) return -errno;
    // One write keeps lines of concurrent threads apart; only a full disk makes it short, and then the rest is lost.
    if (write(file.fd, text.data(), text.size()) < 0) return 0;
    return 0;
}

void fpd_log_timestamp(char *buffer, std::size_t size) {
    if (size < timestamp_size) return;
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    std::size_t used = std::strftime(buffer, size, "%F %T", &local);
    // Without leading zeros: readers of existing logs depend on it.
    used += static_cast<std::size_t>(std::snprintf(buffer + used, size - used, ".%ld", static_cast<long>(now.tv_usec)));
    // A zone name that does not fit leaves the buffer's contents undefined, so the text is ended again.
    if (std::strftime(buffer + used, size - used, " %Z", &local) == 0) buffer[used] = '\0';
}

void fpd_log(const char *component, const char *level, const char *tag, const char *file, int line, const char *format,
             ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_line(component, level, tag, file, line, format, arguments);
}

void log_error(LogSite site, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at(site, "ERROR", format, arguments);
}

void log_info(LogSite site, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at(site, "INFO", format, arguments);
}

void log_debug(LogSite site, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at(site, "DEBUG", format, arguments);
}

namespace {

// Above the longest error text of any caller (512) with what a step puts around it.
constexpr std::size_t fail_text_size = 1024;

void copy_error(char *err_msg, std::size_t err_len, const char *text) {
    if (err_msg && err_len > 0) std::snprintf(err_msg, err_len, "%s", text);
}

}  // namespace

int fail(LogSite site, int rc, char *err_msg, std::size_t err_len, const char *format, ...) {
    char text[fail_text_size];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log_error(site, "%s", text);
    copy_error(err_msg, err_len, text);
    return rc;
}

int fail_unlogged(int rc, char *err_msg, std::size_t err_len, const char *format, ...) {
    char text[fail_text_size];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    copy_error(err_msg, err_len, text);
    return rc;
}

void clear_error(char *err_msg, std::size_t err_len) {
    if (err_msg && err_len > 0) err_msg[0] = '\0';
}
