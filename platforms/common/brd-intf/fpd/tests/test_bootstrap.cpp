#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "brd_intf_auto_fpd_bootstrap.h"
#include "interpose.h"
#include "test_support.h"

namespace {

using interpose::Call;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Module bootstrap_module{"PLATFORM", "brd_intf_auto_fpd_bootstrap"};
constexpr std::uint32_t untouched_number = 4711;

/// A run of the same character.
std::string run_of(std::size_t count, char character = 'x') {
    return std::string(count, character);
}

/// A text with a NUL where `before` ends.
std::string with_nul(const std::string &before, const std::string &after) {
    return before + '\0' + after;
}

struct BootstrapField : CardTest {
    BootstrapField() {
        std::memset(value, '#', sizeof value);
        interpose::on_sleep([this](std::uint64_t microseconds) { sleeps.push_back(microseconds); });
    }

    int look_up(const std::string &text, const char *key = "KEY") {
        write_file(bootstrap_path, text);
        return bootstrap_field_get(key, value);
    }

    void expect_value(const std::string &text, const std::string &expected, const char *key = "KEY") {
        EXPECT_EQ(look_up(text, key), 0) << text;
        EXPECT_EQ(std::string_view(value), expected) << text;
        EXPECT_THAT(log_lines(), IsEmpty());
    }

    void expect_failure(int rc, int expected, const char *tag, const std::string &message) {
        EXPECT_EQ(rc, expected);
        expect_only_log(bootstrap_module, "ERROR", tag, message);
        EXPECT_THAT(value, Each('#')) << "the caller's buffer is left alone";
        clear_log();
    }

