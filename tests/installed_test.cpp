/// What is installed beside the programs, under any prefix: that it is all there and names what is there, that manuals
/// and completions know every word of the programs, and that a card's library can be built with it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "files.h"
#include "subprocess.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::UnorderedElementsAreArray;

namespace {

constexpr std::chrono::seconds usual_limit{60};

const std::string packaging = SOURCE_DIRECTORY "/packaging/";

std::string manual(const std::string &name) {
    return read_file(packaging + "man/" + name);
}

/// Every match of a pattern's first group.
std::set<std::string> matches(const std::string &text, const std::string &pattern) {
    std::set<std::string> found;
    const std::regex regex(pattern);
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        found.insert((*match)[1]);
    }
    return found;
}

/// What the items of a manual's lists are about, each of them once: `.It Cm NAME`, `.It Ic NAME , Ic NAME`.
std::set<std::string> items(const std::string &text, const std::string &macro) {
    std::set<std::string> found;
    for (const std::string &line : lines_of(text)) {
        if (line.starts_with(".It ")) found.merge(matches(line, " " + macro + "([-a-z0-9_]+)"));
    }
    return found;
}

class Installed : public testing::Test {
  protected:
    void SetUp() override { set_sanitizer_options(); }

    /// The output of a program that has to succeed.
    std::string output(const std::vector<std::string> &command) {
        const Result result = run_program(command, root_, usual_limit);
        EXPECT_EQ(result.status, 0) << testing::PrintToString(command) << result.out << result.err;
        return result.out;
    }
    void install() { output({CMAKE, "--install", BUILD_DIRECTORY, "--prefix", prefix_}); }
    std::vector<std::string> files(const fs::path &directory) {
        std::vector<std::string> found;
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory)) {
            if (!entry.is_directory()) found.push_back(entry.path().lexically_relative(directory));
        }
        return found;
    }
    /// What bash offers after a line that is typed this far.
    std::vector<std::string> completions(const std::string &program, const std::string &line) {
        const std::string script =
            "cd / && . \"$0\" && COMP_LINE=$1 COMP_POINT=${#1} && read -ra COMP_WORDS <<<\"$1\" && "
            "{ [[ $1 != *' ' ]] || COMP_WORDS+=(''); } && COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) && "
            "\"_${2//-/_}\" && printf '%s\\n' \"${COMPREPLY[@]}\"";
        return lines_of(output({"/bin/bash", "-c", script, packaging + "completions/" + program, line, program}));
    }

    std::set<std::string> cardsim_commands() {
        const std::string help = output({CARDSIM_COMMAND, "--help"});
        std::set<std::string> names = matches(help.substr(help.find("\nSubcommands:")), "\n  ([a-z-]+) ");
        EXPECT_THAT(names, IsSupersetOf({"boot", "exec", "show", "new"}));
        return names;
    }
    /// Of one of its commands, without the dashes.
    std::set<std::string> cardsim_options(const std::string &command) {
        return matches(output({CARDSIM_COMMAND, command, "--help"}), "\n  (?:-h,)?--([a-z-]+)");
    }

    const TemporaryDirectory directory_{"installed-test"};
    const fs::path root_ = directory_.path();
    const fs::path prefix_ = root_ / "a 5% prefix";
};

TEST_F(Installed, UnderAPrefixIsEverythingThatTheSystemIsTold) {
    install();
    EXPECT_THAT(
        files(prefix_),
        IsSupersetOf({"etc/logrotate.d/bootup-fpd", "lib/sysctl.d/10-bootup-fpd.conf",
                      "lib/systemd/system/bootup-fpd.service", "share/bash-completion/completions/bootup_fpd",
                      "share/bash-completion/completions/cardsim", "share/cardsim/cards/fresh/card.toml",
                      "share/man/man1/cardsim.1", "share/man/man5/card.toml.5", "share/man/man8/bootup_fpd.8"}));
}

TEST_F(Installed, TheUnitStartsTheToolOfItsPrefix) {
    install();
    const std::vector<std::string> unit = lines_of(read_file(prefix_ / "lib/systemd/system/bootup-fpd.service"));
    EXPECT_THAT(unit, Contains("ExecStart=" + root_.string() + "/a\\x205%%\\x20prefix/sbin/bootup_fpd -c upgrade"));
    EXPECT_THAT(unit, Contains("TimeoutStartSec=infinity"));
}

TEST_F(Installed, TheStoryCardsAreAllThereAndNothingBesides) {
    install();
    std::vector<std::string> stories;
    for (const fs::directory_entry &card : fs::directory_iterator(CARDSIM_CARDS)) {
        if (card.is_directory()) stories.push_back(card.path().filename() / "card.toml");
    }
    EXPECT_THAT(files(prefix_ / "share/cardsim/cards"), UnorderedElementsAreArray(stories));
}

TEST_F(Installed, TheHeadersAreThoseOfTheClosedLibraries) {
    install();
    EXPECT_THAT(files(prefix_ / "include"),
                UnorderedElementsAreArray({"bootup_fpd/brd_platform_access.h", "bootup_fpd/fpd_description.h",
                                           "bootup_fpd/fpd_upgrade_cookie.h", "bootup_fpd/fpd_utility.h",
                                           "bootup_fpd/fpd_version.h"}));
}

