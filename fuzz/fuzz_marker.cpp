/// The upgrade marker: its text, its comparison with any file, and what a loss of power leaves while it is written.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <vector>

#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "target.h"

namespace {

constexpr const char *marker_path = "/misc/scratch/bootup_fpd_marker.txt";
constexpr std::size_t most_entries = 6;

std::string c_string(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

// The marker as it has to be --------------------------------------------------------------------------------------

/// The marker of a plan: its entries, and what of them is in the text.
struct Model {
    /// Adds an entry; the result that the addition has to have.
    int add(const std::string &name, const std::string &version);
    /// The text that is compared and written.
    std::string text() const { return all.substr(0, capacity ? capacity - 1 : 0); }
    bool whole() const { return all.size() < capacity; }

    std::string all;                // of all entries, whether they fitted or not
    std::size_t capacity = 0;       // bytes, the NUL among them
    std::vector<std::size_t> ends;  // of each entry in the text
};

int Model::add(const std::string &name, const std::string &version) {
    if (capacity == 0)
        capacity = 96;
    else if (whole() && capacity - all.size() < 49)
        capacity += 48;
    std::string line = "FPD: " + name;
    line.resize(std::max<std::size_t>(line.size(), 21), ' ');
    line += " | Version: " + version;
    line.resize(std::max(line.size(), line.size() - version.size() + 12), ' ');
    all += line + "\n";
    ends.push_back(all.size());
    return whole() ? 0 : -ENOBUFS;
}

/// Adds it to the tool's marker as well.
void add_entry(Model &model, std::string_view name, std::string_view version) {
    Fpd fpd{};
    name.copy(fpd.info.name, sizeof fpd.info.name - 1);
    version.copy(fpd.packaged_text, sizeof fpd.packaged_text - 1);
    const int want = model.add(fpd.info.name, fpd.packaged_text);
    ErrorBuffer error(128);
    require_equal(upg_marker_add_fpd(fpd, error.bytes.get(), error.size), want, "the result of an addition");
    const std::string complaint = std::string("Out of buffer to add FPD info for ") + fpd.info.name;
    require_equal(error.text(), want == 0 ? "" : complaint, "the text of an addition");
    require_equal(upg_marker().text, model.text(), "the marker's text");
}

// Losses of power -------------------------------------------------------------------------------------------------

/// While the marker is written.
struct Watch {
    bool on = false;
    std::string text;                     // that is being written
    std::vector<std::size_t> ends;        // of its entries
    std::map<ino_t, std::string> synced;  // contents that last, by their file
    std::string before;                   // the content of the file that was there, which may come back whole
};
Watch watch;

/// Whether the first bytes of what is there now, with what lasted of the file before after them, can be this text up
/// to a NUL: any number of bytes may have reached the storage.
bool can_be(std::string_view text, std::string_view now, std::string_view lasted) {
    if (c_string(now) == text) return true;
    for (std::size_t written = 0; written <= text.size(); ++written) {
        const std::string_view rest = lasted.substr(std::min(written, lasted.size()));
        if (rest.substr(0, rest.find('\0')) == text.substr(written)) return true;
        if (written == now.size() || written == text.size() || now[written] != text[written]) break;
    }
    return false;
}

/// No content that a loss of power could leave now is the marker of fewer FPDs, unless that was there all the time.
void power_may_fail_now() {
    if (!watch.on) return;
    watch.on = false;
    struct stat status;
    std::string now;
    if (stat(marker_path, &status) == 0 && read_file(marker_path, now)) {
        const std::string &lasted = watch.synced[status.st_ino];
        for (const std::size_t end : watch.ends) {
            const std::string smaller = watch.text.substr(0, end);
            if (smaller == watch.text || smaller == watch.before) continue;
            require(!can_be(smaller, now, lasted), "a marker in the making reads as a smaller plan");
        }
    }
    watch.on = true;
}

void note_sync(int fd) {
    struct stat status;
    if (!watch.on || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return;
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    watch.on = false;
    require(read_file(path.c_str(), content), "a synced file that cannot be read");
    watch.on = true;
    watch.synced[status.st_ino] = content;
}

/// Calls the real function between two moments at which the power may fail.
template <class Function, class... Argument>
auto watched(Function real, Argument... argument) {
    power_may_fail_now();
    const auto result = real(argument...);
    const int error = errno;
    power_may_fail_now();
    errno = error;
    return result;
}

}  // namespace

extern "C" {

std::FILE *__real_fopen(const char *path, const char *mode);
std::FILE *__wrap_fopen(const char *path, const char *mode) {
    return watched(__real_fopen, path, mode);
}

std::size_t __real_fwrite(const void *bytes, std::size_t size, std::size_t count, std::FILE *file);
std::size_t __wrap_fwrite(const void *bytes, std::size_t size, std::size_t count, std::FILE *file) {
    return watched(__real_fwrite, bytes, size, count, file);
}

int __real_fflush(std::FILE *file);
int __wrap_fflush(std::FILE *file) {
    return watched(__real_fflush, file);
}

int __real_fclose(std::FILE *file);
int __wrap_fclose(std::FILE *file) {
    return watched(__real_fclose, file);
}

ssize_t __real_write(int fd, const void *bytes, std::size_t size);
ssize_t __wrap_write(int fd, const void *bytes, std::size_t size) {
    return watched(__real_write, fd, bytes, size);
}

ssize_t __real_pwrite(int fd, const void *bytes, std::size_t size, off_t offset);
ssize_t __wrap_pwrite(int fd, const void *bytes, std::size_t size, off_t offset) {
    return watched(__real_pwrite, fd, bytes, size, offset);
}

int __real_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size) {
    return watched(__real_ftruncate, fd, size);
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to) {
    return watched(__real_rename, from, to);
}

int __real_unlink(const char *path);
int __wrap_unlink(const char *path) {
    return watched(__real_unlink, path);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    const int result = watched(__real_fsync, fd);
    if (result == 0) note_sync(fd);
    return result;
}

int __real_fdatasync(int fd);
int __wrap_fdatasync(int fd) {
    const int result = watched(__real_fdatasync, fd);
    if (result == 0) note_sync(fd);
    return result;
}

}  // extern "C"

namespace {

// The checks ------------------------------------------------------------------------------------------------------

/// Whether the tool finds its plan in the file.
bool same_plan() {
    bool same = false;
    ErrorBuffer error(256);
    require_equal(upg_marker_check(&same, error.bytes.get(), error.size), 0, "the comparison's result");
    require_equal(error.text(), "", "the comparison's text");
    return same;
}

/// A file as the input has it: any, that of some of the plan's entries with a byte changed, or none.
std::string make_file(Input &input, const Model &model) {
    const unsigned kind = input.below(4);
    unlink(marker_path);
    if (kind == 0) return "";
    std::string content(kind == 1 ? input.text(255) : model.text());
    if (kind > 1) content.resize(content.size() - std::min<std::size_t>(input.byte(), content.size()));
    if (kind == 3 && !content.empty()) content[input.word() % content.size()] = static_cast<char>(input.byte());
    write_file(marker_path, content);
    return content;
}

void check_writing(const Model &model, const std::string &before) {
    watch = {.on = true, .text = model.text(), .ends = model.ends, .synced = {}, .before = c_string(before)};
    struct stat status;
    if (stat(marker_path, &status) == 0) watch.synced[status.st_ino] = before;
    ErrorBuffer error(256);
    const int rc = upg_marker_write(error.bytes.get(), error.size);
    watch.on = false;
    std::string content;
    const bool exists = read_file(marker_path, content);
    if (model.all.empty()) {
        require_equal(rc, 0, "writing no entries");
        require_equal(content, before, "the file after writing no entries");
    } else if (model.whole()) {
        require_equal(rc, 0, "the result of writing");
        require_equal(content, model.all, "the file");
    } else {
        require_equal(rc, -EIO, "the result of writing a marker that is not whole");
        require(!exists || content == before || c_string(content) != model.text(), "a part of a marker was written");
    }
    require_equal(error.text().substr(0, 36), rc == 0 ? "" : "Failed to write Upgrade marker data\n", "its text");
    require((upg_marker().text == nullptr) == (model.all.empty() || rc == 0), "the text in memory after writing");
}

}  // namespace

/// The number of entries, each a name and a version, and the file.
void run_input(std::string_view bytes) {
    Input input{bytes};
    upg_marker_release();
    Model model;
    for (std::size_t left = input.below(most_entries + 1); left > 0; --left) {
        const std::string_view name = input.text(63);
        add_entry(model, name, input.text(11));
    }
    const std::string file = make_file(input, model);
    require_equal(same_plan(), !file.empty() && c_string(file) == model.text(), "whether the file is that of the plan");
    check_writing(model, file);
    upg_marker_release();
}
