/// What is built: how the binaries are protected, what they leave to libraries and where they look for those, and that
/// they run where they are installed, on the simulated card or on a card's own libraries.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <set>
#include <sstream>

#include "files.h"
#include "subprocess.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using testing::Values;

namespace {

constexpr std::chrono::seconds usual_limit{60};
constexpr std::chrono::seconds build_limit{500};

/// Those that the headers of the closed libraries declare, each at the beginning of a line.
std::set<std::string> closed_functions() {
    const std::regex declaration(R"([a-z][A-Za-z0-9_ ]* \*?([a-z0-9_]+)\(.*)");
    std::set<std::string> names;
    for (const char *header : {"brd_platform_access", "fpd_description", "fpd_utility", "fpd_upgrade_cookie"}) {
        const std::string file =
            std::string(SOURCE_DIRECTORY "/platforms/common/brd-intf/fpd/include/") + header + ".h";
        for (const std::string &line : lines_of(read_file(file))) {
            std::smatch found;
            if (std::regex_match(line, found, declaration)) names.insert(found[1]);
        }
    }
    return names;
}

const char *const fake_list =
    "FPD name         Available Version\n"
    "CoreFpga         1.7\n"
    "EdgeCpld         1.7\n";

class Binaries : public testing::Test {
  protected:
    void SetUp() override { set_sanitizer_options(); }

    /// The output of a program that has to succeed.
    std::string output(const std::vector<std::string> &command, std::chrono::seconds limit = usual_limit) {
        const Result result = run_program(command, root_, limit);
        EXPECT_EQ(result.status, 0) << testing::PrintToString(command) << result.out << result.err;
        return result.out;
    }
    std::string elf(const std::string &file, const std::string &option) {
        return output({READELF, "-W", option, file});
    }
    /// What is in brackets in the entries of a kind in the dynamic section.
    std::vector<std::string> dynamic(const std::string &file, const std::string &kind) {
        std::vector<std::string> values;
        for (const std::string &line : lines_of(elf(file, "-d"))) {
            const std::size_t open = line.find('[');
            if (line.find("(" + kind + ")") == std::string::npos || open == std::string::npos) continue;
            values.push_back(line.substr(open + 1, line.rfind(']') - open - 1));
        }
        return values;
    }
    /// The dynamic symbols of a file, defined or undefined, with their versions.
    std::set<std::string> symbols(const std::string &file, const std::string &which) {
        std::set<std::string> names;
        for (const std::string &line : lines_of(output({NM, "-D", which, file}))) {
            names.insert(line.substr(line.rfind(' ') + 1));
        }
        return names;
    }
    /// The functions that whichever library is loaded has to have: neither of a version nor the compiler's.
    std::set<std::string> left_to_libraries(const std::string &file) {
        std::set<std::string> names;
        for (const std::string &name : symbols(file, "--undefined-only")) {
            const bool compilers = name.starts_with("_ITM_") || name.starts_with("__");
            if (!compilers && name.find('@') == std::string::npos) names.insert(name);
        }
        return names;
    }
    /// Runs a shell command on a powered card, whose environment leads to no library.
    Result on_card(const std::string &command, const std::string &cardsim = CARDSIM_COMMAND) {
        const std::string card = CARDSIM_CARDS "/current";
        return run_program({cardsim, "exec", card, "--state", root_ / "state", "--", "sh", "-c", command}, root_,
                           usual_limit);
    }
    /// Configures a build for a card as README.md has it, in a directory and with a compiler of this test's own.
    void configure_for_card(std::vector<std::string> options) {
        std::vector<std::string> command = {CMAKE,
                                            "-S",
                                            SOURCE_DIRECTORY,
                                            "--preset",
                                            "release",
                                            "-B",
                                            root_ / "build",
                                            "-D",
                                            "CMAKE_CXX_COMPILER=" CXX_COMPILER,
                                            "-D",
                                            "BOOTUP_FPD_CARDSIM=OFF"};
        for (const std::string &option : options) command.insert(command.end(), {"-D", option});
        output(command);
    }
    /// Builds what was configured; returns the tool's path.
    std::string build_for_card() {
        output({CMAKE, "--build", root_ / "build"}, build_limit);
        return root_ / "build/bin/bootup_fpd";
    }
    /// A tool that names no library of the card's and runs on one that is preloaded.
    void expect_preloadable(const std::string &tool) {
        EXPECT_EQ(left_to_libraries(tool), closed_functions());
        EXPECT_THAT(symbols(tool, "--defined-only"), ElementsAre("bootup_fpd_time_div", "fpd_upg_handler"));
        EXPECT_THAT(dynamic(tool, "NEEDED"), UnorderedElementsAre("libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"));
        EXPECT_THAT(dynamic(tool, "RUNPATH"), IsEmpty());
        const Result preloaded = on_card("LD_PRELOAD=" FAKE_LIBRARY " " + tool + " -b -c list_upgrade");
        EXPECT_EQ(preloaded.status, 0) << preloaded.err;
        EXPECT_EQ(preloaded.out, fake_list);
        const Result alone = on_card(tool + " -b -c list_upgrade");
        EXPECT_EQ(alone.status, 127);
        EXPECT_THAT(alone.err, HasSubstr("undefined symbol: "));
    }
    /// Installs what was built; returns the files under the prefix.
    std::vector<std::string> install(const fs::path &build, const fs::path &prefix) {
        output({CMAKE, "--install", build, "--prefix", prefix});
        std::vector<std::string> files;
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(prefix)) {
            if (!entry.is_directory()) files.push_back(entry.path().lexically_relative(prefix));
        }
        return files;
    }

