#include "card_place.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "images.h"
#include "scripts.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

[[noreturn]] void fail(const fs::path &path, int error_number) {
    throw std::runtime_error(path.string() + ": " + std::strerror(error_number));
}

std::string read_file(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Replaces a file whole, and only when it differs.
void update_file(const fs::path &path, const std::string &text, fs::perms permissions) {
    if (fs::is_regular_file(path) && read_file(path) == text) return;
    const fs::path fresh = path.parent_path() / ("." + path.filename().string() + ".new");
    std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) fail(fresh, errno);
    fs::permissions(fresh, permissions);
    fs::rename(fresh, path);
}

bool image_is_current(const fs::path &source, const fs::path &image, uint64_t size) {
    if (!fs::is_regular_file(image)) return false;
    if (!fs::exists(source)) return fs::file_size(image) == size;
    return fs::file_size(image) == fs::file_size(source) && fs::last_write_time(image) >= fs::last_write_time(source);
}

void update_image(const fs::path &source, const fs::path &image, uint64_t size) {
    if (image_is_current(source, image, size)) return;
    const fs::path fresh = image.parent_path() / ("." + image.filename().string() + ".new");
    if (fs::exists(source)) {
        fs::copy_file(source, fresh, fs::copy_options::overwrite_existing);
    } else {
        write_image(fresh, image.filename().string(), size);
    }
    fs::rename(fresh, image);
}

void update_images(const CardPlace &place, const fs::path &packages) {
    for (const FpdDescription &fpd : place.description.fpds) {
        for (const RegionDescription &region : fpd.regions) {
            for (const ImageDescription &image : region.images) {
                update_image(place.images / image.file, packages / image.file, image.size);
            }
        }
    }
}

/// Everything in a state directory that follows from the description.
void update_derived_files(const CardPlace &place, const fs::path &state, uint32_t speed) {
    for (const char *name : {"pkg", "log", "scratch", "flash", "etc", "bin"}) fs::create_directory(state / name);
    update_file(state / "kd_bootstrap", bootstrap_text(place.description), fs::perms{0644});
    for (const Script &script : card_scripts(place.description, speed)) {
        update_file(state / script.path, script.text, fs::perms{0755});
    }
    update_images(place, package_directory(state));
}

/// A directory that disappears again unless it is kept.
class DirectoryInTheMaking {
  public:
    explicit DirectoryInTheMaking(const fs::path &parent) {
        std::string name = (parent / ".cardsim-state-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) fail(parent, errno);
        path_ = name;
        fs::permissions(path_, fs::perms{0755});
    }
    DirectoryInTheMaking(const DirectoryInTheMaking &) = delete;
    DirectoryInTheMaking &operator=(const DirectoryInTheMaking &) = delete;
    ~DirectoryInTheMaking() {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    const fs::path &path() const { return path_; }
    void keep_as(const fs::path &name) {
        fs::rename(path_, name);
        path_.clear();
    }

  private:
    fs::path path_;
};

void make_state(const CardPlace &place, uint32_t speed) {
    fs::create_directories(place.state.parent_path());
    DirectoryInTheMaking making(place.state.parent_path());
    update_derived_files(place, making.path(), speed);
    std::string error;
    if (save_state(making.path(), initial_state(place.description), error) != 0) throw std::runtime_error(error);
    making.keep_as(place.state);
}

/// A directory of somebody else's files must not become a card's.
void check_state_directory(const fs::path &state) {
    std::error_code error;
    const fs::file_status status = fs::status(state, error);
    if (!fs::exists(status)) return;
    if (!fs::is_directory(status)) throw CardError(state.string() + ": not a directory");
    if (!fs::is_empty(state) && !fs::exists(state_file(state))) {
        throw CardError(state.string() + ": holds other files and no card's state");
    }
}

}  // namespace

CardPlace find_card(const fs::path &card, const fs::path &state) {
    const fs::path given = fs::is_directory(card) ? card / "card.toml" : card;
    CardPlace place;
    std::string error;
    if (load_card_description(given, place.description, error) != 0) throw CardError(error);
    place.file = fs::canonical(given);
    place.images = place.file.parent_path() / "images";
    place.state = fs::weakly_canonical(state.empty() ? place.file.parent_path() / "state" : fs::absolute(state));
    check_state_directory(place.state);
    return place;
}

bool has_state(const CardPlace &place) {
    return fs::exists(state_file(place.state));
}

void prepare_state(const CardPlace &place, uint32_t speed) {
    if (has_state(place)) {
        update_derived_files(place, place.state, speed);
    } else {
        make_state(place, speed);
    }
}

CardInUse::CardInUse(const CardPlace &place, For what)
    : file_(open((place.state / "power").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (file_ < 0) fail(place.state / "power", errno);
    if (flock(file_, (what == For::Boot ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0) return;
    close(file_);
    throw CardError(place.state.string() + ": the card is in use by another cardsim");
}

CardInUse::~CardInUse() {
    close(file_);
}

uint32_t CardInUse::last_boot() const {
    std::array<char, 16> text = {};
    const ssize_t length = pread(file_, text.data(), text.size(), 0);
    uint32_t boot = 0;
    if (length > 0) std::from_chars(text.data(), text.data() + length, boot);
    return boot;
}

void CardInUse::set_last_boot(uint32_t boot) const {
    const std::string text = std::to_string(boot) + "\n";
    if (pwrite(file_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error(std::string("record the boot: ") + std::strerror(errno));
    }
}

}  // namespace cardsim
