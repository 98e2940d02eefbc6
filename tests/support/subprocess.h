/// Runs a program and waits for its end.
#ifndef SUBPROCESS_H
#define SUBPROCESS_H

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace card_tests {

struct Result {
    int status = -1;  ///< exit status; 128 + n when signal n ended it
    bool timed_out = false;
    std::string out;
    std::string err;
};

/// Runs `command` (its first word is the path of the program) with nothing on stdin; its output goes by way of files in
/// `directory`. A program that takes longer than `limit` is killed. Throws when the program cannot be started.
Result run_program(const std::vector<std::string> &command, const std::filesystem::path &directory,
                   std::chrono::seconds limit);

/// Makes a sanitizer end a program that it complains of, by a status of its own, in this process's children.
void set_sanitizer_options();

/// Status of a program that a sanitizer ended.
inline constexpr int sanitizer_status = 86;

}  // namespace card_tests

#endif
