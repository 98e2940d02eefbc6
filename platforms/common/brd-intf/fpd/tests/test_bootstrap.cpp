#include <cerrno>
#include <cstring>
#include <string>
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

// The lookup of one key -----------------------------------------------------------------------------------------------

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
        EXPECT_EQ(look_up(text, key), 0);
        EXPECT_EQ(std::string_view(value), expected);
        EXPECT_THAT(log_lines(), IsEmpty());
    }

    void expect_failure(int rc, int expected, const char *tag, const std::string &message) {
        EXPECT_EQ(rc, expected);
        EXPECT_THAT(log_lines(), ElementsAre(log_line(bootstrap_module, "ERROR", tag, message)));
        EXPECT_THAT(value, Each('#')) << "the caller's buffer is left alone";
    }

    void expect_not_found(const std::string &text) {
        expect_failure(look_up(text), -2, "FieldisNotFound", "Bootstrp field KEY is not found");
    }

    void expect_too_long(const std::string &text) {
        expect_failure(look_up(text), -7, "KeyLengthTooLong", "Failed parsing, key length is too long");
    }

    char value[bootstrap_field_size];
    std::vector<std::uint64_t> sleeps;
};

TEST_F(BootstrapField, IsFoundOnAnyLine) {
    expect_value("KEY=first\nOTHER=1\n", "first");
    expect_value("OTHER=1\nKEY=middle\nLAST=2\n", "middle");
    expect_value("OTHER=1\n\nKEY=last\n", "last");
}

TEST_F(BootstrapField, IsTheFirstOfThatKey) {
    expect_value("KEY=one\nKEY=two\n", "one");
}

TEST_F(BootstrapField, IsNotFoundOnALastLineWithoutANewline) {
    expect_not_found("OTHER=1\nKEY=2");
}

TEST_F(BootstrapField, IsNotFoundInAnEmptyFile) {
    expect_not_found("");
}

TEST_F(BootstrapField, MatchesTheWholeKeyWithItsCase) {
    expect_not_found("key=1\nKEYS=2\nKE=3\nOKEY=4\n");
}

TEST_F(BootstrapField, LosesBlanksAnywhereInTheLine) {
    expect_value("  K E Y  =  1 2 3  \n", "123");
}

TEST_F(BootstrapField, KeepsTabsAndCarriageReturns) {
    expect_value("KEY=\t1\t2\r\n", "\t1\t2\r");
}

TEST_F(BootstrapField, IsNotFoundWhenATabBelongsToTheKey) {
    expect_not_found("KEY\t=1\n\tKEY=1\n");
}

TEST_F(BootstrapField, IsWhatFollowsTheLastEqualSign) {
    expect_value("KEY=x=y\n", "y");
    expect_value("KEY=a long one=b=short\n", "short");
    expect_value("KEY=x=\n", "");
}

TEST_F(BootstrapField, IsEmptyWithoutTextBehindTheEqualSignOrWithoutTheSign) {
    expect_value("KEY=\n", "");
    expect_value("KEY\n", "");
}

TEST_F(BootstrapField, TakesNothingFromTheLinesBefore) {
    expect_value("OTHER=a longer value\nKEY\n", "");
    expect_value("OTHER=a longer value\nKEY=b\n", "b");
}

TEST_F(BootstrapField, IsNotFoundBehindANulByte) {
    expect_not_found(with_nul("OTHER=1\n", "\nKEY=2\n"));
}

TEST_F(BootstrapField, IsNotFoundOnALineWithANulByte) {
    expect_not_found(with_nul("KEY=2", "\n"));
}

TEST_F(BootstrapField, IsNotFoundBehindAByteOf0xFF) {
    expect_not_found("OTHER=1\xFF\nKEY=2\n");
}

TEST_F(BootstrapField, IsFoundBeforeANulByteAndAByteOf0xFF) {
    expect_value(with_nul("KEY=2\n", "\n"), "2");
    expect_value("KEY=2\n\xFF\n", "2");
}

TEST_F(BootstrapField, KeepsOtherBytesAbove127) {
    expect_value("KEY=\x80\xFE\n", "\x80\xFE");
}

TEST_F(BootstrapField, HasUpTo253CharactersTogetherWithItsKey) {
    expect_value("KEY=" + run_of(250) + "\n", run_of(250));
}

TEST_F(BootstrapField, FailsWith254CharactersTogetherWithItsKey) {
    expect_too_long("KEY=" + run_of(251) + "\n");
}

TEST_F(BootstrapField, FillsTheBufferWhenItsKeyIsEmpty) {
    expect_value("=" + run_of(253) + "\n", run_of(253), "");
}

