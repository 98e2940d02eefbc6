/// What the closed functions answer, record, keep and let fail.
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <tuple>
#include <type_traits>

#include "library_test_support.h"

namespace cardsim {
namespace {

using card_tests::names_in;
using card_tests::write_file;

using ::testing::ElementsAre;

TEST_F(LibraryTest, LoadingItDoesNothing) {
    unsetenv("CARDSIM_CARD");
    library();
    EXPECT_EQ(bootup_fpd_time_div, 1U);
    EXPECT_THAT(names_in(state_directory()), ElementsAre("pkg"));
}

TEST_F(LibraryTest, TheFirstCallSetsTheProgramsTimeDivisor) {
    setenv("CARDSIM_SPEED", "25", 1);
    library();
    EXPECT_EQ(bootup_fpd_time_div, 1U);
    EXPECT_EQ(library().brd_sb_attribute_flag_set(1), 0);
    EXPECT_EQ(bootup_fpd_time_div, 25U);
}

/// The value that a function hands out after these arguments.
template <typename... Parameters, typename... Given>
auto value_of(int (*function)(Parameters...), Given... given) {
    std::remove_pointer_t<std::tuple_element_t<sizeof...(Given), std::tuple<Parameters...>>> value = {};
    EXPECT_EQ(function(static_cast<uint32_t>(given)..., &value), 0);
    return value;
}

TEST_F(LibraryTest, ServesTheInventory) {
    describe(card_table + leds + io_fpga + "[[fpd.region]]\nname = \"Golden\"\nrunning = \"0.9.1\"\n" +
             "[[fpd]]\nid = 4294967295\n");
    start_hardware();
    EXPECT_EQ(value_of(library().brd_local_card_group_id_get), 7U);
    EXPECT_EQ(value_of(library().brd_group_fpd_num_fpds_get, 7), 2U);
    uint32_t ids[3] = {1, 1, 1};
    EXPECT_EQ(library().brd_group_fpd_obj_id_list_get(7, ids), 0);
    EXPECT_THAT(ids, ElementsAre(10U, 4294967295U, 1U));
    EXPECT_EQ(value_of(library().brd_fpd_num_regions_get, 7, 10), 2);
    EXPECT_EQ(value_of(library().brd_fpd_num_regions_get, 7, 4294967295U), 0);
    BrdFpdRegion names[2] = {};
    EXPECT_EQ(library().brd_fpd_regions_get(7, 10, names, 2), 0);
    EXPECT_STREQ(names[0].name, "IoFpga");
    EXPECT_STREQ(names[1].name, "Golden");
}

TEST_F(LibraryTest, FillsTheInformationOfARegion) {
    describe(card_table + "[[fpd]]\nid = 10\n[[fpd.region]]\nname = \"" + std::string(100, 'n') +
             "\"\nrunning = \"1.2.3\"\nprogrammed = \"4.5.65535\"\nupgrade_type = 5\nactivation = 6\nsequence = 15\n"
             "info_flag = 200\n");
    start_hardware();
    BrdFpdInfo info = {};
    std::memset(info.name, 'x', sizeof info.name);
    ASSERT_EQ(library().brd_fpd_info_get(7, 10, 0, &info, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(std::string(info.name), std::string(63, 'n'));
    EXPECT_EQ(info.running_major, 1);
    EXPECT_EQ(info.running_minor, 2);
    EXPECT_EQ(info.running_debug, 3);
    EXPECT_EQ(info.programmed_major, 4);
    EXPECT_EQ(info.programmed_minor, 5);
    EXPECT_EQ(info.programmed_debug, 65535);
    EXPECT_EQ(info.upgrade_type, 5);
    EXPECT_EQ(info.activation_kind, 6);
    EXPECT_EQ(info.initial_seq, 15);
    EXPECT_EQ(info.info_flag, 200);
    // A caller may ask again with what it got.
    EXPECT_EQ(library().brd_fpd_info_get(7, 10, 0, &info, err_msg, sizeof err_msg), 0);
    EXPECT_STREQ(err_msg, "");
}

TEST_F(LibraryTest, ServesAndKeepsTheLeds) {
    EXPECT_EQ(library().brd_group_led_init(7), 0);
    EXPECT_EQ(value_of(library().brd_group_led_num_leds_get, 7), 2U);
    uint32_t ids[3] = {1, 1, 1};
    EXPECT_EQ(library().brd_group_led_obj_id_list_get(7, ids), 0);
    EXPECT_THAT(ids, ElementsAre(3U, 4U, 1U));
    EXPECT_EQ(value_of(library().brd_led_type_get, 7, 4), 9U);
    char name[8];
    EXPECT_EQ(library().brd_led_name_get(7, 4, name, sizeof name), 0);
    EXPECT_STREQ(name, "Uplink ");
    EXPECT_EQ(value_of(library().brd_led_current_state_get, 7, 3), 2U);
    EXPECT_EQ(value_of(library().brd_led_current_color_get, 7, 3), 4U);
    EXPECT_EQ(library().brd_led_state_and_color_set(7, 3, 3, 5), 0);
    EXPECT_EQ(value_of(library().brd_led_current_state_get, 7, 3), 3U);
    EXPECT_EQ(value_of(library().brd_led_current_color_get, 7, 3), 5U);
    EXPECT_EQ(saved_state().leds.at(0).state, 3U);
    EXPECT_EQ(saved_state().leds.at(0).color, 5U);
    EXPECT_EQ(saved_state().leds.at(1).state, 0U);
}

class ConfigurationTest : public LibraryTest {
  protected:
    int get_auto_upgrade() {
        int value = -1;
        EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, err_msg, sizeof err_msg), 0);
        return value;
    }
    int get_mode() {
        int value = -1;
        EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, err_msg, sizeof err_msg), 0);
        return value;
    }
    int set_auto_upgrade(int value) {
        return library().brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(value, err_msg, sizeof err_msg);
    }
    int set_mode(int value) {
        return library().brd_intf_fpd_upgrade_cookie_set_upgrade_mode(value, err_msg, sizeof err_msg);
    }
};

