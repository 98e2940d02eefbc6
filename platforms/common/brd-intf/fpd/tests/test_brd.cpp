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

struct GroupType : CardTest {
    static void expect_group_type(std::uint32_t board_type, std::uint32_t expected) {
        write_file(bootstrap_path, bootstrap_with_type(board_type));
        std::uint32_t group_type = 0;
        EXPECT_EQ(get_card_group_type(&group_type), 0);
        EXPECT_EQ(group_type, expected) << board_type;
        EXPECT_EQ(board_type_in_group3(board_type), expected == 3) << board_type;
        EXPECT_EQ(board_type_in_group4(board_type), expected == 4) << board_type;
    }
};

TEST_F(GroupType, Is3Or4ForEachCodeOfAFamilyAnd15ForEveryOther) {
    EXPECT_EQ(std::size(group3_board_types), 100U);
    for (const std::uint32_t board_type : group3_board_types) expect_group_type(board_type, 3);
    EXPECT_EQ(std::size(group4_board_types), 196U);
    for (const std::uint32_t board_type : group4_board_types) expect_group_type(board_type, 4);
    for (const std::uint32_t board_type : {std::uint32_t{0}, std::uint32_t{1}, foreign_board_type})
        expect_group_type(board_type, 15);
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
    EXPECT_THAT(log_lines(brd_module),
                ElementsAre(log_line(brd_module, "ERROR", "BoardTypeGetFail", "Failed to get Card Board Type")));
}

struct BrdCardInit : CardTest {
    /// Expects that the hardware layer gets the identity.
    static void expect_identity(std::uint32_t group_type, std::uint32_t board_type) {
        write_file(bootstrap_path, bootstrap_with_type(board_type));
        fake_platform().forget_calls();
        EXPECT_EQ(brd_card_init(), 0);
        ASSERT_THAT(fake_platform().hardware_data(), SizeIs(1));
        EXPECT_EQ(bytes_of(fake_platform().hardware_data()[0]), identity(group_type, board_type).bytes);
        EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), SizeIs(1));
    }
    /// Expects that initialisation ends with the code and this line of the module, before anything is registered.
    static void expect_failed_read(int rc, const char *tag, const char *message) {
        clear_log();
        EXPECT_EQ(brd_card_init(), rc);
        const std::vector<LogLine> lines = log_lines(brd_module);
        ASSERT_THAT(lines, testing::Not(IsEmpty()));
        EXPECT_THAT(lines.back(), log_line(brd_module, "ERROR", tag, message));
        const bool of_group_type = lines[0].tag == "BoardTypeGetFail";  // whose failed read has a line of its own
        EXPECT_EQ(lines.size(), of_group_type ? 2U : 1U);
        EXPECT_THAT(fake_platform().calls(), IsEmpty());
    }
};

TEST_F(BrdCardInit, HandsTheIdentityToTheHardwareLayerByteForByte) {
    expect_identity(4, group4_board_types[0]);
    expect_identity(15, foreign_board_type);
}

TEST_F(BrdCardInit, CutsTheProductIdentifierTo63Characters) {
    write_file(bootstrap_path, bootstrap_without("MY_CARD_PID") + "MY_CARD_PID=" + std::string(64, 'p') + "\n");
    EXPECT_EQ(brd_card_init(), 0);
    ASSERT_THAT(fake_platform().hardware_data(), SizeIs(1));
    const std::string bytes = bytes_of(fake_platform().hardware_data()[0]);
    EXPECT_EQ(bytes.substr(16, 64), std::string(63, 'p') + '\0');
}

TEST_F(BrdCardInit, StartsTheHardwareLayerWithTheHandleOfAnIdentityThatIsNewOrWasThereBefore) {
    for (const int registered : {0, 0x10000408}) {
        fake_platform().forget_calls();
        fake_platform().brd_fru_hw_data_init = [registered](auto, auto, FruHwData *, std::uint32_t *handle) {
            *handle = 0xfedcba98;
            return registered;
        };
        EXPECT_EQ(brd_card_init(), 0);
        EXPECT_THAT(fake_platform().calls(),
                    ElementsAre(FakeCall{"brd_fru_hw_data_init", "0, 0"}, FakeCall{"brd_fru_hw_init", "4275878552"}));
    }
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BrdCardInit, StartsTheHardwareLayerWithHandle0WhenTheLibraryTellsOfNone) {
    fake_platform().brd_fru_hw_data_init = [](auto...) { return 0; };
    EXPECT_EQ(brd_card_init(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), ElementsAre(FakeCall{"brd_fru_hw_init", "0"}));
}

TEST_F(BrdCardInit, FailsWithoutALineWhenTheIdentityCannotBeRegisteredOrTheHardwareLayerDoesNotStart) {
    for (const int code : {1, -1, 0x10000408}) {
        fake_platform().brd_fru_hw_init = [code](auto...) { return code; };
        EXPECT_EQ(brd_card_init(), -38) << code;
    }
    fake_platform().reset();
    for (const int code : {1, -1, 0x408, 0x10000409}) {
        fake_platform().brd_fru_hw_data_init = [code](auto...) { return code; };
        EXPECT_EQ(brd_card_init(), -38) << code;
    }
    EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(BrdCardInit, ReadsEachKeyInItsTurnUpToTheFirstThatIsNotThere) {
    const struct {
        unsigned nth;  // read: each asks for the file once
        const char *tag, *message;
    } cases[] = {
        {1, "BrdInitGroupTypeGetFail", "Failed to get Card BRD Group Type rc -38"},
        {2, "BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc -38"},
        {3, "BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc -38"},
        {4, "BrdInitPdSlotNumGetFail", "Failed to get PD slot num rc -38"},
        {5, "BrdInitMyCardPIDGetFail", "Failed to get my Card PID rc -38"},
        {6, "BrdInitHwBoardTyepGetFail", "Failed to get HW Board Type Type"},
    };
    for (const auto &[nth, tag, message] : cases) {
        interpose::reset();
        interpose::fail(Call::stat, ENOENT, nth);
        expect_failed_read(-38, tag, message);
        EXPECT_EQ(interpose::calls(Call::stat), nth) << "nothing is read after the failure";
    }
}

TEST_F(BrdCardInit, FailsWithoutAKeyOrWithAValueThatIsNone) {
    const struct {
        std::string file;
        int rc;
        const char *tag, *message;
    } cases[] = {
        {bootstrap_without("PD_CARD_TYPE"), -2, "BrdInitGroupTypeGetFail", "Failed to get Card BRD Group Type rc -2"},
        {bootstrap_without("HW_MINOR_VERSION"), -2, "BrdInitCardHWVersionGetFail",
         "Failed to get Card HW Version rc -2"},
        {"HW_MAJOR_VERSION=1a\n" + default_bootstrap_text(), -22, "BrdInitCardHWVersionGetFail",
         "Failed to get Card HW Version rc -22"},
        {bootstrap_without("PD_SLOT_NUM") + "OTHER=" + std::string(300, 'x') + "\nPD_SLOT_NUM=2\n", -7,
         "BrdInitPdSlotNumGetFail", "Failed to get PD slot num rc -7"},
        {bootstrap_without("MY_CARD_PID"), -2, "BrdInitMyCardPIDGetFail", "Failed to get my Card PID rc -2"},
    };
    for (const auto &[file, rc, tag, message] : cases) {
        write_file(bootstrap_path, file);
        expect_failed_read(rc, tag, message);
    }
}

}  // namespace
