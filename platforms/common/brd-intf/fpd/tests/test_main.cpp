#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "sandbox.h"

/// Writes what was counted of the lines that ran; there in a build that counts.
extern "C" void __gcov_dump() __attribute__((weak));
/// Ends the process with a report if there is memory that nobody knows any more; there in a build that looks for it.
extern "C" void __lsan_do_leak_check() __attribute__((weak));

namespace {

namespace fs = std::filesystem;

/// The directories of the card that the tests run on; removed with the object.
struct CardDirectory {
    CardDirectory() {
        std::string pattern = fs::temp_directory_path() / "bootup_fpd_tests.XXXXXX";
        if (mkdtemp(pattern.data())) path = pattern;
    }
    ~CardDirectory() {
        std::error_code ignored;
        if (!path.empty()) fs::remove_all(path, ignored);
    }
    CardDirectory(const CardDirectory &) = delete;
    CardDirectory &operator=(const CardDirectory &) = delete;

    fs::path directory(const char *name) const {
        fs::create_directory(path / name);
        return path / name;
    }

    fs::path path;  // empty: it could not be made
};

cardsim::SandboxLayout make_layout(const CardDirectory &card) {
    cardsim::SandboxLayout layout;
    layout.packaged_firmware = card.directory("ucode");
    layout.log = card.directory("log");
    layout.scratch = card.directory("scratch");
    layout.local_etc = card.directory("etc");
    layout.flash = card.directory("flash");
    layout.boot_commands = card.directory("sbin");
    layout.bootstrap_file = card.path / "kd_bootstrap";
    std::ofstream(layout.bootstrap_file).close();
    return layout;
}

bool only_lists(int argc, char **argv) {
    for (int i = 1; i < argc; ++i)
        if (std::string_view(argv[i]).starts_with("--gtest_list_tests")) return true;
    return false;
}

/// The sandbox's process ends without the handlers that a program's end has.
int run_tests() {
    const int status = RUN_ALL_TESTS();
    if (__gcov_dump) __gcov_dump();
    if (__lsan_do_leak_check) __lsan_do_leak_check();
    return status;
}

int run_in_sandbox() {
    const CardDirectory card;
    if (card.path.empty()) {
        std::perror("bootup_fpd_tests: no temporary directory");
        return 1;
    }
    try {
        return cardsim::sandbox_run(make_layout(card), run_tests);
    } catch (const std::exception &reason) {
        std::fprintf(stderr, "bootup_fpd_tests: %s\n", reason.what());
        return 1;
    }
}

}  // namespace

int main(int argc, char **argv) {
    const bool plain = only_lists(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return plain ? RUN_ALL_TESTS() : run_in_sandbox();
}
