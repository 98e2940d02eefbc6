/// What the card does not forgive.
#include <cstring>
#include <thread>

#include "library_test_support.h"

namespace cardsim {
namespace {

/// Every test here begins with the hardware layer up, unless it says otherwise.
class StrictnessTest : public LibraryTest {
  protected:
    void SetUp() override { start_hardware(); }

    void expect_loud_check(const FpdDescRequest &request, const FpdDesc &result, const std::string &reason) {
        expect_loud(
            [&] {
                FpdDescRequest asked = request;
                FpdDesc answered = result;
                library().check_and_get_upgrade_image(&asked, &answered, err_msg, sizeof err_msg);
            },
            "check_and_get_upgrade_image: " + reason);
    }

    /// A good request with one change is refused.
    void expect_loud_request(const std::function<void(FpdDescRequest &)> &change, const std::string &reason) {
        FpdDescRequest request = description_request("IoFpga", 0);
        change(request);
        expect_loud_check(request, description_result(), "request: " + reason);
    }

    void expect_loud_result(const std::function<void(FpdDesc &)> &change, const std::string &reason) {
        FpdDesc result = description_result();
        change(result);
        expect_loud_check(description_request("IoFpga", 0), result, reason);
    }

    void expect_loud_identity(const std::function<void(FruHwData &)> &change, const std::string &reason) {
        FruHwData data = identity();
        change(data);
        uint32_t handle = 0;
        expect_loud([&] { library().brd_fru_hw_data_init(0, 0, &data, &handle); }, "brd_fru_hw_data_init: " + reason);
    }

    void expect_loud_upgrade(const std::function<void(BrdFpdUpgradeRequest &)> &change, const std::string &reason) {
        Reports reports;
        BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", reports);
        change(request);
        expect_loud([&] { library().brd_fpd_upgrade(7, 10, &request, err_msg, sizeof err_msg); },
                    "brd_fpd_upgrade: " + reason);
    }

    Library &lib() { return library(); }

