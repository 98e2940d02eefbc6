#include "sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>

#include "sandbox_calls.h"
#include "sandbox_root.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

constexpr int power_off_signal = SIGUSR2;  // to the supervisor
constexpr const char *command_path = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// What one process of the sandbox tells another while it starts: one byte, text after `refused`.
constexpr char ready = 'r';
constexpr char refused = 'e';

struct Pipe {
    Descriptor reader;
    Descriptor writer;
};

Pipe make_pipe() {
    std::array<int, 2> ends;
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw system_error("pipe", errno);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

/// Blocks every signal for its lifetime and knows the mask of before.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    const sigset_t &before() const { return before_; }

  private:
    sigset_t before_;
};

/// What the sandbox's processes work with; `before` is the caller's signal mask.
struct Start {
    const SandboxRoot &root;
    const std::function<int()> &body;
    const sigset_t &before;
    struct sigaction child_action;
    mode_t mask;
    Pipe report = make_pipe();     // supervisor, init and body to caller
    Pipe maps_done = make_pipe();  // supervisor to init, then init to body
    Pipe alive = make_pipe();      // supervisor to init: closed when the supervisor is gone
};

void send(const Descriptor &pipe, const std::string &text) {
    // The reader is either there or killed together with us; a short text never blocks.
    [[maybe_unused]] const ssize_t written = write(pipe.get(), text.data(), text.size());
}

char receive(const Descriptor &pipe) {
    char byte = 0;
    while (read(pipe.get(), &byte, 1) < 0 && errno == EINTR) continue;
    return byte;
}

std::string receive_rest(const Descriptor &pipe) {
    std::string text;
    while (const char byte = receive(pipe)) text += byte;
    return text;
}