TEST_F(Installed, ALibraryBuiltWithTheCMakePackageIsTheCardsLibrary) {
    install();
    write_file(root_ / "CMakeLists.txt",
               "cmake_minimum_required(VERSION 3.25)\n"
               "project(card C)\n"
               "find_package(bootup_fpd 1.0 REQUIRED)\n"
               "add_library(card SHARED " SOURCE_DIRECTORY
               "/tests/fake_platform_library/fake_platform_library.c)\n"
               "target_link_libraries(card PRIVATE bootup_fpd::platform_headers)\n"
               "bootup_fpd_card_library(card)\n");
    output({CMAKE, "-S", root_, "-B", root_ / "build", "-D", "CMAKE_C_COMPILER=" C_COMPILER, "-D",
            "CMAKE_PREFIX_PATH=" + prefix_.string()});
    output({CMAKE, "--build", root_ / "build"});
    const std::string command = "LD_LIBRARY_PATH='" + (root_ / "build").string() + "' bootup_fpd -b -c list_upgrade";
    EXPECT_THAT(output({prefix_ / "bin/cardsim", "exec", CARDSIM_CARDS "/current", "--state", root_ / "state", "--",
                        "sh", "-c", command}),
                HasSubstr("CoreFpga         1.7"));
}

TEST_F(Installed, PkgConfigsFileNamesTheCardsLibraryAndADirectoryThatMoves) {
    install();
    const std::vector<std::string> text = lines_of(read_file(prefix_ / "share/pkgconfig/bootup_fpd.pc"));
    EXPECT_THAT(text, Contains("card_soname=" CARD_SONAME));
    EXPECT_THAT(text, Contains("prefix=${pcfiledir}/../.."));
    EXPECT_THAT(text, Contains("includedir=${prefix}/include/bootup_fpd"));
}

// ---- manuals

TEST_F(Installed, TheToolsManualHasEveryCommandAndMode) {
    const std::string usage = read_file(SOURCE_DIRECTORY "/tests/usage.txt");
    std::set<std::string> words = matches(usage, "-c ([a-z_]+):");
    words.merge(matches(usage, "'([a-z-]+)'"));
    EXPECT_EQ(words.size(), 7 + 4);
    const std::set<std::string> documented = items(manual("bootup_fpd.8"), "Cm ");
    EXPECT_EQ(documented, words);
}

TEST_F(Installed, CardsimsManualHasEveryCommandAndOption) {
    std::set<std::string> options = {"help", "version"};
    for (const std::string &command : cardsim_commands()) options.merge(cardsim_options(command));
    EXPECT_THAT(options, IsSupersetOf({"speed", "state"}));
    EXPECT_EQ(items(manual("cardsim.1"), "Fl -"), options);
    EXPECT_EQ(items(manual("cardsim.1"), "Cm "), cardsim_commands());
}

TEST_F(Installed, TheReportsManualAndCompletionHaveEveryOption) {
    const std::string help = output({FPD_REPORT, "--help"});
    std::set<std::string> options = matches(help, "\n  (?:-[a-z],)?--([a-z-]+)");
    EXPECT_THAT(options, IsSupersetOf({"json", "output", "fleet", "help", "version"}));
    EXPECT_EQ(items(manual("fpd-report.1"), "Fl -"), options);
    std::set<std::string> offered;
    for (const std::string &option : completions("fpd-report", "fpd-report --")) offered.insert(option.substr(2));
    EXPECT_EQ(offered, options);
}

TEST_F(Installed, TheManualOfADescriptionHasEveryKey) {
    std::set<std::string> keys =
        matches(read_file(SOURCE_DIRECTORY "/fuzz/corpus/card_description/every_key"), "(?:^|\n)([a-z_0-9]+) =");
    EXPECT_GT(keys.size(), 40);
    EXPECT_EQ(items(manual("card.toml.5"), "Ic "), keys);
}

// ---- completions

TEST_F(Installed, CompletionKnowsTheToolsWordsAndTheirValues) {
    const std::set<std::string> words = matches(read_file(SOURCE_DIRECTORY "/tests/usage.txt"), "-c ([a-z_]+):");
    std::set<std::string> offered;
    for (const std::string &word : completions("bootup_fpd", "bootup_fpd -b -c ")) {
        offered.insert(word.substr(0, word.find('=')));
    }
    EXPECT_EQ(offered, words);
    EXPECT_THAT(completions("bootup_fpd", "bootup_fpd -"), ElementsAre("-b", "-c", "-h"));
    EXPECT_THAT(completions("bootup_fpd", "bootup_fpd -c set_config="), ElementsAre("enable", "disable"));
    EXPECT_THAT(completions("bootup_fpd", "bootup_fpd -c upgrade,set_upgrade_mode=du"),
                ElementsAre("dummy-minor-version", "dummy-major-version"));
    EXPECT_THAT(completions("bootup_fpd", "bootup_fpd -bc set_c"), ElementsAre("set_config="));
    EXPECT_THAT(completions("bootup_fpd", "bootup_fpd -c upgrade,check"), ElementsAre("upgrade,check_upgrade"));
}

TEST_F(Installed, CompletionKnowsCardsimsCommandsAndTheirOptions) {
    std::set<std::string> words = cardsim_commands();
    words.merge(std::set<std::string>{"--help", "--version"});
    EXPECT_THAT(completions("cardsim", "cardsim "), UnorderedElementsAreArray(words));
    for (const std::string &command : cardsim_commands()) {
        std::set<std::string> options;
        for (const std::string &option : cardsim_options(command)) options.insert("--" + option);
        if (command == "exec") options.insert("--");
        EXPECT_THAT(completions("cardsim", "cardsim " + command + " -"), UnorderedElementsAreArray(options)) << command;
    }
    EXPECT_THAT(completions("cardsim", "cardsim show " CARDSIM_CARDS "/fre"), ElementsAre(CARDSIM_CARDS "/fresh"));
    EXPECT_THAT(completions("cardsim", "cardsim exec card -- chgr"), Contains("chgrp"));
}

}  // namespace
