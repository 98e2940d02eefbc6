/// Files of a log: plain or gzipped, one or a rotated set.
#ifndef FPD_LOG_LOG_FILE_H
#define FPD_LOG_LOG_FILE_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace fpd_log {

/// The path that means the program's standard input, from where it stands.
inline constexpr const char *standard_input = "/dev/stdin";

/// Reads a file, gzipped or not (also several gzip members in a row), in pieces of at most 64 KiB.
/// Returns 0, or -errno and a text in `error` ("PATH: reason"); what was readable before has been handed over.
int read_log_file(const std::string &path, const std::function<void(std::string_view)> &take, std::string *error);

/// Files of one log in the order of their lines: NAME.2.gz, NAME.1, NAME, where NAME ends in ".log". Sorts `paths` by
/// name and rotation number, a compressed one before one that is not.
void sort_rotated(std::vector<std::string> *paths);

/// The name of the log that a rotated file belongs to: "card7/fpd.log" for "card7/fpd.log.2.gz".
std::string log_of(std::string_view path);

}  // namespace fpd_log

#endif
