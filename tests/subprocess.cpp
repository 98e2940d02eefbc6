#include "subprocess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

namespace card_tests {
namespace {

void redirect(const fs::path &path, int flags, int descriptor) {
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (file < 0 || dup2(file, descriptor) < 0) _exit(126);
}

pid_t start(const std::vector<std::string> &command, const fs::path &out, const fs::path &err) {
    std::vector<char *> words;
    for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    redirect("/dev/null", O_RDONLY, STDIN_FILENO);
    redirect(out, O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
    redirect(err, O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO);
    execv(words.front(), words.data());
    _exit(127);
}

/// Returns the wait status; kills what is not done in time.
int wait_for(pid_t pid, std::chrono::seconds limit, bool &timed_out) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            timed_out = true;
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        usleep(5000);
    }
    return status;
}

void add_options(const char *name, const std::string &options) {
    const char *const present = std::getenv(name);
    setenv(name, (present == nullptr ? options : std::string(present) + ":" + options).c_str(), 1);
}

}  // namespace

Result run_program(const std::vector<std::string> &command, const fs::path &directory, std::chrono::seconds limit) {
    Result result;
    const fs::path out = directory / "stdout";
    const fs::path err = directory / "stderr";
    const pid_t pid = start(command, out, err);
    if (pid < 0) return result;
    const int status = wait_for(pid, limit, result.timed_out);
    result.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    result.out = read_file(out);
    result.err = read_file(err);
    return result;
}

void set_sanitizer_options() {
    const std::string ends = "exitcode=" + std::to_string(sanitizer_status) + ":halt_on_error=1";
    // Stand-in libraries come before the sanitizer's own.
    add_options("ASAN_OPTIONS", ends + ":verify_asan_link_order=0");
    add_options("UBSAN_OPTIONS", ends + ":print_stacktrace=1");
    add_options("TSAN_OPTIONS", ends + ":check_printf=0");
    add_options("LSAN_OPTIONS", "exitcode=" + std::to_string(sanitizer_status));
}

std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const fs::path &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

}  // namespace card_tests
