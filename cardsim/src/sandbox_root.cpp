#include "sandbox_root.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>

namespace fs = std::filesystem;

namespace cardsim {
namespace {

// The host's root stays reachable here until the new root is complete.
const fs::path old_root = "/.cardsim-old";
const fs::path hidden = "/.cardsim";
const fs::path flash_mount_point = "/mnt/obfl";
const fs::path hidden_boot_commands = "/.cardsim/bin";

/// The new root while it grows.
struct Root {
    std::set<fs::path> own;  ///< directories on a tmpfs of the sandbox: names can be added to them
    fs::path originals;      ///< directory that keeps the mirrored directories of the host
    int mirrored = 0;
};

[[noreturn]] void fail(const std::string &step, int error_number) {
    throw std::runtime_error(step + ": " + std::strerror(error_number) + sandbox_refusal_hint(error_number));
}

void make_directory(const fs::path &path, mode_t mode = 0755) {
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) fail("mkdir " + path.string(), errno);
}

void make_file(const fs::path &path, const std::string &content = {}) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) fail("create " + path.string(), errno);
}

void make_link(const fs::path &target, const fs::path &path) {
    if (symlink(target.c_str(), path.c_str()) != 0) fail("symlink " + path.string(), errno);
}

bool bind(const fs::path &source, const fs::path &target) {
    return mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

void must_bind(const fs::path &source, const fs::path &target) {
    if (!bind(source, target)) fail("bind " + target.string(), errno);
}

void mount_tmpfs(const fs::path &target, const char *options = "mode=0755") {
    if (mount("cardsim", target.c_str(), "tmpfs", MS_NOSUID, options) != 0) {
        fail("mount a tmpfs on " + target.string(), errno);
    }
}

bool directory_at(const fs::path &path) {
    std::error_code ignored;
    return fs::is_directory(path, ignored);
}

void switch_to_new_root() {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) fail("make the mounts private", errno);
    mount_tmpfs("/tmp");
    make_directory("/tmp" + old_root.string());
    const std::string put_old = "/tmp" + old_root.string();
    if (syscall(SYS_pivot_root, "/tmp", put_old.c_str()) != 0) fail("pivot_root", errno);
    if (chdir("/") != 0) fail("chdir /", errno);
}

/// One entry of a host directory again at `target`. A directory that cannot be bound stays empty: the sandbox must not
/// fail over a mount of the host that the caller may not even look at.
void mirror_entry(const fs::directory_entry &entry, const fs::path &target) {
    if (entry.is_symlink()) {
        make_link(fs::read_symlink(entry.path()), target);
    } else if (entry.is_directory()) {
        make_directory(target);
        bind(entry.path(), target);
    } else {
        make_link(entry.path(), target);
    }
}

void mirror_top_level() {
    const std::set<fs::path> own = {"dev", "proc", hidden.filename(), old_root.filename()};
    for (const fs::directory_entry &entry : fs::directory_iterator(old_root)) {
        const fs::path name = entry.path().filename();
        if (own.contains(name)) continue;
        if (entry.is_symlink() || entry.is_directory()) {
            mirror_entry(entry, "/" / name);
        } else if (entry.is_regular_file()) {
            make_file("/" / name);
            bind(entry.path(), "/" / name);
        }
    }
}

/// Lays a tmpfs with the same entries over a directory of the host, leaving out the names in `replaced`. Files become
/// links to the original, which stays in `originals`: one mount for any number of them.
void mirror_directory(Root &root, const fs::path &directory, const std::set<fs::path> &replaced = {}) {
    if (root.mirrored == 0) make_directory(root.originals);
    const fs::path original = root.originals / std::to_string(root.mirrored++);
    make_directory(original);
    must_bind(directory, original);
    mount_tmpfs(directory);
    for (const fs::directory_entry &entry : fs::directory_iterator(original)) {
        const fs::path name = entry.path().filename();
        if (!replaced.contains(name)) mirror_entry(entry, directory / name);
    }
    root.own.insert(directory);
}

