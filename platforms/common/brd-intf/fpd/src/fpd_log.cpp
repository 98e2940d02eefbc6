#include "fpd_log.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "os_file.h"

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

void add_field(TextBuilder &line, const char *field) {
    if (field) line.add(" [%s]", field);
}

[[gnu::format(printf, 6, 0)]] void log_line(const char *component, const char *level, const char *tag, const char *file,
                                            int line_number, const char *format, std::va_list arguments) {
    const ErrnoKeeper keeper;
    char timestamp[timestamp_size] = "";
    fpd_log_timestamp(timestamp, sizeof timestamp);
    TextBuilder line;
    line.add("[%s] [%d:%d]", timestamp, getpid(), static_cast<int>(syscall(SYS_gettid)));
    add_field(line, component);
    add_field(line, level);
    add_field(line, tag);
    if (file) line.add(" [%s:%d]", file, line_number);
    line.add(" [");
    line.add_list(format, arguments);
    line.end_with("]\n");
    append_to_file(diagnostic_log, line.view());
}

[[gnu::format(printf, 3, 0)]] void log_at(LogSite site, const char *level, const char *format, std::va_list arguments) {
    log_line(site.component, level, site.tag, site.file, site.line, format, arguments);
}

}  // namespace

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

void copy_error(char *err_msg, std::size_t err_len, const TextBuilder &text) {
    if (err_msg && err_len > 0) std::snprintf(err_msg, err_len, "%s", text.text());
}

}  // namespace

int fail(LogSite site, int rc, char *err_msg, std::size_t err_len, const char *format, ...) {
    // Built aside first: the arguments may point into err_msg.
    TextBuilder text;
    std::va_list arguments;
    va_start(arguments, format);
    text.add_list(format, arguments);
    va_end(arguments);
    log_error(site, "%s", text.text());
    copy_error(err_msg, err_len, text);
    return rc;
}

int pass_on(LogSite site, int rc, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at(site, "ERROR", format, arguments);
    return rc;
}

int fail_unlogged(int rc, char *err_msg, std::size_t err_len, const char *format, ...) {
    TextBuilder text;
    std::va_list arguments;
    va_start(arguments, format);
    text.add_list(format, arguments);
    va_end(arguments);
    copy_error(err_msg, err_len, text);
    return rc;
}

void clear_error(char *err_msg, std::size_t err_len) {
    if (err_msg && err_len > 0) err_msg[0] = '\0';
}

void terminate_error(char *err_msg, std::size_t err_len) {
    if (err_msg && err_len > 0) err_msg[err_len - 1] = '\0';
}

namespace {

/// Makes room for `count` more characters if there is memory for them.
void grow(TextBuilder &text, std::size_t count) {
    const std::size_t needed = text.length + count + 1;
    if (needed <= text.capacity) return;
    char *const grown = static_cast<char *>(std::realloc(text.grown.get(), needed));
    if (!grown) return;
    if (!text.grown) std::memcpy(grown, text.small, text.length + 1);
    static_cast<void>(text.grown.release());
    text.grown.reset(grown);
    text.capacity = needed;
}

}  // namespace

void TextBuilder::add(const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    add_list(format, arguments);
    va_end(arguments);
}

void TextBuilder::add_list(const char *format, std::va_list arguments) {
    std::va_list measured;
    va_copy(measured, arguments);
    const int count = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (count < 0) {
        // A text that printf refuses tells more as it stands than not at all.
        add_text(format);
        return;
    }
    grow(*this, static_cast<std::size_t>(count));
    char *const end = (grown ? grown.get() : small) + length;
    const std::size_t room = capacity - length;
    std::vsnprintf(end, room, format, arguments);
    length += std::min(static_cast<std::size_t>(count), room - 1);
}

void TextBuilder::add_text(std::string_view text) {
    grow(*this, text.size());
    const std::size_t count = std::min(text.size(), capacity - 1 - length);
    char *const end = (grown ? grown.get() : small) + length;
    text.copy(end, count);
    end[count] = '\0';
    length += count;
}

void TextBuilder::end_with(std::string_view ending) {
    grow(*this, ending.size());
    length = std::min(length, capacity - 1 - ending.size());
    char *const end = (grown ? grown.get() : small) + length;
    ending.copy(end, ending.size());
    length += ending.size();
    end[ending.size()] = '\0';
}
