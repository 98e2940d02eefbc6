#include "fpd_log.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "os_file.h"
#include "text_builder.h"

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

/// What a caller left out has no address.
std::string_view view_of(const char *text) {
    return text ? std::string_view(text) : std::string_view();
}

void add_field(TextBuilder &line, std::string_view field) {
    if (!field.data()) return;
    line.add_text("] [");
    line.add_text(field);
}

/// "PROCESS:THREAD". Asked for once a thread: each line would cost two system calls more.
const char *ids_of_this_thread() {
    // Of the executable's own: no call into the dynamic loader.
    [[gnu::tls_model("initial-exec")]] thread_local char ids[32];
    if (!*ids) std::snprintf(ids, sizeof ids, "%d:%d", getpid(), static_cast<int>(syscall(SYS_gettid)));
    return ids;
}

/// What all lines of one second have in common. To work it out costs more than the rest of a line.
struct SecondText {
    std::time_t second;
    char date_and_time[25];  // local, with a point after it
    char zone[11];           // with a blank before it; empty: too long for any line
};

SecondText text_of(std::time_t second) {
    std::tm local{};
    localtime_r(&second, &local);
    SecondText text{.second = second, .date_and_time = "", .zone = ""};
    std::strftime(text.date_and_time, sizeof text.date_and_time, "%F %T.", &local);
    if (!fits(std::snprintf(text.zone, sizeof text.zone, " %s", local.tm_zone), sizeof text.zone)) text.zone[0] = '\0';
    return text;
}

void add_timestamp(TextBuilder &line, const SecondText &text, suseconds_t microseconds) {
    const std::size_t before = line.view().size();
    line.add_text(text.date_and_time);
    // The fraction is without leading zeros: readers of existing logs depend on it.
    line.add_number(microseconds);
    // A time without its zone tells more than one with a part of its name.
    const std::string_view zone = text.zone;
    if (line.view().size() - before + zone.size() < timestamp_size) line.add_text(zone);
}

void add_time_of_now(TextBuilder &line) {
    timeval now{};
    gettimeofday(&now, nullptr);
    [[gnu::tls_model("initial-exec")]] thread_local SecondText text{};
    if (text.second != now.tv_sec || !*text.date_and_time) text = text_of(now.tv_sec);
    add_timestamp(line, text, now.tv_usec);
}

[[gnu::format(printf, 3, 0)]] void log_at(const LogSite &site, std::string_view level, const char *format,
                                          std::va_list arguments) {
    const ErrnoKeeper keeper;
    TextBuilder line;
    line.add_text("[");
    add_time_of_now(line);
    add_field(line, ids_of_this_thread());
    add_field(line, site.component);
    add_field(line, level);
    add_field(line, site.tag);
    add_field(line, site.file);
    if (site.file.data()) {
        line.add_text(":");
        line.add_number(site.line);
    }
    line.add_text("] [");
    line.add_list(format, arguments);
    line.end_with("]\n");
    append_to_file(diagnostic_log, line.view());
}

}  // namespace

void fpd_log_timestamp(char *buffer, std::size_t size) {
    if (size < timestamp_size) return;
    timeval now{};
    gettimeofday(&now, nullptr);
    TextBuilder text;
    add_timestamp(text, text_of(now.tv_sec), now.tv_usec);
    std::snprintf(buffer, timestamp_size, "%s", text.text());
}

void fpd_log(const char *component, const char *level, const char *tag, const char *file, int line, const char *format,
             ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at({view_of(component), view_of(file), view_of(tag), line}, view_of(level), format, arguments);
}

void log_error(const LogSite &site, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at(site, "ERROR", format, arguments);
}

void log_info(const LogSite &site, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at(site, "INFO", format, arguments);
}

void log_debug(const LogSite &site, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    VaListEnd end(arguments);
    log_at(site, "DEBUG", format, arguments);
}

namespace {

void copy_error(char *err_msg, std::size_t err_len, const TextBuilder &text) {
    if (err_msg) std::snprintf(err_msg, err_len, "%s", text.text());
}

}  // namespace

int fail(const LogSite &site, int rc, char *err_msg, std::size_t err_len, const char *format, ...) {
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

int pass_on(const LogSite &site, int rc, const char *format, ...) {
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
