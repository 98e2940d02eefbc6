/// The diagnostic log "/var/log/fpd.log", and the error texts that go with its lines. Callable from every thread.
///
/// A module says once who it is and names the place of each call by its tag:
///
///     constexpr LogModule here{"FPD", __FILE__};
///     log_error({here, "InitMQFail"}, "Initializing Auto FPD Upgrade msg queue failed err_msg %s", err_msg);
#ifndef FPD_LOG_H
#define FPD_LOG_H

#include <cstddef>
#include <string_view>

/// A module as its log lines show it: component word and base name of its source file, without the extension.
struct LogModule {
    consteval LogModule(const char *component_word, std::string_view path)
        : component(component_word), file(path.substr(path.rfind('/') + 1)) {
        file = file.substr(0, file.rfind('.'));
    }

    std::string_view component;  // static text, as is that of the file
    std::string_view file;
};

/// The place of one log call.
struct LogSite {
    constexpr LogSite(const LogModule &module, const char *site_tag, int site_line = __builtin_LINE())
        : component(module.component), file(module.file), tag(site_tag), line(site_line) {}
    /// A field without an address is left out of the line.
    LogSite(std::string_view its_component, std::string_view its_file, std::string_view its_tag, int its_line)
        : component(its_component), file(its_file), tag(its_tag), line(its_line) {}

    std::string_view component;
    std::string_view file;
    std::string_view tag;  // CamelCase, static text
    int line;
};

/// Writes one line to the diagnostic log, in one piece whatever its length. A null component, level, tag or file (with
/// its line) is left out. A log that cannot be written drops the line without a word. errno is kept.
[[gnu::format(printf, 6, 7)]] void fpd_log(const char *component, const char *level, const char *tag, const char *file,
                                           int line, const char *format, ...);

/// Writes the local time with its microseconds, "2024-03-05 14:02:11.48213 UTC"; untouched when size is below 32 bytes.
void fpd_log_timestamp(char *buffer, std::size_t size);

/// A failure.
[[gnu::format(printf, 2, 3)]] void log_error(const LogSite &site, const char *format, ...);
/// A milestone or a decision.
[[gnu::format(printf, 2, 3)]] void log_info(const LogSite &site, const char *format, ...);
/// Detail.
[[gnu::format(printf, 2, 3)]] void log_debug(const LogSite &site, const char *format, ...);

/// Logs a failure as ERROR, writes the same text into err_msg and returns `rc`. The arguments may point into
/// err_msg. A null err_msg takes no text.
[[gnu::format(printf, 5, 6)]] int fail(const LogSite &site, int rc, char *err_msg, std::size_t err_len,
                                       const char *format, ...);
/// Logs as ERROR that a callee failed which was handed err_msg and left its reason there, and returns `rc`. The text
/// stays as it is: a caller sees the innermost reason, once.
[[gnu::format(printf, 3, 4)]] int pass_on(const LogSite &site, int rc, const char *format, ...);
/// As fail(), without a log line: the caller that logs is told by err_msg.
[[gnu::format(printf, 4, 5)]] int fail_unlogged(int rc, char *err_msg, std::size_t err_len, const char *format, ...);
/// Empties err_msg, so that a callee that writes nothing leaves nothing of an earlier call there. Null is allowed.
void clear_error(char *err_msg, std::size_t err_len);
/// Ends a text that a closed library may have filled to the last byte. Null is allowed.
void terminate_error(char *err_msg, std::size_t err_len);

#endif