TEST_F(BootstrapField, MayHaveAKeyOf253Characters) {
    const std::string key = run_of(253, 'K');
    expect_value(key + "=\n", "", key.c_str());
}

TEST_F(BootstrapField, FailsWithAKeyOf254Characters) {
    expect_too_long(run_of(254, 'K') + "=\n");
}

TEST_F(BootstrapField, IsFoundBehindALineOf253Characters) {
    expect_value("OTHER=" + run_of(248) + "\nKEY=1\n", "1");
}

TEST_F(BootstrapField, FailsBehindALineOf254Characters) {
    expect_too_long("OTHER=" + run_of(249) + "\nKEY=1\n");
}

TEST_F(BootstrapField, IsFoundBeforeALineThatIsTooLong) {
    expect_value("KEY=1\nOTHER=" + run_of(1000) + "\n", "1");
}

TEST_F(BootstrapField, CountsNeitherBlanksNorEqualSigns) {
    expect_value("KEY" + run_of(300, ' ') + run_of(300, '=') + run_of(250) + "\n", run_of(250));
}

TEST_F(BootstrapField, HasUpTo253CharactersTogetherWithTheTextBeforeASecondEqualSign) {
    expect_value("KEY=" + run_of(125) + "=" + run_of(125) + "\n", run_of(125));
}