TEST_F(ConfigurationTest, IsStored) {
    EXPECT_EQ(get_auto_upgrade(), 1);
    EXPECT_EQ(set_auto_upgrade(0), 0);
    EXPECT_EQ(set_mode(3), 0);
    EXPECT_EQ(get_auto_upgrade(), 0);
    EXPECT_EQ(get_mode(), 3);
    EXPECT_EQ(saved_state().auto_upgrade, 0);
    EXPECT_EQ(saved_state().upgrade_mode, 3);
    EXPECT_STREQ(err_msg, "");
}

TEST_F(ConfigurationTest, ThatMeansNothingIsNotStored) {
    EXPECT_EQ(set_auto_upgrade(2), EINVAL);
    EXPECT_STREQ(err_msg, "2 is not a value from 0 to 1");
    EXPECT_EQ(set_mode(-1), EINVAL);
    EXPECT_STREQ(err_msg, "-1 is not a value from 0 to 3");
    EXPECT_EQ(saved_state().auto_upgrade, 1);
    EXPECT_EQ(saved_state().upgrade_mode, 0);
}

TEST_F(ConfigurationTest, ThatMeansNothingIsServedAllTheSame) {
    describe(card_table + "auto_upgrade = 12\nupgrade_mode = -7\n");
    EXPECT_EQ(get_auto_upgrade(), 12);
    EXPECT_EQ(get_mode(), -7);
}

TEST_F(ConfigurationTest, OfAnotherProcessIsSeen) {
    EXPECT_EQ(get_auto_upgrade(), 1);
    change_saved_state([](CardState &state) { state.auto_upgrade = 0; });
    EXPECT_EQ(get_auto_upgrade(), 0);
    EXPECT_EQ(set_mode(1), 0);
    EXPECT_EQ(saved_state().auto_upgrade, 0);
}

TEST_F(LibraryTest, AnIdentityThatIsKnownAlreadyIsASuccess) {
    FruHwData data = identity();
    uint32_t handle = 0;
    start_hardware();
    EXPECT_EQ(library().brd_fru_hw_data_init(0, 0, &data, &handle), BRD_FRU_HW_DATA_PRESENT);
    EXPECT_EQ(library().brd_fru_hw_init(handle), 0);
}

TEST_F(LibraryTest, AFaultMayReportAKnownIdentity) {
    describe(card_table + "[[fault]]\ncall = \"brd_fru_hw_data_init\"\ncode = 0x10000408\n");
    FruHwData data = identity();
    uint32_t handle = 0;
    EXPECT_EQ(library().brd_fru_hw_data_init(0, 0, &data, &handle), BRD_FRU_HW_DATA_PRESENT);
    EXPECT_EQ(library().brd_fru_hw_init(handle), 0);
}

