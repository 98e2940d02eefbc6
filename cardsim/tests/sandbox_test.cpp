#include "sandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "files.h"

namespace fs = std::filesystem;
using card_tests::read_file;
using card_tests::write_file;
using cardsim::Sandbox;
using cardsim::sandbox_run;
using cardsim::sandbox_start;
using cardsim::SandboxLayout;
using std::chrono::milliseconds;

namespace {

/// Inside: true when `path` is a mount point.
bool is_mount_point(const fs::path &path) {
    struct stat own = {};
    struct stat parent = {};
    if (stat(path.c_str(), &own) != 0 || stat(path.parent_path().c_str(), &parent) != 0) return false;
    return own.st_dev != parent.st_dev;
}

/// A pipe whose writer is held by everything inside: its reader sees the end when nothing is left.
struct LifeLine {
    LifeLine() {
        if (pipe(ends.data()) != 0) std::abort();
    }
    ~LifeLine() {
        close(ends[0]);
        drop_own();
    }
    void drop_own() {
        if (ends[1] >= 0) close(ends[1]);
        ends[1] = -1;
    }
    bool cut_within(milliseconds time) {
        drop_own();
        pollfd reader = {ends[0], POLLIN, 0};
        char byte = 0;
        return poll(&reader, 1, static_cast<int>(time.count())) == 1 && read(ends[0], &byte, 1) == 0;
    }
    std::array<int, 2> ends = {-1, -1};
};

/// A child in new namespaces, even of a process with threads. Its status.
int in_namespaces(int namespaces, const std::function<int()> &body) {
    const long child = syscall(SYS_clone, namespaces | SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (child == 0) _exit(body());
    int status = -1;
    waitpid(static_cast<pid_t>(child), &status, 0);
    return WEXITSTATUS(status);
}

/// 0 when the call failed for one of two reasons, which is what 1 says otherwise.
int refused(long result, int reason, int other_reason) {
    return result < 0 && (errno == reason || errno == other_reason) ? 0 : 1;
}
int refused(long result, int reason) {
    return refused(result, reason, reason);
}

/// The files at or below `path` that are there to be written and can be opened for it.
std::vector<std::string> writable_files(const fs::path &path) {
    std::vector<std::string> found;
    const auto look = [&found](const fs::directory_entry &entry) {
        const fs::file_status status = entry.status();
        constexpr fs::perms write = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
        if (!fs::is_regular_file(status) || (status.permissions() & write) == fs::perms::none) return;
        const int file = open(entry.path().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (file < 0) return;
        close(file);
        found.push_back(entry.path());
    };
    look(fs::directory_entry(path));
    std::error_code unreadable;
    const auto skipping = fs::directory_options::skip_permission_denied;
    if (!fs::is_directory(path)) return found;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(path, skipping, unreadable)) look(entry);
    return found;
}

class SandboxTest : public testing::Test {
  protected:
    fs::path directory(const std::string &name) {
        fs::create_directory(host_ / name);
        return host_ / name;
    }

    /// The body's exit status; -1: there is no sandbox, for the reason in `error_`.
    int run(const std::function<int()> &body) {
        try {
            return sandbox_run(layout_, body);
        } catch (const cardsim::Error &reason) {
            error_ = reason.what();
            return -1;
        }
    }
    int run_shell(const std::string &command) {
        return run([&] { return WEXITSTATUS(std::system(command.c_str())); });
    }

    const card_tests::TemporaryDirectory own_{"cardsim-test"};
    const fs::path &host_ = own_.path();
    SandboxLayout layout_;
    std::string error_;
};

TEST_F(SandboxTest, GivesBackTheExitStatus) {
    EXPECT_EQ(run([] { return 0; }), 0) << error_;
    EXPECT_EQ(run([] { return 42; }), 42);
    EXPECT_EQ(run([] { return raise(SIGKILL); }), 128 + SIGKILL);
}

TEST_F(SandboxTest, ShowsTheCardsDirectoriesAtTheirAbsolutePaths) {
    layout_.packaged_firmware = directory("pkg");
    layout_.log = directory("log");
    layout_.scratch = directory("scratch");
    layout_.local_etc = directory("etc");
    layout_.flash = directory("flash");
    layout_.extra = {{directory("extra"), "/opt/somewhere/deep"}};
    for (const char *name : {"pkg", "log", "scratch", "etc", "flash", "extra"}) write_file(host_ / name / "mark", name);

    EXPECT_EQ(run([] {
                  const bool all = read_file("/pkg/fpd/ucode/mark") == "pkg" && read_file("/var/log/mark") == "log" &&
                                   read_file("/misc/scratch/mark") == "scratch" &&
                                   read_file("/usr/local/etc/mark") == "etc" &&
                                   read_file(fs::path(cardsim::sandbox_flash_path) / "mark") == "flash" &&
                                   read_file("/opt/somewhere/deep/mark") == "extra";
                  write_file("/misc/scratch/marker", "written inside");
                  return all ? 0 : 1;
              }),
              0)
        << error_;
    EXPECT_EQ(read_file(host_ / "scratch/marker"), "written inside");
}

TEST_F(SandboxTest, ShowsEmptyDirectoriesForWhatIsNotProvided) {
    for (const char *path : {"/pkg/fpd/ucode", "/var/log", "/misc/scratch", "/usr/local/etc", "/mnt/obfl"}) {
        EXPECT_EQ(run([path] {
                      if (!fs::is_directory(path) || !fs::is_empty(path)) return 1;
                      write_file(fs::path(path) / "file", "x");
                      return read_file(fs::path(path) / "file") == "x" ? 0 : 2;
                  }),
                  0)
            << path << " " << error_;
    }
    EXPECT_EQ(run([] { return access("/dev/kd_bootstrap", F_OK) != 0 && errno == ENOENT ? 0 : 1; }), 0);
}

TEST_F(SandboxTest, NeedsNoneOfTheDirectoriesOnTheHost) {
    layout_.scratch = directory("scratch");
    layout_.extra = {{host_ / "scratch", "/usr/local/some/where"}};
    EXPECT_EQ(
        run([this] {
            for (const char *path : {"/usr/local", "/var", "/mnt", "/misc", "/pkg"}) {
                if (mount("empty", path, "tmpfs", 0, nullptr) != 0) return 1;
            }
            return run([] {
                for (const char *path : {"/pkg/fpd/ucode", "/var/log", "/usr/local/etc", "/usr/local/some/where"}) {
                    write_file(fs::path(path) / "file", path);
                    if (read_file(fs::path(path) / "file") != path) return 2;
                }
                return fs::is_directory("/mnt/obfl") && !is_mount_point("/mnt/obfl") ? 0 : 3;
            });
        }),
        0)
        << error_;
    EXPECT_EQ(read_file(host_ / "scratch/file"), "/usr/local/some/where");
}

TEST_F(SandboxTest, TheFlashIsMountedOnlyByAMount) {
    layout_.flash = directory("flash");
    write_file(host_ / "flash/log", "kept");
    EXPECT_EQ(run([] {
                  if (is_mount_point("/mnt/obfl") || !fs::is_empty("/mnt/obfl")) return 1;
                  if (mount(cardsim::sandbox_flash_path, "/mnt/obfl", nullptr, MS_BIND, nullptr) != 0) return 2;
                  if (!is_mount_point("/mnt/obfl") || read_file("/mnt/obfl/log") != "kept") return 3;
                  return umount("/mnt/obfl") == 0 && !is_mount_point("/mnt/obfl") ? 0 : 4;
              }),
              0)
        << error_;
}

TEST_F(SandboxTest, TheBootstrapFileIsAPlainFileOfItsOwn) {
    write_file(host_ / "keys", "PD_SLOT_NUM=2\n");
    layout_.bootstrap_file = host_ / "keys";
    EXPECT_EQ(run([] {
                  if (!fs::is_regular_file(fs::symlink_status("/dev/kd_bootstrap"))) return 1;
                  if (read_file("/dev/kd_bootstrap") != "PD_SLOT_NUM=2\n") return 2;
                  write_file("/dev/kd_bootstrap", "changed");
                  return fs::remove("/dev/kd_bootstrap") ? 0 : 3;
              }),
              0)
        << error_;
    EXPECT_EQ(read_file(host_ / "keys"), "PD_SLOT_NUM=2\n");
}

TEST_F(SandboxTest, BootCommandsStandBesideTheHostsCommands) {
    layout_.boot_commands = directory("bin");
    for (const char *name : {"grub-reboot", "check-flash"}) {
        write_file(host_ / "bin" / name, "#!/bin/sh\necho \"$0\" \"$@\"\n");
        fs::permissions(host_ / "bin" / name, fs::perms{0755});
    }
    EXPECT_EQ(run_shell("test \"$(grub-reboot entry)\" = '/usr/sbin/grub-reboot entry'"), 0) << error_;
    EXPECT_EQ(run_shell("test \"$(/usr/sbin/check-flash start)\" = '/usr/sbin/check-flash start'"), 0);
    EXPECT_EQ(run_shell("for i in $(ls /usr/sbin); do test -e /usr/sbin/$i || echo $i; done | cmp - /dev/null"), 0);
    EXPECT_EQ(run([] { return fs::exists("/usr/sbin/chroot") ? 0 : 1; }), fs::exists("/usr/sbin/chroot") ? 0 : 1);
}

TEST_F(SandboxTest, CommandsAreSearchedInTheGivenDirectoriesFirst) {
    layout_.path_first = {directory("first")};
    EXPECT_EQ(run([this] {
                  const std::string path = getenv("PATH");
                  return path == (host_ / "first").string() +
                                     ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
                             ? 0
                             : 1;
              }),
              0);
}

TEST_F(SandboxTest, MessageQueuesAreItsOwnAndLongEnough) {
    const std::string limit = read_file("/proc/sys/fs/mqueue/msg_max");
    const std::string name = "/cardsim_sandbox_test_" + std::to_string(getpid());
    const auto make_queue = [&name] {
        mq_attr attributes = {};
        attributes.mq_maxmsg = 256;
        attributes.mq_msgsize = 24;
        const mqd_t queue = mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attributes);
        return queue == -1 ? errno : 0;
    };
    EXPECT_EQ(run(make_queue), 0) << error_;
    EXPECT_EQ(run(make_queue), 0) << "the queue of the first sandbox is still there";
    EXPECT_EQ(mq_open(name.c_str(), O_RDONLY), -1);
    mq_unlink(name.c_str());
    EXPECT_EQ(read_file("/proc/sys/fs/mqueue/msg_max"), limit);
}

TEST_F(SandboxTest, SystemDirectoriesCannotBeWritten) {
    for (const char *path : {"/usr/x", "/etc/x", "/boot/x", "/opt/x", "/sys/x", "/usr/lib/x", "/usr/sbin/x"}) {
        EXPECT_EQ(run([path] { return mkdir(path, 0755) != 0 && errno == EROFS ? 0 : 1; }), 0) << path;
        rmdir(path);  // of a sandbox that does not protect the host
    }
}

TEST_F(SandboxTest, WhatItMountedCanNeitherBeChangedNorTakenAway) {
    layout_.boot_commands = directory("bin");
    write_file(host_ / "bin/check-flash", "");
    for (const char *path : {"/usr", "/etc", "/usr/sbin", "/proc/sys", "/sys"}) {
        EXPECT_EQ(run([path] { return refused(mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND, nullptr), EPERM); }),
                  0)
            << path << " " << error_;
        EXPECT_EQ(run([path] { return refused(umount2(path, MNT_DETACH), EINVAL, EPERM); }), 0) << path;
    }
}

