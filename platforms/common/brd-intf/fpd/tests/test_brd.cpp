#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string>
#include <vector>

#include "brd_intf_auto_fpd_upgrade_brd.h"
#include "interpose.h"
#include "run_support.h"
#include BOOTUP_FPD_BOARD_TYPES

namespace {

using interpose::Call;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr Module brd_module{"BRD", "brd_intf_auto_fpd_upgrade_brd"};

// In neither table.
constexpr std::uint32_t foreign_board_type = 0xffffffff;

/// Lines of the module itself, without those of what it calls.
std::vector<LogLine> own_lines() {
    std::vector<LogLine> lines = log_lines();
    std::erase_if(lines, [](const LogLine &line) { return line.file != brd_module.file; });
    return lines;
}

std::string bootstrap_with_type(std::uint32_t board_type) {
    return "PD_CARD_TYPE=" + std::to_string(board_type) +
           "\nHW_MAJOR_VERSION=70000\nHW_MINOR_VERSION=3\nPD_SLOT_NUM=11\nMY_CARD_PID=CARD-36H\n";
}

/// The default bootstrap file without the line of this key.
std::string bootstrap_without(const std::string &key) {
    std::string text = default_bootstrap_text();
    const std::size_t begin = text.find(key + "=");
    return text.erase(begin, text.find('\n', begin) + 1 - begin);
}

/// The identity that the hardware layer is to get from bootstrap_with_type.
RawRecord identity(std::uint32_t group_type, std::uint32_t board_type) {
    return RawRecord(104)
        .put(0, group_type)
        .put(4, std::uint32_t{70000})
        .put(8, std::uint32_t{3})
        .put(12, std::uint32_t{11})
        .put_text(16, "CARD-36H")
        .put(80, board_type)
        .put(96, std::uint8_t{1});
}

// The families of board types -----------------------------------------------------------------------------------------

struct GroupType : CardTest {
    std::uint32_t group_type_of(std::uint32_t board_type) {
        write_file(bootstrap_path, "PD_CARD_TYPE=" + std::to_string(board_type) + "\n");
        std::uint32_t group_type = 0;
        EXPECT_EQ(get_card_group_type(&group_type), 0);
        return group_type;
    }
};

TEST_F(GroupType, Is3ForEachCodeOfTheFirstFamily) {
    EXPECT_EQ(std::size(group3_board_types), 100U);
    for (const std::uint32_t board_type : group3_board_types) {
        EXPECT_EQ(board_type_in_group3(board_type), 1) << board_type;
        EXPECT_EQ(board_type_in_group4(board_type), 0) << board_type;
        EXPECT_EQ(group_type_of(board_type), 3U) << board_type;
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(GroupType, Is4ForEachCodeOfTheSecondFamily) {
    EXPECT_EQ(std::size(group4_board_types), 196U);
    for (const std::uint32_t board_type : group4_board_types) {
        EXPECT_EQ(board_type_in_group3(board_type), 0) << board_type;
        EXPECT_EQ(board_type_in_group4(board_type), 1) << board_type;
        EXPECT_EQ(group_type_of(board_type), 4U) << board_type;
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(GroupType, Is15ForEveryOtherCode) {
    for (const std::uint32_t board_type : {std::uint32_t{0}, std::uint32_t{1}, foreign_board_type}) {
        EXPECT_EQ(board_type_in_group3(board_type), 0) << board_type;
        EXPECT_EQ(board_type_in_group4(board_type), 0) << board_type;
        EXPECT_EQ(group_type_of(board_type), 15U) << board_type;
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(GroupType, KnowsNoMoreCodesThanTheTablesHave) {
    int in_group3 = 0;
    int in_group4 = 0;
    for (std::uint32_t board_type = 0; board_type <= 0xffff; ++board_type) {
        in_group3 += board_type_in_group3(board_type);
        in_group4 += board_type_in_group4(board_type);
    }
    const auto is_swept = [](std::uint32_t board_type) { return board_type <= 0xffff; };
    EXPECT_EQ(in_group3, std::count_if(std::begin(group3_board_types), std::end(group3_board_types), is_swept));
    EXPECT_EQ(in_group4, std::count_if(std::begin(group4_board_types), std::end(group4_board_types), is_swept));
}

TEST_F(GroupType, PassesTheFailedReadOfTheBoardTypeOn) {
    write_file(bootstrap_path, "PD_SLOT_NUM=1\n");
    std::uint32_t group_type = 99;
    EXPECT_EQ(get_card_group_type(&group_type), -2);
    EXPECT_EQ(group_type, 99U);
    EXPECT_THAT(own_lines(),
                ElementsAre(log_line(brd_module, "ERROR", "BoardTypeGetFail", "Failed to get Card Board Type")));
}

// The start of the hardware layer -------------------------------------------------------------------------------------

struct BrdCardInit : CardTest {
    /// Expects that initialisation ends with the code and these lines of the module, before anything is registered.
    void expect_failed_read(int rc, const std::vector<testing::Matcher<const LogLine &>> &lines) {
        EXPECT_EQ(brd_card_init(), rc);
        EXPECT_THAT(own_lines(), testing::ElementsAreArray(lines));
        EXPECT_THAT(fake_platform().calls(), IsEmpty());
    }

    /// Each read of a key asks for the file once; lets the nth of them not find it.
    void expect_failed_read_of_key(unsigned nth, const std::vector<testing::Matcher<const LogLine &>> &lines) {
        interpose::fail(Call::stat, ENOENT, nth);
        expect_failed_read(-38, lines);
        EXPECT_EQ(interpose::calls(Call::stat), nth) << "nothing is read behind the failure";
    }

    static testing::Matcher<const LogLine &> error(const char *tag, const char *message) {
        return log_line(brd_module, "ERROR", tag, message);
    }
};

TEST_F(BrdCardInit, HandsTheIdentityToTheHardwareLayerByteForByte) {
    write_file(bootstrap_path, bootstrap_with_type(group4_board_types[0]));
    EXPECT_EQ(brd_card_init(), 0);
    ASSERT_THAT(fake_platform().hardware_data(), SizeIs(1));
    EXPECT_EQ(bytes_of(fake_platform().hardware_data()[0]), identity(4, group4_board_types[0]).bytes);
}

TEST_F(BrdCardInit, RegistersTheIdentityAndStartsTheHardwareLayerWithItsHandle) {
    fake_platform().brd_fru_hw_data_init = [](std::uint32_t, std::uint32_t, FruHwData *, std::uint32_t *handle) {
        *handle = 0xfedcba98;
        return 0;
    };
    EXPECT_EQ(brd_card_init(), 0);
    EXPECT_THAT(fake_platform().calls(),
                ElementsAre(FakeCall{"brd_fru_hw_data_init", "0, 0"}, FakeCall{"brd_fru_hw_init", "4275878552"}));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BrdCardInit, GoesOnWithABoardTypeOfNeitherFamily) {
    write_file(bootstrap_path, bootstrap_with_type(foreign_board_type));
    EXPECT_EQ(brd_card_init(), 0);
    ASSERT_THAT(fake_platform().hardware_data(), SizeIs(1));
    EXPECT_EQ(bytes_of(fake_platform().hardware_data()[0]), identity(15, foreign_board_type).bytes);
    EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), SizeIs(1));
}

TEST_F(BrdCardInit, CutsTheProductIdentifierTo63Characters) {
    write_file(bootstrap_path, bootstrap_without("MY_CARD_PID") + "MY_CARD_PID=" + std::string(64, 'p') + "\n");
    EXPECT_EQ(brd_card_init(), 0);
    ASSERT_THAT(fake_platform().hardware_data(), SizeIs(1));
    const std::string bytes = bytes_of(fake_platform().hardware_data()[0]);
    EXPECT_EQ(bytes.substr(16, 64), std::string(63, 'p') + '\0');
}

TEST_F(BrdCardInit, StartsTheHardwareLayerWhenTheIdentityWasThereBefore) {
    fake_platform().brd_fru_hw_data_init = [](std::uint32_t, std::uint32_t, FruHwData *, std::uint32_t *handle) {
        *handle = 21;
        return 0x10000408;
    };
    EXPECT_EQ(brd_card_init(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), ElementsAre(FakeCall{"brd_fru_hw_init", "21"}));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BrdCardInit, FailsWithoutALineWhenTheIdentityCannotBeRegistered) {
    for (const int code : {1, -1, 0x408, 0x10000409}) {
        fake_platform().brd_fru_hw_data_init = [code](std::uint32_t, std::uint32_t, FruHwData *, std::uint32_t *) {
            return code;
        };
        EXPECT_EQ(brd_card_init(), -38) << code;
    }
    EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BrdCardInit, FailsWithoutALineWhenTheHardwareLayerDoesNotStart) {
    for (const int code : {1, -1, 0x10000408}) {
        fake_platform().brd_fru_hw_init = [code](std::uint32_t) { return code; };
        EXPECT_EQ(brd_card_init(), -38) << code;
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BrdCardInit, ReadsTheBoardTypeForTheGroupTypeFirst) {
    expect_failed_read_of_key(1, {error("BoardTypeGetFail", "Failed to get Card Board Type"),
                                  error("BrdInitGroupTypeGetFail", "Failed to get Card BRD Group Type rc -38")});
}

TEST_F(BrdCardInit, ReadsTheMajorVersionSecond) {
    expect_failed_read_of_key(2, {error("BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc -38")});
}

TEST_F(BrdCardInit, ReadsTheMinorVersionThird) {
    expect_failed_read_of_key(3, {error("BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc -38")});
}

TEST_F(BrdCardInit, ReadsTheSlotNumberFourth) {
    expect_failed_read_of_key(4, {error("BrdInitPdSlotNumGetFail", "Failed to get PD slot num rc -38")});
}

TEST_F(BrdCardInit, ReadsTheProductIdentifierFifth) {
    expect_failed_read_of_key(5, {error("BrdInitMyCardPIDGetFail", "Failed to get my Card PID rc -38")});
}

TEST_F(BrdCardInit, ReadsTheBoardTypeAgainLast) {
    expect_failed_read_of_key(6, {error("BrdInitHwBoardTyepGetFail", "Failed to get HW Board Type Type")});
}

TEST_F(BrdCardInit, FailsWithoutABoardType) {
    write_file(bootstrap_path, bootstrap_without("PD_CARD_TYPE"));
    expect_failed_read(-2, {error("BoardTypeGetFail", "Failed to get Card Board Type"),
                            error("BrdInitGroupTypeGetFail", "Failed to get Card BRD Group Type rc -2")});
}

TEST_F(BrdCardInit, FailsWithoutAHardwareVersion) {
    write_file(bootstrap_path, bootstrap_without("HW_MINOR_VERSION"));
    expect_failed_read(-2, {error("BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc -2")});
}

TEST_F(BrdCardInit, FailsWithAHardwareVersionThatIsNoNumber) {
    write_file(bootstrap_path, "HW_MAJOR_VERSION=1a\n" + default_bootstrap_text());
    expect_failed_read(-22, {error("BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc -22")});
}

TEST_F(BrdCardInit, FailsBehindALineThatIsTooLong) {
    write_file(bootstrap_path,
               bootstrap_without("PD_SLOT_NUM") + "OTHER=" + std::string(300, 'x') + "\nPD_SLOT_NUM=2\n");
    expect_failed_read(-7, {error("BrdInitPdSlotNumGetFail", "Failed to get PD slot num rc -7")});
}

TEST_F(BrdCardInit, RegistersNothingWithoutAProductIdentifier) {
    write_file(bootstrap_path, bootstrap_without("MY_CARD_PID"));
    expect_failed_read(-2, {error("BrdInitMyCardPIDGetFail", "Failed to get my Card PID rc -2")});
}

TEST_F(BrdCardInit, StartsTheHardwareLayerWithHandle0WhenTheLibraryTellsOfNone) {
    fake_platform().brd_fru_hw_data_init = [](auto...) { return 0; };
    EXPECT_EQ(brd_card_init(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), ElementsAre(FakeCall{"brd_fru_hw_init", "0"}));
}

}  // namespace
