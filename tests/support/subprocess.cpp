#include "subprocess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <system_error>

#include "files.h"

namespace fs = std::filesystem;

namespace card_tests {
namespace {

/// The descriptors 0 to 2 of a program that is started.
class Redirections {
  public:
    Redirections() { posix_spawn_file_actions_init(&actions_); }
    Redirections(const Redirections &) = delete;
    Redirections &operator=(const Redirections &) = delete;
    ~Redirections() { posix_spawn_file_actions_destroy(&actions_); }
    void add(int descriptor, const char *path, int flags) {
        posix_spawn_file_actions_addopen(&actions_, descriptor, path, flags, 0600);
    }
    const posix_spawn_file_actions_t *get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_;
};

/// Not fork: callers have threads, and what runs between fork and exec may meet a lock that one of them held.
pid_t start(const std::vector<std::string> &command, const fs::path &out, const fs::path &err) {
    std::vector<char *> words;
    for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    Redirections redirections;
    redirections.add(STDIN_FILENO, "/dev/null", O_RDONLY);
    redirections.add(STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    redirections.add(STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, words.front(), redirections.get(), nullptr, words.data(), environ);
    if (rc != 0) throw std::system_error(rc, std::generic_category(), command.front());
    return pid;
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

}  // namespace card_tests