int exit_status(int wait_status) {
    return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

/// Ends a process of the sandbox that could not start.
[[noreturn]] void refuse(Start &start, const std::string &reason) {
    send(start.report.writer, refused + reason);
    _exit(1);
}

// ---- new namespaces

/// A copy of this process in new namespaces, and a descriptor of it in `pidfd`; the result is that of fork. Not fork
/// and unshare: that is refused to a process with threads, and a sanitizer's runtime has one of its own.
pid_t clone_into(int namespaces, Descriptor &pidfd) {
    long pid = -1;
    int fd = -1;
    // The kernel frees dead namespaces late: with many sandboxes in a row a limit may be met for a moment.
    for (int attempt = 0; attempt < 20; ++attempt) {
        pid = syscall(SYS_clone, namespaces | CLONE_PIDFD | SIGCHLD, nullptr, &fd, nullptr, nullptr);
        if (pid >= 0 || errno != ENOSPC) break;
        usleep(10'000);
    }
    if (pid > 0) pidfd = Descriptor(fd);
    return static_cast<pid_t>(pid);
}

/// The name of a process in /proc, which in a sandbox inside another one may be that of the outer one and have other
/// numbers.
std::string name_in_proc(const Descriptor &pidfd) {
    std::ifstream facts("/proc/self/fdinfo/" + std::to_string(pidfd.get()));
    for (std::string fact, value; facts >> fact >> value;) {
        if (fact == "Pid:") return "/proc/" + value;
    }
    throw Error("/proc does not show the new process", ENOENT);
}

bool write_file(const std::string &path, const std::string &text) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return file.is_open() && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Every id of our own namespace under its own number.
std::string identity_map(const char *own_map) {
    std::ifstream extents(own_map);
    std::ostringstream map;
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    while (extents >> inside >> outside >> count) map << inside << ' ' << inside << ' ' << count << '\n';
    return map.str();
}

/// Root keeps all ids; anybody else, and a root that lacks the capabilities, is only root inside.
void write_id_maps(const Descriptor &pidfd) {
    const std::string process = name_in_proc(pidfd);
    if (geteuid() == 0 && write_file(process + "/uid_map", identity_map("/proc/self/uid_map"))) {
        if (write_file(process + "/gid_map", identity_map("/proc/self/gid_map"))) return;
    } else if (write_file(process + "/uid_map", "0 " + std::to_string(geteuid()) + " 1") &&
               write_file(process + "/setgroups", "deny") &&
               write_file(process + "/gid_map", "0 " + std::to_string(getegid()) + " 1")) {
        return;
    }
    throw sandbox_refusal("map the user into the namespace", errno);
}

// ---- inside: the body and the init

[[noreturn]] void run_body(Start &start) {
    if (receive(start.maps_done.reader) != ready) _exit(1);
    start.maps_done = {};
    start.alive.reader.reset();
    try {
        sandbox_refuse_calls();
    } catch (const std::exception &reason) {
        refuse(start, reason.what());
    }
    send(start.report.writer, std::string(1, ready));
    start.report.writer.reset();
    sigaction(SIGCHLD, &start.child_action, nullptr);
    umask(start.mask);
    std::string path;
    for (const fs::path &directory : start.root.layout.path_first) path += directory.string() + ":";
    setenv("PATH", (path + command_path).c_str(), 1);
    pthread_sigmask(SIG_SETMASK, &start.before, nullptr);
    const int status = start.body();
    std::cout.flush();
    std::fflush(nullptr);
    _exit(status);
}

/// Signals of the terminal reach the body by themselves, as one of its foreground processes.
bool sent_by_a_process(const siginfo_t &signal) {
    return signal.si_code <= 0;
}

bool is_forwarded(int signal_number) {
    return signal_number == SIGTERM || signal_number == SIGINT || signal_number == SIGHUP;
}

/// Waits for the next signal; all are blocked.
siginfo_t next_signal() {
    sigset_t all;
    sigfillset(&all);
    siginfo_t signal = {};
    while (sigwaitinfo(&all, &signal) < 0) continue;
    return signal;
}

/// Collects whoever ended; the exit status when `child` was among them.
std::optional<int> reap(pid_t child) {
    int status = 0;
    std::optional<int> result;
    while (const pid_t pid = waitpid(-1, &status, WNOHANG)) {
        if (pid < 0) break;
        if (pid == child) result = exit_status(status);
    }
    return result;
}

/// Forwards signals to `child` until it ends; a power-off kills it.
int supervise(pid_t child) {
    while (true) {
        const siginfo_t signal = next_signal();
        if (signal.si_signo == SIGCHLD) {
            if (const std::optional<int> status = reap(child)) return *status;
        } else if (signal.si_signo == power_off_signal) {
            kill(child, SIGKILL);
        } else if (is_forwarded(signal.si_signo) && sent_by_a_process(signal)) {
            kill(child, signal.si_signo);
        }
    }
}

/// Dies with the supervisor; also when that ended before the kernel was asked for it.
void die_with_supervisor(Start &start) {
    start.alive.writer.reset();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd supervisor = {start.alive.reader.get(), 0, 0};
    if (poll(&supervisor, 1, 0) != 0) _exit(1);
}

/// Starts the body in user and mount namespaces of its own: there it is root over what it mounts itself, and what the
/// init has mounted is locked, so that it can be neither changed nor taken away.
pid_t start_body(Start &start) {
    start.maps_done = make_pipe();
    Descriptor pidfd;
    const pid_t body = clone_into(CLONE_NEWUSER | CLONE_NEWNS, pidfd);
    if (body == 0) {
        start.maps_done.writer.reset();
        run_body(start);
    }
    if (body < 0) throw sandbox_refusal("second user and mount namespaces", errno);
    write_id_maps(pidfd);
    send(start.maps_done.writer, std::string(1, ready));
    start.maps_done = {};
    return body;
}

/// Process 1 of the sandbox: its end ends everything in the PID namespace.
[[noreturn]] void run_init(Start &start) {
    die_with_supervisor(start);
    start.maps_done.writer.reset();
    if (receive(start.maps_done.reader) != ready) _exit(1);
    pid_t body = -1;
    try {
        sandbox_root_enter(start.root);
        body = start_body(start);
    } catch (const std::exception &reason) {
        refuse(start, reason.what());
    }
    start.report.writer.reset();
    _exit(supervise(body));
}

// ---- outside: the supervisor, child of the caller

[[noreturn]] void run_supervisor(Start &start, pid_t caller) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != caller) _exit(1);
    struct sigaction ordinary = {};
    ordinary.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &ordinary, &start.child_action);
    start.mask = umask(022);
    start.report.reader.reset();
    const int network = start.root.layout.host_network ? 0 : CLONE_NEWNET;
    Descriptor pidfd;
    const pid_t init = clone_into(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWPID | network, pidfd);
    if (init == 0) run_init(start);
    try {
        if (init < 0) throw sandbox_refusal("new namespaces", errno);
        write_id_maps(pidfd);
    } catch (const std::exception &reason) {
        refuse(start, reason.what());
    }
    send(start.maps_done.writer, std::string(1, ready));
    start.report.writer.reset();
    start.alive.reader.reset();
    _exit(supervise(init));
}