class ImageTest : public LibraryTest {
  protected:
    /// What is packaged for the region, after it was asked by `request`.
    int ask() {
        result = description_result();
        return library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg);
    }

    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result;
};

TEST_F(ImageTest, IsFoundForARegion) {
    ASSERT_EQ(ask(), 0);
    EXPECT_STREQ(result.dependency, "");
    EXPECT_STREQ(result.image, "io.img");
    EXPECT_STREQ(result.md5, "dd5e7c92bcd8886d57b0e8b46f9eb892");
    EXPECT_EQ(result.need_upgrade, 1);
    EXPECT_EQ(version_text(result.packaged_version), "1.3.0");
    EXPECT_EQ(version_text(result.minimum_version), "0.0.0");
    EXPECT_EQ(result.status, 0U);
    EXPECT_STREQ(result.status_msg, "upgrade needed: 1.2.0 is programmed, 1.3.0 is packaged");
    EXPECT_EQ(result.magic, FPD_DESC_MAGIC);
    EXPECT_EQ(result.version, FPD_DESC_VERSION);
    EXPECT_STREQ(err_msg, "");

    const FpdDesc untouched = description_result();
    request.upgrade_type = 1;
    EXPECT_EQ(ask(), ENOENT);
    EXPECT_STREQ(err_msg, "no image packaged for upgrade type 1");
    EXPECT_EQ(std::memcmp(&result, &untouched, sizeof result), 0);
}

TEST_F(ImageTest, IsNotNeededWhereItIsProgrammed) {
    request.programmed_version.minor = 3;
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(result.need_upgrade, 0);
    EXPECT_STREQ(result.status_msg, "no upgrade needed: 1.3.0 is programmed, 1.3.0 is packaged");
}

TEST_F(ImageTest, HasTheDescribedVerdict) {
    describe(card_table + io_fpga +
             "need_upgrade = false\nstatus_msg = \"wait\"\nmd5 = \"BAD\"\ndepends_on = \"SixteenLettersXX\"\n");
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(result.need_upgrade, 0);
    EXPECT_STREQ(result.status_msg, "wait");
    EXPECT_STREQ(result.md5, "BAD");
    EXPECT_STREQ(result.dependency, "SixteenLettersXX");
}

TEST_F(ImageTest, IsNotForARunningVersionThatIsTooOld) {
    describe(card_table + io_fpga + "minimum = \"1.2.1\"\n");
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(result.status, FPD_DESC_STATUS_REV_NOT_SUPPORTED);
    EXPECT_EQ(version_text(result.minimum_version), "1.2.1");
    EXPECT_STREQ(result.status_msg, "running version 1.2.0 is older than 1.2.1, the oldest that can be upgraded");
    request.running_version.debug = 1;
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(result.status, 0U);
}

TEST_F(ImageTest, KeepsTheKindOfItsVersion) {
    describe(card_table + io_fpga +
             "[[fpd.region.image]]\ntype = 1\nversion = \"1.2\"\nfile = \"b.img\"\n"
             "[[fpd.region.image]]\ntype = 2\nversion = \"unknown\"\nfile = \"c.img\"\n");
    request.upgrade_type = 1;
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(result.packaged_version.kind, FPD_VERSION_NO_DEBUG);
    EXPECT_EQ(result.need_upgrade, 0);
    EXPECT_STREQ(result.md5, "");
    request.upgrade_type = 2;
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(result.packaged_version.kind, FPD_VERSION_UNKNOWN);
    EXPECT_EQ(result.need_upgrade, 1);
}

TEST_F(ImageTest, IsAskedForBySixteenCharactersOfAName) {
    std::string region = io_fpga;
    region.replace(region.find("IoFpga"), 6, "SixteenCharactersAndMore");
    describe(card_table + region);
    request = description_request("SixteenCharacter", 0);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(library().get_fpd_capability_info("SixteenCharactersAndMore", 4711, hw_version()), 0x808U);
}

TEST_F(ImageTest, HasAStatusTextThatLastsAsLongAsTheProcess) {
    ASSERT_EQ(ask(), 0);
    const char *const first = result.status_msg;
    for (request.programmed_version.minor = 0; request.programmed_version.minor < 50;
         ++request.programmed_version.minor) {
        ASSERT_EQ(ask(), 0);
    }
    EXPECT_STREQ(first, "upgrade needed: 1.2.0 is programmed, 1.3.0 is packaged");
}