/// The directory `path` with every directory on the way to it; nothing is ever made in a directory of the host.
fs::path ensure_directory(Root &root, const fs::path &path) {
    fs::path current = "/";
    for (const fs::path &name : path.relative_path()) {
        const fs::path next = current / name;
        if (directory_at(next)) {
            current = fs::canonical(next);
            continue;
        }
        if (!root.own.contains(current)) mirror_directory(root, current);
        make_directory(next);
        root.own.insert(next);
        current = next;
    }
    return current;
}

void make_device(const std::string &name, bool required) {
    const fs::path host = old_root / "dev" / name;
    const fs::path device = "/dev/" + name;
    std::error_code ignored;
    if (!required && !fs::exists(host, ignored)) return;
    make_file(device);
    if (!bind(host, device) && required) fail("bind " + device.string(), errno);
}

void make_devices() {
    make_directory("/dev");
    mount_tmpfs("/dev");
    for (const char *name : {"null", "zero", "full", "random", "urandom"}) make_device(name, true);
    make_device("tty", false);
    make_device("ptmx", false);
    make_link("/proc/self/fd", "/dev/fd");
    make_link("/proc/self/fd/0", "/dev/stdin");
    make_link("/proc/self/fd/1", "/dev/stdout");
    make_link("/proc/self/fd/2", "/dev/stderr");
    make_directory("/dev/shm");
    if (chmod("/dev/shm", 01777) != 0) fail("chmod /dev/shm", errno);
    make_directory("/dev/pts");
    bind(old_root / "dev/pts", "/dev/pts");
    // Only a look at the queues: the calls work without it.
    make_directory("/dev/mqueue");
    mount("mqueue", "/dev/mqueue", "mqueue", MS_NOSUID, nullptr);
}

void make_proc() {
    make_directory("/proc");
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0) return;
    // Refused inside a container that masks parts of its own /proc; that one still tells a process about itself.
    if (errno != EPERM) fail("mount /proc", errno);
    must_bind(old_root / "proc", "/proc");
}

void raise_message_limit() {
    const char *const limit = "/proc/sys/fs/mqueue/msg_max";
    const std::string text = std::to_string(sandbox_message_limit);
    const int fd = open(limit, O_WRONLY | O_CLOEXEC);
    const bool written = fd >= 0 && write(fd, text.c_str(), text.size()) == static_cast<ssize_t>(text.size());
    const int error_number = errno;
    if (fd >= 0) close(fd);
    if (!written) {
        throw std::runtime_error(std::string("raise ") + limit + ": " + std::strerror(error_number) +
                                 " (an ordinary user may raise it in its own IPC namespace from Linux 6.9 on; "
                                 "on an older one run this as root)");
    }
}

/// The entries of the card's directory of boot commands in /usr/sbin, before those of the host.
void add_boot_commands(Root &root, const SandboxLayout &layout) {
    if (layout.boot_commands.empty()) return;
    make_directory(hidden_boot_commands);
    must_bind(old_root / layout.boot_commands.relative_path(), hidden_boot_commands);
    std::set<fs::path> names;
    for (const fs::directory_entry &entry : fs::directory_iterator(hidden_boot_commands)) {
        names.insert(entry.path().filename());
    }
    const fs::path directory = ensure_directory(root, "/usr/sbin");
    if (!root.own.contains(directory)) mirror_directory(root, directory, names);
    for (const fs::path &name : names) make_link(hidden_boot_commands / name, directory / name);
}

void protect_system_directories() {
    for (const char *name : {"usr", "etc", "bin", "sbin", "lib", "lib32", "lib64", "libx32", "boot", "opt"}) {
        const fs::path directory = fs::path("/") / name;
        if (!fs::is_directory(fs::symlink_status(directory))) continue;
        mount_attr read_only = {};
        read_only.attr_set = MOUNT_ATTR_RDONLY;
        if (mount_setattr(AT_FDCWD, directory.c_str(), AT_RECURSIVE, &read_only, sizeof read_only) != 0) {
            fail("make " + directory.string() + " read-only", errno);
        }
    }
}

