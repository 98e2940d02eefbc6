/// What the closed functions answer, record, keep and let fail.
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "library_test_support.h"

namespace cardsim {
namespace {

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

TEST_F(LibraryTest, ServesTheInventory) {
    describe(card_table + leds + io_fpga + "[[fpd.region]]\nname = \"Golden\"\nrunning = \"0.9.1\"\n" +
             "[[fpd]]\nid = 4294967295\n");
    start_hardware();
    uint32_t group = 0;
    EXPECT_EQ(library().brd_local_card_group_id_get(&group), 0);
    EXPECT_EQ(group, 7U);
    uint32_t count = 0;
    EXPECT_EQ(library().brd_group_fpd_num_fpds_get(7, &count), 0);
    EXPECT_EQ(count, 2U);
    uint32_t ids[3] = {1, 1, 1};
    EXPECT_EQ(library().brd_group_fpd_obj_id_list_get(7, ids), 0);
    EXPECT_THAT(ids, ElementsAre(10U, 4294967295U, 1U));
    uint8_t regions = 9;
    EXPECT_EQ(library().brd_fpd_num_regions_get(7, 10, &regions), 0);
    EXPECT_EQ(regions, 2);
    BrdFpdRegion names[2] = {};
    EXPECT_EQ(library().brd_fpd_regions_get(7, 10, names, 2), 0);
    EXPECT_STREQ(names[0].name, "IoFpga");
    EXPECT_STREQ(names[1].name, "Golden");
    EXPECT_EQ(library().brd_fpd_num_regions_get(7, 4294967295, &regions), 0);
    EXPECT_EQ(regions, 0);
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
    uint32_t count = 0;
    EXPECT_EQ(library().brd_group_led_num_leds_get(7, &count), 0);
    EXPECT_EQ(count, 2U);
    uint32_t ids[3] = {1, 1, 1};
    EXPECT_EQ(library().brd_group_led_obj_id_list_get(7, ids), 0);
    EXPECT_THAT(ids, ElementsAre(3U, 4U, 1U));
    uint32_t value = 0;
    EXPECT_EQ(library().brd_led_type_get(7, 4, &value), 0);
    EXPECT_EQ(value, 9U);
    char name[8];
    EXPECT_EQ(library().brd_led_name_get(7, 4, name, sizeof name), 0);
    EXPECT_STREQ(name, "Uplink ");
    EXPECT_EQ(library().brd_led_current_state_get(7, 3, &value), 0);
    EXPECT_EQ(value, 2U);
    EXPECT_EQ(library().brd_led_current_color_get(7, 3, &value), 0);
    EXPECT_EQ(value, 4U);
    EXPECT_EQ(library().brd_led_state_and_color_set(7, 3, 3, 5), 0);
    EXPECT_EQ(library().brd_led_current_state_get(7, 3, &value), 0);
    EXPECT_EQ(value, 3U);
    EXPECT_EQ(library().brd_led_current_color_get(7, 3, &value), 0);
    EXPECT_EQ(value, 5U);
    EXPECT_EQ(saved_state().leds.at(0).state, 3U);
    EXPECT_EQ(saved_state().leds.at(0).color, 5U);
    EXPECT_EQ(saved_state().leds.at(1).state, 0U);
}

TEST_F(LibraryTest, KeepsTheStoredConfiguration) {
    int value = -1;
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(0, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_set_upgrade_mode(3, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(saved_state().auto_upgrade, 0);
    EXPECT_EQ(saved_state().upgrade_mode, 3);
    EXPECT_STREQ(err_msg, "");
}

TEST_F(LibraryTest, StoresNoConfigurationThatMeansNothing) {
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(2, err_msg, sizeof err_msg), EINVAL);
    EXPECT_STREQ(err_msg, "2 is not a value from 0 to 1");
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_set_upgrade_mode(-1, err_msg, sizeof err_msg), EINVAL);
    EXPECT_STREQ(err_msg, "-1 is not a value from 0 to 3");
    EXPECT_EQ(saved_state().auto_upgrade, 1);
    EXPECT_EQ(saved_state().upgrade_mode, 0);
}

TEST_F(LibraryTest, ServesAStoredConfigurationThatMeansNothing) {
    describe(card_table + "auto_upgrade = 12\nupgrade_mode = -7\n");
    int value = 0;
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, nullptr, 0), 0);
    EXPECT_EQ(value, 12);
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, nullptr, 0), 0);
    EXPECT_EQ(value, -7);
}