TEST_F(SandboxTest, ABindOfASystemDirectoryCannotBeWrittenEither) {
    EXPECT_EQ(run([] {
                  if (mount("/usr", "/dev/shm", nullptr, MS_BIND | MS_REC, nullptr) != 0) return 2;
                  if (mount(nullptr, "/dev/shm", nullptr, MS_REMOUNT | MS_BIND, nullptr) == 0) return 3;
                  return refused(mkdir("/dev/shm/x", 0755), EROFS);
              }),
              0)
        << error_;
    rmdir("/usr/x");  // of a sandbox that does not protect the host
}

TEST_F(SandboxTest, TheOriginalsOfSystemDirectoriesCannotBeWritten) {
    layout_.boot_commands = directory("bin");
    write_file(host_ / "bin/check-flash", "");
    const fs::path mark = "cardsim-test-" + std::to_string(getpid());
    EXPECT_EQ(run([&mark] {
                  const fs::path original = fs::read_symlink("/usr/sbin/chroot").parent_path();
                  return refused(mkdir((original / mark).c_str(), 0755), EROFS);
              }),
              0)
        << error_;
    rmdir(("/usr/sbin" / mark).c_str());  // of a sandbox that does not protect the host
}

TEST_F(SandboxTest, OfProcOnlyProcessesAndTheLimitsOfQueuesCanBeWritten) {
    EXPECT_EQ(run([] {
                  std::vector<std::string> writable;
                  for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
                      const std::string name = entry.path().filename();
                      if (entry.is_symlink() || name.find_first_not_of("0123456789") == std::string::npos) continue;
                      for (const std::string &file : writable_files(entry.path())) writable.push_back(file);
                  }
                  std::erase_if(writable,
                                [](const std::string &file) { return file.starts_with("/proc/sys/fs/mqueue/"); });
                  for (const std::string &file : writable) std::fprintf(stderr, "writable: %s\n", file.c_str());
                  return writable.empty() ? 0 : 1;
              }),
              0)
        << error_;
    EXPECT_EQ(run([] {
                  write_file("/proc/sys/fs/mqueue/msg_max", "300");
                  return read_file("/proc/sys/fs/mqueue/msg_max") == "300\n" ? 0 : 1;
              }),
              0);
}