    uint32_t number = 0;
    uint8_t small = 0;
    int value = 0;
    char text[64] = {};
    size_t length = 0;
};

TEST_F(StrictnessTest, UnknownGroup) {
    BrdFpdRegion names[1] = {};
    BrdFpdInfo info = {};
    Reports reports;
    BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", reports);
    expect_loud([&] { lib().brd_group_fpd_num_fpds_get(8, &number); }, "brd_group_fpd_num_fpds_get: unknown group 8");
    expect_loud([&] { lib().brd_group_fpd_obj_id_list_get(8, &number); },
                "brd_group_fpd_obj_id_list_get: unknown group 8");
    expect_loud([&] { lib().brd_fpd_num_regions_get(8, 10, &small); }, "brd_fpd_num_regions_get: unknown group 8");
    expect_loud([&] { lib().brd_fpd_regions_get(8, 10, names, 1); }, "brd_fpd_regions_get: unknown group 8");
    expect_loud([&] { lib().brd_fpd_info_get(8, 10, 0, &info, nullptr, 0); }, "brd_fpd_info_get: unknown group 8");
    expect_loud([&] { lib().brd_fpd_upgrade(8, 10, &request, nullptr, 0); }, "brd_fpd_upgrade: unknown group 8");
    expect_loud([&] { lib().brd_group_led_init(8); }, "brd_group_led_init: unknown group 8");
    expect_loud([&] { lib().brd_group_led_num_leds_get(8, &number); }, "brd_group_led_num_leds_get: unknown group 8");
    expect_loud([&] { lib().brd_group_led_obj_id_list_get(8, &number); },
                "brd_group_led_obj_id_list_get: unknown group 8");
    expect_loud([&] { lib().brd_led_type_get(8, 3, &number); }, "brd_led_type_get: unknown group 8");
}

TEST_F(StrictnessTest, UnknownObject) {
    BrdFpdRegion names[1] = {};
    BrdFpdInfo info = {};
    Reports reports;
    BrdFpdUpgradeRequest request = upgrade_request(1, package(), "io.img", reports);
    expect_loud([&] { lib().brd_fpd_num_regions_get(7, 11, &small); },
                "brd_fpd_num_regions_get: unknown FPD object 11");
    expect_loud([&] { lib().brd_fpd_regions_get(7, 11, names, 1); }, "brd_fpd_regions_get: unknown FPD object 11");
    expect_loud([&] { lib().brd_fpd_info_get(7, 11, 0, &info, nullptr, 0); },
                "brd_fpd_info_get: unknown FPD object 11");
    expect_loud([&] { lib().brd_fpd_info_get(7, 10, 1, &info, nullptr, 0); },
                "brd_fpd_info_get: FPD object 10 has no region 1");
    expect_loud([&] { lib().brd_fpd_upgrade(7, 11, &request, nullptr, 0); }, "brd_fpd_upgrade: unknown FPD object 11");
    expect_loud([&] { lib().brd_fpd_upgrade(7, 10, &request, nullptr, 0); },
                "brd_fpd_upgrade: FPD object 10 has no region 1");
    expect_loud([&] { lib().brd_led_type_get(7, 5, &number); }, "brd_led_type_get: unknown LED object 5");
    expect_loud([&] { lib().brd_led_name_get(7, 5, text, sizeof text); }, "brd_led_name_get: unknown LED object 5");
    expect_loud([&] { lib().brd_led_current_color_get(7, 5, &number); },
                "brd_led_current_color_get: unknown LED object 5");
    expect_loud([&] { lib().brd_led_current_state_get(7, 5, &number); },
                "brd_led_current_state_get: unknown LED object 5");
    expect_loud([&] { lib().brd_led_state_and_color_set(7, 5, 1, 1); },
                "brd_led_state_and_color_set: unknown LED object 5");
    expect_loud([&] { lib().get_fpd_capability_info("Iofpga", 4711, hw_version()); },
                "get_fpd_capability_info: unknown FPD 'Iofpga'");
    expect_loud_check(description_request("Io", 0), description_result(), "unknown FPD 'Io'");
}

TEST_F(StrictnessTest, MissingArguments) {
    FruHwData data = identity();
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
    expect_loud([&] { lib().brd_local_card_group_id_get(nullptr); },
                "brd_local_card_group_id_get: no place for the group");
    expect_loud([&] { lib().brd_group_fpd_num_fpds_get(7, nullptr); },
                "brd_group_fpd_num_fpds_get: no place for the count");
    expect_loud([&] { lib().brd_group_fpd_obj_id_list_get(7, nullptr); },
                "brd_group_fpd_obj_id_list_get: no room for the ids");
    expect_loud([&] { lib().brd_fpd_num_regions_get(7, 10, nullptr); },
                "brd_fpd_num_regions_get: no place for the count");
    expect_loud([&] { lib().brd_fpd_regions_get(7, 10, nullptr, 1); }, "brd_fpd_regions_get: no room for the regions");
    expect_loud([&] { lib().brd_fpd_info_get(7, 10, 0, nullptr, nullptr, 0); },
                "brd_fpd_info_get: no room for the information");
    expect_loud([&] { lib().brd_fpd_upgrade(7, 10, nullptr, nullptr, 0); }, "brd_fpd_upgrade: no request");
    expect_loud([&] { lib().brd_group_led_num_leds_get(7, nullptr); },
                "brd_group_led_num_leds_get: no place for the count");
    expect_loud([&] { lib().brd_group_led_obj_id_list_get(7, nullptr); },
                "brd_group_led_obj_id_list_get: no room for the ids");
    expect_loud([&] { lib().brd_led_type_get(7, 3, nullptr); }, "brd_led_type_get: no place for the type");
    expect_loud([&] { lib().brd_led_name_get(7, 3, nullptr, 64); }, "brd_led_name_get: no room for the name");
    expect_loud([&] { lib().brd_led_name_get(7, 3, text, 0); }, "brd_led_name_get: no room for the name");
    expect_loud([&] { lib().brd_led_current_color_get(7, 3, nullptr); },
                "brd_led_current_color_get: no place for the color");
    expect_loud([&] { lib().brd_led_current_state_get(7, 3, nullptr); },
                "brd_led_current_state_get: no place for the state");
    expect_loud([&] { lib().brd_fru_hw_data_init(0, 0, nullptr, &number); }, "brd_fru_hw_data_init: no data");
    expect_loud([&] { lib().brd_fru_hw_data_init(0, 0, &data, nullptr); },
                "brd_fru_hw_data_init: no place for the handle");
    expect_loud([&] { lib().get_fpd_capability_info(nullptr, 4711, hw_version()); },
                "get_fpd_capability_info: no name");
    expect_loud([&] { lib().check_and_get_upgrade_image(nullptr, &result, nullptr, 0); },
                "check_and_get_upgrade_image: a record is null");
    expect_loud([&] { lib().check_and_get_upgrade_image(&request, nullptr, nullptr, 0); },
                "check_and_get_upgrade_image: a record is null");
    expect_loud([&] { lib().brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(nullptr, nullptr, 0); },
                "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config: no place for the value");
    expect_loud([&] { lib().exec_shell_command(nullptr, 4, &length, nullptr, 0, "true"); },
                "exec_shell_command: no room for the output");
    expect_loud([&] { lib().exec_shell_command(text, 0, &length, nullptr, 0, "true"); },
                "exec_shell_command: no room for the output");
    expect_loud([&] { lib().exec_shell_command(text, sizeof text, nullptr, nullptr, 0, "true"); },
                "exec_shell_command: no place for the output's length");
    expect_loud([&] { lib().exec_shell_command(text, sizeof text, &length, nullptr, 0, nullptr); },
                "exec_shell_command: no command");
    expect_loud([&] { lib().exec_shell_command(text, sizeof text, &length, nullptr, 0, "%s", ""); },
                "exec_shell_command: no command");
    expect_loud([&] { lib().brd_intf_fpd_image_md5_validate(nullptr, "a", "b", nullptr, 0); },
                "brd_intf_fpd_image_md5_validate: a text is null");
    expect_loud([&] { lib().brd_intf_fpd_image_md5_validate("a", nullptr, "b", nullptr, 0); },
                "brd_intf_fpd_image_md5_validate: a text is null");
    expect_loud([&] { lib().brd_intf_fpd_image_md5_validate("a", "b", nullptr, nullptr, 0); },
                "brd_intf_fpd_image_md5_validate: a text is null");
}

TEST_F(StrictnessTest, AnErrorBufferOfASizeThatIsNotThere) {
    const std::string reason = ": err_msg is null and err_len is not 0";
    BrdFpdInfo info = {};
    Reports reports;
    BrdFpdUpgradeRequest upgrade = upgrade_request(0, package(), "io.img", reports);
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
    expect_loud([&] { lib().brd_fpd_info_get(7, 10, 0, &info, nullptr, 1); }, "brd_fpd_info_get" + reason);
    expect_loud([&] { lib().brd_fpd_upgrade(7, 10, &upgrade, nullptr, 1); }, "brd_fpd_upgrade" + reason);
    expect_loud([&] { lib().check_and_get_upgrade_image(&request, &result, nullptr, 1); },
                "check_and_get_upgrade_image" + reason);
    expect_loud([&] { lib().exec_shell_command(text, sizeof text, &length, nullptr, 1, "true"); },
                "exec_shell_command" + reason);
    expect_loud([&] { lib().brd_intf_fpd_image_md5_validate("a", "b", "c", nullptr, 1); },
                "brd_intf_fpd_image_md5_validate" + reason);
    expect_loud([&] { lib().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, nullptr, 1); },
                "brd_intf_fpd_upgrade_cookie_get_upgrade_mode" + reason);
    expect_loud([&] { lib().brd_intf_fpd_upgrade_cookie_set_upgrade_mode(1, nullptr, 1); },
                "brd_intf_fpd_upgrade_cookie_set_upgrade_mode" + reason);
}

TEST_F(StrictnessTest, AnAttributeFlagWithoutAMeaning) {
    expect_loud([&] { lib().brd_sb_attribute_flag_set(0); }, "brd_sb_attribute_flag_set: unknown value 0");
    expect_loud([&] { lib().brd_sb_attribute_flag_set(3); }, "brd_sb_attribute_flag_set: unknown value 3");
}

TEST_F(StrictnessTest, RegionRecords) {
    BrdFpdRegion names[2] = {};
    expect_loud([&] { lib().brd_fpd_regions_get(7, 10, names, 2); }, "brd_fpd_regions_get: asked for 2 regions of 1");
    expect_loud([&] { lib().brd_fpd_regions_get(7, 10, names, 0); }, "brd_fpd_regions_get: asked for 0 regions of 1");
    names[0].reserved0 = 1;
    expect_loud([&] { lib().brd_fpd_regions_get(7, 10, names, 1); }, "brd_fpd_regions_get: dirty byte 0 in regions");
    names[0] = {};
    names[0].name[102] = 'x';
    expect_loud([&] { lib().brd_fpd_regions_get(7, 10, names, 1); }, "brd_fpd_regions_get: dirty byte 103 in regions");
}

TEST_F(StrictnessTest, InformationRecords) {
    BrdFpdInfo info = {};
    info.reserved79[2] = 1;
    expect_loud([&] { lib().brd_fpd_info_get(7, 10, 0, &info, nullptr, 0); },
                "brd_fpd_info_get: dirty byte 2 in info: reserved79");
    info = {};
    info.reserved83[172] = 1;
    expect_loud([&] { lib().brd_fpd_info_get(7, 10, 0, &info, nullptr, 0); },
                "brd_fpd_info_get: dirty byte 172 in info: reserved83");
}

TEST_F(StrictnessTest, UpgradeRequests) {
    expect_loud_upgrade([](auto &request) { request.reserved1[6] = 1; }, "dirty byte 6 in request: reserved1");
    expect_loud_upgrade([](auto &request) { request.reserved536[63] = 1; }, "dirty byte 63 in request: reserved536");
    expect_loud_upgrade([](auto &request) { request.progress = nullptr; }, "request: no progress callback");
    expect_loud_upgrade([](auto &request) { std::memset(request.directory, '/', sizeof request.directory); },
                        "request: directory does not end with a NUL");
    expect_loud_upgrade(
        [](auto &request) { request.directory[255] = 'x'; },
        "dirty byte " + std::to_string(255 - package().string().size()) + " in request: directory behind its NUL");
    expect_loud_upgrade([](auto &request) { request.file_name[7] = 'x'; },
                        "dirty byte 1 in request: file_name behind its NUL");
    expect_loud_upgrade([](auto &request) { std::memset(request.file_name, 'x', sizeof request.file_name); },
                        "request: file_name does not end with a NUL");
    expect_loud_upgrade([](auto &request) { request.directory[1] = '?'; },
                        "request: no directory \"/?" + package().string().substr(2) + "\"");
    expect_loud_upgrade([](auto &request) { request.file_name[0] = '/'; }, "request: file_name holds a '/'");
    expect_loud_upgrade([](auto &request) { request.file_name[0] = 'I'; },
                        "request: no file \"Io.img\" in \"" + package().string() + "\"");
    expect_loud_upgrade([](auto &request) { std::memset(request.file_name, 0, sizeof request.file_name); },
                        "request: no file \"\" in \"" + package().string() + "\"");
}

TEST_F(StrictnessTest, AnImageOfAnotherRegion) {
    write_file(package() / "other.img", "of another region");
    expect_loud_upgrade(
        [](auto &request) {
            std::memset(request.file_name, 0, sizeof request.file_name);
            std::strcpy(request.file_name, "other.img");
        },
        "\"other.img\" is not packaged for \"IoFpga\"");
}

TEST_F(LibraryTest, LoudUpgradeOfARegionThatHasNone) {
    describe(card_table + "[[fpd]]\nid = 10\n[[fpd.region]]\nname = \"A\"\nrunning = \"1.0.0\"\nupgrade_type = 2\n");
    start_hardware();
    Reports reports;
    BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", reports);
    expect_loud([&] { library().brd_fpd_upgrade(7, 10, &request, err_msg, sizeof err_msg); },
                "brd_fpd_upgrade: \"A\" is of upgrade type 2 and cannot be upgraded");
}

TEST_F(StrictnessTest, TwoUpgradesOfARegionAtOnce) {
    Reports reports;
    BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", reports);
    // The second one is begun from the first one's report.
    reports.then = [&](int) { lib().brd_fpd_upgrade(7, 10, &request, err_msg, sizeof err_msg); };
    expect_loud([&] { lib().brd_fpd_upgrade(7, 10, &request, err_msg, sizeof err_msg); },
                "brd_fpd_upgrade: two upgrades of FPD 10 region 0 at once");
}

TEST_F(StrictnessTest, DescriptionRequests) {
    expect_loud_request([](auto &request) { request.magic = 0; }, "wrong magic 0x0");
    expect_loud_request([](auto &request) { request.version = 2; }, "wrong version 2");
    expect_loud_request([](auto &request) { request.hw_version.kind = 253; }, "hw_version is of kind 253");
    expect_loud_request([](auto &request) { request.programmed_version.kind = 255; },
                        "programmed_version is of kind 255");
    expect_loud_request([](auto &request) { request.running_version.kind = 1; }, "running_version is of kind 1");
    const auto dirty = [](FpdDescRequest &request, size_t offset) {
        reinterpret_cast<unsigned char *>(&request)[offset] = 1;
    };
    const std::string dirty_byte = "check_and_get_upgrade_image: dirty byte ";
    const auto expect_dirty = [&](size_t offset, const std::string &where) {
        FpdDescRequest request = description_request("IoFpga", 0);
        dirty(request, offset);
        FpdDesc result = description_result();
        expect_loud([&] { lib().check_and_get_upgrade_image(&request, &result, nullptr, 0); }, dirty_byte + where);
    };
    expect_dirty(9, "0 in request: hw_version");
    expect_dirty(15, "0 in request: programmed_version");
    expect_dirty(21, "0 in request: running_version");
    expect_dirty(38, "10 in request: name behind its NUL");
    expect_dirty(40, "0 in request: reserved40");
    expect_dirty(43, "2 in request: reserved41");
    expect_dirty(51, "2 in request: reserved49");
    expect_loud_request([](auto &request) { std::memset(request.name, 'x', sizeof request.name); },
                        "name does not end with a NUL");
    expect_loud_request([](auto &request) { request.upgrade_type = 5; }, "unknown upgrade type 5");
    expect_loud_request([](auto &request) { request.info_flag = 5; },
                        "info flag 5 is not the one that the card reports");
}

TEST_F(StrictnessTest, ABoardThatIsNotTheCards) {
    FpdDescRequest request = description_request("IoFpga", 0);
    request.board_type = 1;
    expect_loud_check(request, description_result(), "board type 1 is not the card's");
    request = description_request("IoFpga", 0);
    request.hw_version.minor = 3;
    expect_loud_check(request, description_result(), "hardware version 1.3.0 is not the card's");
    request = description_request("IoFpga", 0);
    request.hw_version.major = 2;
    expect_loud_check(request, description_result(), "hardware version 2.2.0 is not the card's");
    request = description_request("IoFpga", 0);
    request.hw_version.debug = 1;
    expect_loud_check(request, description_result(), "hardware version 1.2.1 is not the card's");
    expect_loud([&] { lib().get_fpd_capability_info("IoFpga", 4712, hw_version()); },
                "get_fpd_capability_info: board type 4712 is not the card's");
    expect_loud([&] { lib().get_fpd_capability_info("IoFpga", 4711, hw_version(FPD_VERSION_NO_DEBUG)); },
                "get_fpd_capability_info: hardware version 1.2 is not the card's");
}

TEST_F(StrictnessTest, DescriptionResults) {
    expect_loud_result([](auto &result) { result.magic = 1; }, "result: wrong magic 0x1");
    expect_loud_result([](auto &result) { result.version = 4; }, "result: wrong version 4");
    expect_loud_result([](auto &result) { result.dependency[0] = 'x'; }, "dirty byte 0 in result");
    expect_loud_result([](auto &result) { result.need_upgrade = 1; }, "dirty byte 527 in result");
    expect_loud_result([](auto &result) { result.reserved570[5] = 1; }, "dirty byte 575 in result");
}

TEST_F(StrictnessTest, AnIdentityThatIsNotTheCards) {
    expect_loud_identity([](auto &data) { data.group_type = 5; }, "data: unknown group type 5");
    expect_loud_identity([](auto &data) { data.hw_major = 2; }, "data: hardware version 2.2 is not the card's");
    expect_loud_identity([](auto &data) { data.hw_minor = 3; }, "data: hardware version 1.3 is not the card's");
    expect_loud_identity([](auto &data) { data.pd_slot_num = 3; }, "data: slot 3 is not the card's");
    expect_loud_identity([](auto &data) { data.card_pid[0] = 's'; }, "data: PID \"sIM-LC24\" is not the card's");
    expect_loud_identity([](auto &data) { data.card_pid[63] = 'x'; }, "dirty byte 55 in data: card_pid behind its NUL");
    expect_loud_identity([](auto &data) { std::memset(data.card_pid, 'x', sizeof data.card_pid); },
                         "data: card_pid does not end with a NUL");
    expect_loud_identity([](auto &data) { data.board_type = 1; }, "data: board type 1 is not the card's");
    expect_loud_identity([](auto &data) { data.reserved84[11] = 1; }, "dirty byte 11 in data: reserved84");
    expect_loud_identity([](auto &data) { data.valid = 0; }, "data: valid is 0");
    expect_loud_identity([](auto &data) { data.reserved97[6] = 1; }, "dirty byte 6 in data: reserved97");
    FruHwData data = identity();
    expect_loud([&] { lib().brd_fru_hw_data_init(1, 0, &data, &number); },
                "brd_fru_hw_data_init: a reserved argument is not 0");
    expect_loud([&] { lib().brd_fru_hw_data_init(0, 1, &data, &number); },
                "brd_fru_hw_data_init: a reserved argument is not 0");
    expect_loud([&] { lib().brd_fru_hw_init(0); }, "brd_fru_hw_init: unknown handle 0x0");
}

TEST_F(LibraryTest, LoudHardwareLayerWithoutAnIdentity) {
    expect_loud([&] { library().brd_fru_hw_init(0x1d0c0de5); },
                "brd_fru_hw_init: called before the card's identity was registered");
}

TEST_F(LibraryTest, LoudBeforeTheHardwareLayerWasStarted) {
    const std::string reason = ": called before the hardware layer was started";
    Library &lib = library();
    uint32_t number = 0;
    uint8_t small = 0;
    BrdFpdRegion names[1] = {};
    BrdFpdInfo info = {};
    Reports reports;
    BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", reports);
    expect_loud([&] { lib.brd_group_fpd_num_fpds_get(7, &number); }, "brd_group_fpd_num_fpds_get" + reason);
    expect_loud([&] { lib.brd_group_fpd_obj_id_list_get(7, &number); }, "brd_group_fpd_obj_id_list_get" + reason);
    expect_loud([&] { lib.brd_fpd_num_regions_get(7, 10, &small); }, "brd_fpd_num_regions_get" + reason);
    expect_loud([&] { lib.brd_fpd_regions_get(7, 10, names, 1); }, "brd_fpd_regions_get" + reason);
    expect_loud([&] { lib.brd_fpd_info_get(7, 10, 0, &info, nullptr, 0); }, "brd_fpd_info_get" + reason);
    expect_loud([&] { lib.brd_fpd_upgrade(7, 10, &request, nullptr, 0); }, "brd_fpd_upgrade" + reason);
    // To register the identity is not yet to start the layer.
    FruHwData data = identity();
    ASSERT_EQ(lib.brd_fru_hw_data_init(0, 0, &data, &number), 0);
    expect_loud([&] { lib.brd_group_fpd_num_fpds_get(7, &number); }, "brd_group_fpd_num_fpds_get" + reason);
}

TEST_F(StrictnessTest, AnotherThreadThanTheFirst) {
    const auto from_another_thread = [](const std::function<void()> &call) { std::thread(call).join(); };
    const std::string reason = ": called from another thread than the one that called first";
    expect_loud([&] { from_another_thread([&] { lib().brd_sb_attribute_flag_set(1); }); },
                "brd_sb_attribute_flag_set" + reason);
    expect_loud([&] { from_another_thread([&] { lib().brd_group_led_init(7); }); }, "brd_group_led_init" + reason);
    expect_loud([&] { from_another_thread([&] { lib().get_fpd_capability_info("IoFpga", 4711, hw_version()); }); },
                "get_fpd_capability_info" + reason);
    expect_loud(
        [&] {
            from_another_thread(
                [&] { lib().brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, err_msg, sizeof err_msg); });
        },
        "brd_intf_fpd_upgrade_cookie_get_upgrade_mode" + reason);
}

TEST_F(LibraryTest, AThreadThatOnlyRunsCommandsIsNotTheFirst) {
    std::thread([&] {
        char text[8];
        size_t length = 0;
        EXPECT_EQ(library().exec_shell_command(text, sizeof text, &length, err_msg, sizeof err_msg, "true"), 0);
    }).join();
    EXPECT_EQ(library().brd_sb_attribute_flag_set(1), 0);
}

}  // namespace
}  // namespace cardsim