TEST_F(LibraryTest, SeesWhatAnotherProcessStored) {
    int value = -1;
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, nullptr, 0), 0);
    change_saved_state([](CardState &state) { state.auto_upgrade = 0; });
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, nullptr, 0), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(library().brd_intf_fpd_upgrade_cookie_set_upgrade_mode(1, nullptr, 0), 0);
    EXPECT_EQ(saved_state().auto_upgrade, 0);
}

TEST_F(LibraryTest, AnIdentityThatIsKnownAlreadyIsASuccess) {
    start_hardware();
    FruHwData data = identity();
    uint32_t handle = 0;
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

TEST_F(LibraryTest, KnowsTheCapabilitiesByName) {
    EXPECT_EQ(library().get_fpd_capability_info("IoFpga", 4711, hw_version()), 0x808U);
}

TEST_F(LibraryTest, FindsTheImageForARegion) {
    const FpdDesc untouched = description_result();
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
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

    request = description_request("IoFpga", 1);
    result = description_result();
    EXPECT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), ENOENT);
    EXPECT_STREQ(err_msg, "no image packaged for upgrade type 1");
    EXPECT_EQ(std::memcmp(&result, &untouched, sizeof result), 0);
}

TEST_F(LibraryTest, SaysWhenNoUpgradeIsNeeded) {
    FpdDescRequest request = description_request("IoFpga", 0);
    request.programmed_version.minor = 3;
    FpdDesc result = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(result.need_upgrade, 0);
    EXPECT_STREQ(result.status_msg, "no upgrade needed: 1.3.0 is programmed, 1.3.0 is packaged");
}

TEST_F(LibraryTest, ADescribedVerdictStands) {
    describe(card_table + io_fpga +
             "need_upgrade = false\nstatus_msg = \"wait\"\nmd5 = \"BAD\"\ndepends_on = \"SixteenLettersXX\"\n");
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(result.need_upgrade, 0);
    EXPECT_STREQ(result.status_msg, "wait");
    EXPECT_STREQ(result.md5, "BAD");
    EXPECT_STREQ(result.dependency, "SixteenLettersXX");
}

TEST_F(LibraryTest, ARunningVersionMayBeTooOld) {
    describe(card_table + io_fpga + "minimum = \"1.2.1\"\n");
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(result.status, FPD_DESC_STATUS_REV_NOT_SUPPORTED);
    EXPECT_EQ(version_text(result.minimum_version), "1.2.1");
    EXPECT_STREQ(result.status_msg, "running version 1.2.0 is older than 1.2.1, the oldest that can be upgraded");
    request.running_version.debug = 1;
    result = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(result.status, 0U);
}

TEST_F(LibraryTest, PackagedVersionsKeepTheirKind) {
    describe(card_table + io_fpga +
             "[[fpd.region.image]]\ntype = 1\nversion = \"1.2\"\nfile = \"b.img\"\n"
             "[[fpd.region.image]]\ntype = 2\nversion = \"unknown\"\nfile = \"c.img\"\n");
    FpdDescRequest request = description_request("IoFpga", 1);
    FpdDesc result = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(result.packaged_version.kind, FPD_VERSION_NO_DEBUG);
    EXPECT_EQ(result.need_upgrade, 0);
    EXPECT_STREQ(result.md5, "");
    request = description_request("IoFpga", 2);
    result = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(result.packaged_version.kind, FPD_VERSION_UNKNOWN);
    EXPECT_EQ(result.need_upgrade, 1);
}

TEST_F(LibraryTest, IsAskedBySixteenCharactersOfAName) {
    describe(card_table + R"(
[[fpd]]
id = 10
[[fpd.region]]
name = "SixteenCharactersAndMore"
running = "1.2.0"
info_flag = 6
capabilities = 0x11
[[fpd.region.image]]
type = 0
version = "1.3.0"
file = "io.img"
)");
    FpdDescRequest request = description_request("SixteenCharacter", 0);
    FpdDesc result = description_result();
    EXPECT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(library().get_fpd_capability_info("SixteenCharactersAndMore", 4711, hw_version()), 0x11U);
}

