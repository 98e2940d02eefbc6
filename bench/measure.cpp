/// Runs commands in turns, every other round backwards, and tells what each run cost: measure ROUNDS COMMAND...
///
/// A command is one argument, its words separated by blanks; words NAME=VALUE before the program are its environment
/// besides what it inherits. For each run a line: the number of the command, its exit status, the processor time of the
/// process and of its children in microseconds, and its peak memory in KiB. What it prints is dropped, and the
/// diagnostic log is removed before each run. One processor runs them all.

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char **environ;

namespace {

constexpr const char *log_file = "/var/log/fpd.log";
constexpr std::size_t most_words = 16;
using Words = std::array<char *, most_words + 1>;

/// Cuts the command at its blanks.
Words words_of(char *command) {
    Words words{};
    std::size_t count = 0;
    for (char *word = std::strtok(command, " "); word && count < most_words; word = std::strtok(nullptr, " "))
        words[count++] = word;
    return words;
}

long microseconds(const timeval &time) {
    return time.tv_sec * 1'000'000L + time.tv_usec;
}

/// The command without the words in front that belong to the environment, where they are put.
char **take_environment(Words &words) {
    char **program = words.data();
    for (; *program && std::strchr(*program, '='); ++program) putenv(*program);
    return program;
}

/// Not fork: what this process holds would be counted as the child's until it has become the program.
bool start(char **program, pid_t &pid) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const int error = posix_spawn(&pid, program[0], &actions, nullptr, program, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) std::fprintf(stderr, "measure: %s: %s\n", program[0], std::strerror(error));
    return error == 0;
}

bool run(int number, Words &words) {
    unlink(log_file);
    pid_t pid = 0;
    if (!start(take_environment(words), pid)) return false;
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid) return false;
    std::printf("%d %d %ld %ld\n", number, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                microseconds(usage.ru_utime) + microseconds(usage.ru_stime), usage.ru_maxrss);
    return true;
}

void stay_on_one_processor() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &set);
    sched_setaffinity(0, sizeof set, &set);
}

}  // namespace

int main(int argc, char **argv) {
    constexpr int most_commands = 16;
    if (argc < 3 || argc > 2 + most_commands) return 2;
    std::array<Words, most_commands> commands{};
    for (int i = 2; i < argc; ++i) commands[static_cast<std::size_t>(i - 2)] = words_of(argv[i]);
    stay_on_one_processor();
    const int count = argc - 2;
    for (long round = std::strtol(argv[1], nullptr, 10); round > 0; --round)
        for (int turn = 0; turn < count; ++turn) {
            const int i = round % 2 == 0 ? turn : count - 1 - turn;
            if (!run(i, commands[static_cast<std::size_t>(i)])) return 1;
        }
}
