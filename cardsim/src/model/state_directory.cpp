#include "state_directory.h"

#include <fcntl.h>
#include <fts.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

#include "file_text.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

constexpr const char *no_plain_file = "neither a plain file nor a directory";

[[noreturn]] void fail(const fs::path &path, int error_number) {
    switch (error_number) {
        case ELOOP:
            throw Error(path.string() + ": a symbolic link, which a card's state must not have");
        case ENXIO:
        case EOPNOTSUPP:
            throw Error(path.string() + ": " + no_plain_file);
        case ENOTDIR:
        case EISDIR:
        case EEXIST:
            throw Error(system_error(path.string(), error_number).what());
        default:
            throw system_error(path.string(), error_number);
    }
}

/// A file that is not open: errno tells why.
Descriptor open_without_links(int directory, const fs::path &path, int flags, uint64_t resolve) {
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
    how.mode = (flags & O_CREAT) != 0 ? 0644 : 0;
    how.resolve = resolve | RESOLVE_NO_SYMLINKS;
    const std::string name = path.empty() ? "." : path.string();
    int file = -1;
    // EAGAIN: somebody renamed something on the way.
    do {
        file = static_cast<int>(syscall(SYS_openat2, directory, name.c_str(), &how, sizeof how));
    } while (file < 0 && (errno == EINTR || errno == EAGAIN));
    return Descriptor(file);
}

/// The unfinished file that becomes this one.
fs::path unfinished(const fs::path &name) {
    return "." + name.filename().string() + ".new";
}

bool is_unfinished(const std::string &name) {
    return name.starts_with('.') && name.ends_with(".new");
}

}  // namespace

StateDirectory::StateDirectory(const fs::path &path)
    : path_(path), directory_(open_without_links(AT_FDCWD, path, O_RDONLY | O_DIRECTORY, 0)) {
    struct stat found = {};
    if (!directory_.is_open() || fstat(directory_.get(), &found) != 0) fail(path, errno);
    own_ = found.st_uid == geteuid() && (found.st_mode & S_IWOTH) == 0;
}

/// Why this must not be in a card's state; null: it may.
const char *StateDirectory::surprise(const struct stat &status) const {
    if (S_ISLNK(status.st_mode)) return "a symbolic link, which a card's state must not have";
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return no_plain_file;
    if (!own_ && S_ISREG(status.st_mode) && status.st_nlink > 1) return "has another name elsewhere (a hard link)";
    return nullptr;
}

Descriptor StateDirectory::try_open(const fs::path &name, int flags) const {
    return open_without_links(directory_.get(), name, flags, RESOLVE_BENEATH);
}

std::optional<struct stat> StateDirectory::status(const fs::path &name) const {
    const Descriptor file = try_open(name, O_PATH | O_NOFOLLOW);
    if (!file.is_open() && errno == ENOENT) return std::nullopt;
    struct stat found = {};
    if (!file.is_open() || fstat(file.get(), &found) != 0) fail(path_ / name, errno);
    if (const char *const reason = surprise(found)) throw Error((path_ / name).string() + ": " + reason);
    return found;
}

std::uintmax_t StateDirectory::size(const fs::path &name) const {
    const std::optional<struct stat> found = status(name);
    return found ? static_cast<std::uintmax_t>(found->st_size) : 0;
}

Descriptor StateDirectory::open(const fs::path &name, int flags) const {
    Descriptor file = try_open(name, flags | O_NONBLOCK | O_NOCTTY);
    struct stat found = {};
    if (!file.is_open() || fstat(file.get(), &found) != 0) fail(path_ / name, errno);
    if (const char *const reason = surprise(found)) throw Error((path_ / name).string() + ": " + reason);
    if (S_ISDIR(found.st_mode) && (flags & O_DIRECTORY) == 0) fail(path_ / name, EISDIR);
    return file;
}

std::string StateDirectory::line(const fs::path &name, std::uintmax_t position) const {
    if (!has(name)) return {};
    const Descriptor file = open(name, O_RDONLY);
    std::array<char, 4096> text = {};
    const ssize_t length = pread(file.get(), text.data(), text.size(), static_cast<off_t>(position));
    if (length < 0) fail(path_ / name, errno);
    const std::string_view read(text.data(), static_cast<std::size_t>(length));
    return std::string(read.substr(0, read.find('\n')));
}

void StateDirectory::append(const fs::path &name, const std::string &text) const {
    write_all(open(name, O_WRONLY | O_APPEND | O_CREAT), path_ / name, text);
}

void StateDirectory::remove(const fs::path &name) const {
    const Descriptor parent = open(name.parent_path(), O_RDONLY | O_DIRECTORY);
    if (unlinkat(parent.get(), name.filename().c_str(), 0) != 0 && errno != ENOENT) fail(path_ / name, errno);
}

void StateDirectory::make_directory(const fs::path &name) const {
    if (mkdirat(directory_.get(), name.c_str(), 0755) != 0 && errno != EEXIST) fail(path_ / name, errno);
    const std::optional<struct stat> made = status(name);
    if (made && !S_ISDIR(made->st_mode)) fail(path_ / name, ENOTDIR);
}

void StateDirectory::replace(const fs::path &name, mode_t mode,
                             const std::function<void(const Descriptor &)> &fill) const {
    const Descriptor parent = open(name.parent_path(), O_RDONLY | O_DIRECTORY);
    const fs::path fresh = unfinished(name);
    remove(name.parent_path() / fresh);
    Descriptor file(openat(parent.get(), fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.is_open()) fail(path_ / name.parent_path() / fresh, errno);
    try {
        fill(file);
        if (fchmod(file.get(), mode) != 0 || !file.reset()) fail(path_ / name, errno);
        if (renameat(parent.get(), fresh.c_str(), parent.get(), name.filename().c_str()) != 0)
            fail(path_ / name, errno);
    } catch (...) {
        unlinkat(parent.get(), fresh.c_str(), 0);
        throw;
    }
}

void StateDirectory::remove_leftovers() const {
    for (const fs::path directory : {"", "pkg", "etc", "bin"}) {
        if (!has(directory)) continue;
        for (const fs::directory_entry &entry : fs::directory_iterator(path_ / directory)) {
            const fs::path name = directory / entry.path().filename();
            if (is_unfinished(name.filename()) && has(name)) remove(name);
        }
    }
}

void StateDirectory::check() const {
    std::string root = path_.string();
    std::array<char *, 2> roots = {root.data(), nullptr};
    const std::unique_ptr<FTS, int (*)(FTS *)> walk(fts_open(roots.data(), FTS_PHYSICAL | FTS_NOCHDIR, nullptr),
                                                    fts_close);
    if (walk == nullptr) fail(path_, errno);
    while (const FTSENT *const entry = fts_read(walk.get())) {
        const bool is_unreadable = entry->fts_info == FTS_NS || entry->fts_info == FTS_DNR;
        // What is gone by now was of another command on the card.
        if (is_unreadable && entry->fts_errno == ENOENT) continue;
        if (is_unreadable) fail(entry->fts_path, entry->fts_errno);
        if (const char *const reason = surprise(*entry->fts_statp)) {
            throw Error(std::string(entry->fts_path) + ": " + reason);
        }
    }
}

StateLock::StateLock(const StateDirectory &state) : directory_(state.open(".", O_RDONLY | O_DIRECTORY)) {
    while (flock(directory_.get(), LOCK_EX) != 0) {
        if (errno != EINTR) fail(state.path(), errno);
    }
}

}  // namespace cardsim