TEST_F(LibraryTest, StatusTextsLastAsLongAsTheProcess) {
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc first = description_result();
    ASSERT_EQ(library().check_and_get_upgrade_image(&request, &first, err_msg, sizeof err_msg), 0);
    for (uint16_t minor = 0; minor < 50; ++minor) {
        request.programmed_version.minor = minor;
        FpdDesc result = description_result();
        ASSERT_EQ(library().check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), 0);
    }
    EXPECT_STREQ(first.status_msg, "upgrade needed: 1.2.0 is programmed, 1.3.0 is packaged");
}

TEST_F(LibraryTest, RecordsEveryCall) {
    write_file(package() / "io.img", "abc");
    FruHwData data = identity();
    uint32_t handle = 0;
    uint32_t number = 0;
    int value = 0;
    BrdFpdRegion names[1] = {};
    BrdFpdInfo info = {};
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
    uint8_t regions = 0;
    char text[64];
    uint32_t ids[2];
    size_t length = 0;
    Library &lib = library();
    lib.brd_sb_attribute_flag_set(1);
    lib.brd_fru_hw_data_init(0, 0, &data, &handle);
    lib.brd_fru_hw_init(handle);
    lib.brd_local_card_group_id_get(&number);
    lib.brd_group_fpd_num_fpds_get(7, &number);
    lib.brd_group_fpd_obj_id_list_get(7, ids);
    lib.brd_fpd_num_regions_get(7, 10, &regions);
    lib.brd_fpd_regions_get(7, 10, names, 1);
    lib.brd_fpd_info_get(7, 10, 0, &info, err_msg, sizeof err_msg);
    lib.get_fpd_capability_info("IoFpga", 4711, hw_version());
    lib.check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg);
    lib.brd_group_led_init(7);
    lib.brd_group_led_num_leds_get(7, &number);
    lib.brd_group_led_obj_id_list_get(7, ids);
    lib.brd_led_type_get(7, 3, &number);
    lib.brd_led_name_get(7, 3, text, sizeof text);
    lib.brd_led_current_color_get(7, 3, &number);
    lib.brd_led_current_state_get(7, 3, &number);
    lib.brd_led_state_and_color_set(7, 3, 1, 2);
    lib.brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, err_msg, sizeof err_msg);
    lib.brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(0, err_msg, sizeof err_msg);
    lib.brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, err_msg, sizeof err_msg);
    lib.brd_intf_fpd_upgrade_cookie_set_upgrade_mode(9, err_msg, sizeof err_msg);
    lib.exec_shell_command(text, sizeof text, &length, err_msg, sizeof err_msg, "printf '\"\\\\'\nexit %d", 3);
    lib.brd_intf_fpd_image_md5_validate("/nowhere", "io.img", "cafe", err_msg, sizeof err_msg);
    EXPECT_THAT(
        recorded(),
        ElementsAre("brd_sb_attribute_flag_set value=1 -> 0",
                    "brd_fru_hw_data_init group_type=15 hw=1.2 slot=2 pid=\"SIM-LC24\" board_type=4711 -> 0",
                    "brd_fru_hw_init handle=0x1d0c0de5 -> 0", "brd_local_card_group_id_get -> 0",
                    "brd_group_fpd_num_fpds_get group=7 -> 0", "brd_group_fpd_obj_id_list_get group=7 -> 0",
                    "brd_fpd_num_regions_get group=7 obj=10 -> 0",
                    "brd_fpd_regions_get group=7 obj=10 num_regions=1 -> 0",
                    "brd_fpd_info_get group=7 obj=10 region=0 -> 0",
                    "get_fpd_capability_info name=\"IoFpga\" board_type=4711 hw_version=1.2.0 -> 0x808",
                    "check_and_get_upgrade_image name=\"IoFpga\" upgrade_type=0 programmed=1.2.0 running=1.2.0 -> 0",
                    "brd_group_led_init group=7 -> 0", "brd_group_led_num_leds_get group=7 -> 0",
                    "brd_group_led_obj_id_list_get group=7 -> 0", "brd_led_type_get group=7 obj=3 -> 0",
                    "brd_led_name_get group=7 obj=3 size=64 -> 0", "brd_led_current_color_get group=7 obj=3 -> 0",
                    "brd_led_current_state_get group=7 obj=3 -> 0",
                    "brd_led_state_and_color_set group=7 obj=3 state=1 color=2 -> 0",
                    "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config -> 0",
                    "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config value=0 -> 0",
                    "brd_intf_fpd_upgrade_cookie_get_upgrade_mode -> 0",
                    "brd_intf_fpd_upgrade_cookie_set_upgrade_mode value=9 -> 22",
                    "exec_shell_command command=\"printf '\\\"\\\\\\\\'\\nexit 3\" -> 3",
                    "brd_intf_fpd_image_md5_validate directory=\"/nowhere\" image=\"io.img\" md5=\"cafe\" -> 2"));
}