TEST_F(SandboxTest, ProcCannotBeMountedAnew) {
    const auto mount_proc = [] { return refused(mount("proc", "/dev/shm", "proc", 0, nullptr), EPERM); };
    EXPECT_EQ(run(mount_proc), 0) << error_;
    EXPECT_EQ(run([&] { return in_namespaces(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID, mount_proc); }), 0);
}

TEST_F(SandboxTest, ControlGroupsCannotBeReached) {
    EXPECT_EQ(run([] { return refused(unshare(CLONE_NEWCGROUP), ENOSPC); }), 0) << error_;
    EXPECT_EQ(run([] { return refused(mount("cgroup2", "/dev/shm", "cgroup2", 0, nullptr), EPERM); }), 0);
}

TEST_F(SandboxTest, TheInitOfTheSandboxIsClosed) {
    for (const char *path : {"/proc/1/root", "/proc/1/cwd", "/proc/1/ns/mnt", "/proc/1/ns/user", "/proc/1/mem"}) {
        EXPECT_EQ(run([path] { return refused(open(path, O_RDONLY | O_CLOEXEC), EACCES); }), 0) << path << error_;
    }
}

TEST_F(SandboxTest, DevicesOfTheHostCannotBeOpenedOrMade) {
    if (mknod((host_ / "zero").c_str(), S_IFCHR | 0600, makedev(1, 5)) != 0) GTEST_SKIP() << "may not make a device";
    layout_.scratch = host_;
    for (const fs::path &path : {host_ / "zero", fs::path("/misc/scratch/zero")}) {
        EXPECT_EQ(run([&path] { return refused(open(path.c_str(), O_RDONLY | O_CLOEXEC), EACCES); }), 0)
            << path << error_;
    }
    EXPECT_EQ(run([] { return refused(mknod("/misc/scratch/null", S_IFCHR | 0600, makedev(1, 3)), EPERM); }), 0);
}

