/// A card's state directory, which may have been made by a stranger.
#ifndef CARDSIM_STATE_DIRECTORY_H
#define CARDSIM_STATE_DIRECTORY_H

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "descriptor.h"
#include "error.h"

namespace cardsim {

/// The directory by its descriptor. Everything in it is a plain file with one name, or a directory: no link is
/// followed, nothing outside is reached, nothing is waited for. Names are relative to it. Functions throw Error, with
/// code 0 when they meet something else. May be used by several threads.
class StateDirectory {
  public:
    /// `path` is absolute and has no symbolic link in it.
    explicit StateDirectory(const std::filesystem::path &path);
    StateDirectory(const StateDirectory &) = delete;
    StateDirectory &operator=(const StateDirectory &) = delete;

    const std::filesystem::path &path() const { return path_; }

    /// What stands there; empty: nothing.
    std::optional<struct stat> status(const std::filesystem::path &name) const;
    bool has(const std::filesystem::path &name) const { return status(name).has_value(); }
    /// 0 for a file that is not there.
    std::uintmax_t size(const std::filesystem::path &name) const;

    /// Opens a file, or with O_DIRECTORY a directory; O_CREAT makes the file for everybody to read.
    Descriptor open(const std::filesystem::path &name, int flags) const;
    /// The line that begins at `position` of a file; empty: there is none.
    std::string line(const std::filesystem::path &name, std::uintmax_t position) const;
    void append(const std::filesystem::path &name, const std::string &text) const;
    void remove(const std::filesystem::path &name) const;
    void make_directory(const std::filesystem::path &name) const;

    /// Replaces a file whole or not at all by what `fill` writes to the file that it gets. To be called under a
    /// StateLock, as the unfinished file has a fixed name.
    void replace(const std::filesystem::path &name, mode_t mode,
                 const std::function<void(const Descriptor &)> &fill) const;
    /// Removes the unfinished files of processes that were killed. To be called under a StateLock while nobody uses the
    /// card.
    void remove_leftovers() const;

    /// Throws Error naming what must not be in it.
    void check() const;

  private:
    std::filesystem::path path_;
    Descriptor directory_;
    bool own_ = false;  ///< nobody else may write in it

    Descriptor try_open(const std::filesystem::path &name, int flags) const;
    const char *surprise(const struct stat &status) const;
};

/// Keeps every other process that uses this state directory from changing the card's state until it is destroyed: to
/// be held from load_state to save_state. Waits for it. Throws Error.
class StateLock {
  public:
    explicit StateLock(const StateDirectory &state);

  private:
    Descriptor directory_;
};

}  // namespace cardsim

#endif