/// Every closed function once, each with its record; the arguments are the fixture's own. Those of the hardware layer
/// come first, as they must.
class EveryCallTest : public LibraryTest {
  protected:
    struct Row {
        int64_t result;
        std::string record;  ///< without the result
        std::function<int64_t()> call;
        bool has_reason = false;  ///< it takes an err_msg
    };

    const std::vector<Row> &rows() const { return rows_; }

    uint32_t number = 77;
    uint32_t handle = 77;
    uint8_t count = 77;
    int value = 77;
    uint32_t ids[2] = {77, 77};
    BrdFpdRegion names[1] = {};
    BrdFpdInfo info = {};
    char text[64] = "as before";
    size_t length = 77;
    Reports reports;
    FpdDesc result = description_result();

  private:
    Library &lib = library();
    FruHwData data = identity();
    BrdFpdUpgradeRequest upgrade = upgrade_request(0, package(), "io.img", reports);
    FpdDescRequest request = description_request("IoFpga", 0);
    const std::string place = package();
    const std::string command = "printf '\"\\\\'\ntouch " + state_directory().string() + "/ran; exit %d";
    const std::vector<Row> rows_ = {
        {0, "brd_fru_hw_data_init group_type=15 hw=1.2 slot=2 pid=\"SIM-LC24\" board_type=4711",
         [&] { return lib.brd_fru_hw_data_init(0, 0, &data, &handle); }},
        {0, "brd_fru_hw_init handle=0x1d0c0de5", [&] { return lib.brd_fru_hw_init(handle); }},
        {0, "brd_sb_attribute_flag_set value=1", [&] { return lib.brd_sb_attribute_flag_set(1); }},
        {0, "brd_local_card_group_id_get", [&] { return lib.brd_local_card_group_id_get(&number); }},
        {0, "brd_group_fpd_num_fpds_get group=7", [&] { return lib.brd_group_fpd_num_fpds_get(7, &number); }},
        {0, "brd_group_fpd_obj_id_list_get group=7", [&] { return lib.brd_group_fpd_obj_id_list_get(7, ids); }},
        {0, "brd_fpd_num_regions_get group=7 obj=10", [&] { return lib.brd_fpd_num_regions_get(7, 10, &count); }},
        {0, "brd_fpd_regions_get group=7 obj=10 num_regions=1",
         [&] { return lib.brd_fpd_regions_get(7, 10, names, 1); }},
        {0, "brd_fpd_info_get group=7 obj=10 region=0",
         [&] { return lib.brd_fpd_info_get(7, 10, 0, &info, err_msg, sizeof err_msg); }, true},
        {0, "brd_fpd_upgrade group=7 obj=10 region=0 directory=\"" + place + "\" file=\"io.img\"",
         [&] { return lib.brd_fpd_upgrade(7, 10, &upgrade, err_msg, sizeof err_msg); }, true},
        {0x808, "get_fpd_capability_info name=\"IoFpga\" board_type=4711 hw_version=1.2.0",
         [&] { return lib.get_fpd_capability_info("IoFpga", 4711, hw_version()); }},
        {0, "check_and_get_upgrade_image name=\"IoFpga\" upgrade_type=0 programmed=1.2.0 running=1.2.0",
         [&] { return lib.check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg); }, true},
        {0, "brd_group_led_init group=7", [&] { return lib.brd_group_led_init(7); }},
        {0, "brd_group_led_num_leds_get group=7", [&] { return lib.brd_group_led_num_leds_get(7, &number); }},
        {0, "brd_group_led_obj_id_list_get group=7", [&] { return lib.brd_group_led_obj_id_list_get(7, ids); }},
        {0, "brd_led_type_get group=7 obj=3", [&] { return lib.brd_led_type_get(7, 3, &number); }},
        {0, "brd_led_name_get group=7 obj=3 size=64", [&] { return lib.brd_led_name_get(7, 3, text, sizeof text); }},
        {0, "brd_led_current_color_get group=7 obj=3", [&] { return lib.brd_led_current_color_get(7, 3, &number); }},
        {0, "brd_led_current_state_get group=7 obj=3", [&] { return lib.brd_led_current_state_get(7, 3, &number); }},
        {0, "brd_led_state_and_color_set group=7 obj=3 state=1 color=2",
         [&] { return lib.brd_led_state_and_color_set(7, 3, 1, 2); }},
        {0, "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config",
         [&] { return lib.brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, err_msg, 256); }, true},
        {0, "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config value=0",
         [&] { return lib.brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(0, err_msg, 256); }, true},
        {0, "brd_intf_fpd_upgrade_cookie_get_upgrade_mode",
         [&] { return lib.brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, err_msg, 256); }, true},
        {EINVAL, "brd_intf_fpd_upgrade_cookie_set_upgrade_mode value=9",
         [&] { return lib.brd_intf_fpd_upgrade_cookie_set_upgrade_mode(9, err_msg, 256); }, true},
        {3,
         "exec_shell_command command=\"printf '\\\"\\\\\\\\'\\ntouch " + state_directory().string() + "/ran; exit 3\"",
         [&] { return lib.exec_shell_command(text, 64, &length, err_msg, 256, command.c_str(), 3); }, true},
        {ENOENT, "brd_intf_fpd_image_md5_validate directory=\"/nowhere\" image=\"io.img\" md5=\"cafe\"",
         [&] { return lib.brd_intf_fpd_image_md5_validate("/nowhere", "io.img", "cafe", err_msg, 256); }, true},
    };
};

