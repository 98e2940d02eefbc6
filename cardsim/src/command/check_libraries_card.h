/// What the processes with the libraries find out about the card, and the functions that they call.
#ifndef CARDSIM_CHECK_LIBRARIES_CARD_H
#define CARDSIM_CHECK_LIBRARIES_CARD_H

#include <dlfcn.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"

namespace cardsim {

/// All functions of the closed libraries.
inline constexpr std::array closed_functions = {
    "brd_sb_attribute_flag_set",
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
    "brd_fru_hw_data_init",
    "brd_fru_hw_init",
    "get_fpd_capability_info",
    "check_and_get_upgrade_image",
    "exec_shell_command",
    "brd_intf_fpd_image_md5_validate",
    "brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config",
    "brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config",
    "brd_intf_fpd_upgrade_cookie_get_upgrade_mode",
    "brd_intf_fpd_upgrade_cookie_set_upgrade_mode",
};

/// The function that the tool would call; null: there is none.
template <class Function>
Function *closed_function(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

struct Region {
    uint8_t index = 0;
    std::string name;
    BrdFpdInfo info{};
    bool has_info = false;
};

struct FpdObject {
    uint32_t id = 0;
    std::vector<Region> regions;
};

struct Card {
    uint32_t group = 0;
    uint32_t status_led = 0;  // 0: none
    uint32_t mode = 0;        // stored upgrade mode
    uint32_t board_type = 0;
    FpdVersion hw_version{};
    std::vector<FpdObject> fpds;

    bool has_region(const std::string &name) const;
};

/// The card's identity from its key file, as the tool hands it to the libraries. Throws Error of code 0 when there is
/// no such file, or a key is missing.
FruHwData read_identity();

/// The upgrade type that the tool asks the description library for in this stored mode.
uint32_t requested_type(uint32_t mode);

/// Zeroed but for its marks.
void prepare(FpdDesc &description);
FpdDescRequest description_request(const Card &card, const Region &region);

}  // namespace cardsim

#endif
