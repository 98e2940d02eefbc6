/// Reading and writing open files whole.
#ifndef CARDSIM_FILE_TEXT_H
#define CARDSIM_FILE_TEXT_H

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "error.h"

namespace cardsim {

/// Opens a file to read it. Throws Error with the errno number and "PATH: cannot be read: ...".
Descriptor open_to_read(const std::filesystem::path &path, int more_flags = 0);

/// Reads an open file, which is `path` in reasons, to its end, a piece after the other. Throws Error as open_to_read,
/// and whatever `take` throws. A cancellation point unless cancellation is disabled.
void read_pieces(const Descriptor &file, const std::filesystem::path &path,
                 const std::function<void(std::string_view)> &take);

/// The rest of an open file of at most `most` bytes. Throws Error as read_pieces, with code 0 for one that is larger.
std::string read_text(const Descriptor &file, const std::filesystem::path &path, std::size_t most = SIZE_MAX);

/// Writes it all to an open file, which is `path` in reasons. Throws Error.
void write_all(const Descriptor &file, const std::filesystem::path &path, std::string_view text);

}  // namespace cardsim

#endif
