#include "shell.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "descriptor.h"
#include "error.h"

extern char **environ;

namespace cardsim {

namespace {

constexpr size_t max_output = size_t{1} << 20;

/// A child process that is waited for, whatever happens.
struct Child {
    pid_t pid = -1;

    Child() = default;
    ~Child() {
        if (pid > 0) {
            kill(-pid, SIGKILL);
            reap();
        }
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    /// Its wait status, once it has ended; nothing when the process ignores SIGCHLD and so never learns it.
    std::optional<int> reap() {
        const CancellationGuard uncancelled(PTHREAD_CANCEL_DISABLE);
        int status = 0;
        pid_t ended = -1;
        do {
            ended = waitpid(pid, &status, 0);
        } while (ended < 0 && errno == EINTR);
        pid = -1;
        return ended < 0 ? std::nullopt : std::optional(status);
    }
};

/// What posix_spawn is told, released with it.
struct SpawnPlan {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;

    SpawnPlan() {
        posix_spawn_file_actions_init(&files);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnPlan() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&files);
    }
    SpawnPlan(const SpawnPlan &) = delete;
    SpawnPlan &operator=(const SpawnPlan &) = delete;
};

/// Starts the shell in a process group of its own, both its outputs on `output`. Returns 0 or an errno number.
int start_shell(const std::string &command, int output, Child &child) {
    SpawnPlan plan;
    posix_spawn_file_actions_addopen(&plan.files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&plan.files, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&plan.files, output, STDERR_FILENO);
    posix_spawnattr_setflags(&plan.attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&plan.attributes, 0);
    std::string words[] = {"sh", "-c", command};
    char *arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    return posix_spawn(&child.pid, "/bin/sh", &plan.files, &plan.attributes, arguments, environ);
}

std::string read_until_closed(const Descriptor &source, const CancellationGuard &uncancelled) {
    std::string output;
    char chunk[4096];
    while (true) {
        ssize_t count = 0;
        {
            const CancellationGuard cancellable(uncancelled.earlier());
            count = read(source.get(), chunk, sizeof chunk);
        }
        if (count == 0 || (count < 0 && errno != EINTR)) {
            return output;
        }
        // The rest is read all the same: a full pipe would stop the command.
        const size_t room = max_output - output.size();
        output.append(chunk, std::min(room, static_cast<size_t>(std::max<ssize_t>(count, 0))));
    }
}

/// Leaves the ended child to be reaped: a cancellation just after it must still find it.
void wait_for_end(const Child &child, const CancellationGuard &uncancelled) {
    const CancellationGuard cancellable(uncancelled.earlier());
    siginfo_t ignored;
    while (waitid(P_PID, static_cast<id_t>(child.pid), &ignored, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
}

std::string on_one_line(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

void explain(const std::string &command, std::optional<int> ended, ShellResult &result) {
    if (!ended) {
        result.code = ECHILD;
        result.reason = "command '" + command + "': its exit status is lost, this process ignores SIGCHLD";
        return;
    }
    const int status = *ended;
    result.code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    if (result.code == 0) {
        return;
    }
    const std::string how = WIFSIGNALED(status) ? "was ended by signal " + std::to_string(WTERMSIG(status))
                                                : "exited with " + std::to_string(result.code);
    result.reason = "command '" + command + "' " + how + ": " + on_one_line(result.output);
}

Error not_started(const std::string &command, int reason) {
    return system_error("command '" + command + "' cannot be started", reason);
}

}  // namespace

ShellResult run_shell(const std::string &command, const CancellationGuard &uncancelled) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw not_started(command, errno);
    }
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    Child child;
    if (const int reason = start_shell(command, writing.get(), child)) {
        child.pid = -1;
        throw not_started(command, reason);
    }
    writing.reset();
    ShellResult result;
    result.output = read_until_closed(reading, uncancelled);
    wait_for_end(child, uncancelled);
    explain(command, child.reap(), result);
    return result;
}

}  // namespace cardsim