TEST_F(SandboxTest, CallsThatNoNamespaceKeepsApartAreRefused) {
    EXPECT_EQ(run([] { return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1 ? 0 : 1; }), 0) << error_;
    EXPECT_EQ(run([] { return refused(syscall(SYS_keyctl, 0, -3, 0), ENOSYS); }), 0);
    EXPECT_EQ(run([] { return refused(syscall(SYS_add_key, "user", "name", "x", 1, -3), ENOSYS); }), 0);
    EXPECT_EQ(run([] { return refused(syscall(SYS_request_key, "user", "name", nullptr, -3), ENOSYS); }), 0);
    EXPECT_EQ(run([] { return refused(ioctl(0, TIOCSTI, "x"), ENOSYS); }), 0);
    EXPECT_EQ(run([] { return refused(ioctl(0, TIOCLINUX, "x"), ENOSYS); }), 0);
    EXPECT_EQ(run([] {
                  long result = 20;  // getpid of a 32-bit program
                  asm volatile("int $0x80" : "+a"(result)::"memory", "r8", "r9", "r10", "r11");
                  return result == -ENOSYS ? 0 : 1;
              }),
              0);
}

TEST_F(SandboxTest, TheNetworkIsItsOwnUnlessTheHostsIsAskedFor) {
    const fs::path network = fs::read_symlink("/proc/self/ns/net");
    const auto has_network = [&network] { return fs::read_symlink("/proc/self/ns/net") == network ? 1 : 0; };
    EXPECT_EQ(run(has_network), 0) << error_;
    EXPECT_EQ(run([] { return fs::is_empty("/run") ? 0 : 1; }), 0);
    layout_.host_network = true;
    EXPECT_EQ(run(has_network), 1) << error_;
    EXPECT_EQ(run([] { return fs::is_empty("/run") ? 0 : 1; }), fs::is_empty("/run") ? 0 : 1);
}