    const TemporaryDirectory directory_{"binaries-test"};
    const fs::path root_ = directory_.path();
};

// ---- how they are protected

struct Binary {
    const char *name;
    std::string file;
    bool program;
    std::vector<std::string> search_path;
};

void PrintTo(const Binary &binary, std::ostream *out) {
    *out << binary.name;
}

class EveryBinary : public Binaries, public testing::WithParamInterface<Binary> {};

TEST_P(EveryBinary, IsProtected) {
    const std::string &file = GetParam().file;
    const std::string sections = elf(file, "-d");
    EXPECT_THAT(sections, MatchesRegex(GetParam().program ? ".*FLAGS_1\\)[^\n]*NOW PIE.*" : ".*FLAGS_1\\)[^\n]*NOW.*"));
    EXPECT_THAT(sections, AllOf(HasSubstr("BIND_NOW"), Not(HasSubstr("TEXTREL")), Not(HasSubstr("(RPATH)"))));
    const std::vector<std::string> segments = lines_of(elf(file, "-l"));
    EXPECT_THAT(segments, Contains(HasSubstr("GNU_RELRO")));
    EXPECT_THAT(segments, Contains(MatchesRegex(".*GNU_STACK.* RW .*")));
    EXPECT_THAT(symbols(file, "--undefined-only"), Contains(HasSubstr("__stack_chk_fail")));
}

TEST_P(EveryBinary, LooksForLibrariesBesideItselfAlone) {
    std::vector<std::string> directories;
    for (const std::string &path : dynamic(GetParam().file, "RUNPATH")) {
        std::istringstream entries(path + ":");
        for (std::string entry; std::getline(entries, entry, ':');) directories.push_back(entry);
    }
    EXPECT_THAT(directories, ElementsAreArray(GetParam().search_path));
}

TEST_P(EveryBinary, CallsCheckedFunctionsWhereItIsOptimized) {
    if (!SHIPPED) GTEST_SKIP() << "a build for developers";
    EXPECT_THAT(symbols(GetParam().file, "--undefined-only"), Contains(MatchesRegex("__v?snprintf_chk@.*")));
}

INSTANTIATE_TEST_SUITE_P(, EveryBinary,
                         Values(Binary{"tool", BOOTUP_FPD, true, {"$ORIGIN/../lib"}},
                                Binary{"cardsim", CARDSIM_COMMAND, true, {}},
                                Binary{"library", CARDSIM_LIBRARY, false, {}}),
                         [](const auto &binary) { return binary.param.name; });

class OptimizedBuild : public Binaries, public testing::WithParamInterface<const char *> {};

TEST_P(OptimizedBuild, CompilesEverySourceProtectedAndWithWarningsThatAreNoErrors) {
    configure_for_card({std::string("CMAKE_BUILD_TYPE=") + GetParam()});
    std::vector<std::string> commands;
    for (const std::string &line : lines_of(read_file(root_ / "build/compile_commands.json"))) {
        if (line.find("\"command\":") != std::string::npos) commands.push_back(line);
    }
    EXPECT_THAT(commands, Contains(HasSubstr("bootup_fpd.cpp")));
    for (const char *option : {" -D_FORTIFY_SOURCE=3 ", " -D_GLIBCXX_ASSERTIONS ", " -ftrivial-auto-var-init=zero ",
                               " -fstack-protector-strong ", " -fcf-protection ", " -O"}) {
        EXPECT_THAT(commands, Each(HasSubstr(option)));
    }
    EXPECT_THAT(commands, Each(Not(HasSubstr("-Werror"))));
}

INSTANTIATE_TEST_SUITE_P(, OptimizedBuild, Values("Release", "RelWithDebInfo"),
                         [](const auto &type) { return std::string(type.param); });

TEST_F(Binaries, WarningsAreErrorsInEveryPresetButThoseOfWhatIsShipped) {
    std::vector<std::string> presets;
    for (const std::string &line : lines_of(output({CMAKE, "-S", SOURCE_DIRECTORY, "--list-presets"}))) {
        if (line.starts_with("  \"")) presets.push_back(line.substr(3, line.find('"', 3) - 3));
    }
    EXPECT_THAT(presets, AllOf(Contains("release"), Contains("dev"), Contains("asan")));
    for (const std::string &preset : presets) {
        const std::string variables = output({CMAKE, "-S", SOURCE_DIRECTORY, "--preset", preset, "-B", root_, "-N"});
        // What is measured is built as what is shipped.
        EXPECT_EQ(variables.find("CMAKE_COMPILE_WARNING_AS_ERROR=\"ON\"") == std::string::npos,
                  preset == "release" || preset == "bench")
            << preset << variables;
    }
}

