#include "file_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace cardsim {

Descriptor open_to_read(const std::filesystem::path &path, int more_flags) {
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | more_flags));
    if (!file.is_open()) throw system_error(path.string() + ": cannot be read", errno);
    return file;
}

void read_pieces(const Descriptor &file, const std::filesystem::path &path,
                 const std::function<void(std::string_view)> &take) {
    std::vector<char> piece(std::size_t{1} << 16);
    while (true) {
        const ssize_t count = read(file.get(), piece.data(), piece.size());
        if (count == 0) return;
        if (count > 0) {
            take({piece.data(), static_cast<std::size_t>(count)});
        } else if (errno != EINTR) {
            throw system_error(path.string() + ": cannot be read", errno);
        }
    }
}

std::string read_text(const Descriptor &file, const std::filesystem::path &path, std::size_t most) {
    std::string text;
    read_pieces(file, path, [&](std::string_view piece) {
        text += piece;
        if (text.size() > most) throw Error(path.string() + ": larger than " + std::to_string(most) + " bytes");
    });
    return text;
}

void write_all(const Descriptor &file, const std::filesystem::path &path, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR) throw system_error(path.string() + ": cannot be written", errno);
        text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

}  // namespace cardsim