TEST_F(SandboxTest, ProgramsInItTalkToEachOther) {
    EXPECT_EQ(run([] {
                  sockaddr_in address = {};
                  address.sin_family = AF_INET;
                  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                  socklen_t size = sizeof address;
                  const auto name = reinterpret_cast<sockaddr *>(&address);
                  const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
                  if (bind(receiver, name, size) != 0 || getsockname(receiver, name, &size) != 0) return 1;
                  const int sender = socket(AF_INET, SOCK_DGRAM, 0);
                  char byte = 0;
                  return sendto(sender, "x", 1, 0, name, size) == 1 && recv(receiver, &byte, 1, 0) == 1 ? 0 : 2;
              }),
              0)
        << error_;
}

TEST_F(SandboxTest, TheRestOfTheHostIsUsable) {
    write_file(host_ / "file", "before");
    const fs::path here = fs::current_path();
    EXPECT_EQ(run([&] {
                  write_file(host_ / "file", "after");
                  return fs::current_path() == here ? 0 : 1;
              }),
              0)
        << error_;
    EXPECT_EQ(read_file(host_ / "file"), "after");
}

TEST_F(SandboxTest, HasOnlyTheDevicesOfACard) {
    EXPECT_EQ(run([] {
                  for (const char *name : {"null", "zero", "full", "random", "urandom"}) {
                      if (!fs::is_character_file(fs::path("/dev") / name)) return 1;
                  }
                  for (const fs::directory_entry &entry : fs::directory_iterator("/dev")) {
                      if (entry.is_block_file()) return 2;
                  }
                  for (const fs::directory_entry &entry : fs::directory_iterator("/dev/pts")) {
                      if (entry.path() != "/dev/pts/ptmx") return 4;
                  }
                  write_file("/dev/null", "gone");
                  write_file("/dev/shm/file", "kept");
                  return read_file("/dev/shm/file") == "kept" && fs::exists("/dev/fd/0") ? 0 : 3;
              }),
              0)
        << error_;
    EXPECT_FALSE(fs::exists("/dev/shm/file"));
}

TEST_F(SandboxTest, ProgramsFindTheNameOfTheCallersTerminal) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const int before = dup(STDIN_FILENO);
    dup2(terminal, STDIN_FILENO);
    EXPECT_EQ(run([] {
                  const char *const name = ttyname(STDIN_FILENO);
                  return name != nullptr && std::string(name) == "/dev/console" ? 0 : 1;
              }),
              0)
        << error_;
    dup2(before, STDIN_FILENO);
    for (const int file : {before, terminal, master}) close(file);
}

TEST_F(SandboxTest, LeavesTheHostUntouched) {
    const std::string mounts = read_file("/proc/self/mountinfo");
    const auto top = [] {
        std::size_t count = 0;
        for ([[maybe_unused]] const fs::directory_entry &entry : fs::directory_iterator("/")) ++count;
        return count;
    };
    const std::size_t entries = top();
    layout_.log = directory("log");
    EXPECT_EQ(run([] { return mount("x", "/tmp", "tmpfs", 0, nullptr) == 0 ? 0 : 1; }), 0) << error_;
    EXPECT_EQ(read_file("/proc/self/mountinfo"), mounts);
    EXPECT_EQ(top(), entries);
}

TEST_F(SandboxTest, SeesItsOwnProcessesOnly) {
    EXPECT_EQ(run([] { return getpid() == 2 && fs::exists("/proc/2") ? 0 : 1; }), 0) << error_;
    EXPECT_EQ(run([pid = getpid()] { return pid > 10 && fs::exists("/proc/" + std::to_string(pid)) ? 1 : 0; }), 0);
}

