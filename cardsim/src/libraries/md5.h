/// MD5 sums of files.
#ifndef CARDSIM_MD5_H
#define CARDSIM_MD5_H

#include <filesystem>
#include <string>

namespace cardsim {

/// The sum of a file's bytes as lower-case hex text in `sum`. Returns 0; else a positive errno number, a one-line
/// reason in `error` and `sum` left as it was. Must not be cancelled.
int md5_of_file(const std::filesystem::path &file, std::string &sum, std::string &error);

}  // namespace cardsim

#endif
