/// MD5 sums of files.
#ifndef CARDSIM_MD5_H
#define CARDSIM_MD5_H

#include <filesystem>
#include <string>

namespace cardsim {

/// The sum of a file's bytes as lower-case hex text. Throws Error with the errno number. Must not be cancelled.
std::string md5_of_file(const std::filesystem::path &file);

}  // namespace cardsim

#endif
