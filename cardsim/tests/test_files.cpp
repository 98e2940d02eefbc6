#include "test_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace cardsim {

TestDirectory::TestDirectory() {
    std::string name = (fs::temp_directory_path() / "cardsim-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error(std::strerror(errno));
    path = fs::canonical(name);
    fs::permissions(path, fs::perms{0755});
}

TestDirectory::~TestDirectory() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

void write_file(const fs::path &file, const std::string &content) {
    std::ofstream(file, std::ios::binary) << content;
}

std::string read_file(const fs::path &file) {
    std::ifstream content(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(content), {}};
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> names_in(const fs::path &directory) {
    std::vector<std::string> names;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace cardsim
