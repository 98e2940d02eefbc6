/// Files of tests.
#ifndef TESTS_FILES_H
#define TESTS_FILES_H

#include <filesystem>
#include <string>
#include <vector>

namespace card_tests {

/// The whole content; empty when there is no such file.
std::string read_file(const std::filesystem::path &path);
void write_file(const std::filesystem::path &path, const std::string &text);
std::vector<std::string> lines_of(const std::string &text);
/// The names in a directory, sorted.
std::vector<std::string> names_in(const std::filesystem::path &directory);

/// A directory of its own, removed with the object.
class TemporaryDirectory {
  public:
    /// `name` begins the directory's name. Throws std::system_error when it cannot be made.
    explicit TemporaryDirectory(const std::string &name,
                                const std::filesystem::path &parent = std::filesystem::temp_directory_path());
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    const std::filesystem::path &path() const { return path_; }

  private:
    std::filesystem::path path_;
};

}  // namespace card_tests

#endif