/// The card's directories and where they stand; an empty source is an empty directory of the sandbox's own.
std::vector<SandboxBind> card_directories(const SandboxLayout &layout) {
    std::vector<SandboxBind> binds = {
        {layout.packaged_firmware, "/pkg/fpd/ucode"},
        {layout.log, "/var/log"},
        {layout.scratch, "/misc/scratch"},
        {layout.local_etc, "/usr/local/etc"},
        {layout.flash, sandbox_flash_path},
        {{}, flash_mount_point},
    };
    binds.insert(binds.end(), layout.extra.begin(), layout.extra.end());
    return binds;
}

/// /mnt/obfl is a plain directory: it must not be a mount point before the mount command was run.
void show_directory(const fs::path &source, const fs::path &directory) {
    if (!source.empty()) {
        must_bind(old_root / source.relative_path(), directory);
    } else if (directory != flash_mount_point) {
        mount_tmpfs(directory);
    }
}

void copy_bootstrap_file(const fs::path &source) {
    if (source.empty()) return;
    std::ifstream file(old_root / source.relative_path(), std::ios::binary);
    if (!file) fail("read " + source.string(), errno);
    make_file("/dev/kd_bootstrap", {std::istreambuf_iterator<char>(file), {}});
}

void leave_old_root() {
    if (umount2(old_root.c_str(), MNT_DETACH) != 0) fail("unmount the host's root", errno);
    if (rmdir(old_root.c_str()) != 0) fail("rmdir " + old_root.string(), errno);
}

/// A name that an outer sandbox does not use: its links point into its own directory of originals.
fs::path free_originals_name() {
    for (int depth = 1;; ++depth) {
        const fs::path name = "/.cardsim-host-" + std::to_string(depth);
        if (!fs::exists(old_root / name.relative_path())) return name;
    }
}

/// /mnt/obfl is mirrored rather than mounted over, so that it is no mount point.
fs::path prepare_directory(Root &root, const fs::path &target) {
    const fs::path directory = ensure_directory(root, target);
    if (target == flash_mount_point && !root.own.contains(directory)) {
        mirror_directory(root, directory.parent_path(), {directory.filename()});
        make_directory(directory);
        root.own.insert(directory);
    }
    return directory;
}

}  // namespace

std::string sandbox_refusal_hint(int error_number) {
    if (error_number != EPERM && error_number != EACCES && error_number != ENOSPC) return {};
    return " (allow user namespaces: sysctl kernel.unprivileged_userns_clone=1, user.max_user_namespaces above 0, "
           "kernel.apparmor_restrict_unprivileged_userns=0 where AppArmor restricts them; in a container, its "
           "seccomp profile must allow them and mount)";
}

SandboxLayout sandbox_layout_resolve(const SandboxLayout &layout) {
    SandboxLayout resolved = layout;
    std::vector<fs::path *> paths = {&resolved.packaged_firmware, &resolved.log,   &resolved.scratch,
                                     &resolved.local_etc,         &resolved.flash, &resolved.boot_commands,
                                     &resolved.bootstrap_file};
    for (SandboxBind &bind_mount : resolved.extra) paths.push_back(&bind_mount.source);
    for (fs::path *path : paths) {
        if (path->empty()) continue;
        std::error_code error;
        const fs::path canonical = fs::canonical(*path, error);
        if (error) throw std::runtime_error(path->string() + ": " + error.message());
        *path = canonical;
    }
    return resolved;
}

void sandbox_root_enter(const SandboxLayout &layout) {
    std::error_code no_working_directory;
    const fs::path working_directory = fs::current_path(no_working_directory);
    switch_to_new_root();
    Root root = {{"/"}, free_originals_name()};
    mirror_top_level();
    make_devices();
    make_proc();
    make_directory(hidden);
    root.own.insert(hidden);
    std::vector<SandboxBind> binds = card_directories(layout);
    for (SandboxBind &entry : binds) entry.target = prepare_directory(root, entry.target);
    add_boot_commands(root, layout);
    protect_system_directories();
    for (const SandboxBind &entry : binds) show_directory(entry.source, entry.target);
    copy_bootstrap_file(layout.bootstrap_file);
    raise_message_limit();
    leave_old_root();
    if (no_working_directory || chdir(working_directory.c_str()) != 0) {
        if (chdir("/") != 0) fail("chdir /", errno);
    }
}

}  // namespace cardsim
