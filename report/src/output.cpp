#include "output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace fpd_report {
namespace {

bool is_special(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

/// Hidden: whoever looks for files in the directory meanwhile, as this program does, passes it over.
std::string temporary_name(const std::string &path) {
    const std::size_t name = path.rfind('/') + 1;  // npos + 1 is 0
    return path.substr(0, name) + "." + path.substr(name) + ".XXXXXX";
}

/// What a new file may be read by, as the umask has it; mkstemp gives the owner alone.
void allow_reading(int descriptor) {
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(descriptor, 0666 & ~mask);
}

}  // namespace

Output::Output() = default;

Output::Output(const std::string &path) : path_(path) {
    int descriptor = -1;
    if (is_special(path)) {
        descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    } else {
        temporary_ = temporary_name(path);
        descriptor = mkostemp(temporary_.data(), O_CLOEXEC);
        if (descriptor < 0) temporary_.clear();
    }
    if (descriptor >= 0) {
        if (!temporary_.empty()) allow_reading(descriptor);
        file_.reset(fdopen(descriptor, "w"));
    }
    if (file_ == nullptr) {
        note_error();
        if (descriptor >= 0) close(descriptor);
    }
}

Output::~Output() {
    if (!temporary_.empty()) unlink(temporary_.c_str());
}

void Output::note_error() {
    if (error_ == 0) error_ = errno != 0 ? errno : EIO;
}

void Output::write(std::string_view text) {
    if (error_ != 0 || text.empty()) return;
    std::FILE *const file = path_.empty() ? stdout : file_.get();
    if (std::fwrite(text.data(), 1, text.size(), file) != text.size()) note_error();
}

std::string Output::finish() {
    std::FILE *const file = path_.empty() ? stdout : file_.get();
    if (error_ == 0 && std::fflush(file) != 0) note_error();
    if (error_ == 0 && !temporary_.empty()) {
        if (std::fclose(file_.release()) != 0 || std::rename(temporary_.c_str(), path_.c_str()) != 0) {
            note_error();
        } else {
            temporary_.clear();
        }
    }
    if (error_ == 0) return {};
    return (path_.empty() ? std::string("standard output") : path_) + ": " + std::generic_category().message(error_);
}

}  // namespace fpd_report