TEST_F(EveryCallTest, IsRecorded) {
    std::vector<std::string> records;
    for (const Row &row : rows()) {
        EXPECT_EQ(row.call(), row.result) << row.record;
        if (row.record.starts_with("brd_fpd_upgrade ")) records.push_back(row.record + " begin");
        records.push_back(row.record + (row.result == 0x808 ? " -> 0x808" : " -> " + std::to_string(row.result)));
    }
    EXPECT_EQ(recorded(), records);
    EXPECT_TRUE(std::filesystem::exists(state_directory() / "ran"));
}

TEST_F(EveryCallTest, MayBeMadeToFailAndThenChangesNothing) {
    std::string faults;
    for (const Row &row : rows()) {
        const std::string function = row.record.substr(0, row.record.find(' '));
        if (function.starts_with("brd_fru_hw")) continue;
        faults += "[[fault]]\ncall = \"" + function + "\"\ncode = -91\ntext = \"" + function + " broke\"\n";
    }
    describe(card_table + leds + io_fpga + faults);
    for (const Row &row : rows()) {
        const std::string function = row.record.substr(0, row.record.find(' '));
        if (function.starts_with("brd_fru_hw")) {
            EXPECT_EQ(row.call(), 0);
            continue;
        }
        EXPECT_EQ(row.call(), row.result == 0x808 ? int64_t{0xffffffa5} : -91) << function;
        if (row.has_reason) {
            EXPECT_EQ(err_msg, function + " broke");
        }
    }
    EXPECT_EQ(number, 77U);
    EXPECT_EQ(count, 77);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(ids[0], 77U);
    EXPECT_STREQ(names[0].name, "");
    EXPECT_STREQ(info.name, "");
    EXPECT_STREQ(text, "as before");
    EXPECT_EQ(length, 77U);
    EXPECT_TRUE(reports.percents.empty());
    EXPECT_STREQ(result.image, "");
    EXPECT_FALSE(std::filesystem::exists(state_directory() / "ran"));
    EXPECT_FALSE(std::filesystem::exists(state_directory() / state_file));
    EXPECT_THAT(recorded(), ::testing::Contains("brd_led_state_and_color_set group=7 obj=3 state=1 color=2 -> -91"));
}

TEST_F(LibraryTest, AddsToTheRecordOfEarlierRuns) {
    write_file(state_directory() / calls_log, "an earlier call -> 0\n");
    EXPECT_EQ(library().brd_sb_attribute_flag_set(2), 0);
    EXPECT_THAT(recorded(), ElementsAre("an earlier call -> 0", "brd_sb_attribute_flag_set value=2 -> 0"));
}

TEST_F(LibraryTest, TheHardwareLayerMayFailToStart) {
    describe(card_table + io_fpga +
             "[[fault]]\ncall = \"brd_fru_hw_data_init\"\nnth = 1\ncode = 5\n"
             "[[fault]]\ncall = \"brd_fru_hw_init\"\nnth = 1\ncode = 6\n");
    FruHwData data = identity();
    uint32_t handle = 77;
    EXPECT_EQ(library().brd_fru_hw_data_init(0, 0, &data, &handle), 5);
    EXPECT_EQ(handle, 77U);
    EXPECT_EQ(library().brd_fru_hw_data_init(0, 0, &data, &handle), 0);
    EXPECT_EQ(library().brd_fru_hw_init(handle), 6);
    uint32_t count = 0;
    expect_abort([&] { library().brd_group_fpd_num_fpds_get(7, &count); },
                 "brd_group_fpd_num_fpds_get: called before the hardware layer was started");
}

