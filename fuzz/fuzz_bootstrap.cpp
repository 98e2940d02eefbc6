/// The bootstrap key file's reader, on any file, against the file's rules told in another way: by whole lines.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include "brd_intf_auto_fpd_bootstrap.h"
#include "target.h"

namespace {

using namespace std::literals;

constexpr const char *bootstrap_path = "/dev/kd_bootstrap";
constexpr std::size_t line_limit = 253;  // characters of key and value
constexpr std::uint32_t untouched_number = 4711;

struct Found {
    int rc;
    std::string value;
};

/// What a look-up of the key has to give.
Found expected(std::string_view file, std::string_view key) {
    file = file.substr(0, file.find_first_of("\0\xff"sv));
    for (;;) {
        const std::size_t newline = file.find('\n');
        std::string line(file.substr(0, newline));
        std::erase(line, ' ');
        if (line.size() - static_cast<std::size_t>(std::count(line.begin(), line.end(), '=')) > line_limit)
            return {-E2BIG, {}};
        if (newline == file.npos) return {-ENOENT, {}};
        const std::size_t last_sign = line.rfind('=');
        if (line.substr(0, line.find('=')) == key) return {0, last_sign == line.npos ? "" : line.substr(last_sign + 1)};
        file.remove_prefix(newline + 1);
    }
}

/// A text as a 64-bit number: digits after white space and a sign, as many as there are.
struct Number {
    std::uint64_t value = 0;
    bool overflow = false;
    bool whole = false;  // there are digits, and nothing after them
};

Number number_in(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of("\t\n\v\f\r "), text.size()));
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const std::string_view digits = text.substr(0, text.find_first_not_of("0123456789"));
    Number number;
    for (const char digit : digits) {
        const auto next = static_cast<std::uint64_t>(digit - '0');
        number.overflow = number.overflow || number.value > (UINT64_MAX - next) / 10;
        number.value = number.value * 10 + next;
    }
    number.whole = !digits.empty() && digits.size() == text.size();
    number.value = number.overflow ? UINT64_MAX : negative ? 0 - number.value : number.value;
    return number;
}

void check_field(std::string_view file, std::string_view key) {
    const std::string key_text(key.substr(0, key.find('\0')));
    const Found want = expected(file, key_text);
    const auto value = std::make_unique<char[]>(bootstrap_field_size);
    std::memset(value.get(), '#', bootstrap_field_size);
    require_equal(bootstrap_field_get(key_text.c_str(), value.get()), want.rc, "the result of a look-up");
    const std::string_view buffer(value.get(), bootstrap_field_size);
    if (want.rc == 0)
        require_equal(buffer.substr(0, buffer.find('\0')), want.value, "the value");
    else
        require_equal(buffer, std::string(bootstrap_field_size, '#'), "the buffer after a failure");
}

void check_unchecked_number(std::string_view file, const char *key, int (*get)(std::uint32_t *)) {
    const Found want = expected(file, key);
    std::uint32_t number = untouched_number;
    require_equal(get(&number), want.rc, key);
    require_equal(number, want.rc == 0 ? static_cast<std::uint32_t>(number_in(want.value).value) : untouched_number,
                  key);
}

struct VersionPart {
    int rc;
    std::uint32_t number;
};

/// Overflow is told by an errno that an earlier conversion may have left.
VersionPart expected_part(std::string_view file, const char *key, bool &range_error) {
    const Found found = expected(file, key);
    if (found.rc != 0) return {found.rc, untouched_number};
    const Number number = number_in(found.value);
    range_error = range_error || number.overflow;
    const bool at_signed_limit =
        number.value == std::uint64_t{LLONG_MAX} || number.value == static_cast<std::uint64_t>(LLONG_MIN);
    if (!number.whole || (at_signed_limit && range_error)) return {-EINVAL, untouched_number};
    return {0, static_cast<std::uint32_t>(number.value)};
}

void check_version(std::string_view file) {
    bool range_error = false;
    const VersionPart want_major = expected_part(file, "HW_MAJOR_VERSION", range_error);
    VersionPart want_minor{want_major.rc, untouched_number};
    if (want_major.rc == 0) want_minor = expected_part(file, "HW_MINOR_VERSION", range_error);
    std::uint32_t major = untouched_number;
    std::uint32_t minor = untouched_number;
    errno = 0;
    require_equal(bootstrap_hw_version_get(&major, &minor), want_minor.rc, "the version's result");
    require_equal(major, want_major.number, "the major version");
    require_equal(minor, want_minor.number, "the minor version");
}

void check_pid(std::string_view file, std::size_t size) {
    const Found want = expected(file, "MY_CARD_PID");
    const auto pid = std::make_unique<char[]>(size + 1);
    std::memset(pid.get(), '#', size + 1);
    std::size_t length = size;
    require_equal(bootstrap_card_pid_get(pid.get(), &length), want.rc, "the result of the product's identifier");
    require_equal(static_cast<std::int64_t>(length), want.rc == 0 ? 0 : static_cast<std::int64_t>(size),
                  "the identifier's length");
    require(pid[size] == '#', "a byte after the identifier's buffer");
    if (want.rc != 0 || size == 0) return;
    require_equal(pid.get(), want.value.substr(0, size - 1), "the product's identifier");
}

}  // namespace

/// A byte for the identifier's room, a line with the key, the file.
void run_input(std::string_view bytes) {
    Input input{bytes};
    const std::size_t pid_size = input.byte();
    const std::string_view key = input.up_to('\n');
    const std::string_view file = input.all();
    write_file(bootstrap_path, file);
    check_field(file, key);
    check_unchecked_number(file, "PD_CARD_TYPE", bootstrap_card_type_get);
    check_unchecked_number(file, "PD_SLOT_NUM", bootstrap_slot_num_get);
    check_version(file);
    check_pid(file, pid_size);
}
