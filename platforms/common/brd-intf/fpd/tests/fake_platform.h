/// A fake of the closed libraries: a small card of plain data, every call on record, every answer replaceable.
///
/// The libraries' functions answer from FakePlatform's data unless the hook of the same name is set, which then answers
/// alone. Data and hooks are a test's to set while no worker runs; calls may come from any thread, and each reads what
/// it needs of them under the fake's lock, which it does not hold while a hook or a progress callback runs.
#ifndef BOOTUP_FPD_TESTS_FAKE_PLATFORM_H
#define BOOTUP_FPD_TESTS_FAKE_PLATFORM_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"

/// One FPD region.
struct FakeRegion {
    std::string name;  // as the regions' list and the information block give it
    BrdFpdInfo info{};
    std::uint32_t capabilities = FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE;
    FpdDesc desc{};  // the description library's answer; magic and version are the caller's
};

struct FakeFpd {
    std::uint32_t obj_id = 0;
    std::vector<FakeRegion> regions;
};

struct FakeLed {
    std::uint32_t obj_id = 0;
    std::uint32_t type = 1;
    std::string name = "Status";
    std::uint32_t state = 2;
    std::uint32_t color = 2;
};

/// How commands that begin with `prefix` end. The last that fits counts.
struct FakeCommand {
    std::string prefix;
    int rc = 0;
    std::string output{};
    std::string error{};             // into err_msg when rc is not 0
    std::function<void()> effect{};  // runs first; may be null
};

/// What exec_shell_command was handed to write into.
struct FakeCommandBuffers {
    std::size_t output_size = 0;
    std::size_t error_size = 0;
    bool output_zeroed = false;  // every byte of it
    bool operator==(const FakeCommandBuffers &) const = default;
};

/// One call of a closed function, with its arguments as text: {"brd_led_type_get", "3, 1"}.
struct FakeCall {
    std::string function;
    std::string arguments;
    bool operator==(const FakeCall &) const = default;
};

/// A region that runs 1.0.0, has 2.0.0 packaged as "<name>.bin", and is to be upgraded; activation kind 0, sequence 0.
FakeRegion make_region(const std::string &name);
/// The FPD with regions of these names.
FakeFpd make_fpd(std::uint32_t obj_id, const std::vector<std::string> &names);

/// What a test sets: the card, and answers in place of the card's.
struct FakeAnswers {
    std::uint32_t group_id = 3;
    std::vector<FakeFpd> fpds{make_fpd(1, {"IoFpga"})};
    std::vector<FakeLed> leds{{.obj_id = 1}};
    std::vector<FakeCommand> commands;
    int auto_upgrade = 1;
    int upgrade_mode = 0;
    std::string chatter;  // into err_msg where nothing failed

    std::function<decltype(::brd_sb_attribute_flag_set)> brd_sb_attribute_flag_set;
    std::function<decltype(::brd_local_card_group_id_get)> brd_local_card_group_id_get;
    std::function<decltype(::brd_group_fpd_num_fpds_get)> brd_group_fpd_num_fpds_get;
    std::function<decltype(::brd_group_fpd_obj_id_list_get)> brd_group_fpd_obj_id_list_get;
    std::function<decltype(::brd_fpd_num_regions_get)> brd_fpd_num_regions_get;
    std::function<decltype(::brd_fpd_regions_get)> brd_fpd_regions_get;
    std::function<decltype(::brd_fpd_info_get)> brd_fpd_info_get;
    std::function<decltype(::brd_fpd_upgrade)> brd_fpd_upgrade;
    std::function<decltype(::brd_group_led_init)> brd_group_led_init;
    std::function<decltype(::brd_group_led_num_leds_get)> brd_group_led_num_leds_get;
    std::function<decltype(::brd_group_led_obj_id_list_get)> brd_group_led_obj_id_list_get;
    std::function<decltype(::brd_led_type_get)> brd_led_type_get;
    std::function<decltype(::brd_led_name_get)> brd_led_name_get;
    std::function<decltype(::brd_led_current_color_get)> brd_led_current_color_get;
    std::function<decltype(::brd_led_current_state_get)> brd_led_current_state_get;
    std::function<decltype(::brd_led_state_and_color_set)> brd_led_state_and_color_set;
    std::function<decltype(::brd_fru_hw_data_init)> brd_fru_hw_data_init;
    std::function<decltype(::brd_fru_hw_init)> brd_fru_hw_init;
    std::function<decltype(::get_fpd_capability_info)> get_fpd_capability_info;
    std::function<decltype(::check_and_get_upgrade_image)> check_and_get_upgrade_image;
    std::function<decltype(::brd_intf_fpd_image_md5_validate)> image_md5_validate;
    std::function<decltype(::brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config)> cookie_get_auto_upgrade_config;
    std::function<decltype(::brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config)> cookie_set_auto_upgrade_config;
    std::function<decltype(::brd_intf_fpd_upgrade_cookie_get_upgrade_mode)> cookie_get_upgrade_mode;
    std::function<decltype(::brd_intf_fpd_upgrade_cookie_set_upgrade_mode)> cookie_set_upgrade_mode;
};

/// What the closed functions were called with, in the order of the calls.
struct FakeRecord {
    std::vector<FakeCall> calls;
    std::vector<std::string> command_lines;              // of exec_shell_command
    std::vector<FakeCommandBuffers> command_buffers;     // of its calls
    std::vector<BrdFpdUpgradeRequest> upgrade_requests;  // of brd_fpd_upgrade
    std::vector<FpdDescRequest> description_requests;    // of check_and_get_upgrade_image
    std::vector<FruHwData> hardware_data;                // of brd_fru_hw_data_init
};

struct FakePlatform : FakeAnswers {
    // Copies of the record, taken at any time.
    std::vector<FakeCall> calls() { return copy_of(&FakeRecord::calls); }
    std::vector<FakeCall> calls_of(const std::string &function);
    std::vector<std::string> command_lines() { return copy_of(&FakeRecord::command_lines); }
    std::vector<FakeCommandBuffers> command_buffers() { return copy_of(&FakeRecord::command_buffers); }
    std::vector<BrdFpdUpgradeRequest> upgrade_requests() { return copy_of(&FakeRecord::upgrade_requests); }
    std::vector<FpdDescRequest> description_requests() { return copy_of(&FakeRecord::description_requests); }
    std::vector<FruHwData> hardware_data() { return copy_of(&FakeRecord::hardware_data); }
    void forget_calls();

    /// The default card again, no answers in its place, nothing on record.
    void reset();

    FakeFpd *find_fpd(std::uint32_t obj_id);
    FakeRegion *find_region(const std::string &name);

    template <class Part>
    Part copy_of(Part FakeRecord::*part) {
        const std::lock_guard guard(lock);
        return record.*part;
    }

    std::mutex lock;  // of all that is here
    FakeRecord record;
};

/// The process's fake; never destroyed, since a worker that was given up on may still be in it.
FakePlatform &fake_platform();

#endif
