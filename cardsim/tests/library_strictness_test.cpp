/// What the card does not forgive.
#include <cstring>
#include <thread>

#include "library_test_support.h"

namespace cardsim {
namespace {

using card_tests::write_file;

/// Whatever arguments a call wants.
struct Arguments {
    uint32_t number = 0;
    uint8_t small = 0;
    int value = 0;
    char text[64] = {};
    size_t length = 0;
    BrdFpdRegion names[2] = {};
    BrdFpdInfo info = {};
};

/// Every test here begins with the hardware layer up, unless it says otherwise.
class StrictnessTest : public LibraryTest, protected Arguments {
  protected:
    void SetUp() override { start_hardware(); }

    void expect_abort_check(const FpdDescRequest &asking, const FpdDesc &answer, const std::string &reason) {
        const auto check = [&] {
            FpdDescRequest asked = asking;
            FpdDesc answered = answer;
            lib.check_and_get_upgrade_image(&asked, &answered, err_msg, sizeof err_msg);
        };
        expect_abort(check, "check_and_get_upgrade_image: " + reason);
    }

    /// A good record with one change is refused.
    void expect_abort_request(const std::function<void(FpdDescRequest &)> &change, const std::string &reason) {
        FpdDescRequest changed = request;
        change(changed);
        expect_abort_check(changed, result, reason);
    }
    void expect_abort_result(const std::function<void(FpdDesc &)> &change, const std::string &reason) {
        FpdDesc changed = result;
        change(changed);
        expect_abort_check(request, changed, reason);
    }
    void expect_identity_to_abort(const std::function<void(FruHwData &)> &change, const std::string &reason) {
        FruHwData data = identity();
        change(data);
        expect_abort([&] { lib.brd_fru_hw_data_init(0, 0, &data, &number); }, "brd_fru_hw_data_init: " + reason);
    }
    void expect_upgrade_to_abort(const std::function<void(BrdFpdUpgradeRequest &)> &change, const std::string &reason) {
        BrdFpdUpgradeRequest changed = upgrade;
        change(changed);
        expect_abort([&] { lib.brd_fpd_upgrade(7, 10, &changed, err_msg, sizeof err_msg); },
                     "brd_fpd_upgrade: " + reason);
    }

