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
    std::string output;
    std::string error;             // into err_msg when rc is not 0
    std::function<void()> effect;  // runs first; may be null
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

struct FakePlatform {
    // The card.
    std::uint32_t group_id = 3;
    std::vector<FakeFpd> fpds;
    std::vector<FakeLed> leds;
    std::vector<FakeCommand> commands;
    int auto_upgrade = 1;
    int upgrade_mode = 0;
    std::string chatter;  // into err_msg where nothing failed

    // Answers in place of the card's.
    std::function<int(int)> brd_sb_attribute_flag_set;
    std::function<int(std::uint32_t *)> brd_local_card_group_id_get;
    std::function<int(std::uint32_t, std::uint32_t *)> brd_group_fpd_num_fpds_get;
    std::function<int(std::uint32_t, std::uint32_t *)> brd_group_fpd_obj_id_list_get;
    std::function<int(std::uint32_t, std::uint32_t, std::uint8_t *)> brd_fpd_num_regions_get;
    std::function<int(std::uint32_t, std::uint32_t, BrdFpdRegion *, std::uint8_t)> brd_fpd_regions_get;
    std::function<int(std::uint32_t, std::uint32_t, std::uint8_t, BrdFpdInfo *, char *, std::size_t)> brd_fpd_info_get;
    std::function<int(std::uint32_t, std::uint32_t, BrdFpdUpgradeRequest *, char *, std::size_t)> brd_fpd_upgrade;
    std::function<int(std::uint32_t)> brd_group_led_init;
    std::function<int(std::uint32_t, std::uint32_t *)> brd_group_led_num_leds_get;
    std::function<int(std::uint32_t, std::uint32_t *)> brd_group_led_obj_id_list_get;
    std::function<int(std::uint32_t, std::uint32_t, std::uint32_t *)> brd_led_type_get;
    std::function<int(std::uint32_t, std::uint32_t, char *, std::size_t)> brd_led_name_get;
    std::function<int(std::uint32_t, std::uint32_t, std::uint32_t *)> brd_led_current_color_get;
    std::function<int(std::uint32_t, std::uint32_t, std::uint32_t *)> brd_led_current_state_get;
    std::function<int(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)> brd_led_state_and_color_set;
    std::function<int(std::uint32_t, std::uint32_t, FruHwData *, std::uint32_t *)> brd_fru_hw_data_init;
    std::function<int(std::uint32_t)> brd_fru_hw_init;
    std::function<std::uint32_t(const char *, std::uint32_t, FpdVersion)> get_fpd_capability_info;
    std::function<int(FpdDescRequest *, FpdDesc *, char *, std::size_t)> check_and_get_upgrade_image;
    std::function<int(const char *, const char *, const char *, char *, std::size_t)> image_md5_validate;
    std::function<int(int *, char *, std::size_t)> cookie_get_auto_upgrade_config;
    std::function<int(int, char *, std::size_t)> cookie_set_auto_upgrade_config;
    std::function<int(int *, char *, std::size_t)> cookie_get_upgrade_mode;
    std::function<int(int, char *, std::size_t)> cookie_set_upgrade_mode;

    /// The record, in the order of the calls; copies, taken at any time.
    std::vector<FakeCall> calls();
    std::vector<FakeCall> calls_of(const std::string &function);
    std::vector<std::string> command_lines();              // of exec_shell_command
    std::vector<FakeCommandBuffers> command_buffers();     // of its calls
    std::vector<BrdFpdUpgradeRequest> upgrade_requests();  // of brd_fpd_upgrade
    std::vector<FpdDescRequest> description_requests();    // of check_and_get_upgrade_image
    std::vector<FruHwData> hardware_data();                // of brd_fru_hw_data_init
    void forget_calls();

    /// The default card again (see make_default_card), no hooks, nothing on record.
    void reset();

    FakeFpd *find_fpd(std::uint32_t obj_id);
    FakeRegion *find_region(const std::string &name);

    std::mutex lock;  // of everything above and below
    std::vector<FakeCall> recorded;
    std::vector<std::string> recorded_commands;
    std::vector<FakeCommandBuffers> recorded_buffers;
    std::vector<BrdFpdUpgradeRequest> recorded_upgrades;
    std::vector<FpdDescRequest> recorded_descriptions;
    std::vector<FruHwData> recorded_hardware;
};

/// The process's fake; never destroyed, since a worker that was given up on may still be in it.
FakePlatform &fake_platform();

/// A region that runs 1.0.0, has 2.0.0 packaged as "<name>.bin", and is to be upgraded; activation kind 0, sequence 0.
FakeRegion make_region(const std::string &name);
/// The FPD with regions of these names.
FakeFpd make_fpd(std::uint32_t obj_id, const std::vector<std::string> &names);

#endif
