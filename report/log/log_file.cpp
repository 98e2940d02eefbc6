#include "log_file.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <tuple>

namespace fpd_log {
namespace {

constexpr std::size_t piece_size = 65536;

struct CloseGzip {
    void operator()(gzFile_s *file) const { gzclose_r(file); }
};
using Gzip = std::unique_ptr<gzFile_s, CloseGzip>;

int failed(int error, const std::string &path, const char *reason, std::string *text) {
    *text = path + ": " + reason;
    return -error;
}

/// A name of a rotated set, taken apart: "card7/fpd.log.2.gz" is number 2 of "card7/fpd.log".
struct RotatedName {
    std::string_view log;
    std::uint64_t number = 0;  // 0: the log itself
};

RotatedName rotated_name(std::string_view path) {
    if (path.ends_with(".gz")) path.remove_suffix(3);
    const std::size_t dot = path.rfind('.');
    if (dot == std::string_view::npos) return {path, 0};
    const char *const end = path.data() + path.size();
    std::uint64_t number = 0;
    const auto [rest, error] = std::from_chars(path.data() + dot + 1, end, number);
    // Other names end in numbers, too: 192.168.7.2 is a card of its own.
    if (error != std::errc() || rest != end || !path.substr(0, dot).ends_with(".log")) return {path, 0};
    return {path.substr(0, dot), number};
}

/// Standard input as it is: opened by its name a file would begin anew, and a socket cannot be opened at all.
int open_log(const std::string &path) {
    if (path == standard_input) return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    return open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

/// What zlib says of a stream, without the name that it made up for it: "<fd:3>: unexpected end of file".
const char *without_name(const char *reason) {
    const char *const end = std::strncmp(reason, "<fd:", 4) == 0 ? std::strstr(reason, ">: ") : nullptr;
    return end == nullptr ? reason : end + 3;
}

}  // namespace

int read_log_file(const std::string &path, const std::function<void(std::string_view)> &take, std::string *error) {
    const int fd = open_log(path);
    if (fd < 0) return failed(errno, path, std::strerror(errno), error);
    const Gzip file(gzdopen(fd, "rb"));
    if (!file) {
        close(fd);
        return failed(ENOMEM, path, std::strerror(ENOMEM), error);
    }
    gzbuffer(file.get(), piece_size);
    std::array<char, piece_size> piece;
    while (true) {
        errno = 0;
        const int count = gzread(file.get(), piece.data(), static_cast<unsigned>(piece.size()));
        if (count > 0) take({piece.data(), static_cast<std::size_t>(count)});
        if (count == static_cast<int>(piece.size())) continue;
        // Also when a part was readable: what is cut off is told by the state of the stream.
        int code = Z_OK;
        const char *const reason = gzerror(file.get(), &code);
        if (code == Z_ERRNO || (count < 0 && errno != 0))
            return failed(errno ? errno : EIO, path, std::strerror(errno), error);
        if (code != Z_OK && code != Z_STREAM_END) return failed(EIO, path, without_name(reason), error);
        if (count <= 0) return 0;
    }
}

void sort_rotated(std::vector<std::string> *paths) {
    std::sort(paths->begin(), paths->end(), [](const std::string &a, const std::string &b) {
        const RotatedName first = rotated_name(a);
        const RotatedName second = rotated_name(b);
        return std::tie(first.log, second.number, b) < std::tie(second.log, first.number, a);
    });
}

std::string log_of(std::string_view path) {
    return std::string(rotated_name(path).log);
}

}  // namespace fpd_log