TEST_F(LibraryTest, AFaultMayHitOneCallOfOneBoot) {
    describe(card_table + "[[fault]]\ncall = \"brd_sb_attribute_flag_set\"\nnth = 2\nboot = 1\ncode = 5\n" +
             "[[fault]]\ncall = \"brd_sb_attribute_flag_set\"\nnth = 3\nboot = 2\ncode = 6\n");
    EXPECT_EQ(library().brd_sb_attribute_flag_set(1), 0);
    EXPECT_EQ(library().brd_sb_attribute_flag_set(1), 5);
    EXPECT_EQ(library().brd_sb_attribute_flag_set(1), 0);
}

TEST_F(LibraryTest, TheNextBootHasFaultsOfItsOwn) {
    describe(card_table + "[[fault]]\ncall = \"brd_sb_attribute_flag_set\"\nboot = 1\ncode = 5\n" +
             "[[fault]]\ncall = \"brd_sb_attribute_flag_set\"\nboot = 2\ncode = 6\n");
    change_saved_state(reload);
    EXPECT_EQ(library().brd_sb_attribute_flag_set(1), 6);
}

TEST_F(LibraryTest, AFaultWithoutATextLeavesTheCallersTextAlone) {
    describe(card_table +
             "[[fault]]\ncall = \"brd_intf_fpd_upgrade_cookie_get_upgrade_mode\"\ncode = 5\nnth = 1\n"
             "[[fault]]\ncall = \"brd_intf_fpd_upgrade_cookie_get_upgrade_mode\"\ncode = 5\ntext = \"a long text\"\n");
    int mode = 0;
    std::strcpy(err_msg, "as before");
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&mode, err_msg, sizeof err_msg), 5);
    EXPECT_STREQ(err_msg, "as before");
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&mode, err_msg, 7), 5);
    EXPECT_STREQ(err_msg, "a long");
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&mode, nullptr, 0), 5);
}

TEST_F(LibraryTest, AbortsWithoutACard) {
    unsetenv("CARDSIM_CARD");
    expect_abort([&] { library().brd_sb_attribute_flag_set(1); },
                 "no card: run this with `cardsim exec CARD -- COMMAND` (CARDSIM_CARD is not set)");
    describe(card_table);
    unsetenv("CARDSIM_STATE");
    library();
    EXPECT_DEATH(library().brd_sb_attribute_flag_set(1), "^cardsim: no card: .*CARDSIM_STATE is not set\\)\n$");
}

TEST_F(LibraryTest, AbortsWithABrokenCardOrState) {
    const auto call = [&] { library().brd_sb_attribute_flag_set(1); };
    write_file(state_directory() / state_file, "boot = 1\n");
    expect_abort(call, (state_directory() / state_file).string() + ":1: the state needs the key 'auto_upgrade'");
    describe(card_table + "oops = 1\n");
    expect_abort(call, std::string(getenv("CARDSIM_CARD")) + ":7: [card]: unknown key 'oops'");
}

TEST_F(LibraryTest, AbortsWithASpeedThatIsNone) {
    for (const char *speed : {"0", "-1", "1.5", "fast", "", "1000001"}) {
        setenv("CARDSIM_SPEED", speed, 1);
        expect_abort([&] { library().brd_sb_attribute_flag_set(1); },
                     std::string("CARDSIM_SPEED is '") + speed + "', not a whole number from 1 to 1000000");
    }
}

TEST_F(LibraryTest, AbortsWhenTheRecordCannotBeWritten) {
    // Long enough that the limit below strikes the record alone.
    write_file(state_directory() / calls_log, std::string(100000, '\n'));
    EXPECT_EQ(library().brd_sb_attribute_flag_set(1), 0);
    const auto call_on_a_full_disk = [&] {
        // A part of the line still finds room.
        const rlimit full = {std::filesystem::file_size(state_directory() / calls_log) + 3, RLIM_INFINITY};
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &full);
        library().brd_sb_attribute_flag_set(1);
    };
    EXPECT_DEATH(call_on_a_full_disk(), "cardsim: brd_sb_attribute_flag_set: its record cannot be written\n");
}

}  // namespace
}  // namespace cardsim