TEST_F(LibraryTest, AddsToTheRecordOfEarlierRuns) {
    write_file(state_directory() / calls_log, "an earlier call -> 0\n");
    EXPECT_EQ(library().brd_sb_attribute_flag_set(2), 0);
    EXPECT_THAT(recorded(), ElementsAre("an earlier call -> 0", "brd_sb_attribute_flag_set value=2 -> 0"));
}

TEST_F(LibraryTest, AnyCallMayBeMadeToFail) {
    std::string faults;
    for (const char *function : {"brd_sb_attribute_flag_set",
                                 "brd_local_card_group_id_get",
                                 "brd_group_fpd_num_fpds_get",
                                 "brd_group_fpd_obj_id_list_get",
                                 "brd_fpd_num_regions_get",
                                 "brd_fpd_regions_get",
                                 "brd_fpd_info_get",
                                 "brd_fpd_upgrade",
                                 "brd_group_led_init",
                                 "brd_group_led_num_leds_get",
                                 "brd_group_led_obj_id_list_get",
                                 "brd_led_type_get",
                                 "brd_led_name_get",
                                 "brd_led_current_color_get",
                                 "brd_led_current_state_get",
                                 "brd_led_state_and_color_set",
                                 "get_fpd_capability_info",
                                 "check_and_get_upgrade_image",
                                 "exec_shell_command",
                                 "brd_intf_fpd_image_md5_validate",
                                 "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config",
                                 "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config",
                                 "brd_intf_fpd_upgrade_cookie_get_upgrade_mode",
                                 "brd_intf_fpd_upgrade_cookie_set_upgrade_mode"}) {
        faults +=
            std::string("[[fault]]\ncall = \"") + function + "\"\ncode = -91\ntext = \"" + function + " broke\"\n";
    }
    describe(card_table + leds + io_fpga + faults);
    start_hardware();
    Library &lib = library();
    uint32_t number = 77;
    uint8_t regions = 77;
    int value = 77;
    uint32_t ids[2] = {77, 77};
    BrdFpdRegion names[1] = {};
    BrdFpdInfo info = {};
    char text[64] = "as before";
    size_t length = 77;
    Reports reports;
    BrdFpdUpgradeRequest upgrade = upgrade_request(0, package(), "io.img", reports);
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
    EXPECT_EQ(lib.brd_sb_attribute_flag_set(1), -91);
    EXPECT_EQ(lib.brd_local_card_group_id_get(&number), -91);
    EXPECT_EQ(lib.brd_group_fpd_num_fpds_get(7, &number), -91);
    EXPECT_EQ(lib.brd_group_fpd_obj_id_list_get(7, ids), -91);
    EXPECT_EQ(lib.brd_fpd_num_regions_get(7, 10, &regions), -91);
    EXPECT_EQ(lib.brd_fpd_regions_get(7, 10, names, 1), -91);
    EXPECT_EQ(lib.brd_fpd_info_get(7, 10, 0, &info, err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "brd_fpd_info_get broke");
    EXPECT_EQ(lib.brd_fpd_upgrade(7, 10, &upgrade, err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "brd_fpd_upgrade broke");
    EXPECT_EQ(lib.brd_group_led_init(7), -91);
    EXPECT_EQ(lib.brd_group_led_num_leds_get(7, &number), -91);
    EXPECT_EQ(lib.brd_group_led_obj_id_list_get(7, ids), -91);
    EXPECT_EQ(lib.brd_led_type_get(7, 3, &number), -91);
    EXPECT_EQ(lib.brd_led_name_get(7, 3, text, sizeof text), -91);
    EXPECT_EQ(lib.brd_led_current_color_get(7, 3, &number), -91);
    EXPECT_EQ(lib.brd_led_current_state_get(7, 3, &number), -91);
    EXPECT_EQ(lib.brd_led_state_and_color_set(7, 3, 1, 1), -91);
    EXPECT_EQ(lib.get_fpd_capability_info("IoFpga", 4711, hw_version()), 0xffffffa5U);
    EXPECT_EQ(lib.check_and_get_upgrade_image(&request, &result, err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "check_and_get_upgrade_image broke");
    EXPECT_EQ(lib.exec_shell_command(text, sizeof text, &length, err_msg, sizeof err_msg, "touch %s/ran",
                                     state_directory().c_str()),
              -91);
    EXPECT_STREQ(err_msg, "exec_shell_command broke");
    EXPECT_EQ(lib.brd_intf_fpd_image_md5_validate("/", "x", "y", err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "brd_intf_fpd_image_md5_validate broke");
    EXPECT_EQ(lib.brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(&value, err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config broke");
    EXPECT_EQ(lib.brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config(0, err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config broke");
    EXPECT_EQ(lib.brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "brd_intf_fpd_upgrade_cookie_get_upgrade_mode broke");
    EXPECT_EQ(lib.brd_intf_fpd_upgrade_cookie_set_upgrade_mode(1, err_msg, sizeof err_msg), -91);
    EXPECT_STREQ(err_msg, "brd_intf_fpd_upgrade_cookie_set_upgrade_mode broke");

    // A call that fails changes nothing.
    EXPECT_EQ(number, 77U);
    EXPECT_EQ(regions, 77);
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
    EXPECT_THAT(recorded(), ::testing::Contains("brd_led_state_and_color_set group=7 obj=3 state=1 color=1 -> -91"));
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
    expect_loud([&] { library().brd_group_fpd_num_fpds_get(7, &count); },
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

TEST_F(LibraryTest, LoudWithoutACard) {
    unsetenv("CARDSIM_CARD");
    expect_loud([&] { library().brd_sb_attribute_flag_set(1); },
                "no card: run this with `cardsim exec CARD -- COMMAND` (CARDSIM_CARD is not set)");
    describe(card_table);
    unsetenv("CARDSIM_STATE");
    library();
    EXPECT_DEATH(library().brd_sb_attribute_flag_set(1), "^cardsim: no card: .*CARDSIM_STATE is not set\\)\n$");
}

TEST_F(LibraryTest, LoudWithABrokenCard) {
    describe(card_table + "oops = 1\n");
    expect_loud([&] { library().brd_sb_attribute_flag_set(1); },
                std::string(getenv("CARDSIM_CARD")) + ":7: [card]: unknown key 'oops'");
}

TEST_F(LibraryTest, LoudWithABrokenState) {
    write_file(state_directory() / state_file, "boot = 1\n");
    expect_loud([&] { library().brd_sb_attribute_flag_set(1); },
                (state_directory() / state_file).string() + ":1: the state needs the key 'auto_upgrade'");
}

TEST_F(LibraryTest, LoudWithASpeedThatIsNone) {
    for (const char *speed : {"0", "-1", "1.5", "fast", "", "1000001"}) {
        setenv("CARDSIM_SPEED", speed, 1);
        expect_loud([&] { library().brd_sb_attribute_flag_set(1); },
                    std::string("CARDSIM_SPEED is '") + speed + "', not a whole number from 1 to 1000000");
    }
}

TEST_F(LibraryTest, LoudWhenTheRecordCannotBeWritten) {
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
