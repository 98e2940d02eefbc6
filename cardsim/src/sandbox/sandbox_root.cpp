#include "sandbox_root.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "file_text.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

// The host's root stays reachable here until the new root is complete.
const fs::path old_root = "/.cardsim-old";
const fs::path hidden = "/.cardsim";
const fs::path flash_mount_point = "/mnt/obfl";
const fs::path hidden_boot_commands = "/.cardsim/bin";
const fs::path system_controls = "/proc/sys";
const fs::path file_system_controls = "/proc/sys/fs";

/// The new root while it grows.
struct Root {
    const std::map<fs::path, SandboxSource> &sources;
    std::set<fs::path> own;  ///< directories on a tmpfs of the sandbox: names can be added to them
    fs::path originals;      ///< directory that keeps the mirrored directories of the host
    int mirrored = 0;
};

[[noreturn]] void fail(const std::string &step, int error_number) {
    throw sandbox_refusal(step, error_number);
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

/// Sets attributes of the mount at `path` and, unless `depth` is 0, of all that is mounted beneath it.
void set_attributes(const fs::path &path, uint64_t attributes, unsigned depth = AT_RECURSIVE) {
    mount_attr change = {};
    change.attr_set = attributes;
    if (mount_setattr(AT_FDCWD, path.c_str(), depth, &change, sizeof change) != 0)
        fail("protect " + path.string(), errno);
}

void mount_tmpfs(const fs::path &target, const char *options = "mode=0755") {
    if (mount("cardsim", target.c_str(), "tmpfs", MS_NOSUID, options) != 0) {
        fail("mount a tmpfs on " + target.string(), errno);
    }
}

/// Opens what a path of the layout led to, below the host's root. Throws when something else is there by now.
Descriptor open_source(const Root &root, const fs::path &path, int flags) {
    const SandboxSource &source = root.sources.at(path);
    Descriptor file(open((old_root / source.path.relative_path()).c_str(), flags | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open()) fail("open " + source.path.string(), errno);
    struct stat found = {};
    if (fstat(file.get(), &found) == 0 && found.st_dev == source.device && found.st_ino == source.inode) return file;
    throw Error(source.path.string() + ": was replaced", ESTALE);
}

/// Shows a directory of the host at `target`, without the devices and the set-user-ID bits that may lie in it.
void bind_source(const Root &root, const fs::path &path, const fs::path &target) {
    const Descriptor source = open_source(root, path, O_PATH);
    must_bind(source.name(), target);
    set_attributes(target, MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID);
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

bool is_system_directory(const fs::path &name) {
    constexpr std::array names = {"usr", "etc", "bin", "sbin", "lib", "lib32", "lib64", "libx32", "boot", "opt", "sys"};
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// Shows an entry of the host's root again. One that cannot be bound stays empty, as in mirror_entry. The attributes
/// are set before anything is bound from here to somewhere else: what is mirrored later has them too.
void mirror_top_entry(const fs::path &original, const fs::path &name) {
    const fs::path target = "/" / name;
    if (fs::is_directory(original)) {
        make_directory(target);
    } else {
        make_file(target);
    }
    const uint64_t read_only = is_system_directory(name) ? MOUNT_ATTR_RDONLY : 0;
    if (bind(original, target)) set_attributes(target, read_only | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID);
}

/// The host's services are reached by sockets in /run, if not by the network.
void mirror_top_level(bool host_network) {
    std::set<fs::path> own = {"dev", "proc", hidden.filename(), old_root.filename()};
    if (!host_network) own.insert("run");
    for (const fs::directory_entry &entry : fs::directory_iterator(old_root)) {
        const fs::path name = entry.path().filename();
        if (own.contains(name)) continue;
        if (entry.is_symlink()) {
            make_link(fs::read_symlink(entry.path()), "/" / name);
        } else if (entry.is_directory() || entry.is_regular_file()) {
            mirror_top_entry(entry.path(), name);
        }
    }
    if (host_network) return;
    make_directory("/run");
    mount_tmpfs("/run");
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

/// Terminals of the sandbox's own, and the caller's, which programs find by its number.
void make_terminals(const fs::path &callers) {
    make_directory("/dev/pts");
    mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620");
    make_link("pts/ptmx", "/dev/ptmx");
    if (callers.empty()) return;
    make_file("/dev/console");
    bind(old_root / callers.relative_path(), "/dev/console");
}

void make_devices(const fs::path &terminal) {
    make_directory("/dev");
    mount_tmpfs("/dev");
    for (const char *name : {"null", "zero", "full", "random", "urandom"}) make_device(name, true);
    make_device("tty", false);
    make_link("/proc/self/fd", "/dev/fd");
    make_link("/proc/self/fd/0", "/dev/stdin");
    make_link("/proc/self/fd/1", "/dev/stdout");
    make_link("/proc/self/fd/2", "/dev/stderr");
    make_directory("/dev/shm");
    if (chmod("/dev/shm", 01777) != 0) fail("chmod /dev/shm", errno);
    make_terminals(terminal);
    // Only a look at the queues: the calls work without it.
    make_directory("/dev/mqueue");
    mount("mqueue", "/dev/mqueue", "mqueue", MS_NOSUID, nullptr);
}

void make_read_only(const fs::path &path) {
    must_bind(path, path);
    set_attributes(path, MOUNT_ATTR_RDONLY, 0);
}

/// True for what stands in /proc for the whole host, and is more than a text to read.
bool is_host_control(const fs::directory_entry &entry) {
    const std::string name = entry.path().filename();
    if (entry.is_symlink() ||
        std::all_of(name.begin(), name.end(), [](unsigned char byte) { return std::isdigit(byte); }))
        return false;
    constexpr fs::perms write = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
    return entry.is_directory() || (entry.status().permissions() & write) != fs::perms::none;
}

/// To the files of /proc root is root of the host, whatever its namespaces; what is not of a process becomes read-only.
///
/// The limits of message queues stay writable, as they are of the namespace. Each process finds there those of its own
/// namespace, but only through the directory above, in which therefore the others are made read-only one by one.
void protect_proc() {
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
        if (is_host_control(entry)) make_read_only(entry.path());
    }
    must_bind(file_system_controls, file_system_controls);
    mount_attr writable = {};
    writable.attr_clr = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, file_system_controls.c_str(), 0, &writable, sizeof writable) != 0) {
        fail("make " + file_system_controls.string() + " writable", errno);
    }
    for (const fs::directory_entry &entry : fs::directory_iterator(file_system_controls)) {
        if (entry.path().filename() != "mqueue" && is_host_control(entry)) make_read_only(entry.path());
    }
}

/// A cgroup namespace would let root mount the host's control groups once more, writable.
void forbid_cgroup_namespaces() {
    std::ofstream limit(system_controls / "user/max_cgroup_namespaces");
    limit << 0;
    limit.close();
    if (!limit) fail("forbid cgroup namespaces", errno);
}

void make_proc() {
    make_directory("/proc");
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0) {
        forbid_cgroup_namespaces();
        protect_proc();
        return;
    }
    // Refused inside another sandbox or a container, which protect parts of their own /proc; that one still tells a
    // process about itself.
    if (errno != EPERM) fail("mount /proc", errno);
    must_bind(old_root / "proc", "/proc");
}

/// A network of its own has nothing but the interface by which programs talk to each other.
void raise_loopback() {
    const Descriptor any_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    // Refused by a kernel without IPv4, where there is nobody to talk to.
    if (any_socket.is_open() && ioctl(any_socket.get(), SIOCSIFFLAGS, &request) != 0) fail("raise lo", errno);
}

void raise_message_limit() {
    const char *const limit = "/proc/sys/fs/mqueue/msg_max";
    const std::string text = std::to_string(sandbox_message_limit);
    const Descriptor file(open(limit, O_WRONLY | O_CLOEXEC));
    if (file.is_open() && write(file.get(), text.c_str(), text.size()) == static_cast<ssize_t>(text.size())) return;
    const Error reason = system_error(std::string("raise ") + limit, errno);
    throw Error(std::string(reason.what()) + " (on this kernel root alone may raise it; run this as root)",
                reason.code);
}

/// The entries of the card's directory of boot commands in /usr/sbin, before those of the host.
void add_boot_commands(Root &root, const SandboxLayout &layout) {
    if (layout.boot_commands.empty()) return;
    make_directory(hidden_boot_commands);
    bind_source(root, layout.boot_commands, hidden_boot_commands);
    std::set<fs::path> names;
    for (const fs::directory_entry &entry : fs::directory_iterator(hidden_boot_commands)) {
        names.insert(entry.path().filename());
    }
    const fs::path directory = ensure_directory(root, "/usr/sbin");
    if (!root.own.contains(directory)) mirror_directory(root, directory, names);
    for (const fs::path &name : names) make_link(hidden_boot_commands / name, directory / name);
}

/// What was laid over the host's directories is as little to be written as they are.
void protect_system_directories() {
    for (const fs::directory_entry &entry : fs::directory_iterator("/")) {
        const bool is_protected = is_system_directory(entry.path().filename()) && !entry.is_symlink();
        if (is_protected) set_attributes(entry.path(), MOUNT_ATTR_RDONLY);
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
void show_directory(const Root &root, const fs::path &source, const fs::path &directory) {
    if (!source.empty()) {
        bind_source(root, source, directory);
    } else if (directory != flash_mount_point) {
        mount_tmpfs(directory);
    }
}

void copy_bootstrap_file(const Root &root, const fs::path &path) {
    if (path.empty()) return;
    make_file("/dev/kd_bootstrap", read_text(open_source(root, path, O_RDONLY), path));
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

Error sandbox_refusal(const std::string &step, int error_number) {
    const Error reason = system_error(step, error_number);
    if (error_number != EPERM && error_number != EACCES && error_number != ENOSPC) return reason;
    return Error(
        std::string(reason.what()) +
            " (allow user namespaces: sysctl kernel.unprivileged_userns_clone=1, user.max_user_namespaces above 1, "
            "kernel.apparmor_restrict_unprivileged_userns=0 where AppArmor restricts them; in a container, its "
            "seccomp profile must allow them and mount)",
        error_number);
}

SandboxRoot sandbox_root_plan(const SandboxLayout &layout) {
    SandboxRoot root = {layout, {}, {}};
    if (const char *const terminal = ttyname(STDIN_FILENO)) root.terminal = terminal;
    std::vector<fs::path> paths = {layout.packaged_firmware, layout.log,   layout.scratch,
                                   layout.local_etc,         layout.flash, layout.boot_commands,
                                   layout.bootstrap_file};
    for (const SandboxBind &entry : layout.extra) paths.push_back(entry.source);
    for (const fs::path &path : paths) {
        if (path.empty()) continue;
        std::error_code error;
        const fs::path canonical = fs::canonical(path, error);
        struct stat found = {};
        if (!error && stat(path.c_str(), &found) != 0) error.assign(errno, std::generic_category());
        if (error) throw Error(path.string() + ": " + error.message(), error.value());
        root.sources[path] = {canonical, found.st_dev, found.st_ino};
    }
    return root;
}

void sandbox_root_enter(const SandboxRoot &plan) {
    std::error_code no_working_directory;
    const fs::path working_directory = fs::current_path(no_working_directory);
    const SandboxLayout &layout = plan.layout;
    switch_to_new_root();
    Root root = {plan.sources, {"/"}, free_originals_name()};
    mirror_top_level(layout.host_network);
    make_proc();
    make_devices(plan.terminal);
    make_directory(hidden);
    root.own.insert(hidden);
    std::vector<SandboxBind> binds = card_directories(layout);
    for (SandboxBind &entry : binds) entry.target = prepare_directory(root, entry.target);
    add_boot_commands(root, layout);
    protect_system_directories();
    for (const SandboxBind &entry : binds) show_directory(root, entry.source, entry.target);
    copy_bootstrap_file(root, layout.bootstrap_file);
    raise_message_limit();
    if (!layout.host_network) raise_loopback();
    leave_old_root();
    if (no_working_directory || chdir(working_directory.c_str()) != 0) {
        if (chdir("/") != 0) fail("chdir /", errno);
    }
}

}  // namespace cardsim