TEST_F(SandboxTest, ReapsOrphans) {
    EXPECT_EQ(run([] {
                  int orphan_pid[2];
                  if (pipe(orphan_pid) != 0) return 1;
                  const pid_t parent = fork();
                  if (parent == 0) {
                      const pid_t orphan = fork();
                      if (orphan == 0) _exit(0);
                      _exit(write(orphan_pid[1], &orphan, sizeof orphan) == sizeof orphan ? 0 : 1);
                  }
                  waitpid(parent, nullptr, 0);
                  pid_t orphan = 0;
                  if (read(orphan_pid[0], &orphan, sizeof orphan) != sizeof orphan) return 2;
                  for (int wait = 0; wait < 200 && kill(orphan, 0) == 0; ++wait) usleep(10'000);
                  return kill(orphan, 0) != 0 && errno == ESRCH ? 0 : 3;
              }),
              0)
        << error_;
}

TEST_F(SandboxTest, NothingOutlivesTheBody) {
    LifeLine line;
    EXPECT_EQ(run([] {
                  if (fork() == 0) {
                      setsid();
                      sleep(60);
                  }
                  return 3;
              }),
              3);
    EXPECT_TRUE(line.cut_within(milliseconds(0)));
}

TEST_F(SandboxTest, PowerOffKillsEverythingAtOnce) {
    LifeLine line;
    Sandbox sandbox = sandbox_start(layout_, [] { return static_cast<int>(sleep(60)); });
    EXPECT_EQ(sandbox.wait_for(milliseconds(20)), std::nullopt);
    EXPECT_TRUE(sandbox.running());
    sandbox.power_off();
    EXPECT_FALSE(sandbox.running());
    EXPECT_TRUE(line.cut_within(milliseconds(0)));
}

TEST_F(SandboxTest, ForwardsASignalToTheBody) {
    const auto body = [] {
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        sigprocmask(SIG_BLOCK, &term, nullptr);
        timespec limit = {30, 0};
        return sigtimedwait(&term, nullptr, &limit) == SIGTERM ? 17 : 1;
    };
    sigset_t term;
    sigset_t before;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, &before);  // inherited: the signal may come before the body asks for it
    Sandbox sandbox = sandbox_start(layout_, body);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    sandbox.forward(SIGTERM);
    EXPECT_EQ(sandbox.wait(), 17);
}

TEST_F(SandboxTest, DiesWithItsCaller) {
    LifeLine line;
    const pid_t caller = fork();
    if (caller == 0) {
        const Sandbox sandbox = sandbox_start(layout_, [] { return static_cast<int>(sleep(60)); });
        raise(SIGKILL);
    }
    int status = 0;
    waitpid(caller, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_TRUE(line.cut_within(milliseconds(5000)));
}

TEST_F(SandboxTest, WorksForAnOrdinaryUser) {
    if (geteuid() != 0) GTEST_SKIP() << "the other tests show it";
    layout_.scratch = directory("scratch");
    fs::permissions(host_, fs::perms{0755});
    ASSERT_EQ(chown((host_ / "scratch").c_str(), 65534, 65534), 0);
    const pid_t user = fork();
    if (user == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(1);
        prctl(PR_SET_DUMPABLE, 1);  // as it is after an exec: only then /proc/PID belongs to the new user
        _exit(run([] {
            write_file("/misc/scratch/marker", "written inside");
            const bool limit = std::stoi(read_file("/proc/sys/fs/mqueue/msg_max")) >= 256;
            return limit && geteuid() == 0 && is_mount_point("/var/log") ? 5 : 2;
        }));
    }
    int status = 0;
    waitpid(user, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 5);
    struct stat marker = {};
    ASSERT_EQ(stat((host_ / "scratch/marker").c_str(), &marker), 0);
    EXPECT_EQ(marker.st_uid, 65534U);
}

TEST_F(SandboxTest, RootKeepsAllItsIds) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    layout_.scratch = directory("scratch");
    const std::string map = read_file("/proc/self/uid_map");
    // The plain system call: the C library has all threads take part, of which a sanitizer has one outside.
    EXPECT_EQ(run([&map] {
                  write_file("/misc/scratch/file", "");
                  if (chown("/misc/scratch/file", 1234, 4321) != 0) return 1;
                  return read_file("/proc/self/uid_map") == map && syscall(SYS_setgroups, 0, nullptr) == 0 ? 0 : 2;
              }),
              0)
        << error_;
    struct stat file = {};
    ASSERT_EQ(stat((host_ / "scratch/file").c_str(), &file), 0);
    EXPECT_EQ(file.st_uid, 1234U);
    EXPECT_EQ(file.st_gid, 4321U);
}

