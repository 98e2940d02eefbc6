/// The target on inputs that are known already, once each: fuzz_marker FILE_OR_DIRECTORY...
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "target.h"

/// Ends the process with a report if there is memory that nobody knows any more; there in a build that looks for it.
extern "C" void __lsan_do_leak_check() __attribute__((weak));

namespace {

namespace fs = std::filesystem;

std::set<fs::path> named_files(int argc, char **argv) {
    std::set<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i]))
            files.insert(argv[i]);
        else
            files.insert(fs::directory_iterator(argv[i]), fs::directory_iterator());
    }
    return files;
}

int replay(const std::set<fs::path> &files) {
    for (const fs::path &path : files) {
        std::ifstream file(path, std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        if (!file) {
            std::perror(path.c_str());
            return 1;
        }
        // After a failure this is the last line, and tells which input it was.
        std::fprintf(stderr, "%s\n", path.c_str());
        run_input(input);
    }
    std::fprintf(stderr, "%zu inputs\n", files.size());
    if (__lsan_do_leak_check) __lsan_do_leak_check();
    return files.empty() ? 1 : 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::set<fs::path> files = named_files(argc, argv);
    return run_in_sandbox([&files] { return replay(files); });
}