// ---- the caller

/// Waits until the body runs. Throws with the reason when something refused.
void await_body(Start &start) {
    start.report.writer.reset();
    start.maps_done = {};
    start.alive = {};
    const char answer = receive(start.report.reader);
    if (answer == refused) throw Error(receive_rest(start.report.reader), EPERM);
    if (answer != ready) throw Error("its first process was killed while it started", ECHILD);
}

Descriptor pidfd_of(pid_t pid) {
    return Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

}  // namespace

Sandbox::Sandbox(Sandbox &&other) noexcept
    : supervisor_(std::exchange(other.supervisor_, -1)), supervisor_end_(std::move(other.supervisor_end_)) {}

Sandbox &Sandbox::operator=(Sandbox &&other) noexcept {
    std::swap(supervisor_, other.supervisor_);
    std::swap(supervisor_end_, other.supervisor_end_);
    return *this;
}

Sandbox::~Sandbox() {
    power_off();
}

std::optional<int> Sandbox::wait_for(std::chrono::milliseconds timeout) {
    pollfd end = {supervisor_end_.get(), POLLIN, 0};
    if (poll(&end, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
    return wait();
}

int Sandbox::wait() {
    int status = 0xff00;  // 255, should the caller ignore SIGCHLD and there be nothing to wait for
    while (waitpid(supervisor_, &status, 0) < 0 && errno == EINTR) continue;
    supervisor_end_.reset();
    supervisor_ = -1;
    return exit_status(status);
}

void Sandbox::forward(int signal_number) const {
    if (running()) kill(supervisor_, signal_number);
}

void Sandbox::power_off() {
    if (!running()) return;
    kill(supervisor_, power_off_signal);
    wait();
}

Sandbox sandbox_start(const SandboxLayout &layout, const std::function<int()> &body) {
    try {
        const SandboxRoot root = sandbox_root_plan(layout);
        const SignalsBlocked signals;
        Sandbox started;
        Start start = {root, body, signals.before(), {}, 0};
        const pid_t caller = getpid();
        std::cout.flush();
        std::fflush(nullptr);
        const pid_t supervisor = fork();
        if (supervisor == 0) run_supervisor(start, caller);
        if (supervisor < 0) throw system_error("fork", errno);
        started.supervisor_ = supervisor;
        started.supervisor_end_ = pidfd_of(supervisor);
        await_body(start);
        return started;
    } catch (const Error &reason) {
        throw Error(std::string("no sandbox: ") + reason.what(), reason.code);
    }
}

int sandbox_run(const SandboxLayout &layout, const std::function<int()> &body) {
    return sandbox_start(layout, body).wait();
}

}  // namespace cardsim