TEST_F(SandboxTest, ShowsTheDirectoryThatItWasHandedWhateverStandsInItsPlaceByNow) {
    write_file(directory("scratch") / "mark", "right");
    write_file(directory("victim") / "mark", "wrong");
    fs::create_directory_symlink(host_ / "victim", host_ / "link");
    const int handed = open((host_ / "scratch").c_str(), O_PATH | O_CLOEXEC);
    layout_.scratch = "/proc/self/fd/" + std::to_string(handed);
    const pid_t exchanging = fork();
    while (exchanging == 0) {
        renameat2(AT_FDCWD, (host_ / "scratch").c_str(), AT_FDCWD, (host_ / "link").c_str(), RENAME_EXCHANGE);
    }
    std::vector<int> seen;
    for (int attempt = 0; attempt < 40; ++attempt) {
        seen.push_back(run([] { return read_file("/misc/scratch/mark") == "right" ? 0 : 1; }));
    }
    kill(exchanging, SIGKILL);
    waitpid(exchanging, nullptr, 0);
    close(handed);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 0) << "the victim was shown";
    EXPECT_GT(std::count(seen.begin(), seen.end(), -1), 0) << "never in the way: " << error_;
}

TEST_F(SandboxTest, Nests) {
    layout_.boot_commands = directory("bin");
    write_file(host_ / "bin/check-flash", "#!/bin/sh\nexit 9\n");
    fs::permissions(host_ / "bin/check-flash", fs::perms{0755});
    EXPECT_EQ(run([this] {
                  return run([this] { return run_shell("chroot --version >/dev/null && /usr/sbin/check-flash"); });
              }),
              9)
        << error_;
}

TEST_F(SandboxTest, AnInnerSandboxHasQueuesOfItsOwnAsWell) {
    const auto make_queue = [] {
        mq_attr attributes = {};
        attributes.mq_maxmsg = 256;
        attributes.mq_msgsize = 24;
        return mq_open("/queue", O_CREAT | O_EXCL | O_RDWR, 0600, &attributes) == -1 ? errno : 0;
    };
    EXPECT_EQ(run([&] {
                  if (make_queue() != 0) return 1;
                  return run([&] { return make_queue() == 0 ? run(make_queue) : 2; });
              }),
              0)
        << error_;
}

TEST_F(SandboxTest, SaysWhatToAllowWhereNamespacesAreForbidden) {
    for (const char *allowed : {"0", "1"}) {
        EXPECT_EQ(in_namespaces(CLONE_NEWUSER,
                                [&] {
                                    write_file("/proc/sys/user/max_user_namespaces", allowed);
                                    if (run([] { return 0; }) != -1) return 1;
                                    if (error_.find("kernel.unprivileged_userns_clone") == std::string::npos) return 2;
                                    if (error_.find("user.max_user_namespaces") == std::string::npos) return 3;
                                    return error_.find('\n') == std::string::npos ? 0 : 4;
                                }),
                  0)
            << allowed;
    }
}

TEST_F(SandboxTest, NamesADirectoryThatIsNotThere) {
    layout_.scratch = host_ / "nowhere";
    bool ran = false;
    EXPECT_EQ(run([&] { return ran = true; }), -1);
    EXPECT_NE(error_.find((host_ / "nowhere").string() + ": No such file or directory"), std::string::npos) << error_;
    EXPECT_FALSE(fs::exists(host_ / "nowhere"));
}

TEST_F(SandboxTest, ReportsAStepThatFailsInside) {
    write_file(host_ / "file", "");
    layout_.scratch = host_ / "file";
    EXPECT_EQ(run([] { return 0; }), -1);
    EXPECT_NE(error_.find("/misc/scratch"), std::string::npos) << error_;
}

}  // namespace