TEST_F(BootstrapField, CountsTheTextBeforeASecondEqualSign) {
    expect_too_long("KEY=" + run_of(125) + "=" + run_of(126) + "\n");
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

TEST_F(BootstrapField, DoesNotWaitForAFileThatOpens) {
    expect_value("KEY=1\n", "1");
    EXPECT_EQ(interpose::calls(Call::fopen), 1U);
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(BootstrapField, FailsWhenTheFileDoesNotOpenInFourAttempts) {
    interpose::fail(Call::fopen, EBUSY, 1, 4);
    expect_failure(look_up("KEY=1\n"), -38, "BootstrapFileOpenFail",
                   "Bootstrap File /dev/kd_bootstrap is not found error Device or resource busy");
    EXPECT_EQ(interpose::calls(Call::fopen), 4U);
    EXPECT_THAT(sleeps, ElementsAre(1'000'000U, 1'000'000U, 1'000'000U));
}

TEST_F(BootstrapField, LeavesNoFileOpen) {
    const std::vector<std::string> before = open_descriptors();
    look_up("KEY=1\n");
    look_up("OTHER=1\n");
    look_up(run_of(254));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(BootstrapField, IsReadAnewEachTime) {
    expect_value("KEY=1\n", "1");
    expect_value("KEY=2\n", "2");
}

// The card type -------------------------------------------------------------------------------------------------------

struct BootstrapCardType : CardTest {
    int read(const std::string &value) {
        write_file(bootstrap_path, "PD_CARD_TYPE=" + value + "\n");
        return bootstrap_card_type_get(&card_type);
    }

    void expect_type(const std::string &value, std::uint32_t expected) {
        card_type = untouched_number;
        EXPECT_EQ(read(value), 0);
        EXPECT_EQ(card_type, expected) << value;
    }

    std::uint32_t card_type = untouched_number;
};

TEST_F(BootstrapCardType, IsADecimalNumber) {
    expect_type("12544", 12544);
    expect_type("0010", 10);
    expect_type("4294967295", 4294967295U);
}

TEST_F(BootstrapCardType, IsTheNumberThatTheTextBeginsWithOr0) {
    expect_type("12abc", 12);
    expect_type("0x3100", 0);
    expect_type("abc", 0);
    expect_type("", 0);
}

TEST_F(BootstrapCardType, IsCutTo32Bits) {
    expect_type("4294967301", 5);
    expect_type("18446744073709551616", 4294967295U);
}

TEST_F(BootstrapCardType, NeedsAPlaceToGoTo) {
    EXPECT_EQ(bootstrap_card_type_get(nullptr), -22);
    EXPECT_EQ(interpose::calls(Call::stat), 0U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BootstrapCardType, PassesAFailedLookupOn) {
    write_file(bootstrap_path, "PD_SLOT_NUM=1\n");
    EXPECT_EQ(bootstrap_card_type_get(&card_type), -2);
    expect_log(bootstrap_module, "ERROR", "FieldisNotFound", "Bootstrp field PD_CARD_TYPE is not found");
    EXPECT_EQ(read(run_of(254)), -7);
    std::filesystem::remove(bootstrap_path);
    EXPECT_EQ(bootstrap_card_type_get(&card_type), -38);
    EXPECT_EQ(card_type, untouched_number);
}

// The hardware version ------------------------------------------------------------------------------------------------

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

TEST_F(BootstrapHwVersion, HasTwoNumbers) {
    EXPECT_EQ(read("2", "500"), 0);
    EXPECT_EQ(major, 2U);
    EXPECT_EQ(minor, 500U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BootstrapHwVersion, IsWhollyNumbers) {
    expect_version("12", 12);
    expect_version("1 2", 12);
    expect_version("010", 10);
    expect_no_version("1a");
    expect_no_version("a1");
    expect_no_version("0x10");
    expect_no_version("3\r");
    expect_no_version("3\t");
}

TEST_F(BootstrapHwVersion, IsNotEmpty) {
    expect_no_version("");
}

TEST_F(BootstrapHwVersion, MayHaveWhatANumberMayBeginWith) {
    expect_version("\t7", 7);
    expect_version("+7", 7);
    expect_version("-1", 4294967295U);
}

TEST_F(BootstrapHwVersion, IsCutTo32Bits) {
    expect_version("4294967301", 5);
    expect_version("9223372036854775807", 4294967295U);
    expect_version("9223372036854775808", 0);
}

TEST_F(BootstrapHwVersion, IsCutTo32BitsAlsoWhenItDoesNotFitInto64) {
    expect_version("18446744073709551616", 4294967295U);
    expect_version("99999999999999999999999", 4294967295U, ERANGE);
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

TEST_F(BootstrapHwVersion, PassesAFailedLookupOfTheMajorVersionOn) {
    write_file(bootstrap_path, "HW_MINOR_VERSION=1\n");
    EXPECT_EQ(bootstrap_hw_version_get(&major, &minor), -2);
    expect_log(bootstrap_module, "ERROR", "FieldisNotFound", "Bootstrp field HW_MAJOR_VERSION is not found");
    EXPECT_EQ(minor, untouched_number);
}

TEST_F(BootstrapHwVersion, StoresTheMajorVersionWhenTheLookupOfTheMinorOneFails) {
    write_file(bootstrap_path, "HW_MAJOR_VERSION=8\n");
    EXPECT_EQ(bootstrap_hw_version_get(&major, &minor), -2);
    expect_log(bootstrap_module, "ERROR", "FieldisNotFound", "Bootstrp field HW_MINOR_VERSION is not found");
    EXPECT_EQ(major, 8U);
    EXPECT_EQ(minor, untouched_number);
}

TEST_F(BootstrapHwVersion, IsReadFromTheFileTwice) {
    EXPECT_EQ(read("1", "0"), 0);
    EXPECT_EQ(interpose::calls(Call::fopen), 2U);
}

// The slot number -----------------------------------------------------------------------------------------------------

struct BootstrapSlotNum : CardTest {
    void expect_slot(const std::string &line, std::uint32_t expected) {
        write_file(bootstrap_path, line + "\n");
        std::uint32_t slot = untouched_number;
        EXPECT_EQ(bootstrap_slot_num_get(&slot), 0);
        EXPECT_EQ(slot, expected) << line;
    }
};

TEST_F(BootstrapSlotNum, IsADecimalNumber) {
    expect_slot("PD_SLOT_NUM=11", 11);
    expect_slot("PD_SLOT_NUM = 3", 3);
}

TEST_F(BootstrapSlotNum, Is0WhenItsTextIsNoNumber) {
    expect_slot("PD_SLOT_NUM=abc", 0);
    expect_slot("PD_SLOT_NUM=", 0);
    expect_slot("PD_SLOT_NUM=3\r", 3);
}

TEST_F(BootstrapSlotNum, IsCutTo32Bits) {
    expect_slot("PD_SLOT_NUM=4294967297", 1);
}

TEST_F(BootstrapSlotNum, PassesAFailedLookupOn) {
    write_file(bootstrap_path, "PD_CARD_TYPE=1\n");
    std::uint32_t slot = untouched_number;
    EXPECT_EQ(bootstrap_slot_num_get(&slot), -2);
    EXPECT_EQ(slot, untouched_number);
    expect_log(bootstrap_module, "ERROR", "FieldisNotFound", "Bootstrp field PD_SLOT_NUM is not found");
}

// The product identifier ----------------------------------------------------------------------------------------------

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

TEST_F(BootstrapCardPid, IsWhatFollowsTheLastEqualSign) {
    EXPECT_EQ(read("x=y"), 0);
    EXPECT_STREQ(pid, "y");
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