    char value[bootstrap_field_size];
    std::vector<std::uint64_t> sleeps;
};

TEST_F(BootstrapField, IsWhatFollowsTheLastEqualSignOfTheFirstLineOfItsKeyWithoutBlanks) {
    const std::pair<std::string, std::string> cases[] = {
        {"KEY=first\nOTHER=1\n", "first"},
        {"OTHER=1\nKEY=middle\nLAST=2\n", "middle"},
        {"OTHER=1\n\nKEY=last\n", "last"},
        {"KEY=one\nKEY=two\n", "one"},
        {"  K E Y  =  1 2 3  \n", "123"},
        {"KEY=\t1\t2\r\n", "\t1\t2\r"},
        {"KEY=x=y\n", "y"},
        {"KEY=a long one=b=short\n", "short"},
        {"KEY=x=\n", ""},
        {"KEY=\n", ""},
        {"KEY\n", ""},
        {"OTHER=a longer value\nKEY\n", ""},
        {"OTHER=a longer value\nKEY=b\n", "b"},
        {with_nul("KEY=2\n", "\n"), "2"},
        {"KEY=2\n\xFF\n", "2"},
        {"KEY=\x80\xFE\n", "\x80\xFE"},
    };
    for (const auto &[text, expected] : cases) expect_value(text, expected);
}

TEST_F(BootstrapField, IsNotFoundUnderAnotherKeyNorBehindTheEndOfTheText) {
    for (const std::string &text :
         {std::string(), std::string("OTHER=1\nKEY=2"), std::string("key=1\nKEYS=2\nKE=3\nOKEY=4\n"),
          std::string("KEY\t=1\n\tKEY=1\n"), with_nul("OTHER=1\n", "\nKEY=2\n"), with_nul("KEY=2", "\n"),
          std::string("OTHER=1\xFF\nKEY=2\n")})
        expect_failure(look_up(text), -2, "FieldisNotFound", "Bootstrp field KEY is not found");
}

TEST_F(BootstrapField, IsFoundBehindLinesOfUpTo253CharactersAndOnOne) {
    expect_value("KEY=" + run_of(250) + "\n", run_of(250));
    expect_value("=" + run_of(253) + "\n", run_of(253), "");
    expect_value(run_of(253, 'K') + "=\n", "", run_of(253, 'K').c_str());
    expect_value("OTHER=" + run_of(248) + "\nKEY=1\n", "1");
    expect_value("KEY=1\nOTHER=" + run_of(1000) + "\n", "1");
    expect_value("KEY" + run_of(300, ' ') + run_of(300, '=') + run_of(250) + "\n", run_of(250));
    expect_value("KEY=" + run_of(125) + "=" + run_of(125) + "\n", run_of(125));
}

TEST_F(BootstrapField, FailsOnALineOf254CharactersAndBehindOne) {
    for (const std::string &text : {"KEY=" + run_of(251), run_of(254, 'K') + "=", "OTHER=" + run_of(249) + "\nKEY=1",
                                    "KEY=" + run_of(125) + "=" + run_of(126)})
        expect_failure(look_up(text + "\n"), -7, "KeyLengthTooLong", "Failed parsing, key length is too long");
}

TEST_F(BootstrapField, FailsWithoutTheFile) {
    std::filesystem::remove(bootstrap_path);
    expect_failure(bootstrap_field_get("KEY", value), -38, "BootstrapFileNotFound",
                   "Bootstrap File /dev/kd_bootstrap is not found error No such file or directory");
    EXPECT_EQ(interpose::calls(Call::fopen), 0U);
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(BootstrapField, NamesTheErrorWithWhichTheFileWasNotThere) {
    interpose::fail(Call::stat, EACCES);
    expect_failure(bootstrap_field_get("KEY", value), -38, "BootstrapFileNotFound",
                   "Bootstrap File /dev/kd_bootstrap is not found error Permission denied");
}

TEST_F(BootstrapField, WaitsASecondBeforeEachOfThreeMoreAttemptsToOpenTheFile) {
    interpose::fail(Call::fopen, EBUSY, 1, 3);
    expect_value("KEY=1\n", "1");
    EXPECT_EQ(interpose::calls(Call::fopen), 4U);
    EXPECT_THAT(sleeps, ElementsAre(1'000'000U, 1'000'000U, 1'000'000U));
}

TEST_F(BootstrapField, FailsWhenTheFileDoesNotOpenInFourAttempts) {
    interpose::fail(Call::fopen, EBUSY, 1, 4);
    expect_failure(look_up("KEY=1\n"), -38, "BootstrapFileOpenFail",
                   "Bootstrap File /dev/kd_bootstrap is not found error Device or resource busy");
    EXPECT_EQ(interpose::calls(Call::fopen), 4U);
    EXPECT_THAT(sleeps, ElementsAre(1'000'000U, 1'000'000U, 1'000'000U));
}

TEST_F(BootstrapField, IsReadAnewEachTimeAndLeavesNoFileOpen) {
    const std::vector<std::string> before = open_descriptors();
    expect_value("KEY=1\n", "1");
    expect_value("KEY=2\n", "2");
    EXPECT_EQ(interpose::calls(Call::fopen), 2U);
    EXPECT_THAT(sleeps, IsEmpty());
    look_up("OTHER=1\n");
    look_up(run_of(254));
    EXPECT_EQ(open_descriptors(), before);
}

struct Number {
    const char *key;
    int (*get)(std::uint32_t *number);
};
void PrintTo(const Number &number, std::ostream *out) {
    *out << number.key;
}

struct BootstrapNumber : CardTest, testing::WithParamInterface<Number> {};

INSTANTIATE_TEST_SUITE_P(Of, BootstrapNumber,
                         testing::Values(Number{"PD_CARD_TYPE", bootstrap_card_type_get},
                                         Number{"PD_SLOT_NUM", bootstrap_slot_num_get}),
                         [](const auto &instance) { return std::string(instance.param.key); });

TEST_P(BootstrapNumber, IsTheDecimalThatTheTextBeginsWithOr0CutTo32Bits) {
    const std::pair<const char *, std::uint32_t> cases[] = {
        {"=12544", 12544},
        {" = 3", 3},
        {"=0010", 10},
        {"=4294967295", 4294967295U},
        {"=12abc", 12},
        {"=3\r", 3},
        {"=0x3100", 0},
        {"=abc", 0},
        {"=", 0},
        {"=4294967301", 5},
        {"=18446744073709551616", 4294967295U},
    };
    for (const auto &[text, expected] : cases) {
        write_file(bootstrap_path, std::string(GetParam().key) + text + "\n");
        std::uint32_t number = untouched_number;
        EXPECT_EQ(GetParam().get(&number), 0) << text;
        EXPECT_EQ(number, expected) << text;
    }
}

TEST_P(BootstrapNumber, PassesAFailedLookupOn) {
    std::uint32_t number = untouched_number;
    write_file(bootstrap_path, "MY_CARD_PID=1\n");
    EXPECT_EQ(GetParam().get(&number), -2);
    expect_only_log(bootstrap_module, "ERROR", "FieldisNotFound",
                    std::string("Bootstrp field ") + GetParam().key + " is not found");
    write_file(bootstrap_path, run_of(254));
    EXPECT_EQ(GetParam().get(&number), -7);
    std::filesystem::remove(bootstrap_path);
    EXPECT_EQ(GetParam().get(&number), -38);
    EXPECT_EQ(number, untouched_number);
}

struct BootstrapCardType : CardTest {};

TEST_F(BootstrapCardType, NeedsAPlaceToGoTo) {
    EXPECT_EQ(bootstrap_card_type_get(nullptr), -22);
    EXPECT_EQ(interpose::calls(Call::stat), 0U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

struct BootstrapHwVersion : CardTest {
    int read(const std::string &major_value, const std::string &minor_value, int error_before = 0) {
        write_file(bootstrap_path, "HW_MINOR_VERSION=" + minor_value + "\nHW_MAJOR_VERSION=" + major_value + "\n");
        major = minor = untouched_number;
        errno = error_before;
        return bootstrap_hw_version_get(&major, &minor);
    }

    void expect_version(const std::string &value, std::uint32_t expected, int error_before = 0) {
        EXPECT_EQ(read(value, "1", error_before), 0) << value;
        EXPECT_EQ(major, expected) << value;
        EXPECT_EQ(read("1", value, error_before), 0) << value;
        EXPECT_EQ(minor, expected) << value;
    }

    /// Neither is logged: a value that is no number is for the caller to tell.
    void expect_no_version(const std::string &value, int error_before = 0) {
        EXPECT_EQ(read(value, "1", error_before), -22) << value;
        EXPECT_EQ(major, untouched_number);
        EXPECT_EQ(minor, untouched_number);
        EXPECT_EQ(read("1", value, error_before), -22) << value;
        EXPECT_EQ(major, 1U) << "the major version is stored before the minor one is looked at";
        EXPECT_EQ(minor, untouched_number);
        EXPECT_THAT(log_lines(), IsEmpty());
    }

    std::uint32_t major = untouched_number;
    std::uint32_t minor = untouched_number;
};

TEST_F(BootstrapHwVersion, HasTwoNumbersReadFromTheFileTwice) {
    EXPECT_EQ(read("2", "500"), 0);
    EXPECT_EQ(major, 2U);
    EXPECT_EQ(minor, 500U);
    EXPECT_EQ(interpose::calls(Call::fopen), 2U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BootstrapHwVersion, IsWhollyNumbersCutTo32Bits) {
    expect_version("12", 12);
    expect_version("1 2", 12);
    expect_version("010", 10);
    expect_version("\t7", 7);
    expect_version("+7", 7);
    expect_version("-1", 4294967295U);
    expect_version("4294967301", 5);
    expect_version("9223372036854775807", 4294967295U);
    expect_version("9223372036854775808", 0);
    expect_version("18446744073709551616", 4294967295U);
    expect_version("99999999999999999999999", 4294967295U, ERANGE);
    for (const char *text : {"", "1a", "a1", "0x10", "3\r", "3\t"}) expect_no_version(text);
}

TEST_F(BootstrapHwVersion, IsNoLimitOfSigned64BitNumbersBehindAnEarlierOverflow) {
    expect_no_version("9223372036854775807", ERANGE);
    expect_no_version("9223372036854775808", ERANGE);
    expect_version("9223372036854775806", 4294967294U, ERANGE);
}

TEST_F(BootstrapHwVersion, KeepsTheOverflowOfTheMajorVersionForTheTestOfTheMinorOne) {
    EXPECT_EQ(read("18446744073709551616", "9223372036854775807"), -22);
    EXPECT_EQ(major, 4294967295U);
    EXPECT_EQ(minor, untouched_number);
}

TEST_F(BootstrapHwVersion, NeedsTwoPlacesToGoTo) {
    EXPECT_EQ(bootstrap_hw_version_get(nullptr, &minor), -22);
    EXPECT_EQ(bootstrap_hw_version_get(&major, nullptr), -22);
    EXPECT_EQ(major, untouched_number);
    EXPECT_EQ(minor, untouched_number);
    EXPECT_EQ(interpose::calls(Call::stat), 0U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BootstrapHwVersion, PassesAFailedLookupOnBehindAMajorVersionThatIsStored) {
    for (const auto &[file, missing, expected] :
         {std::tuple{"HW_MINOR_VERSION=1\n", "MAJOR", untouched_number}, {"HW_MAJOR_VERSION=8\n", "MINOR", 8U}}) {
        clear_log();
        write_file(bootstrap_path, file);
        EXPECT_EQ(bootstrap_hw_version_get(&major, &minor), -2);
        expect_only_log(bootstrap_module, "ERROR", "FieldisNotFound",
                        std::string("Bootstrp field HW_") + missing + "_VERSION is not found");
        EXPECT_EQ(major, expected);
        EXPECT_EQ(minor, untouched_number);
    }
}

struct BootstrapCardPid : CardTest {
    BootstrapCardPid() { std::memset(pid, '#', sizeof pid); }

    int read(const std::string &value) {
        write_file(bootstrap_path, "MY_CARD_PID=" + value + "\n");
        return bootstrap_card_pid_get(pid, &pid_len);
    }

    char pid[16];
    std::size_t pid_len = sizeof pid;
};

TEST_F(BootstrapCardPid, IsTheTextAndItsLengthComesBackAs0) {
    EXPECT_EQ(read("CARD-36H"), 0);
    EXPECT_STREQ(pid, "CARD-36H");
    EXPECT_EQ(pid_len, 0U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BootstrapCardPid, IsCutToItsPlace) {
    pid_len = 5;
    EXPECT_EQ(read("CARD-36H"), 0);
    EXPECT_STREQ(pid, "CARD");
    EXPECT_EQ(pid[5], '#');
    EXPECT_EQ(pid_len, 0U);
}

TEST_F(BootstrapCardPid, LeavesThePlaceAndItsSizeAloneWhenTheLookupFails) {
    write_file(bootstrap_path, "PD_CARD_TYPE=1\n");
    EXPECT_EQ(bootstrap_card_pid_get(pid, &pid_len), -2);
    EXPECT_THAT(pid, Each('#'));
    EXPECT_EQ(pid_len, sizeof pid);
    expect_log(bootstrap_module, "ERROR", "FieldisNotFound", "Bootstrp field MY_CARD_PID is not found");
}

}  // namespace
