/// Files of a test's own.
#ifndef CARDSIM_TEST_FILES_H
#define CARDSIM_TEST_FILES_H

#include <filesystem>
#include <string>
#include <vector>

namespace cardsim {

/// A directory that everybody may enter, and that goes with everything in it.
struct TestDirectory {
    std::filesystem::path path;

    TestDirectory();
    ~TestDirectory();
    TestDirectory(const TestDirectory &) = delete;
    TestDirectory &operator=(const TestDirectory &) = delete;
};

void write_file(const std::filesystem::path &file, const std::string &content);
/// The content of a file; empty when there is none.
std::string read_file(const std::filesystem::path &file);
std::vector<std::string> lines_of(const std::string &text);
/// The names in a directory, sorted.
std::vector<std::string> names_in(const std::filesystem::path &directory);

}  // namespace cardsim

#endif
