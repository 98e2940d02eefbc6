/// The flash event log: which names are those of its files, which file is the latest, and what the temporary log leaves
/// in it.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "brd_intf_auto_fpd_obfl.h"
#include "target.h"

namespace {

constexpr const char *flash_directory = "/mnt/obfl";
constexpr const char *temporary_log = "/var/log/fpd_obfl_log.txt";
constexpr std::size_t path_limit = 127;
constexpr std::size_t most_files = 4;

/// The number in "fpd_local_log_", one or more digits, any character, "txt".
std::optional<std::uint32_t> expected_number(std::string_view name) {
    constexpr std::string_view front = "fpd_local_log_";
    constexpr std::string_view back = "txt";
    if (name.size() < front.size() + back.size() + 2 || !name.starts_with(front) || !name.ends_with(back)) return {};
    const std::string_view digits = name.substr(front.size(), name.size() - front.size() - back.size() - 1);
    std::uint64_t number = 0;
    for (const char digit : digits) {
        if (digit < '0' || digit > '9') return {};
        const std::uint64_t next = static_cast<std::uint64_t>(digit - '0');
        // A number of more than 63 bits is the largest of 63 bits; the lower 32 bits count.
        number = number > (INT64_MAX - next) / 10 ? std::uint64_t{INT64_MAX} : number * 10 + next;
    }
    return static_cast<std::uint32_t>(number);
}

void check_name(const std::string &name) {
    const auto want = expected_number(name);
    constexpr std::uint32_t untouched = 4711;
    std::uint32_t number = untouched;
    ErrorBuffer error(64);
    require_equal(obfl_file_number_parse(name.c_str(), &number, error.bytes.get(), error.size), want ? 0 : EINVAL,
                  "whether it is the name of a flash log file");
    require_equal(number, want.value_or(untouched), "the number in the name");
    require_equal(error.text().empty(), want.has_value(), "a text exactly when it is none");
}

/// Names in the order in which the directory has them.
std::vector<std::string> listed() {
    std::vector<std::string> names;
    DIR *const directory = opendir(flash_directory);
    require(directory != nullptr, flash_directory);
    while (const dirent *const entry = readdir(directory)) names.emplace_back(entry->d_name);
    closedir(directory);
    return names;
}

/// The path of the latest file; empty when it is too long to be used.
std::string expected_latest() {
    std::string path = std::string(flash_directory) + "/fpd_local_log_1.txt";
    std::uint32_t highest = 0;
    for (const std::string &name : listed()) {
        const auto number = expected_number(name);
        if (!number || *number <= highest) continue;
        highest = *number;
        path = std::string(flash_directory) + "/" + name;
        if (path.size() > path_limit) return "";
    }
    return path;
}

void check_latest(const std::string &want) {
    const char *path = nullptr;
    ErrorBuffer error(512);
    const int rc = obfl_latest_file_get(&path, error.bytes.get(), error.size);
    require_equal(rc, want.empty() ? E2BIG : 0, "the result of the choice");
    require_equal(error.text().empty(), rc == 0, "a text exactly when it fails");
    if (rc == 0) require_equal(path, want, "the latest file");
}

void check_move(const std::string &latest, std::string_view lines) {
    write_file(temporary_log, lines);
    std::string before;
    if (!latest.empty()) read_file(latest.c_str(), before);
    ErrorBuffer error(256);
    const int rc = obfl_move_temp_log(error.bytes.get(), error.size);
    std::string left;
    const bool is_left = read_file(temporary_log, left);
    require_equal(error.text().empty(), rc == 0, "a text exactly when the move fails");
    require_equal(rc, latest.empty() ? E2BIG : 0, "the result of the move");
    require_equal(is_left, rc != 0, "the temporary log is gone exactly when it was moved");
    if (is_left) return require_equal(left, lines, "what is left of the temporary log");
    std::string after;
    require(read_file(latest.c_str(), after), "the latest file after a move");
    require_equal(after, before + std::string(lines), "the latest file's content");
}

bool can_be_a_file(const std::string &name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." && name.find('/') == name.npos;
}

}  // namespace

/// Lines, each a name; what is after an empty one is the temporary log.
void run_input(std::string_view bytes) {
    Input input{bytes};
    obfl_flash_release();
    for (std::size_t count = 0; count < most_files && !input.empty(); ++count) {
        const std::string_view line = input.up_to('\n');
        if (line.empty()) break;
        const std::string name(line.substr(0, line.find('\0')));
        check_name(name);
        if (can_be_a_file(name)) write_file((std::string(flash_directory) + "/" + name).c_str(), name);
    }
    const std::string latest = expected_latest();
    check_latest(latest);
    check_move(latest, input.all());
    obfl_flash_release();
    for (const std::string &name : listed()) unlink((std::string(flash_directory) + "/" + name).c_str());
    unlink(temporary_log);
}
