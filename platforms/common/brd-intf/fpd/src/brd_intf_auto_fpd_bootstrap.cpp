#include "brd_intf_auto_fpd_bootstrap.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fpd_log.h"
#include "os_file.h"
#include "os_time.h"

namespace {

constexpr LogModule here{"PLATFORM", __FILE__};
constexpr const char *bootstrap_file = "/dev/kd_bootstrap";
constexpr int open_retries = 3;
constexpr std::uint32_t open_retry_period = 1'000'000;  // µs

/// The line being read: its characters go to the key, and after '=' to the value.
struct KeyLine {
    char key[bootstrap_field_size];
    char value[bootstrap_field_size];
    char *cursor;       // where the next character goes, in key or in value
    std::size_t count;  // characters of key and value together
};

int file_not_found(const char *tag, int error) {
    log_error({here, tag}, "Bootstrap File %s is not found error %s", bootstrap_file, std::strerror(error));
    return -ENOSYS;
}

/// The boot environment may still be writing the file when the card comes up.
File open_with_retries() {
    File file = open_to_read(bootstrap_file);
    for (int i = 0; !file && i < open_retries; ++i) {
        sleep_for(open_retry_period);
        file = open_to_read(bootstrap_file);
    }
    return file;
}

void start_line(KeyLine &line) {
    line = {};
    line.cursor = line.key;
}

void start_value(KeyLine &line) {
    *line.cursor = '\0';
    line.cursor = line.value;
}

/// Takes one character of a line; -E2BIG when the line is too long.
int take_character(KeyLine &line, char character) {
    if (character == ' ') return 0;
    if (character == '=') {
        start_value(line);
        return 0;
    }
    *line.cursor++ = character;
    if (++line.count < bootstrap_field_size) return 0;
    log_error({here, "KeyLengthTooLong"}, "Failed parsing, key length is too long");
    return -E2BIG;
}

/// Reads lines up to the wanted one, whose value is then in `line`. A last line without a newline is not looked at.
int find_line(std::FILE *file, const char *key, KeyLine &line) {
    start_line(line);
    for (;;) {
        // As a signed char, so that a byte 0xFF ends the reading as the end of the file does.
        const auto character = static_cast<signed char>(read_byte(file));
        if (character == '\0' || character == EOF) break;
        if (character == '\n') {
            *line.cursor = '\0';
            if (std::strcmp(line.key, key) == 0) return 0;
            start_line(line);
            continue;
        }
        const int rc = take_character(line, static_cast<char>(character));
        if (rc != 0) return rc;
    }
    log_error({here, "FieldisNotFound"}, "Bootstrp field %s is not found", key);
    return -ENOENT;
}

/// A value that is wholly a number, cut to 32 bits. Overflow is tested as for a signed 64-bit value, with an errno that
/// is not cleared before: an unsigned overflow passes and is cut like any other number.
int number_from(const char *text, std::uint32_t *number) {
    char *end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    const bool at_limit =
        value == static_cast<unsigned long>(LONG_MAX) || value == static_cast<unsigned long>(LONG_MIN);
    if (at_limit && errno == ERANGE) return -EINVAL;
    if (end == text || *end != '\0') return -EINVAL;
    *number = static_cast<std::uint32_t>(value);
    return 0;
}

int number_field_get(const char *key, std::uint32_t *number) {
    char value[bootstrap_field_size];
    const int rc = bootstrap_field_get(key, value);
    return rc != 0 ? rc : number_from(value, number);
}

int unchecked_number_field_get(const char *key, std::uint32_t *number) {
    char value[bootstrap_field_size];
    const int rc = bootstrap_field_get(key, value);
    if (rc == 0) *number = static_cast<std::uint32_t>(std::strtoul(value, nullptr, 10));
    return rc;
}

}  // namespace

int bootstrap_field_get(const char *key, char *value_out) {
    struct stat status;
    if (stat(bootstrap_file, &status) != 0) return file_not_found("BootstrapFileNotFound", errno);
    const File file = open_with_retries();
    if (!file) return file_not_found("BootstrapFileOpenFail", errno);
    KeyLine line;
    const int rc = find_line(file.get(), key, line);
    if (rc == 0) std::snprintf(value_out, bootstrap_field_size, "%s", line.value);
    return rc;
}

int bootstrap_card_type_get(std::uint32_t *card_type) {
    if (!card_type) return -EINVAL;
    return unchecked_number_field_get("PD_CARD_TYPE", card_type);
}

int bootstrap_hw_version_get(std::uint32_t *major, std::uint32_t *minor) {
    if (!major || !minor) return -EINVAL;
    const int rc = number_field_get("HW_MAJOR_VERSION", major);
    return rc != 0 ? rc : number_field_get("HW_MINOR_VERSION", minor);
}

int bootstrap_slot_num_get(std::uint32_t *slot) {
    return unchecked_number_field_get("PD_SLOT_NUM", slot);
}

int bootstrap_card_pid_get(char *pid, std::size_t *pid_len) {
    char value[bootstrap_field_size];
    const int rc = bootstrap_field_get("MY_CARD_PID", value);
    if (rc != 0) return rc;
    std::snprintf(pid, *pid_len, "%s", value);
    *pid_len = 0;
    return 0;
}