    Library &lib = library();
    Reports reports;
    BrdFpdUpgradeRequest upgrade = upgrade_request(0, package(), "io.img", reports);
    FpdDescRequest request = description_request("IoFpga", 0);
    FpdDesc result = description_result();
};

TEST_F(StrictnessTest, UnknownGroup) {
    expect_all_abort("unknown group 8",
                     {{"brd_group_fpd_num_fpds_get", [&] { lib.brd_group_fpd_num_fpds_get(8, &number); }},
                      {"brd_group_fpd_obj_id_list_get", [&] { lib.brd_group_fpd_obj_id_list_get(8, &number); }},
                      {"brd_fpd_num_regions_get", [&] { lib.brd_fpd_num_regions_get(8, 10, &small); }},
                      {"brd_fpd_regions_get", [&] { lib.brd_fpd_regions_get(8, 10, names, 1); }},
                      {"brd_fpd_info_get", [&] { lib.brd_fpd_info_get(8, 10, 0, &info, nullptr, 0); }},
                      {"brd_fpd_upgrade", [&] { lib.brd_fpd_upgrade(8, 10, &upgrade, nullptr, 0); }},
                      {"brd_group_led_init", [&] { lib.brd_group_led_init(8); }},
                      {"brd_group_led_num_leds_get", [&] { lib.brd_group_led_num_leds_get(8, &number); }},
                      {"brd_group_led_obj_id_list_get", [&] { lib.brd_group_led_obj_id_list_get(8, &number); }},
                      {"brd_led_type_get", [&] { lib.brd_led_type_get(8, 3, &number); }}});
}

TEST_F(StrictnessTest, UnknownObject) {
    expect_all_abort("unknown FPD object 11",
                     {{"brd_fpd_num_regions_get", [&] { lib.brd_fpd_num_regions_get(7, 11, &small); }},
                      {"brd_fpd_regions_get", [&] { lib.brd_fpd_regions_get(7, 11, names, 1); }},
                      {"brd_fpd_info_get", [&] { lib.brd_fpd_info_get(7, 11, 0, &info, nullptr, 0); }},
                      {"brd_fpd_upgrade", [&] { lib.brd_fpd_upgrade(7, 11, &upgrade, nullptr, 0); }}});
    upgrade.region = 1;
    expect_all_abort("FPD object 10 has no region 1",
                     {{"brd_fpd_info_get", [&] { lib.brd_fpd_info_get(7, 10, 1, &info, nullptr, 0); }},
                      {"brd_fpd_upgrade", [&] { lib.brd_fpd_upgrade(7, 10, &upgrade, nullptr, 0); }}});
    expect_all_abort("unknown LED object 5",
                     {{"brd_led_type_get", [&] { lib.brd_led_type_get(7, 5, &number); }},
                      {"brd_led_name_get", [&] { lib.brd_led_name_get(7, 5, text, sizeof text); }},
                      {"brd_led_current_color_get", [&] { lib.brd_led_current_color_get(7, 5, &number); }},
                      {"brd_led_current_state_get", [&] { lib.brd_led_current_state_get(7, 5, &number); }},
                      {"brd_led_state_and_color_set", [&] { lib.brd_led_state_and_color_set(7, 5, 1, 1); }}});
    expect_abort([&] { lib.get_fpd_capability_info("Iofpga", 4711, hw_version()); },
                 "get_fpd_capability_info: unknown FPD 'Iofpga'");
    expect_abort_check(description_request("Io", 0), result, "unknown FPD 'Io'");
}

TEST_F(StrictnessTest, MissingArguments) {
    FruHwData data = identity();
    expect_all_abort("no place for the group",
                     {{"brd_local_card_group_id_get", [&] { lib.brd_local_card_group_id_get(nullptr); }}});
    expect_all_abort("no place for the count",
                     {{"brd_group_fpd_num_fpds_get", [&] { lib.brd_group_fpd_num_fpds_get(7, nullptr); }},
                      {"brd_fpd_num_regions_get", [&] { lib.brd_fpd_num_regions_get(7, 10, nullptr); }},
                      {"brd_group_led_num_leds_get", [&] { lib.brd_group_led_num_leds_get(7, nullptr); }}});
    expect_all_abort("no room for the ids",
                     {{"brd_group_fpd_obj_id_list_get", [&] { lib.brd_group_fpd_obj_id_list_get(7, nullptr); }},
                      {"brd_group_led_obj_id_list_get", [&] { lib.brd_group_led_obj_id_list_get(7, nullptr); }}});
    expect_all_abort("no room for the regions",
                     {{"brd_fpd_regions_get", [&] { lib.brd_fpd_regions_get(7, 10, nullptr, 1); }}});
    expect_all_abort("no room for the information",
                     {{"brd_fpd_info_get", [&] { lib.brd_fpd_info_get(7, 10, 0, nullptr, nullptr, 0); }}});
    expect_all_abort("no request", {{"brd_fpd_upgrade", [&] { lib.brd_fpd_upgrade(7, 10, nullptr, nullptr, 0); }}});
    expect_all_abort("no place for the type", {{"brd_led_type_get", [&] { lib.brd_led_type_get(7, 3, nullptr); }}});
    expect_all_abort("no room for the name", {{"brd_led_name_get", [&] { lib.brd_led_name_get(7, 3, nullptr, 64); }},
                                              {"brd_led_name_get", [&] { lib.brd_led_name_get(7, 3, text, 0); }}});
    expect_all_abort("no place for the color",
                     {{"brd_led_current_color_get", [&] { lib.brd_led_current_color_get(7, 3, nullptr); }}});
    expect_all_abort("no place for the state",
                     {{"brd_led_current_state_get", [&] { lib.brd_led_current_state_get(7, 3, nullptr); }}});
    expect_all_abort("no data", {{"brd_fru_hw_data_init", [&] { lib.brd_fru_hw_data_init(0, 0, nullptr, &number); }}});
    expect_all_abort("no place for the handle",
                     {{"brd_fru_hw_data_init", [&] { lib.brd_fru_hw_data_init(0, 0, &data, nullptr); }}});
    expect_all_abort("no name",
                     {{"get_fpd_capability_info", [&] { lib.get_fpd_capability_info(nullptr, 4711, hw_version()); }}});
    expect_all_abort(
        "a record is null",
        {{"check_and_get_upgrade_image", [&] { lib.check_and_get_upgrade_image(nullptr, &result, nullptr, 0); }},
         {"check_and_get_upgrade_image", [&] { lib.check_and_get_upgrade_image(&request, nullptr, nullptr, 0); }}});
    expect_all_abort("no place for the value",
                     {{"brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config",
                       [&] { lib.brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config(nullptr, nullptr, 0); }}});
    expect_all_abort("no room for the output",
                     {{"exec_shell_command", [&] { lib.exec_shell_command(nullptr, 4, &length, nullptr, 0, "true"); }},
                      {"exec_shell_command", [&] { lib.exec_shell_command(text, 0, &length, nullptr, 0, "true"); }}});
    expect_all_abort("no place for the output's length",
                     {{"exec_shell_command", [&] { lib.exec_shell_command(text, 64, nullptr, nullptr, 0, "true"); }}});
    expect_all_abort(
        "no command",
        {{"exec_shell_command", [&] { lib.exec_shell_command(text, 64, &length, nullptr, 0, nullptr); }},
         {"exec_shell_command", [&] { lib.exec_shell_command(text, 64, &length, nullptr, 0, "%s", ""); }}});
    const auto validate = [&](const char *directory, const char *image, const char *md5) {
        return [=, this] { lib.brd_intf_fpd_image_md5_validate(directory, image, md5, nullptr, 0); };
    };
    expect_all_abort("a text is null", {{"brd_intf_fpd_image_md5_validate", validate(nullptr, "a", "b")},
                                        {"brd_intf_fpd_image_md5_validate", validate("a", nullptr, "b")},
                                        {"brd_intf_fpd_image_md5_validate", validate("a", "b", nullptr)}});
}

TEST_F(StrictnessTest, AnErrorBufferOfASizeThatIsNotThere) {
    expect_all_abort(
        "err_msg is null and err_len is not 0",
        {{"brd_fpd_info_get", [&] { lib.brd_fpd_info_get(7, 10, 0, &info, nullptr, 1); }},
         {"brd_fpd_upgrade", [&] { lib.brd_fpd_upgrade(7, 10, &upgrade, nullptr, 1); }},
         {"check_and_get_upgrade_image", [&] { lib.check_and_get_upgrade_image(&request, &result, nullptr, 1); }},
         {"exec_shell_command", [&] { lib.exec_shell_command(text, 64, &length, nullptr, 1, "true"); }},
         {"brd_intf_fpd_image_md5_validate", [&] { lib.brd_intf_fpd_image_md5_validate("a", "b", "c", nullptr, 1); }},
         {"brd_intf_fpd_upgrade_cookie_get_upgrade_mode",
          [&] { lib.brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, nullptr, 1); }},
         {"brd_intf_fpd_upgrade_cookie_set_upgrade_mode",
          [&] { lib.brd_intf_fpd_upgrade_cookie_set_upgrade_mode(1, nullptr, 1); }}});
}

TEST_F(StrictnessTest, AnAttributeFlagWithoutAMeaning) {
    for (const int flag : {0, 3}) {
        expect_abort([&] { lib.brd_sb_attribute_flag_set(flag); },
                     "brd_sb_attribute_flag_set: unknown value " + std::to_string(flag));
    }
}

TEST_F(StrictnessTest, RegionRecords) {
    const auto get = [&](uint8_t count) { return [=, this] { lib.brd_fpd_regions_get(7, 10, names, count); }; };
    expect_abort(get(2), "brd_fpd_regions_get: asked for 2 regions of 1");
    expect_abort(get(0), "brd_fpd_regions_get: asked for 0 regions of 1");
    names[0].reserved0 = 1;
    expect_abort(get(1), "brd_fpd_regions_get: dirty byte 0 in regions");
    names[0] = {};
    names[0].name[102] = 'x';
    expect_abort(get(1), "brd_fpd_regions_get: dirty byte 103 in regions");
}

TEST_F(StrictnessTest, InformationRecords) {
    const auto get = [&] { lib.brd_fpd_info_get(7, 10, 0, &info, nullptr, 0); };
    info.reserved79[2] = 1;
    expect_abort(get, "brd_fpd_info_get: dirty byte 2 in info: reserved79");
    info = {};
    info.reserved83[172] = 1;
    expect_abort(get, "brd_fpd_info_get: dirty byte 172 in info: reserved83");
}

TEST_F(StrictnessTest, UpgradeRequests) {
    const std::string place = package();
    expect_upgrade_to_abort([](auto &bad) { bad.reserved1[6] = 1; }, "dirty byte 6 in request: reserved1");
    expect_upgrade_to_abort([](auto &bad) { bad.reserved536[63] = 1; }, "dirty byte 63 in request: reserved536");
    expect_upgrade_to_abort([](auto &bad) { bad.progress = nullptr; }, "request: no progress callback");
    expect_upgrade_to_abort([](auto &bad) { std::memset(bad.directory, '/', sizeof bad.directory); },
                            "request: directory does not end with a NUL");
    expect_upgrade_to_abort(
        [](auto &bad) { bad.directory[255] = 'x'; },
        "dirty byte " + std::to_string(255 - place.size()) + " in request: directory after its NUL");
    expect_upgrade_to_abort([](auto &bad) { bad.file_name[7] = 'x'; },
                            "dirty byte 1 in request: file_name after its NUL");
    expect_upgrade_to_abort([](auto &bad) { std::memset(bad.file_name, 'x', sizeof bad.file_name); },
                            "request: file_name does not end with a NUL");
    expect_upgrade_to_abort([](auto &bad) { bad.directory[1] = '?'; },
                            "request: no directory \"/?" + place.substr(2) + "\"");
    expect_upgrade_to_abort([](auto &bad) { bad.file_name[0] = '/'; }, "request: file_name holds a '/'");
    expect_upgrade_to_abort([](auto &bad) { bad.file_name[0] = 'I'; },
                            "request: no file \"Io.img\" in \"" + place + "\"");
    expect_upgrade_to_abort([](auto &bad) { std::memset(bad.file_name, 0, sizeof bad.file_name); },
                            "request: no file \"\" in \"" + place + "\"");
    write_file(package() / "qq.img", "of another region");
    expect_upgrade_to_abort([](auto &bad) { bad.file_name[0] = bad.file_name[1] = 'q'; },
                            "\"qq.img\" is not packaged for \"IoFpga\"");
}

TEST_F(LibraryTest, AbortsAnUpgradeOfARegionThatHasNone) {
    describe(card_table + "[[fpd]]\nid = 10\n[[fpd.region]]\nname = \"A\"\nrunning = \"1.0.0\"\nupgrade_type = 2\n");
    start_hardware();
    Reports reports;
    BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", reports);
    expect_abort([&] { library().brd_fpd_upgrade(7, 10, &request, err_msg, sizeof err_msg); },
                 "brd_fpd_upgrade: \"A\" is of upgrade type 2 and cannot be upgraded");
}

TEST_F(StrictnessTest, TwoUpgradesOfARegionAtOnce) {
    // The second one is begun from the first one's report.
    reports.then = [&](int) { lib.brd_fpd_upgrade(7, 10, &upgrade, err_msg, sizeof err_msg); };
    expect_upgrade_to_abort([](auto &) {}, "two upgrades of FPD 10 region 0 at once");
}

TEST_F(StrictnessTest, DescriptionRequests) {
    expect_abort_request([](auto &bad) { bad.magic = 0; }, "request: wrong magic 0x0");
    expect_abort_request([](auto &bad) { bad.version = 2; }, "request: wrong version 2");
    expect_abort_request([](auto &bad) { bad.hw_version.kind = 253; }, "request: hw_version is of kind 253");
    expect_abort_request([](auto &bad) { bad.programmed_version.kind = 255; },
                         "request: programmed_version is of kind 255");
    expect_abort_request([](auto &bad) { bad.running_version.kind = 1; }, "request: running_version is of kind 1");
    const std::pair<size_t, const char *> dirty[] = {
        {9, "0 in request: hw_version"},       {15, "0 in request: programmed_version"},
        {21, "0 in request: running_version"}, {38, "10 in request: name after its NUL"},
        {40, "0 in request: reserved40"},      {43, "2 in request: reserved41"},
        {51, "2 in request: reserved49"}};
    for (const auto &[offset, where] : dirty) {
        expect_abort_request([at = offset](auto &bad) { reinterpret_cast<unsigned char *>(&bad)[at] = 1; },
                             std::string("dirty byte ") + where);
    }
    expect_abort_request([](auto &bad) { std::memset(bad.name, 'x', sizeof bad.name); },
                         "request: name does not end with a NUL");
    expect_abort_request([](auto &bad) { bad.upgrade_type = 5; }, "request: unknown upgrade type 5");
    expect_abort_request([](auto &bad) { bad.info_flag = 5; },
                         "request: info flag 5 is not the one that the card reports");
}

TEST_F(StrictnessTest, ABoardThatIsNotTheCards) {
    expect_abort_request([](auto &bad) { bad.board_type = 1; }, "board type 1 is not the card's");
    expect_abort_request([](auto &bad) { bad.hw_version.minor = 3; }, "hardware version 1.3.0 is not the card's");
    expect_abort_request([](auto &bad) { bad.hw_version.major = 2; }, "hardware version 2.2.0 is not the card's");
    expect_abort_request([](auto &bad) { bad.hw_version.debug = 1; }, "hardware version 1.2.1 is not the card's");
    expect_abort([&] { lib.get_fpd_capability_info("IoFpga", 4712, hw_version()); },
                 "get_fpd_capability_info: board type 4712 is not the card's");
    expect_abort([&] { lib.get_fpd_capability_info("IoFpga", 4711, hw_version(FPD_VERSION_NO_DEBUG)); },
                 "get_fpd_capability_info: hardware version 1.2 is not the card's");
}

TEST_F(StrictnessTest, DescriptionResults) {
    expect_abort_result([](auto &bad) { bad.magic = 1; }, "result: wrong magic 0x1");
    expect_abort_result([](auto &bad) { bad.version = 4; }, "result: wrong version 4");
    expect_abort_result([](auto &bad) { bad.dependency[0] = 'x'; }, "dirty byte 0 in result");
    expect_abort_result([](auto &bad) { bad.need_upgrade = 1; }, "dirty byte 527 in result");
    expect_abort_result([](auto &bad) { bad.reserved570[5] = 1; }, "dirty byte 575 in result");
}

TEST_F(StrictnessTest, AnIdentityThatIsNotTheCards) {
    expect_identity_to_abort([](auto &bad) { bad.group_type = 5; }, "data: unknown group type 5");
    expect_identity_to_abort([](auto &bad) { bad.hw_major = 2; }, "data: hardware version 2.2 is not the card's");
    expect_identity_to_abort([](auto &bad) { bad.hw_minor = 3; }, "data: hardware version 1.3 is not the card's");
    expect_identity_to_abort([](auto &bad) { bad.pd_slot_num = 3; }, "data: slot 3 is not the card's");
    expect_identity_to_abort([](auto &bad) { bad.card_pid[0] = 's'; }, "data: PID \"sIM-LC24\" is not the card's");
    expect_identity_to_abort([](auto &bad) { bad.card_pid[63] = 'x'; },
                             "dirty byte 55 in data: card_pid after its NUL");
    expect_identity_to_abort([](auto &bad) { std::memset(bad.card_pid, 'x', sizeof bad.card_pid); },
                             "data: card_pid does not end with a NUL");
    expect_identity_to_abort([](auto &bad) { bad.board_type = 1; }, "data: board type 1 is not the card's");
    expect_identity_to_abort([](auto &bad) { bad.reserved84[11] = 1; }, "dirty byte 11 in data: reserved84");
    expect_identity_to_abort([](auto &bad) { bad.valid = 0; }, "data: valid is 0");
    expect_identity_to_abort([](auto &bad) { bad.reserved97[6] = 1; }, "dirty byte 6 in data: reserved97");
    FruHwData data = identity();
    expect_all_abort("a reserved argument is not 0",
                     {{"brd_fru_hw_data_init", [&] { lib.brd_fru_hw_data_init(1, 0, &data, &number); }},
                      {"brd_fru_hw_data_init", [&] { lib.brd_fru_hw_data_init(0, 1, &data, &number); }}});
    expect_abort([&] { lib.brd_fru_hw_init(0); }, "brd_fru_hw_init: unknown handle 0x0");
}

/// A card of which nothing was asked yet.
class ColdStrictnessTest : public StrictnessTest {
  protected:
    void SetUp() override {}
};

TEST_F(ColdStrictnessTest, NoHardwareLayerWithoutAnIdentity) {
    expect_abort([&] { lib.brd_fru_hw_init(0x1d0c0de5); },
                 "brd_fru_hw_init: called before the card's identity was registered");
}

TEST_F(ColdStrictnessTest, NoFpdsBeforeTheHardwareLayerWasStarted) {
    const NamedCall first = {"brd_group_fpd_num_fpds_get", [&] { lib.brd_group_fpd_num_fpds_get(7, &number); }};
    const std::string reason = "called before the hardware layer was started";
    expect_all_abort(reason, {first,
                              {"brd_group_fpd_obj_id_list_get", [&] { lib.brd_group_fpd_obj_id_list_get(7, &number); }},
                              {"brd_fpd_num_regions_get", [&] { lib.brd_fpd_num_regions_get(7, 10, &small); }},
                              {"brd_fpd_regions_get", [&] { lib.brd_fpd_regions_get(7, 10, names, 1); }},
                              {"brd_fpd_info_get", [&] { lib.brd_fpd_info_get(7, 10, 0, &info, nullptr, 0); }},
                              {"brd_fpd_upgrade", [&] { lib.brd_fpd_upgrade(7, 10, &upgrade, nullptr, 0); }}});
    // To register the identity is not yet to start the layer.
    FruHwData data = identity();
    ASSERT_EQ(lib.brd_fru_hw_data_init(0, 0, &data, &number), 0);
    expect_all_abort(reason, {first});
}

TEST_F(StrictnessTest, AnotherThreadThanTheFirst) {
    const auto elsewhere = [](const std::function<void()> &call) { return [=] { std::thread(call).join(); }; };
    expect_all_abort(
        "called from another thread than the one that called first",
        {{"brd_sb_attribute_flag_set", elsewhere([&] { lib.brd_sb_attribute_flag_set(1); })},
         {"brd_group_led_init", elsewhere([&] { lib.brd_group_led_init(7); })},
         {"get_fpd_capability_info", elsewhere([&] { lib.get_fpd_capability_info("IoFpga", 4711, hw_version()); })},
         {"brd_intf_fpd_upgrade_cookie_get_upgrade_mode",
          elsewhere([&] { lib.brd_intf_fpd_upgrade_cookie_get_upgrade_mode(&value, err_msg, sizeof err_msg); })}});
}

TEST_F(ColdStrictnessTest, AThreadThatOnlyRunsCommandsIsNotTheFirst) {
    std::thread([&] {
        EXPECT_EQ(lib.exec_shell_command(text, sizeof text, &length, err_msg, sizeof err_msg, "true"), 0);
    }).join();
    EXPECT_EQ(lib.brd_sb_attribute_flag_set(1), 0);
}

}  // namespace
}  // namespace cardsim