// ---- what the tool leaves to libraries

TEST_F(Binaries, TheToolExportsTwoSymbolsOfItsOwn) {
    std::set<std::string> defined = symbols(BOOTUP_FPD, "--defined-only");
    // What a sanitizer asks the program for is there in sanitized builds alone.
    std::erase_if(defined, [](const std::string &name) { return name.ends_with("san_default_options"); });
    EXPECT_THAT(defined, ElementsAre("bootup_fpd_time_div", "fpd_upg_handler"));
}

TEST_F(Binaries, TheToolLeavesTheClosedFunctionsToLibrariesAndNoOthers) {
    EXPECT_EQ(left_to_libraries(BOOTUP_FPD), closed_functions());
    EXPECT_THAT(symbols(BOOTUP_FPD, "--undefined-only"), Each(Not(testing::StartsWith("dl"))));
}

TEST_F(Binaries, AnotherLibraryHasThemAll) {
    const std::set<std::string> defined = symbols(FAKE_LIBRARY, "--defined-only");
    const std::set<std::string> closed = closed_functions();
    EXPECT_THAT(closed, SizeIs(26));
    EXPECT_TRUE(std::includes(defined.begin(), defined.end(), closed.begin(), closed.end()));
}

// ---- where they are installed

TEST_F(Binaries, ProgramsFindTheirLibrariesAndEachOtherUnderAnyPrefix) {
    const std::string prefix = root_ / "any prefix";
    EXPECT_THAT(install(BUILD_DIRECTORY, prefix), AllOf(Contains("bin/cardsim"), Contains("bin/fpd-report"),
                                                        Contains("lib/" CARD_SONAME), Contains("sbin/bootup_fpd")));
    const Result loaded = on_card("LD_TRACE_LOADED_OBJECTS=1 \"" + prefix + "/sbin/bootup_fpd\"");
    EXPECT_THAT(loaded.out, HasSubstr(CARD_SONAME " => " + prefix + "/sbin/../lib/" CARD_SONAME));
    EXPECT_EQ(on_card("command -v bootup_fpd", prefix + "/bin/cardsim").out, prefix + "/sbin/bootup_fpd\n");
    const Result check = on_card("bootup_fpd -b -c check_upgrade", prefix + "/bin/cardsim");
    EXPECT_EQ(check.status, 0) << check.out << check.err;
}

TEST_F(Binaries, ABuildWithoutTheSimulatedCardRefusesToLinkTheToolToIt) {
    const Result result = run_program({CMAKE, "-S", SOURCE_DIRECTORY, "--preset", "release", "-B", root_ / "build",
                                       "-D", "BOOTUP_FPD_CARDSIM=OFF", "-D", "BOOTUP_FPD_PLATFORM_LIBRARIES=cardsim"},
                                      root_, usual_limit);
    EXPECT_NE(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("BOOTUP_FPD_PLATFORM_LIBRARIES names the simulated card"));
}

/// The two forms of a build for a real card: libraries named, and none. One build, as it is compiled the same.
TEST_F(Binaries, ABuildForACardRunsOnNamedLibrariesAndWithoutNamesOnThoseThatArePreloaded) {
    fs::copy_file(SOURCE_DIRECTORY "/platforms/common/brd-intf/fpd/data/board_types.h", root_ / "board_types.h");
    const std::string libraries = fs::path(FAKE_LIBRARY).parent_path();
    configure_for_card({"BOOTUP_FPD_PLATFORM_LIBRARIES=-L" + libraries + ";fake_platform_library",
                        "BOOTUP_FPD_BOARD_TYPES=" + (root_ / "board_types.h").string()});
    const std::string tool = build_for_card();
    EXPECT_THAT(install(root_ / "build", root_ / "prefix"),
                AllOf(Contains("sbin/bootup_fpd"), Each(Not(HasSubstr("cardsim"))), Each(Not(HasSubstr(".so")))));
    EXPECT_THAT(dynamic(tool, "NEEDED"),
                UnorderedElementsAre("libfake_platform_library.so", "libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"));
    EXPECT_THAT(dynamic(tool, "RUNPATH"), IsEmpty());
    EXPECT_EQ(on_card("LD_LIBRARY_PATH=" + libraries + " " + tool + " -b -c list_upgrade").out, fake_list);

    for (const std::string linker : {"bfd", "gold"}) {
        SCOPED_TRACE(linker);
        configure_for_card({"BOOTUP_FPD_PLATFORM_LIBRARIES=", "CMAKE_EXE_LINKER_FLAGS=-fuse-ld=" + linker});
        expect_preloadable(build_for_card());
    }
}

}  // namespace
