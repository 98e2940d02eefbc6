#include "card_place.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string>

#include "file_text.h"
#include "images.h"
#include "scripts.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

[[noreturn]] void refuse_second_use(const fs::path &state) {
    throw Error(state.string() + ": the card is in use by another cardsim");
}

/// Replaces a file whole, and only when it differs.
void update_file(const StateDirectory &state, const fs::path &name, const std::string &text, mode_t mode) {
    const fs::path path = state.path() / name;
    if (state.has(name) && read_text(state.open(name, O_RDONLY), path) == text) return;
    state.replace(name, mode, [&](const Descriptor &file) { write_all(file, path, text); });
}

bool is_newer(const timespec &one, const timespec &other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec > other.tv_sec : one.tv_nsec > other.tv_nsec;
}

bool image_is_current(const fs::path &source, const std::optional<struct stat> &image, uint64_t size) {
    if (!image || !S_ISREG(image->st_mode)) return false;
    struct stat own = {};
    if (stat(source.c_str(), &own) != 0) return static_cast<uint64_t>(image->st_size) == size;
    return image->st_size == own.st_size && !is_newer(own.st_mtim, image->st_mtim);
}

void update_image(const StateDirectory &state, const fs::path &source, const fs::path &image, uint64_t size) {
    if (image_is_current(source, state.status(image), size)) return;
    state.replace(image, 0644, [&](const Descriptor &file) {
        if (fs::exists(source)) {
            fs::copy_file(source, file.name(), fs::copy_options::overwrite_existing);
        } else {
            write_image(file, state.path() / image, image.filename().string(), size);
        }
    });
}

void update_images(const CardPlace &place, const StateDirectory &state) {
    for (const FpdDescription &fpd : place.description.fpds) {
        for (const RegionDescription &region : fpd.regions) {
            for (const ImageDescription &image : region.images) {
                update_image(state, place.images / image.file, fs::path(package_directory) / image.file, image.size);
            }
        }
    }
}

/// A directory that becomes the card's state, or disappears again. It has a fixed name, so that one whose maker was
/// killed is found by the next.
class StateInTheMaking {
  public:
    explicit StateInTheMaking(const fs::path &state)
        : state_(state), path_(state.parent_path() / ("." + state.filename().string() + ".new")) {
        if (mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) throw system_error(path_.string(), errno);
        directory_.emplace(path_);
        lock_ = directory_->open(".", O_RDONLY | O_DIRECTORY);
        if (directory_->status(".")->st_uid != geteuid()) throw Error(path_.string() + ": belongs to somebody else");
        if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0 || !is_still_there()) refuse_second_use(state);
        for (const fs::directory_entry &entry : fs::directory_iterator(path_)) fs::remove_all(entry.path());
    }
    StateInTheMaking(const StateInTheMaking &) = delete;
    StateInTheMaking &operator=(const StateInTheMaking &) = delete;
    ~StateInTheMaking() {
        std::error_code ignored;
        if (!kept_) fs::remove_all(path_, ignored);
    }
    const StateDirectory &directory() const { return *directory_; }
    void keep() {
        if (fchmod(lock_.get(), 0755) != 0) throw system_error(path_.string(), errno);
        fs::rename(path_, state_);
        kept_ = true;
    }

  private:
    fs::path state_;
    fs::path path_;
    std::optional<StateDirectory> directory_;
    Descriptor lock_;
    bool kept_ = false;

    /// Not renamed or removed by the one that had the lock before.
    bool is_still_there() const {
        struct stat locked = {};
        struct stat named = {};
        return fstat(lock_.get(), &locked) == 0 && lstat(path_.c_str(), &named) == 0 && locked.st_ino == named.st_ino &&
               locked.st_dev == named.st_dev;
    }
};

/// A directory of somebody else's files must not become a card's.
void check_state_directory(const fs::path &state) {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(state, error);
    if (!fs::exists(status)) return;
    if (fs::is_symlink(status)) throw Error(state.string() + ": a symbolic link; name the directory by --state");
    if (!fs::is_directory(status)) throw Error(state.string() + ": not a directory");
    if (!fs::is_empty(state) && !fs::exists(fs::symlink_status(state / state_file))) {
        throw Error(state.string() + ": holds other files and no card's state");
    }
}

/// What packages bring stays as it is; their removal would leave the state behind.
bool is_installed(const fs::path &path) {
    return path.string().starts_with("/usr/") && !path.string().starts_with("/usr/local/");
}

}  // namespace

CardPlace find_card(const fs::path &card, const fs::path &state) {
    const fs::path given = fs::is_directory(card) ? card / "card.toml" : card;
    CardPlace place;
    place.description = load_card_description(given);
    place.file = fs::canonical(given);
    place.images = place.file.parent_path() / "images";
    place.state = state.empty() ? place.file.parent_path() / "state" : fs::weakly_canonical(fs::absolute(state));
    check_state_directory(place.state);
    // The state of another card is refused before anything is changed in it.
    if (has_state(place)) load_state(StateDirectory(place.state), place.description);
    return place;
}

bool has_state(const CardPlace &place) {
    return fs::exists(fs::symlink_status(place.state / state_file));
}

void make_state(const CardPlace &place, uint32_t speed) {
    if (has_state(place)) return;
    if (is_installed(place.state)) {
        throw Error(place.state.string() + ": among what is installed; name another directory by --state");
    }
    fs::create_directories(place.state.parent_path());
    StateInTheMaking making(place.state);
    update_state(place, making.directory(), speed);
    save_state(making.directory(), initial_state(place.description));
    making.keep();
}

void update_state(const CardPlace &place, const StateDirectory &state, uint32_t speed) {
    for (const char *name : {package_directory, "log", "scratch", "flash", "etc", "bin"}) state.make_directory(name);
    update_file(state, "kd_bootstrap", bootstrap_text(place.description), 0644);
    for (const Script &script : card_scripts(place.description, speed)) {
        update_file(state, script.path, script.text, 0755);
    }
    update_images(place, state);
}

CardInUse::CardInUse(const StateDirectory &state, For what) : file_(state.open("power", O_RDWR | O_CREAT)) {
    // One at a time: a command that looks whether it is alone must not be in the way of another one.
    const StateLock lock(state);
    if (flock(file_.get(), LOCK_EX | LOCK_NB) == 0) state.remove_leftovers();
    const int use = what == For::Boot ? LOCK_EX : LOCK_SH;
    if (flock(file_.get(), use | LOCK_NB) != 0) refuse_second_use(state.path());
    state.check();
}

uint32_t CardInUse::last_boot() const {
    std::array<char, 16> text = {};
    const ssize_t length = pread(file_.get(), text.data(), text.size(), 0);
    uint32_t boot = 0;
    if (length > 0) std::from_chars(text.data(), text.data() + length, boot);
    return boot;
}

void CardInUse::set_last_boot(uint32_t boot) const {
    const std::string text = std::to_string(boot) + "\n";
    if (pwrite(file_.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        throw system_error("record the boot", errno);
    }
}

}  // namespace cardsim
